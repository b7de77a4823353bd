'use strict';
// Pointer capture on a Wayland desktop: sway on its headless backend with Xwayland, its pointer driven by a Wayland
// virtual pointer (tools/wlinject), and the package in a host process on Xwayland's display, listening to `pointer`
// as an application does. With an X11 window under the pointer, input arrives exactly as injected; with none, or a
// native Wayland window (wlinject's own) there, nothing arrives and nothing is logged; the capture says once that it runs on Xwayland; the compositor going away ends
// the capture with one status and the host goes on.
const test = require('node:test');
const assert = require('node:assert/strict');
const { describe, sleep, waitFor, startCompositor, startPointerHost, OUTPUT } = require('./support');

const LIVE = { code: 'live', message: 'Pointer capture is live' };
const NOTICE = 'The X server is Xwayland: pointer input arrives only while the pointer is over an X11 window, never '
  + 'over native Wayland windows. Run the application in its X11 mode to receive input over its own window';
const LOST = { code: 'lost', message: 'The connection to the X server was lost: pointer capture ended' };

let compositor;
let host;
test.before(async () => {
  compositor = await startCompositor();
});
test.after(async () => {
  host?.kill();
  await compositor?.stop();
});

const motion = (x, y, at) => ['motion', { offset: { x, y }, screenPoint: at }];
const buttons = (left, middle, right) => ['buttons', { left, middle, right }];
const isProbe = ([kind, value]) => kind === 'motion' && Math.abs(value.offset.x) === 1 && Math.abs(value.offset.y) === 1;
const countLines = (text, line) => text.split('\n').filter((l) => l === line).length;
const statuses = (entries) => entries.filter(([kind]) => kind === 'status').map(([, status]) => status);

/** Injects small back-and-forth moves until the host receives one of them. */
async function probeUntilReading() {
  const from = host.seen.length;
  const end = Date.now() + 20000;
  while (!host.seen.slice(from).some(isProbe)) {
    assert.ok(Date.now() < end, `the capture receives no input\n${describe(host.output)}`);
    await compositor.pointer.run('move 1 1', 'move -1 -1');
  }
  await compositor.pointer.settle(host.seen);
}

test('the capture says "live" and that it runs on Xwayland, before its first record', async () => {
  // Input flows while the host starts, so that the statuses and the first records are handed over together.
  host = startPointerHost({ DISPLAY: compositor.display });
  await probeUntilReading();
  const kinds = host.seen.map(([kind, value]) => (kind === 'status' ? value.code : kind));
  assert.deepEqual(kinds.slice(0, 3), ['live', 'xwayland', 'motion'], describe(host.output));
  assert.deepEqual(statuses(host.seen), [LIVE, { code: 'xwayland', message: NOTICE }]);
  assert.deepEqual(Object.keys(host.seen[0][1]), ['code', 'message']);
  assert.ok(host.seen.slice(2).every(isProbe), describe(host.output));
  assert.equal(host.output.stdout, `Native: capture pointer\n${NOTICE}\n`, 'a Warning line, once');
});

test('with an X11 window under the pointer, relative motions arrive with exactly their offsets and positions', async () => {
  const { centre } = compositor;
  await compositor.pointer.run(`moveto ${centre.x} ${centre.y} ${OUTPUT.width} ${OUTPUT.height}`);
  const from = host.seen.length;
  const expected = [];
  let at = centre;
  for (const [dx, dy] of [[7, -3], [-12, 5], [3, 9], [-1, -20]]) {
    // The position is read when the record is: one motion at a time.
    await compositor.pointer.run(`move ${dx} ${dy}`);
    at = { x: at.x + dx, y: at.y + dy };
    expected.push(motion(dx, dy, at));
    assert.ok(await waitFor(() => host.seen.length >= from + expected.length), describe(host.output));
  }
  assert.deepEqual(await compositor.x.position(), at);
  await compositor.pointer.settle(host.seen);
  assert.deepEqual(host.seen.slice(from), expected);
});

test('with an X11 window under the pointer, presses and releases of the three buttons arrive', async () => {
  const from = host.seen.length;
  await compositor.pointer.run('click 1', 'click 2', 'click 3', 'press 3', 'press 1', 'release 3', 'release 1');
  await compositor.pointer.settle(host.seen);
  assert.deepEqual(host.seen.slice(from), [
    buttons(2, 0, 0), buttons(1, 0, 0), buttons(0, 2, 0), buttons(0, 1, 0), buttons(0, 0, 2), buttons(0, 0, 1),
    buttons(0, 0, 2), buttons(2, 0, 0), buttons(0, 0, 1), buttons(1, 0, 0),
  ]);
});

