'use strict';
// Helpers shared by the script tests: module paths, garbage collection, child processes.
const path = require('node:path');
const fs = require('node:fs');
const v8 = require('node:v8');
const vm = require('node:vm');
const { spawnSync } = require('node:child_process');

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
 * `options.execArgv` adds node options, `options.env` adds variables.
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
};
