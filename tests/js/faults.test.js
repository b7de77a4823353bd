'use strict';
// Faults around pointer capture, each in a child process with a private Xvfb: the X server going away (killed,
// terminated, frozen, its socket removed, its client slots full) while a capture reads, while button state is
// queried, or while nothing uses it; no X server at all; script callbacks that throw on every record; and
// process.exit() while capturing. Each case asserts how the child ends; none may hang, none may end by a signal.
//
// The module survives the loss of its own X connections: a running capture ends with one Error line
// "Lost the connection to X display :N: pointer capture ended" on standard output and one "lost" status to script,
// and delivers nothing more; getButtonState answers false from then on, with one Warning; stopCapturing (which
// never needs the server) and
// collection work as before. The host's own X connections keep the host's I/O error handling: Xlib's default
// prints "X connection to :N broken ..." and exits with status 1, a handler the host installed runs as before.
//
// ZEL_FAULT_ROUNDS sets how many rounds the repeated cases run (default 5).
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const {
  describe, requireBridge, requireTestkit, runChild, sleep, startChild, startXvfb, stopProcess, streamMoves, toolEnv,
  xinject, xinjectPath, TOOL_MS,
} = require('./support');

// Seconds a child may take to end once its fault happened.
const END_SECONDS = 15;
// Rounds of the repeated cases.
const ROUNDS = Number(process.env.ZEL_FAULT_ROUNDS || 5);
// Milliseconds a stop may take, whatever state the server is in.
const STOP_MS = 1000;
// The line a capture logs when its connection is lost.
const lostLine = (display) => `Lost the connection to X display ${display}: pointer capture ended`;
const QUERY_LOST = 'The X display connection for pointer queries was lost';

/**
 * A private Xvfb: { display, pid, stop(), kill(signal) }. Stopped at the end of the process in any case.
 * `options.args` adds server options.
 */
async function startServer(options = {}) {
  const xvfb = await startXvfb(options);
  const server = {
    display: xvfb.display,
    pid: xvfb.pid,
    stop() {
      if (!liveServers.delete(server)) return;
      try {
        process.kill(xvfb.pid, 'SIGKILL');
      } catch {
        // already gone
      }
    },
    /** Ends the server with `signal` and waits until it is gone. */
    kill: (signal = 'SIGKILL') => stopProcess(xvfb.pid, signal),
  };
  liveServers.add(server);
  return server;
}

const liveServers = new Set();
process.on('exit', () => {
  for (const server of [...liveServers]) server.stop();
});

/** A display with no server: a number far above the fixture's range, with no socket and no lock file. */
function deadDisplay() {
  for (let n = 6000; n < 7000; ++n) {
    if (!fs.existsSync(`/tmp/.X11-unix/X${n}`) && !fs.existsSync(`/tmp/.X${n}-lock`)) return `:${n}`;
  }
  throw new Error('no free display number');
}

/**
 * Starts `script` in a child node with DISPLAY=`display` (`startChild`), with `next()`: sends SIGUSR2, the child's
 * next step (see `onSignal`).
 */
function startFaultChild(script, display, options = {}) {
  const child = startChild(script, { ...options, env: { DISPLAY: display, ...(options.env || {}) } });
  child.next = () => child.kill('SIGUSR2');
  return child;
}

/** Waits at most END_SECONDS for the child to end; a child still running then is killed and reported as hung. */
async function endOf(child) {
  let timer;
  const timeout = new Promise((resolve) => { timer = setTimeout(resolve, END_SECONDS * 1000, 'hung'); });
  const result = await Promise.race([child.ended, timeout]);
  clearTimeout(timer);
  if (result === 'hung') {
    child.kill('SIGKILL');
    const killed = await child.ended;
    assert.fail(`the child hung\n${describe(killed)}`);
  }
  return result;
}

/**
 * How many times `stderr` carries Xlib's report of a dead connection to `display`, in either form (one report per
 * thread that Xlib ends the process on).
 */
function brokenConnectionReports(stderr, display) {
  const name = display.replace(/[.]/g, '\\.');
  const broken = new RegExp(`^X connection to ${name} broken \\(explicit kill or server shutdown\\)\\.\r?$`);
  const fatal = new RegExp(`^XIO:  fatal IO error \\d+ \\(.*\\) on X server "${name}"\r?$`);
  return stderr.split('\n').filter((line) => broken.test(line) || fatal.test(line)).length;
}

