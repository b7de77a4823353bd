'use strict';
// The host-resolved build of the module (zelbridge-hostresolved.node): it records no library at all, and takes
// V8, node, libuv, Xlib, XInput2 and the C library from the process that loads it; the regular build records
// the X libraries it links. Loading and use run in child processes against the test Xvfb (the "xvfb" fixture
// writes its display to the file named by ZEL_XVFB_DISPLAY_FILE), with the X libraries preloaded as a host
// that has them would.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const {
  buildDir, bridgePath, describe, sanitized, toolEnv, useTestDisplay, xinjectPath,
} = require('./support');

const hostResolvedPath = path.join(buildDir, 'zelbridge-hostresolved.node');
if (!fs.existsSync(hostResolvedPath)) throw new Error(`${hostResolvedPath} is not built`);

const display = () => useTestDisplay();

/** The NEEDED entries of the dynamic section of `file`, as `readelf -d` prints them. */
function neededOf(file) {
  const result = spawnSync('readelf', ['-d', file], { encoding: 'utf8', env: toolEnv() });
  if (result.error) throw new Error(`readelf is not available (apt-get install binutils): ${result.error.message}`);
  assert.equal(result.status, 0, result.stderr);
  assert.match(result.stdout, /Dynamic section at offset/, 'the module has a dynamic section');
  return [...result.stdout.matchAll(/\(NEEDED\)\s+Shared library: \[([^\]]+)\]/g)].map((match) => match[1]);
}

// Sanitizer builds link their runtime into every module; nothing else may be recorded.
const isSanitizerRuntime = (name) => /^lib(asan|ubsan|tsan|lsan)\.so/.test(name);
const hostLibrary = /libX11|libXi\b|libXi\.|libnode|libv8|libuv|libstdc\+\+|libgcc_s|libc\.so|libm\.so|libpthread|libdl/;

test('the regular build records libX11.so.6 and libXi.so.6', () => {
  const needed = neededOf(bridgePath);
  assert.ok(needed.includes('libX11.so.6'), `NEEDED: ${needed}`);
  assert.ok(needed.includes('libXi.so.6'), `NEEDED: ${needed}`);
  assert.ok(!needed.some((name) => /libnode|libv8|libuv/.test(name)), `no node, V8 or libuv library: ${needed}`);
});

test('the host-resolved build records no library', () => {
  const needed = neededOf(hostResolvedPath);
  assert.deepEqual(needed.filter((name) => hostLibrary.test(name)), [], `NEEDED: ${needed}`);
  if (sanitized) {
    assert.deepEqual(needed.filter((name) => !isSanitizerRuntime(name)), [], `only sanitizer runtimes: ${needed}`);
  } else {
    assert.deepEqual(needed, [], 'no NEEDED entry at all');
  }
});

/** The symbols that `file` needs from the process (strong undefined dynamic symbols), as `nm -D` lists them. */
function undefinedSymbolsOf(file) {
  const result = spawnSync('nm', ['-D', '--undefined-only', file], { encoding: 'utf8', env: toolEnv() });
  if (result.error) throw new Error(`nm is not available (apt-get install binutils): ${result.error.message}`);
  assert.equal(result.status, 0, result.stderr);
  return [...result.stdout.matchAll(/^\s+U (\S+)$/gm)].map((match) => match[1]);
}

test('the host-resolved build carries its own C++ runtime: it takes only C, V8, node, libuv and X symbols', () => {
  const needs = undefinedSymbolsOf(hostResolvedPath);
  assert.ok(needs.includes('XOpenDisplay') && needs.includes('XISelectEvents'), 'Xlib and XInput2 come from the host');
  assert.ok(needs.includes('uv_async_send') && needs.includes('node_module_register'), 'libuv and node too');
  // Mangled names may only be V8's and node's; no C++ runtime or unwinder entry may bind to the host's copy.
  const cxxRuntime = needs.filter((name) => (/^_Z/.test(name) && !/^_ZN(K)?(2v8|4node)/.test(name))
    || /^_Unwind_|^__gxx_|^__cxa_(?!atexit$|finalize$|thread_atexit_impl$)/.test(name));
  assert.deepEqual(cxxRuntime, []);
});

