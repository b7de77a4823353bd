'use strict';
// Choosing the Node headers, deriving their V8 defines, and the loader's check of the build record.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const headers = require('../../cmake/node-headers.js');
const record = require('../../lib/buildrecord.js');
const { indexPath, buildDir } = require('./support.js');
const { syntheticHostHeaders } = require('../../scripts/hosts.js');

const systemHeaders = path.resolve(process.execPath, '..', '..', 'include', 'node');
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'zelbridge-record-'));
test.after(() => fs.rmSync(work, { recursive: true, force: true }));

const headersWith = (name, options = []) => syntheticHostHeaders(path.join(work, name), { options });

test('gyp literals: comments, both quotes, adjacent strings, trailing commas, Python constants', () => {
  const text = "# generated\n{ 'a': [1, -2, 'x' # note\n 'y',], \"b\": {'c%': True, 'd': None,}, 'e': False }\n";
  assert.deepEqual(headers.parseGyp(text), { a: [1, -2, 'xy'], b: { 'c%': true, d: null }, e: false });
  assert.throws(() => headers.parseGyp("{'a': 1"), /gyp file/);
});

test('gyp conditions', () => {
  const vars = { a: 1, b: 0, OS: 'linux', s: 'true' };
  const cases = [['a == 1', true], ['a==1 and b != 1', true], ['a == 1 and b == 1', false], ['b == 1 or a == 1', true],
    ['not (a == 1)', false], ['OS in "linux freebsd"', true], ['OS not in "win mac"', true], ['s == "true"', true],
    ['(a == 1 or b == 1) and not b == 1', true]];
  for (const [expr, want] of cases) assert.equal(headers.evalCondition(expr, vars), want, expr);
  assert.throws(() => headers.evalCondition('nope == 1', vars), /unknown variable nope/);
});

test("the running Node's headers: no V8 define, options as process.config reports them", () => {
  const h = headers.readHeaders(systemHeaders);
  assert.equal(h.version, process.versions.node);
  assert.equal(h.moduleVersion, Number(process.versions.modules));
  assert.deepEqual(h.v8Defines, []);
  assert.ok('v8_enable_pointer_compression' in h.v8Options && 'v8_enable_sandbox' in h.v8Options);
  assert.deepEqual(record.differences(headers.buildRecord(h, {}), record.runningRuntime()), []);
});

test('each V8 option gives the defines its headers derive from it', () => {
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
    const h = headers.readHeaders(path.join(headersWith(options.join('+'), options), 'include', 'node'));
    assert.deepEqual(h.v8Defines, defines, options.join(', '));
    for (const option of options) assert.equal(h.v8Options[option], 1);
  }
});

test('the derived defines give v8.h the layout of a pointer-compressed host', () => {
  const include = path.join(headersWith('probe', ['v8_enable_pointer_compression',
    'v8_enable_pointer_compression_shared_cage', 'v8_enable_sandbox']), 'include', 'node');
  const probe = '#include <v8.h>\nstatic_assert(v8::internal::kApiTaggedSize == 4, "compressed");\n';
  const compile = (defines) => spawnSync('c++', ['-std=c++20', '-fsyntax-only', '-x', 'c++', '-', `-I${include}`,
    ...defines.map((d) => `-D${d}`)], { input: probe, encoding: 'utf8' });
  const withDefines = compile(headers.readHeaders(include).v8Defines);
  assert.equal(withDefines.status, 0, withDefines.stderr);
  assert.notEqual(compile([]).status, 0, 'without the defines v8.h has the uncompressed layout');
});

test('headers are chosen as node-gyp does', () => {
  const nodedir = headersWith('nodedir');
  assert.deepEqual(headers.resolveHeaders({ npm_config_nodedir: nodedir }),
    { includeDir: path.join(nodedir, 'include', 'node'), how: 'npm_config_nodedir' });
  assert.throws(() => headers.resolveHeaders({ npm_config_nodedir: work }), /has no include\/node\/node_version\.h/);
  // Without nodedir: those beside the running Node when their version is its version.
  const own = headers.resolveHeaders({}, process.execPath, process.versions.node);
  assert.equal(own.includeDir, systemHeaders);
  // Another version: node-gyp's header cache for exactly that version, never the running Node's.
  const devdir = path.join(work, 'devdir');
  const cached = headersWith(path.join('devdir', '99.1.2'));
  const versionFile = path.join(cached, 'include', 'node', 'node_version.h');
  fs.writeFileSync(versionFile, fs.readFileSync(versionFile, 'utf8')
    .replace(/(#define NODE_MAJOR_VERSION )\d+/, '$199').replace(/(#define NODE_MINOR_VERSION )\d+/, '$11')
    .replace(/(#define NODE_PATCH_VERSION )\d+/, '$12'));
  assert.equal(headers.resolveHeaders({ npm_config_target: 'v99.1.2', npm_config_devdir: devdir }).includeDir,
    path.join(cached, 'include', 'node'));
  assert.throws(() => headers.resolveHeaders({ npm_config_target: '98.0.0', npm_config_devdir: devdir }),
    /no headers for node 98\.0\.0 found .*set npm_config_nodedir/);
});

test('the loader refuses a module built for another runtime, naming both and the rebuild command', () => {
  const running = record.runningRuntime();
  const built = { ...headers.buildRecord(headers.readHeaders(systemHeaders), {}), moduleVersion: 139 };
  built.v8Options = { ...built.v8Options, v8_enable_sandbox: 1 };
  assert.deepEqual(record.differences(built, running),
    [`module version 139 (running: ${running.moduleVersion})`, 'v8_enable_sandbox=1 (running: 0)']);

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
    'v8_enable_sandbox=1 \\(running: 0\\)\\. Build it for this runtime with: cd ".*" && npm run build'));

  // Not built at all: the same command.
  const none = record.findModule({ ZELBRIDGE_BUILD_DIR: path.join(work, 'nothing') });
  assert.ok(none instanceof Error);
  assert.match(none.message, /^zelbridge\.node is not built \(looked in .*nothing\)\. Build it for this runtime with: /);
});

test('the rebuild command: npm rebuild inside an app, npm run build in a checkout, nodedir of the running Node', () => {
  const fake = (execPath, versions = {}) => ({ execPath, versions: { ...process.versions, ...versions },
    release: { name: 'node' }, config: process.config });
  assert.equal(record.rebuildCommand(fake(process.execPath)),
    `cd ${JSON.stringify(path.resolve(__dirname, '..', '..'))} && npm run build --nodedir=${path.resolve(systemHeaders, '..', '..')}`);
  assert.match(record.rebuildCommand(fake('/nowhere/bin/node')), /&& npm run build$/);
  assert.match(record.rebuildCommand(fake('/nowhere/bin/node', { electron: '30.1.0' })),
    /npm run build --runtime=electron --target=30\.1\.0 --nodedir=<directory with its include\/node>$/);
});
