'use strict';
// Pointer capture objects over the testkit's fake raw input driver ("fakeInput"): hand-over from the reader
// thread to the script thread, which callback each record reaches, start and stop, sharing one driver,
// release on collection. No X server is involved; the reader emits exactly the records a test stages.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadTestkit, collectUntil, runChild, describe, requireTestkit, sleep } = require('./support');

const kit = loadTestkit();
const fake = kit.fakeInput;

// Every log message of the testkit that reached script, as [text, level].
const logs = [];
kit.diagnostics.setLogHandler((text, level) => logs.push([text, level]));
const released = () => logs.filter(([text]) => text === 'Pointer capture released').length;

// Destroying any capture object releases the shared driver's capture, whoever started it: every capture
// object of these tests stays referenced, so that no collection of an earlier test's object ends the
// capture of a later one. Only the collection tests drop theirs.
const kept = [];
const newCapture = () => {
  const capture = fake.capturePointer();
  kept.push(capture);
  return capture;
};

const motion = (x, y, sx = 0, sy = 0) => ({ offset: { x, y }, screenPoint: { x: sx, y: sy } });
const buttons = (left, middle, right) => ({ left, middle, right });

/** Polls `done()` until it holds or `ms` pass, letting the event loop run; the final value of `done()`. */
async function waitFor(done, ms = 5000) {
  const end = Date.now() + ms;
  while (!done() && Date.now() < end) await sleep(1);
  return done();
}

/** A status for `emit`, by its native number (the order of `CaptureStatus`). */
const STATUS = Object.freeze({ live: { status: 0 }, xwayland: { status: 1 }, lost: { status: 5 } });

/** Makes the fake reader emit `items` (records, and STATUS entries); returns once every one is in the capture's queue. */
function emit(...items) {
  for (const item of items) {
    if ('status' in item) fake.stageStatus(item.status);
    else fake.stage(item);
  }
  return fake.emit();
}

/** Starts `capture` and waits until the fake reader runs. */
async function start(capture) {
  capture.startCapturing();
  assert.ok(await waitFor(() => fake.stats().reading), 'the reader thread runs');
}

/**
 * Installs the three callbacks on `capture`; returns the list they fill with [kind, record or status, batch]. `batch` tells
 * deliveries apart: it changes after the microtask checkpoint that closes each delivery and after each turn
 * of the event loop, so records delivered together carry one value.
 */
function recordOn(capture) {
  const seen = [];
  let microBatch = 0;
  let loopBatch = 0;
  let microOpen = false;
  let loopOpen = false;
  const mark = () => {
    if (!microOpen) {
      microOpen = true;
      queueMicrotask(() => {
        microOpen = false;
        ++microBatch;
      });
    }
    if (!loopOpen) {
      loopOpen = true;
      setImmediate(() => {
        loopOpen = false;
        ++loopBatch;
      });
    }
    return `${microBatch}/${loopBatch}`;
  };
  capture.setMotionEventCallback((record) => seen.push(['motion', record, mark()]));
  capture.setButtonsEventCallback((record) => seen.push(['buttons', record, mark()]));
  capture.setStatusCallback((status) => seen.push(['status', status, mark()]));
  return seen;
}

const withoutBatch = (seen) => seen.map(([kind, record]) => [kind, record]);

test('ten records queued before the loop wakes are delivered in one go, in order', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await start(capture);
  try {
    const records = [];
    for (let i = 1; i <= 10; ++i) records.push(motion(i, -i, 100 + i, 200 - i));
    // The script thread is blocked in emit() until the reader has queued all ten.
    assert.equal(emit(...records), true);
    assert.equal(seen.length, 0, 'nothing is delivered inside the script call');
    assert.ok(await waitFor(() => seen.length >= 10));
    await sleep(20);
    assert.deepEqual(withoutBatch(seen), records.map((record) => ['motion', record]));
    assert.equal(new Set(seen.map(([, , batch]) => batch)).size, 1, `one delivery: ${seen.map(([, , b]) => b)}`);

    // A later emission is a later delivery.
    assert.equal(emit(motion(11, 11)), true);
    assert.ok(await waitFor(() => seen.length === 11));
    assert.notEqual(seen[10][2], seen[0][2]);
  } finally {
    capture.stopCapturing();
  }
});

