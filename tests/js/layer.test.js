'use strict';
// The event layer of the package entry (`pointer`, `log`) against the test Xvfb, driven by tools/xinject:
// records unchanged, one capture for every listener (started by the first, stopped after the last), listeners
// added and removed under a stream of input, independent parts, AbortSignal, async iteration, collection of
// the capture once no listener remains, throwing listeners, and no fatal misuse.
const test = require('node:test');
const assert = require('node:assert/strict');
const events = require('node:events');
const fs = require('node:fs');
const path = require('node:path');
const {
  indexPath, runChild, describe, sleep, tick, xinjectPath, useTestDisplay, waitFor, Injector, streamMoves, startChild,
} = require('./support');

useTestDisplay();
const { pointer, log } = require(indexPath);

// Every native log message, as [text, level]: how many captures were made and released.
const logs = [];
log.on('message', (text, level) => logs.push([text, level]));
const countLog = (text) => logs.filter(([entry]) => entry === text).length;
const made = () => countLog('Native: capture pointer');
const released = () => countLog('Pointer capture released');

const injector = new Injector();
test.after(() => injector.close());

const motion = (x, y) => ['motion', { x, y }];
const buttons = (left, middle, right) => ['buttons', { left, middle, right }];
/** `seen` with each motion record reduced to its offset. */
const offsetsOf = (seen) => seen.map(([kind, record]) => (kind === 'motion' ? ['motion', record.offset] : [kind, record]));

/** Adds a 'motion' and a 'buttons' listener that fill `seen` with [kind, record]; returns what removes both. */
function listen(seen) {
  const onMotion = (record) => seen.push(['motion', record]);
  const onButtons = (record) => seen.push(['buttons', record]);
  pointer.on('motion', onMotion).on('buttons', onButtons);
  return () => pointer.off('motion', onMotion).off('buttons', onButtons);
}

/**
 * `count` distinct relative moves as [dx, dy], each followed by its opposite, so that the pointer stays clear of
 * the screen's edges (where the server clamps motion); `commands` are the xinject commands for them.
 */
function backAndForth(count) {
  const moves = [];
  for (let i = 0; moves.length < count; ++i) {
    const move = [1 + (i % 5), -1 - (i % 3)];
    moves.push(move, move.map((d) => -d));
  }
  moves.length = count;
  return { moves, commands: moves.map(([dx, dy]) => `move ${dx} ${dy}`) };
}

/** Lets every delivery already signalled run. */
async function drain() {
  await sleep(20);
  await tick();
}

test('the first listener starts one capture for all; records arrive unchanged; the last removal releases it', async () => {
  const madeBefore = made();
  const releasedBefore = released();
  const first = [];
  const stopFirst = listen(first);
  assert.equal(made(), madeBefore + 1, 'the first listener made one capture');
  await injector.untilReading(first);
  const second = [];
  const stopSecond = listen(second);
  assert.equal(made(), madeBefore + 1, 'the second listener shares it');

  await injector.run('move 5 3', 'click 1');
  const position = await injector.position();
  // The reader asks for the position when it reads the event: let it read this one before the markers move on.
  assert.ok(await waitFor(() => first.length >= 3), 'the move and the click arrive');
  await injector.settle(first);
  assert.deepEqual(offsetsOf(first), [motion(5, 3), buttons(2, 0, 0), buttons(1, 0, 0)]);
  assert.deepEqual(first[0][1], { offset: { x: 5, y: 3 }, screenPoint: position });
  assert.deepEqual(Object.keys(first[0][1]), ['offset', 'screenPoint']);
  assert.deepEqual(Object.keys(first[1][1]), ['left', 'middle', 'right']);
  assert.equal(second.length, first.length + 2, 'the second listener got the same records and the markers');
  first.forEach(([, record], i) => assert.equal(second[i][1], record, 'the same record object reaches both'));

  // The first part leaves; the second still receives everything.
  stopFirst();
  first.length = 0;
  second.length = 0;
  assert.equal(released(), releasedBefore, 'the capture runs on');
  await injector.run('move -5 -3', 'click 3');
  await injector.settle(second);
  assert.deepEqual(offsetsOf(second), [motion(-5, -3), buttons(0, 0, 2), buttons(0, 0, 1)]);
  assert.deepEqual(first, []);

  stopSecond();
  assert.equal(released(), releasedBefore + 1, 'the last removal released the capture');
  second.length = 0;
  await injector.run('move 5 3', 'click 1');
  await sleep(100);
  assert.deepEqual(second, [], 'no capture runs');
  assert.deepEqual(pointer.eventNames().filter((name) => name === 'motion' || name === 'buttons'), []);
});

