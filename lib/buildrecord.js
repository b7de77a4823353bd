'use strict';
// Finds a zelbridge.node built for the running runtime: its build record (zelbridge-build.json, written beside it
// by the build) must name this process's module version and V8 build options. A module built for another runtime
// would load and then corrupt memory on its first V8 call.
const fs = require('node:fs');
const path = require('node:path');

const packageDir = path.resolve(__dirname, '..');

/** Build directories to look in, in order: $ZELBRIDGE_BUILD_DIR alone when set, else the developer and install builds. */
function buildDirs(env = process.env) {
  if (env.ZELBRIDGE_BUILD_DIR) return [path.resolve(env.ZELBRIDGE_BUILD_DIR)];
  return ['default', 'release', 'module'].map((name) => path.join(packageDir, 'build', name));
}

/** What the running process is, in the terms of a build record. */
function runningRuntime(proc = process) {
  return {
    runtime: proc.versions.electron ? 'electron' : proc.release.name,
    version: proc.versions.electron || proc.versions.node,
    moduleVersion: Number(proc.versions.modules),
    v8Version: proc.versions.v8,
    v8Options: proc.config.variables,
  };
}

/** The differences between a build record and the running process, as readable lines (none: they match). */
function differences(record, running) {
  const found = [];
  if (record.moduleVersion !== running.moduleVersion)
    found.push(`module version ${record.moduleVersion} (running: ${running.moduleVersion})`);
  for (const [name, built] of Object.entries(record.v8Options || {})) {
    const actual = running.v8Options[name];
    if (actual !== undefined && String(actual) !== String(built)) found.push(`${name}=${built} (running: ${actual})`);
  }
  return found;
}

/** The command that rebuilds the module for the running process. */
const isInstalled = () => path.basename(path.dirname(packageDir)) === 'node_modules';

function rebuildCommand(proc = process) {
  const installed = isInstalled();
  const where = installed ? path.resolve(packageDir, '..', '..') : packageDir;
  const base = installed ? 'npm rebuild zelbridge' : 'npm run build';
  const running = runningRuntime(proc);
  let knobs = '';
  if (running.runtime !== 'node') {
    knobs = ` --runtime=${running.runtime} --target=${running.version} --nodedir=<directory with its include/node>`;
  } else {
    const prefix = path.resolve(proc.execPath, '..', '..');
    if (fs.existsSync(path.join(prefix, 'include', 'node', 'node_version.h'))) knobs = ` --nodedir=${prefix}`;
  }
  return `cd ${JSON.stringify(where)} && ${base}${knobs}`;
}

const describeBuild = (r) => `${r.runtime} ${r.version} (module version ${r.moduleVersion}, V8 ${r.v8Version})`;

/** The path of a module built for the running process, or an Error that says why there is none and how to build it. */
function findModule(env = process.env, proc = process) {
  const running = runningRuntime(proc);
  const refused = [];
  for (const dir of buildDirs(env)) {
    const file = path.join(dir, 'zelbridge.node');
    if (!fs.existsSync(file)) continue;
    let record;
    try {
      record = JSON.parse(fs.readFileSync(path.join(dir, 'zelbridge-build.json'), 'utf8'));
    } catch {
      refused.push(`${file} has no readable build record (zelbridge-build.json)`);
      continue;
    }
    const diff = differences(record, running);
    if (diff.length === 0) return file;
    refused.push(`${file} was built for ${describeBuild(record)}, but this process is ${describeBuild(running)}; ` +
      `it differs in: ${diff.join(', ')}`);
  }
  let why = refused.join('; ');
  if (!why) {
    why = `zelbridge.node is not built (looked in ${buildDirs(env).join(', ')})`;
    // npm 12 runs a dependency's install script only when the app allows it.
    if (isInstalled()) why += '; if npm did not run its install script, allow it with "npm approve-scripts zelbridge"';
  }
  return new Error(`${why}. Build it for this runtime with: ${rebuildCommand(proc)}`);
}

module.exports = { buildDirs, runningRuntime, differences, rebuildCommand, findModule };
