#!/usr/bin/env node
'use strict';
// Live demo of zelbridge (npm start): listens to the pointer through the package's event layer (`pointer`, `log`)
// and prints every raw motion and button record as it arrives.
//
//   With DISPLAY set:  captures the real pointer of that display until Ctrl-C.
//   Without DISPLAY:   starts a private Xvfb, plays a scripted gesture through tools/xinject (a circle of
//                      relative moves, then a left, a middle and a right click), prints the records and a
//                      summary line, stops Xvfb and exits (0 when every record sent was received):
//                        summary: sent=N received=N latency p50=… p95=… p99=… max=… ms
//                      The latency runs from xinject's CLOCK_MONOTONIC send time of each event to the moment the
//                      callback runs (process.hrtime.bigint(), CLOCK_MONOTONIC as well).
//
// The build: ZELBRIDGE_BUILD_DIR names an existing build to use as it is; otherwise build/default is configured
// when needed and brought up to date (after scripts/ensure-deps.sh installs what is missing).
const fs = require('node:fs');
const path = require('node:path');
const readline = require('node:readline');
const { spawnSync } = require('node:child_process');
const { toolEnv, startProcess, startXvfb, percentiles, sleep, waitFor } = require('../tests/js/support.js');

const root = path.join(__dirname, '..');
const buttonNames = ['-', 'released', 'pressed'];

/** Runs a command with its output on ours; ends the demo when it fails. */
function run(command, args) {
  console.error(`demo: ${command} ${args.join(' ')}`);
  const result = spawnSync(command, args, { cwd: root, stdio: 'inherit', env: toolEnv() });
  if (result.error || result.status !== 0) {
    console.error(`demo: ${command} failed (${result.error ? result.error.message : `exit status ${result.status}`})`);
    process.exit(1);
  }
}

/** The build directory to use, configured and built as needed. */
function prepareBuild() {
  if (process.env.ZELBRIDGE_BUILD_DIR) return path.resolve(process.env.ZELBRIDGE_BUILD_DIR);
  const buildDir = path.join(root, 'build', 'default');
  if (!fs.existsSync(path.join(buildDir, 'CMakeCache.txt'))) {
    run('bash', ['scripts/ensure-deps.sh']);
    run('cmake', ['--preset', 'default']);
  }
  run('cmake', ['--build', '--preset', 'default', '--target', 'zelbridge', 'xinject']);
  return buildDir;
}

const pad = (value, width) => String(value).padStart(width);
const formatMotion = (record) => `motion   offset (${pad(record.offset.x, 4)}, ${pad(record.offset.y, 4)})`
  + `  screen (${pad(record.screenPoint.x, 5)}, ${pad(record.screenPoint.y, 5)})`;
const formatButtons = (record) => `buttons  left ${buttonNames[record.left] || record.left}`
  + `  middle ${buttonNames[record.middle] || record.middle}  right ${buttonNames[record.right] || record.right}`;

/** Loads the package and listens to its log: warnings and errors are called out on standard error. */
function loadBridge() {
  const bridge = require(root);
  const { LogLevel } = bridge;
  const levelName = (level) => Object.keys(LogLevel).find((name) => LogLevel[name] === level) || `level ${level}`;
  // The native side prints every message itself; the listener only flags the ones that need attention.
  bridge.log.on('message', (message, level) => {
    if (level >= LogLevel.Warning) console.error(`demo: native ${levelName(level).toLowerCase()}: ${message}`);
  });
  return bridge;
}

// ---- the real pointer ----

function captureLive({ pointer }) {
  console.log(`Capturing the pointer of display ${process.env.DISPLAY}; move it, click, press Ctrl-C to stop.`);
  let count = 0;
  const onMotion = (record) => {
    ++count;
    console.log(formatMotion(record));
  };
  const onButtons = (record) => {
    ++count;
    console.log(formatButtons(record));
  };
  // How the capture goes: "live" once it reads, and why it does not when it cannot (or on a Wayland desktop).
  pointer.on('status', ({ code, message }) => console.log(`[${code}] ${message}`));
  pointer.on('motion', onMotion).on('buttons', onButtons);
  process.once('SIGINT', () => {
    pointer.off('motion', onMotion).off('buttons', onButtons);
    console.log(`\nStopped after ${count} records.`);
    // With its last listener gone the capture has stopped: nothing else keeps the loop running.
  });
}

// ---- the scripted gesture on a private Xvfb ----

/** Relative moves around a circle, each with both components non-zero (a step that rounds to a zero component
 *  is merged into the next one). */
