'use strict';
// Hostile script input: every script-visible method of every component and of the capture object, called
// with no arguments, with extra arguments and with one value of each awkward kind. One table (METHODS
// below) says what each call does; the tests assert exactly that, and
//   node tests/js/hostile.test.js --table
// prints the same table as Markdown ("Script API errors", for the README) without running anything.
//
// Calls that end the process by design (the crash emitter, a second non-empty callback, a receiver without
// a native object) and calls with process-wide effects ("shutdown", the log handler) run in child
// processes; everything else runs here, against the private X server of the CTest "xvfb" fixture.
const path = require('node:path');

// ---- the table ----

// The awkward values, as source text so that child processes can build the very same values.
// `fn` is a function in scope wherever the text is evaluated.
const VALUES = [
  { label: '`undefined`', src: 'undefined' },
  { label: '`null`', src: 'null' },
  { label: '`true`', src: 'true' },
  { label: '`-1`', src: '-1' },
  { label: '`2**31`', src: '2 ** 31' },
  { label: '`NaN`', src: 'NaN' },
  { label: '`"text"`', src: '"text"' },
  { label: '`{}`', src: '({})' },
  { label: '`[]`', src: '[]' },
  { label: '`Symbol()`', src: 'Symbol()' },
  { label: '`10n`', src: '10n' },
  { label: 'an object whose `valueOf` throws', src: '({ valueOf() { throw new Error("valueOf") } })' },
  { label: 'a function', src: 'fn' },
];

const NO_ARGS = { label: '(none)', src: '' };
const extra = (src) => ({ label: `extra: \`(${src.replace(/\bfn\b/, 'f')})\``, src });

/** The argument lists every method is called with: none, extra arguments, then each value alone. */
const argumentLists = (method) => [NO_ARGS, extra(method.extra), ...VALUES];

const RELEASED = (type) => `Native object of (${type}) has been released`;
const ARITY_1 = 'Expected (1) arguments, but only (0)';

// What a call does. `text` is the table's wording.
const OUTCOMES = {
  arity: { text: `throws \`Error\` "${ARITY_1}"` },
  left: { text: 'returns the left button\'s state (`false` when it is not held)' },
  middle: { text: 'returns the middle button\'s state' },
  right: { text: 'returns the right button\'s state' },
  capture: { text: 'returns a new capture object' },
  logInstalls: { text: 'returns `undefined`; each native log message is printed and passed to the function as (message, level)' },
  logPrints: { text: 'returns `undefined`; native log messages are printed only' },
  logKept: { text: 'returns `undefined`; messages are printed, and the value is kept as handler: calling it fails silently inside the engine' },
  receives: { text: 'returns `undefined`; the function receives the records' },
  empty: { text: 'returns `undefined`; the slot stays empty (records are dropped) and may still be set' },
  kept: { text: 'returns `undefined`; the value is kept as callback: each call fails silently inside the engine, delivery goes on; setting the slot again ends the process with SIGABRT' },
  starts: { text: 'returns `undefined`; capturing starts' },
  stops: { text: 'returns `undefined`; capturing stops' },
  statuses: { text: 'returns `undefined`; the function receives the statuses' },
  statusEmpty: { text: 'returns `undefined`; the slot stays empty (statuses are dropped) and may still be set' },
  statusKept: { text: 'returns `undefined`; the value is kept as callback: each call fails silently inside the engine, delivery goes on; setting the slot again throws `Error`' },
  segv: { text: 'the process ends with SIGSEGV' },
  shutdown: { text: 'returns `undefined`; every component is released' },
};

const isFunctionValue = (list) => list.src === 'fn';
const isEmptyValue = (list) => list.src === 'undefined' || list.src === 'null';

/**
 * The script-visible methods. `extra` is the source of the extra-argument call; `outcome(list)` the key of
 * OUTCOMES for one argument list.
 */
