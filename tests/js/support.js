'use strict';
// Helpers shared by the script tests, the tools, the benchmarks, the soak run and the demo: module paths, helper
// processes, private X servers, a headless Wayland compositor with Xwayland, the XTest and Wayland injectors, a host
// process that reports what `pointer` tells it, waiting, garbage collection, child processes, percentiles.
const path = require('node:path');
const fs = require('node:fs');
const os = require('node:os');
const v8 = require('node:v8');
const vm = require('node:vm');
const readline = require('node:readline');
const { spawn, spawnSync, execFileSync } = require('node:child_process');
const { findModule } = require('../../lib/buildrecord.js');

const repoDir = path.resolve(__dirname, '..', '..');
const buildDir = path.resolve(process.env.ZELBRIDGE_BUILD_DIR || path.join(repoDir, 'build', 'default'));
const bridgePath = path.join(buildDir, 'zelbridge.node');
const testkitPath = path.join(buildDir, 'zelbridge_testkit.node');
const throwingPath = path.join(buildDir, 'zelbridge_throwing.node');
const indexPath = path.join(repoDir, 'index.js');

/** The zelbridge.node that index.js loads (built for this runtime), or throws the Error index.js would throw. */
function modulePath(env = process.env) {
  const found = findModule(env);
  if (found instanceof Error) throw found;
  return found.module;
}

// True when the modules were built with a sanitizer runtime preloaded into node.
const sanitized = /lib[a-z]san\.so/.test(process.env.LD_PRELOAD || '');

/** The testkit module (loaded once per process, like any addon). */
function loadTestkit() {
  if (!fs.existsSync(testkitPath)) throw new Error(`${testkitPath} is not built (ZELBRIDGE_BUILD_DIR=${buildDir})`);
  return require(testkitPath);
}

/** A forced full collection, with --expose-gc or without it. */
const gc = global.gc || (() => {
  v8.setFlagsFromString('--expose-gc');
  return vm.runInNewContext('gc');
})();

const tick = () => new Promise((resolve) => setImmediate(resolve));
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

/**
 * Collects garbage until `done()` is true (or `rounds` collections have passed), letting weak callbacks
 * and finalization tasks run between collections. Returns the final value of `done()`.
 */
async function collectUntil(done = () => false, rounds = 30) {
  for (let i = 0; i < rounds; ++i) {
    gc();
    await tick();
    await tick();
    await sleep(5);
    if (done()) return true;
  }
  return done();
}

/**
 * Runs `script` (source text) with this node in a child process and returns how it ended:
 * { status, signal, stdout, stderr }. `options.stackKiB` raises the native stack limit of the child,
 * `options.execArgv` adds node options, `options.env` adds variables, `options.cwd` sets the directory.
 */
function runChild(script, options = {}) {
  const env = { ...process.env, ...(options.env || {}) };
  const nodeArgs = [...(options.execArgv || []), '-e', script];
  let command = process.execPath;
  let args = nodeArgs;
  if (options.stackKiB) {
    command = '/bin/bash';
    args = ['-c', `ulimit -s ${options.stackKiB} && exec "$0" "$@"`, process.execPath, ...nodeArgs];
  }
  const result = spawnSync(command, args, {
    env,
    cwd: options.cwd,
    encoding: 'utf8',
    timeout: options.timeout || 60000,
    killSignal: 'SIGKILL',
  });
  if (result.error) throw result.error;
  return { status: result.status, signal: result.signal, stdout: result.stdout, stderr: result.stderr };
}

/**
 * Starts `script` (source text) with this node in a child process that runs alongside the test. `options.env` adds
 * variables, `options.execArgv` node options, `options.cwd` sets the directory, `options.stdin` gives it a standard
 * input to `send` lines to, `options.onLine(stream, line)` sees each line of its output. Returns the child
 * (`startProcess`, its output kept) with `send(line)` and `waitFor(stream, text, ms)` (whether `text` appeared in
 * that output before it ended or `ms` passed).
 */
