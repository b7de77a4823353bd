'use strict';
// The developer build's view of the runtime it builds for, as node-gyp configures the package for it: node-gyp
// configures a copy of binding.gyp, and its findings (the headers, the V8 defines, the build record) are read back.
//
//   node cmake/node-gyp-config.js --work DIR --cmake OUT.cmake --record OUT.json [--nodedir DIR]
//
// Without --nodedir the headers are chosen as the install chooses them (scripts/node-gyp.js): npm's knobs in the
// environment, else the running Node's own.
const fs = require('node:fs');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { parseArgs } = require('node:util');
const { nodeGypScript, headerArgs, withoutRuntimeKnobs } = require('../scripts/node-gyp.js');
const { readBuild, saveRecord } = require('../scripts/build-record.js');

const sourceDir = path.resolve(__dirname, '..');

/** Runs `node-gyp configure` on a copy of the package's gyp files in `workDir`; returns node-gyp's build folder. */
function configure(workDir, nodedir) {
  fs.mkdirSync(workDir, { recursive: true });
  for (const name of ['binding.gyp', 'sources.gypi']) fs.copyFileSync(path.join(sourceDir, name), path.join(workDir, name));
  const args = nodedir ? [`--nodedir=${path.resolve(nodedir)}`] : headerArgs();
  const env = nodedir ? withoutRuntimeKnobs() : process.env;
  const r = spawnSync(process.execPath, [nodeGypScript(), 'configure', ...args], { cwd: workDir, env,
    encoding: 'utf8' });
  if (r.error || r.status !== 0) throw new Error(`node-gyp configure failed:\n${r.stdout}${r.stderr}${r.error || ''}`);
  return path.join(workDir, 'build');
}

/** The findings as CMake variables. */
function cmakeScript({ record, includeDir }) {
  const q = (s) => `"${String(s).replace(/[\\"$]/g, '\\$&')}"`;
  return [
    `set(ZEL_NODE_INCLUDE_DIR ${q(includeDir)})`,
    `set(ZEL_NODE_VERSION ${q(record.version)})`,
    `set(ZEL_NODE_MODULE_VERSION ${record.moduleVersion})`,
    `set(ZEL_V8_VERSION ${q(record.v8Version)})`,
    `set(ZEL_V8_DEFINES ${record.v8Defines.map(q).join(' ')})`,
    '',
  ].join('\n');
}

function main() {
  const { values } = parseArgs({ options: { work: { type: 'string' }, cmake: { type: 'string' },
    record: { type: 'string' }, nodedir: { type: 'string' } } });
  const build = readBuild(configure(path.resolve(values.work), values.nodedir));
  fs.writeFileSync(values.cmake, cmakeScript(build));
  saveRecord(values.record, build.record);
}

if (require.main === module) {
  try {
    main();
  } catch (e) {
    process.stderr.write(`zelbridge: ${e.message}\n`);
    process.exit(1);
  }
}

module.exports = { configure };