test('each record reaches the callback of its parts: buttons only, neither for all-zero, motion then buttons', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await start(capture);
  try {
    assert.equal(emit(
      buttons(2, 0, 0),
      {}, // a wheel click: every field zero
      { screenPoint: { x: 7, y: 9 } }, // a motion whose offset truncated to zero
      buttons(0, 1, 0),
      buttons(0, 0, 2),
      { offset: { x: 0, y: -4 }, screenPoint: { x: 3, y: 4 }, right: 1 },
      motion(1, 1),
    ), true);
    assert.ok(await waitFor(() => seen.length >= 6));
    await sleep(20);
    assert.deepEqual(withoutBatch(seen), [
      ['buttons', { left: 2, middle: 0, right: 0 }],
      ['buttons', { left: 0, middle: 1, right: 0 }],
      ['buttons', { left: 0, middle: 0, right: 2 }],
      ['motion', motion(0, -4, 3, 4)],
      ['buttons', { left: 0, middle: 0, right: 1 }],
      ['motion', motion(1, 1)],
    ]);
    // The records are plain objects with the fields in their declared order.
    assert.deepEqual(Object.keys(seen[0][1]), ['left', 'middle', 'right']);
    assert.deepEqual(Object.keys(seen[3][1]), ['offset', 'screenPoint']);
  } finally {
    capture.stopCapturing();
  }
});

const LIVE = { code: 'live', message: 'Pointer capture is live' };
const LOST = { code: 'lost', message: 'The connection to the X server was lost: pointer capture ended' };
const NOTICE = { code: 'xwayland', message: 'The X server is Xwayland: pointer input arrives only while the pointer is '
  + 'over an X11 window, never over native Wayland windows. Run the application in its X11 mode to receive input '
  + 'over its own window' };

test('statuses reach the status callback in order with the records, in the same delivery', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await start(capture);
  try {
    assert.equal(emit(STATUS.live, STATUS.xwayland, motion(1, 2), buttons(2, 0, 0), STATUS.live, motion(3, 4),
      STATUS.lost), true);
    assert.ok(await waitFor(() => seen.length >= 7));
    await sleep(20);
    assert.deepEqual(withoutBatch(seen), [['status', LIVE], ['status', NOTICE], ['motion', motion(1, 2)],
      ['buttons', buttons(2, 0, 0)], ['status', LIVE], ['motion', motion(3, 4)], ['status', LOST]]);
    assert.equal(new Set(seen.map(([, , batch]) => batch)).size, 1, `one delivery: ${seen.map(([, , b]) => b)}`);
    assert.deepEqual(Object.keys(seen[0][1]), ['code', 'message']);
  } finally {
    capture.stopCapturing();
  }
});

test('every status has its code and message', async () => {
  const capture = newCapture();
  const seen = [];
  capture.setStatusCallback((status) => seen.push(status));
  await start(capture);
  try {
    assert.equal(emit(...[0, 1, 2, 3, 4, 5, 6, 7].map((status) => ({ status }))), true);
    assert.ok(await waitFor(() => seen.length >= 8));
    assert.deepEqual(seen, [
      LIVE,
      NOTICE,
      { code: 'no-display', message: 'No X display could be opened: pointer capture did not start' },
      { code: 'no-xinput', message: 'The X server does not offer XInput 2.1: pointer capture did not start' },
      { code: 'select-refused', message: 'The X server refused the raw pointer event selection: pointer capture did not start' },
      LOST,
      { code: 'failed', message: 'The system refused a thread or a descriptor that pointer capture needs: it did not '
        + 'start or has ended' },
      { code: 'closed', message: 'Another X client sent the "_APP_CLOSE_INPUT" message to the capture\'s window: '
        + 'pointer capture ended' },
    ]);
  } finally {
    capture.stopCapturing();
  }
});

test('a status that reaches the script thread after its capture was stopped, or started anew, is dropped', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  await start(capture);
  // Queued, then stopped before the script thread hands anything over: the record still arrives, the status not.
  assert.equal(emit(motion(1, 1), STATUS.lost), true);
  capture.stopCapturing();
  await start(capture);
  try {
    assert.equal(emit(STATUS.live, motion(2, 2)), true);
    assert.ok(await waitFor(() => seen.length >= 3));
    await sleep(20);
    assert.deepEqual(withoutBatch(seen), [['motion', motion(1, 1)], ['status', LIVE], ['motion', motion(2, 2)]]);
  } finally {
    capture.stopCapturing();
  }
});

