'use strict';
// Object-model results wrapped for script: weak tracking, disposal and release on collection.
const test = require('node:test');
const assert = require('node:assert/strict');
const { loadTestkit, collectUntil, runChild, describe, requireTestkit } = require('./support');

const kit = loadTestkit();
const wrappers = kit.wrappers;

// Every log message of the testkit, as (text, level).
const logs = [];
kit.diagnostics.setLogHandler((text, level) => logs.push([text, level]));

const stats = () => wrappers.stats();

test('a wrapped object offers the reflected methods of its interface', () => {
  const gadget = wrappers.makeGadget();
  assert.equal(typeof gadget.serial, 'function');
  assert.equal(typeof gadget.disposed, 'function');
  assert.ok(gadget.serial() > 0);
  assert.equal(gadget.disposed(), false);
  assert.notEqual(wrappers.makeGadget().serial(), gadget.serial());
});

test('dropping every reference and collecting disposes and destroys the object exactly once', async () => {
  const before = stats();
  let gadget = wrappers.makeGadget();
  assert.equal(stats().gadgetsConstructed, before.gadgetsConstructed + 1);
  assert.equal(gadget.disposed(), false);
  gadget = null;
  assert.ok(await collectUntil(() => stats().gadgetsDestroyed >= before.gadgetsDestroyed + 1));
  // A few more collections change nothing.
  await collectUntil(() => false, 5);
  const after = stats();
  // Earlier tests' gadgets may be collected in the same rounds: compare the balance, not only this one.
  assert.equal(after.gadgetsDisposed - before.gadgetsDisposed, after.gadgetsDestroyed - before.gadgetsDestroyed);
  assert.equal(after.gadgetsDestroyed, after.gadgetsConstructed, 'every gadget without a reference is gone');
  assert.equal(after.gadgetsDisposed, after.gadgetsConstructed, 'each one disposed once');
});

test('inDestructor() is true inside the weak callback and the destructor, false before and after', async () => {
  await collectUntil(() => false, 3);
  const before = stats();
  assert.equal(wrappers.inDestructor(), false);
  let gadgets = [wrappers.makeGadget(), wrappers.makeGadget(), wrappers.makeGadget()];
  assert.equal(wrappers.inDestructor(), false);
  gadgets = null;
  assert.ok(await collectUntil(() => stats().gadgetsDestroyed === before.gadgetsDestroyed + 3));
  assert.equal(wrappers.inDestructor(), false);
  const after = stats();
  assert.equal(after.gadgetsDisposed - before.gadgetsDisposed, 3);
  assert.equal(after.disposedInDestructor - before.disposedInDestructor, 3, 'dispose ran inside the weak callback');
  assert.equal(after.destroyedInDestructor - before.destroyedInDestructor, 3, 'the destructor ran inside it');
});

test('native code that keeps its own reference keeps the object past collection, disposed', async () => {
  await collectUntil(() => false, 3);
  const before = stats();
  let gadget = wrappers.sharedGadget();
  const serial = gadget.serial();
  gadget = null;
  assert.ok(await collectUntil(() => stats().gadgetsDisposed === before.gadgetsDisposed + 1));
  assert.equal(stats().gadgetsDestroyed, before.gadgetsDestroyed, 'the native reference keeps it');
  // Wrapping it again gives a new wrapper of the same, now disposed, object.
  let again = wrappers.sharedGadget();
  assert.equal(again.serial(), serial);
  assert.equal(again.disposed(), true);
  again = null;
  assert.ok(await collectUntil(() => stats().gadgetsDisposed === before.gadgetsDisposed + 2));
  assert.equal(wrappers.inDestructor(), false);
  wrappers.dropSharedGadget();
  const after = stats();
  assert.equal(after.gadgetsDestroyed, before.gadgetsDestroyed + 1, 'the last reference was the native one');
  assert.equal(after.destroyedInDestructor, before.destroyedInDestructor, 'destroyed outside any weak callback');
});

test('an empty ComPtr gives undefined and one warning', () => {
  logs.length = 0;
  assert.equal(wrappers.emptyGadget(), undefined);
  assert.deepEqual(logs, [['Return null instance where expected ComPtr<N3zel7testkit7IGadgetE>', 2]]);
});

test('a class without V8WeakReferenceHolder warns once per wrapping and is never destroyed', async () => {
  logs.length = 0;
  const before = stats();
  const warning = '(N3zel7testkit8ITrinketE) does not expose js::V8WeakReferenceHolder api, '
    + 'so underlying native object will never been destroyed';
  let trinket = wrappers.makeTrinket();
  assert.equal(typeof trinket.serial(), 'number');
  assert.deepEqual(logs, [[warning, 2]]);
  let other = wrappers.makeTrinket();
  assert.deepEqual(logs, [[warning, 2], [warning, 2]]);
  trinket = null;
  other = null;
  await collectUntil(() => false, 10);
  const after = stats();
  assert.equal(after.trinketsConstructed, before.trinketsConstructed + 2);
  assert.equal(after.trinketsDestroyed, 0, 'never destroyed');
  assert.equal(logs.length, 2, 'no further message on collection');
});

test('double wrap: only the second wrapper\'s collection runs the callback with an engaged handle', () => {
  // The first wrapper stays alive while the second is collected; its own collection then finds the holder's
  // handle already gone and fails the check "this_->m_weakRef", which the aborting handler reports.
  const script = `
    const kit = ${requireTestkit};
    kit.checks.installAbortingFailureHandler();
    const wrappers = kit.wrappers;
    const tick = () => new Promise((resolve) => setImmediate(resolve));
    async function collect(done) {
      for (let i = 0; i < 30 && !done(); ++i) { global.gc(); await tick(); await tick(); }
    }
    (async () => {
      let first = wrappers.sharedGadget();
      let second = wrappers.sharedGadget();
      const serials = [first.serial(), second.serial()];
      wrappers.dropSharedGadget();
      const base = wrappers.stats();
      second = null;
      await collect(() => wrappers.stats().gadgetsDisposed > base.gadgetsDisposed);
      const afterSecond = wrappers.stats();
      console.log(JSON.stringify({ serials, base, afterSecond, firstSerial: first.serial(), firstDisposed: first.disposed() }));
      first = null;
      await collect(() => false);
      console.log('first wrapper collected without a failure');
    })();
  `;
  const result = runChild(script, { execArgv: ['--expose-gc'] });
  assert.equal(result.signal, 'SIGABRT', describe(result));
  const lines = result.stdout.trim().split('\n');
  assert.equal(lines.length, 1, describe(result));
  const { serials, base, afterSecond, firstSerial, firstDisposed } = JSON.parse(lines[0]);
  assert.equal(serials[0], serials[1], 'both wrappers stand for one native object');
  // The second wrapper's collection: disposed, its reference released, no failure; the first keeps it alive.
  assert.equal(afterSecond.gadgetsDisposed, base.gadgetsDisposed + 1);
  assert.equal(afterSecond.gadgetsDestroyed, base.gadgetsDestroyed);
  assert.equal(firstSerial, serials[0]);
  assert.equal(firstDisposed, true);
  // The first wrapper's collection: the handle is no longer engaged.
  assert.equal(result.stderr.match(/Runtime check failed/g).length, 1, describe(result));
  assert.ok(result.stderr.includes('Runtime check failed: this_->m_weakRef\n  function: operator()\n'
    + '  file: ../common/v8binding/v8binding\n  line: 55\n  message: \n'), describe(result));
});