function startChild(script, options = {}) {
  const child = startProcess(process.execPath, [...(options.execArgv || []), '-e', script], {
    env: { ...process.env, ...(options.env || {}) },
    cwd: options.cwd,
    stdio: [options.stdin ? 'pipe' : 'ignore', 'pipe', 'pipe'],
    keep: true,
    onLine: options.onLine,
  });
  // Its output is whole once its streams have closed.
  let closed = false;
  child.ended.then(() => { closed = true; });
  child.send = (line) => child.write(`${line}\n`);
  child.waitFor = async (stream, text, ms = 20000) => {
    const end = Date.now() + ms;
    while (!child.output[stream].includes(text) && !closed && Date.now() < end) await sleep(5);
    return child.output[stream].includes(text);
  };
  return child;
}

/** Environment for children that are meant to die of SIGSEGV: a sanitizer must not catch the fault. */
function crashEnv() {
  if (!sanitized) return {};
  const asan = process.env.ASAN_OPTIONS ? `${process.env.ASAN_OPTIONS}:` : '';
  return { ASAN_OPTIONS: `${asan}handle_segv=0:handle_abort=0` };
}

/** A readable account of a child's end for assertion messages. */
function describe(result) {
  return `status=${result.status} signal=${result.signal}\n--- stdout\n${result.stdout}\n--- stderr\n${result.stderr}`;
}

/** `require` of the testkit as source text for child scripts. */
const requireTestkit = `require(${JSON.stringify(testkitPath)})`;
const requireBridge = `require(${JSON.stringify(indexPath)})`;

// Milliseconds a helper program (Xvfb starting, a one-shot xinject) may take: a stuck one fails its test with
// its output instead of holding the whole file until ctest's limit.
const TOOL_MS = 30000;

/** The environment of helper programs (Xvfb, xinject, shells): a sanitizer runtime preloaded into node is not theirs. */
function toolEnv(extra = {}) {
  const env = { ...process.env, ...extra };
  delete env.LD_PRELOAD;
  return env;
}

/**
 * Starts a helper process whose end is never an error of this process, however and whenever it ends: a failure to
 * start it, a write to its standard input after it has ended or while it ends, a signal to it once it is gone. Its
 * end is what `ended` reports; what a test means to assert about it, it asserts there.
 * `options`: spawn's (`env`, `cwd`, `stdio`, `detached`); `keep: true` collects its standard output and error as
 * text (stdio pipes) in `output` and calls `onLine(stream, line)`, when given, for each whole line of either.
 * Returns { child, pid, output, ended (a promise of { status, signal, error, stdout, stderr }, settled once its
 * streams have closed), exited (true once it has ended), write(text) (false when it can no longer be written to),
 * end(text), kill(signal), stop(signal, ms) }.
 */
function startProcess(command, args, options = {}) {
  const { keep = false, onLine, ...spawnOptions } = options;
  const stdio = spawnOptions.stdio || (keep ? ['pipe', 'pipe', 'pipe'] : ['pipe', 'ignore', 'inherit']);
  const child = spawn(command, args, { ...spawnOptions, stdio });
  const output = { stdout: '', stderr: '' };
  if (keep) {
    for (const name of ['stdout', 'stderr']) {
      let partial = '';
      child[name]?.setEncoding('utf8').on('data', (chunk) => {
        output[name] += chunk;
        if (!onLine) return;
        const lines = (partial + chunk).split('\n');
        partial = lines.pop();
        for (const line of lines) onLine(name, line);
      });
    }
  }
  // A pipe to a process that is gone fails with EPIPE (or ECONNRESET): that is its end, which `ended` tells.
  for (const stream of child.stdio) stream?.on('error', () => {});
  const helper = {
    child,
    pid: child.pid,
    output,
    exited: false,
    write(text) {
      if (helper.exited || !child.stdin || child.stdin.destroyed || child.stdin.writableEnded) return false;
      child.stdin.write(text);
      return true;
    },
    end(text) {
      if (helper.write(text ?? '')) child.stdin.end();
    },
    kill(signal = 'SIGTERM') {
      if (!helper.exited) child.kill(signal);
    },
    /** Sends `signal`, then SIGKILL if it has not ended within `ms`; resolves as `ended` does. */
    async stop(signal = 'SIGTERM', ms = 5000) {
      helper.kill(signal);
      let timer;
      const late = new Promise((resolve) => { timer = setTimeout(resolve, ms, 'late'); });
      if ((await Promise.race([helper.ended, late])) === 'late') helper.kill('SIGKILL');
      clearTimeout(timer);
      return helper.ended;
    },
  };
  helper.ended = new Promise((resolve) => {
    let error = null;
    // An 'error' with no process id: it never started. Any other 'error' (a signal it could not be sent) leaves
    // its end to 'close', which follows every 'exit'.
    child.on('error', (e) => {
      error = e;
      if (child.pid === undefined) {
        helper.exited = true;
        resolve({ status: null, signal: null, error, ...output });
      }
    });
    child.on('exit', () => { helper.exited = true; });
    child.on('close', (status, signal) => {
      helper.exited = true;
      resolve({ status, signal, error, ...output });
    });
  });
  return helper;
}

