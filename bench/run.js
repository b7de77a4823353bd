'use strict';
// Runs every benchmark on a private Xvfb, prints one table, writes it as Markdown and draws the
// latency distributions as an SVG chart.
//
//   node bench/run.js [--out FILE] [--chart FILE] [--quick]
//
// --out: the Markdown table (default bench/results.md); --chart: the chart (default bench/latency.svg);
// --quick shortens every run (for trying the harness; its figures are not the documented ones).
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');
const { execFileSync, spawn } = require('node:child_process');
const lib = require('./lib');
const { percentiles, startXvfb } = require('../tests/js/support.js');
const { latencyChartSvg } = require('./latencychart');

const { paths } = lib;
const { values: options } = parseArgs({
  options: {
    quick: { type: 'boolean', default: false },
    out: { type: 'string', default: path.join(__dirname, 'results.md') },
    chart: { type: 'string', default: path.join(__dirname, 'latency.svg') },
  },
});
const { quick } = options;
const outFile = path.resolve(options.out);
const chartFile = path.resolve(options.chart);

const sizes = quick
  ? { latencyMoves: 500, latencyRounds: 1, burst: 20000, sustainedMoves: 16000, idleMs: 2000 }
  : { latencyMoves: 2000, latencyRounds: 5, burst: 100000, sustainedMoves: 80000, idleMs: 10000 };
const sustainedRate = 8000;
const warmUp = 200;

function log(text) {
  process.stderr.write(`bench: ${text}\n`);
}

/** Runs `node [flags] bench/pointer_bench.js ...args` and returns its JSON result. */
function pointerBench(...benchArgs) {
  return new Promise((resolve, reject) => {
    const child = spawn(process.execPath, ['--expose-gc', path.join(__dirname, 'pointer_bench.js'), ...benchArgs.map(String)],
      { stdio: ['ignore', 'pipe', 'inherit'] });
    let out = '';
    child.stdout.on('data', (chunk) => { out += chunk; });
    child.on('error', reject);
    child.on('exit', (code) => {
      if (code !== 0) reject(new Error(`pointer_bench ${benchArgs.join(' ')} failed (${code})`));
      else resolve(JSON.parse(out.trim().split('\n').pop()));
    });
  });
}

// ---- the reference readers ----

// The readers the module is compared with: the same raw reads with one hand-off from a reader thread to a waiting
// thread (the limit of the module's design, the headline), and with none at all (the floor).
const references = {
  handoff: { name: 'xhandoff', program: paths.xhandoff },
  single: { name: 'xreader', program: paths.xreader },
};

async function referenceLatency(reference, measured) {
  const total = warmUp + measured;
  const dir = lib.scratchDir(`${reference.name}-latency`);
  const reader = await lib.startReader(reference.program, total, `${dir}/read.txt`, 60000);
  await lib.run(paths.xinject, ['-t', 'move', '1', '0', '-n', String(total), '-r', '1000'], { stdoutFile: `${dir}/sent.txt` });
  await reader.done();
  const sent = lib.readSendTimes(`${dir}/sent.txt`);
  const motions = lib.readReaderMotions(`${dir}/read.txt`);
  const latencies = [];
  for (let i = warmUp; i < Math.min(sent.length, motions.length); ++i) latencies.push(Number(motions[i].t - sent[i]));
  const wrongOffsets = motions.filter((m) => m.dx !== 1 || m.dy !== 0).length;
  return { sent: sent.length, delivered: motions.length, lost: sent.length - motions.length, wrongOffsets, latencies };
}

async function referenceThroughput(reference, total) {
  const pattern = lib.movePattern(total);
  const dir = lib.scratchDir(`${reference.name}-throughput`);
  const reader = await lib.startReader(reference.program, total, `${dir}/read.txt`, 120000);
  await lib.run(paths.xinject, ['script'], { input: pattern.script });
  const { maxRssKiB } = await reader.done();
  const motions = lib.readReaderMotions(`${dir}/read.txt`);
  let mismatches = 0;
  motions.forEach((m, i) => {
    const [dx, dy] = pattern.expected(i);
    if (m.dx !== dx || m.dy !== dy) mismatches++;
  });
  const seconds = motions.length > 1 ? Number(motions[motions.length - 1].t - motions[0].t) / 1e9 : 0;
  return {
    sent: total,
    delivered: motions.length,
    lost: total - motions.length,
    mismatches,
    seconds,
    recordsPerSecond: motions.length > 1 ? (motions.length - 1) / seconds : 0,
    maxRssKiB,
  };
}