test('setStatusCallback: a second call throws and keeps the first; null leaves the slot empty', async () => {
  const capture = newCapture();
  const moves = [];
  capture.setMotionEventCallback((record) => moves.push(record));
  capture.setStatusCallback(null);
  await start(capture);
  try {
    assert.equal(emit(STATUS.live, motion(1, 1)), true);
    assert.ok(await waitFor(() => moves.length >= 1), 'records flow without a status callback');
    const first = [];
    capture.setStatusCallback((status) => first.push(status));
    assert.throws(() => capture.setStatusCallback(() => assert.fail('replaced')),
      { name: 'Error', message: 'Pointer capture status callback already set.' });
    assert.equal(emit(STATUS.lost), true);
    assert.ok(await waitFor(() => first.length >= 1));
    assert.deepEqual(first, [LOST]);
  } finally {
    capture.stopCapturing();
  }
});

test('records that find a callback slot empty are dropped', async () => {
  const capture = newCapture();
  const moves = [];
  capture.setMotionEventCallback((record) => moves.push(record));
  await start(capture);
  try {
    assert.equal(emit(buttons(2, 0, 0), motion(5, 5), { left: 1, offset: { x: 6, y: 0 } }), true);
    assert.ok(await waitFor(() => moves.length >= 2));
    const presses = [];
    capture.setButtonsEventCallback((record) => presses.push(record));
    assert.equal(emit(buttons(0, 2, 0)), true);
    assert.ok(await waitFor(() => presses.length >= 1));
    await sleep(20);
    assert.deepEqual(moves, [motion(5, 5), motion(6, 0)]);
    assert.deepEqual(presses, [buttons(0, 2, 0)], 'earlier button records were not kept for it');
  } finally {
    capture.stopCapturing();
  }
});

test('startCapturing twice: the second call does nothing', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  const before = fake.stats();
  await start(capture);
  capture.startCapturing();
  assert.equal(fake.stats().readersStarted, before.readersStarted + 1, 'one reader thread');
  assert.equal(emit(motion(2, 3)), true);
  assert.ok(await waitFor(() => seen.length >= 1));
  await sleep(20);
  assert.equal(seen.length, 1, 'delivered once');
  const releasedBefore = released();
  capture.stopCapturing();
  assert.equal(released(), releasedBefore + 1);
  assert.equal(fake.captured(), false);
  // A second stop finds nothing to stop.
  capture.stopCapturing();
  assert.equal(released(), releasedBefore + 1);
  assert.equal(fake.stats().breaks, before.breaks + 1);
});

test('stopCapturing without a start does nothing', () => {
  const capture = newCapture();
  const before = fake.stats();
  const releasedBefore = released();
  capture.stopCapturing();
  assert.deepEqual(fake.stats(), before);
  assert.equal(released(), releasedBefore);
  assert.equal(fake.captured(), false);
});

test('a capture can be started again after a stop', async () => {
  const capture = newCapture();
  const seen = recordOn(capture);
  for (let round = 1; round <= 3; ++round) {
    await start(capture);
    assert.equal(emit(motion(round, round)), true);
    assert.ok(await waitFor(() => seen.length >= round));
    capture.stopCapturing();
    assert.equal(fake.stats().reading, false);
  }
  await sleep(20);
  assert.deepEqual(withoutBatch(seen), [1, 2, 3].map((n) => ['motion', motion(n, n)]));
});

test('two capture objects share one driver: the second start is a no-op and its stop stops the first', async () => {
  const first = newCapture();
  const second = newCapture();
  assert.notEqual(first, second);
  const firstSeen = recordOn(first);
  const secondSeen = recordOn(second);
  const before = fake.stats();
  await start(first);
  second.startCapturing();
  assert.equal(fake.stats().readersStarted, before.readersStarted + 1);
  assert.equal(emit(motion(4, 4), buttons(0, 0, 2)), true);
  assert.ok(await waitFor(() => firstSeen.length >= 2));
  await sleep(20);
  assert.equal(secondSeen.length, 0);

  const releasedBefore = released();
  second.stopCapturing();
  assert.equal(fake.captured(), false, "the second object's stop ended the first object's capture");
  assert.equal(released(), releasedBefore + 1);
  first.stopCapturing();
  assert.equal(released(), releasedBefore + 1, 'nothing left to stop');

  // Now the second object can capture, and the first one's start is the no-op.
  await start(second);
  first.startCapturing();
  assert.equal(emit(motion(8, 8)), true);
  assert.ok(await waitFor(() => secondSeen.length >= 1));
  await sleep(20);
  second.stopCapturing();
  assert.deepEqual(withoutBatch(secondSeen), [['motion', motion(8, 8)]]);
  assert.equal(firstSeen.length, 2);
});

