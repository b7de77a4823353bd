'use strict';
// Bound native methods: argument and result conversion, exceptions, refused receivers and names.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadTestkit, runChild, describe, requireTestkit } = require('./support');

const kit = loadTestkit();
const binding = kit.binding;

test('makeStr of an empty text gives the empty string', () => {
  assert.equal(binding.makeStr(''), '');
  assert.equal(binding.makeStr('zel'), 'zel');
  assert.equal(binding.makeStr('größe ✓'), 'größe ✓');
});

test('a one-argument method called with none throws and does not reach native code', () => {
  const before = binding.takeOneCalls();
  assert.throws(() => binding.takeOne(), (error) => {
    assert.ok(error instanceof Error);
    assert.equal(error.message, 'Expected (1) arguments, but only (0)');
    return true;
  });
  assert.equal(binding.takeOneCalls(), before);
  assert.equal(binding.takeOne(5), 5);
  assert.equal(binding.takeOneCalls(), before + 1);
});

test('too few of several arguments reports the expected and the given count', () => {
  assert.throws(() => binding.takeSeveral(1, 'a'), { message: 'Expected (4) arguments, but only (2)' });
  assert.throws(() => binding.motion(), { message: 'Expected (4) arguments, but only (0)' });
});

test('extra arguments are ignored', () => {
  const before = binding.takeOneCalls();
  assert.equal(binding.takeOne(7, 'extra', {}, null), 7);
  assert.equal(binding.takeOneCalls(), before + 1);
  assert.equal(binding.takeSeveral(3, 'text', true, 2.5, 'ignored', 99), '3|text|true|2.5');
});

test('ints, strings, bools and doubles convert from script values', () => {
  assert.equal(binding.takeSeveral(-12, 'ä b', false, -0.125), '-12|ä b|false|-0.125');
  assert.equal(binding.takeSeveral('42', 17, 1, '1.5'), '42|17|true|1.5');
  assert.equal(binding.takeSeveral(3.9, null, '', 0), '3|null|false|0');
});

test('enumerations cross as their numbers', () => {
  assert.equal(binding.buttonNumber(0), 0);
  assert.equal(binding.buttonNumber(1), 1);
  assert.equal(binding.buttonNumber(2), 2);
  assert.equal(binding.buttonNumber('2'), 2);
  assert.equal(binding.buttonNumber(7), 7, 'no range check against the enumerators');
  assert.equal(binding.buttonEvent(0), 0);
  assert.equal(binding.buttonEvent(1), 1);
  assert.equal(binding.buttonEvent(2), 2);
});

test('a MotionEventData becomes {offset: {x, y}, screenPoint: {x, y}}', () => {
  const motion = binding.motion(1, -2, 300, 400);
  assert.deepEqual(motion, { offset: { x: 1, y: -2 }, screenPoint: { x: 300, y: 400 } });
  assert.deepEqual(Object.keys(motion), ['offset', 'screenPoint']);
  assert.deepEqual(Object.keys(motion.offset), ['x', 'y']);
  assert.equal(Object.getPrototypeOf(motion), Object.prototype);
  assert.deepEqual(binding.point(5, 6), { x: 5, y: 6 });
  assert.deepEqual(binding.buttons(2, 0, 1), { left: 2, middle: 0, right: 1 });
  assert.deepEqual(Object.keys(binding.buttons(0, 0, 0)), ['left', 'middle', 'right']);
});

test('records convert from plain objects field by field', () => {
  assert.deepEqual(binding.mirrorPoint({ x: 3, y: 4 }), { x: 3, y: 4 });
  assert.deepEqual(binding.mirrorPoint({ y: 9 }), { x: 0, y: 9 });
  const motion = { offset: { x: -1, y: 1 }, screenPoint: { x: 10, y: 20 } };
  assert.deepEqual(binding.mirrorMotion(motion), motion);
});

test('a void method returns undefined', () => {
  const before = binding.doNothingCalls();
  assert.equal(binding.doNothing(), undefined);
  assert.equal(binding.doNothingCalls(), before + 1);
});

test('a std::exception with text T becomes an Error with message T', () => {
  assert.throws(() => binding.throwStdException('T'), (error) => {
    assert.ok(error instanceof Error);
    assert.equal(error.constructor, Error);
    assert.equal(error.message, 'T');
    return true;
  });
  assert.throws(() => binding.throwStdException('Fail to create raw input driver'), {
    message: 'Fail to create raw input driver',
  });
  // The library's exception carries its plain message, without the location.
  assert.throws(() => binding.throwLibraryException('library text'), { message: 'library text' });
  // The component keeps working afterwards.
  assert.equal(binding.takeOne(1), 1);
});