async function referenceSustained(reference, total, rate) {
  const dir = lib.scratchDir(`${reference.name}-sustained`);
  const reader = await lib.startReader(reference.program, total, `${dir}/read.txt`, 120000);
  await lib.run(paths.xinject, ['move', '1', '0', '-n', String(total), '-r', String(rate)]);
  const { cpuMs } = await reader.done();
  const motions = lib.readReaderMotions(`${dir}/read.txt`);
  const wrongOffsets = motions.filter((m) => m.dx !== 1 || m.dy !== 0).length;
  const wallMs = motions.length > 1 ? Number(motions[motions.length - 1].t - motions[0].t) / 1e6 : NaN;
  return { sent: total, delivered: motions.length, lost: total - motions.length, wrongOffsets, cpuMs, wallMs,
    processShare: cpuMs / wallMs };
}

// ---- microbenchmarks ----

function runProgram(file, programArgs) {
  try {
    return execFileSync(file, programArgs, { encoding: 'utf8', stdio: ['ignore', 'pipe', 'ignore'] });
  } catch (error) {
    return error.stdout || '';
  }
}

function formatBench() {
  const out = runProgram(paths.formatBench, ['--benchmark_filter=^$']);
  const ns = (label) => {
    const m = new RegExp(`${label}\\S*\\s+([\\d.]+) ns/call`).exec(out);
    return m ? Number(m[1]) : NaN;
  };
  return { format: ns('format\\("'), stream: ns('hand-written ostringstream'), output: out };
}

/**
 * The summary lines of the object model benchmark, when that benchmark is built:
 * "  NAME   OURS   THEIRS   RATIO   <= TARGET met|MISSED" or "... (none)".
 */
function comBench() {
  if (!fs.existsSync(paths.comBench)) return null;
  const out = runProgram(paths.comBench, ['--benchmark_filter=^$']);
  const pairs = [];
  for (const line of out.split('\n')) {
    const m = /^ {2}(.*?)\s+([\d.]+)\s+([\d.]+)\s+([\d.]+)\s+(?:<=\s*([\d.]+)\s+(met|MISSED)|\(none\))\s*$/.exec(line);
    if (m) {
      pairs.push({ name: m[1].trim(), ours: Number(m[2]), theirs: Number(m[3]), ratio: Number(m[4]),
        target: m[5] ? Number(m[5]) : null });
    }
  }
  return { pairs, output: out };
}

function callBench() {
  const out = execFileSync(process.execPath, [path.join(__dirname, 'call_bench.js'), ...(quick ? ['--quick'] : [])],
    { encoding: 'utf8' });
  return JSON.parse(out.trim().split('\n').pop());
}

// ---- the table ----

/** `value.toFixed(digits)` without a negative zero. */
const fixed = (value, digits) => {
  const text = value.toFixed(digits);
  return /^-0\.?0*$/.test(text) ? text.slice(1) : text;
};

const fmt = {
  us: (v) => (Number.isFinite(v) ? `${fixed(v, 1)} µs` : 'n/a'),
  ns: (v) => (Number.isFinite(v) ? `${fixed(v, 1)} ns` : 'n/a'),
  ms: (v) => (Number.isFinite(v) ? `${fixed(v, 1)} ms` : 'n/a'),
  pct: (v) => (Number.isFinite(v) ? `${(v * 100).toFixed(1)} %` : 'n/a'),
  rate: (v) => (Number.isFinite(v) ? `${Math.round(v).toLocaleString('en-US')} /s` : 'n/a'),
  kib: (v) => (Number.isFinite(v) ? `${fixed(v / 1024, 1)} KiB` : 'n/a'),
  mib: (v) => (Number.isFinite(v) ? `${fixed(v / 1048576, 1)} MiB` : 'n/a'),
  ratio: (v) => (Number.isFinite(v) ? v.toFixed(2) : '—'),
};

function row(figure, ours, reference, ratio, target, met) {
  return { figure, ours, reference: reference ?? '—', ratio: ratio ?? '—', target: target ?? '—', met: met ?? '—' };
}

const yesNo = (ok) => (ok ? 'yes' : '**no**');

