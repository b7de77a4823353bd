'use strict';
// Helpers shared by the script tests: module paths, garbage collection, child processes.
const path = require('node:path');
const fs = require('node:fs');
const v8 = require('node:v8');
const vm = require('node:vm');
const readline = require('node:readline');
const { spawn, spawnSync } = require('node:child_process');

const buildDir = path.resolve(process.env.ZELBRIDGE_BUILD_DIR || path.join(__dirname, '..', '..', 'build', 'default'));
const bridgePath = path.join(buildDir, 'zelbridge.node');
const testkitPath = path.join(buildDir, 'zelbridge_testkit.node');
const throwingPath = path.join(buildDir, 'zelbridge_throwing.node');
const indexPath = path.join(__dirname, '..', '..', 'index.js');

for (const file of [bridgePath, testkitPath, throwingPath]) {
  if (!fs.existsSync(file)) throw new Error(`${file} is not built (ZELBRIDGE_BUILD_DIR=${buildDir})`);
}

// True when the modules were built with a sanitizer runtime preloaded into node.
const sanitized = /lib[a-z]san\.so/.test(process.env.LD_PRELOAD || '');

/** The testkit module (loaded once per process, like any addon). */
function loadTestkit() {
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

// ---- X input: the test Xvfb and the XTest injector tools/xinject ----

const xinjectPath = process.env.XINJECT || path.join(buildDir, 'tools', 'xinject');

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
}

/** Polls `done()` until it holds or `ms` pass, letting the event loop run; the final value of `done()`. */
async function waitFor(done, ms = 10000) {
  const end = Date.now() + ms;
  while (!done() && Date.now() < end) await sleep(1);
  return done();
}

/**
 * A long-running xinject in script mode: commands go in on its standard input, answers come back by line.
 * The "seen" lists its helpers take hold [kind, record] pairs, kind 'motion' or 'buttons', in arrival order.
 */
class Injector {
  constructor() {
    this.child = spawn(xinjectPath, ['script'], { stdio: ['pipe', 'pipe', 'inherit'] });
    this.lines = [];
    this.waiting = [];
    this.exited = false;
    readline.createInterface({ input: this.child.stdout }).on('line', (line) => {
      const resolve = this.waiting.shift();
      if (resolve) resolve(line);
      else this.lines.push(line);
    });
    this.child.on('exit', () => {
      this.exited = true;
      for (const resolve of this.waiting.splice(0)) resolve(null);
    });
  }

  nextLine() {
    if (this.lines.length) return Promise.resolve(this.lines.shift());
    if (this.exited) return Promise.resolve(null);
    return new Promise((resolve) => this.waiting.push(resolve));
  }

  /** Sends `commands`, then waits until the server has processed them (the answer to "sync"). */
  async run(...commands) {
    this.child.stdin.write(`${commands.join('\n')}\nsync\n`);
    for (;;) {
      const line = await this.nextLine();
      if (line === 'ok') return;
      throw new Error(`xinject answered ${JSON.stringify(line)} to ${JSON.stringify(commands)}`);
    }
  }

  /** The pointer position. */
  async position() {
    this.child.stdin.write('pos\n');
    const line = await this.nextLine();
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

  /** Injects one motion as a marker and waits for it: everything injected before it has reached `seen`. */
  async settle(seen) {
    const lastIs = (x, y) => seen.length > 0 && seen[seen.length - 1][0] === 'motion'
      && seen[seen.length - 1][1].offset.x === x && seen[seen.length - 1][1].offset.y === y;
    for (const [x, y] of [[2, -2], [-2, 2]]) {
      await this.run(`move ${x} ${y}`);
      if (!(await waitFor(() => lastIs(x, y)))) throw new Error('the marker does not arrive');
      seen.pop();
    }
  }

  async close() {
    if (this.exited) return;
    const exited = new Promise((resolve) => this.child.once('exit', resolve));
    this.child.stdin.end('quit\n');
    await exited;
  }
}

/** Background input: (1, 1) and (-1, -1) moves at about 1,000 a second until `stop()` (which resolves once xinject has ended). */
function streamMoves() {
  const child = spawn(xinjectPath, ['script'], { stdio: ['pipe', 'ignore', 'inherit'] });
  child.stdin.on('error', () => {});
  const feed = setInterval(() => child.stdin.write('move 1 1 10 1000\nmove -1 -1 10 1000\n'), 20);
  const ended = new Promise((resolve) => child.once('exit', resolve));
  return {
    async stop() {
      clearInterval(feed);
      child.kill('SIGTERM');
      await ended;
    },
  };
}

module.exports = {
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
  crashEnv,
  describe,
  requireTestkit,
  requireBridge,
  xinjectPath,
  useTestDisplay,
  waitFor,
  Injector,
  streamMoves,
};
