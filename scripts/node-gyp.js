'use strict';
// node-gyp as npm runs it for a package with a binding.gyp: npm's own copy, with npm's config knobs
// (npm_config_nodedir, npm_config_target, npm_config_runtime, npm_config_dist_url, npm_config_devdir...) read by
// node-gyp itself from the environment.
const fs = require('node:fs');
const path = require('node:path');

/** Finds `command` on PATH; null when it is not there. */
function which(command, env = process.env) {
  for (const dir of (env.PATH || '').split(path.delimiter).filter(Boolean)) {
    const file = path.join(dir, command);
    try {
      fs.accessSync(file, fs.constants.X_OK);
      return file;
    } catch {}
  }
  return null;
}

/**
 * node-gyp's command-line script: the one npm names to its scripts (npm_config_node_gyp), else the one bundled
 * with the npm on PATH. Throws when there is neither.
 */
function nodeGypScript(env = process.env) {
  if (env.npm_config_node_gyp && fs.existsSync(env.npm_config_node_gyp)) return env.npm_config_node_gyp;
  const npm = which('npm', env);
  const script = npm && path.resolve(fs.realpathSync(npm), '..', '..', 'node_modules', 'node-gyp', 'bin',
    'node-gyp.js');
  if (!script || !fs.existsSync(script)) throw new Error('node-gyp was not found (it comes with npm)');
  return script;
}

const knobs = ['nodedir', 'target', 'runtime', 'dist_url', 'disturl'];
const knob = (env, name) => env[`npm_config_${name}`] || env[`npm_config_${name.replace(/_/g, '-')}`];

/** The npm config knobs that name the runtime to build for, as { name: value } (empty: the running Node). */
function requestedRuntime(env = process.env) {
  return Object.fromEntries(knobs.map((name) => [name, knob(env, name)]).filter(([, value]) => value));
}

/** Whether the knobs ask for a build for the running Node: none set, or only its own name and version. */
function buildsForRunningNode(env = process.env, proc = process) {
  const { runtime = 'node', target, ...others } = requestedRuntime(env);
  return runtime === 'node' && (!target || target.replace(/^v/, '') === proc.versions.node) &&
    Object.keys(others).length === 0;
}

/** The version a node_version.h names, or null when there is none. */
function headerVersion(includeDir) {
  try {
    const text = fs.readFileSync(path.join(includeDir, 'node_version.h'), 'utf8');
    return ['MAJOR', 'MINOR', 'PATCH'].map((part) => new RegExp(`^#define NODE_${part}_VERSION (\\d+)`, 'm')
      .exec(text)[1]).join('.');
  } catch {
    return null;
  }
}

/**
 * The directory of the running Node's own headers (its prefix, holding include/node) when they are installed
 * beside it, else null. node-gyp would download them instead; a machine with the headers needs no download.
 */
function runningNodeDir(proc = process) {
  const prefix = path.resolve(proc.execPath, '..', '..');
  return headerVersion(path.join(prefix, 'include', 'node')) === proc.versions.node ? prefix : null;
}

/**
 * `env` without npm's knobs that name a runtime or its headers, for a node-gyp run told its --nodedir: node-gyp
 * gives the environment's knobs precedence over its command line.
 */
function withoutRuntimeKnobs(env = process.env) {
  const knob = new RegExp(`^npm_config_(${knobs.join('|')})$`, 'i');
  return Object.fromEntries(Object.entries(env).filter(([key]) => !knob.test(key.replace(/-/g, '_'))));
}

/** node-gyp's arguments that name the headers: the running Node's own when the build is for it, else none. */
function headerArgs(env = process.env, proc = process) {
  const own = buildsForRunningNode(env, proc) && runningNodeDir(proc);
  return own ? [`--nodedir=${own}`] : [];
}

module.exports = { which, nodeGypScript, requestedRuntime, buildsForRunningNode, headerVersion, runningNodeDir,
  withoutRuntimeKnobs, headerArgs };