const METHODS = [
  {
    name: 'crash_emitter.emitAccessViolation', kind: 'crash', extra: '1, "two", {}',
    outcome: () => 'segv',
  },
  {
    name: 'crash_emitter.emitStackOverflow', kind: 'crash', extra: '1, "two", {}',
    outcome: () => 'segv',
  },
  {
    name: 'diagnostics.setLogHandler', kind: 'log', extra: 'fn, 1, "two"',
    outcome: (list) => {
      if (list === NO_ARGS) return 'arity';
      if (isFunctionValue(list) || list.src.startsWith('fn,')) return 'logInstalls';
      return isEmptyValue(list) ? 'logPrints' : 'logKept';
    },
  },
  {
    name: 'hardware.capturePointer', kind: 'capturePointer', extra: '1, "two", {}',
    outcome: () => 'capture',
  },
  {
    // Integer conversion (ToInteger): NaN and failed conversions give 0, any number but 0 and 1 is Right.
    name: 'hardware.getButtonState', kind: 'buttons', extra: '1, 0, 0',
    outcome: (list) => {
      if (list === NO_ARGS) return 'arity';
      if (list.src === 'true' || list.src.startsWith('1,')) return 'middle';
      if (list.src === '-1' || list.src === '2 ** 31') return 'right';
      return 'left';
    },
  },
  {
    name: 'capture.setButtonsEventCallback', kind: 'callback', slot: 'buttons', extra: 'fn, 1, "two"',
    outcome: (list) => {
      if (list === NO_ARGS) return 'arity';
      if (isFunctionValue(list) || list.src.startsWith('fn,')) return 'receives';
      return isEmptyValue(list) ? 'empty' : 'kept';
    },
  },
  {
    name: 'capture.setMotionEventCallback', kind: 'callback', slot: 'motion', extra: 'fn, 1, "two"',
    outcome: (list) => {
      if (list === NO_ARGS) return 'arity';
      if (isFunctionValue(list) || list.src.startsWith('fn,')) return 'receives';
      return isEmptyValue(list) ? 'empty' : 'kept';
    },
  },
  { name: 'capture.startCapturing', kind: 'start', extra: '1, "two", {}', outcome: () => 'starts' },
  { name: 'capture.stopCapturing', kind: 'stop', extra: '1, "two", {}', outcome: () => 'stops' },
  {
    name: 'capture.setStatusCallback', kind: 'status', extra: 'fn, 1, "two"',
    outcome: (list) => {
      if (list === NO_ARGS) return 'arity';
      if (isFunctionValue(list) || list.src.startsWith('fn,')) return 'statuses';
      return isEmptyValue(list) ? 'statusEmpty' : 'statusKept';
    },
  },
  { name: 'shutdown', kind: 'shutdown', extra: '1, "two", {}', outcome: () => 'shutdown' },
];

const HW_TYPE = 'N3zel20HwComponentComponentE';
const STATUS_SET = 'Pointer capture status callback already set.';
const CRASH_TYPE = 'N3zel12CrashEmitterE';

/**
 * Misuse beyond argument values, each run in a child process. `script` runs with `z` (the module),
 * `fn` (a function) and `capture` (a fresh capture object) in scope.
 */
