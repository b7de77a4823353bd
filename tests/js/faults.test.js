'use strict';
// Faults around pointer capture, each in a child process with a private Xvfb: the X server going away while a
// capture reads or while button state is queried, no X server at all, script callbacks that throw on every
// record, and process.exit() while capturing. Each case asserts how the child ends; none may hang.
//
// What happens when the X server goes away is decided by Xlib, not by the module: the next read or request on a
// connection whose server is gone fails, and Xlib's I/O error handling prints one of
//   X connection to :N broken (explicit kill or server shutdown).
//   XIO:  fatal IO error E (<strerror of E>) on X server ":N"
//         after R requests (K known processed) with Q events remaining.
// (the first when errno says EPIPE; otherwise E is whatever errno held) to standard error and calls exit(1), on
// whichever thread made the call (the reader thread of a running capture, or the script thread in
// getButtonState). The host's own exit handlers (process.on('exit')) do not run; the C++ static destructors do.
// When both connections fail at once (a capture reading while the script thread queries buttons), Xlib calls
// exit(1) on both threads, and glibc's exit() is not safe against that: the process may then die of SIGSEGV
// inside glibc's exit handler loop instead of ending with status 1 (AddressSanitizer reports glibc freeing its
// list of exit handlers twice, once per thread, and aborts).
//
// The module leaves this to Xlib. The handler that prints and exits is process-wide (XSetIOErrorHandler); the
// per-connection XSetIOErrorExitHandler of libX11 1.8 is called only after it has returned, which the default one
// never does; and with a process-wide handler that returns, XNextEvent goes on to read an event that was never
// queued and faults (measured with libX11 1.8.4). A per-connection handler alone cannot keep the process alive.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { execFileSync, spawn, spawnSync } = require('node:child_process');
const { buildDir, describe, requireBridge, sleep } = require('./support');

const repoDir = path.join(__dirname, '..', '..');
const fixture = path.join(repoDir, 'scripts', 'xvfb-fixture.sh');
const xinjectPath = path.join(buildDir, 'tools', 'xinject');

// Seconds a child may take to end once its fault happened.
const END_SECONDS = 15;

/** The environment of the helper programs (bash, Xvfb, xinject): without the sanitizer runtime preloaded for node. */
const toolEnv = (() => {
  const env = { ...process.env };
  delete env.LD_PRELOAD;
  return env;
})();

/** A private Xvfb: { display, pid, stop(), kill(signal) }. Stopped at the end of the process in any case. */
function startServer() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'zel-faults-'));
  const display = execFileSync('bash', [fixture, 'start', dir], { encoding: 'utf8', env: toolEnv }).trim();
  const pid = Number(fs.readFileSync(path.join(dir, 'pid'), 'utf8'));
  const server = {
    display,
    pid,
    stop() {
      if (!liveServers.delete(server)) return;
      spawnSync('bash', [fixture, 'stop', dir], { env: toolEnv });
      fs.rmSync(dir, { recursive: true, force: true });
      // A server killed with SIGKILL leaves its lock file and socket behind, and the fixture skips the numbers
      // that have them: remove them, when the lock is still this dead server's.
      const number = display.slice(1);
      const lock = `/tmp/.X${number}-lock`;
      try {
        if (Number(fs.readFileSync(lock, 'utf8').trim()) === pid && isZombie(pid)) {
          fs.rmSync(lock, { force: true });
          fs.rmSync(`/tmp/.X11-unix/X${number}`, { force: true });
        }
      } catch {
        // no lock file: the server removed it
      }
    },
    /** Kills the server and waits until it is gone. */
    async kill(signal = 'SIGKILL') {
      try {
        process.kill(pid, signal);
      } catch {
        return;
      }
      const end = Date.now() + 10000;
      while (Date.now() < end && fs.existsSync(`/proc/${pid}`) && !isZombie(pid)) await sleep(10);
    },
  };
  liveServers.add(server);
  return server;
}

