'use strict';
// The "hardware" component in a process that can reach no X server (no DISPLAY, or one naming no server):
// capturing succeeds but delivers nothing and says why on standard output and to a 'status' listener of `pointer`,
// stopping returns, and the button state query warns once and answers false. Every case runs in a child process
// with such an environment.
const test = require('node:test');
const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const { bridgePath, indexPath, describe } = require('./support');

// Runs `body` with `bridge`, `hw` and `received` (what the script log handler got) in scope; `received` is
// printed as the last line of standard output.
function runWithout(display, body, execArgv = []) {
  const env = { ...process.env };
  delete env.DISPLAY;
  delete env.ZEL_XVFB_DISPLAY;
  if (display !== undefined) env.DISPLAY = display;
  const script = `
    const bridge = require(${JSON.stringify(bridgePath)});
    const hw = bridge.hardware;
    const received = [];
    bridge.diagnostics.setLogHandler((text, level) => received.push([text, level]));
    process.on('exit', () => console.log(JSON.stringify(received)));
    ${body}
  `;
  const result = spawnSync(process.execPath, [...execArgv, '-e', script],
    { env, encoding: 'utf8', timeout: 60000, killSignal: 'SIGKILL' });
  if (result.error) throw result.error;
  const outcome = { status: result.status, signal: result.signal, stdout: result.stdout, stderr: result.stderr };
  assert.equal(outcome.status, 0, describe(outcome));
  const lines = outcome.stdout.split('\n');
  assert.equal(lines.pop(), '', 'standard output ends with a line break');
  return { lines, received: JSON.parse(lines.pop()), outcome };
}

for (const [name, display] of [['no DISPLAY', undefined], ['a DISPLAY naming no server', ':4093']]) {
  test(`${name}: a capture starts, logs "Fail to open X display", delivers nothing, and stops`, () => {
    const { lines, received, outcome } = runWithout(display, `
      const capture = hw.capturePointer();
      const seen = [];
      capture.setMotionEventCallback((record) => seen.push(record));
      capture.setButtonsEventCallback((record) => seen.push(record));
      capture.startCapturing();
      setTimeout(() => {
        // The reader has given up; the driver still counts as captured until released.
        capture.startCapturing();
        console.log('second start returned');
        capture.stopCapturing();
        console.log('stopped');
        capture.stopCapturing();
        console.log('delivered ' + seen.length);
      }, 500);
    `);
    assert.deepEqual(lines, [
      'Native: capture pointer',
      'Fail to open X display', // written on the reader thread: printed, not passed to script
      'second start returned',
      'Pointer capture released',
      'stopped',
      'delivered 0',
    ], describe(outcome));
    assert.deepEqual(received, [['Native: capture pointer', 0], ['Pointer capture released', 0]]);
  });

  test(`${name}: getButtonState warns "No X display to query the pointer" once and answers false every time`, () => {
    const { lines, received, outcome } = runWithout(display, `
      const answers = [];
      const end = Date.now() + 300;
      while (Date.now() < end) answers.push(hw.getButtonState(answers.length % 3));
      console.log(answers.length > 100, [...new Set(answers)].join());
    `);
    const warning = 'No X display to query the pointer';
    assert.deepEqual(lines, [warning, 'true false'], describe(outcome));
    assert.deepEqual(received, [[warning, 2]]);
  });

  test(`${name}: pointer tells its 'status' listeners "no-display", releases the capture and lets node end`, () => {
    const { lines, received, outcome } = runWithout(display, `
      const { pointer } = require(${JSON.stringify(indexPath)});
      pointer.on('status', (status) => console.log(JSON.stringify(status)));
      pointer.on('motion', () => console.log('record'));
      pointer.on('buttons', () => console.log('record'));
    `);
    // Still listened to, the capture stays stopped: nothing keeps the process alive, nothing is retried.
    assert.deepEqual(lines, [
      'Native: capture pointer',
      'Fail to open X display',
      'Pointer capture released',
      JSON.stringify({ code: 'no-display', message: 'No X display could be opened: pointer capture did not start' }),
    ], describe(outcome));
    assert.deepEqual(received, [['Native: capture pointer', 0], ['Pointer capture released', 0]]);
  });
}

test('no DISPLAY: a capture stopped at once, and collected while started, both return', () => {
  const { lines, received, outcome } = runWithout(undefined, `
    for (let i = 0; i < 50; ++i) {
      const capture = hw.capturePointer();
      capture.startCapturing();
      capture.stopCapturing();
    }
    let dropped = hw.capturePointer();
    dropped.startCapturing();
    dropped = null;
    global.gc();
    setTimeout(() => { global.gc(); console.log('done'); }, 100);
  `, ['--expose-gc']);
  assert.equal(lines[lines.length - 1], 'done', describe(outcome));
  assert.equal(received.filter(([text]) => text === 'Pointer capture released').length, 50);
  // Nothing but the capture's own messages appears.
  const texts = new Set(lines.slice(0, -1));
  for (const text of texts) {
    assert.ok(['Native: capture pointer', 'Pointer capture released', 'Fail to open X display'].includes(text), text);
  }
});