const MISUSE = [
  {
    call: '`setMotionEventCallback(f)` on a slot that holds a callback (also `setButtonsEventCallback`)',
    script: 'capture.setMotionEventCallback(fn); capture.setMotionEventCallback(fn);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT',
  },
  {
    call: '`setButtonsEventCallback(null)` on a slot that holds a callback',
    script: 'capture.setButtonsEventCallback(fn); capture.setButtonsEventCallback(null);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT (a set slot is never cleared)',
  },
  {
    call: '`setMotionEventCallback(null)`, then `setMotionEventCallback(f)`',
    script: 'capture.setMotionEventCallback(null); capture.setMotionEventCallback(fn);',
    outcome: { status: 0 }, text: 'both return `undefined`; `f` is the callback',
  },
  {
    call: '`setStatusCallback(f)` on a slot that holds a callback',
    script: 'capture.setStatusCallback(fn); capture.setStatusCallback(fn);',
    outcome: { status: 0, thrown: STATUS_SET }, text: `throws \`Error\` "${STATUS_SET}"; the first callback stays`,
  },
  {
    call: '`hardware.getButtonState.call({}, 0)`',
    script: 'z.hardware.getButtonState.call({}, 0);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT (no native object behind the receiver)',
  },
  {
    call: '`const f = hardware.getButtonState; f(0)`',
    script: 'const f = z.hardware.getButtonState; f(0);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT',
  },
  {
    call: '`new hardware.getButtonState(0)`',
    script: 'new z.hardware.getButtonState(0);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT',
  },
  {
    call: '`hardware.getButtonState.call(capture, 0)`',
    script: 'z.hardware.getButtonState.call(capture, 0);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT (the receiver\'s native object is not the component)',
  },
  {
    call: '`capture.startCapturing.call(hardware)`',
    script: 'capture.startCapturing.call(z.hardware);',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT',
  },
  {
    call: '`crash_emitter.emitAccessViolation.call({})`',
    script: 'z.crash_emitter.emitAccessViolation.call({});',
    outcome: { signal: 'SIGABRT' }, text: 'the process ends with SIGABRT, before any fault',
  },
  {
    call: '`diagnostics.setLogHandler.call({}, f)`',
    script: 'z.diagnostics.setLogHandler.call({}, fn); z.hardware.capturePointer();',
    outcome: { status: 0, stdout: 'Native: capture pointer\n', seen: [['Native: capture pointer', 0]] },
    text: 'returns `undefined`; installs `f` (the method has no receiver)',
  },
  {
    call: '`shutdown.call({})`, twice',
    script: 'z.shutdown.call({}); z.shutdown.call({});',
    outcome: { status: 0 }, text: 'returns `undefined`; the second call does nothing',
  },
  {
    call: '`hardware.getButtonState({ valueOf() { shutdown(); return 0 } })`',
    script: 'z.hardware.getButtonState({ valueOf() { z.shutdown(); return 0; } });',
    outcome: { status: 0, thrown: RELEASED(HW_TYPE) },
    text: `throws \`Error\` "${RELEASED(HW_TYPE)}" (arguments are converted before the receiver is looked at)`,
  },
];

/** Calls after "shutdown" (children): the script, and what it does. */
const AFTER_SHUTDOWN = [
  { call: '`hardware.getButtonState(0)`', script: 'z.hardware.getButtonState(0)', thrown: RELEASED(HW_TYPE) },
  { call: '`hardware.getButtonState()`', script: 'z.hardware.getButtonState()', thrown: ARITY_1 },
  { call: '`hardware.capturePointer()`', script: 'z.hardware.capturePointer()', thrown: RELEASED(HW_TYPE) },
  { call: '`crash_emitter.emitAccessViolation()`', script: 'z.crash_emitter.emitAccessViolation()', thrown: RELEASED(CRASH_TYPE) },
  { call: '`crash_emitter.emitStackOverflow()`', script: 'z.crash_emitter.emitStackOverflow()', thrown: RELEASED(CRASH_TYPE) },
  { call: '`diagnostics.setLogHandler(f)`', script: 'z.diagnostics.setLogHandler(fn)', thrown: 'The diagnostics component has been shut down' },
  { call: '`diagnostics.setLogHandler(null)`', script: 'z.diagnostics.setLogHandler(null)', thrown: 'The diagnostics component has been shut down' },
  { call: '`diagnostics.setLogHandler()`', script: 'z.diagnostics.setLogHandler()', thrown: ARITY_1 },
  { call: 'methods of a capture object made before', script: 'capture.setMotionEventCallback(fn); capture.startCapturing(); capture.stopCapturing()', thrown: null },
];

