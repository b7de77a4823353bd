'use strict';
// The "hardware" component against an X server (the test Xvfb, whose display the "xvfb" fixture writes to
// the file named by ZEL_XVFB_DISPLAY_FILE), driven by the XTest injector tools/xinject: captured motion and
// button records, their order and completeness, button state, capture objects sharing one driver, release
// on collection, and rapid start/stop cycles under a stream of input.
const test = require('node:test');
const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const {
  bridgePath, runChild, describe, sleep, tick, xinjectPath, useTestDisplay, waitFor, Injector, streamMoves,
} = require('./support');

useTestDisplay();

const bridge = require(bridgePath);
const hw = bridge.hardware;

// Every log message that reached script, as [text, level].
const logs = [];
bridge.diagnostics.setLogHandler((text, level) => logs.push([text, level]));
const countLog = (text) => logs.filter(([entry]) => entry === text).length;

// Destroying any capture object releases the shared driver's capture, whoever started it: the capture
// objects of this file stay referenced, so that collecting one of an earlier test cannot end a later capture.
const kept = [];
function newCapture() {
  const capture = hw.capturePointer();
  kept.push(capture);
  return capture;
}

const motion = (x, y, sx, sy) => ['motion', sx === undefined ? { x, y } : { offset: { x, y }, screenPoint: { x: sx, y: sy } }];
const buttons = (left, middle, right) => ['buttons', { left, middle, right }];

/** Installs both callbacks on `capture`; returns the list they fill with [kind, record]. */
function recordOn(capture) {
  const seen = [];
  capture.setMotionEventCallback((record) => seen.push(['motion', record]));
  capture.setButtonsEventCallback((record) => seen.push(['buttons', record]));
  return seen;
}

/** `seen` with each motion record reduced to its offset. */
const offsetsOf = (seen) => seen.map(([kind, record]) => (kind === 'motion' ? ['motion', record.offset] : [kind, record]));

/** Lets every delivery already signalled run (two full turns of the event loop). */
async function drain() {
  await tick();
  await tick();
}

/** One xinject run with `args`; its standard output. */
function xinject(...args) {
  const result = spawnSync(xinjectPath, args, { encoding: 'utf8', timeout: 60000 });
  if (result.error) throw result.error;
  assert.equal(result.status, 0, `xinject ${args.join(' ')}: ${result.stderr}`);
  return result.stdout;
}

const injector = new Injector();
test.after(() => injector.close());
const settle = (seen) => injector.settle(seen);

/** Starts `capture`, whose callbacks fill `seen`, and waits until it receives input. */
async function startCapturing(capture, seen) {
  capture.startCapturing();
  await injector.untilReading(seen);
}

test('a relative move of (5, 3) gives one motion record at the pointer position after the move', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await startCapturing(capture, seen);
  try {
    await injector.run('move 5 3');
    const position = await injector.position();
    assert.ok(await waitFor(() => seen.length >= 1));
    await sleep(50);
    assert.deepEqual(seen, [motion(5, 3, position.x, position.y)]);
    assert.deepEqual(Object.keys(seen[0][1]), ['offset', 'screenPoint']);
    assert.deepEqual(Object.keys(seen[0][1].offset), ['x', 'y']);

    // The position is read per event.
    await injector.run('move -3 -1');
    const between = await injector.position();
    // The reader asks for the position when it reads the event: let it read this one before the next move.
    assert.ok(await waitFor(() => seen.length >= 2));
    await injector.run('move -2 -2');
    const after = await injector.position();
    assert.ok(await waitFor(() => seen.length >= 3));
    await sleep(50);
    assert.deepEqual(seen.slice(1), [motion(-3, -1, between.x, between.y), motion(-2, -2, after.x, after.y)]);
  } finally {
    capture.stopCapturing();
  }
});