function renderText(rows) {
  const headers = ['figure', 'ours', 'reference', 'ratio', 'target', 'met?'];
  const cells = rows.map((r) => [r.figure, r.ours, r.reference, r.ratio, r.target, r.met.replace(/\*/g, '')]);
  const widths = headers.map((h, i) => Math.max(h.length, ...cells.map((c) => c[i].length)));
  const line = (c) => c.map((v, i) => v.padEnd(widths[i])).join('  ');
  return [line(headers), line(widths.map((w) => '-'.repeat(w))), ...cells.map(line)].join('\n');
}

function renderMarkdown(rows) {
  const esc = (v) => v.replace(/\|/g, '\\|');
  return [
    '| figure | ours | reference | ratio | target | met? |',
    '|---|---:|---:|---:|---|---|',
    ...rows.map((r) => `| ${esc(r.figure)} | ${esc(r.ours)} | ${esc(r.reference)} | ${r.ratio} | ${esc(r.target)} | ${r.met} |`),
  ].join('\n');
}

function cpuModel() {
  const m = /^model name\s*:\s*(.*)$/m.exec(fs.readFileSync('/proc/cpuinfo', 'utf8'));
  return m ? m[1].trim() : 'unknown';
}

async function main() {
  for (const [name, file] of Object.entries(paths)) {
    if (name !== 'comBench' && !fs.existsSync(file)) throw new Error(`${file} is missing: build the "release" preset first`);
  }
  // Every figure is taken on a private server: nothing else moves its pointer.
  const server = await startXvfb();
  process.env.DISPLAY = server.display;
  try {
    await measureAll();
  } finally {
    await server.stop();
  }
}