function markdownTable() {
  const escape = (text) => text.replace(/\|/g, '\\|');
  const lines = ['### Script API errors', '',
    'What each script-visible method does when called with no arguments, with extra arguments, or with one',
    'awkward value (`f` is a function). A process end is by design: wrap such calls in nothing, they cannot be caught.', '',
    '| Method | Arguments | Outcome |', '|---|---|---|'];
  for (const method of METHODS) {
    const groups = new Map();
    for (const list of argumentLists(method)) {
      const key = method.outcome(list);
      if (!groups.has(key)) groups.set(key, []);
      groups.get(key).push(list.label);
    }
    for (const [key, labels] of groups) {
      lines.push(`| \`${method.name}\` | ${escape(labels.join(', '))} | ${escape(OUTCOMES[key].text)} |`);
    }
  }
  lines.push('', 'Other misuse:', '', '| Call | Outcome |', '|---|---|');
  for (const misuse of MISUSE) lines.push(`| ${escape(misuse.call)} | ${escape(misuse.text)} |`);
  lines.push('', 'After `shutdown()`:', '', '| Call | Outcome |', '|---|---|');
  for (const after of AFTER_SHUTDOWN) {
    const text = after.thrown === null ? 'work as before (the capture keeps its own reference to the input driver)'
      : `throws \`Error\` "${after.thrown}"`;
    lines.push(`| ${escape(after.call)} | ${escape(text)} |`);
  }
  return `${lines.join('\n')}\n`;
}

if (require.main === module && process.argv.includes('--table')) {
  process.stdout.write(markdownTable());
  return;
}

// ---- the tests ----

const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const {
  runChild, crashEnv, describe, requireBridge, indexPath, useTestDisplay, xinject, waitFor, sleep,
} = require('./support');

// The module opens its X connections on the display named by DISPLAY, when first needed.
useTestDisplay();
const z = require(indexPath);

/** The argument values of `list`, with `fn` standing for the function given. */
const argumentsOf = (list, fn) => new Function('fn', `return [${list.src}];`)(fn);

/** Calls `call` and returns { value } or { thrown } (with the thrown value's class name and message). */
function outcomeOf(call) {
  try {
    return { value: call() };
  } catch (error) {
    return { thrown: { name: error?.constructor?.name, message: error?.message } };
  }
}

const method = (name) => METHODS.find((m) => m.name === name);

// Destroying any capture object releases the shared driver's capture: keep every one referenced.
const kept = [];
const newCapture = () => {
  const capture = z.hardware.capturePointer();
  kept.push(capture);
  return capture;
};

/** Records of both kinds seen by plain recording callbacks. */
function recorder() {
  const seen = [];
  return { seen, fn: (record) => seen.push(record) };
}

/** Child script prelude: the module as `z`, a recording `fn`, a fresh `capture`; RESULT line on stderr. */
function childScript(body) {
  return `
    const z = ${requireBridge};
    const seen = [];
    const fn = (...args) => seen.push(args);
    const capture = z.hardware.capturePointer();
    let thrown = null;
    try { ${body} } catch (error) { thrown = error instanceof Error ? error.message : String(error); }
    process.stderr.write('RESULT ' + JSON.stringify({ thrown, seen }) + '\\n');
  `;
}

function childResult(result) {
  const line = result.stderr.split('\n').find((l) => l.startsWith('RESULT '));
  return line ? JSON.parse(line.slice('RESULT '.length)) : null;
}

const BUTTON_NUMBER = { left: 1, middle: 2, right: 3 };

test.before(() => {
  // A held button left behind by an earlier run would falsify every answer.
  for (const button of ['1', '2', '3']) xinject('release', button);
});

test.after(() => {
  for (const capture of kept) capture.stopCapturing();
});

