'use strict';
// The package as an app's developer meets it: packed, installed into an empty app, built for the app's runtime
// (another Node, or a host with its own module version and V8 options), refused by a runtime it was not built for.
// Slow (each install builds the module): run by "npm run test:package" and CI, not by ctest.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync, execFileSync } = require('node:child_process');
const { hostNode, syntheticHostHeaders } = require('../../scripts/hosts.js');

const repoDir = path.resolve(__dirname, '..', '..');
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'zelbridge-package-'));
test.after(() => fs.rmSync(work, { recursive: true, force: true }));

// npm's user config may name other headers (nodedir): these commands mean "the Node that runs them".
const userconfig = path.join(work, 'npmrc');
fs.writeFileSync(userconfig, '');
const baseEnv = { ...process.env, npm_config_userconfig: userconfig, npm_config_update_notifier: 'false' };
delete baseEnv.npm_config_nodedir;

/** Runs a command; returns { status, signal, out } with stdout and stderr together. */
function run(command, args, { cwd = work, env = {}, nodeDir } = {}) {
  const PATH = nodeDir ? `${path.join(nodeDir, 'bin')}:${process.env.PATH}` : process.env.PATH;
  const r = spawnSync(command, args, { cwd, env: { ...baseEnv, PATH, ...env }, encoding: 'utf8', timeout: 600000 });
  if (r.error) throw r.error;
  return { status: r.status, signal: r.signal, out: `${r.stdout}${r.stderr}` };
}
const ok = (r) => assert.equal(r.status, 0, r.out);

const tarball = (() => {
  const name = execFileSync('npm', ['pack', '--silent', '--pack-destination', work], { cwd: repoDir, env: baseEnv,
    encoding: 'utf8' }).trim().split('\n').pop();
  return path.join(work, name);
})();

/** A new empty app whose node_modules/zelbridge is installed from the tarball. */
function newApp(name, options = {}) {
  const app = path.join(work, name);
  fs.mkdirSync(app);
  // The app allows the module's install script, as npm 12 requires (npm 11 only warns).
  fs.writeFileSync(path.join(app, 'package.json'), JSON.stringify({ name, version: '1.0.0', private: true,
    allowScripts: { [`file:${tarball}`]: true } }));
  const r = run('npm', ['install', '--no-audit', '--no-fund', tarball], { cwd: app, ...options });
  ok(r);
  assert.doesNotMatch(r.out, /not yet covered by allowScripts/);
  return app;
}

const allNames = 'crash_emitter,diagnostics,hardware,shutdown,pointer,log,MouseButton,ButtonEvent,LogLevel';
const loadScripts = {
  cjs: "const z = require('zelbridge'); console.log(Object.keys(z).join(','), typeof z.hardware.getButtonState(0))",
  esm: "import { hardware, diagnostics, crash_emitter, shutdown, pointer, MouseButton } from 'zelbridge';\n" +
    'console.log(typeof hardware.capturePointer, typeof diagnostics.setLogHandler, ' +
    'typeof crash_emitter.emitAccessViolation, typeof shutdown, typeof pointer.on, MouseButton.Right)',
};