function circle(radius = 80, steps = 48) {
  const moves = [];
  let x = Math.round(radius);
  let y = 0;
  let pending = [0, 0];
  for (let i = 1; i <= steps; ++i) {
    const angle = (2 * Math.PI * i) / steps;
    const nx = Math.round(radius * Math.cos(angle));
    const ny = Math.round(radius * Math.sin(angle));
    pending = [pending[0] + nx - x, pending[1] + ny - y];
    [x, y] = [nx, ny];
    if (pending[0] !== 0 && pending[1] !== 0) {
      moves.push(pending);
      pending = [0, 0];
    }
  }
  if (pending[0] !== 0 || pending[1] !== 0) moves.push(pending); // closes the circle
  return moves.filter(([dx, dy]) => dx !== 0 && dy !== 0);
}

async function playGesture(bridge, xinjectPath) {
  const { pointer } = bridge;
  const received = []; // the receive time of each record (ns, CLOCK_MONOTONIC), printed as it arrives
  const onMotion = (record) => {
    received.push(process.hrtime.bigint());
    console.log(`${pad(received.length, 4)}  ${formatMotion(record)}`);
  };
  const onButtons = (record) => {
    received.push(process.hrtime.bigint());
    console.log(`${pad(received.length, 4)}  ${formatButtons(record)}`);
  };
  let status = null;
  const onStatus = (told) => { status = told; };
  // The first listener of 'motion' or 'buttons' starts the capture, removing the last stops it.
  pointer.on('status', onStatus).on('motion', onMotion).on('buttons', onButtons);
  const stop = () => pointer.off('motion', onMotion).off('buttons', onButtons).off('status', onStatus);
  try {
    // Input injected once the capture is live arrives: no need to nudge the pointer until it reports.
    if (!(await waitFor(() => status !== null, 20000))) throw new Error('the capture says nothing');
    if (status.code !== 'live') throw new Error(`the capture does not read: ${status.message}`);
    return await recordGesture(stop, received, xinjectPath);
  } finally {
    stop();
  }
}

async function recordGesture(stop, received, xinjectPath) {
  const display = process.env.DISPLAY;

  // The gesture, one command every 4 ms; xinject prints the send time of every event it sends (-t).
  const moves = circle();
  const commands = [...moves.map(([dx, dy]) => `move ${dx} ${dy}`), 'click 1', 'click 2', 'click 3'];
  const injector = startProcess(xinjectPath, ['-d', display, '-t', 'script'],
    { stdio: ['pipe', 'pipe', 'inherit'], env: toolEnv() });
  const sendTimes = [];
  readline.createInterface({ input: injector.child.stdout }).on('line', (line) => {
    if (/^\d+$/.test(line)) sendTimes.push(BigInt(line));
    else console.error(`demo: xinject: ${line}`);
  });
  console.log(`Playing a circle of ${moves.length} relative moves, then a left, a middle and a right click.`);
  for (const command of commands) {
    injector.write(`${command}\n`);
    await sleep(4);
  }
  injector.end('quit\n');
  const { status, signal, error } = await injector.ended;
  if (status !== 0) throw new Error(`xinject ended (${error ? error.message : signal || `status ${status}`})`);

  const sent = sendTimes.length; // one line per event: a move is one, a click two (press, release)
  await waitFor(() => received.length >= sent, 5000);
  await sleep(50); // anything beyond what was sent would show here
  stop();

  // Records and events pair up in order: the n-th record received is the n-th event sent.
  const latencies = received.slice(0, sent).map((time, i) => Number(time - sendTimes[i]) / 1e6);
  const { p50, p95, p99, p100 } = percentiles(latencies, [50, 95, 99, 100]);
  const ms = (value) => (Number.isNaN(value) ? 'n/a' : value.toFixed(3));
  console.log(`summary: sent=${sent} received=${received.length} latency p50=${ms(p50)} p95=${ms(p95)}`
    + ` p99=${ms(p99)} max=${ms(p100)} ms`);
  return sent === received.length;
}

async function demoOnPrivateDisplay(buildDir) {
  const xinjectPath = path.join(buildDir, 'tools', 'xinject');
  if (!fs.existsSync(xinjectPath)) throw new Error(`${xinjectPath} is not built`);
  const server = await startXvfb();
  process.env.DISPLAY = server.display;
  console.log(`No DISPLAY: started Xvfb on ${server.display}.`);
  const onSignal = () => {
    process.kill(server.pid, 'SIGTERM');
    process.exit(130);
  };
  process.once('SIGINT', onSignal);
  process.once('SIGTERM', onSignal);
  try {
    return await playGesture(loadBridge(), xinjectPath);
  } finally {
    process.removeListener('SIGINT', onSignal);
    process.removeListener('SIGTERM', onSignal);
    await server.stop();
    console.log('Xvfb stopped.');
  }
}

async function main() {
  const buildDir = prepareBuild();
  process.env.ZELBRIDGE_BUILD_DIR = buildDir; // index.js loads the module from there
  if (process.env.DISPLAY) {
    captureLive(loadBridge());
    return;
  }
  const complete = await demoOnPrivateDisplay(buildDir);
  process.exitCode = complete ? 0 : 1;
}

main().catch((error) => {
  console.error(`demo: ${error.message}`);
  process.exitCode = 1;
});
