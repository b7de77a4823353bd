'use strict';
// Pointer capture measurements in one node process, against the X display in $DISPLAY; prints one JSON line.
//
//   node --expose-gc bench/pointer_bench.js latency [N]        N moves (after 200 warm-up moves) paced at 1 kHz:
//                                                             injection to motion callback, matched by order
//   node --expose-gc bench/pointer_bench.js throughput [N W]   N moves back to back in a checkable pattern, after a
//                                                             warm-up burst of W: count, order, records/s, C heap
//                                                             and resident growth
//   node --expose-gc bench/pointer_bench.js sustained [N R]    N moves at R per second: count and CPU shares
//   node --expose-gc bench/pointer_bench.js idle capture|baseline [MS]
//                                                             process CPU time over MS ms with no input, capturing
//                                                             or only with the module loaded
const lib = require('./lib');

const { paths, sleep } = lib;
const gc = global.gc || (() => { throw new Error('run with --expose-gc'); });

const bridge = require(paths.bridge);
const napi = require(paths.napiModule);

const state = {
  count: 0,
  onMotion: null,
};

function newCapture() {
  const capture = bridge.hardware.capturePointer();
  capture.setMotionEventCallback((event) => {
    state.count++;
    if (state.onMotion) state.onMotion(event);
  });
  capture.setButtonsEventCallback(() => {});
  return capture;
}

/** Injects single moves until the capture delivers one: the reader thread has selected its events. */
async function waitUntilCapturing() {
  for (let attempt = 0; attempt < 100; ++attempt) {
    const before = state.count;
    await lib.run(paths.xinject, ['move', '1', '0']);
    const until = Date.now() + 100;
    while (Date.now() < until && state.count === before) await sleep(2);
    if (state.count > before) {
      await sleep(100);
      state.count = 0;
      return;
    }
  }
  throw new Error('the capture delivers no motion');
}

/** Lets pending callbacks run, then collects the garbage (twice, with a loop turn between). */
async function settle() {
  await sleep(100);
  gc();
  await sleep(50);
  gc();
  await sleep(10);
}

/** Waits until `state.count` reaches `target`, or no record arrived for `quietMs`. */
async function waitForRecords(target, quietMs = 2000) {
  let last = state.count;
  let lastChange = Date.now();
  while (state.count < target) {
    await sleep(5);
    if (state.count !== last) {
      last = state.count;
      lastChange = Date.now();
    } else if (Date.now() - lastChange > quietMs) {
      break;
    }
  }
}

async function latency(measured) {
  const warmUp = 200;
  const total = warmUp + measured;
  const received = new BigInt64Array(total);
  let wrongOffsets = 0;
  const capture = newCapture();
  capture.startCapturing();
  await waitUntilCapturing();
  state.onMotion = (event) => {
    const i = state.count - 1;
    if (i < total) received[i] = process.hrtime.bigint();
    if (event.offset.x !== 1 || event.offset.y !== 0) wrongOffsets++;
  };
  const dir = lib.scratchDir('latency');
  const sendFile = `${dir}/sent.txt`;
  await lib.run(paths.xinject, ['-t', 'move', '1', '0', '-n', String(total), '-r', '1000'], { stdoutFile: sendFile });
  await waitForRecords(total);
  capture.stopCapturing();
  const sent = lib.readSendTimes(sendFile);
  const delivered = state.count;
  const latencies = [];
  for (let i = warmUp; i < Math.min(sent.length, delivered, total); ++i) latencies.push(Number(received[i] - sent[i]));
  return { sent: sent.length, delivered, lost: sent.length - delivered, wrongOffsets, ...lib.latencyStats(latencies), latencies };
}