test("'status' starts nothing; \"live\" comes first, and the one motion injected once it came arrives", async () => {
  const madeBefore = made();
  const seen = [];
  const onStatus = (status) => seen.push(['status', status]);
  pointer.on('status', onStatus);
  assert.equal(made(), madeBefore, 'a status listener alone makes no capture');
  const stop = listen(seen);
  try {
    assert.ok(await waitFor(() => seen.length > 0), 'a status arrives');
    assert.deepEqual(seen, [['status', { code: 'live', message: 'Pointer capture is live' }]]);
    await injector.run('move 6 -2');
    await injector.settle(seen);
    assert.deepEqual(offsetsOf(seen.slice(1)), [motion(6, -2)], 'no wait, no retry: the first move arrived');
  } finally {
    stop();
    pointer.off('status', onStatus);
  }
});

test('ButtonEvent and MouseButton name the numbers of the records and of getButtonState', async () => {
  const { ButtonEvent, MouseButton, hardware } = require(indexPath);
  const seen = [];
  const stop = listen(seen);
  try {
    await injector.untilReading(seen);
    await injector.run('press 3');
    assert.equal(hardware.getButtonState(MouseButton.Right), true);
    assert.equal(hardware.getButtonState(MouseButton.Left), false);
    await injector.run('release 3');
    await injector.settle(seen);
    assert.deepEqual(seen.map(([, record]) => record.right), [ButtonEvent.Pressed, ButtonEvent.Released]);
    assert.deepEqual(seen.map(([, record]) => record.left), [ButtonEvent.None, ButtonEvent.None]);
  } finally {
    stop();
  }
});

test('pointer.removeAllListeners() removes every listener and stops the capture; new listeners start it again',
  async () => {
    const seen = [];
    listen(seen);
    await injector.untilReading(seen);
    const releasedBefore = released();
    pointer.removeAllListeners();
    assert.equal(released(), releasedBefore + 1);
    assert.equal(pointer.listenerCount('motion'), 0);
    const again = [];
    const stop = listen(again);
    try {
      await injector.untilReading(again);
      await injector.run('move 3 3');
      await injector.settle(again);
      assert.deepEqual(offsetsOf(again), [motion(3, 3)]);
    } finally {
      stop();
    }
    assert.equal(released(), releasedBefore + 2);
  });

