'use strict';
// The build record as node-gyp's configuration gives it, the V8 defines node-gyp derives from a runtime's headers,
// the install's choice of headers, the settings of the npm the package's scripts start, and the loader's choice and
// refusal of modules.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const buildRecord = require('../../scripts/build-record.js');
const nodeGyp = require('../../scripts/node-gyp.js');
const { configure } = require('../../cmake/node-gyp-config.js');
const loader = require('../../lib/buildrecord.js');
const { indexPath, buildDir } = require('./support.js');
const { syntheticHostHeaders } = require('../../scripts/hosts.js');

const systemPrefix = path.resolve(process.execPath, '..', '..');
const systemHeaders = path.join(systemPrefix, 'include', 'node');
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'zelbridge-record-'));
test.after(() => fs.rmSync(work, { recursive: true, force: true }));

// What node-gyp configures for headers with the given config.gypi options set.
const configuredWith = (name, options = []) => {
  const headers = syntheticHostHeaders(path.join(work, name, 'headers'), { options });
  return buildRecord.readBuild(configure(path.join(work, name, 'gyp'), headers));
};
// Node's headers always ask for deprecation warnings; the defines of interest are the others.
const layoutDefines = (record) => record.v8Defines.filter((d) => !/DEPRECATION_WARNINGS/.test(d));

test("the developer build's record is the running Node's, read back from node-gyp's configuration", () => {
  const record = JSON.parse(fs.readFileSync(path.join(buildDir, 'zelbridge-build.json'), 'utf8'));
  assert.equal(record.runtime, 'node');
  assert.equal(record.version, process.versions.node);
  assert.equal(record.moduleVersion, Number(process.versions.modules));
  assert.deepEqual(layoutDefines(record), []);
  for (const option of ['v8_enable_pointer_compression', 'v8_enable_sandbox', 'v8_enable_31bit_smis_on_64bit_arch'])
    assert.equal(record.v8Options[option], process.config.variables[option], option);
  assert.deepEqual(loader.differences(record, loader.runningRuntime()), []);
});

test('each V8 option gives the defines node-gyp derives from it', () => {
  // A cage per isolate is ISOLATE_CAGE in Node 20's headers, MULTIPLE_CAGES in Node 26's, implicit in Node 22's.
  const ownCage = fs.readFileSync(path.join(systemHeaders, 'common.gypi'), 'utf8')
    .match(/V8_COMPRESS_POINTERS_IN_(ISOLATE|MULTIPLE)_CAGES?/g) || [];
  const cases = [
    [['v8_enable_pointer_compression'], ['V8_COMPRESS_POINTERS', ...ownCage, 'V8_31BIT_SMIS_ON_64BIT_ARCH']],
    [['v8_enable_pointer_compression', 'v8_enable_pointer_compression_shared_cage'],
      ['V8_COMPRESS_POINTERS', 'V8_COMPRESS_POINTERS_IN_SHARED_CAGE', 'V8_31BIT_SMIS_ON_64BIT_ARCH']],
    [['v8_enable_31bit_smis_on_64bit_arch'], ['V8_31BIT_SMIS_ON_64BIT_ARCH']],
    [['v8_enable_sandbox'], ['V8_ENABLE_SANDBOX']],
    [['v8_enable_external_code_space'], ['V8_EXTERNAL_CODE_SPACE']],
    [['v8_enable_v8_checks'], ['V8_ENABLE_CHECKS']],
  ];
  for (const [options, defines] of cases) {
    const { record } = configuredWith(options.join('+'), options);
    assert.deepEqual(layoutDefines(record), defines, options.join(', '));
    for (const option of options) assert.equal(record.v8Options[option], 1, option);
  }
});

test('the read-back defines give v8.h the layout of a pointer-compressed host', () => {
  const { record, includeDir } = configuredWith('probe', ['v8_enable_pointer_compression',
    'v8_enable_pointer_compression_shared_cage', 'v8_enable_sandbox']);
  const probe = '#include <v8.h>\nstatic_assert(v8::internal::kApiTaggedSize == 4, "compressed");\n';
  const compile = (defines) => spawnSync('c++', ['-std=c++20', '-fsyntax-only', '-x', 'c++', '-', `-I${includeDir}`,
    ...defines.map((d) => `-D${d}`)], { input: probe, encoding: 'utf8' });
  const withDefines = compile(record.v8Defines);
  assert.equal(withDefines.status, 0, withDefines.stderr);
  assert.notEqual(compile([]).status, 0, 'without the defines v8.h has the uncompressed layout');
});