test('with an X11 window under the pointer, getButtonState reports the held buttons', async () => {
  /** The button state the host reports once the records of `commands` have arrived. */
  const stateAfter = async (...commands) => {
    await compositor.pointer.run(...commands);
    await compositor.pointer.settle(host.seen);
    const from = host.seen.length;
    host.send('buttons');
    assert.ok(await waitFor(() => host.seen.length > from), describe(host.output));
    return host.seen.pop();
  };
  assert.deepEqual(await stateAfter('press 1'), ['state', [true, false, false]]);
  assert.deepEqual(await stateAfter('press 3'), ['state', [true, false, true]]);
  assert.deepEqual(await stateAfter('release 1'), ['state', [false, false, true]]);
  assert.deepEqual(await stateAfter('release 3'), ['state', [false, false, false]]);
});

/** Until the compositor has taken the pointer away from Xwayland: probes until none has arrived for a while. */
async function untilXwaylandQuiet() {
  const end = Date.now() + 20000;
  for (let quietSince = Date.now(), count = host.seen.length; Date.now() - quietSince < 500;) {
    assert.ok(Date.now() < end, `the pointer stays with Xwayland\n${describe(host.output)}`);
    await compositor.pointer.run('move 1 1', 'move -1 -1');
    await sleep(20);
    if (host.seen.length !== count) [quietSince, count] = [Date.now(), host.seen.length];
  }
}

test('with no X11 window under the pointer nothing arrives and nothing is logged; the notice was given once', async () => {
  await compositor.x.run('nowindow');
  await untilXwaylandQuiet();
  const from = host.seen.length;
  const stdout = host.output.stdout;
  await compositor.pointer.run(...Array(5).fill('move 7 -3'), 'click 1', 'click 3');

  // An X11 window under the pointer again: what was injected before would arrive before the probes do.
  await compositor.x.run('window');
  await probeUntilReading();
  const arrived = host.seen.slice(from);
  assert.ok(arrived.length > 0 && arrived.every(isProbe), `only the probes after the window came back: ${JSON.stringify(arrived)}`);
  assert.equal(host.output.stdout, stdout, 'nothing logged');
  assert.equal(countLines(host.output.stdout, NOTICE), 1);
  assert.deepEqual(statuses(host.seen).map(({ code }) => code), ['live', 'xwayland']);
});

test('over a native Wayland window the window gets the input and the capture nothing; nothing is logged', async () => {
  await compositor.x.run('nowindow');
  await compositor.pointer.run('window');
  await untilXwaylandQuiet();
  const from = host.seen.length;
  const stdout = host.output.stdout;
  /** [motions, button events] the native window has received. */
  const windowSeen = async () => (await compositor.pointer.ask('seen')).split(' ').map(Number);
  const [motions, presses] = await windowSeen();
  await compositor.pointer.run(...Array(5).fill('move 7 -3'), 'click 1', 'click 3');
  assert.deepEqual(await windowSeen(), [motions + 5, presses + 4], 'the pointer was over the native window');

  await compositor.pointer.run('nowindow');
  await compositor.x.run('window');
  await probeUntilReading();
  const arrived = host.seen.slice(from);
  assert.ok(arrived.length > 0 && arrived.every(isProbe), `only the probes after the X11 window came back: ${JSON.stringify(arrived)}`);
  assert.equal(host.output.stdout, stdout, 'nothing logged');
});

test('the compositor going away ends the capture with one "lost" status; the host goes on and ends normally', async () => {
  const from = host.seen.length;
  const stdout = host.output.stdout.length;
  await compositor.stop();
  assert.ok(await waitFor(() => statuses(host.seen.slice(from)).length > 0), describe(host.output));
  // A status that followed (a retry, a second report) would come meanwhile.
  await sleep(300);
  host.send('buttons');
  assert.ok(await waitFor(() => host.seen.some(([kind]) => kind === 'state')), describe(host.output));
  assert.deepEqual(host.seen.slice(from), [['status', LOST], ['state', [false, false, false]]]);
  host.send('end');
  const result = await host.ended;
  assert.equal(result.signal, null, describe(result));
  assert.equal(result.status, 0, describe(result));
  assert.equal(result.stdout.slice(stdout), [
    `Lost the connection to X display ${compositor.display}: pointer capture ended`,
    'Pointer capture released',
    'The X display connection for pointer queries was lost',
    '',
  ].join('\n'), describe(result));
});
