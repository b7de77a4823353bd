'use strict';
// The module in worker_threads Workers and in the main thread at once, against the test Xvfb (the "xvfb" fixture)
// with a stream of moves from tools/xinject: button queries and a capture on every thread, Workers terminated
// while their capture streams, "shutdown" on one thread while another runs script or loads the module, and the
// process ending meanwhile. Each case runs in a child process that must end by itself, never by a signal.
//
// ZEL_FAULT_ROUNDS sets how many rounds each case runs (default 2).
const test = require('node:test');
const assert = require('node:assert/strict');
const {
  describe, requireBridge, runChild, useTestDisplay, streamMoves, recentre,
} = require('./support');

useTestDisplay();
const ROUNDS = Number(process.env.ZEL_FAULT_ROUNDS || 2);

/**
 * Moves streamed to the display while `body` runs (the injector runs without the sanitizer preload); the pointer is
 * brought back to the middle of the screen afterwards, away from the edges for the next test on this display.
 */
async function withMoves(body) {
  const moves = streamMoves({ wiggle: false });
  try {
    return await body();
  } finally {
    await moves.stop();
    recentre();
  }
}

/**
 * Script shared by the main thread and the Workers: `startActor(z, report)` starts a capture (reporting "capturing"
 * at its first record) and button queries every millisecond; `stop()` ends both and returns what it saw, with the
 * distinct error messages the calls threw.
 */
const actor = `
  function startActor(z, report) {
    const state = { records: 0, queries: 0, errors: [] };
    const failed = (e) => { if (!state.errors.includes(e.message)) state.errors.push(e.message); };
    const capture = z.hardware.capturePointer();
    capture.setMotionEventCallback(() => { if (++state.records === 1) report('capturing'); });
    capture.startCapturing();
    const timer = setInterval(() => {
      try {
        for (let i = 0; i < 20; ++i) { z.hardware.getButtonState(i % 3); ++state.queries; }
      } catch (e) { failed(e); }
    }, 1);
    return { state, stop() { clearInterval(timer); try { capture.stopCapturing(); } catch (e) { failed(e); } return state; } };
  }
`;

/** A Worker's script: an actor that answers "stop" (with its state), "shutdown" and "setLogHandler". */
const workerScript = `
  ${actor}
  const { parentPort } = require('node:worker_threads');
  const z = ${requireBridge};
  const a = startActor(z, (message) => parentPort.postMessage(message));
  parentPort.on('message', (message) => {
    if (message === 'stop') { parentPort.postMessage({ state: a.stop() }); parentPort.close(); }
    if (message === 'shutdown') { z.shutdown(); parentPort.postMessage('shut down'); }
    if (message === 'setLogHandler') {
      try { z.diagnostics.setLogHandler(() => {}); parentPort.postMessage('set'); }
      catch (e) { parentPort.postMessage('refused: ' + e.message); }
    }
  });
`;

/**
 * The child's prelude: the module as `z` with a main-thread log handler (`logged`), `say`, `startWorker()` (a Worker
 * running workerScript, with `next(predicate)` for its next matching message), `main` (the main thread's actor),
 * and `result(object)`, which prints RESULT and a JSON line.
 */
const prelude = `
  ${actor}
  const { Worker } = require('node:worker_threads');
  const z = ${requireBridge};
  const logged = [];
  z.diagnostics.setLogHandler((message, level) => logged.push(message));
  const say = (text) => process.stderr.write(text + '\\n');
  const result = (object) => console.log('RESULT ' + JSON.stringify(object));
  function startWorker() {
    const worker = new Worker(${JSON.stringify(workerScript)}, { eval: true });
    const inbox = [];
    const waiting = [];
    worker.on('message', (message) => {
      const i = waiting.findIndex((w) => w.accepts(message));
      if (i >= 0) waiting.splice(i, 1)[0].resolve(message); else inbox.push(message);
    });
    worker.on('error', (e) => say('worker error ' + e.message));
    worker.next = (accepts) => new Promise((resolve) => {
      const i = inbox.findIndex(accepts);
      if (i >= 0) resolve(inbox.splice(i, 1)[0]); else waiting.push({ accepts, resolve });
    });
    worker.ended = new Promise((resolve) => worker.on('exit', resolve));
    return worker;
  }
  const is = (text) => (message) => message === text;
  const isState = (message) => typeof message === 'object' && message.state;
  const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
  let mainCapturing;
  const mainCaptures = new Promise((resolve) => { mainCapturing = resolve; });
  const main = startActor(z, () => mainCapturing());
`;

/** Runs `script` (after the prelude) in a child under a stream of moves; its RESULT object. */
async function runCase(script) {
  const result = await withMoves(async () => runChild(`${prelude}\n(async () => {\n${script}\n})();`,
    { timeout: 60000 }));
  assert.equal(result.signal, null, describe(result));
  assert.equal(result.status, 0, describe(result));
  assert.ok(!/worker error/.test(result.stderr), describe(result));
  const line = result.stdout.split('\n').find((l) => l.startsWith('RESULT '));
  assert.ok(line, describe(result));
  return { ...JSON.parse(line.slice('RESULT '.length)), output: result };
}