test('a bound method on a receiver without the expected interface fails the interface check', () => {
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    const foreign = kit.binding.foreignReceiver();
    try { foreign.greet(1); console.log('returned'); } catch (error) { console.log('caught ' + error.message); }
  `;
  const result = runChild(script);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '', 'the failure must not become a script Error');
  assert.match(result.stderr, /Runtime check failed: instance\n/);
  assert.ok(result.stderr.includes(
    'message: Expected API (N3zel7testkit8StrangerE) does not provided while attempt to calling native method ()'),
  describe(result));
  assert.ok(result.stderr.includes('function: operator()\n'), describe(result));
  assert.ok(result.stderr.includes('file: ../common/include/common/v8binding/v8binding\n'), describe(result));
  assert.ok(result.stderr.includes('line: 175\n'), describe(result));
  assert.ok(result.stderr.includes('reserved: null\n'), describe(result));
});

test('with no failure handler the interface check ends the process', () => {
  const script = `
    const kit = ${requireTestkit};
    const foreign = kit.binding.foreignReceiver();
    try { foreign.greet(1); console.log('returned'); } catch (error) { console.log('caught ' + error.message); }
  `;
  const result = runChild(script);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.ok(!result.stderr.includes('Runtime check failed'), describe(result));
});

test('too few arguments fail before the receiver is looked at', () => {
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    const foreign = kit.binding.foreignReceiver();
    try { foreign.greet(); } catch (error) { console.log(error.message); }
    // A receiver with no internal field at all: same, the arguments are checked first.
    try { kit.binding.takeOne.call({}); } catch (error) { console.log(error.message); }
  `;
  const result = runChild(script);
  assert.equal(result.status, 0, describe(result));
  assert.equal(result.stdout, 'Expected (1) arguments, but only (0)\nExpected (1) arguments, but only (0)\n');
  assert.equal(result.stderr, '');
});

test('a member method that throws a non-std::exception fails a check instead of throwing into script', () => {
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    try { kit.binding.throwInt(); } catch (error) { console.log('caught ' + error.message); }
  `;
  const result = runChild(script);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.match(result.stderr, /Runtime check failed: RUNTIME_FAILURE\n {2}function: operator\(\)\n {2}file: \.\.\/common\/include\/common\/v8binding\/v8binding\n {2}line: 197\n {2}message: Unexpected exception type\n/);
});

test('a free function that throws a non-std::exception fails the check of the free form', () => {
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    try { kit.binding.throwIntFree(); } catch (error) { console.log('caught ' + error.message); }
  `;
  const result = runChild(script);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.match(result.stderr, /Runtime check failed: RUNTIME_FAILURE\n {2}function: operator\(\)\n {2}file: [^\n]*v8binding\n {2}line: 140\n {2}message: Unexpected exception type\n/);
});

test('with no failure handler a non-std::exception ends the process through std::terminate', () => {
  const result = runChild(`const kit = ${requireTestkit}; try { kit.binding.throwInt(); } catch { console.log('caught'); }`);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
});

test('setFunctionProperty with an empty name fails "!name.empty()" before anything is created', () => {
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    kit.binding.bindWithEmptyName();
    console.log('returned');
  `;
  const result = runChild(script);
  assert.equal(result.signal, 'SIGABRT', describe(result));
  assert.equal(result.stdout, '');
  assert.match(result.stderr, /Runtime check failed: !name\.empty\(\)\n {2}function: setFunctionProperty\n {2}file: \.\.\/common\/include\/common\/v8binding\/v8binding\n {2}line: 210\n {2}message: \n/);
  // Only this check failed: the isolate and object checks before it passed.
  assert.equal(result.stderr.match(/Runtime check failed/g).length, 1);
});

test('at the "!name.empty()" failure the target object has no property yet', () => {
  // A recording handler lets execution go on (safe here: the property is then set under the empty name);
  // the report notes the object's property count at the moment of the failure.
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installRecordingFailureHandler();
    const object = kit.binding.bindWithEmptyName();
    console.log(JSON.stringify({ count: kit.checks.failureReportCount(), report: kit.checks.failureReport(0) }));
  `;
  const result = runChild(script);
  assert.equal(result.status, 0, describe(result));
  const { count, report } = JSON.parse(result.stdout);
  assert.equal(count, 1);
  assert.deepEqual(report, {
    function: 'setFunctionProperty',
    file: '../common/include/common/v8binding/v8binding',
    line: 210,
    expression: '!name.empty()',
    message: '',
    reservedIsNull: true,
    probe: 0,
  });
});
