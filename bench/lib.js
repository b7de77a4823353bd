'use strict';
// Helpers shared by the benchmark scripts: paths, the injector and the reference readers, statistics, CPU times.
const fs = require('node:fs');
const path = require('node:path');
const os = require('node:os');
const { spawn } = require('node:child_process');

const root = path.resolve(__dirname, '..');
const buildDir = path.resolve(process.env.ZEL_BENCH_BUILD_DIR || path.join(root, 'build', 'release'));
const paths = {
  bridge: path.join(buildDir, 'zelbridge.node'),
  benchModule: path.join(buildDir, 'zelbench.node'),
  napiModule: path.join(buildDir, 'zelbench_napi.node'),
  xinject: path.join(buildDir, 'tools', 'xinject'),
  xreader: path.join(buildDir, 'tools', 'xreader'),
  xhandoff: path.join(buildDir, 'tools', 'xhandoff'),
  formatBench: path.join(buildDir, 'bench', 'format_bench'),
  comBench: path.join(buildDir, 'bench', 'com_bench'),
};

const { sleep, percentiles, startProcess } = require('../tests/js/support.js');

/** A fresh scratch directory for one measurement's files. */
function scratchDir(tag) {
  const base = process.env.ZEL_BENCH_TMP || os.tmpdir();
  return fs.mkdtempSync(path.join(base, `zelbench-${tag}-`));
}

/**
 * The throughput pattern: `blocks` blocks of `perBlock` identical relative moves, each block's (dx, dy) differing
 * from its neighbours', so that a lost, doubled or reordered record shows as a mismatch against `expected(i)`.
 */
function movePattern(total, perBlock = 1000) {
  const blocks = Math.ceil(total / perBlock);
  const dx = (b) => 1 + (b % 7);
  const dy = (b) => -(1 + (b % 5));
  const lines = [];
  for (let b = 0; b < blocks; ++b) {
    const n = Math.min(perBlock, total - b * perBlock);
    lines.push(`move ${dx(b)} ${dy(b)} ${n}`);
  }
  lines.push('quit');
  return {
    total,
    script: lines.join('\n') + '\n',
    expected: (i) => {
      const b = Math.floor(i / perBlock);
      return [dx(b), dy(b)];
    },
  };
}

/** Runs a command to completion; resolves { code, signal }. Standard output goes to `stdoutFile` when given. */
async function run(command, args, { stdoutFile, input, env } = {}) {
  const out = stdoutFile ? fs.openSync(stdoutFile, 'w') : 'ignore';
  const child = startProcess(command, args, {
    stdio: [input !== undefined ? 'pipe' : 'ignore', out, 'inherit'],
    env: env || process.env,
  });
  if (stdoutFile) fs.closeSync(out);
  if (input !== undefined) child.end(input);
  const { status, signal, error } = await child.ended;
  if (error && status === null) throw error;
  return { code: status, signal };
}

/** Send timestamps (CLOCK_MONOTONIC ns, as BigInt) printed by `xinject -t`. */
function readSendTimes(file) {
  return fs
    .readFileSync(file, 'utf8')
    .split('\n')
    .filter((line) => /^\d+$/.test(line))
    .map((line) => BigInt(line));
}

/** Motion lines of a reference reader's output (xreader, xhandoff): [{ t: BigInt ns, dx, dy }]. */
function readReaderMotions(file) {
  const motions = [];
  for (const line of fs.readFileSync(file, 'utf8').split('\n')) {
    const m = /^(\d+) motion (\S+) (\S+)/.exec(line);
    if (m) motions.push({ t: BigInt(m[1]), dx: Number(m[2]), dy: Number(m[3]) });
  }
  return motions;
}

/**
 * Starts the reference reader `program` (xreader or xhandoff, same options and output) for `count` events with
 * its output in `file`; resolves once it reports "# ready". Unless `timed` is false it runs under /usr/bin/time
 * for its CPU time and peak resident size.
 */
async function startReader(program, count, file, timeoutMs, { timed = true } = {}) {
  const timeFile = `${file}.time`;
  const readerArgs = [program, '-n', String(count), '-T', String(timeoutMs)];
  const out = fs.openSync(file, 'w');
  const child = timed
    ? spawn('/usr/bin/time', ['-f', '%U %S %M', '-o', timeFile, ...readerArgs], { stdio: ['ignore', out, 'inherit'] })
    : spawn(readerArgs[0], readerArgs.slice(1), { stdio: ['ignore', out, 'inherit'] });
  fs.closeSync(out);
  const exited = new Promise((resolve, reject) => {
    child.on('error', reject);
    child.on('exit', (code) => resolve(code));
  });
  const deadline = Date.now() + 10000;
  while (!fs.readFileSync(file, 'utf8').includes('# ready')) {
    if (Date.now() > deadline) throw new Error(`${path.basename(program)} did not become ready`);
    await sleep(5);
  }
  return {
    /** Resolves { code, cpuMs, maxRssKiB } once the reader has ended (NaN figures when not timed). */
    async done() {
      const code = await exited;
      if (!timed) return { code, cpuMs: NaN, maxRssKiB: NaN };
      const fields = fs.readFileSync(timeFile, 'utf8').trim().split('\n').pop().split(' ').map(Number);
      return { code, cpuMs: (fields[0] + fields[1]) * 1000, maxRssKiB: fields[2] };
    },
  };
}

/** Peak resident size of this process so far, in bytes (VmHWM). */
function peakRss() {
  const m = /^VmHWM:\s+(\d+) kB/m.exec(fs.readFileSync('/proc/self/status', 'utf8'));
  return m ? Number(m[1]) * 1024 : NaN;
}

/** p50/p99/max in microseconds of the latencies (ns numbers). */
function latencyStats(latenciesNs) {
  const { p50, p99, p100 } = percentiles(latenciesNs, [50, 99, 100]);
  return {
    count: latenciesNs.length,
    p50: p50 / 1000,
    p99: p99 / 1000,
    max: p100 / 1000,
  };
}

const clockTicks = 100; // USER_HZ: the unit of utime/stime in /proc/<pid>/task/<tid>/stat

/** CPU time in ms (user + system) of thread `tid` of this process, from /proc; NaN when it is gone. */
function threadCpuMs(tid) {
  try {
    const stat = fs.readFileSync(`/proc/self/task/${tid}/stat`, 'utf8');
    const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
    // fields[0] is field 3 (state): utime is field 14, stime field 15.
    return ((Number(fields[11]) + Number(fields[12])) * 1000) / clockTicks;
  } catch {
    return NaN;
  }
}

/** Thread ids of this process. */
function threadIds() {
  return fs.readdirSync('/proc/self/task').map(Number);
}

/** Whole-process CPU time in ms (user + system, all threads). */
function processCpuMs() {
  const usage = process.cpuUsage();
  return (usage.user + usage.system) / 1000;
}

module.exports = {
  root,
  buildDir,
  paths,
  sleep,
  scratchDir,
  movePattern,
  run,
  readSendTimes,
  readReaderMotions,
  startReader,
  latencyStats,
  threadCpuMs,
  threadIds,
  processCpuMs,
  peakRss,
};
