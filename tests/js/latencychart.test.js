'use strict';
// The benchmark's latency chart (bench/latencychart.js): axis ticks and labels, one cumulative curve per reader,
// the legend's percentiles, escaping.
const test = require('node:test');
const assert = require('node:assert/strict');
const { latencyChartSvg, formatUs, logTicks } = require('../../bench/latencychart');

/** The points of the curve labelled `label`: [[x, y], ...]. */
function curve(svg, label) {
  const m = new RegExp(`<path class="series" data-label="${label}" d="([^"]*)"`).exec(svg);
  assert.ok(m, `no curve for ${label}`);
  return m[1].split(/(?=[ML])/).map((step) => step.slice(1).split(' ').map(Number));
}

/** x of the vertical grid line of `tick` µs. */
function tickX(svg, tick) {
  const label = formatUs(tick).replace('.', '\\.');
  const m = new RegExp(`<text x="([\\d.]+)" y="\\d+" text-anchor="middle">${label}</text>`).exec(svg);
  assert.ok(m, `no tick labelled ${formatUs(tick)}`);
  return Number(m[1]);
}

const fast = Array.from({ length: 1000 }, (_, i) => 20 + i / 10); // 20.0 .. 119.9 µs
const slow = fast.map((v) => v * 10); // 200 .. 1199 µs

test('ticks step 1, 2, 5 per decade and labels switch to ms at 1000 µs', () => {
  assert.deepEqual(logTicks(10, 2000), [10, 20, 50, 100, 200, 500, 1000, 2000]);
  assert.deepEqual(logTicks(5, 5), [5]);
  assert.equal(formatUs(20), '20 µs');
  assert.equal(formatUs(1500), '1.5 ms');
  assert.equal(formatUs(50.123), '50.1 µs');
});

test('the time axis is logarithmic and spans the samples', () => {
  const svg = latencyChartSvg([{ label: 'a', color: 'red', latenciesUs: [12, 700] }], { title: 't' });
  const decade = tickX(svg, 100) - tickX(svg, 10);
  assert.ok(decade > 0);
  assert.ok(Math.abs(tickX(svg, 1000) - tickX(svg, 100) - decade) < 0.2, 'every decade is as wide');
  assert.ok(Math.abs(tickX(svg, 20) - tickX(svg, 10) - decade * Math.log10(2)) < 0.2);
  assert.doesNotMatch(svg, />5 µs</, 'the axis starts at the step below the smallest sample');
  assert.doesNotMatch(svg, />2 ms</, 'and ends at the step above the largest');
});

test('each series is one rising curve from its smallest to its largest sample', () => {
  const svg = latencyChartSvg([
    { label: 'fast', color: 'red', latenciesUs: [...fast].reverse() },
    { label: 'slow', color: 'blue', dashed: true, latenciesUs: slow },
  ], { title: 'two readers' });
  const axisTop = Number(/<text x="\d+" y="([\d.]+)" text-anchor="end">100 %<\/text>/.exec(svg)[1]) - 4;
  const axisBottom = Number(/<text x="\d+" y="([\d.]+)" text-anchor="end">0 %<\/text>/.exec(svg)[1]) - 4;
  for (const [label, values] of [['fast', fast], ['slow', slow]]) {
    const points = curve(svg, label);
    assert.ok(points.length > 10 && points.length < values.length, 'close points are merged');
    points.slice(1).forEach(([x, y], i) => {
      assert.ok(x >= points[i][0], `${label}: time never goes back`);
      assert.ok(y <= points[i][1], `${label}: the share never falls`);
    });
    assert.ok(Math.abs(points[0][0] - tickX(svg, values[0] === 20 ? 20 : 200)) < 0.2, `${label} starts at its smallest`);
    assert.ok(points[0][1] < axisBottom && points[0][1] > axisBottom - 2, 'the first point is one sample up');
    assert.equal(points[points.length - 1][1], axisTop, 'the last point is at 100 %');
  }
  assert.ok(curve(svg, 'slow')[0][0] > curve(svg, 'fast').at(-1)[0], 'the slower curve lies to the right');
  const same = latencyChartSvg([{ label: 'same', color: 'red', latenciesUs: new Array(1000).fill(50) }], { title: 't' });
  assert.equal(curve(same, 'same').at(-1)[1], axisTop, 'the last point is kept when it is close to the one before');
  assert.match(svg, /stroke="blue" stroke-width="2" stroke-dasharray="6 4"\/>/);
});

test('the legend lists each series with its p50 and p99, escaped', () => {
  const svg = latencyChartSvg([{ label: 'x<y & "z"', color: 'red', latenciesUs: fast }], { title: 'a < b' });
  assert.match(svg, /<text class="legend" [^>]*>x&lt;y &amp; &quot;z&quot;: p50 69.9 µs, p99 119 µs<\/text>/);
  assert.match(svg, />a &lt; b<\/text>/);
  assert.doesNotMatch(svg, /x<y/);
});

test('a series without samples is refused', () => {
  assert.throws(() => latencyChartSvg([{ label: 'none', color: 'red', latenciesUs: [] }], { title: 't' }),
    /latency chart: no latencies for "none"/);
});