/** Runs `script` in a child node with the display, and with the X libraries preloaded after any preload in force. */
function runHosted(script, { preloadX = true } = {}) {
  const env = { ...process.env, DISPLAY: display() };
  const preload = (process.env.LD_PRELOAD || '').split(/[:\s]+/).filter(Boolean);
  if (preloadX) preload.push('libX11.so.6', 'libXi.so.6');
  if (preload.length) env.LD_PRELOAD = preload.join(':');
  else delete env.LD_PRELOAD;
  const result = spawnSync(process.execPath, ['-e', script], { env, encoding: 'utf8', timeout: 120000, killSignal: 'SIGKILL' });
  if (result.error) throw result.error;
  return { status: result.status, signal: result.signal, stdout: result.stdout, stderr: result.stderr };
}

test('with the X libraries in the process the host-resolved build loads and works', () => {
  const result = runHosted(`
    const { spawnSync } = require('node:child_process');
    const bridge = require(${JSON.stringify(hostResolvedPath)});
    const inject = (...args) => {
      const run = spawnSync(${JSON.stringify(xinjectPath)}, args, { encoding: 'utf8' });
      if (run.status !== 0) throw new Error('xinject ' + args.join(' ') + ': ' + run.stderr);
      return run.stdout;
    };
    const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
    const received = [];
    bridge.diagnostics.setLogHandler((text, level) => received.push([text, level]));
    const out = { exports: Object.keys(bridge) };
    inject('release', '1');
    out.states = [0, 1, 2].map((button) => bridge.hardware.getButtonState(button));
    inject('press', '1');
    out.held = bridge.hardware.getButtonState(0);
    inject('release', '1');
    try { bridge.hardware.getButtonState(); } catch (error) { out.error = error.message; }

    const capture = bridge.hardware.capturePointer();
    const moves = [];
    capture.setMotionEventCallback((record) => moves.push(record));
    capture.startCapturing();
    (async () => {
      const end = Date.now() + 60000;
      while (moves.length === 0 && Date.now() < end) { inject('move', '1', '1'); inject('move', '-1', '-1'); await sleep(5); }
      await sleep(50);
      moves.length = 0;
      inject('move', '5', '3');
      const [x, y] = inject('pos').trim().split(' ').map(Number);
      while (moves.length === 0 && Date.now() < end) await sleep(1);
      capture.stopCapturing();
      out.moves = moves;
      out.position = { x, y };
      out.received = received;
      console.log(JSON.stringify(out));
    })();
  `);
  assert.equal(result.status, 0, describe(result));
  const lines = result.stdout.trim().split('\n');
  const out = JSON.parse(lines[lines.length - 1]);
  assert.deepEqual(out.exports, ['crash_emitter', 'diagnostics', 'hardware', 'shutdown']);
  assert.deepEqual(out.states, [false, false, false]);
  assert.equal(out.held, true);
  assert.equal(out.error, 'Expected (1) arguments, but only (0)', 'a C++ exception is thrown and caught inside the module');
  assert.deepEqual(out.moves, [{ offset: { x: 5, y: 3 }, screenPoint: out.position }]);
  assert.deepEqual(out.received, [['Native: capture pointer', 0], ['Pointer capture released', 0]]);
});

test('without the X libraries in the process the host-resolved build loads, and its first X call ends the process', () => {
  const result = runHosted(`
    const bridge = require(${JSON.stringify(hostResolvedPath)});
    console.log('loaded ' + Object.keys(bridge).join());
    bridge.hardware.getButtonState(0);
    console.log('returned');
  `, { preloadX: false });
  assert.equal(result.stdout, 'loaded crash_emitter,diagnostics,hardware,shutdown\n', describe(result));
  assert.equal(result.status, 127, describe(result));
  assert.match(result.stderr, /symbol lookup error: .*zelbridge-hostresolved\.node: undefined symbol: X\w+/);
});