const reportsBrokenConnection = (stderr, display) => brokenConnectionReports(stderr, display) > 0;

/**
 * Child prelude: the module as `z` with a log handler that keeps what reaches script (`logged`); `say` writes a
 * line to standard error; `onSignal(...steps)` queues steps, and each SIGUSR2 from the parent (`child.next()`) runs
 * the next one (the signal keeps nothing alive, so the child ends by itself once nothing else runs).
 */
const prelude = `
  const z = ${requireBridge};
  const logged = [];
  z.diagnostics.setLogHandler((message, level) => logged.push([message, level]));
  const say = (text) => process.stderr.write(text + '\\n');
  const steps = [];
  process.on('SIGUSR2', () => { const step = steps.shift(); if (step) step(); });
  const onSignal = (...next) => steps.push(...next);
  process.on('exit', (code) => say('exit ' + code));
`;

/**
 * A capture that says "capturing" once the first record arrived; `busy` keeps the script thread working
 * (allocation, collection, timers), `queryButtons` makes it query the buttons on its own connection meanwhile.
 * The first signal stops the capture and the busy work and prints what reached the script log handler.
 */
const capturingChild = (busy, queryButtons = false) => `
  ${prelude}
  const capture = z.hardware.capturePointer();
  let records = 0;
  capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
  capture.setButtonsEventCallback(() => { ++records; });
  capture.startCapturing();
  let junk = [];
  const busyTimer = ${busy ? `setInterval(() => {
    junk = [];
    for (let i = 0; i < 20000; ++i) junk.push({ i });
    ${queryButtons ? 'z.hardware.getButtonState(0);' : ''}
  }, 1)` : 'undefined'};
  onSignal(() => {
    clearInterval(busyTimer);
    capture.stopCapturing();
    say('stopped');
    say('LOGGED ' + JSON.stringify(logged.filter(([message]) => message !== '${QUERY_LOST}')));
  });
`;

/** What reached the child's script log handler, from its "LOGGED" line. */
function scriptLog(result) {
  const line = result.stderr.split('\n').find((l) => l.startsWith('LOGGED '));
  assert.ok(line, describe(result));
  return JSON.parse(line.slice('LOGGED '.length));
}

const countLines = (text, line) => text.split('\n').filter((l) => l === line).length;

/** The child went on after the fault and ended by itself with status 0; Xlib never reported the connection. */
function assertSurvived(result, display) {
  assert.equal(result.signal, null, describe(result));
  assert.equal(result.status, 0, describe(result));
  assert.equal(brokenConnectionReports(result.stderr, display), 0, describe(result));
  assert.match(result.stderr, /^exit 0$/m, describe(result));
}

/** Injects moves of `move` ([dx, dy]) until `done()` or 10 s pass; the final value of `done()`. */
async function moveUntil(display, done, move = [1, 0]) {
  const end = Date.now() + 10000;
  while (!done() && Date.now() < end) {
    spawnSync(xinjectPath, ['-d', display, 'move', ...move.map(String)], { env: toolEnv(), timeout: TOOL_MS });
    await sleep(20);
  }
  return done();
}

for (const [signal, how] of [['SIGKILL', 'killed'], ['SIGTERM', 'terminated']]) {
  test(`X server ${how} while a capture reads: one Error line, the host goes on, stops and exits normally`, async () => {
    const server = await startServer();
    const child = startFaultChild(capturingChild(false), server.display);
    try {
      assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')),
        `the capture delivers\n${describe(child.output)}`);
      const killedAt = Date.now();
      await server.kill(signal);
      assert.ok(await child.waitFor('stdout', lostLine(server.display), 5000), describe(child.output));
      assert.ok(Date.now() - killedAt < 5000, `reported ${Date.now() - killedAt} ms after the kill`);
      await sleep(300);
      child.next();
      const result = await endOf(child);
      assertSurvived(result, server.display);
      assert.equal(result.stdout,
        `Native: capture pointer\n${lostLine(server.display)}\nPointer capture released\n`, describe(result));
      // The loss is reported on the reader thread: standard output only.
      assert.deepEqual(scriptLog(result), [['Native: capture pointer', 0], ['Pointer capture released', 0]]);
    } finally {
      child.kill('SIGKILL');
      server.stop();
    }
  });
}