const released = /^Native object of \(.*\) has been released$/;

test(`main thread and two Workers capture and query at once (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const { states, output } = await runCase(`
      const workers = [startWorker(), startWorker()];
      await Promise.all([mainCaptures, ...workers.map((w) => w.next(is('capturing')))]);
      await sleep(300);
      const states = await Promise.all(workers.map((w) => { w.postMessage('stop'); return w.next(isState); }));
      await Promise.all(workers.map((w) => w.ended));
      result({ states: [main.stop(), ...states.map((m) => m.state)] });
    `);
    assert.equal(states.length, 3);
    for (const state of states) {
      assert.ok(state.records > 0 && state.queries > 0, `round ${round}: ${JSON.stringify(states)}\n${describe(output)}`);
      assert.deepEqual(state.errors, [], describe(output));
    }
  }
});

test(`worker.terminate() while the Worker's capture streams: the main thread's capture goes on (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const { before, after, errors } = await runCase(`
      await mainCaptures;
      for (let i = 0; i < 3; ++i) {
        const worker = startWorker();
        await worker.next(is('capturing'));
        await sleep(20 * i);
        await worker.terminate();
      }
      const before = main.state.records;
      await sleep(200);
      const after = main.state.records;
      result({ before, after, errors: main.stop().errors });
    `);
    assert.ok(after > before, `the main capture still delivers (${before} then ${after})`);
    assert.deepEqual(errors, []);
  }
});

/** Each thread's calls after "shutdown" failed once, with the released-object error. */
function assertEachReleasedOnce(...errorLists) {
  for (const errors of errorLists) {
    assert.equal(errors.length, 1, JSON.stringify(errors));
    assert.match(errors[0], released);
  }
}

test(`"shutdown" on the main thread while a Worker captures and queries: the Worker's components are released on its own thread (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const { mainErrors, workerErrors } = await runCase(`
      const worker = startWorker();
      await Promise.all([mainCaptures, worker.next(is('capturing'))]);
      z.shutdown();
      await sleep(200);
      worker.postMessage('stop');
      const { state } = await worker.next(isState);
      await worker.ended;
      result({ mainErrors: main.stop().errors, workerErrors: state.errors });
    `);
    assertEachReleasedOnce(mainErrors, workerErrors);
  }
});

test(`"shutdown" in a Worker while the main thread captures and queries: the main thread releases its own (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const { mainErrors, workerErrors } = await runCase(`
      const worker = startWorker();
      await Promise.all([mainCaptures, worker.next(is('capturing'))]);
      worker.postMessage('shutdown');
      await worker.next(is('shut down'));
      await sleep(200);
      worker.postMessage('stop');
      const { state } = await worker.next(isState);
      await worker.ended;
      result({ mainErrors: main.stop().errors, workerErrors: state.errors });
    `);
    assertEachReleasedOnce(mainErrors, workerErrors);
  }
});

test(`"shutdown" on the main thread again and again while Workers load the module (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const { states } = await runCase(`
      await mainCaptures;
      let shuttingDown = true;
      const shutdowns = (async () => { while (shuttingDown) { z.shutdown(); await new Promise(setImmediate); } })();
      const workers = [startWorker(), startWorker(), startWorker()];
      await Promise.all(workers.map((w) => w.next(is('capturing'))));
      const states = await Promise.all(workers.map((w) => { w.postMessage('stop'); return w.next(isState); }));
      await Promise.all(workers.map((w) => w.ended));
      shuttingDown = false;
      await shutdowns;
      main.stop();
      result({ states: states.map((m) => m.state) });
    `);
    for (const state of states) {
      // A Worker's components live unless a "shutdown" after its load released them: then its calls fail cleanly.
      for (const error of state.errors) assert.match(error, released);
    }
  }
});

test(`the process exits (process.exit and the end of script) while Workers capture and query (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    for (const ending of ['process.exit(0);', 'main.stop(); for (const w of workers) w.unref();']) {
      const { exiting } = await runCase(`
        const workers = [startWorker(), startWorker()];
        await Promise.all([mainCaptures, ...workers.map((w) => w.next(is('capturing')))]);
        result({ exiting: true });
        ${ending}
      `);
      assert.equal(exiting, true);
    }
  }
});

test('a Worker cannot install the log handler (it belongs to the main thread), and its end leaves the main one', async () => {
  const { answer, loggedAfter } = await runCase(`
    const worker = startWorker();
    await worker.next(is('capturing'));
    worker.postMessage('setLogHandler');
    const answer = await worker.next((m) => typeof m === 'string' && m !== 'capturing');
    worker.postMessage('stop');
    await worker.next(isState);
    await worker.ended;
    logged.length = 0;
    main.stop();
    result({ answer, loggedAfter: logged });
  `);
  assert.equal(answer, 'refused: setLogHandler is supported on the main thread only, not in a Worker');
  assert.deepEqual(loggedAfter, ['Pointer capture released']);
});