/** Sends `signal` to `pid`, then SIGKILL if it is still there after `ms`; resolves once it is gone. */
async function stopProcess(pid, signal = 'SIGTERM', ms = 5000) {
  const alive = () => {
    try {
      // A process that has ended but is not reaped yet ("Z") counts as gone.
      return !/^\d+ \(.*\) Z/.test(fs.readFileSync(`/proc/${pid}/stat`, 'utf8'));
    } catch {
      return false;
    }
  };
  try {
    process.kill(pid, signal);
  } catch {
    return;
  }
  if (!(await waitFor(() => !alive(), ms))) {
    try {
      process.kill(pid, 'SIGKILL');
    } catch {}
    await waitFor(() => !alive(), ms);
  }
}

/**
 * Starts a private Xvfb, which picks a free display itself (-displayfd) and names it once it accepts clients.
 * Resolves to { display, pid, stop(signal) }. `args` adds server options (for example -maxclients); `detached`
 * leaves it running when this process ends (stop it by its pid); `log` names a file for its output.
 */
async function startXvfb({ args = [], detached = false, log } = {}) {
  const out = log ? fs.openSync(log, 'a') : 'ignore';
  const server = startProcess('Xvfb', ['-displayfd', '3', '-nolisten', 'tcp', '-screen', '0', '1280x1024x24',
    '-noreset', ...args], { stdio: ['ignore', out, out, 'pipe'], detached, env: toolEnv() });
  if (log) fs.closeSync(out);
  let timer;
  const number = await new Promise((resolve, reject) => {
    let text = '';
    server.child.stdio[3].on('data', (data) => {
      text += data;
      if (text.includes('\n')) resolve(text.trim());
    });
    server.ended.then(({ status, signal, error }) => reject(error?.code === 'ENOENT'
      ? new Error('Xvfb is not installed (apt-get install xvfb)')
      : new Error(`Xvfb ended (${error ? error.message : signal || `status ${status}`}) before it was ready`)));
    timer = setTimeout(() => {
      server.kill('SIGKILL');
      reject(new Error(`Xvfb was not ready within ${TOOL_MS} ms`));
    }, TOOL_MS);
  }).finally(() => clearTimeout(timer));
  server.child.stdio[3].destroy();
  if (detached) server.child.unref();
  return { display: `:${number}`, pid: server.pid, stop: (signal) => stopProcess(server.pid, signal) };
}

// A static file server in a process of its own (the tests that use it block on npm in spawnSync): it prints its port,
// serves `root` on 127.0.0.1 only, and ends when its standard input closes or after `ms` milliseconds.
const FOLDER_SERVER = `
const [root, ms] = process.argv.slice(1);
const fs = require('node:fs');
const path = require('node:path');
const server = require('node:http').createServer((request, response) => {
  const file = path.join(root, path.normalize(decodeURIComponent(new URL(request.url, 'http://x').pathname)));
  fs.readFile(file.startsWith(root + path.sep) ? file : root, (error, data) => {
    response.writeHead(error ? 404 : 200, { 'content-length': error ? 0 : data.length });
    response.end(error ? undefined : data);
  });
});
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
const end = () => process.exit(0);
process.stdin.on('end', end).resume();
setTimeout(end, Number(ms)).unref();
`;