test('buttons 1, 2 and 3 are reported pressed (2) then released (1); wheel and extra buttons reach no callback', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await startCapturing(capture, seen);
  try {
    await injector.run('click 1', 'click 2', 'click 3');
    assert.ok(await waitFor(() => seen.length >= 6));
    await settle(seen);
    assert.deepEqual(seen, [
      buttons(2, 0, 0), buttons(1, 0, 0),
      buttons(0, 2, 0), buttons(0, 1, 0),
      buttons(0, 0, 2), buttons(0, 0, 1),
    ]);
    assert.deepEqual(Object.keys(seen[0][1]), ['left', 'middle', 'right']);

    seen.length = 0;
    await injector.run('click 4', 'click 5', 'click 6', 'click 7', 'press 4', 'release 4', 'click 1');
    assert.ok(await waitFor(() => seen.length >= 2));
    await settle(seen);
    assert.deepEqual(seen, [buttons(2, 0, 0), buttons(1, 0, 0)], 'only button 1 reached a callback');
  } finally {
    capture.stopCapturing();
  }
});

test('records arrive in injection order', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await startCapturing(capture, seen);
  try {
    await injector.run('move 2 1', 'press 1', 'move -2 -1', 'move 4 2', 'release 1', 'click 3', 'move -4 -2', 'click 4',
      'press 2', 'move 1 -1', 'press 3', 'release 2', 'move -1 1', 'release 3');
    assert.ok(await waitFor(() => seen.length >= 13));
    await settle(seen);
    assert.deepEqual(offsetsOf(seen), [
      motion(2, 1), buttons(2, 0, 0), motion(-2, -1), motion(4, 2), buttons(1, 0, 0), buttons(0, 0, 2),
      buttons(0, 0, 1), motion(-4, -2), buttons(0, 2, 0), motion(1, -1), buttons(0, 0, 2), buttons(0, 1, 0),
      motion(-1, 1), buttons(0, 0, 1),
    ]);
  } finally {
    capture.stopCapturing();
  }
});

test('10,000 moves arrive in injection order, none lost or doubled', { timeout: 120000 }, async () => {
  const dx = [3, -1, 4, -2, -4];
  const dy = [2, -3, 1];
  const count = 10000;
  const commands = [];
  for (let i = 0; i < count; ++i) commands.push(`move ${dx[i % dx.length]} ${dy[i % dy.length]}`);

  const capture = newCapture();
  const seen = recordOn(capture);
  await startCapturing(capture, seen);
  try {
    await injector.run(...commands);
    const position = await injector.position();
    assert.ok(await waitFor(() => seen.length >= count, 60000), `${seen.length} of ${count} records arrived`);
    await settle(seen);
    assert.equal(seen.length, count, 'no record doubled');
    for (let i = 0; i < count; ++i) {
      const [kind, record] = seen[i];
      if (kind !== 'motion' || record.offset.x !== dx[i % dx.length] || record.offset.y !== dy[i % dy.length]) {
        assert.fail(`record ${i} is ${JSON.stringify(seen[i])}, expected the move (${dx[i % dx.length]}, ${dy[i % dy.length]})`);
      }
    }
    assert.deepEqual(seen[count - 1][1].screenPoint, position, 'the last record is at the final position');
  } finally {
    capture.stopCapturing();
  }
});

test('getButtonState reports the buttons held now; 5 and 7 stand for the right button', async () => {
  const states = () => [0, 1, 2, 5, 7].map((button) => hw.getButtonState(button));
  await injector.run('release 1', 'release 2', 'release 3');
  assert.deepEqual(states(), [false, false, false, false, false], 'no button held');
  try {
    await injector.run('press 1');
    assert.deepEqual(states(), [true, false, false, false, false]);
    await injector.run('release 1', 'press 2');
    assert.deepEqual(states(), [false, true, false, false, false]);
    await injector.run('release 2', 'press 3');
    assert.deepEqual(states(), [false, false, true, true, true]);
    await injector.run('press 1');
    assert.deepEqual(states(), [true, false, true, true, true]);
    await injector.run('release 3');
    assert.deepEqual(states(), [true, false, false, false, false]);
    await injector.run('release 1');
    assert.deepEqual(states(), [false, false, false, false, false]);
    assert.equal(typeof hw.getButtonState(0), 'boolean');
  } finally {
    await injector.run('release 1', 'release 2', 'release 3');
  }
  assert.deepEqual(logs.filter(([, level]) => level !== 0), [], 'no warning');
});