test("the record's V8 options are the variables that common.gypi turns into V8 defines", () => {
  const commonGypi = `{ 'target_defaults': { 'conditions': [
      ['asan == 1 and OS != "mac"', { 'cflags+': ['-fsanitize=address'] }],
      ['v8_enable_sandbox == 1', { 'defines': ['V8_ENABLE_SANDBOX',], }],
      ['v8_enable_pointer_compression == 1 or v8_enable_31bit_smis_on_64bit_arch == 1', {
        'defines': ['V8_31BIT_SMIS_ON_64BIT_ARCH'],
      }],
      ['OS == "win"', { 'defines': ['WIN32'] }],
    ] } }`;
  assert.deepEqual([...buildRecord.v8OptionNames(commonGypi)].sort(),
    ['v8_enable_31bit_smis_on_64bit_arch', 'v8_enable_pointer_compression', 'v8_enable_sandbox']);
});

test("the defines are read from node-gyp's makefile of the module, for the configuration built", () => {
  const dir = path.join(work, 'makefile');
  fs.mkdirSync(dir);
  fs.writeFileSync(path.join(dir, 'zelbridge.target.mk'), [
    'DEFS_Debug := \\', "\t'-DV8_DEBUG_ONLY' \\", "\t'-DDEBUG'", '',
    'DEFS_Release := \\', "\t'-DNODE_GYP_MODULE_NAME=zelbridge' \\", "\t'-DV8_COMPRESS_POINTERS' \\",
    "\t'-D_FILE_OFFSET_BITS=64'", '', '# Flags passed to all source files.', 'CFLAGS_Release := \\', '\t-O3', ''].join('\n'));
  assert.deepEqual(buildRecord.readDefines(dir), ['NODE_GYP_MODULE_NAME=zelbridge', 'V8_COMPRESS_POINTERS',
    '_FILE_OFFSET_BITS=64']);
  assert.deepEqual(buildRecord.readDefines(dir, 'zelbridge', 'Debug'), ['V8_DEBUG_ONLY', 'DEBUG']);
  assert.throws(() => buildRecord.readDefines(dir, 'zelbridge', 'Profile'), /has no DEFS_Profile/);
});

