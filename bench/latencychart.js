'use strict';
// The latency chart of the benchmark: the distribution of each reader's latencies as a cumulative curve (the
// fraction of moves delivered within a given time) on a logarithmic time axis, written as a plain SVG document.
const { percentiles } = require('../tests/js/support.js');

const size = { width: 800, height: 480, left: 70, right: 24, top: 48, bottom: 64 };

/** `text` with the characters that XML reserves escaped. */
const esc = (text) => String(text).replace(/[&<>"]/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;' })[c]);

/** A latency in µs as an axis or legend label: "20 µs", "1.5 ms". */
function formatUs(us) {
  if (us >= 1000) return `${Number((us / 1000).toPrecision(3))} ms`;
  return `${Number(us.toPrecision(3))} µs`;
}

/** The steps 1, 2, 5, 10, 20, ... (µs) at or below `value`, and at or above it: [below, above]. */
function stepAround(value) {
  const decade = 10 ** Math.floor(Math.log10(value));
  const steps = [1, 2, 5, 10].map((m) => m * decade);
  return [steps.filter((v) => v <= value).pop(), steps.find((v) => v >= value)];
}

/** The axis ticks from `min` to `max` (both steps of 1, 2, 5 times a power of ten), in µs. */
function logTicks(min, max) {
  const ticks = [];
  for (let tick = min; tick <= max * (1 + 1e-9); tick = stepAround(tick * 1.5)[1]) ticks.push(tick);
  return ticks;
}

/**
 * The points of one cumulative curve, in chart coordinates: one per sample (value, rank / count), leaving out the
 * points less than half a pixel away from the previous one but always keeping the last.
 */
function curvePoints(sorted, x, y) {
  const points = [];
  let last = null;
  sorted.forEach((value, i) => {
    const point = [x(value), y((i + 1) / sorted.length)];
    const isLast = i === sorted.length - 1;
    if (isLast || !last || Math.abs(point[0] - last[0]) >= 0.5 || Math.abs(point[1] - last[1]) >= 0.5) {
      points.push(point);
      last = point;
    }
  });
  return points;
}

/**
 * The SVG document of the chart. `series`: [{ label, color, dashed, latenciesUs }], drawn in that order and listed
 * in that order in the legend with their p50 and p99; `title` heads the chart.
 */
function latencyChartSvg(series, { title }) {
  const sortedSeries = series.map((s) => {
    if (s.latenciesUs.length === 0) throw new Error(`latency chart: no latencies for "${s.label}"`);
    return { ...s, sorted: Float64Array.from(s.latenciesUs).sort() };
  });
  const all = sortedSeries.flatMap((s) => [s.sorted[0], s.sorted[s.sorted.length - 1]]);
  const min = stepAround(Math.max(1, Math.min(...all)))[0];
  const max = Math.max(stepAround(min * 1.5)[1], stepAround(Math.max(...all))[1]);
  const plot = { x0: size.left, x1: size.width - size.right, y0: size.height - size.bottom, y1: size.top };
  const x = (us) => plot.x0 + ((Math.log10(Math.max(us, min)) - Math.log10(min)) / Math.log10(max / min)) * (plot.x1 - plot.x0);
  const y = (fraction) => plot.y0 - fraction * (plot.y0 - plot.y1);
  const r = (v) => Math.round(v * 10) / 10;

  const out = [
    `<svg xmlns="http://www.w3.org/2000/svg" width="${size.width}" height="${size.height}" ` +
      `viewBox="0 0 ${size.width} ${size.height}" font-family="sans-serif" font-size="12">`,
    `<rect width="${size.width}" height="${size.height}" fill="white"/>`,
    `<text x="${size.width / 2}" y="24" text-anchor="middle" font-size="15">${esc(title)}</text>`,
  ];
  for (const tick of logTicks(min, max)) {
    const major = Math.abs(Math.log10(tick) - Math.round(Math.log10(tick))) < 1e-9;
    out.push(`<line class="x-tick" x1="${r(x(tick))}" y1="${plot.y0}" x2="${r(x(tick))}" y2="${plot.y1}" ` +
      `stroke="${major ? '#bbb' : '#e4e4e4'}"/>`);
    out.push(`<text x="${r(x(tick))}" y="${plot.y0 + 16}" text-anchor="middle">${esc(formatUs(tick))}</text>`);
  }
  for (const fraction of [0, 0.25, 0.5, 0.75, 0.9, 1]) {
    out.push(`<line x1="${plot.x0}" y1="${r(y(fraction))}" x2="${plot.x1}" y2="${r(y(fraction))}" stroke="#e4e4e4"/>`);
    out.push(`<text x="${plot.x0 - 6}" y="${r(y(fraction)) + 4}" text-anchor="end">${Math.round(fraction * 100)} %</text>`);
  }
  for (const [fraction, name, dy] of [[0.5, 'p50', -4], [0.99, 'p99', 13]]) {
    out.push(`<line x1="${plot.x0}" y1="${r(y(fraction))}" x2="${plot.x1}" y2="${r(y(fraction))}" stroke="#999" ` +
      'stroke-dasharray="4 3"/>');
    out.push(`<text x="${plot.x0 + 4}" y="${r(y(fraction) + dy)}" fill="#666">${name}</text>`);
  }
  out.push(`<rect x="${plot.x0}" y="${plot.y1}" width="${plot.x1 - plot.x0}" height="${plot.y0 - plot.y1}" fill="none" stroke="#333"/>`);
  out.push(`<text x="${(plot.x0 + plot.x1) / 2}" y="${size.height - 20}" text-anchor="middle">` +
    'latency from injection to delivery (logarithmic)</text>');
  out.push(`<text transform="translate(18 ${(plot.y0 + plot.y1) / 2}) rotate(-90)" text-anchor="middle">` +
    'moves delivered within that time</text>');

  const dash = (s) => (s.dashed ? ' stroke-dasharray="6 4"' : '');
  for (const s of sortedSeries) {
    const d = curvePoints(s.sorted, x, y).map(([px, py], k) => `${k ? 'L' : 'M'}${r(px)} ${r(py)}`).join(' ');
    out.push(`<path class="series" data-label="${esc(s.label)}" d="${d}" fill="none" stroke="${s.color}" ` +
      `stroke-width="2"${dash(s)}/>`);
  }
  const legendTexts = sortedSeries.map((s) =>
    `${s.label}: p50 ${formatUs(percentiles(s.sorted, [50]).p50)}, p99 ${formatUs(percentiles(s.sorted, [99]).p99)}`);
  const width = 52 + 6.8 * Math.max(...legendTexts.map((text) => text.length));
  const legend = { x: plot.x1 - 10 - width, y: plot.y0 - 12 - sortedSeries.length * 20, width, height: sortedSeries.length * 20 + 4 };
  out.push(`<rect x="${legend.x}" y="${legend.y}" width="${legend.width}" height="${legend.height}" fill="white" stroke="#ccc"/>`);
  sortedSeries.forEach((s, i) => {
    const ly = legend.y + 16 + i * 20;
    out.push(`<line x1="${legend.x + 8}" y1="${ly - 4}" x2="${legend.x + 36}" y2="${ly - 4}" stroke="${s.color}" ` +
      `stroke-width="2"${dash(s)}/>`);
    out.push(`<text class="legend" x="${legend.x + 44}" y="${ly}">${esc(legendTexts[i])}</text>`);
  });
  out.push('</svg>', '');
  return out.join('\n');
}

module.exports = { latencyChartSvg, formatUs, logTicks };
