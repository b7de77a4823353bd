'use strict';
// Script functions held by native code and invoked from it.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadTestkit, collectUntil } = require('./support');

const kit = loadTestkit();
const callbacks = kit.callbacks;

test('a (text, number) callback receives both arguments', () => {
  const calls = [];
  callbacks.setTextCallback((text, number) => calls.push([text, number]));
  assert.equal(callbacks.fireText('hello', 3, 2), 2);
  assert.deepEqual(calls, [['hello', 3], ['hello', 3]]);
  assert.equal(callbacks.fireText('', -1, 1), 1);
  assert.deepEqual(calls.at(-1), ['', -1]);
  callbacks.setTextCallback(null);
});

test('record callbacks receive ButtonsEventData and MotionEventData objects', () => {
  const buttons = [];
  const motions = [];
  callbacks.setButtonsCallback((event) => buttons.push(event));
  callbacks.setMotionCallback((event) => motions.push(event));
  assert.equal(callbacks.fireButtons(2, 0, 1), 1);
  assert.equal(callbacks.fireMotion(-3, 4, 100, 200), 1);
  assert.deepEqual(buttons, [{ left: 2, middle: 0, right: 1 }]);
  assert.deepEqual(motions, [{ offset: { x: -3, y: 4 }, screenPoint: { x: 100, y: 200 } }]);
  callbacks.setButtonsCallback(undefined);
  callbacks.setMotionCallback(undefined);
});

test('the callback is called with an undefined receiver and its result is ignored', () => {
  let receiver = 'unset';
  callbacks.setTextCallback(function () {
    'use strict';
    receiver = this;
    return 'ignored';
  });
  assert.equal(callbacks.fireText('x', 0, 1), 1);
  assert.equal(receiver, undefined);
  callbacks.setTextCallback(null);
});

test('null or undefined clears a callback', () => {
  callbacks.setTextCallback(() => {});
  assert.equal(callbacks.hasTextCallback(), true);
  callbacks.setTextCallback(null);
  assert.equal(callbacks.hasTextCallback(), false);
  assert.equal(callbacks.fireText('x', 0, 1), -1, 'nothing to call');

  callbacks.setMotionCallback(() => {});
  assert.equal(callbacks.hasMotionCallback(), true);
  callbacks.setMotionCallback(undefined);
  assert.equal(callbacks.hasMotionCallback(), false);

  callbacks.setButtonsCallback(() => {});
  callbacks.setButtonsCallback(null);
  assert.equal(callbacks.hasButtonsCallback(), false);
});

test('a callback that throws does not disturb the native caller, and the next event calls it again', () => {
  let calls = 0;
  callbacks.setTextCallback(() => {
    ++calls;
    throw new Error('thrown by the callback');
  });
  // Three invocations in one native call: each returns to native code, nothing reaches the script caller.
  assert.equal(callbacks.fireText('a', 1, 3), 3);
  assert.equal(calls, 3);
  // The next event calls it again.
  assert.equal(callbacks.fireText('b', 2, 1), 1);
  assert.equal(calls, 4);

  let motionCalls = 0;
  callbacks.setMotionCallback(() => {
    ++motionCalls;
    throw new TypeError('motion');
  });
  assert.equal(callbacks.fireMotion(1, 1, 1, 1), 1);
  assert.equal(callbacks.fireMotion(1, 1, 1, 1), 1);
  assert.equal(motionCalls, 2);
  callbacks.setTextCallback(null);
  callbacks.setMotionCallback(null);
});

test('a callback set to a number fails silently on every invocation', () => {
  callbacks.setTextCallback(42);
  assert.equal(callbacks.hasTextCallback(), true, 'the value is kept, not checked');
  assert.equal(callbacks.fireText('x', 0, 2), 2);
  callbacks.setButtonsCallback('not a function');
  assert.equal(callbacks.fireButtons(0, 0, 0), 1);
  callbacks.setMotionCallback({});
  assert.equal(callbacks.fireMotion(0, 0, 0, 0), 1);
  callbacks.setTextCallback(null);
  callbacks.setButtonsCallback(null);
  callbacks.setMotionCallback(null);
});

test('replacing a callback destroys the previous marshaller', () => {
  const before = callbacks.callbacksDestroyed();
  callbacks.setTextCallback(() => {});
  assert.equal(callbacks.callbacksDestroyed(), before);
  callbacks.setTextCallback(() => {});
  assert.equal(callbacks.callbacksDestroyed(), before + 1);
  callbacks.setTextCallback(null);
  assert.equal(callbacks.callbacksDestroyed(), before + 2);
  callbacks.setTextCallback(null);
  assert.equal(callbacks.callbacksDestroyed(), before + 2, 'clearing nothing destroys nothing');
});

test('replacing a callback releases the previous script function', async () => {
  const released = new Set();
  const registry = new FinalizationRegistry((tag) => released.add(tag));
  // Functions made in their own scope, so that only the native side references them.
  const install = (setter, tag) => {
    const fn = () => tag;
    registry.register(fn, tag);
    setter(fn);
  };
  install((fn) => callbacks.setTextCallback(fn), 'replaced text');
  install((fn) => callbacks.setMotionCallback(fn), 'held motion');
  install((fn) => callbacks.setButtonsCallback(fn), 'cleared buttons');

  // While held, a function is kept alive by its marshaller.
  await collectUntil(() => released.size > 0, 5);
  assert.deepEqual([...released], [], 'functions held by native code must survive collection');

  install((fn) => callbacks.setTextCallback(fn), 'replacement text');
  callbacks.setButtonsCallback(null);
  assert.ok(await collectUntil(() => released.has('replaced text') && released.has('cleared buttons')),
    `released: ${[...released]}`);
  assert.ok(!released.has('held motion'));
  assert.ok(!released.has('replacement text'));

  callbacks.setTextCallback(null);
  callbacks.setMotionCallback(null);
  assert.ok(await collectUntil(() => released.has('held motion') && released.has('replacement text')),
    `released: ${[...released]}`);
});