/** Kills the server of a busy capturing child after `delay` ms of streaming moves, then lets it stop; its end. */
async function killWhileStreaming(child, server, delay, afterKill = async () => {}) {
  const moves = streamMoves({ rate: 2000, wiggle: false, display: server.display });
  try {
    assert.ok(await child.waitFor('stderr', 'capturing'), `the capture delivers\n${describe(child.output)}`);
    await sleep(delay);
    await server.kill('SIGKILL');
    await afterKill();
    child.next();
    return await endOf(child);
  } finally {
    await moves.stop();
    child.kill('SIGKILL');
    server.stop();
  }
}

test(`X server killed while records stream in and the script thread is busy: the host goes on (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const server = await startServer();
    const child = startFaultChild(capturingChild(true), server.display);
    const result = await killWhileStreaming(child, server, 100 + 50 * (round % 5),
      () => child.waitFor('stdout', lostLine(server.display), 5000));
    assertSurvived(result, server.display);
    assert.equal(countLines(result.stdout, lostLine(server.display)), 1, `round ${round}\n${describe(result)}`);
    assert.match(result.stderr, /^stopped$/m, `round ${round}\n${describe(result)}`);
  }
});

test(`X server killed while a capture reads and the script thread queries buttons: both connections lost, the host goes on (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const server = await startServer();
    const child = startFaultChild(capturingChild(true, true), server.display);
    const result = await killWhileStreaming(child, server, 100 + 50 * (round % 5), async () => {
      await child.waitFor('stdout', lostLine(server.display), 5000);
      await child.waitFor('stdout', QUERY_LOST, 5000);
    });
    assertSurvived(result, server.display);
    assert.equal(countLines(result.stdout, lostLine(server.display)), 1, `round ${round}\n${describe(result)}`);
    assert.ok(countLines(result.stdout, QUERY_LOST) >= 1, `round ${round}\n${describe(result)}`);
  }
});

