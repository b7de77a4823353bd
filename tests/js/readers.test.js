'use strict';
// The benchmark's reference readers, tools/xreader (single thread) and tools/xhandoff (one hand-off between
// threads), against the test Xvfb (display in the file named by ZEL_XVFB_DISPLAY_FILE), driven by tools/xinject:
// every record, in order, with its time stamp; the limits; the exit statuses.
const test = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { buildDir, recentre } = require('./support');
const bench = require('../../bench/lib');

if (process.env.ZEL_XVFB_DISPLAY_FILE) {
  process.env.DISPLAY = fs.readFileSync(process.env.ZEL_XVFB_DISPLAY_FILE, 'utf8').trim();
}
if (!process.env.DISPLAY) throw new Error('no X display: run through ctest (the "xvfb" fixture) or set DISPLAY');
const xinjectPath = process.env.XINJECT || path.join(buildDir, 'tools', 'xinject');
// The move patterns end at the screen's edge: the next test on this display finds the pointer in the middle.
test.after(() => recentre());

for (const name of ['xreader', 'xhandoff']) {
  const program = path.join(buildDir, 'tools', name);
  const scratch = () => fs.mkdtempSync(path.join(os.tmpdir(), `zel-${name}-`));

  test(`${name} reports every injected move and button once, in order, stamped in order`, async () => {
    const moves = bench.movePattern(3000, 500);
    const file = path.join(scratch(), 'read.txt');
    const reader = await bench.startReader(program, moves.total + 2, file, 60000, { timed: false });
    assert.equal((await bench.run(xinjectPath, ['script'], { input: moves.script })).code, 0);
    assert.equal((await bench.run(xinjectPath, ['click', '2'])).code, 0);
    assert.equal((await reader.done()).code, 0);

    const motions = bench.readReaderMotions(file);
    assert.equal(motions.length, moves.total);
    const wrong = motions.findIndex((m, i) => m.dx !== moves.expected(i)[0] || m.dy !== moves.expected(i)[1]);
    assert.equal(wrong, -1, `motion ${wrong} differs from the pattern`);
    const lines = fs.readFileSync(file, 'utf8').trim().split('\n');
    const stamps = lines.filter((line) => !line.startsWith('#')).map((line) => BigInt(line.split(' ')[0]));
    assert.equal(stamps.length, moves.total + 2);
    assert.ok(stamps.every((t, i) => i === 0 || t >= stamps[i - 1]), 'time stamps never go back');
    assert.match(lines.at(-3), /^\d+ press 2$/);
    assert.match(lines.at(-2), /^\d+ release 2$/);
    assert.equal(lines.at(-1), `# events ${moves.total + 2}`);
  });

  test(`${name} leaves at the timeout with status 3 when fewer events came`, () => {
    const started = Date.now();
    const result = spawnSync(program, ['-n', '1', '-T', '300'], { encoding: 'utf8', timeout: 30000 });
    assert.equal(result.status, 3, result.stderr);
    assert.ok(Date.now() - started >= 300);
    assert.equal(result.stdout, '# ready\n# events 0\n');
  });

  test(`${name} refuses bad options with status 1 and a missing display with status 2`, () => {
    const bad = spawnSync(program, ['-n', 'ten'], { encoding: 'utf8', timeout: 30000 });
    assert.equal(bad.status, 1);
    assert.equal(bad.stderr, `usage: ${name} [-d DISPLAY] [-n N] [-T MS]\n`);
    const missing = spawnSync(program, ['-d', ':9876'], { encoding: 'utf8', timeout: 30000 });
    assert.equal(missing.status, 2);
    assert.equal(missing.stderr, `${name}: cannot open display :9876\n`);
  });
}
