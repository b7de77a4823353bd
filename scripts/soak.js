#!/usr/bin/env node
'use strict';
// Soak run of pointer capture (npm run soak; not part of npm test):
//   1. start/stop cycles of one capture object while a background injector keeps moves flowing; in every
//      cycle two counted moves are sent once the reader delivers, and both must arrive before the stop;
//   2. capture objects created (with both callbacks set; one in ten started and left running) and dropped, with
//      forced collection until every wrapper is finalized;
//   3. with --hours H, both phases alternate in rounds until H hours have passed, with a report after each round.
// At the start (after a warm-up), after each phase and at the end it reports resident memory, open file
// descriptors, X server connections and live libuv async handles. It passes (status 0) when resident memory
// outside the script engine's heap stays within 1 MiB, the engine heap in use after collection too, descriptors,
// X connections and async handles are back to their starting count, every counted record sent arrived, and every
// native capture object made was destroyed. (The engine sizes its heap by its own rules: how many pages it keeps
// after a collection moves total resident memory by a few MiB either way, so that figure is reported, not judged.)
//
// How objects are counted: the workload runs in a child process whose native log goes to standard output
// (diagnostics.setLogHandler prints every message), and this process counts the lines. "Native: capture pointer"
// is written by the native capture object's constructor: one per object made. Destruction writes nothing, so it
// is established twice over: every wrapper reaches a FinalizationRegistry (the wrapper's collection is what
// destroys the native object), and each native object owns one libuv async handle that only its release closes,
// so the loop's async handles (from the process report's libuv section) must be back to their starting count.
// "Pointer capture released" is written once per reader thread joined: one per stop in phase 1, and one per
// running capture destroyed by collection in phase 2.
//
// Usage: node scripts/soak.js [--cycles N] [--objects N] [--hours H] [--rate MOVES_PER_S] [--warmup N]
//                             [--display :N]
// (--warmup: cycles and objects before the starting figures are taken, default 1000)
// Without --display a private Xvfb is started and stopped. The module is the one index.js loads.
const fs = require('node:fs');
const path = require('node:path');
const v8 = require('node:v8');
const { parseArgs } = require('node:util');
const { fork, spawnSync } = require('node:child_process');
const {
  repoDir, modulePath, toolEnv, startXvfb, sleep, Injector, streamMoves,
} = require('../tests/js/support.js');

const MiB = 1024 * 1024;

function parseOptions(args) {
  const numbers = { cycles: '10000', objects: '10000', warmup: '1000', hours: '0', rate: '1000' };
  const { values } = parseArgs({ args, options: {
    ...Object.fromEntries(Object.entries(numbers).map(([name, value]) => [name, { type: 'string', default: value }])),
    display: { type: 'string', default: '' },
    child: { type: 'boolean', default: false },
  } });
  for (const name of Object.keys(numbers)) {
    const value = Number(values[name]);
    if (!(value >= 0)) throw new Error(`bad --${name} ${values[name]}`);
    values[name] = value;
  }
  return values;
}

// ---- the workload (child process) ----

const immediate = () => new Promise((resolve) => setImmediate(resolve));

/** Descriptors open now (the one the listing itself uses is not counted). */
function openDescriptors() {
  return fs.readdirSync('/proc/self/fd').length - 1;
}

/**
 * Connections of this process to an X server: its unix sockets whose peer is bound to /tmp/.X11-unix/X<n>
 * (or the abstract name of it). A client socket is unbound, so its peer is looked up with ss; the peer's name is
 * in /proc/net/unix.
 */
function xConnections() {
  const own = new Set();
  for (const fd of fs.readdirSync('/proc/self/fd')) {
    let target = '';
    try {
      target = fs.readlinkSync(`/proc/self/fd/${fd}`);
    } catch {
      continue;
    }
    const match = /^socket:\[(\d+)\]$/.exec(target);
    if (match) own.add(match[1]);
  }
  const names = new Map();
  for (const line of fs.readFileSync('/proc/net/unix', 'utf8').split('\n').slice(1)) {
    const fields = line.trim().split(/\s+/);
    if (fields.length >= 8) names.set(fields[6], fields[7]);
  }
  const ss = spawnSync('ss', ['-x', '-a', '-n', '-H'], { encoding: 'utf8', env: toolEnv() });
  if (ss.status !== 0) return NaN;
  let count = 0;
  for (const line of ss.stdout.split('\n')) {
    const fields = line.trim().split(/\s+/);
    if (fields.length < 8) continue;
    const [localInode, peerInode] = [fields[5], fields[7]];
    if (own.has(localInode) && /^@?\/tmp\/\.X11-unix\/X\d+$/.test(names.get(peerInode) || '')) ++count;
  }
  return count;
}