test('listeners added and removed 10,000 times under a stream of input: every record reaches exactly the listeners '
  + 'present when it is delivered, in order', { timeout: 240000 }, async () => {
  // A deterministic pseudo-random sequence (mulberry32).
  let state = 0x5eed;
  const random = () => {
    state = (state + 0x6d2b79f5) | 0;
    let t = Math.imul(state ^ (state >>> 15), 1 | state);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
  const target = 10000;
  const maxPresent = 8;
  const deliveries = []; // per record, in delivery order: { record, present: the listeners present }
  const index = new Map(); // record -> its position in `deliveries`
  const listeners = []; // every transient listener: { fn, got: [records], remove }
  let live = [];
  let added = 0;
  let removed = 0;

  function add() {
    const entry = { got: [] };
    entry.fn = (record) => entry.got.push(record);
    const how = random();
    if (how < 0.5) {
      pointer.on('motion', entry.fn);
      entry.remove = () => pointer.off('motion', entry.fn);
    } else if (how < 0.8) {
      const controller = new AbortController();
      pointer.on('motion', entry.fn);
      events.addAbortListener(controller.signal, () => pointer.off('motion', entry.fn));
      entry.remove = () => controller.abort();
    } else {
      // Removes itself with its first record.
      pointer.once('motion', entry.fn);
      entry.once = true;
      entry.remove = () => pointer.off('motion', entry.fn);
    }
    listeners.push(entry);
    live.push(entry);
    ++added;
  }
  function removeOne() {
    const at = Math.floor(random() * live.length);
    const [entry] = live.splice(at, 1);
    entry.remove();
    ++removed;
  }
  /** Some adds and removals; a once-listener that already ran counts as removed. */
  function churn(count) {
    live = live.filter((entry) => pointer.listeners('motion').includes(entry.fn));
    for (let i = 0; i < count && added < target; ++i) {
      if (live.length > 0 && (live.length >= maxPresent || random() < 0.5)) removeOne();
      else add();
    }
  }

  // The recorder is the first listener and stays: it sees the listeners present for each record before
  // anything changes them, and changes them itself during some deliveries (taking effect from the next record).
  const primer = [];
  const recorder = (record) => {
    index.set(record, deliveries.length);
    deliveries.push({ record, present: pointer.listeners('motion').filter((fn) => fn !== recorder) });
    primer.push(['motion', record]);
    if (random() < 0.5) churn(1 + Math.floor(random() * 3));
  };
  pointer.on('motion', recorder);
  await injector.untilReading(primer);
  const background = streamMoves();
  try {
    const startAt = deliveries.length;
    // Between deliveries too: on each turn of the event loop.
    while (added < target) {
      churn(1 + Math.floor(random() * 3));
      primer.length = 0;
      await (random() < 0.5 ? tick() : sleep(0));
    }
    for (const entry of live.splice(0)) entry.remove();
    const delivered = deliveries.length - startAt;
    assert.ok(delivered >= 1000, `input flowed while the listeners changed (${delivered} records)`);
  } finally {
    pointer.off('motion', recorder);
    await background.stop();
  }
  assert.equal(added, target);
  assert.equal(pointer.listenerCount('motion'), 0);

  const expected = new Map(listeners.map((entry) => [entry.fn, []]));
  deliveries.forEach(({ present }, i) => present.forEach((fn) => expected.get(fn).push(i)));
  for (const [n, entry] of listeners.entries()) {
    const got = entry.got.map((record) => index.get(record));
    const want = expected.get(entry.fn);
    if (got.length !== want.length || got.some((i, k) => i !== want[k]) || (entry.once && got.length > 1)) {
      assert.fail(`listener ${n} got records ${JSON.stringify(got)}, expected ${JSON.stringify(want)}`);
    }
  }
  assert.ok(removed > target / 4, `${removed} explicit removals`);
});

test('two independent parts, a listener and an async iterator, each receive every record; one leaving does not '
  + 'stop the other', async () => {
  const releasedBefore = released();
  const partA = [];
  const stopA = listen(partA);
  const partB = [];
  const controller = new AbortController();
  let iterating;
  try {
    await injector.untilReading(partA);
    iterating = (async () => {
      for await (const [record] of events.on(pointer, 'motion', { signal: controller.signal })) partB.push(record);
    })().catch((error) => error);

    const { moves, commands } = backAndForth(300);
    await injector.run(...commands);
    await injector.settle(partA);
    assert.deepEqual(offsetsOf(partA), moves.map(([dx, dy]) => motion(dx, dy)));
    assert.ok(await waitFor(() => partB.length >= 302), 'the iterator got the records and the markers');
    assert.deepEqual(partB.slice(0, 300), partA.map(([, record]) => record), 'the iterator got the same records');

    // Part A leaves: part B goes on receiving.
    stopA();
    partB.length = 0;
    await injector.run('move 7 7', 'move -7 -7');
    assert.ok(await waitFor(() => partB.length >= 2));
    assert.deepEqual(partB.map((record) => record.offset), [{ x: 7, y: 7 }, { x: -7, y: -7 }]);
    assert.equal(released(), releasedBefore);
  } finally {
    stopA();
    controller.abort();
  }
  const ended = await iterating;
  assert.equal(ended.name, 'AbortError');
  assert.equal(released(), releasedBefore + 1, 'the capture stopped with its last listener');
});

test('an AbortSignal ends an async iteration, a once-promise and a listener mid-stream', async () => {
  const releasedBefore = released();
  const background = streamMoves();
  try {
    // The iteration: aborted by the consumer at its 50th record. The abort removes its listeners at once
    // (records already buffered are still handed out, then the loop ends with the AbortError).
    const controller = new AbortController();
    let consumed = 0;
    let atAbort;
    const iteration = (async () => {
      for await (const [record] of events.on(pointer, 'motion', { signal: controller.signal })) {
        assert.ok(record.offset);
        if (++consumed === 50) {
          controller.abort();
          atAbort = { motion: pointer.listenerCount('motion'), error: pointer.listenerCount('error'), released: released() };
        }
      }
    })();
    await assert.rejects(iteration, { name: 'AbortError' });
    assert.ok(consumed >= 50);
    assert.deepEqual(atAbort, { motion: 0, error: 0, released: releasedBefore + 1 });

    // A listener: removed by its signal from within its 20th record, although more records follow in the stream.
    const signalled = new AbortController();
    let count = 0;
    const onMotion = () => {
      if (++count === 20) signalled.abort();
    };
    pointer.on('motion', onMotion);
    events.addAbortListener(signalled.signal, () => pointer.off('motion', onMotion));
    assert.ok(await waitFor(() => signalled.signal.aborted, 20000));
    await sleep(200);
    assert.equal(count, 20);

    // A once-promise: aborted before any button changes.
    const waiting = new AbortController();
    const click = events.once(pointer, 'buttons', { signal: waiting.signal });
    await sleep(50);
    waiting.abort();
    await assert.rejects(click, { name: 'AbortError' });
    assert.equal(pointer.listenerCount('buttons'), 0);
  } finally {
    await background.stop();
  }
  assert.deepEqual(pointer.eventNames().filter((name) => name !== 'newListener' && name !== 'removeListener'), []);
  assert.equal(released(), releasedBefore + 3, 'each subscription started a capture and its abort stopped it');
});

test('an async iterator slower than the input loses nothing', { timeout: 120000 }, async () => {
  const count = 1000;
  const { moves, commands } = backAndForth(count);
  const primer = [];
  const keep = (record) => primer.push(['motion', record]);
  pointer.on('motion', keep);
  await injector.untilReading(primer);

  const received = [];
  let consumedWhenSent = -1;
  const consumer = (async () => {
    for await (const [record] of events.on(pointer, 'motion')) {
      received.push(record.offset);
      await sleep(1);
      if (received.length === count) break;
    }
  })();
  pointer.off('motion', keep);
  await injector.run(...commands);
  consumedWhenSent = received.length;
  await consumer;
  assert.ok(consumedWhenSent < count / 2, `the consumer lags behind (${consumedWhenSent} of ${count} when all were sent)`);
  assert.deepEqual(received, moves.map(([x, y]) => ({ x, y })));
  assert.equal(pointer.listenerCount('motion'), 0, 'leaving the loop removed its listener');
});

test('a listener that throws: every listener, itself included, gets every record; each exception becomes a '
  + 'process warning', async () => {
  const warnings = [];
  const onWarning = (warning) => warnings.push(warning);
  process.on('warning', onWarning);
  const errorEvents = [];
  const onError = (error) => errorEvents.push(error);
  pointer.on('error', onError);
  const thrown = [];
  const before = [];
  const after = [];
  const throwing = [];
  const onBefore = (record) => before.push(record);
  const onThrowing = (record) => {
    throwing.push(record);
    const error = new Error(`listener failed on ${record.offset.x}`);
    thrown.push(error);
    throw error;
  };
  const onAfter = (record) => after.push(['motion', record]);
  const onRejecting = async (record) => {
    throw new RangeError(`rejected ${record.left}`);
  };
  const onThrowingValue = () => {
    throw 'not an Error'; // eslint-disable-line no-throw-literal
  };
  const controller = new AbortController();
  const iterated = [];
  const iteration = (async () => {
    for await (const [record] of events.on(pointer, 'motion', { signal: controller.signal })) iterated.push(record);
  })().catch((error) => error);
  pointer.on('motion', onBefore).on('motion', onThrowing).on('motion', onAfter);
  pointer.on('buttons', onRejecting).on('buttons', onThrowingValue);
  try {
    await injector.untilReading(after);
    await sleep(50);
    before.length = 0;
    throwing.length = 0;
    thrown.length = 0;
    iterated.length = 0;
    warnings.length = 0;

    await injector.run('move 1 2', 'move 3 4', 'click 2', 'move 5 6');
    await injector.settle(after);
    await sleep(20);
    const offsets = (list) => list.map((record) => record.offset.x);
    assert.deepEqual(offsets(after.map(([, record]) => record)), [1, 3, 5]);
    assert.deepEqual(offsets(before), [1, 3, 5, 11, -11]);
    assert.deepEqual(offsets(throwing), [1, 3, 5, 11, -11], 'the throwing listener keeps receiving');
    assert.deepEqual(offsets(iterated), [1, 3, 5, 11, -11], 'the iterator is not ended');
    assert.deepEqual(errorEvents, [], "no 'error' event");
    // Each Error thrown is the warning itself; a rejection likewise; another value is shown in a warning.
    assert.equal(warnings.filter((warning) => thrown.includes(warning)).length, 5);
    assert.deepEqual(warnings.filter((warning) => warning instanceof RangeError).map((warning) => warning.message),
      ['rejected 0', 'rejected 0']);
    assert.deepEqual(warnings.filter((warning) => warning.name === 'Warning').map((warning) => warning.message),
      ["A listener threw 'not an Error'", "A listener threw 'not an Error'"]);
    assert.equal(warnings.length, 9);
  } finally {
    controller.abort();
    await iteration;
    pointer.off('motion', onBefore).off('motion', onThrowing).off('motion', onAfter);
    pointer.off('buttons', onRejecting).off('buttons', onThrowingValue).off('error', onError);
    process.off('warning', onWarning);
  }
});

test("README's first example runs as written, from CommonJS and from an ES module", { timeout: 120000 }, async () => {
  const root = path.dirname(indexPath);
  const readme = fs.readFileSync(path.join(root, 'README.md'), 'utf8');
  const example = /```js\n([\s\S]*?)```/.exec(readme.slice(readme.indexOf('## Script API')))[1];
  const [requireLine, importComment] = example.split('\n');
  assert.match(requireLine, /require\('zelbridge'\)/);
  const asModule = example.replace(requireLine, importComment.replace('// As an ES module: ', ''));
  for (const [script, execArgv] of [[example, []], [asModule, ['--input-type=module']]]) {
    // In the package's directory, where 'zelbridge' names the package itself.
    const child = startChild(script, { execArgv, cwd: root });
    const out = () => child.output.stdout + child.output.stderr;
    try {
      const end = Date.now() + 20000;
      while (!/moved by \(1, 1\)/.test(out())) {
        assert.ok(Date.now() < end, `the example receives input\n${out()}`);
        await injector.run('move 1 1', 'move -1 -1');
        await sleep(10);
      }
      await injector.run('click 1');
      const { status, signal } = await child.ended;
      assert.deepEqual({ status, signal }, { status: 0, signal: null }, out());
    } finally {
      child.kill('SIGKILL');
    }
    assert.match(out(), /^moved by \(-1, -1\) to \(\d+, \d+\)$/m);
    assert.match(out(), /^left button pressed$/m);
  }
});

/** Runs `body` in a child with the package entry as `zb`, `inject(...args)` (xinject) and `sleep(ms)`. */
function runLayerChild(body) {
  const result = runChild(`
    const { spawnSync } = require('node:child_process');
    const zb = require(${JSON.stringify(indexPath)});
    const inject = (...args) => spawnSync(${JSON.stringify(xinjectPath)}, args);
    const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
    ${body}
  `, { execArgv: ['--expose-gc'], timeout: 120000 });
  assert.equal(result.status, 0, describe(result));
  return JSON.parse(result.stdout.trim().split('\n').pop());
}

// A child process, so that nothing else holds a capture or collects one meanwhile.
test('the capture is kept while a listener exists and collected after the last is removed; its callbacks are '
  + 'set once', () => {
  const out = runLayerChild(`
    const { pointer, hardware } = zb;
    // Every capture the layer makes, watched: how often its callbacks are set, and whether it was collected.
    const captures = [];
    const registry = new FinalizationRegistry((i) => { captures[i].collected = true; });
    const capturePointer = hardware.capturePointer;
    hardware.capturePointer = function () {
      const capture = capturePointer.call(this);
      const watch = { sets: 0, collected: false };
      for (const name of ['setMotionEventCallback', 'setButtonsEventCallback']) {
        const set = capture[name];
        capture[name] = function (callback) { ++watch.sets; return set.call(this, callback); };
      }
      registry.register(capture, captures.push(watch) - 1);
      return capture;
    };
    const collect = async (done, rounds) => {
      for (let i = 0; i < rounds && !done(); ++i) { global.gc(); await sleep(5); }
    };
    let moves = 0;
    const onMotion = () => ++moves;
    const flowing = async () => {
      const before = moves;
      for (let i = 0; i < 2000 && moves === before; ++i) { inject('move', '1', '1'); inject('move', '-1', '-1'); await sleep(5); }
      return moves > before;
    };
    (async () => {
      const out = {};
      pointer.on('motion', onMotion);
      out.startFlows = await flowing();
      await collect(() => captures[0].collected, 40);
      out.keptWhileListening = !captures[0].collected;
      out.flowsAfterCollections = await flowing();
      // Removed and added back in one go: the same capture runs again.
      pointer.off('motion', onMotion);
      pointer.on('motion', onMotion);
      out.reused = captures.length === 1;
      // Were the first capture collected now while the second runs, the driver's capture would end with it.
      await collect(() => false, 40);
      out.flowsAfterReuse = await flowing();
      pointer.off('motion', onMotion);
      await collect(() => captures[0].collected, 100);
      out.collectedWhenIdle = captures[0].collected;
      // A new listener gets a new capture.
      pointer.on('motion', onMotion);
      out.flowsWithNew = await flowing();
      pointer.off('motion', onMotion);
      await collect(() => captures[1] && captures[1].collected, 100);
      out.captures = captures;
      console.log(JSON.stringify(out));
      // Nothing keeps the process alive now: it ends by itself.
    })();
  `);
  assert.deepEqual(out, {
    startFlows: true,
    keptWhileListening: true,
    flowsAfterCollections: true,
    reused: true,
    flowsAfterReuse: true,
    collectedWhenIdle: true,
    flowsWithNew: true,
    captures: [{ sets: 2, collected: true }, { sets: 2, collected: true }],
  });
});

test('log: several parts listen; the native handler is installed once, with the first listener', () => {
  const out = runLayerChild(`
    const { log, diagnostics, hardware } = zb;
    const setLogHandler = diagnostics.setLogHandler;
    let installs = 0;
    diagnostics.setLogHandler = function (handler) { ++installs; return setLogHandler.call(this, handler); };
    const warnings = [];
    process.on('warning', (warning) => warnings.push(warning.message));
    const a = [];
    const b = [];
    const onA = (message, level) => a.push([message, level]);
    const onB = (message, level) => b.push([message, level]);
    const out = {};
    hardware.capturePointer();           // before any listener: not passed to script
    log.on('message', onA);
    hardware.capturePointer();           // a
    log.on('message', onB);
    log.on('message', () => { throw new Error('log listener failed'); });
    hardware.capturePointer();           // a, b
    log.off('message', onA);
    hardware.capturePointer();           // b
    log.removeAllListeners('message');
    hardware.capturePointer();           // nobody
    log.once('message', onA);
    hardware.capturePointer();           // a, then it is removed
    hardware.capturePointer();
    out.installs = installs;
    out.a = a;
    out.b = b;
    out.listeners = log.listenerCount('message');
    setImmediate(() => { out.warnings = warnings; console.log(JSON.stringify(out)); });
  `);
  const message = ['Native: capture pointer', 0];
  assert.deepEqual(out, {
    installs: 1,
    a: [message, message, message],
    b: [message, message],
    listeners: 0,
    warnings: ['log listener failed', 'log listener failed'],
  });
});

test('after shutdown, adding the first listener throws the native Error and adds nothing', () => {
  const out = runLayerChild(`
    const { pointer, log, shutdown } = zb;
    shutdown();
    const errors = [];
    for (const subscribe of [() => pointer.on('motion', () => {}), () => pointer.once('buttons', () => {}),
      () => log.on('message', () => {})]) {
      try { subscribe(); errors.push('added'); } catch (error) { errors.push(error.message); }
    }
    console.log(JSON.stringify({ errors, counts: [pointer.listenerCount('motion'), pointer.listenerCount('buttons'),
      log.listenerCount('message')] }));
  `);
  assert.match(out.errors[0], /^Native object of \(N3zel\w+E\) has been released$/);
  assert.equal(out.errors[1], out.errors[0]);
  assert.equal(out.errors[2], 'The diagnostics component has been shut down');
  assert.deepEqual(out.counts, [0, 0, 0]);
});