async function measureAll() {
  const started = new Date();
  const loadBefore = os.loadavg();
  const results = {};

  log(`latency: ${sizes.latencyRounds} rounds of ${sizes.latencyMoves} moves at 1 kHz, ours then xhandoff then xreader`);
  const latencyRuns = { ours: [], handoff: [], single: [] };
  for (let r = 0; r < sizes.latencyRounds; ++r) {
    latencyRuns.ours.push(await pointerBench('latency', sizes.latencyMoves));
    latencyRuns.handoff.push(await referenceLatency(references.handoff, sizes.latencyMoves));
    latencyRuns.single.push(await referenceLatency(references.single, sizes.latencyMoves));
  }
  // Each statistic is the median over the rounds (each round's figure is over its own timed moves): a round
  // disturbed by another process on the machine moves it less than pooling all samples would.
  const median = (values) => percentiles(values, [50]).p50;
  const pool = (runs) => {
    const rounds = runs.map((run) => lib.latencyStats(run.latencies));
    return {
      count: rounds[0].count,
      p50: median(rounds.map((r) => r.p50)),
      p99: median(rounds.map((r) => r.p99)),
      max: median(rounds.map((r) => r.max)),
      sent: runs.reduce((s, run) => s + run.sent, 0),
      lost: runs.reduce((s, run) => s + run.lost, 0),
      wrongOffsets: runs.reduce((s, run) => s + run.wrongOffsets, 0),
      rounds,
    };
  };
  results.latency = Object.fromEntries(Object.entries(latencyRuns).map(([key, runs]) => [key, pool(runs)]));

  log(`throughput: ${sizes.burst} moves back to back, ours then xreader`);
  results.throughput = {
    ours: await pointerBench('throughput', sizes.burst),
    single: await referenceThroughput(references.single, sizes.burst),
  };

  log(`sustained: ${sizes.sustainedMoves} moves at ${sustainedRate}/s, ours then xhandoff then xreader`);
  results.sustained = {
    ours: await pointerBench('sustained', sizes.sustainedMoves, sustainedRate),
    handoff: await referenceSustained(references.handoff, sizes.sustainedMoves, sustainedRate),
    single: await referenceSustained(references.single, sizes.sustainedMoves, sustainedRate),
  };

  log(`idle: ${sizes.idleMs} ms, capturing and baseline side by side`);
  const [idleCapture, idleBaseline] = await Promise.all([
    pointerBench('idle', 'capture', sizes.idleMs),
    pointerBench('idle', 'baseline', sizes.idleMs),
  ]);
  results.idle = { capture: idleCapture, baseline: idleBaseline };

  log('microbenchmarks: format, object model, call overhead');
  results.format = formatBench();
  results.com = comBench();
  results.calls = callBench();

  // ---- rows ----
  // The headline: each figure against one hand-off (with its target), then against the single-thread floor.
  const L = results.latency;
  const S = results.sustained;
  const headline = [];
  const against = [['handoff', 'one hand-off (xhandoff)'], ['single', 'single-thread floor (xreader)']];
  const compared = (figure, value, format, target) => against.forEach(([key, name], i) => {
    const ours = value(L.ours, S.ours);
    const reference = value(L[key], S[key]);
    const judged = i === 0;
    headline.push(row(`${figure}, against ${name}`, format(ours), format(reference), fmt.ratio(ours / reference),
      judged ? `ratio ≤ ${target}` : null, judged ? yesNo(ours / reference <= target) : null));
  });
  const rounds = `${sizes.latencyRounds} round${sizes.latencyRounds === 1 ? '' : 's'}`;
  const latencyFigure = `${L.ours.count} moves at 1 kHz, median of ${rounds}`;
  compared(`latency p50 (${latencyFigure})`, (l) => l.p50, fmt.us, 1.2);
  compared('latency p99', (l) => l.p99, fmt.us, 1.5);
  compared(`CPU at ${sustainedRate / 1000} kHz (process, all threads)`, (l, s) => s.processShare, fmt.pct, 1.25);
  const delivered = (l, s) => ({ sent: l.sent + s.sent, lost: l.lost + s.lost, wrong: l.wrongOffsets + s.wrongOffsets });
  const deliveredNote = ({ sent, lost, wrong }) => `${sent - lost} of ${sent}${wrong ? `, ${wrong} wrong` : ''}`;
  const oursDelivered = delivered(L.ours, S.ours);
  against.forEach(([key, name], i) => headline.push(row(
    `records delivered (latency rounds and the ${sustainedRate / 1000} kHz run), against ${name}`,
    deliveredNote(oursDelivered), deliveredNote(delivered(L[key], S[key])), null, i === 0 ? 'all' : null,
    i === 0 ? yesNo(oursDelivered.lost === 0 && oursDelivered.wrong === 0) : null)));

  const rows = [];
  rows.push(row('latency max (median of the rounds)', fmt.us(L.ours.max), `${fmt.us(L.handoff.max)} (xhandoff)`,
    fmt.ratio(L.ours.max / L.handoff.max)));

  const T = results.throughput;
  const tRatio = T.ours.recordsPerSecond / T.single.recordsPerSecond;
  rows.push(row(`throughput: ${T.ours.sent} moves back to back`, fmt.rate(T.ours.recordsPerSecond),
    `${fmt.rate(T.single.recordsPerSecond)} (xreader)`, fmt.ratio(tRatio), 'ratio ≥ 0.8', yesNo(tRatio >= 0.8)));
  const inOrder = (x) => `${x.delivered} delivered, ${x.mismatches} out of order`;
  rows.push(row('throughput: every record, in order', inOrder(T.ours), inOrder(T.single), null, 'all, in order',
    yesNo(T.ours.lost === 0 && T.ours.mismatches === 0)));

  rows.push(row(`CPU at ${sustainedRate / 1000} kHz: script thread share`, fmt.pct(S.ours.mainShare)));
  rows.push(row(`CPU at ${sustainedRate / 1000} kHz: reader thread share`, fmt.pct(S.ours.readerShare)));

  const I = results.idle;
  const idleCost = I.capture.processCpuMs - I.baseline.processCpuMs;
  rows.push(row(`idle: CPU over ${sizes.idleMs / 1000} s capturing, less baseline`,
    `${fmt.ms(idleCost)} (${fmt.ms(I.capture.processCpuMs)} − ${fmt.ms(I.baseline.processCpuMs)})`, null, null, '≤ 10 ms',
    yesNo(idleCost <= 10)));

  const TO = T.ours;
  rows.push(row(`memory: C heap after the ${TO.sent}-record run, capture stopped`, fmt.kib(TO.mallocGrowth), null, null,
    '≤ 64 KiB', yesNo(TO.mallocGrowth <= 64 * 1024)));
  rows.push(row('memory: resident growth after a forced collection, capture stopped', fmt.mib(TO.rssGrowth), null, null,
    '≤ 8 MiB', yesNo(TO.rssGrowth <= 8 * 1048576)));
  rows.push(row('memory: C heap still held while capturing, after the burst (X event queue)',
    fmt.mib(TO.mallocHeldWhileCapturing), null, null, null, null));
  rows.push(row('memory: peak resident growth during the burst', fmt.mib(TO.peakRssGrowth),
    Number.isFinite(T.single.maxRssKiB) ? `${fmt.mib(T.single.maxRssKiB * 1024)} peak in total (xreader)` : null));

  const F = results.format;
  rows.push(row('format("{0}({1}):{2}") vs ostringstream', fmt.ns(F.format), fmt.ns(F.stream), fmt.ratio(F.format / F.stream)));
  if (results.com) {
    for (const p of results.com.pairs) {
      rows.push(row(`object model: ${p.name}`, fmt.ns(p.ours), fmt.ns(p.theirs), fmt.ratio(p.ratio),
        p.target !== null ? `ratio ≤ ${p.target}` : null, p.target !== null ? yesNo(p.ratio <= p.target) : null));
    }
    if (results.com.pairs.length === 0) rows.push(row('object model (com_bench)', 'no summary printed'));
  } else {
    rows.push(row('object model (com_bench)', 'not built: skipped'));
  }
  const C = results.calls;
  const callRow = (figure, c) => row(figure, fmt.ns(c.ours), fmt.ns(c.ref), fmt.ratio(c.ratio), 'ratio ≤ 1.0', yesNo(c.ratio <= 1.0));
  rows.push(callRow('call: no-op method (vs ObjectWrap method)', C.noopMethod));
  rows.push(callRow('call: no-op function (vs Napi::Function)', C.noopFunction));
  rows.push(callRow('call: method taking a MotionEventData', C.takeRecord));
  rows.push(callRow('delivery: one MotionEventData to a callback, per record', C.deliverRecord));
  rows.push(row('delivery: the same to a pointer \'motion\' listener (vs the native callback)', fmt.ns(C.layerDelivery.ours),
    fmt.ns(C.layerDelivery.ref), fmt.ratio(C.layerDelivery.ratio), 'ratio ≤ 1.2', yesNo(C.layerDelivery.ratio <= 1.2)));

  process.stdout.write(`\n${renderText(headline)}\n\n${renderText(rows)}\n`);

  const chartSeries = [
    { key: 'ours', label: 'module (zelbridge.node)', color: '#d62728' },
    { key: 'handoff', label: 'one hand-off (xhandoff)', color: '#1f77b4' },
    { key: 'single', label: 'single thread (xreader)', color: '#555555', dashed: true },
  ].map((s) => ({ ...s, latenciesUs: latencyRuns[s.key].flatMap((run) => run.latencies.map((ns) => ns / 1000)) }));
  fs.writeFileSync(chartFile, latencyChartSvg(chartSeries, {
    title: `Injection to delivery at 1 kHz: ${rounds} of ${L.ours.count} moves per reader`,
  }));

  const roundFigures = (r) => `${r.p50.toFixed(1)} / ${r.p99.toFixed(1)} / ${r.max.toFixed(1)}`;
  const md = [
    '# Benchmark results',
    '',
    `- date: ${started.toISOString()}`,
    `- CPU: ${cpuModel()} (${os.cpus().length} cores)`,
    `- node ${process.version}, ${os.type()} ${os.release()}`,
    `- load average at the start: ${loadBefore.map((v) => v.toFixed(2)).join(', ')}`,
    quick ? '- **quick run**: shortened runs, not the documented sizes' : null,
    '',
    'The module against the same raw reads with one hand-off between threads (`tools/xhandoff`, the limit of the',
    'design) and with none (`tools/xreader`, the floor); same Xvfb, same injector, run right after the module.',
    'See bench/README.md.',
    '',
    renderMarkdown(headline),
    '',
    `![Latency distributions](${path.relative(path.dirname(outFile), chartFile).split(path.sep).join('/')})`,
    '',
    'Other figures: node-addon-api is the reference for the calls, a hand-written `std::ostringstream` for the',
    'formatter.',
    '',
    renderMarkdown(rows),
    '',
    'Latency rounds (p50 / p99 / max, µs):',
    '',
    ...L.ours.rounds.map((r, i) => `- round ${i + 1}: module ${roundFigures(r)}; xhandoff ${roundFigures(L.handoff.rounds[i])}; ` +
      `xreader ${roundFigures(L.single.rounds[i])}`),
    '',
  ].filter((line) => line !== null).join('\n');
  fs.writeFileSync(outFile, md);
  fs.writeFileSync(path.join(lib.buildDir, 'bench-results.json'), JSON.stringify(results, (k, v) => (k === 'output' ? undefined : v), 2));
  log(`written ${path.relative(process.cwd(), outFile)} and ${path.relative(process.cwd(), chartFile)}`);
}

main().catch((error) => {
  process.stderr.write(`${error.stack || error}\n`);
  process.exit(1);
});