test('getButtonState: no argument throws, every other call answers false with no button held', () => {
  const m = method('hardware.getButtonState');
  for (const list of argumentLists(m)) {
    const outcome = outcomeOf(() => z.hardware.getButtonState(...argumentsOf(list, () => {})));
    if (m.outcome(list) === 'arity') {
      assert.deepEqual(outcome, { thrown: { name: 'Error', message: ARITY_1 } }, list.label);
    } else {
      assert.deepEqual(outcome, { value: false }, list.label);
    }
  }
});

for (const button of ['left', 'middle', 'right']) {
  test(`getButtonState: which values ask for the ${button} button (held through XTest)`, () => {
    const m = method('hardware.getButtonState');
    xinject('press', String(BUTTON_NUMBER[button]));
    try {
      for (const list of argumentLists(m)) {
        const expected = m.outcome(list);
        if (expected === 'arity') continue;
        const answer = z.hardware.getButtonState(...argumentsOf(list, () => {}));
        assert.equal(answer, expected === button, `${list.label} asks for the ${expected} button`);
      }
    } finally {
      xinject('release', String(BUTTON_NUMBER[button]));
    }
    assert.equal(z.hardware.getButtonState(BUTTON_NUMBER[button] - 1), false, 'released again');
  });
}

test('capturePointer: every call returns a new capture object, arguments are ignored', () => {
  const m = method('hardware.capturePointer');
  const made = new Set();
  for (const list of argumentLists(m)) {
    assert.equal(m.outcome(list), 'capture');
    const capture = z.hardware.capturePointer(...argumentsOf(list, () => {}));
    kept.push(capture);
    assert.equal(typeof capture, 'object', list.label);
    for (const name of ['setButtonsEventCallback', 'setMotionEventCallback', 'startCapturing', 'stopCapturing',
      'setStatusCallback']) {
      assert.equal(typeof capture[name], 'function', `${list.label}: ${name}`);
    }
    assert.ok(!made.has(capture), `${list.label}: a new object`);
    made.add(capture);
  }
});

/**
 * Starts `capture`, injects one move and one click (press and release of button 1), and waits until
 * `done()` holds; stops the capture again.
 */
async function driveCapture(capture, done) {
  capture.startCapturing();
  try {
    // The reader needs a moment to select its events: inject until the first record comes through.
    const end = Date.now() + 10000;
    while (!done() && Date.now() < end) {
      xinject('wiggle', '3', '4', '-n', '2'); // there and back: the pointer stays clear of the edges
      xinject('click', '1');
      await waitFor(done, 200);
    }
    return done();
  } finally {
    capture.stopCapturing();
  }
}

/**
 * Sets `setter` of a new capture with the values of `list` (its function records into `own`) and a witness with
 * `witnessSetter`; asserts the outcome of the call (`expected`), then drives the capture until the witness receives,
 * and `own` too when it `receives`. Delivery goes on whatever the slot holds. (The reader may start between the move
 * and the click of one round: a function in the slot is waited for too.) Returns { capture, own }.
 */
async function setAndDrive(setter, witnessSetter, list, expected, receives) {
  const capture = newCapture();
  const witness = recorder();
  const own = recorder();
  capture[witnessSetter](witness.fn);
  const outcome = outcomeOf(() => capture[setter](...argumentsOf(list, own.fn)));
  if (expected === 'arity') {
    assert.deepEqual(outcome, { thrown: { name: 'Error', message: ARITY_1 } }, list.label);
  } else {
    assert.deepEqual(outcome, { value: undefined }, list.label);
  }
  const flowing = () => witness.seen.length > 0 && (!receives || own.seen.length > 0);
  assert.ok(await driveCapture(capture, flowing), `${list.label}: records flow`);
  return { capture, own };
}

