'use strict';
// The module entry: exported components in registration order, "shutdown", the package's CommonJS and
// ES-module entries, second contexts (Workers and repeated loads), a component whose factory throws, and
// methods called after "shutdown".
const test = require('node:test');
const assert = require('node:assert/strict');
const path = require('node:path');
const { pathToFileURL } = require('node:url');
const {
  bridgePath, testkitPath, throwingPath, indexPath, runChild, describe, requireTestkit,
} = require('./support');

// The components of zelbridge.node in registration order. ZELBRIDGE_EXPECTED_COMPONENTS (comma separated)
// overrides the list and makes the check strict.
const EXPECTED_COMPONENTS = ['crash_emitter', 'diagnostics', 'hardware'];

test('zelbridge.node exports exactly its components in registration order, then "shutdown"', (t) => {
  const bridge = require(bridgePath);
  const keys = Object.keys(bridge);
  let components = EXPECTED_COMPONENTS;
  if (process.env.ZELBRIDGE_EXPECTED_COMPONENTS) {
    components = process.env.ZELBRIDGE_EXPECTED_COMPONENTS.split(',');
  } else if (!keys.includes('hardware')) {
    // Tolerated only while the hardware component is not part of the build yet.
    components = components.filter((name) => name !== 'hardware');
    t.diagnostic('zelbridge.node has no "hardware" component yet');
  }
  assert.deepEqual(keys, [...components, 'shutdown']);
  assert.equal(typeof bridge.shutdown, 'function');
  assert.equal(bridge.shutdown.name, 'shutdown');
  assert.deepEqual(Object.keys(bridge.crash_emitter), ['emitAccessViolation', 'emitStackOverflow']);
  assert.deepEqual(Object.keys(bridge.diagnostics), ['setLogHandler']);
  if (keys.includes('hardware')) {
    assert.deepEqual(Object.keys(bridge.hardware), ['capturePointer', 'getButtonState']);
  }
  for (const name of components) {
    assert.equal(typeof bridge[name], 'object', name);
    for (const method of Object.keys(bridge[name])) {
      assert.equal(typeof bridge[name][method], 'function', `${name}.${method}`);
      assert.equal(bridge[name][method].name, method);
    }
  }
  // The package entry exposes the same component objects, after them the event layer (next test).
  const entry = require(indexPath);
  for (const name of [...components, 'shutdown']) assert.equal(entry[name], bridge[name], name);
});

test('the CommonJS and ES-module entries expose the same names and objects: the components and the event layer', () => {
  const names = ['crash_emitter', 'diagnostics', 'hardware', 'shutdown', 'pointer', 'log', 'MouseButton', 'ButtonEvent',
    'LogLevel'];
  // The package imports itself by name ("exports" of package.json), as an app imports it.
  const result = runChild(`
    import { crash_emitter, diagnostics, hardware, shutdown, pointer, log, MouseButton, ButtonEvent, LogLevel } from 'zelbridge';
    import * as byPath from ${JSON.stringify(pathToFileURL(path.join(path.dirname(indexPath), 'index.mjs')).href)};
    import { createRequire } from 'node:module';
    import { EventEmitter } from 'node:events';
    const require = createRequire(import.meta.url);
    const cjs = require('zelbridge');
    const native = require(${JSON.stringify(bridgePath)});
    const imported = { crash_emitter, diagnostics, hardware, shutdown, pointer, log, MouseButton, ButtonEvent, LogLevel };
    console.log(JSON.stringify({
      cjsNames: Object.keys(cjs),
      esmNames: Object.keys(byPath),
      same: Object.keys(imported).filter((name) => imported[name] === cjs[name] && byPath[name] === cjs[name]),
      native: Object.keys(native).filter((name) => cjs[name] === native[name]),
      emitters: [pointer, log].map((emitter) => emitter instanceof EventEmitter),
      constants: { MouseButton, ButtonEvent, LogLevel },
      frozen: [MouseButton, ButtonEvent, LogLevel].map(Object.isFrozen),
    }));
  `, { execArgv: ['--input-type=module'], cwd: path.dirname(indexPath) });
  assert.equal(result.status, 0, describe(result));
  const out = JSON.parse(result.stdout);
  assert.deepEqual(out.cjsNames, names);
  assert.deepEqual(out.esmNames, [...names].sort());
  assert.deepEqual(out.same, names);
  assert.deepEqual(out.native, names.slice(0, 4), 'the native exports, unchanged');
  assert.deepEqual(out.emitters, [true, true]);
  assert.deepEqual(out.constants, {
    MouseButton: { Left: 0, Middle: 1, Right: 2 },
    ButtonEvent: { None: 0, Released: 1, Pressed: 2 },
    LogLevel: { Info: 0, Warning: 2, Error: 3 },
  });
  assert.deepEqual(out.frozen, [true, true, true]);
});