test('the tarball holds what a consumer needs and no more', () => {
  const files = execFileSync('tar', ['tzf', tarball], { encoding: 'utf8' }).split('\n').filter(Boolean)
    .map((f) => f.replace(/^package\//, ''));
  for (const need of ['package.json', 'index.js', 'index.mjs', 'index.d.ts', 'lib/binding.js', 'CMakeLists.txt',
    'cmake/node-headers.js', 'bridge/node_module.cpp', 'common/v8binding/v8binding.cpp', 'scripts/install.js',
    'LICENSE', 'README.md'])
    assert.ok(files.includes(need), `${need} is missing from the tarball`);
  for (const f of files)
    assert.doesNotMatch(f, /^(tests|bench|tools|build|\.ci)\/|corpus|results\.md|CMakePresets/, `${f} is packed`);
  const pkg = JSON.parse(fs.readFileSync(path.join(repoDir, 'package.json'), 'utf8'));
  assert.equal(pkg.private, undefined);
  assert.deepEqual([pkg.os, pkg.cpu], [['linux'], ['x64']]);
  assert.match(pkg.engines.node, /^>=\d+/);
  assert.equal(pkg.scripts.install, 'node scripts/install.js');
});

test('npm install into an empty app under Node 24 builds a module that CommonJS and ES modules load', () => {
  const node24 = hostNode('24');
  const app = newApp('app24', { nodeDir: node24 });
  const record = JSON.parse(fs.readFileSync(
    path.join(app, 'node_modules', 'zelbridge', 'build', 'module', 'zelbridge-build.json'), 'utf8'));
  assert.match(record.version, /^24\./);
  const cjs = run('node', ['-e', loadScripts.cjs], { cwd: app, nodeDir: node24 });
  ok(cjs);
  assert.equal(cjs.out.trim().split('\n').pop(), `${allNames} boolean`);
  const esm = run('node', ['--input-type=module', '-e', loadScripts.esm], { cwd: app, nodeDir: node24 });
  ok(esm);
  assert.match(esm.out, /^function function function function function 2$/m);
  // The system Node (another module version) refuses it with the command that rebuilds it.
  const refused = run('node', ['-e', loadScripts.cjs], { cwd: app });
  assert.equal(refused.status, 1, refused.out);
  assert.equal(refused.signal, null);
  assert.match(refused.out, /was built for node 24\.\d+\.\d+ \(module version \d+.*but this process is node/);
  assert.match(refused.out, /Build it for this runtime with: cd ".*app24" && npm rebuild zelbridge/);
});

test('a host with module version 139, pointer compression and the sandbox gets a module built for it', () => {
  // A host as desktop hosts are built: module version 139, pointer compression in a shared cage, the sandbox.
  const hostHeaders = syntheticHostHeaders(path.join(work, 'host-headers'), { moduleVersion: 139, options: [
    'v8_enable_pointer_compression', 'v8_enable_pointer_compression_shared_cage', 'v8_enable_sandbox',
    'v8_enable_external_code_space'] });
  const app = newApp('apphost', { env: { npm_config_nodedir: hostHeaders,
    npm_config_zelbridge_host_resolved_x11: 'true' } });
  const buildDir = path.join(app, 'node_modules', 'zelbridge', 'build', 'module');
  const module = path.join(buildDir, 'zelbridge.node');

  const symbols = execFileSync('nm', ['-D', '--defined-only', module], { encoding: 'utf8' }).split('\n')
    .map((l) => l.split(' ').pop()).filter((s) => s && !/^(_init|_fini|_edata|_end|__bss_start)$/.test(s));
  assert.deepEqual(symbols, ['node_register_module_v139']);
  const needed = execFileSync('readelf', ['-d', module], { encoding: 'utf8' }).match(/\(NEEDED\).*/g) || [];
  assert.deepEqual(needed.filter((l) => /libX/.test(l)), [], 'no X library is recorded');

  // Every unit that includes v8.h was compiled with the defines the headers' options require.
  const wanted = ['V8_COMPRESS_POINTERS', 'V8_COMPRESS_POINTERS_IN_SHARED_CAGE', 'V8_31BIT_SMIS_ON_64BIT_ARCH',
    'V8_ENABLE_SANDBOX', 'V8_EXTERNAL_CODE_SPACE'];
  const units = JSON.parse(fs.readFileSync(path.join(buildDir, 'compile_commands.json'), 'utf8'));
  const v8Units = units.filter((u) => /\/(bridge|common\/v8binding)\//.test(u.file));
  assert.ok(v8Units.length >= 8, `only ${v8Units.length} units`);
  for (const u of v8Units)
    for (const define of wanted) assert.ok(u.command.includes(`-D${define} `), `${u.file} lacks -D${define}`);

  // Plain Node refuses it before loading, naming both sides and the command that rebuilds it.
  const refused = run('node', ['-e', loadScripts.cjs], { cwd: app });
  assert.equal(refused.status, 1, refused.out);
  assert.equal(refused.signal, null);
  assert.match(refused.out, /built for node \S+ \(module version 139, .*this process is node \S+ \(module version \d+/);
  assert.match(refused.out, /v8_enable_pointer_compression=1 \(running: 0\)/);
  assert.match(refused.out, /v8_enable_sandbox=1 \(running: 0\)/);
  assert.match(refused.out, /Build it for this runtime with: cd ".*apphost" && npm rebuild zelbridge/);

  // npm rebuild with no knobs restores a module for the running Node.
  ok(run('npm', ['rebuild', 'zelbridge'], { cwd: app }));
  const loaded = run('node', ['-e', loadScripts.cjs], { cwd: app });
  ok(loaded);
  assert.equal(loaded.out.trim().split('\n').pop(), `${allNames} boolean`);
});

test('a missing build prerequisite ends the install with one line naming its Debian package', () => {
  const install = path.join(repoDir, 'scripts', 'install.js');
  const nodeOnly = path.join(work, 'node-only');
  fs.mkdirSync(nodeOnly);
  fs.symlinkSync(process.execPath, path.join(nodeOnly, 'node'));
  const cases = [
    [{ PATH: nodeOnly }, 'missing CMake: install it with "apt-get install cmake"'],
    [{ CXX: '/bin/false' }, 'missing a C++20 compiler (/bin/false; g++ 10 or newer): install it with "apt-get install g++"'],
    [{ PKG_CONFIG_LIBDIR: path.join(work, 'nothing') },
      'missing the X11 development headers (X11/Xlib.h): install it with "apt-get install libx11-dev"'],
  ];
  for (const [env, line] of cases) {
    const r = spawnSync(process.execPath, [install], { env: { ...baseEnv, ...env }, encoding: 'utf8' });
    assert.equal(r.status, 1, r.stdout + r.stderr);
    assert.equal(r.stderr, `zelbridge: cannot build: ${line}\n`);
  }
});
