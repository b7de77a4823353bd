'use strict';
// Call overhead of the binding against the same operations written with Node-API (node-addon-api), and the
// cost of the event layer's delivery against the native callback's; prints one JSON line with nanoseconds per
// call (best round), ours and the reference, per operation.
//
//   node bench/call_bench.js [--quick]
const lib = require('./lib');
const { PointerEmitter } = require('../lib/pointer.js');

const ours = require(lib.paths.benchModule).bench;
const napi = require(lib.paths.napiModule);
const wrapped = new napi.Bench();

const quick = process.argv.includes('--quick');
const rounds = quick ? 3 : 9;

/** Nanoseconds per unit of `body(n)` (which performs n units), best of `rounds` rounds, ours and reference interleaved. */
function compare(n, oursBody, refBody) {
  let bestOurs = Infinity;
  let bestRef = Infinity;
  oursBody(Math.max(1, n >> 4)); // warm-up: compiled, inline caches settled
  refBody(Math.max(1, n >> 4));
  for (let r = 0; r < rounds; ++r) {
    let start = process.hrtime.bigint();
    oursBody(n);
    bestOurs = Math.min(bestOurs, Number(process.hrtime.bigint() - start) / n);
    start = process.hrtime.bigint();
    refBody(n);
    bestRef = Math.min(bestRef, Number(process.hrtime.bigint() - start) / n);
  }
  return { ours: bestOurs, ref: bestRef, ratio: bestOurs / bestRef };
}

const record = { offset: { x: 3, y: -4 }, screenPoint: { x: 640, y: 512 } };
let sink = 0;
const onMotion = (event) => {
  sink += event.offset.x + event.screenPoint.x;
};

// Same results from both sides first: the timings compare equal work.
ours.takeRecord(record);
wrapped.takeRecord(record);
const seen = [];
ours.setMotionCallback((event) => seen.push(JSON.stringify(event)));
wrapped.setMotionCallback((event) => seen.push(JSON.stringify(event)));
ours.deliverMotion(2);
wrapped.deliverMotion(2);
if (ours.recordSum() !== wrapped.recordSum() || seen[0] !== seen[2] || seen[1] !== seen[3]) {
  throw new Error(`the two modules disagree: ${ours.recordSum()} ${wrapped.recordSum()} ${seen.join(' ')}`);
}
ours.setMotionCallback(onMotion);
wrapped.setMotionCallback(onMotion);

// The event layer over a capture whose records come from deliverMotion: the callback the layer sets on its
// capture is the one the bench component calls.
let layerCallback = null;
const layer = new PointerEmitter({
  capturePointer: () => ({
    setMotionEventCallback: (callback) => { layerCallback = callback; },
    setButtonsEventCallback: () => {},
    startCapturing: () => {},
    stopCapturing: () => {},
  }),
});
layer.on('motion', onMotion);
const layerSeen = [];
const sumBefore = sink;
ours.setMotionCallback(layerCallback);
ours.deliverMotion(2);
ours.setMotionCallback((event) => layerSeen.push(event));
ours.deliverMotion(2);
if (sink - sumBefore !== layerSeen.reduce((sum, event) => sum + event.offset.x + event.screenPoint.x, 0)) {
  throw new Error('the layer delivered other records than the callback');
}

const scale = quick ? 0.2 : 1;
const calls = Math.round(2e6 * scale);
const records = Math.round(2e5 * scale);

const result = {
  noopMethod: compare(
    calls,
    (n) => { for (let i = 0; i < n; ++i) ours.noop(); },
    (n) => { for (let i = 0; i < n; ++i) wrapped.noop(); },
  ),
  noopFunction: compare(
    calls,
    (n) => { for (let i = 0; i < n; ++i) ours.freeNoop(); },
    (n) => { for (let i = 0; i < n; ++i) napi.noop(); },
  ),
  takeRecord: compare(
    records,
    (n) => { for (let i = 0; i < n; ++i) ours.takeRecord(record); },
    (n) => { for (let i = 0; i < n; ++i) wrapped.takeRecord(record); },
  ),
  deliverRecord: compare(
    records,
    (n) => ours.deliverMotion(n),
    (n) => wrapped.deliverMotion(n),
  ),
  // Ours: a 'motion' listener of the event layer; reference: the same function as the native callback.
  layerDelivery: compare(
    records,
    (n) => { ours.setMotionCallback(layerCallback); ours.deliverMotion(n); },
    (n) => { ours.setMotionCallback(onMotion); ours.deliverMotion(n); },
  ),
};
if (!(sink > 0)) throw new Error('the callbacks did not run');
process.stdout.write(JSON.stringify(result) + '\n');
