'use strict';
// Finds a zelbridge.node built for the running runtime: its build record (written beside it by the build) must name
// this process's runtime, module version and V8 build options. A module built for another runtime would load and
// then corrupt memory on its first V8 call.
const fs = require('node:fs');
const path = require('node:path');

const packageDir = path.resolve(__dirname, '..');
const platform = `${process.platform}-${process.arch}`;

/** The prebuilt modules in `dir`: <runtime>.abi<N>.node, each with its build record <runtime>.abi<N>.json. */
function prebuilds(dir = path.join(packageDir, 'prebuilds', platform)) {
  let names = [];
  try {
    names = fs.readdirSync(dir).filter((name) => name.endsWith('.node')).sort();
  } catch {}
  return names.map((name) => ({ module: path.join(dir, name), record: path.join(dir, name.replace(/\.node$/, '.json')),
    prebuilt: true }));
}

/** A build folder: zelbridge.node with its zelbridge-build.json. */
const buildFolder = (dir) => ({ module: path.join(dir, 'zelbridge.node'), record: path.join(dir, 'zelbridge-build.json') });

/**
 * The modules to look at, in order: $ZELBRIDGE_BUILD_DIR alone when set; else the node-gyp build (build/Release),
 * the developer builds (build/default, build/release) and the prebuilds.
 */
function candidates(env = process.env, dir = packageDir) {
  if (env.ZELBRIDGE_BUILD_DIR) return [buildFolder(path.resolve(env.ZELBRIDGE_BUILD_DIR))];
  return [...['Release', 'default', 'release'].map((name) => buildFolder(path.join(dir, 'build', name))),
    ...prebuilds(path.join(dir, 'prebuilds', platform))];
}

/** The build record of a candidate module, or null when it has none that can be read. */
function readRecord(candidate) {
  try {
    return JSON.parse(fs.readFileSync(candidate.record, 'utf8'));
  } catch {
    return null;
  }
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
  if (record.runtime !== running.runtime) found.push(`runtime ${record.runtime} (running: ${running.runtime})`);
  if (record.moduleVersion !== running.moduleVersion)
    found.push(`module version ${record.moduleVersion} (running: ${running.moduleVersion})`);
  for (const [name, built] of Object.entries(record.v8Options || {})) {
    const actual = running.v8Options[name];
    if (actual !== undefined && String(actual) !== String(built)) found.push(`${name}=${built} (running: ${actual})`);
  }
  return found;
}

const isInstalled = () => path.basename(path.dirname(packageDir)) === 'node_modules';

/** Where a runtime publishes its headers, for node-gyp's --dist-url. */
function distUrl(proc = process) {
  if (proc.versions.electron) return 'https://electronjs.org/headers';
  const headers = proc.release.headersUrl;
  return headers ? headers.replace(/\/v?[^/]*\/[^/]*$/, '') : '<where the runtime publishes its headers>';
}

/**
 * The command that rebuilds the module for the running process: for Node, the install (which takes the running
 * Node's headers); for another runtime, the install with npm's knobs naming it, so that node-gyp downloads its
 * headers. `extra` adds knobs.
 */
function rebuildCommand(proc = process, extra = '') {
  const installed = isInstalled();
  const where = installed ? path.resolve(packageDir, '..', '..') : packageDir;
  const base = installed ? 'npm rebuild zelbridge' : 'npm run build';
  const running = runningRuntime(proc);
  const knobs = (running.runtime === 'node' ? '' :
    ` --runtime=${running.runtime} --target=${running.version} --dist-url=${distUrl(proc)}`) + extra;
  const tool = running.runtime === 'electron' ? '; or rebuild the app\'s native modules with "npx @electron/rebuild"' : '';
  return `cd ${JSON.stringify(where)} && ${base}${knobs}${tool}`;
}

const describeBuild = (r) => `${r.runtime} ${r.version} (module version ${r.moduleVersion}, V8 ${r.v8Version})`;

/**
 * The module built for the running process, as { module, record, prebuilt }, or an Error that says why there is
 * none and how to build it. `dir`: the package folder to look in.
 */
function findModule(env = process.env, proc = process, dir = packageDir) {
  const running = runningRuntime(proc);
  const refused = [];
  const otherPrebuilds = [];
  for (const candidate of candidates(env, dir)) {
    if (!fs.existsSync(candidate.module)) continue;
    const record = readRecord(candidate);
    if (!record) {
      refused.push(`${candidate.module} has no readable build record (${path.basename(candidate.record)})`);
      continue;
    }
    const diff = differences(record, running);
    if (diff.length === 0) return { ...candidate, record };
    if (candidate.prebuilt) otherPrebuilds.push(describeBuild(record));
    else refused.push(`${candidate.module} was built for ${describeBuild(record)}, but this process is ` +
      `${describeBuild(running)}; it differs in: ${diff.join(', ')}`);
  }
  if (otherPrebuilds.length) refused.push(`no prebuilt module is for ${describeBuild(running)} (there are ` +
    `prebuilt modules for ${otherPrebuilds.join(', ')})`);
  let why = refused.join('; ');
  if (!why) {
    why = `zelbridge.node is not built (looked in ${candidates(env, dir).map((c) => path.dirname(c.module))
      .filter((d, i, all) => all.indexOf(d) === i).join(', ')})`;
    // npm 12 runs a dependency's install script only when the app allows it.
    if (isInstalled()) why += '; if npm did not run its install script, allow it with "npm approve-scripts zelbridge"';
  }
  return new Error(`${why}. Build it for this runtime with: ${rebuildCommand(proc)}`);
}

module.exports = { prebuilds, candidates, readRecord, runningRuntime, differences, rebuildCommand, findModule };