/** Live libuv async handles of this thread's loop (each native capture object owns one). */
function asyncHandles() {
  return process.report.getReport().libuv.filter((handle) => handle.type === 'async').length;
}

async function collect(rounds = 4) {
  for (let i = 0; i < rounds; ++i) {
    global.gc();
    await immediate();
    await sleep(1);
  }
}

async function snapshot(label) {
  await collect();
  const memory = process.memoryUsage();
  const heap = v8.getHeapStatistics();
  return {
    label,
    rss: memory.rss,
    heapUsed: memory.heapUsed,
    // Resident memory outside the script engine's heap: what native code (the module, Xlib, libuv, threads) holds.
    native: memory.rss - heap.total_physical_size,
    descriptors: openDescriptors(),
    xConnections: xConnections(),
    asyncHandles: asyncHandles(),
  };
}

// What the workload did; `finalized` counts wrappers reached by the registry (kept here, so that the registry
// outlives the objects it watches).
const counts = {
  sent: 0, received: 0, lostCycles: 0, cycles: 0, objects: 0, dropped: 0, finalized: 0, startedAndDropped: 0,
};
const registry = new FinalizationRegistry(() => { ++counts.finalized; });

/** Collects until `counts.finalized` reaches `wanted` (or 200 rounds pass). */
async function finalizeUntil(wanted) {
  for (let round = 0; round < 200 && counts.finalized < wanted; ++round) await collect(1);
}

async function runWorkload(options, snapshots) {
  const z = require(path.join(repoDir, 'index.js'));
  const report = (message) => process.send(message);

  z.diagnostics.setLogHandler(() => {});
  snapshots.push(await snapshot('loaded'));

  const background = streamMoves({ rate: options.rate, move: [0, 1], display: options.display });
  const counter = new Injector({ display: options.display });

  // Phase 1: start/stop cycles of one capture object (a new one per call, dropped at the end). Its callback
  // forwards to `sink`: a callback whose closure reached the capture object would keep it alive for ever (the
  // native object holds its callbacks strongly, and the callbacks would hold the wrapper).
  const sink = { onRecord: null };
  async function cycles(count) {
    const capture = z.hardware.capturePointer();
    ++counts.objects;
    registry.register(capture, null);
    capture.setMotionEventCallback(forwardTo(sink));
    capture.setButtonsEventCallback(() => {});
    for (let i = 0; i < count; ++i) {
      let live = false;
      let counted = 0;
      let wake = null;
      sink.onRecord = (record) => {
        if (record.offset.x !== 0) ++counted;
        else live = true;
        wake?.();
      };
      const until = async (done, ms) => {
        const end = Date.now() + ms;
        while (!done() && Date.now() < end) {
          await new Promise((resolve) => {
            wake = resolve;
            setTimeout(resolve, 50);
          });
        }
        wake = null;
        return done();
      };
      capture.startCapturing();
      // The reader delivers the background moves once it has selected its events; then two counted moves
      // (right and back) must both arrive before the stop.
      let sent = 0;
      if (await until(() => live, 5000)) {
        await counter.run('move 1 0', 'move -1 0');
        sent = 2;
        await until(() => counted >= 2, 5000);
      }
      capture.stopCapturing();
      // Records queued before the stop are delivered in the next turn of the loop: let them pass, so that none
      // is taken for the next cycle's reader's (and a counted one that came late is still counted).
      await sleep(0);
      await immediate();
      sink.onRecord = null;
      counts.sent += sent;
      counts.received += counted;
      if (sent !== 2 || counted !== 2) ++counts.lostCycles;
      ++counts.cycles;
      if (counts.cycles % 1000 === 0) report({ progress: `cycles ${counts.cycles}` });
    }
  }

  // Phase 2: capture objects made and dropped, in groups of ten whose first is started and dropped running
  // (one driver serves every capture, so a running one must be collected before the next can start).
  async function objects(count) {
    for (let made = 0; made < count;) {
      const size = Math.min(10, count - made);
      (() => {
        for (let i = 0; i < size; ++i) {
          const object = z.hardware.capturePointer();
          object.setMotionEventCallback(() => {});
          object.setButtonsEventCallback(() => {});
          if (i === 0) {
            object.startCapturing();
            ++counts.startedAndDropped;
          }
          registry.register(object, null);
        }
      })();
      counts.objects += size;
      counts.dropped += size;
      made += size;
      await finalizeUntil(counts.objects);  // the phase-1 capture of this round too
      if (counts.dropped % 1000 < size) report({ progress: `objects ${counts.dropped}` });
    }
  }

  // Warm-up: the first readers, collections and deliveries size the heaps, allocator arenas and caches that later
  // ones reuse (measured: resident memory outside the engine's heap climbs some 3 MiB over the first thousand
  // cycles after 200, then stays within about 1 MiB over tens of thousands).
  z.hardware.getButtonState(0);
  await cycles(options.warmup);
  await objects(options.warmup);
  snapshots.push(await snapshot('start'));
  const began = Date.now();

  const roundEnd = options.hours > 0 ? began + options.hours * 3600 * 1000 : 0;
  let round = 0;
  do {
    ++round;
    await cycles(options.cycles);
    snapshots.push(await snapshot(`round ${round}: after ${options.cycles} cycles`));
    await objects(options.objects);
    snapshots.push(await snapshot(`round ${round}: after ${options.objects} objects`));
    report({ round, snapshot: snapshots[snapshots.length - 1], seconds: (Date.now() - began) / 1000 });
  } while (roundEnd && Date.now() < roundEnd);

  await finalizeUntil(counts.objects);
  snapshots.push(await snapshot('end'));
  await background.stop();
  await counter.close();
  return { round, seconds: (Date.now() - began) / 1000 };
}