for (const slot of ['buttons', 'motion']) {
  const name = slot === 'buttons' ? 'capture.setButtonsEventCallback' : 'capture.setMotionEventCallback';
  const other = slot === 'buttons' ? 'setMotionEventCallback' : 'setButtonsEventCallback';
  const setter = slot === 'buttons' ? 'setButtonsEventCallback' : 'setMotionEventCallback';
  const isOwn = (record) => (slot === 'buttons' ? 'left' in record : 'offset' in record);

  test(`${name}: the outcome of every argument list while records flow`, async () => {
    const m = method(name);
    for (const list of argumentLists(m)) {
      const expected = m.outcome(list);
      const { capture, own } = await setAndDrive(setter, other, list, expected, expected === 'receives');
      if (expected === 'receives') {
        assert.ok(own.seen.length > 0, `${list.label}: the function receives`);
        assert.ok(own.seen.every(isOwn), `${list.label}: only ${slot} records`);
      } else {
        assert.equal(own.seen.length, 0, list.label);
      }
      if (expected === 'arity' || expected === 'empty') {
        // Still empty: a function can be set now and receives the records.
        const later = recorder();
        capture[setter](later.fn);
        assert.ok(await driveCapture(capture, () => later.seen.length > 0), `${list.label}: set later`);
      }
    }
  });

  test(`${name}: a slot holding a value ends the process when set again`, () => {
    const m = method(name);
    for (const list of argumentLists(m)) {
      const expected = m.outcome(list);
      if (expected !== 'kept' && expected !== 'receives') continue;
      const result = runChild(childScript(`
        capture.${setter}(...[${list.src}]);
        process.stderr.write('first set\\n');
        capture.${setter}(fn);
      `));
      assert.equal(result.signal, 'SIGABRT', `${list.label}\n${describe(result)}`);
      assert.match(result.stderr, /^first set$/m, list.label);
    }
  });
}

test('capture.setStatusCallback: the outcome of every argument list while records flow', async () => {
  const m = method('capture.setStatusCallback');
  for (const list of argumentLists(m)) {
    const expected = m.outcome(list);
    const { capture, own } = await setAndDrive('setStatusCallback', 'setMotionEventCallback', list, expected,
      expected === 'statuses');
    if (expected === 'statuses') {
      assert.ok(own.seen.length > 0 && own.seen.every(({ code }) => code === 'live'), `${list.label}: the function hears "live"`);
    } else {
      assert.equal(own.seen.length, 0, list.label);
    }
    // A set slot is never replaced; an empty one can be set.
    const again = outcomeOf(() => capture.setStatusCallback(() => {}));
    const empty = expected === 'arity' || expected === 'statusEmpty';
    assert.deepEqual(again, empty ? { value: undefined } : { thrown: { name: 'Error', message: STATUS_SET } }, list.label);
  }
});

for (const [name, verb] of [['capture.startCapturing', 'startCapturing'], ['capture.stopCapturing', 'stopCapturing']]) {
  test(`${name}: arguments are ignored`, async () => {
    const m = method(name);
    for (const list of argumentLists(m)) {
      const capture = newCapture();
      const moves = recorder();
      capture.setMotionEventCallback(moves.fn);
      const start = verb === 'startCapturing' ? argumentsOf(list, () => {}) : [];
      const stop = verb === 'stopCapturing' ? argumentsOf(list, () => {}) : [];
      assert.deepEqual(outcomeOf(() => capture.startCapturing(...start)), { value: undefined }, list.label);
      let flowing = false;
      try {
        const end = Date.now() + 10000;
        while (!flowing && Date.now() < end) {
          xinject('move', '1', '1');
          flowing = await waitFor(() => moves.seen.length > 0, 200);
        }
      } finally {
        assert.deepEqual(outcomeOf(() => capture.stopCapturing(...stop)), { value: undefined }, list.label);
      }
      assert.ok(flowing, `${list.label}: capturing started`);
      const count = moves.seen.length;
      xinject('move', '1', '1');
      await sleep(100);
      assert.equal(moves.seen.length, count, `${list.label}: capturing stopped`);
    }
  });
}