test('collecting a capturing object releases the capture', async () => {
  const before = fake.stats();
  let capture = fake.capturePointer();
  capture.setMotionEventCallback(() => {});
  await start(capture);
  capture = null;
  assert.ok(await collectUntil(() => !fake.captured()), 'the capture was released');
  const after = fake.stats();
  assert.equal(after.breaks, before.breaks + 1);
  assert.equal(after.readersFinished, before.readersFinished + 1);
  assert.equal(after.reading, false);
});

test('collection releases the capture even when another object started it', async () => {
  const owner = newCapture();
  owner.setMotionEventCallback(() => {});
  await start(owner);
  (() => {
    fake.capturePointer(); // dropped at once
  })();
  assert.ok(await collectUntil(() => !fake.captured()), 'the dropped object released the shared driver');
  owner.stopCapturing(); // nothing left to stop
});

test('release on collection prints "Pointer capture released" (not passed to script during collection)', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    const received = [];
    kit.diagnostics.setLogHandler((text, level) => received.push([text, level]));
    let capture = kit.fakeInput.capturePointer();
    capture.setMotionEventCallback(() => {});
    capture.startCapturing();
    const registry = new FinalizationRegistry(() => {});
    registry.register(capture, 'capture');
    capture = null;
    (async () => {
      for (let i = 0; i < 50 && kit.fakeInput.captured(); ++i) {
        global.gc();
        await new Promise((resolve) => setTimeout(resolve, 5));
      }
      console.log('collected ' + !kit.fakeInput.captured());
      console.log(JSON.stringify(received));
    })();
  `, { execArgv: ['--expose-gc'] });
  assert.equal(result.status, 0, describe(result));
  const lines = result.stdout.split('\n');
  assert.deepEqual(lines.slice(0, 3), ['Native: capture pointer', 'Pointer capture released', 'collected true'],
    describe(result));
  assert.deepEqual(JSON.parse(lines[3]), [['Native: capture pointer', 0]]);
});

for (const [setter, message] of [
  ['setMotionEventCallback', 'Pointer capture motion callback already set.'],
  ['setButtonsEventCallback', 'Pointer capture buttons callback already set.'],
]) {
  test(`${setter} twice ends the process (no failure handler is installed)`, () => {
    const result = runChild(`
      const kit = ${requireTestkit};
      const capture = kit.fakeInput.capturePointer();
      capture.${setter}(() => {});
      console.log('first set');
      try { capture.${setter}(() => {}); } catch (error) { console.log('caught ' + error.message); }
      console.log('returned');
    `);
    assert.equal(result.signal, 'SIGABRT', describe(result));
    assert.equal(result.stdout, 'first set\n', describe(result));
    assert.ok(!result.stderr.includes(message), 'nothing reports the check but the (absent) handler');
  });
}

// The process's event loop: a capturing object keeps it alive, a stopped one does not, whoever stopped it.
test('a capturing object keeps the process alive until its capture ends', () => {
  const result = runChild(`
    const fake = ${requireTestkit}.fakeInput;
    const capture = fake.capturePointer();
    capture.setMotionEventCallback((record) => {
      console.log('delivered ' + JSON.stringify(record.offset));
      capture.stopCapturing();
    });
    capture.startCapturing();
    const emitWhenReading = () => {
      if (!fake.stats().reading) return setTimeout(emitWhenReading, 1);
      fake.stage({ offset: { x: 1, y: 2 } });
      console.log('emitted ' + fake.emit());
      // Nothing but the capture is left to keep the loop running.
    };
    emitWhenReading();
  `);
  assert.equal(result.status, 0, describe(result));
  assert.equal(result.stdout, 'emitted true\ndelivered {"x":1,"y":2}\n', describe(result));
});

test('a capture stopped through another object no longer keeps the process alive', () => {
  const result = runChild(`
    const fake = ${requireTestkit}.fakeInput;
    const first = fake.capturePointer();
    const second = fake.capturePointer();
    first.startCapturing();
    const stopWhenReading = () => {
      if (!fake.stats().reading) return setTimeout(stopWhenReading, 1);
      second.stopCapturing();
      console.log('stopped ' + !fake.captured());
    };
    stopWhenReading();
  `, { timeout: 20000 });
  assert.equal(result.signal, null, `the process did not end by itself\n${describe(result)}`);
  assert.equal(result.status, 0, describe(result));
  assert.equal(result.stdout, 'stopped true\n');
});