/** A motion callback that forwards to `sink.onRecord`; its closure holds nothing else. */
function forwardTo(sink) {
  return (record) => sink.onRecord?.(record);
}

async function child() {
  const options = parseOptions(process.argv.slice(2));
  const snapshots = [];
  const { round, seconds } = await runWorkload(options, snapshots);
  process.send({ result: { snapshots, counts, round, seconds } });
  process.disconnect();
}

// ---- the driver (parent process) ----

const mib = (bytes) => `${(bytes / MiB).toFixed(2)} MiB`;

function printSnapshot(s) {
  console.log(`  ${s.label.padEnd(34)} rss ${mib(s.rss).padStart(11)}  outside the engine's heap ${mib(s.native).padStart(11)}  `
    + `heap used ${mib(s.heapUsed).padStart(10)}  `
    + `fds ${String(s.descriptors).padStart(3)}  X connections ${s.xConnections}  async handles ${s.asyncHandles}`);
}

async function main() {
  const options = parseOptions(process.argv.slice(2));
  if (options.child) return child();
  if (typeof global.gc !== 'function') {
    // Run again with collection exposed.
    const again = spawnSync(process.execPath, ['--expose-gc', __filename, ...process.argv.slice(2)], { stdio: 'inherit' });
    process.exit(again.status ?? 1);
  }

  const server = options.display ? null : await startXvfb();
  const display = options.display || server.display;
  const args = ['--cycles', options.cycles, '--objects', options.objects, '--warmup', options.warmup, '--hours', options.hours,
    '--rate', options.rate, '--display', display, '--child'].map(String);
  console.log(`soak: ${options.cycles} start/stop cycles and ${options.objects} capture objects per round`
    + `${options.hours ? `, rounds for ${options.hours} h` : ''}; moves at ${options.rate}/s on ${display}; `
    + `module from ${modulePath()}`);

  const started = Date.now();
  const worker = fork(__filename, args, {
    execArgv: ['--expose-gc'],
    env: { ...process.env, DISPLAY: display },
    stdio: ['ignore', 'pipe', 'inherit', 'ipc'],
  });
  // The native log of the child, line by line.
  const lines = { 'Native: capture pointer': 0, 'Pointer capture released': 0, other: 0 };
  let pending = '';
  worker.stdout.setEncoding('utf8').on('data', (chunk) => {
    pending += chunk;
    const parts = pending.split('\n');
    pending = parts.pop();
    for (const line of parts) {
      if (line in lines) ++lines[line];
      else {
        ++lines.other;
        if (lines.other <= 20) console.log(`  child: ${line}`);
      }
    }
  });
  let result = null;
  worker.on('message', (message) => {
    if (message.progress) console.log(`  ${message.progress} (${((Date.now() - started) / 1000).toFixed(0)} s)`);
    if (message.round) printSnapshot(message.snapshot);
    if (message.result) result = message.result;
  });
  const ended = await new Promise((resolve) => worker.on('close', (status, signal) => resolve({ status, signal })));
  await server?.stop();
  if (!result) {
    console.log(`soak: the workload ended with status ${ended.status} signal ${ended.signal} and no result`);
    process.exit(1);
  }

  const { snapshots, counts } = result;
  console.log('snapshots:');
  for (const s of snapshots) printSnapshot(s);
  const start = snapshots.find((s) => s.label === 'start');
  const end = snapshots[snapshots.length - 1];
  // Every object made: the phase-1 captures (one per round and one for the warm-up) and the phase-2 ones.
  const made = counts.objects;
  const checks = [
    [`resident memory outside the engine's heap within 1 MiB (start ${mib(start.native)}, end ${mib(end.native)}, `
      + `change ${((end.native - start.native) / MiB).toFixed(2)} MiB; all resident memory ${mib(start.rss)} -> `
      + `${mib(end.rss)}, engine heap in use ${mib(start.heapUsed)} -> ${mib(end.heapUsed)})`,
    Math.abs(end.native - start.native) <= MiB],
    [`script heap in use within 1 MiB after collection (change ${((end.heapUsed - start.heapUsed) / MiB).toFixed(2)} MiB)`,
      Math.abs(end.heapUsed - start.heapUsed) <= MiB],
    [`open descriptors unchanged (${start.descriptors} -> ${end.descriptors})`, end.descriptors === start.descriptors],
    Number.isNaN(start.xConnections)
      ? ['X connections not counted (ss, of iproute2, is missing)', true]
      : [`X connections unchanged (${start.xConnections} -> ${end.xConnections})`, end.xConnections === start.xConnections],
    [`live async handles: ${snapshots[0].asyncHandles} before any capture, ${start.asyncHandles} at the start, `
      + `${end.asyncHandles} at the end`,
    end.asyncHandles === snapshots[0].asyncHandles && start.asyncHandles === snapshots[0].asyncHandles],
    [`counted records: sent ${counts.sent}, received ${counts.received}, cycles short of them ${counts.lostCycles}`,
      counts.sent === counts.received && counts.lostCycles === 0],
    [`native capture objects: made ${lines['Native: capture pointer']} (expected ${made}), `
      + `wrappers finalized ${counts.finalized}`,
    lines['Native: capture pointer'] === made && counts.finalized === made],
    [`readers joined ("Pointer capture released"): ${lines['Pointer capture released']} `
      + `(expected ${counts.cycles + counts.startedAndDropped}: ${counts.cycles} stops, `
      + `${counts.startedAndDropped} running captures collected)`,
    lines['Pointer capture released'] === counts.cycles + counts.startedAndDropped],
    [`no other native output (${lines.other} lines)`, lines.other === 0],
    [`workload ended normally (status ${ended.status}, signal ${ended.signal})`, ended.status === 0],
  ];
  console.log(`results (${result.round} round(s), ${result.seconds.toFixed(1)} s after warm-up, counts include the warm-up; `
    + `${((Date.now() - started) / 1000).toFixed(1)} s in all):`);
  for (const [text, ok] of checks) console.log(`  ${ok ? 'ok  ' : 'FAIL'} ${text}`);
  process.exit(checks.every(([, ok]) => ok) ? 0 : 1);
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