test('two capture objects share one driver: the second start is a no-op and its stop stops the first', async () => {
  const first = newCapture();
  const second = newCapture();
  assert.notEqual(first, second);
  const firstSeen = recordOn(first);
  const secondSeen = recordOn(second);
  await startCapturing(first, firstSeen);
  second.startCapturing();
  await injector.run('move 5 3', 'click 2');
  assert.ok(await waitFor(() => firstSeen.length >= 3));
  await settle(firstSeen);
  assert.deepEqual(offsetsOf(firstSeen), [motion(5, 3), buttons(0, 2, 0), buttons(0, 1, 0)]);
  assert.deepEqual(secondSeen, [], "the second object's callbacks get nothing");

  const released = countLog('Pointer capture released');
  second.stopCapturing();
  assert.equal(countLog('Pointer capture released'), released + 1, "the second object's stop released the capture");
  firstSeen.length = 0;
  await injector.run('move 5 3', 'click 1');
  await sleep(200);
  assert.deepEqual(firstSeen, [], 'the first capture has ended');
  assert.deepEqual(secondSeen, []);
  first.stopCapturing();
  assert.equal(countLog('Pointer capture released'), released + 1, 'nothing was left to stop');

  // The driver is free again: the first object captures anew.
  await startCapturing(first, firstSeen);
  await injector.run('move -5 -3');
  assert.ok(await waitFor(() => firstSeen.length >= 1));
  first.stopCapturing();
  assert.deepEqual(offsetsOf(firstSeen), [motion(-5, -3)]);
  assert.deepEqual(secondSeen, []);
});

test('startCapturing twice: the second call does nothing', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  const released = countLog('Pointer capture released');
  await startCapturing(capture, seen);
  capture.startCapturing();
  await injector.run('move 5 3');
  assert.ok(await waitFor(() => seen.length >= 1));
  await settle(seen);
  assert.deepEqual(offsetsOf(seen), [motion(5, 3)], 'one record, delivered once');
  capture.stopCapturing();
  assert.equal(countLog('Pointer capture released'), released + 1, 'one capture to release');
  capture.stopCapturing();
  assert.equal(countLog('Pointer capture released'), released + 1);
});

test('stopCapturing without a start does nothing', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  const before = logs.length;
  capture.stopCapturing();
  capture.stopCapturing();
  assert.deepEqual(logs.slice(before), []);
  await injector.run('move 5 3');
  await sleep(100);
  assert.deepEqual(seen, []);
});

test('each capturePointer call logs "Native: capture pointer" and returns a new object', () => {
  const before = logs.length;
  const first = newCapture();
  const second = newCapture();
  assert.notEqual(first, second);
  assert.deepEqual(logs.slice(before), [['Native: capture pointer', 0], ['Native: capture pointer', 0]]);
  assert.deepEqual(Object.keys(first),
    ['setButtonsEventCallback', 'setMotionEventCallback', 'startCapturing', 'stopCapturing', 'setStatusCallback']);
});

// A child process of its own, so that nothing else holds the driver's capture or is collected meanwhile.
test('collecting a capturing object releases the capture and prints "Pointer capture released"', () => {
  const result = runChild(`
    const { spawnSync } = require('node:child_process');
    const hw = require(${JSON.stringify(bridgePath)}).hardware;
    const bridge = require(${JSON.stringify(bridgePath)});
    const received = [];
    bridge.diagnostics.setLogHandler((text, level) => received.push([text, level]));
    const inject = (...args) => spawnSync(${JSON.stringify(xinjectPath)}, args);
    const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
    let moves = 0;
    let capture = hw.capturePointer();
    capture.setMotionEventCallback(() => ++moves);
    capture.startCapturing();
    let collected = false;
    const registry = new FinalizationRegistry(() => { collected = true; });
    registry.register(capture, 'capture');
    (async () => {
      while (moves === 0) { inject('move', '1', '1'); inject('move', '-1', '-1'); await sleep(5); }
      capture = null;
      for (let i = 0; i < 100 && !collected; ++i) { global.gc(); await sleep(5); }
      console.log('collected ' + collected);
      // The driver is free: a new object captures.
      const next = hw.capturePointer();
      let nextMoves = 0;
      next.setMotionEventCallback(() => ++nextMoves);
      next.startCapturing();
      for (let i = 0; i < 2000 && nextMoves === 0; ++i) { inject('move', '1', '1'); inject('move', '-1', '-1'); await sleep(5); }
      next.stopCapturing();
      console.log('next ' + (nextMoves > 0));
      console.log(JSON.stringify(received.filter(([text]) => text === 'Pointer capture released')));
    })();
  `, { execArgv: ['--expose-gc'], timeout: 120000 });
  assert.equal(result.status, 0, describe(result));
  const lines = result.stdout.split('\n');
  assert.deepEqual(lines.slice(0, 3), ['Native: capture pointer', 'Pointer capture released', 'collected true'],
    describe(result));
  assert.deepEqual(lines.slice(3), ['Native: capture pointer', 'Pointer capture released', 'next true',
    // Only the explicit stop reached the script handler: nothing calls into script during a collection.
    '[["Pointer capture released",0]]', '']);
});