/**
 * Serves the files under `root` over HTTP on 127.0.0.1 from a child process, for at most `ms` milliseconds.
 * Resolves to { url, stop() }; stop() resolves once the server has ended.
 */
async function serveFolder(root, { ms = 20 * 60000 } = {}) {
  const server = startProcess(process.execPath, ['-e', FOLDER_SERVER, path.resolve(root), String(ms)],
    { stdio: ['pipe', 'pipe', 'inherit'], env: toolEnv() });
  const port = await new Promise((resolve, reject) => {
    readline.createInterface({ input: server.child.stdout }).once('line', resolve);
    server.ended.then(({ status, error }) => reject(new Error(`the folder server ended (${error ? error.message
      : `status ${status}`}) before it listened`)));
  });
  return {
    url: `http://127.0.0.1:${port}`,
    async stop() {
      server.end();
      await server.ended;
    },
  };
}

/** Nearest-rank percentiles of `values`, as { p50, p95, ... } for each p of `ps`; NaN when there are none. */
function percentiles(values, ps = [50, 95, 99]) {
  const sorted = Float64Array.from(values).sort();
  const rank = (p) => sorted[Math.min(sorted.length - 1, Math.max(0, Math.ceil((p / 100) * sorted.length) - 1))];
  return Object.fromEntries(ps.map((p) => [`p${p}`, sorted.length ? rank(p) : NaN]));
}

// ---- X input: the test Xvfb and the XTest injector tools/xinject ----

const xinjectPath = process.env.XINJECT || path.join(buildDir, 'tools', 'xinject');
const displayArgs = (display) => (display ? ['-d', display] : []);

/**
 * Points DISPLAY at the test Xvfb, whose display the "xvfb" fixture writes to the file named by
 * ZEL_XVFB_DISPLAY_FILE (else keeps DISPLAY as it is). Call it before the module (and Xlib in it) first
 * connects. Throws when there is no display or xinject is not built.
 */
function useTestDisplay() {
  if (process.env.ZEL_XVFB_DISPLAY_FILE) {
    process.env.DISPLAY = fs.readFileSync(process.env.ZEL_XVFB_DISPLAY_FILE, 'utf8').trim();
  }
  if (!process.env.DISPLAY) throw new Error('no X display: run through ctest (the "xvfb" fixture) or set DISPLAY');
  if (!fs.existsSync(xinjectPath)) throw new Error(`${xinjectPath} is not built`);
  return process.env.DISPLAY;
}

/** Runs xinject once with `args` on DISPLAY (or `-d` in `args`) and returns its output; throws when it fails. */
function xinject(...args) {
  return execFileSync(xinjectPath, args, { encoding: 'utf8', env: toolEnv(), timeout: TOOL_MS });
}

/** Brings the pointer of DISPLAY (or `-d` in `args`) back to the middle of the 1280x1024 screen, away from the edges. */
function recentre(...args) {
  const [x, y] = xinject(...args, 'pos').trim().split(' ').map(Number);
  xinject(...args, 'move', String(640 - x), String(512 - y));
}

/** Polls `done()` until it holds or `ms` pass, letting the event loop run; the final value of `done()`. */
async function waitFor(done, ms = 10000) {
  const end = Date.now() + ms;
  while (!done() && Date.now() < end) await sleep(1);
  return done();
}

/**
 * A long-running xinject in script mode (or, with `command`, another injector that reads the same commands, such as
 * wlinject): commands go in on its standard input, answers come back by line.
 * The "seen" lists its helpers take hold [kind, record] pairs, kind 'motion' or 'buttons', in arrival order.
 */
