'use strict';
// The build record (zelbridge-build.json) of a module, read back from what node-gyp configured for it: the runtime,
// its version and module version, the V8 build options and the V8 defines node-gyp derived from them. Nothing here
// works the defines out again: they are the ones node-gyp wrote into the module's makefile.
//
//   node scripts/build-record.js <node-gyp build dir> <record file>    (run by binding.gyp after the link)
const fs = require('node:fs');
const path = require('node:path');

/** The build variables node-gyp used (its build/config.gypi: a comment line, then JSON). */
function readConfig(buildDir) {
  const text = fs.readFileSync(path.join(buildDir, 'config.gypi'), 'utf8');
  return JSON.parse(text.replace(/^#.*$/gm, '')).variables;
}

/** The -D definitions node-gyp generated for `target` in `configuration` (DEFS_<configuration> of its makefile). */
function readDefines(buildDir, target = 'zelbridge', configuration = 'Release') {
  const text = fs.readFileSync(path.join(buildDir, `${target}.target.mk`), 'utf8');
  const block = new RegExp(`^DEFS_${configuration} :=((?:.*\\\\\\n)*.*)$`, 'm').exec(text);
  if (!block) throw new Error(`${target}.target.mk has no DEFS_${configuration}`);
  return [...block[1].matchAll(/'-D([^']+)'/g)].map((m) => m[1]);
}

/** Reads a numeric #define from a header. */
function headerDefine(file, name) {
  const all = [...fs.readFileSync(file, 'utf8').matchAll(new RegExp(`^#define ${name} (\\d+)`, 'gm'))];
  if (all.length === 0) throw new Error(`${file} defines no ${name}`);
  return Number(all[all.length - 1][1]);
}

/** The include directory of the headers under a node-gyp nodedir (an install prefix or a source tree). */
function includeDirOf(nodedir) {
  const dir = [path.join(nodedir, 'include', 'node'), path.join(nodedir, 'src')].find((d) =>
    fs.existsSync(path.join(d, 'node_version.h')));
  if (!dir) throw new Error(`${nodedir} has no include/node/node_version.h`);
  return dir;
}

/**
 * The build variables the V8 defines depend on: those named in the conditions of the headers' common.gypi that add
 * a V8_ define. The record keeps their values so that the loader can compare them with the running process.
 */
function v8OptionNames(commonGypi) {
  const names = new Set();
  for (const [, condition, defines] of commonGypi.matchAll(/\[\s*'([^']*)'\s*,\s*\{\s*'defines'\s*:\s*\[([^\]]*)\]/g)) {
    if (!/['"]V8_/.test(defines)) continue;
    for (const word of condition.replace(/'[^']*'|"[^"]*"/g, '').match(/[A-Za-z_]\w*/g) || []) {
      if (!['and', 'or', 'not', 'in'].includes(word)) names.add(word);
    }
  }
  return names;
}

/**
 * What node-gyp configured in `buildDir` (its build folder) for `configuration`: the record of the module built
 * there, and the include directory of the headers it was built with.
 */
function readBuild(buildDir, configuration = 'Release') {
  const variables = readConfig(buildDir);
  const includeDir = includeDirOf(variables.nodedir);
  const file = (name) => path.join(includeDir, name);
  const version = (header, names) => names.map((n) => headerDefine(file(header), n)).join('.');
  const optionNames = v8OptionNames(fs.readFileSync(file('common.gypi'), 'utf8'));
  const record = {
    runtime: variables.runtime || 'node',
    version: String(variables.target || version('node_version.h', ['NODE_MAJOR_VERSION', 'NODE_MINOR_VERSION',
      'NODE_PATCH_VERSION'])).replace(/^v/, ''),
    moduleVersion: headerDefine(file('node_version.h'), 'NODE_MODULE_VERSION'),
    v8Version: version('v8-version.h', ['V8_MAJOR_VERSION', 'V8_MINOR_VERSION', 'V8_BUILD_NUMBER', 'V8_PATCH_LEVEL']),
    v8Options: Object.fromEntries(Object.entries(variables).filter(([name]) => optionNames.has(name)).sort()),
    v8Defines: readDefines(buildDir, 'zelbridge', configuration).filter((d) => d.startsWith('V8_')),
  };
  return { record, includeDir };
}

/** Writes `record` to `file`. */
function saveRecord(file, record) {
  fs.writeFileSync(file, `${JSON.stringify(record, null, 2)}\n`);
}

if (require.main === module) {
  const [buildDir, recordFile] = process.argv.slice(2).map((p) => path.resolve(p));
  try {
    // The record is written into the configuration's output folder (build/Release).
    saveRecord(recordFile, readBuild(buildDir, path.basename(path.dirname(recordFile))).record);
  } catch (e) {
    process.stderr.write(`zelbridge: cannot write the build record: ${e.message}\n`);
    process.exit(1);
  }
}

module.exports = { readConfig, readDefines, v8OptionNames, readBuild, saveRecord };