async function throughput(total, warmUpBurst) {
  const pattern = lib.movePattern(total);
  let mismatches = 0;
  let first = 0n;
  let last = 0n;
  const capture = newCapture();
  // A first capture round with a shorter burst: creates what lives as long as the component (the driver, first-use
  // statics), compiles the hot paths and fills the allocator's per-thread caches, so that the starting level below
  // is the steady state.
  capture.startCapturing();
  await waitUntilCapturing();
  const warmUp = lib.movePattern(warmUpBurst);
  state.onMotion = (event) => {
    const [dx, dy] = warmUp.expected(state.count - 1);
    if (event.offset.x !== dx || event.offset.y !== dy) mismatches++;
    last = process.hrtime.bigint();
  };
  await lib.run(paths.xinject, ['script'], { input: warmUp.script });
  await waitForRecords(warmUpBurst);
  state.onMotion = null;
  capture.stopCapturing();
  const warmUpDelivered = state.count;
  const warmUpMismatches = mismatches;
  mismatches = 0;

  // Starting levels: no capture running, the garbage collected.
  await settle();
  const mallocStart = napi.mallocInUse();
  const rssStart = process.memoryUsage().rss;
  const heapStart = process.memoryUsage().heapTotal;

  capture.startCapturing();
  await waitUntilCapturing();
  const mallocCapturing = napi.mallocInUse();
  const mainCpuStart = lib.threadCpuMs(process.pid);
  state.onMotion = (event) => {
    const now = process.hrtime.bigint();
    const i = state.count - 1;
    if (i === 0) first = now;
    last = now;
    const [dx, dy] = pattern.expected(i);
    if (event.offset.x !== dx || event.offset.y !== dy) mismatches++;
  };
  await lib.run(paths.xinject, ['script'], { input: pattern.script });
  await waitForRecords(total);
  const delivered = state.count;
  const mainCpuMs = lib.threadCpuMs(process.pid) - mainCpuStart;
  state.onMotion = null;

  // Drained (every record delivered); still capturing: what the reader's connection holds now.
  await settle();
  const mallocDrained = napi.mallocInUse();
  const rssDrained = process.memoryUsage().rss;
  // The capture stopped: its connection is closed.
  capture.stopCapturing();
  await settle();
  const mallocEnd = napi.mallocInUse();
  const rssEnd = process.memoryUsage().rss;
  const heapEnd = process.memoryUsage().heapTotal;
  const newSpace = require('v8').getHeapSpaceStatistics().find((space) => space.space_name === 'new_space');
  const seconds = Number(last - first) / 1e9;
  return {
    sent: total,
    delivered,
    lost: total - delivered,
    mismatches,
    warmUp: { sent: warmUpBurst, delivered: warmUpDelivered, mismatches: warmUpMismatches },
    seconds,
    recordsPerSecond: delivered > 1 ? (delivered - 1) / seconds : 0,
    mainCpuMs,
    mallocStart,
    mallocCapturing,
    mallocDrained,
    mallocEnd,
    mallocGrowth: mallocEnd - mallocStart,
    mallocHeldWhileCapturing: mallocDrained - mallocCapturing,
    rssStart,
    rssDrained,
    rssEnd,
    rssGrowth: rssEnd - rssStart,
    peakRssGrowth: lib.peakRss() - rssStart,
    heapStart,
    heapEnd,
    newSpaceSize: newSpace ? newSpace.space_size : 0,
  };
}

async function sustained(total, rate) {
  let wrongOffsets = 0;
  let lastAt = 0n;
  const threadsBefore = new Set(lib.threadIds());
  const capture = newCapture();
  capture.startCapturing();
  const readerTids = lib.threadIds().filter((tid) => !threadsBefore.has(tid));
  await waitUntilCapturing();
  state.onMotion = (event) => {
    lastAt = process.hrtime.bigint();
    if (event.offset.x !== 1 || event.offset.y !== 0) wrongOffsets++;
  };
  const readerTid = readerTids.length === 1 ? readerTids[0] : 0;
  const startAt = process.hrtime.bigint();
  const main0 = lib.threadCpuMs(process.pid);
  const reader0 = readerTid ? lib.threadCpuMs(readerTid) : NaN;
  const process0 = lib.processCpuMs();
  await lib.run(paths.xinject, ['move', '1', '0', '-n', String(total), '-r', String(rate)]);
  await waitForRecords(total);
  const main1 = lib.threadCpuMs(process.pid);
  const reader1 = readerTid ? lib.threadCpuMs(readerTid) : NaN;
  const process1 = lib.processCpuMs();
  const wallMs = Number(lastAt - startAt) / 1e6;
  const delivered = state.count;
  capture.stopCapturing();
  return {
    sent: total,
    delivered,
    lost: total - delivered,
    wrongOffsets,
    wallMs,
    mainCpuMs: main1 - main0,
    readerCpuMs: reader1 - reader0,
    processCpuMs: process1 - process0,
    mainShare: (main1 - main0) / wallMs,
    readerShare: (reader1 - reader0) / wallMs,
    processShare: (process1 - process0) / wallMs,
  };
}

async function idle(withCapture, ms) {
  let capture = null;
  if (withCapture) {
    capture = newCapture();
    capture.startCapturing();
  }
  await sleep(1000);
  const main0 = lib.threadCpuMs(process.pid);
  const cpu0 = lib.processCpuMs();
  const t0 = process.hrtime.bigint();
  await sleep(ms);
  const cpu1 = lib.processCpuMs();
  const main1 = lib.threadCpuMs(process.pid);
  const wallMs = Number(process.hrtime.bigint() - t0) / 1e6;
  if (capture) capture.stopCapturing();
  return { capturing: withCapture, wallMs, processCpuMs: cpu1 - cpu0, mainCpuMs: main1 - main0, records: state.count };
}

async function main() {
  const [mode, a, b] = process.argv.slice(2);
  let result;
  if (mode === 'latency') result = await latency(Number(a || 2000));
  else if (mode === 'throughput') result = await throughput(Number(a || 100000), Number(b || 20000));
  else if (mode === 'sustained') result = await sustained(Number(a || 80000), Number(b || 8000));
  else if (mode === 'idle') result = await idle(a === 'capture', Number(b || 10000));
  else throw new Error(`unknown mode ${mode}`);
  process.stdout.write(JSON.stringify({ mode, ...result }) + '\n');
  bridge.shutdown();
}

main().catch((error) => {
  process.stderr.write(`${error.stack || error}\n`);
  process.exit(1);
});