class Injector {
  /** `display`: the X display to inject into (default: DISPLAY); `command`: [program, ...args] instead of xinject. */
  constructor({ display = process.env.DISPLAY, command = [xinjectPath, ...displayArgs(display), 'script'] } = {}) {
    this.name = path.basename(command[0]);
    this.process = startProcess(command[0], command.slice(1), { stdio: ['pipe', 'pipe', 'inherit'], env: toolEnv() });
    this.lines = [];
    this.waiting = [];
    this.done = null;
    readline.createInterface({ input: this.process.child.stdout }).on('line', (line) => {
      const resolve = this.waiting.shift();
      if (resolve) resolve(line);
      else this.lines.push(line);
    });
    // Every line it wrote has been read once its streams have closed.
    this.process.ended.then((result) => {
      this.done = result;
      for (const resolve of this.waiting.splice(0)) resolve(null);
    });
  }

  /** The next line it answers; null once it has ended with none left. */
  nextLine() {
    if (this.lines.length) return Promise.resolve(this.lines.shift());
    if (this.done) return Promise.resolve(null);
    return new Promise((resolve) => this.waiting.push(resolve));
  }

  /** `line` as an answer to `commands`, or an Error that says how the injector ended when there was none. */
  unexpected(line, commands) {
    if (line !== null) return new Error(`${this.name} answered ${JSON.stringify(line)} to ${JSON.stringify(commands)}`);
    const { status, signal, error } = this.done;
    const how = error ? error.message : signal || `status ${status}`;
    return new Error(`${this.name} ended (${how}) before it answered ${JSON.stringify(commands)}`);
  }

  /** Sends `commands`, then waits until the server has processed them (the answer to "sync"). */
  async run(...commands) {
    this.process.write(`${commands.join('\n')}\nsync\n`);
    const line = await this.nextLine();
    if (line !== 'ok') throw this.unexpected(line, commands);
  }

  /** Sends `command` and resolves to the line it answers (null when it ended without one). */
  ask(command) {
    this.process.write(`${command}\n`);
    return this.nextLine();
  }

  /** The pointer position. */
  async position() {
    const line = await this.ask('pos');
    const match = /^(-?\d+) (-?\d+)$/.exec(line || '');
    if (!match) throw new Error(`xinject answered ${JSON.stringify(line)} to "pos"`);
    return { x: Number(match[1]), y: Number(match[2]) };
  }

  /**
   * Waits until a capture whose records fill `seen` receives input (its X connection selects raw events only
   * some time after it starts): injects small back-and-forth moves until `seen` gets a motion, then a marker,
   * and empties `seen` once the marker has arrived, so that only what is injected afterwards is seen.
   */
  async untilReading(seen) {
    const end = Date.now() + 20000;
    while (!seen.some(([kind]) => kind === 'motion')) {
      if (Date.now() > end) throw new Error('the capture receives no input');
      await this.run('move 1 1', 'move -1 -1');
      await sleep(5);
    }
    await this.run('move 4 4', 'move -4 -4');
    const isMarker = ([kind, record]) => kind === 'motion' && record.offset.x === -4 && record.offset.y === -4;
    if (!(await waitFor(() => seen.length > 0 && isMarker(seen[seen.length - 1])))) throw new Error('the marker does not arrive');
    seen.length = 0;
  }

  /**
   * Injects a marker motion and its opposite and waits for each: everything injected before has reached `seen`.
   * The markers are offsets no test injects otherwise, so a record still on its way is never taken for one.
   */
  async settle(seen) {
    const lastIs = (x, y) => seen.length > 0 && seen[seen.length - 1][0] === 'motion'
      && seen[seen.length - 1][1].offset.x === x && seen[seen.length - 1][1].offset.y === y;
    for (const [x, y] of [[11, -13], [-11, 13]]) {
      await this.run(`move ${x} ${y}`);
      if (!(await waitFor(() => lastIs(x, y)))) throw new Error('the marker does not arrive');
      seen.pop();
    }
  }

  /** Asks it to quit and resolves once it has ended, however it ends. */
  async close() {
    this.process.end('quit\n');
    await this.process.ended;
  }
}

/**
 * Background input at about `rate` moves a second on `display` until `stop()` (which resolves once xinject has
 * ended): moves of `move` ([dx, dy]), alternating with their opposite when `wiggle` (the pointer stays in place).
 * xinject paces itself, so the input flows while this process's event loop is blocked too.
 */