test('X server killed under a getButtonState poll every millisecond: every call answers false, the loss is logged once', async () => {
  const server = await startServer();
  const child = startFaultChild(`
    ${prelude}
    const answers = new Set();
    let calls = 0;
    const timer = setInterval(() => {
      answers.add(z.hardware.getButtonState(0));
      if (++calls === 1) say('queried');
    }, 1);
    onSignal(() => { calls = 0; }, () => {
      clearInterval(timer);
      say('answers ' + [...answers].join());
      say('calls ' + calls);
      say('LOGGED ' + JSON.stringify(logged));
    });
  `, server.display);
  try {
    assert.ok(await child.waitFor('stderr', 'queried'), describe(child.output));
    await server.kill('SIGKILL');
    assert.ok(await child.waitFor('stdout', QUERY_LOST, 5000), describe(child.output));
    child.next();
    await sleep(1500);
    child.next();
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.match(result.stderr, /^answers false$/m, describe(result));
    assert.ok(Number(/^calls (\d+)$/m.exec(result.stderr)[1]) >= 100, `the poll went on\n${describe(result)}`);
    assert.deepEqual(scriptLog(result), [[QUERY_LOST, 2]]);
    assert.equal(result.stdout, `${QUERY_LOST}\n`, 'one line for the loss, none per call');
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

/** A child whose `pointer` listeners say "capturing" at the first record and "STATUS {...}" for each status. */
const listeningChild = `
  ${prelude}
  z.pointer.on('status', (status) => say('STATUS ' + JSON.stringify(status)));
  let records = 0;
  z.pointer.on('motion', () => { if (++records === 1) say('capturing'); });
`;
const statusLines = (result) => result.stderr.split('\n').filter((line) => line.startsWith('STATUS '));

test('X server killed while pointer is listened to: one "lost" status, the capture released, node ends by itself', async () => {
  const server = await startServer();
  const child = startFaultChild(listeningChild, server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
    await server.kill('SIGKILL');
    // The listeners stay; the released capture no longer keeps the process alive.
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.deepEqual(statusLines(result), [
      `STATUS ${JSON.stringify({ code: 'live', message: 'Pointer capture is live' })}`,
      `STATUS ${JSON.stringify({ code: 'lost', message: 'The connection to the X server was lost: pointer capture ended' })}`,
    ], describe(result));
    assert.equal(result.stdout, `Native: capture pointer\n${lostLine(server.display)}\nPointer capture released\n`,
      describe(result));
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

test('another client sends the capture\'s window "_APP_CLOSE_INPUT": one warning and "closed" status, the capture '
  + 'released, node ends by itself', async () => {
  const server = await startServer();
  const child = startFaultChild(listeningChild, server.display);
  const closed = 'Another X client sent the "_APP_CLOSE_INPUT" message to the capture\'s window: pointer capture ended';
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
    assert.equal(xinject('-d', server.display, 'closecapture'), '1\n', 'the capture\'s one window got it');
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.deepEqual(statusLines(result), [
      `STATUS ${JSON.stringify({ code: 'live', message: 'Pointer capture is live' })}`,
      `STATUS ${JSON.stringify({ code: 'closed', message: closed })}`,
    ], describe(result));
    assert.equal(result.stdout, `Native: capture pointer\n${closed}\nPointer capture released\n`, describe(result));
    assert.equal(xinject('-d', server.display, 'closecapture'), '0\n', 'the released capture left no window');
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

test('a reader thread the system refuses: "failed" reaches \'status\' before node ends by itself', () => {
  const result = runChild(`
    const kit = ${requireTestkit};
    ${prelude}
    z.pointer.on('status', (status) => say('STATUS ' + JSON.stringify(status)));
    if (!kit.fakeInput.refuseReaderThreads(true)) say('threads not refused');
    z.pointer.on('motion', () => say('record'));
    kit.fakeInput.refuseReaderThreads(false);
  `, { env: { DISPLAY: ':4093' } });
  assert.equal(result.signal, null, describe(result));
  assert.equal(result.status, 0, describe(result));
  assert.deepEqual(statusLines(result), [`STATUS ${JSON.stringify({ code: 'failed', message: 'The system refused a '
    + 'thread or a descriptor that pointer capture needs: it did not start or has ended' })}`], describe(result));
  assert.match(result.stdout, /^Native: capture pointer\nFail to start raw input thread \(error -\d+\)\n$/, describe(result));
  assert.match(result.stderr, /^exit 0$/m, describe(result));
});

test('X server killed while a capture is stopped and buttons are not queried: nothing happens until the next use', async () => {
  const server = await startServer();
  const child = startFaultChild(`
    ${prelude}
    const capture = z.hardware.capturePointer();
    let records = 0;
    capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
    capture.startCapturing();
    say('button ' + z.hardware.getButtonState(0));
    const poll = setInterval(() => {
      if (records > 0) {
        clearInterval(poll);
        capture.stopCapturing();
        say('stopped');
        // The parent kills the server now; this process goes on untouched until it asks the server again.
        setTimeout(() => { say('still running'); say('returned ' + z.hardware.getButtonState(0)); }, 1000);
      }
    }, 5);
  `, server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('stopped')), describe(child.output));
    await server.kill('SIGKILL');
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.match(result.stderr, /^still running\nreturned false$/m, describe(result));
    assert.equal(result.stdout, `Native: capture pointer\nPointer capture released\n${QUERY_LOST}\n`, describe(result));
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

test('after a lost connection a capture started again says why it cannot read, and reads once a server is back', async () => {
  const server = await startServer();
  // The display of the server that comes back: a new one, which the child finds in DISPLAY (read by Xlib at each
  // connection) once the parent has written its name here.
  const displayFile = path.join(os.tmpdir(), `zel-faults-display-${process.pid}`);
  const child = startFaultChild(`
    ${prelude}
    const capture = z.hardware.capturePointer();
    let records = 0;
    capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
    capture.startCapturing();
    onSignal(
      () => { capture.stopCapturing(); capture.startCapturing(); say('restarted without a server'); },
      () => {
        capture.stopCapturing();
        process.env.DISPLAY = require('node:fs').readFileSync(${JSON.stringify(displayFile)}, 'utf8');
        records = 0;
        capture.startCapturing();
        say('restarted');
      },
      () => { capture.stopCapturing(); say('stopped'); });
  `, server.display);
  let again;
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
    await server.kill('SIGKILL');
    assert.ok(await child.waitFor('stdout', lostLine(server.display), 5000), describe(child.output));
    child.next();
    assert.ok(await child.waitFor('stdout', 'Fail to open X display', 5000), describe(child.output));
    again = await startServer();
    fs.writeFileSync(displayFile, again.display);
    child.next();
    assert.ok(await child.waitFor('stderr', 'restarted\n'), describe(child.output));
    assert.ok(await moveUntil(again.display, () => countLines(child.output.stderr, 'capturing') === 2),
      `the new capture delivers\n${describe(child.output)}`);
    child.next();
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.equal(result.stdout, ['Native: capture pointer', lostLine(server.display), 'Pointer capture released',
      'Fail to open X display', 'Pointer capture released', 'Pointer capture released', ''].join('\n'),
    describe(result));
  } finally {
    child.kill('SIGKILL');
    server.stop();
    if (again) again.stop();
    fs.rmSync(displayFile, { force: true });
  }
});

// The host's own connections: the module's handler passes them to the handler it replaced.
for (const [owner, setup, expectEnd] of [
  ['Xlib\'s default handler', '', (result, display) => {
    assert.equal(result.status, 1, describe(result));
    assert.equal(brokenConnectionReports(result.stderr, display), 1, describe(result));
  }],
  ['a handler the host installed before loading the module', 'kit.xhost.installHostHandler();', (result, display) => {
    assert.equal(result.status, 3, describe(result));
    assert.match(result.stderr, new RegExp(`^host I/O error handler: ${display}$`, 'm'), describe(result));
    assert.equal(brokenConnectionReports(result.stderr, display), 0, describe(result));
  }],
]) {
  test(`the host's own X connection keeps ${owner} when the server goes away; the module's does not end the host`, async () => {
    const server = await startServer();
    const child = startFaultChild(`
      const kit = ${requireTestkit};
      ${setup}
      ${prelude}
      if (!kit.xhost.open()) say('no host connection');
      const capture = z.hardware.capturePointer();
      let records = 0;
      capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
      capture.startCapturing();
      say('button ' + z.hardware.getButtonState(0));
      onSignal(() => {
        say('module answers ' + z.hardware.getButtonState(0));
        kit.xhost.roundTrip();
        say('host connection returned');
      });
    `, server.display);
    try {
      assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
      await server.kill('SIGKILL');
      assert.ok(await child.waitFor('stdout', lostLine(server.display), 5000), describe(child.output));
      child.next();
      const result = await endOf(child);
      assert.equal(result.signal, null, describe(result));
      expectEnd(result, server.display);
      assert.match(result.stderr, /^module answers false$/m, describe(result));
      assert.ok(!result.stderr.includes('host connection returned'), describe(result));
      assert.ok(!result.stderr.includes('no host connection'), describe(result));
    } finally {
      child.kill('SIGKILL');
      server.stop();
    }
  });
}

// Stopping never needs the X server: the reader waits on its connection and on a wake-up of its own.
/** A capturing child whose `stop()` prints "stop took N ms"; `steps` is script run on the first signals. */
const stoppingChild = (steps) => `
  const kit = ${requireTestkit};
  ${prelude}
  const capture = z.hardware.capturePointer();
  let records = 0;
  capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
  capture.startCapturing();
  const stop = () => {
    const started = Date.now();
    capture.stopCapturing();
    say('stop took ' + (Date.now() - started) + ' ms');
  };
  ${steps}
`;

/** The duration "stop took N ms" reported by a stopping child; asserts that it stopped in time. */
function assertStoppedInTime(result) {
  const match = /^stop took (\d+) ms$/m.exec(result.stderr);
  assert.ok(match, describe(result));
  assert.ok(Number(match[1]) < STOP_MS, `stopCapturing took ${match[1]} ms\n${describe(result)}`);
  assert.match(result.stdout, /^Pointer capture released$/m, `the reader was joined\n${describe(result)}`);
}

test('stop with every client slot of the server taken: returns at once, the reader is joined', async () => {
  const server = await startServer({ args: ['-maxclients', '64'] });
  const child = startFaultChild(stoppingChild(`
    onSignal(() => { let opened = 0; while (kit.xhost.open()) ++opened; say('filled ' + opened); }, stop);
  `), server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
    child.next();
    assert.ok(await child.waitFor('stderr', 'filled '), describe(child.output));
    child.next();
    const result = await endOf(child);
    assertSurvived(result, server.display);
    assert.ok(Number(/^filled (\d+)$/m.exec(result.stderr)[1]) > 0, describe(result));
    assertStoppedInTime(result);
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

for (const [state, makeUnreachable, restore] of [
  ['its socket removed', (server) => fs.rmSync(`/tmp/.X11-unix/X${server.display.slice(1)}`), () => {}],
  ['the server frozen (SIGSTOP)', (server) => process.kill(server.pid, 'SIGSTOP'),
    (server) => process.kill(server.pid, 'SIGCONT')],
]) {
  test(`stop with ${state}: returns at once, the reader is joined`, async () => {
    const server = await startServer();
    const child = startFaultChild(stoppingChild('onSignal(stop);'), server.display);
    try {
      assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
      makeUnreachable(server);
      child.next();
      const result = await endOf(child);
      assertSurvived(result, server.display);
      assertStoppedInTime(result);
      assert.equal(result.stdout, 'Native: capture pointer\nPointer capture released\n', describe(result));
    } finally {
      restore(server);
      child.kill('SIGKILL');
      server.stop();
    }
  });
}

test(`stop right after the server was killed while records stream in: returns at once (${ROUNDS} rounds)`, async () => {
  for (let round = 0; round < ROUNDS; ++round) {
    const server = await startServer();
    const child = startFaultChild(stoppingChild('onSignal(stop);'), server.display);
    const result = await killWhileStreaming(child, server, 50 + 30 * (round % 5));
    assertSurvived(result, server.display);
    assertStoppedInTime(result);
    assert.ok(countLines(result.stdout, lostLine(server.display)) <= 1, `round ${round}\n${describe(result)}`);
  }
});

test('no X server at all: getButtonState answers false with a warning, a capture starts and stops without input', async () => {
  const child = startFaultChild(`
    ${prelude}
    say('button ' + z.hardware.getButtonState(0));
    const capture = z.hardware.capturePointer();
    capture.setMotionEventCallback(() => say('record'));
    capture.startCapturing();
    setTimeout(() => { capture.stopCapturing(); say(JSON.stringify(logged)); }, 300);
  `, deadDisplay());
  const result = await endOf(child);
  assert.equal(result.status, 0, describe(result));
  assert.match(result.stderr, /^button false$/m, describe(result));
  assert.ok(!result.stderr.includes('record'), describe(result));
  assert.equal(result.stdout,
    'No X display to query the pointer\nNative: capture pointer\nFail to open X display\nPointer capture released\n',
    describe(result));
  // The reader thread's message reaches standard output only, not script.
  const logged = JSON.parse(result.stderr.split('\n').find((line) => line.startsWith('[')));
  assert.deepEqual(logged, [['No X display to query the pointer', 2], ['Native: capture pointer', 0],
    ['Pointer capture released', 0]]);
});

test('callbacks that throw on every record: delivery goes on, every record arrives', async () => {
  const server = await startServer();
  const moves = 300;
  const clicks = 40;
  // Probe moves go down (0, 1) until the reader runs; the counted moves go right (1, 0).
  const child = startFaultChild(`
    ${prelude}
    let uncaught = 0;
    process.on('uncaughtException', () => { ++uncaught; });
    const capture = z.hardware.capturePointer();
    const seen = { probes: 0, moves: 0, buttons: 0 };
    capture.setMotionEventCallback((record) => {
      if (record.offset.x === 1) ++seen.moves; else if (++seen.probes === 1) say('capturing');
      throw new Error('motion');
    });
    capture.setButtonsEventCallback(() => { ++seen.buttons; throw 42; });
    capture.startCapturing();
    const end = Date.now() + 30000;
    const check = setInterval(() => {
      if ((seen.moves >= ${moves} && seen.buttons >= ${2 * clicks}) || Date.now() > end) {
        clearInterval(check);
        // Anything beyond the expected records would arrive meanwhile.
        setTimeout(() => {
          capture.stopCapturing();
          say('RESULT ' + JSON.stringify({ ...seen, uncaught }));
        }, 300);
      }
    }, 5);
  `, server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing'), [0, 1]),
      describe(child.output));
    xinject('-d', server.display, 'move', '1', '0', '-n', String(moves));
    xinject('-d', server.display, 'click', '1', '-n', String(clicks));
    const result = await endOf(child);
    assert.equal(result.status, 0, describe(result));
    const line = result.stderr.split('\n').find((l) => l.startsWith('RESULT '));
    assert.ok(line, describe(result));
    const seen = JSON.parse(line.slice('RESULT '.length));
    assert.equal(seen.uncaught, 0, 'nothing reaches uncaughtException');
    assert.equal(seen.moves, moves, describe(result));
    assert.equal(seen.buttons, 2 * clicks, describe(result));
    assert.equal(result.stdout, 'Native: capture pointer\nPointer capture released\n', describe(result));
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

test('a running capture dropped and collected by an allocation-started collection: its reader is released', async () => {
  const server = await startServer();
  // No gc() call, and nothing that watches the wrapper (a WeakRef or a FinalizationRegistry changes when it is
  // collected): the collection comes from allocations in compiled code, which run it with no context entered.
  // The child churns until this process sees the native release on its standard output and ends it.
  const child = startFaultChild(`
    ${prelude}
    // Garbage that lives across turns, so that it is promoted and the old generation fills until a full
    // collection starts from an allocation.
    let junk = [];
    const churn = () => setInterval(() => {
      junk = [];
      for (let i = 0; i < 20000; ++i) junk.push({ i });
    }, 1);
    (() => {
      const capture = z.hardware.capturePointer();
      let records = 0;
      capture.setMotionEventCallback(() => {
        if (++records > 1) return;
        say('capturing');
        setImmediate(churn);
      });
      capture.startCapturing();
    })();
  `, server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')), describe(child.output));
    assert.ok(await child.waitFor('stdout', 'Pointer capture released'), describe(child.output));
    await sleep(100);
    child.kill('SIGTERM');
    const result = await endOf(child);
    assert.equal(result.signal, 'SIGTERM', `alive until ended here\n${describe(result)}`);
    assert.equal(result.stdout, 'Native: capture pointer\nPointer capture released\n', describe(result));
  } finally {
    child.kill('SIGKILL');
    server.stop();
  }
});

for (const [where, trigger] of [
  ['from a timer', "setTimeout(() => process.exit(7), 100);"],
  ['from inside a motion callback', "capture.setButtonsEventCallback(() => {}); let n = 0; const exitAfter = 50;"],
]) {
  test(`process.exit(7) ${where} while records stream in: exits promptly with status 7`, async () => {
    const server = await startServer();
    const moves = streamMoves({ rate: 2000, wiggle: false, display: server.display });
    try {
      for (let round = 0; round < 5; ++round) {
        const inCallback = where.includes('callback');
        const child = startFaultChild(`
          ${prelude}
          const capture = z.hardware.capturePointer();
          let records = 0;
          capture.setMotionEventCallback(() => {
            if (++records === 1) {
              say('capturing');
              ${inCallback ? '' : trigger}
            }
            ${inCallback ? "if (records === 50) { say('exiting'); process.exit(7); }" : ''}
          });
          capture.startCapturing();
          process.on('exit', (code) => say('exit ' + code));
        `, server.display);
        const result = await endOf(child);
        assert.equal(result.signal, null, `round ${round}\n${describe(result)}`);
        assert.equal(result.status, 7, `round ${round}\n${describe(result)}`);
        assert.match(result.stderr, /^capturing$/m, describe(result));
        assert.match(result.stderr, /^exit 7$/m, describe(result));
        assert.equal(result.stdout, 'Native: capture pointer\n', describe(result));
      }
    } finally {
      await moves.stop();
      server.stop();
    }
  });
}