test('the testkit exports its components in source order, then "shutdown"', () => {
  const result = runChild(`console.log(JSON.stringify(Object.keys(${requireTestkit})))`);
  assert.equal(result.status, 0, describe(result));
  const keys = JSON.parse(result.stdout);
  // Further test features may add components after these; the order of these and "shutdown" last hold.
  const known = ['diagnostics', 'checks', 'binding', 'callbacks', 'wrappers', 'log', 'lifecycle'];
  assert.deepEqual(keys.filter((key) => known.includes(key)), known);
  assert.equal(keys[0], 'diagnostics');
  assert.equal(keys.at(-1), 'shutdown');
  assert.equal(keys.indexOf('shutdown'), keys.length - 1);
});

test('"shutdown" twice releases each component once; the second call does nothing', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    const loaded = kit.lifecycle.componentCounts();
    const first = kit.shutdown();
    const afterFirst = kit.lifecycle.componentCounts();
    const second = kit.shutdown();
    const afterSecond = kit.lifecycle.componentCounts();
    console.log(JSON.stringify({ loaded, afterFirst, afterSecond, results: [first, second] }));
  `);
  assert.equal(result.status, 0, describe(result));
  const { loaded, afterFirst, afterSecond, results } = JSON.parse(result.stdout);
  assert.ok(loaded.constructed > 0);
  assert.deepEqual(loaded, { constructed: loaded.constructed, destroyed: 0 });
  assert.deepEqual(afterFirst, { constructed: loaded.constructed, destroyed: loaded.constructed });
  assert.deepEqual(afterSecond, afterFirst);
  assert.deepEqual(results, [null, null], 'shutdown returns undefined');
});

test('a second load in the same thread creates a second set; "shutdown" releases both', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    const perLoad = kit.lifecycle.componentCounts().constructed;
    const again = { exports: {} };
    process.dlopen(again, ${JSON.stringify(testkitPath)});
    const loadedTwice = kit.lifecycle.componentCounts();
    again.exports.shutdown();
    const afterShutdown = kit.lifecycle.componentCounts();
    const errors = [];
    for (const lifecycle of [kit.lifecycle, again.exports.lifecycle]) {
      try { lifecycle.alive(); errors.push('alive'); } catch (error) { errors.push(error.message); }
    }
    console.log(JSON.stringify({ perLoad, loadedTwice, afterShutdown, errors, distinct: again.exports.lifecycle !== kit.lifecycle }));
  `);
  assert.equal(result.status, 0, describe(result));
  const { perLoad, loadedTwice, afterShutdown, errors, distinct } = JSON.parse(result.stdout);
  assert.ok(distinct);
  assert.deepEqual(loadedTwice, { constructed: 2 * perLoad, destroyed: 0 });
  assert.deepEqual(afterShutdown, { constructed: 2 * perLoad, destroyed: 2 * perLoad });
  const released = 'Native object of (N3zel7testkit18LifecycleComponentE) has been released';
  assert.deepEqual(errors, [released, released]);
});

// A child whose Worker loads the testkit too; `mainSteps` runs in the main thread once the worker has
// loaded it, with `ask(message)` sending a message to the worker and resolving with its answer.
function runWorkerChild(mainSteps) {
  const result = runChild(`
    const { Worker } = require('node:worker_threads');
    const kit = ${requireTestkit};
    const perLoad = kit.lifecycle.componentCounts().constructed;
    const worker = new Worker(\`
      const { parentPort } = require('node:worker_threads');
      const kit = require(${JSON.stringify(testkitPath)});
      parentPort.on('message', (message) => {
        if (message === 'shutdown') kit.shutdown();
        if (message === 'exit') { parentPort.close(); return; }
        parentPort.postMessage(kit.lifecycle.componentCounts());
      });
      parentPort.postMessage(kit.lifecycle.componentCounts());
    \`, { eval: true });
    const answers = [];
    worker.on('message', (message) => answers.shift()(message));
    const next = () => new Promise((resolve) => answers.push(resolve));
    const ask = (message) => { const answer = next(); worker.postMessage(message); return answer; };
    const exited = new Promise((resolve) => worker.on('exit', resolve));
    // The counts once both sets are released: a "shutdown" on one thread releases the other thread's set on that
    // thread, when its event loop runs.
    const settled = async () => {
      for (let i = 0; i < 400 && kit.lifecycle.componentCounts().destroyed < 2 * perLoad; ++i) {
        await new Promise((resolve) => setTimeout(resolve, 5));
      }
      return kit.lifecycle.componentCounts();
    };
    (async () => {
      const workerLoaded = await next();
      const out = { perLoad, workerLoaded };
      ${mainSteps}
      console.log(JSON.stringify(out));
    })();
  `);
  assert.equal(result.status, 0, describe(result));
  return JSON.parse(result.stdout);
}