test('setLogHandler: the outcome of every argument list (child processes)', () => {
  const m = method('diagnostics.setLogHandler');
  for (const list of argumentLists(m)) {
    const expected = m.outcome(list);
    // capturePointer writes "Native: capture pointer" at level 0 (Info) on the script thread; so does a second one.
    const result = runChild(childScript(`
      z.diagnostics.setLogHandler(...[${list.src}]);
      z.hardware.capturePointer();
      z.hardware.capturePointer();
    `));
    assert.equal(result.status, 0, `${list.label}\n${describe(result)}`);
    const { thrown, seen } = childResult(result);
    if (expected === 'arity') {
      assert.equal(thrown, ARITY_1, list.label);
      assert.equal(result.stdout, '', list.label);
      continue;
    }
    assert.equal(thrown, null, list.label);
    // The fresh capture of the prelude was made before the handler: only the two later ones are logged.
    assert.equal(result.stdout, 'Native: capture pointer\n'.repeat(2), list.label);
    const expectedSeen = expected === 'logInstalls' ? [['Native: capture pointer', 0], ['Native: capture pointer', 0]] : [];
    assert.deepEqual(seen, expectedSeen, list.label);
  }
});

test('the crash emitter ends the process with SIGSEGV whatever the arguments (child processes)', () => {
  for (const name of ['crash_emitter.emitAccessViolation', 'crash_emitter.emitStackOverflow']) {
    const m = method(name);
    for (const list of argumentLists(m)) {
      assert.equal(m.outcome(list), 'segv');
      const result = runChild(childScript(`
        try { z.${name}(...[${list.src}]); } catch (error) { process.stdout.write('caught\\n'); }
        process.stdout.write('returned\\n');
      `), { env: crashEnv(), timeout: 30000 });
      assert.equal(result.signal, 'SIGSEGV', `${name} ${list.label}\n${describe(result)}`);
      assert.equal(result.stdout, '', `${name} ${list.label}`);
    }
  }
});

test('shutdown releases the components whatever the arguments (child processes)', () => {
  const m = method('shutdown');
  for (const list of argumentLists(m)) {
    assert.equal(m.outcome(list), 'shutdown');
    const result = runChild(childScript(`
      const returned = z.shutdown(...[${list.src}]);
      if (returned !== undefined) throw new Error('shutdown returned ' + String(returned));
      z.hardware.getButtonState(0);
    `));
    assert.equal(result.status, 0, `${list.label}\n${describe(result)}`);
    assert.equal(childResult(result).thrown, RELEASED(HW_TYPE), list.label);
  }
});

test('other misuse (child processes)', () => {
  for (const misuse of MISUSE) {
    const result = runChild(childScript(`process.stderr.write('started\\n'); ${misuse.script}`));
    const { signal, status, stdout, seen, thrown } = misuse.outcome;
    if (signal) {
      assert.equal(result.signal, signal, `${misuse.call}\n${describe(result)}`);
      assert.match(result.stderr, /^started$/m, misuse.call);
      continue;
    }
    assert.equal(result.status, status, `${misuse.call}\n${describe(result)}`);
    const reported = childResult(result);
    assert.equal(reported.thrown, thrown ?? null, misuse.call);
    if (stdout !== undefined) assert.equal(result.stdout, stdout, misuse.call);
    if (seen !== undefined) assert.deepEqual(reported.seen, seen, misuse.call);
  }
});

test('after shutdown: component methods throw, a capture object made before goes on (child processes)', () => {
  for (const after of AFTER_SHUTDOWN) {
    const result = runChild(childScript(`z.shutdown(); ${after.script};`), { env: crashEnv() });
    assert.equal(result.status, 0, `${after.call}\n${describe(result)}`);
    assert.equal(childResult(result).thrown, after.thrown, after.call);
  }
});

test('the Markdown table in hostile-table.md is the one this file prints', () => {
  const file = path.join(__dirname, 'hostile-table.md');
  assert.equal(fs.readFileSync(file, 'utf8'), markdownTable(), 'regenerate: node tests/js/hostile.test.js --table > tests/js/hostile-table.md');
});
