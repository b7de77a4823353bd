'use strict';
// The test harness itself: a helper process that has died, or dies while it is written to, never becomes an error
// of the test that uses it; its end is told, and what it means, asserted.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { Injector, serveFolder, sleep, startChild, startProcess } = require('./support');

/** Blocks this thread for `ms`: a child that ends meanwhile is gone before this process has seen it end. */
const block = (ms) => Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, ms);

// An error that escaped a helper would be an uncaught exception of this file: count them for every test.
let uncaught = [];
process.on('uncaughtException', (error) => uncaught.push(error));
test.beforeEach(() => { uncaught = []; });
test.afterEach(async () => {
  await sleep(50); // an EPIPE is reported on a later turn of the event loop
  assert.deepEqual(uncaught.map(String), []);
});

test('an injector that ended unseen: a command fails with how it ended, closing it resolves', async () => {
  const injector = new Injector({ command: ['sh', '-c', 'exit 3'] });
  block(300);
  await assert.rejects(injector.run('move 1 1'), { message: 'sh ended (status 3) before it answered ["move 1 1"]' });
  assert.equal(await injector.ask('pos'), null);
  await injector.close();
  await injector.close();
});

test('an injector that ends while it is being told to quit: closing it resolves', async () => {
  for (let round = 0; round < 20; ++round) {
    const injector = new Injector({ command: ['true'] });
    block(round % 4);
    await injector.close();
  }
});

test('a helper that ends while a large write is under way: the write is dropped, its end is told', async () => {
  const helper = startProcess('head', ['-c', '1'], { stdio: ['pipe', 'ignore', 'ignore'] });
  const chunk = 'x'.repeat(1 << 16);
  for (let i = 0; i < 64; ++i) helper.write(chunk);
  const { status, signal, error } = await helper.ended;
  assert.deepEqual({ status, signal, error }, { status: 0, signal: null, error: null });
  assert.equal(helper.write('more'), false);
  helper.end('quit\n');
  helper.kill();
});

test('a program that cannot be started: its end carries the error, and nothing else fails', async () => {
  const helper = startProcess(path.join(os.tmpdir(), 'zel-no-such-program'), []);
  const { status, error } = await helper.ended;
  assert.equal(status, null);
  assert.equal(error.code, 'ENOENT');
  assert.equal(helper.write('x'), false);
  helper.kill('SIGKILL');
  assert.deepEqual(await helper.stop(), await helper.ended);
  const injector = new Injector({ command: [path.join(os.tmpdir(), 'zel-no-such-program')] });
  await assert.rejects(injector.run('sync'), /zel-no-such-program ended \(spawn .* ENOENT\)/);
  await injector.close();
});

test('a child that ended: sending to it is dropped, waiting for its output ends at once', async () => {
  const child = startChild("process.stdout.write('bye')", { stdin: true });
  const result = await child.ended;
  assert.deepEqual([result.status, result.stdout], [0, 'bye']);
  assert.equal(child.send('hello'), false);
  const started = Date.now();
  assert.equal(await child.waitFor('stdout', 'never', 10000), false);
  assert.ok(Date.now() - started < 1000);
});

test('stop() ends a helper that ignores SIGTERM with SIGKILL after its grace time', async () => {
  const helper = startProcess('sh', ['-c', "trap '' TERM; echo ready; while :; do sleep 0.05; done"], { keep: true });
  while (!helper.output.stdout.includes('ready')) await sleep(5);
  const { signal } = await helper.stop('SIGTERM', 200);
  assert.equal(signal, 'SIGKILL');
});

test('a folder server that already ended by its own time limit: stop() resolves', async () => {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'zel-serve-'));
  try {
    const server = await serveFolder(dir, { ms: 50 });
    await sleep(300);
    await server.stop();
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
});