test('a Worker gets its own set of components; "shutdown" in the Worker releases both sets, each on its thread', () => {
  const out = runWorkerChild(`
    out.worker = await ask('shutdown');
    out.main = await settled();
    worker.postMessage('exit');
    await exited;
    out.afterExit = kit.lifecycle.componentCounts();
  `);
  const p = out.perLoad;
  assert.ok(p > 0);
  assert.deepEqual(out.workerLoaded, { constructed: 2 * p, destroyed: 0 });
  assert.equal(out.worker.constructed, 2 * p);
  assert.ok(out.worker.destroyed >= p, 'the Worker\'s own set is released at once');
  assert.deepEqual(out.main, { constructed: 2 * p, destroyed: 2 * p });
  assert.deepEqual(out.afterExit, out.main, 'nothing is released twice');
});

test('"shutdown" in the main thread releases the Worker\'s set too, on the Worker\'s thread', () => {
  const out = runWorkerChild(`
    kit.shutdown();
    out.atShutdown = kit.lifecycle.componentCounts();
    out.main = await settled();
    out.worker = await ask('report');
    try { kit.lifecycle.alive(); out.alive = 'alive'; } catch (error) { out.alive = error.message; }
    worker.postMessage('exit');
    await exited;
    out.afterExit = kit.lifecycle.componentCounts();
  `);
  const p = out.perLoad;
  assert.deepEqual(out.workerLoaded, { constructed: 2 * p, destroyed: 0 });
  assert.ok(out.atShutdown.destroyed >= p, 'the main thread\'s own set is released at once');
  assert.deepEqual(out.main, { constructed: 2 * p, destroyed: 2 * p });
  assert.deepEqual(out.worker, out.main);
  assert.equal(out.alive, 'Native object of (N3zel7testkit18LifecycleComponentE) has been released');
  assert.deepEqual(out.afterExit, out.main);
});

test('a Worker that ends releases its own components and leaves the main thread\'s alive', () => {
  const out = runWorkerChild(`
    worker.postMessage('exit');
    await exited;
    out.afterExit = kit.lifecycle.componentCounts();
    out.alive = kit.lifecycle.alive();
    kit.shutdown();
    out.afterShutdown = kit.lifecycle.componentCounts();
  `);
  const p = out.perLoad;
  assert.deepEqual(out.afterExit, { constructed: 2 * p, destroyed: p });
  assert.equal(out.alive, true);
  assert.deepEqual(out.afterShutdown, { constructed: 2 * p, destroyed: 2 * p });
});

test('a component whose factory throws stops the entry there: earlier components stay, no "shutdown"', () => {
  const loaded = { exports: {} };
  assert.throws(() => process.dlopen(loaded, throwingPath), (error) => {
    assert.ok(error instanceof Error);
    assert.equal(error.message, 'The second component cannot start');
    return true;
  });
  assert.deepEqual(Object.keys(loaded.exports), ['first']);
  assert.equal('shutdown' in loaded.exports, false);
  // The first component is alive and usable; the third was never attempted.
  assert.equal(loaded.exports.first.alive(), true);
  assert.equal(loaded.exports.first.attempts(), 'first,second');
});

test('component methods called after "shutdown" throw instead of touching released objects', () => {
  const result = runChild(`
    const bridge = require(${JSON.stringify(bridgePath)});
    bridge.shutdown();
    const messages = [];
    for (const call of [
      () => bridge.crash_emitter.emitAccessViolation(),
      () => bridge.crash_emitter.emitStackOverflow(),
      () => bridge.diagnostics.setLogHandler(() => {}),
      () => bridge.hardware && bridge.hardware.getButtonState(0),
      () => bridge.hardware && bridge.hardware.capturePointer(),
    ]) {
      try { call(); messages.push('returned'); } catch (error) { messages.push(error.message); }
    }
    bridge.shutdown();
    console.log(JSON.stringify({ messages, hardware: 'hardware' in bridge }));
  `);
  assert.equal(result.status, 0, describe(result));
  const { messages, hardware } = JSON.parse(result.stdout);
  const released = 'Native object of (N3zel12CrashEmitterE) has been released';
  assert.equal(messages[0], released);
  assert.equal(messages[1], released);
  assert.equal(messages[2], 'The diagnostics component has been shut down');
  if (hardware) {
    assert.match(messages[3], /^Native object of \(N3zel\w+E\) has been released$/);
    assert.match(messages[4], /^Native object of \(N3zel\w+E\) has been released$/);
  } else {
    assert.deepEqual(messages.slice(3), ['returned', 'returned']);
  }
});