for (const [setter, message] of [
  ['setMotionEventCallback', 'Pointer capture motion callback already set.'],
  ['setButtonsEventCallback', 'Pointer capture buttons callback already set.'],
]) {
  test(`${setter} twice ends the process`, () => {
    const result = runChild(`
      const capture = require(${JSON.stringify(bridgePath)}).hardware.capturePointer();
      capture.${setter}(() => {});
      console.log('first set');
      try { capture.${setter}(() => {}); } catch (error) { console.log('caught ' + error.message); }
      console.log('returned');
    `);
    assert.equal(result.signal, 'SIGABRT', describe(result));
    assert.equal(result.stdout, 'first set\n', describe(result));
    assert.ok(!result.stderr.includes(message), describe(result));
  });
}

test('1,000 rapid start/stop cycles under a stream of motion: no hang, and every record sent while capturing arrives',
  { timeout: 240000 }, async () => {
    const background = streamMoves();

    const capture = newCapture();
    let current = [];
    capture.setMotionEventCallback((record) => current.push(record.offset));
    capture.setButtonsEventCallback((record) => current.push(record));
    const isCounted = (offset) => Math.abs(offset.x) === 3;
    const released = countLog('Pointer capture released');
    const cycles = 1000;
    const k = 12;
    let checked = 0;
    try {
      for (let cycle = 0; cycle < cycles; ++cycle) {
        if (cycle % 10 !== 0) {
          // Stops that meet the reader at different stages: before it connected, while it sets up, while it
          // reads (and delivers) the stream.
          capture.startCapturing();
          if (cycle % 7 === 0) await sleep(3);
          else if (cycle % 3 === 0) await tick();
          capture.stopCapturing();
          continue;
        }
        // A counted cycle: earlier deliveries are done before it starts, so everything it sees is its own.
        await drain();
        current = [];
        capture.startCapturing();
        // The reader selects input once the background stream reaches it.
        assert.ok(await waitFor(() => current.length > 0, 20000), `cycle ${cycle}: the capture receives input`);
        await injector.run(`move 3 -2 ${k / 2}`, `move -3 2 ${k / 2}`);
        assert.ok(await waitFor(() => current.filter(isCounted).length >= k, 20000),
          `cycle ${cycle}: ${current.filter(isCounted).length} of ${k} records arrived`);
        capture.stopCapturing();
        await drain();
        const counted = current.filter(isCounted);
        const expected = [...Array(k / 2).fill({ x: 3, y: -2 }), ...Array(k / 2).fill({ x: -3, y: 2 })];
        assert.deepEqual(counted, expected, `cycle ${cycle}: the injected records, once each, in order`);
        assert.ok(current.every((offset) => 'x' in offset && Math.abs(offset.x) <= 3), 'only motion was injected');
        ++checked;
      }
    } finally {
      capture.stopCapturing();
      await background.stop();
    }
    assert.equal(checked, cycles / 10);
    assert.equal(countLog('Pointer capture released'), released + cycles, 'every start began a capture and every stop ended it');
  });