function streamMoves({ rate = 1000, move = [1, 1], wiggle = true, display = process.env.DISPLAY } = {}) {
  const moves = startProcess(xinjectPath, [...displayArgs(display), wiggle ? 'wiggle' : 'move', ...move.map(String),
    '-n', '1000000000', '-r', String(rate)], { stdio: 'ignore', env: toolEnv() });
  return {
    async stop() {
      await moves.stop();
    },
  };
}

// ---- Wayland: a headless sway with Xwayland, driven by tools/wlinject ----

const wlinjectPath = process.env.WLINJECT || path.join(buildDir, 'tools', 'wlinject');
/** The size of the compositor's one output, and so of Xwayland's screen. */
const OUTPUT = { width: 1280, height: 1024 };

/** The user the compositor runs as: sway refuses to run as root, so root runs it as nobody. */
function compositorUser() {
  if (process.getuid() !== 0) return null;
  const id = (flag) => Number(execFileSync('id', [flag, 'nobody'], { encoding: 'utf8' }));
  return { uid: id('-u'), gid: id('-g') };
}

/** The process ids of the children of `pid`. */
function childrenOf(pid) {
  try {
    return fs.readdirSync(`/proc/${pid}/task`).flatMap((task) => fs.readFileSync(`/proc/${pid}/task/${task}/children`, 'utf8')
      .split(' ').filter(Boolean).map(Number));
  } catch {
    return [];
  }
}

/**
 * Starts sway on its headless backend with one output of OUTPUT's size and Xwayland running (not started lazily),
 * in a folder of its own, as nobody when this process is root. Local X clients of any user may use its Xwayland.
 * With it come one wlinject, kept for the compositor's whole life (sway 1.7 crashes when a virtual pointer goes
 * away), and one xinject on the Xwayland display. On return an X11 window covers the screen, the pointer is at its
 * centre, and Xwayland has its input devices.
 * Resolves to { display (Xwayland's ":N"), pointer (the wlinject, an Injector), x (the xinject, an Injector),
 * centre: { x, y }, stop() (ends the compositor and Xwayland, then the injectors; resolves once all are gone) }.
 */
async function startCompositor() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'zel-sway-'));
  const user = compositorUser();
  if (user) fs.chownSync(dir, user.uid, user.gid);
  const displayFile = path.join(dir, 'x-display');
  // Once Xwayland accepts clients: open it to every local user, then name it (the file appears whole).
  fs.writeFileSync(path.join(dir, 'config'), [
    'xwayland force',
    `output HEADLESS-1 resolution ${OUTPUT.width}x${OUTPUT.height}`,
    `exec sh -c 'for i in $(seq 400); do xhost +local: >/dev/null 2>&1 && break; sleep 0.05; done; `
      + `echo "$DISPLAY" > ${displayFile}.new && mv ${displayFile}.new ${displayFile}'`,
    '',
  ].join('\n'));
  const env = {
    PATH: process.env.PATH, HOME: dir, XDG_RUNTIME_DIR: dir,
    WLR_BACKENDS: 'headless', WLR_LIBINPUT_NO_DEVICES: '1', WLR_RENDERER: 'pixman',
  };
  const command = ['sway', '-c', path.join(dir, 'config')];
  const log = fs.openSync(path.join(dir, 'sway.log'), 'a');
  const sway = startProcess(user ? 'setpriv' : command[0],
    user ? ['--reuid=nobody', '--regid=nogroup', '--clear-groups', ...command] : command.slice(1),
    { stdio: ['ignore', log, log], env });
  fs.closeSync(log);
  let stopping = null;
  const compositor = {
    display: null,
    centre: { x: OUTPUT.width / 2, y: OUTPUT.height / 2 },
    /** Ends it all once, however much of it is still running; later calls resolve with the first. */
    stop() {
      stopping ??= (async () => {
        await compositor.x?.close();
        // Xwayland is sway's child: gone with it, or ended here.
        const xwayland = sway.exited ? [] : childrenOf(sway.pid);
        await sway.stop();
        await Promise.all(xwayland.map((pid) => stopProcess(pid)));
        await compositor.pointer?.close();
        fs.rmSync(dir, { recursive: true, force: true });
      })();
      return stopping;
    },
  };
  try {
    const failure = () => `sway ended early: ${fs.readFileSync(path.join(dir, 'sway.log'), 'utf8')}`;
    if (!(await waitFor(() => sway.exited || fs.existsSync(displayFile), TOOL_MS)) || sway.exited) throw new Error(failure());
    compositor.display = fs.readFileSync(displayFile, 'utf8').trim();
    const socket = fs.readdirSync(dir).find((name) => /^wayland-\d+$/.test(name));
    compositor.pointer = new Injector({ command: [wlinjectPath, '-d', path.join(dir, socket)] });
    compositor.x = new Injector({ display: compositor.display });
    // Xwayland has a pointer once it follows the compositor's (it does over an X11 window).
    const { x, y } = compositor.centre;
    await compositor.x.run('window');
    await compositor.pointer.run(`moveto ${x} ${y} ${OUTPUT.width} ${OUTPUT.height}`);
    const end = Date.now() + TOOL_MS;
    for (let at = await compositor.x.position(); at.x !== x || at.y !== y; at = await compositor.x.position()) {
      if (Date.now() > end) throw new Error(`Xwayland's pointer stays at (${at.x}, ${at.y})`);
      await sleep(20);
    }
    return compositor;
  } catch (error) {
    await compositor.stop();
    throw error;
  }
}