const liveServers = new Set();
process.on('exit', () => {
  for (const server of [...liveServers]) server.stop();
});

function isZombie(pid) {
  try {
    const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
    return stat.slice(stat.lastIndexOf(')') + 2).startsWith('Z');
  } catch {
    return true;
  }
}

/** A display with no server: a number far above the fixture's range, with no socket and no lock file. */
function deadDisplay() {
  for (let n = 6000; n < 7000; ++n) {
    if (!fs.existsSync(`/tmp/.X11-unix/X${n}`) && !fs.existsSync(`/tmp/.X${n}-lock`)) return `:${n}`;
  }
  throw new Error('no free display number');
}

/**
 * Starts `script` in a child node with DISPLAY=`display`. Returns { lines(stream), waitFor(stream, text, ms),
 * ended (a promise of { status, signal, stdout, stderr, seconds }), kill() }.
 */
function startChild(script, display, options = {}) {
  const child = spawn(process.execPath, [...(options.execArgv || []), '-e', script], {
    env: { ...process.env, DISPLAY: display, ...(options.env || {}) },
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  const output = { stdout: '', stderr: '' };
  child.stdout.setEncoding('utf8').on('data', (chunk) => { output.stdout += chunk; });
  child.stderr.setEncoding('utf8').on('data', (chunk) => { output.stderr += chunk; });
  let endedAt = 0;
  const ended = new Promise((resolve) => {
    child.on('close', (status, signal) => {
      endedAt = Date.now();
      resolve({ status, signal, ...output });
    });
  });
  let exited = false;
  ended.then(() => { exited = true; });
  return {
    output,
    ended,
    endedAt: () => endedAt,
    async waitFor(stream, text, ms = 20000) {
      const end = Date.now() + ms;
      while (!output[stream].includes(text) && !exited && Date.now() < end) await sleep(5);
      return output[stream].includes(text);
    },
    kill(signal = 'SIGKILL') {
      if (!exited) child.kill(signal);
    },
  };
}

/** Waits at most END_SECONDS for the child to end; a child still running then is killed and reported as hung. */
async function endOf(child) {
  let timer;
  const timeout = new Promise((resolve) => { timer = setTimeout(resolve, END_SECONDS * 1000, 'hung'); });
  const result = await Promise.race([child.ended, timeout]);
  clearTimeout(timer);
  if (result === 'hung') {
    child.kill();
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

/** Child prelude: the module as `z` with a log handler that counts what reaches script. */
const prelude = `
  const z = ${requireBridge};
  const logged = [];
  z.diagnostics.setLogHandler((message, level) => logged.push([message, level]));
  const say = (text) => process.stderr.write(text + '\\n');
`;

/**
 * A capture that says "capturing" once the first record arrived; `busy` keeps the script thread working
 * (allocation, collection, timers), `queryButtons` makes it query the buttons on its own connection meanwhile.
 */
const capturingChild = (busy, queryButtons = false) => `
  ${prelude}
  const capture = z.hardware.capturePointer();
  let records = 0;
  capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
  capture.setButtonsEventCallback(() => { ++records; });
  capture.startCapturing();
  ${busy ? `
  let junk = [];
  setInterval(() => {
    junk = [];
    for (let i = 0; i < 20000; ++i) junk.push({ i });
    ${queryButtons ? 'z.hardware.getButtonState(0);' : ''}
  }, 1);` : ''}
  process.on('exit', () => say('exit handlers ran'));
`;

/** Injects moves until `done()` or 10 s pass. */
async function moveUntil(display, done) {
  const end = Date.now() + 10000;
  while (!done() && Date.now() < end) {
    spawnSync(xinjectPath, ['-d', display, 'move', '1', '0'], { env: toolEnv });
    await sleep(20);
  }
  return done();
}

for (const [signal, how] of [['SIGKILL', 'killed'], ['SIGTERM', 'terminated']]) {
  test(`X server ${how} while a capture reads: Xlib reports the broken connection and exits with status 1`, async () => {
    const server = startServer();
    const child = startChild(capturingChild(false), server.display);
    try {
      assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('capturing')),
        `the capture delivers\n${describe(child.output)}`);
      const killedAt = Date.now();
      await server.kill(signal);
      const result = await endOf(child);
      assert.equal(result.signal, null, describe(result));
      assert.equal(result.status, 1, describe(result));
      assert.ok(reportsBrokenConnection(result.stderr, server.display), describe(result));
      assert.ok(!result.stderr.includes('exit handlers ran'), 'Xlib exits without the host\'s exit handlers');
      assert.equal(result.stdout, 'Native: capture pointer\n', describe(result));
      assert.ok(child.endedAt() - killedAt < 5000, `ended ${child.endedAt() - killedAt} ms after the kill`);
    } finally {
      child.kill();
      server.stop();
    }
  });
}

/** Kills the server of a busy capturing child after `delay` ms of streaming moves; the child's end. */
async function killWhileStreaming(child, server, delay) {
  const injector = spawn(xinjectPath, ['-d', server.display, 'move', '1', '1', '-n', '1000000', '-r', '2000'],
    { stdio: 'ignore', env: toolEnv });
  try {
    assert.ok(await child.waitFor('stderr', 'capturing'), `the capture delivers\n${describe(child.output)}`);
    await sleep(delay);
    await server.kill('SIGKILL');
    return await endOf(child);
  } finally {
    injector.kill('SIGKILL');
    child.kill();
    server.stop();
  }
}

test('X server killed while records stream in and the script thread is busy: exit status 1, repeatedly', async () => {
  for (let round = 0; round < 5; ++round) {
    const server = startServer();
    const result = await killWhileStreaming(startChild(capturingChild(true), server.display), server, 100 + 50 * round);
    assert.equal(result.signal, null, `round ${round}\n${describe(result)}`);
    assert.equal(result.status, 1, `round ${round}\n${describe(result)}`);
    assert.equal(brokenConnectionReports(result.stderr, server.display), 1, `round ${round}\n${describe(result)}`);
  }
});

// Both connections fail together: Xlib calls exit(1) on the reader thread and on the script thread at once.
// glibc's exit() (2.36 here) is not safe against a second thread calling it meanwhile: the process then may die
// of SIGSEGV inside glibc's exit handler loop (seen in a core: both threads in __run_exit_handlers, called from
// _XDefaultIOError). Either way it ends at once.
test('X server killed while a capture reads and the script thread queries buttons: ends at once, Xlib exits on both threads', async (t) => {
  const outcomes = [];
  for (let round = 0; round < 5; ++round) {
    const server = startServer();
    const result = await killWhileStreaming(startChild(capturingChild(true, true), server.display), server, 100 + 50 * round);
    const reports = brokenConnectionReports(result.stderr, server.display);
    outcomes.push(`${result.signal || `status ${result.status}`} after ${reports} report(s)`);
    assert.ok(reports >= 1 && reports <= 2, `round ${round}\n${describe(result)}`);
    if (result.signal === null) {
      assert.equal(result.status, 1, `round ${round}\n${describe(result)}`);
    } else {
      // SIGSEGV inside glibc's exit handlers; or, under AddressSanitizer, SIGABRT after its report. The second
      // thread's report may not be printed before the crash.
      assert.ok(result.signal === 'SIGSEGV' || result.signal === 'SIGABRT', `round ${round}\n${describe(result)}`);
    }
  }
  t.diagnostic(`outcomes: ${outcomes.join('; ')}`);
});

test('X server killed between getButtonState calls: the next call exits with status 1', async () => {
  const server = startServer();
  const child = startChild(`
    ${prelude}
    let calls = 0;
    setInterval(() => {
      const state = z.hardware.getButtonState(0);
      if (++calls === 1) say('queried ' + state);
    }, 5);
    process.on('exit', () => say('exit handlers ran'));
  `, server.display);
  try {
    assert.ok(await child.waitFor('stderr', 'queried false'), describe(child.output));
    await server.kill('SIGKILL');
    const result = await endOf(child);
    assert.equal(result.signal, null, describe(result));
    assert.equal(result.status, 1, describe(result));
    assert.ok(reportsBrokenConnection(result.stderr, server.display), describe(result));
    assert.ok(!result.stderr.includes('exit handlers ran'), describe(result));
    assert.equal(result.stdout, '', describe(result));
  } finally {
    child.kill();
    server.stop();
  }
});

test('X server killed while a capture is stopped and buttons are not queried: nothing happens until the next use', async () => {
  const server = startServer();
  const child = startChild(`
    ${prelude}
    const capture = z.hardware.capturePointer();
    let records = 0;
    capture.setMotionEventCallback(() => { if (++records === 1) say('capturing'); });
    capture.startCapturing();
    say('button ' + z.hardware.getButtonState(0));
    process.stdin.resume();
    const poll = setInterval(() => {
      if (records > 0) {
        clearInterval(poll);
        capture.stopCapturing();
        say('stopped');
        // The parent kills the server now; this process goes on untouched until it asks the server again.
        setTimeout(() => { say('still running'); z.hardware.getButtonState(0); say('returned'); }, 1000);
      }
    }, 5);
  `, server.display);
  try {
    assert.ok(await moveUntil(server.display, () => child.output.stderr.includes('stopped')), describe(child.output));
    await server.kill('SIGKILL');
    const result = await endOf(child);
    assert.equal(result.status, 1, describe(result));
    assert.match(result.stderr, /^still running$/m, describe(result));
    assert.ok(!result.stderr.includes('returned'), describe(result));
    assert.ok(reportsBrokenConnection(result.stderr, server.display), describe(result));
    assert.equal(result.stdout, 'Native: capture pointer\nPointer capture released\n', describe(result));
  } finally {
    child.kill();
    server.stop();
  }
});

test('no X server at all: getButtonState answers false with a warning, a capture starts and stops without input', async () => {
  const child = startChild(`
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
  const server = startServer();
  const moves = 300;
  const clicks = 40;
  // Probe moves go down (0, 1) until the reader runs; the counted moves go right (1, 0).
  const child = startChild(`
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
    const end = Date.now() + 10000;
    while (!child.output.stderr.includes('capturing') && Date.now() < end) {
      spawnSync(xinjectPath, ['-d', server.display, 'move', '0', '1'], { env: toolEnv });
      await sleep(20);
    }
    assert.ok(child.output.stderr.includes('capturing'), describe(child.output));
    execFileSync(xinjectPath, ['-d', server.display, 'move', '1', '0', '-n', String(moves)], { env: toolEnv });
    execFileSync(xinjectPath, ['-d', server.display, 'click', '1', '-n', String(clicks)], { env: toolEnv });
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
    child.kill();
    server.stop();
  }
});

test('a running capture dropped and collected by an allocation-started collection: its reader is released', async () => {
  const server = startServer();
  // No gc() call, and nothing that watches the wrapper (a WeakRef or a FinalizationRegistry changes when it is
  // collected): the collection comes from allocations in compiled code, which run it with no context entered.
  // The child churns until this process sees the native release on its standard output and ends it.
  const child = startChild(`
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
    child.kill();
    server.stop();
  }
});

for (const [where, trigger] of [
  ['from a timer', "setTimeout(() => process.exit(7), 100);"],
  ['from inside a motion callback', "capture.setButtonsEventCallback(() => {}); let n = 0; const exitAfter = 50;"],
]) {
  test(`process.exit(7) ${where} while records stream in: exits promptly with status 7`, async () => {
    const server = startServer();
    const injector = spawn(xinjectPath, ['-d', server.display, 'move', '1', '1', '-n', '1000000', '-r', '2000'],
      { stdio: 'ignore', env: toolEnv });
    try {
      for (let round = 0; round < 5; ++round) {
        const inCallback = where.includes('callback');
        const child = startChild(`
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
      injector.kill('SIGKILL');
      server.stop();
    }
  });
}