test('a build for another runtime names it, its version and its options in the record', () => {
  const headers = syntheticHostHeaders(path.join(work, 'electron', 'headers'), { moduleVersion: 139,
    options: ['v8_enable_sandbox'] });
  // node-gyp's --runtime and --target reach its configuration as the variables it writes.
  const gyp = path.join(work, 'electron', 'gyp');
  fs.mkdirSync(path.join(gyp, 'build'), { recursive: true });
  fs.copyFileSync(path.join(configure(gyp, headers), 'zelbridge.target.mk'), path.join(gyp, 'zelbridge.target.mk'));
  const config = JSON.parse(fs.readFileSync(path.join(gyp, 'build', 'config.gypi'), 'utf8').replace(/^#.*$/gm, ''));
  Object.assign(config.variables, { runtime: 'electron', target: 'v39.2.0' });
  fs.writeFileSync(path.join(gyp, 'build', 'config.gypi'), JSON.stringify(config));
  const { record } = buildRecord.readBuild(path.join(gyp, 'build'));
  assert.deepEqual([record.runtime, record.version, record.moduleVersion, record.v8Options.v8_enable_sandbox],
    ['electron', '39.2.0', 139, 1]);
  assert.ok(record.v8Defines.includes('V8_ENABLE_SANDBOX'));
});

test("headers named to the developer build win over npm's knobs, which node-gyp would otherwise prefer", () => {
  const headers = syntheticHostHeaders(path.join(work, 'named', 'headers'), { moduleVersion: 139 });
  const out = (name) => path.join(work, 'named', name);
  const r = spawnSync(process.execPath, [path.join(__dirname, '..', '..', 'cmake', 'node-gyp-config.js'), '--work',
    out('gyp'), '--cmake', out('headers.cmake'), '--record', out('record.json'), '--nodedir', headers],
  { env: { ...process.env, npm_config_nodedir: systemPrefix, npm_config_target: '99.0.0' }, encoding: 'utf8' });
  assert.equal(r.status, 0, r.stderr);
  assert.equal(JSON.parse(fs.readFileSync(out('record.json'), 'utf8')).moduleVersion, 139);
  assert.match(fs.readFileSync(out('headers.cmake'), 'utf8'), /^set\(ZEL_NODE_MODULE_VERSION 139\)$/m);
  assert.deepEqual(nodeGyp.withoutRuntimeKnobs({ npm_config_nodedir: 'a', npm_config_dist_url: 'b',
    npm_config_disturl: 'c', npm_config_target: 'd', npm_config_runtime: 'e', npm_config_jobs: 'max', PATH: 'p' }),
  { npm_config_jobs: 'max', PATH: 'p' });
});

test("the npm the package's scripts start takes none of the starting npm's knobs but the registry's", () => {
  const { withoutNpmKnobs } = require('../../scripts/npm.js');
  const kept = { PATH: 'p', HOME: 'h', npm_config_registry: 'http://r/', 'npm_config_@scope:registry': 'http://s/',
    'npm_config_//r/:_authToken': 't', npm_config_cache: '/c', npm_config_https_proxy: 'http://x', NPM_CONFIG_PROXY: 'y',
    npm_config_noproxy: '', npm_config_cafile: '/ca', npm_config_strict_ssl: 'true' };
  const dropped = { npm_config_pack_destination: '/out', npm_config_dry_run: 'true', npm_config_prefix: '/usr',
    npm_config_local_prefix: '/app', npm_config_workspaces: 'true', npm_config_tag: 'next', NPM_CONFIG_DRY_RUN: 'true',
    npm_config_nodedir: '/usr', npm_command: 'pack', npm_lifecycle_event: 'prepack', npm_package_json: '/p.json' };
  assert.deepEqual(withoutNpmKnobs({ ...kept, ...dropped }), kept);
});

test("the install builds for the running Node with its own headers, and for anything else as npm's knobs say", () => {
  assert.equal(nodeGyp.runningNodeDir(), systemPrefix);
  assert.deepEqual(nodeGyp.headerArgs({}), [`--nodedir=${systemPrefix}`]);
  assert.deepEqual(nodeGyp.headerArgs({ npm_config_target: `v${process.versions.node}`, npm_config_runtime: 'node' }),
    [`--nodedir=${systemPrefix}`]);
  for (const env of [{ npm_config_nodedir: '/somewhere' }, { npm_config_target: '99.0.0' },
    { npm_config_runtime: 'electron', npm_config_target: '39.2.0' }, { npm_config_disturl: 'http://127.0.0.1:9' },
    { npm_config_dist_url: 'http://127.0.0.1:9' }]) {
    assert.equal(nodeGyp.buildsForRunningNode(env), false, JSON.stringify(env));
    assert.deepEqual(nodeGyp.headerArgs(env), [], JSON.stringify(env));
  }
  // A Node without headers beside it: node-gyp finds (or downloads) them itself.
  assert.equal(nodeGyp.runningNodeDir({ ...process, execPath: path.join(work, 'bin', 'node') }), null);
});

/** A package folder with build/<name> and prebuilds/<platform> modules whose records say what they are for. */
function packageWith(name, builds) {
  const dir = path.join(work, name);
  const running = loader.runningRuntime();
  const same = { runtime: running.runtime, version: running.version, moduleVersion: running.moduleVersion,
    v8Version: running.v8Version, v8Options: {} };
  for (const [where, record] of Object.entries(builds)) {
    const [folder, base] = where.startsWith('prebuilds/') ? [path.dirname(where), path.basename(where)] :
      [where, 'zelbridge'];
    fs.mkdirSync(path.join(dir, folder), { recursive: true });
    fs.writeFileSync(path.join(dir, folder, `${base}.node`), '');
    fs.writeFileSync(path.join(dir, folder, base === 'zelbridge' ? 'zelbridge-build.json' : `${base}.json`),
      JSON.stringify({ ...same, ...record }));
  }
  return dir;
}

test('the loader takes the first module built for this process: build/Release, developer builds, prebuilds', () => {
  const platform = `prebuilds/${process.platform}-${process.arch}`;
  const other = { moduleVersion: 1 };
  const find = (dir) => {
    const found = loader.findModule({}, process, dir);
    assert.ok(!(found instanceof Error), found.message);
    return path.relative(dir, found.module);
  };
  assert.equal(find(packageWith('all', { 'build/Release': {}, 'build/default': {}, [`${platform}/node.abi1`]: {} })),
    'build/Release/zelbridge.node');
  assert.equal(find(packageWith('dev', { 'build/Release': other, 'build/default': {} })),
    'build/default/zelbridge.node');
  const prebuilt = packageWith('prebuilt', { 'build/Release': other, [`${platform}/node.abi1`]: other,
    [`${platform}/node.abi2`]: {} });
  assert.equal(find(prebuilt), `${platform}/node.abi2.node`);
  assert.equal(loader.findModule({}, process, prebuilt).prebuilt, true);
  // ZELBRIDGE_BUILD_DIR alone, when set.
  assert.ok(loader.findModule({ ZELBRIDGE_BUILD_DIR: path.join(prebuilt, 'build', 'Release') }, process, prebuilt)
    instanceof Error);
});

test('the loader refuses a module built for another runtime, naming both and the rebuild command', () => {
  const running = loader.runningRuntime();
  const built = { ...JSON.parse(fs.readFileSync(path.join(buildDir, 'zelbridge-build.json'), 'utf8')),
    moduleVersion: 139 };
  built.v8Options = { ...built.v8Options, v8_enable_sandbox: 1 };
  assert.deepEqual(loader.differences(built, running),
    [`module version 139 (running: ${running.moduleVersion})`, 'v8_enable_sandbox=1 (running: 0)']);
  assert.deepEqual(loader.differences({ ...built, runtime: 'electron', moduleVersion: running.moduleVersion,
    v8Options: {} }, running), ['runtime electron (running: node)']);

  // A copy of the real module with a record for another runtime: the check comes before any load.
  const dir = path.join(work, 'other-runtime');
  fs.mkdirSync(dir);
  fs.copyFileSync(path.join(buildDir, 'zelbridge.node'), path.join(dir, 'zelbridge.node'));
  fs.writeFileSync(path.join(dir, 'zelbridge-build.json'), JSON.stringify(built));
  const r = spawnSync(process.execPath, ['-e', `require(${JSON.stringify(indexPath)})`],
    { env: { ...process.env, ZELBRIDGE_BUILD_DIR: dir }, encoding: 'utf8' });
  assert.equal(r.status, 1, r.stderr);
  assert.equal(r.signal, null);
  assert.match(r.stderr, new RegExp(`Error: ${dir}/zelbridge.node was built for node ${process.versions.node} ` +
    `\\(module version 139, V8 [\\d.]+\\), but this process is node ${process.versions.node} \\(module version ` +
    `${running.moduleVersion}, V8 [^)]+\\); it differs in: module version 139 \\(running: ${running.moduleVersion}\\), ` +
    'v8_enable_sandbox=1 \\(running: 0\\)\\. Build it for this runtime with: cd ".*" && npm run build\n'));

  // Not built at all: the same command.
  const none = loader.findModule({ ZELBRIDGE_BUILD_DIR: path.join(work, 'nothing') });
  assert.ok(none instanceof Error);
  assert.match(none.message, /^zelbridge\.node is not built \(looked in .*nothing\)\. Build it for this runtime with: /);
});

test('the rebuild command: the install for Node; for another runtime its name, version and header server', () => {
  const fake = (versions = {}, release = process.release) => ({ execPath: '/nowhere/bin/node',
    versions: { ...process.versions, ...versions }, release, config: process.config });
  const checkout = JSON.stringify(path.resolve(__dirname, '..', '..'));
  assert.equal(loader.rebuildCommand(fake()), `cd ${checkout} && npm run build`);
  assert.equal(loader.rebuildCommand(fake({ electron: '39.2.0' })), `cd ${checkout} && npm run build ` +
    '--runtime=electron --target=39.2.0 --dist-url=https://electronjs.org/headers; or rebuild the app\'s native ' +
    'modules with "npx @electron/rebuild"');
  const other = loader.rebuildCommand(fake({}, { name: 'somehost',
    headersUrl: 'https://example.org/dist/v1.2.3/somehost-v1.2.3-headers.tar.gz' }));
  assert.equal(other, `cd ${checkout} && npm run build --runtime=somehost --target=${process.versions.node} ` +
    '--dist-url=https://example.org/dist');
  assert.doesNotMatch(other, /nodedir/);
});