/**
 * A node process that uses the package as a host would: listeners for every 'status', 'motion' and 'buttons' of
 * `pointer` and for `log` (so the native log is printed on its standard output). Each event becomes one entry
 * [kind, value] of `seen`. Lines sent to it: "buttons" adds ['state', [left, middle, right]] from getButtonState;
 * "end" removes its listeners, after which it ends by itself. `env` is added to its environment.
 * Returns { seen, output: { stdout, stderr }, send(line), waitFor(done, ms), ended (a promise of
 * { status, signal, stdout, stderr }), kill() }.
 */
function startPointerHost(env = {}) {
  const script = `
    const { pointer, log, hardware } = ${requireBridge};
    const tell = (kind, value) => process.stderr.write('SEEN ' + JSON.stringify([kind, value]) + '\\n');
    const onMessage = () => {};
    log.on('message', onMessage);
    for (const kind of ['status', 'motion', 'buttons']) pointer.on(kind, (value) => tell(kind, value));
    require('node:readline').createInterface({ input: process.stdin }).on('line', (line) => {
      if (line === 'buttons') tell('state', [0, 1, 2].map((button) => hardware.getButtonState(button)));
      if (line === 'end') {
        pointer.removeAllListeners();
        log.off('message', onMessage);
        process.stdin.destroy();
      }
    });
  `;
  const seen = [];
  const host = startChild(script, { env, stdin: true, onLine: (stream, line) => {
    if (stream === 'stderr' && line.startsWith('SEEN ')) seen.push(JSON.parse(line.slice(5)));
  } });
  return {
    seen,
    output: host.output,
    ended: host.ended,
    send: host.send,
    waitFor: (done, ms) => waitFor(done, ms),
    kill: () => host.kill('SIGKILL'),
  };
}

module.exports = {
  repoDir,
  modulePath,
  TOOL_MS,
  toolEnv,
  stopProcess,
  startXvfb,
  serveFolder,
  percentiles,
  buildDir,
  bridgePath,
  testkitPath,
  throwingPath,
  indexPath,
  sanitized,
  loadTestkit,
  gc,
  tick,
  sleep,
  collectUntil,
  runChild,
  startProcess,
  startChild,
  crashEnv,
  describe,
  requireTestkit,
  requireBridge,
  xinjectPath,
  useTestDisplay,
  xinject,
  recentre,
  waitFor,
  Injector,
  streamMoves,
  wlinjectPath,
  OUTPUT,
  startCompositor,
  startPointerHost,
};
