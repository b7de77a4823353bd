'use strict';
// The diagnostics component: the native log printed on standard output and passed to the script handler.
// Every case runs in a child process so that its standard output can be compared exactly; the child reports
// what its script handlers received on standard error, as JSON.
const test = require('node:test');
const assert = require('node:assert/strict');
const { runChild, describe, requireTestkit } = require('./support');

// Runs `body` in a child with `kit` (the testkit), `received` (an array the handlers fill) and `handler`
// (a handler that records into `received`) in scope; `received` is written to standard error at exit.
function runLogChild(body, options = {}) {
  const script = `
    const kit = ${requireTestkit};
    const received = [];
    const handler = (text, level) => received.push([text, level]);
    process.on('exit', () => process.stderr.write(JSON.stringify(received)));
    ${body}
  `;
  const result = runChild(script, options);
  assert.equal(result.status, 0, describe(result));
  let received;
  try {
    received = JSON.parse(result.stderr);
  } catch {
    assert.fail(`no report on standard error\n${describe(result)}`);
  }
  return { stdout: result.stdout, received };
}

test('no output before setLogHandler', () => {
  const { stdout, received } = runLogChild(`
    kit.log.write(0, 'Native: capture pointer');
    kit.log.write(2, 'warning before');
    kit.log.write(3, 'error before');
    kit.log.writeFromThread(2, 'thread before');
    kit.wrappers.emptyGadget();
  `);
  assert.equal(stdout, '');
  assert.deepEqual(received, []);
});

test('after setLogHandler each message prints as its own line and reaches the handler with its level', () => {
  const { stdout, received } = runLogChild(`
    kit.log.write(0, 'before the handler');
    kit.diagnostics.setLogHandler(handler);
    kit.log.write(0, 'Native: capture pointer');
    kit.log.write(2, 'XQueryPointer returns False');
    kit.log.write(3, 'XInputExtension does not supported');
    kit.log.write(0, '');
    kit.log.write(2, 'größe ✓');
  `);
  assert.equal(stdout, 'Native: capture pointer\nXQueryPointer returns False\nXInputExtension does not supported\n\ngröße ✓\n');
  assert.deepEqual(received, [
    ['Native: capture pointer', 0],
    ['XQueryPointer returns False', 2],
    ['XInputExtension does not supported', 3],
    ['', 0],
    ['größe ✓', 2],
  ]);
});

test('the binding\'s own warnings reach the handler too', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.wrappers.emptyGadget();
  `);
  const warning = 'Return null instance where expected ComPtr<N3zel7testkit7IGadgetE>';
  assert.equal(stdout, `${warning}\n`);
  assert.deepEqual(received, [[warning, 2]]);
});

test('a message written on a native thread prints but does not reach script', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.log.write(0, 'script thread');
    kit.log.writeFromThread(2, 'native thread');
    kit.log.write(3, 'script thread again');
  `);
  assert.equal(stdout, 'script thread\nnative thread\nscript thread again\n');
  assert.deepEqual(received, [['script thread', 0], ['script thread again', 3]]);
});

test('a message written while no script context is entered prints but is not passed', () => {
  // The testkit exits the caller's entered context around the write; had a context stayed current, the
  // printed text would say so.
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.log.writeOutsideContext(0, 'outside any context');
    kit.log.write(0, 'inside again');
  `);
  assert.equal(stdout, 'outside any context\ninside again\n');
  assert.deepEqual(received, [['inside again', 0]]);
});

test('a message written from an event-loop callback is passed only when a context is current there', () => {
  // Node keeps its main context entered around the event loop, so on the main thread the handler is
  // expected to be called; the assertion follows what the callback saw.
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.log.writeFromLoop(2, 'from the loop');
    setTimeout(() => { received.push(['sawContext', kit.log.loopWriteSawContext(), kit.log.loopWrites()]); }, 50);
  `);
  assert.equal(stdout, 'from the loop\n');
  const [marker, sawContext, writes] = received.at(-1);
  assert.equal(marker, 'sawContext');
  assert.equal(writes, 1);
  assert.deepEqual(received.slice(0, -1), sawContext ? [['from the loop', 2]] : []);
});

test('a message written during a weak callback prints but does not reach script', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.wrappers.setDisposeMessage('disposing a gadget');
    let gadget = kit.wrappers.makeGadget();
    gadget = null;
    (async () => {
      for (let i = 0; i < 30 && kit.wrappers.stats().gadgetsDisposed === 0; ++i) {
        global.gc();
        await new Promise((resolve) => setImmediate(resolve));
      }
      kit.log.write(0, 'collected');
    })();
  `, { execArgv: ['--expose-gc'] });
  assert.equal(stdout, 'disposing a gadget\ncollected\n');
  assert.deepEqual(received, [['collected', 0]]);
});

test('a second setLogHandler replaces the first', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler((text, level) => received.push(['first', text, level]));
    kit.log.write(0, 'one');
    kit.diagnostics.setLogHandler((text, level) => received.push(['second', text, level]));
    kit.log.write(2, 'two');
    kit.log.write(3, 'three');
  `);
  assert.equal(stdout, 'one\ntwo\nthree\n');
  assert.deepEqual(received, [['first', 'one', 0], ['second', 'two', 2], ['second', 'three', 3]]);
});

test('an empty or non-function handler leaves printing only', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.log.write(0, 'passed');
    kit.diagnostics.setLogHandler(null);
    kit.log.write(0, 'printed after null');
    kit.diagnostics.setLogHandler(7);
    kit.log.write(2, 'printed after a number');
  `);
  assert.equal(stdout, 'passed\nprinted after null\nprinted after a number\n');
  assert.deepEqual(received, [['passed', 0]]);
});

test('a handler that throws does not disturb the writer', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler((text, level) => { received.push([text, level]); throw new Error('handler'); });
    kit.log.write(0, 'first');
    kit.log.write(3, 'second');
  `);
  assert.equal(stdout, 'first\nsecond\n');
  assert.deepEqual(received, [['first', 0], ['second', 3]]);
});

test('after "shutdown" nothing prints and the handler is not called', () => {
  const { stdout, received } = runLogChild(`
    kit.diagnostics.setLogHandler(handler);
    kit.log.write(0, 'before shutdown');
    kit.shutdown();
    kit.log.write(0, 'after shutdown');
    kit.log.write(3, 'error after shutdown');
    kit.log.writeFromThread(2, 'thread after shutdown');
    try { kit.diagnostics.setLogHandler(handler); } catch (error) { received.push(['threw', error.message]); }
    kit.log.write(0, 'after the refused handler');
  `);
  assert.equal(stdout, 'before shutdown\n');
  assert.deepEqual(received, [['before shutdown', 0], ['threw', 'The diagnostics component has been shut down']]);
});
