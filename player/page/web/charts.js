// SPDX-License-Identifier: Apache-2.0
// The charts. uPlot gives axes, cursor and selection; what is measured is drawn here, because no
// more than a few marks fit into a pixel column: an hour has two hundred frames for each.
'use strict';

const charts = [];
const syncKey = uPlot.sync('time');
const axisFont = '12px system-ui, "DejaVu Sans", sans-serif';

const axisSteps = [.001, .002, .005, .01, .02, .05, .1, .2, .5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800,
  3600, 7200, 14400, 21600, 43200, 86400];
const tickDecimals = (splits) => {
  const step = splits.length > 1 ? splits[1] - splits[0] : 1;
  return step >= 1 ? 0 : Math.min(Math.ceil(-Math.log10(step) - 1e-9), 6);
};

/**
 * A chart in the element `id`.
 * @param options  height; y: () => [least, most]; unit; draw(plot, context, pixels); ticks: values of
 *                 the y axis; label: what a screen reader says of it
 */
function addChart(id, options) {
  const host = $(id);
  host.setAttribute('role', 'img');
  host.setAttribute('tabindex', '0');
  host.setAttribute('aria-label', options.label);
  const pin = make('i', { class: 'pin' });
  const grid = { stroke: () => colours.grid, width: 1 };
  const axis = { stroke: () => colours.soft, font: axisFont, grid, ticks: { show: false } };
  const plot = new uPlot({
    width: Math.max(host.clientWidth, 200), height: options.height, legend: { show: false },
    padding: [8, 24, 0, 0],
    scales: { x: { time: false, range: () => [view.from, view.to] }, y: { range: options.y() } },
    cursor: { sync: { key: 'time' }, drag: { x: true, y: false, setScale: false }, points: { show: false } },
    series: [{}, { show: true, stroke: 'transparent' }],
    axes: [
      { ...axis, size: 30, space: 90, incrs: axisSteps, values: (_, splits) => splits.map((s) => clock(s, tickDecimals(splits))) },
      { ...axis, size: 68, ...(options.ticks ? { splits: options.ticks } : {}),
        values: options.values ?? ((_, splits) => splits.map((s) => s === 0 ? '0' : String(+s.toFixed(3)))) }],
    hooks: {
      draw: [(u) => {
        const context = u.ctx;
        context.save();
        context.beginPath();
        context.rect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
        context.clip();
        drawHappened(u, context);
        options.draw(u, context);
        context.restore();
        placePin({ plot: u, pin });
      }],
      setSelect: [(u) => {
        if (u.select.width > 3) {
          setView(u.posToVal(u.select.left, 'x'), u.posToVal(u.select.left + u.select.width, 'x'));
        }
        u.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
      }],
      setCursor: [(u) => {
        if (u.cursor.event && u.cursor.left >= 0) hover(frameNear(u.posToVal(u.cursor.left, 'x')));
      }] },
  }, [[0, 1], [null, null]], host);
  const chart = { plot, host, options, pin, stale: false, visible: true };
  plot.over.append(pin);
  plot.over.addEventListener('click', (event) => pick(plot, event));
  plot.over.addEventListener('dblclick', whole);
  plot.over.addEventListener('mouseleave', () => hover(-1));
  host.addEventListener('wheel', (event) => turn(plot, event), { passive: false });
  pinch(plot);
  charts.push(chart);
  redraw(chart);
  inWindow.observe(host);
}

/** Charts outside the window are drawn when they come into it. */
const inWindow = new IntersectionObserver((entries) => {
  for (const { target, isIntersecting } of entries) {
    const chart = charts.find(({ host }) => host === target);
    chart.visible = isIntersecting;
    if (isIntersecting && chart.stale) redraw(chart);
  }
}, { rootMargin: '200px' });

let downAt = -1;
addEventListener('mousedown', (event) => { downAt = event.clientX; }, true);
/** A click, as opposed to the end of a drag. */
function pick(plot, event) {
  if (Math.abs(event.clientX - downAt) > 3) return;
  const at = plot.posToVal(event.offsetX, 'x');
  const hidden = nearestHidden(at, (view.to - view.from) / plot.over.clientWidth * 4);
  select(hidden >= 0 && event.offsetY > plot.over.clientHeight - 22 ? hidden : frameNear(at));
}
function turn(plot, event) {
  if (event.ctrlKey) {
    event.preventDefault();
    const x = event.clientX - plot.over.getBoundingClientRect().left;
    zoom(event.deltaY > 0 ? 1.25 : 0.8, plot.posToVal(x, 'x'));
  } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
    event.preventDefault();
    pan((view.to - view.from) * (event.deltaX || event.deltaY) / plot.over.clientWidth);
  }
}
/** Two fingers zoom and pan. */
function pinch(plot) {
  let before = null;
  const touch = (event) => {
    if (event.touches.length !== 2) { before = null; return; }
    event.preventDefault();
    const left = plot.over.getBoundingClientRect().left;
    const [a, b] = [...event.touches].map((t) => t.clientX - left);
    const now = { apart: Math.max(Math.abs(a - b), 20), middle: (a + b) / 2 };
    if (before) {
      const held = plot.posToVal(before.middle, 'x');
      const length = (view.to - view.from) * before.apart / now.apart;
      const from = held - length * now.middle / plot.over.clientWidth;
      setView(from, from + length);
    }
    before = now;
  };
  plot.over.addEventListener('touchstart', touch, { passive: false });
  plot.over.addEventListener('touchmove', touch, { passive: false });
  plot.over.addEventListener('touchend', () => { before = null; });
}

function redraw(chart) {
  chart.stale = false;
  const [least, most] = chart.options.y();
  chart.plot.batch(() => {
    chart.plot.setScale('x', { min: view.from, max: view.to });
    chart.plot.setScale('y', { min: least, max: most });
  });
  chart.plot.redraw(false, true);
}

/** Redraws what changed and is in view. */
function follow(chart, now) {
  if (now.has('view') || now.has('theme')) {
    chart.visible ? redraw(chart) : (chart.stale = true);
  } else if (chart.options.showsFrame && closeUp(chart.plot)) {
    redraw(chart);
  } else {
    placePin(chart);
  }
}
function placePin({ plot, pin }) {
  const at = view.frame < 0 ? -1 : frameAt[view.frame];
  pin.hidden = at < view.from || at > view.to;
  if (!pin.hidden) pin.style.left = `${plot.valToPos(at, 'x')}px`;
}
/** Whether frames are wide enough to be drawn one by one. */
function closeUp(plot) {
  const [from, to] = shownInView();
  return (to - from) * 3 * dpr() < plot.bbox.width;
}

// ---- common parts of a drawing ----

const dpr = () => devicePixelRatio || 1;
const xOf = (u, second) => u.valToPos(second, 'x', true);
const yOf = (u, value) => u.valToPos(value, 'y', true);

/** The range of `shown` in view, with one frame more at each side. */
function shownInView() {
  return [Math.max(after(shownAt, view.from) - 1, 0), Math.min(after(shownAt, view.to) + 1, shown.length)];
}

/** Pauses and underflows as shades, flushes, splices and the like as lines. */
function drawHappened(u, context) {
  const { top, height } = u.bbox;
  for (const stop of happened.stops) {
    const to = stop.to_us < 0 ? endAt * 1e6 : stop.to_us;
    if (to / 1e6 < view.from || stop.from_us / 1e6 > view.to) continue;
    const x = xOf(u, stop.from_us / 1e6);
    context.fillStyle = colours.none;
    context.fillRect(x, top, Math.max(xOf(u, to / 1e6) - x, 1), height);
  }
  context.fillStyle = colours.line;
  for (const second of sectionSeconds) {
    if (second >= view.from && second <= view.to) context.fillRect(Math.round(xOf(u, second)), top, dpr(), height);
  }
}
const sectionSeconds = [...happened.sections.slice(1).map(([beganUs]) => beganUs),
  ...happened.splices.map((splice) => splice.at_us)].map((us) => us / 1e6).sort((a, b) => a - b);

function text(context, words, x, y, colour = colours.soft, align = 'left', weight = '') {
  context.font = `${weight} ${11 * dpr()}px system-ui, "DejaVu Sans", sans-serif`;
  context.textAlign = align;
  context.textBaseline = 'middle';
  context.fillStyle = colour;
  context.fillText(words, x, y);
}

/** Dots of one value per frame; where many fall on one place, one stands for them. */
function drawDots(u, context, values, colour, size = 2.5) {
  const [from, to] = shownInView();
  const { left, top, width, height } = u.bbox;
  const dot = Math.max(Math.round(size * dpr() * (to - from < width / 3 ? 1.5 : 1)), 1);
  const rows = Math.ceil(height / dot) + 1;
  const taken = new Uint8Array((Math.ceil(width) + 2) * rows);
  const perSecond = width / (view.to - view.from);
  const [least, most] = [u.scales.y.min, u.scales.y.max];
  context.fillStyle = colour;
  for (let i = from; i < to; ++i) {
    const value = values[shown[i]] / 1e3;
    if (value !== value) continue;
    const x = Math.round((shownAt[i] - view.from) * perSecond);
    if (x < 0 || x > width) continue;
    // What lies beyond the axis is drawn at its end.
    const share = Math.min(Math.max((most - value) / (most - least), 0), 1);
    const row = Math.min(Math.floor(share * height / dot), rows - 1);
    if (taken[x * rows + row]) continue;
    taken[x * rows + row] = 1;
    context.fillRect(left + x - dot / 2, top + row * dot - dot / 4, dot, dot);
  }
}

/** The range of a column over all frames, in thousandths: microseconds become milliseconds. */
function rangeOf(...columnsGiven) {
  let least = Infinity, most = -Infinity;
  for (const values of columnsGiven) {
    for (const value of values) {
      if (value < least) least = value;
      if (value > most) most = value;
    }
  }
  return least > most ? null : [least / 1e3, most / 1e3];
}

// ---- dwell ----

function nearestHidden(second, within) {
  const at = notBefore(hiddenAt, second - within);
  return at < hiddenAt.length && hiddenAt[at] <= second + within ? hiddenFrames[at] : -1;
}

function addDwellChart() {
  let most = 3;
  for (const stretch of data.stretches) most = Math.max(most, ...stretch.pattern);
  let longest = most;
  for (let i = 0; i < shown.length; ++i) longest = Math.max(longest, ledger.dwell_vsyncs[shown[i]]);
  const top = Math.min(longest, most + 4);
  addChart('chart-dwell', {
    height: 230, y: () => [-0.75, top + 1.1], showsFrame: true,
    ticks: () => Array.from({ length: top + 1 }, (_, i) => i),
    values: (_, splits) => splits.map((v) => v === top && longest > top ? `${v}+` : String(v)),
    label: `Vsyncs on screen over time. ${$('dwell-note').textContent} The tables below hold the same.`,
    draw: (u, context) => {
      const [from, to] = shownInView();
      closeUp(u) ? drawBars(u, context, from, to, top) : drawStrands(u, context, from, to, top);
      drawHidden(u, context);
      drawBreaks(u, context, top);
    } });
}

/** Close up: each frame as wide as it was on screen, as high as its vsyncs. */
function drawBars(u, context, from, to, top) {
  const zero = yOf(u, 0);
  for (let i = from; i < to; ++i) {
    const frame = shown[i];
    const dwell = ledger.dwell_vsyncs[frame];
    const x = xOf(u, shownAt[i]);
    const right = xOf(u, Number.isNaN(ledger.released_us[frame]) ? endAt : ledger.released_us[frame] / 1e6);
    const found = breakOf.get(frame);
    const y = yOf(u, Math.min(dwell, top));
    const width = Math.max(right - x - dpr(), 1);
    context.fillStyle = found && found.kind === 0 ? colours[lookOf(found)[0]] : frame % 2 ? colours.bar : colours.bar2;
    context.globalAlpha = found && found.kind === 0 ? .55 : 1;
    context.fillRect(x, y, width, zero - y);
    context.globalAlpha = 1;
    if (frame === view.frame || frame === view.hover) {
      context.strokeStyle = colours.mark;
      context.lineWidth = (frame === view.frame ? 2 : 1) * dpr();
      context.strokeRect(x, y, width, zero - y);
    }
    const inside = Math.min(Math.max(x, u.bbox.left), right);
    if (width > 12 * dpr()) text(context, String(dwell), (inside + right) / 2, zero - 10 * dpr(), colours.ink, 'center');
    if (width > 52 * dpr()) text(context, `#${frame}`, (inside + right) / 2, (y + zero) / 2 - 4 * dpr(), colours.soft, 'center');
  }
}

/** From afar: which dwells occurred within each pixel column. */
function drawStrands(u, context, from, to, top) {
  const width = Math.ceil(u.bbox.width);
  const seen = new Uint32Array(width + 1);
  const perSecond = u.bbox.width / (view.to - view.from);
  for (let i = from; i < to; ++i) {
    const x = Math.round((shownAt[i] - view.from) * perSecond);
    if (x >= 0 && x <= width) seen[x] |= 1 << Math.min(ledger.dwell_vsyncs[shown[i]], top);
  }
  const thick = 5 * dpr();
  context.fillStyle = colours.bar;
  for (let dwell = 0; dwell <= top; ++dwell) {
    const y = yOf(u, dwell) - thick / 2;
    for (let x = 0; x <= width; ++x) {
      if (!(seen[x] >> dwell & 1)) continue;
      const start = x;
      while (x < width && seen[x + 1] >> dwell & 1) ++x;
      context.fillRect(u.bbox.left + start, y, x - start + 1, thick);
    }
  }
}

const hiddenColour = { superseded: 'purple', dropped: 'red', flushed: 'grey', refused: 'orange', lost: 'mark',
  'discarded by stop': 'bar', 'in tunnel at stop': 'sky' };
function drawHidden(u, context) {
  const y = yOf(u, -0.4);
  let last = {};
  for (let i = notBefore(hiddenAt, view.from); i < hiddenAt.length && hiddenAt[i] <= view.to; ++i) {
    const x = Math.round(xOf(u, hiddenAt[i]));
    const name = data.words.outcome[ledger.outcome[hiddenFrames[i]]];
    if (last[name] !== undefined && x - last[name] < 2 * dpr()) continue;
    last[name] = x;
    context.fillStyle = colours[hiddenColour[name] ?? 'grey'];
    context.fillRect(x - dpr(), y - 6 * dpr(), 2 * dpr(), 12 * dpr());
  }
}

const breakFrames = () => (breakFrames.kept ??= Float64Array.from(breaks, (b) => frameAt[b.frame]));
function drawBreaks(u, context, top) {
  const size = 4.5 * dpr();
  const last = {};
  const at = breakFrames();
  const drawn = [];
  for (let i = notBefore(at, view.from); i < breaks.length && at[i] <= view.to; ++i) {
    const found = breaks[i];
    const [colour, shape] = lookOf(found);
    const dwell = Math.min(found.dwell, top);
    const key = colour + shape + dwell;
    const released = ledger.released_us[found.frame] / 1e6;
    const x = (xOf(u, at[i]) + xOf(u, Math.max(Math.min(released, view.to), at[i]) || at[i])) / 2;
    if (last[key] !== undefined && x - last[key] < size) continue;
    last[key] = x;
    drawn.push([found.kind !== 0, colour, shape, x, yOf(u, dwell) - (found.kind ? 9 : 11) * dpr(), found.dwell]);
  }
  // Unexpected ones on top.
  drawn.sort((a, b) => b[0] - a[0]);
  for (const [calm, colour, shape, x, y, dwell] of drawn) {
    context.beginPath();
    trace(context, shape, x, y, calm ? size * .8 : size);
    context.fillStyle = colours[colour];
    context.fill();
    if (!calm) {
      context.strokeStyle = colours.card;
      context.lineWidth = dpr() * .7;
      context.stroke();
    }
    if (dwell > top && drawn.length < 60) text(context, String(dwell), x + 8 * dpr(), y, colours.ink);
  }
}

// ---- lip-sync ----

function addSyncChart() {
  const lip = ledger.lip_sync_us, offset = ledger.av_offset_us;
  const range = rangeOf(lip, offset);
  const least = Math.max(Math.min(-200, range ? range[0] - 10 : 0), -600);
  const most = Math.min(Math.max(110, range ? range[1] + 10 : 0), 600);
  addChart('chart-sync', {
    height: 230, y: () => [least, most],
    values: (_, splits) => splits.map((v) => (v > 0 ? '+' : v < 0 ? '−' : '') + Math.abs(v)),
    label: `Lip-sync over time in milliseconds. ${$('sync-note').textContent}`,
    draw: (u, context) => {
      const shade = (band, colour) => {
        context.fillStyle = colour;
        const y = yOf(u, band[2] / 1e3);
        context.fillRect(u.bbox.left, y, u.bbox.width, yOf(u, band[1] / 1e3) - y);
      };
      const [ebu, detectable, acceptable] = data.bands;
      context.globalAlpha = .75;
      context.fillStyle = colours.bad;
      context.fillRect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
      context.globalAlpha = 1;
      shade(acceptable, colours.card);
      shade(acceptable, colours.warn);
      shade(detectable, colours.card);
      shade(ebu, colours.good);
      drawDots(u, context, offset, colours.orange, 2);
      drawDots(u, context, lip, colours.blue, 2.5);
      const x = u.bbox.left + u.bbox.width - 6 * dpr();
      for (const [name, low] of [['within EBU R37', ebu], ['not detectable, ITU', detectable],
        ['acceptable, ITU', acceptable]].map(([name, [, low, high]]) => [`${name}: +${high / 1e3} to −${-low / 1e3} ms`, low])) {
        text(context, name, x, yOf(u, low / 1e3) - 8 * dpr(), colours.soft, 'right');
      }
    } });
}

// ---- phase ----

function addPhaseChart() {
  let period = 0;
  for (const stretch of data.stretches) period = Math.max(period, 1e3 / stretch.display_hz);
  period = period || 1e3 / (summary.display_hz || 60);
  const margin = 4;
  addChart('chart-phase', {
    height: 170, y: () => [-0.3, period + 0.3],
    ticks: () => [0, margin, period / 2, period - margin, period],
    values: (_, splits) => splits.map((v) => String(+v.toFixed(1))),
    label: `Phase of each presentation time in its vsync interval. ${$('phase-note').textContent}`,
    draw: (u, context) => {
      context.fillStyle = colours.warn;
      for (const stretch of data.stretches) {
        const from = frameAt[stretch.first_frame];
        const next = data.stretches[data.stretches.indexOf(stretch) + 1];
        const to = next ? frameAt[next.first_frame] : endAt;
        if (to < view.from || from > view.to) continue;
        const x = xOf(u, Math.max(from, view.from));
        const width = xOf(u, Math.min(to, view.to)) - x;
        const own = 1e3 / stretch.display_hz;
        for (const [low, high] of [[0, margin], [own - margin, own]]) {
          const y = yOf(u, high);
          context.fillRect(x, y, width, yOf(u, low) - y);
        }
      }
      drawDots(u, context, ledger.vsync_phase_us, colours.blue, 2.5);
      const x = u.bbox.left + u.bbox.width - 6 * dpr();
      const last = stretchOf(frameNear(view.to));
      const own = last ? 1e3 / last.display_hz : period;
      text(context, 'margin of 4 ms', x, yOf(u, margin / 2), colours.soft, 'right');
      text(context, 'margin of 4 ms', x, yOf(u, own - margin / 2), colours.soft, 'right');
    } });
}

// ---- pattern ----

/** Runs of frames whose dwells repeat: {from, to (seconds), name, frames}. */
function patternsOnScreen() {
  const least = 10;  // frames in step that make a run
  const longest = 12;  // frames of a pattern
  // A superseded frame is part of a pattern, with 0 vsyncs.
  const superseded = data.words.outcome.indexOf('superseded');
  const paced = hiddenFrames.some((i) => ledger.outcome[i] === superseded)
    ? Int32Array.from([...shown, ...hiddenFrames.filter((i) => ledger.outcome[i] === superseded)]).sort() : shown;
  const dwells = Array.from(paced, (i) => Number.isNaN(ledger.shown_us[i]) ? 0 : ledger.dwell_vsyncs[i]);
  const runs = [];
  let i = 0;
  while (i < dwells.length) {
    let best = 0, bestPeriod = 0;
    for (let period = 1; period <= longest && i + period < dwells.length; ++period) {
      let end = i + period;
      while (end < dwells.length && dwells[end] === dwells[end - period]) ++end;
      if (end - i >= Math.max(least, 2 * period) && end - i > best * 1.5) { best = end - i; bestPeriod = period; }
      if (best > 3 * least) break;
    }
    if (bestPeriod === 0) { ++i; continue; }
    const last = paced[i + best - 1];
    const to = Number.isNaN(ledger.released_us[last]) ? endAt : ledger.released_us[last] / 1e6;
    const name = patternName(dwells.slice(i, i + bestPeriod));
    const before = runs[runs.length - 1];
    // A break inside a pattern does not begin another one.
    const from = frameAt[paced[i]];
    if (before && before.name === name && from - before.to < 0.5) {
      before.to = to;
      before.frames += best;
    } else {
      runs.push({ from, to, name, frames: best });
    }
    i += best;
  }
  return runs;
}
/** "[3:2]": the largest number first; of one dwell n "[n:n]". */
function patternName(cycle) {
  if (cycle.length === 1) return `[${cycle[0]}:${cycle[0]}]`;
  if (cycle.length === 2) return `[${Math.max(...cycle)}:${Math.min(...cycle)}]`;
  const expected = data.stretches.find((stretch) => stretch.pattern.length === cycle.length &&
    cycle.some((_, turn) => stretch.pattern.every((dwell, i) => dwell === cycle[(i + turn) % cycle.length])));
  return expected ? expected.expected : `[${cycle.join(':')}]`;
}

/** What the library says is in force, as {from, to, name}. */
function patternsInForce() {
  const spans = [];
  happened.patterns.forEach(([us, name], i) => {
    const next = happened.patterns[i + 1];
    const to = next ? next[0] / 1e6 : endAt;
    if (name && to > 0) spans.push({ from: Math.max(us / 1e6, 0), to, name });
  });
  return spans;
}

const patternColours = ['bar', 'bar2'];
function addPatternChart(rows) {
  const names = [...new Set(rows.flatMap((row) => row.spans.map((span) => span.name)))];
  addChart('chart-pattern', {
    height: 30 + rows.length * 34, y: () => [0, rows.length],
    ticks: () => rows.map((_, i) => rows.length - i - 0.5), values: () => rows.map((row) => row.short),
    label: `Pattern over time. ${$('pattern-note').textContent}`,
    draw: (u, context) => rows.forEach((row, i) => {
      const y = yOf(u, rows.length - i - 0.12);
      const height = yOf(u, rows.length - i - 0.88) - y;
      context.fillStyle = colours.none;
      context.fillRect(u.bbox.left, y, u.bbox.width, height);
      let lastX = -1;
      for (let s = after(row.ends, view.from); s < row.spans.length && row.spans[s].from <= view.to; ++s) {
        const span = row.spans[s];
        const x = Math.max(xOf(u, Math.max(span.from, view.from)), u.bbox.left);
        const width = xOf(u, Math.min(span.to, view.to)) - x;
        if (x + width - lastX < .5) continue;
        lastX = x + width;
        context.fillStyle = colours[patternColours[names.indexOf(span.name) % 2]];
        context.fillRect(x, y, Math.max(width - dpr() / 2, 1), height);
        if (width > (span.name.length * 7 + 8) * dpr()) {
          text(context, span.name, x + Math.min(width / 2, 60 * dpr()), y + height / 2, colours.ink, 'center');
        }
      }
    }) });
}

// ---- buffers ----

function bufferTimes() {
  const inTunnel = (name) => ledger[name].map((us, i) => Number.isNaN(ledger.queued_us[i]) ? NaN : us);
  const left = ledger.queued_us.map((us, i) => Number.isNaN(us) ? ledger.returned_us[i] : us);
  const outOfTunnel = ledger.shown_us.map((us, i) => Number.isNaN(us) ? inTunnelEnd(i) : us);
  return { sent: sorted(ledger.sent_us), left: sorted(left), queued: sorted(ledger.queued_us),
    onScreen: sorted(outOfTunnel), released: sorted(inTunnel('released_us')),
    back: sorted(inTunnel('returned_us')), returned: sorted(ledger.returned_us) };
}
const inTunnelEnd = (i) => Number.isNaN(ledger.queued_us[i]) ? NaN : ledger.released_us[i];

const holders = [['library', 'bar', 'in the library'], ['tunnel', 'blue', 'in the tunnel'],
  ['screen', 'green', 'on screen'], ['back', 'orange', 'replaced, on its way back'],
  ['player', 'none', 'with the player']];

function addBufferChart() {
  const times = bufferTimes();
  const all = data.pool.buffers || 1;
  // The integral of how many times lie before a moment: a pixel shows the mean over its span.
  const sums = {};
  for (const [name, values] of Object.entries(times)) {
    let sum = 0;
    sums[name] = Float64Array.from([0, ...values], (us) => (sum += us));
  }
  const area = (name, us) => {
    const before = after(times[name], us);
    return before * us - sums[name][before];
  };
  const stages = [['sent', 'left'], ['queued', 'onScreen'], ['onScreen', 'released'], ['released', 'back']];
  const areas = (us) => stages.map(([from, to]) => area(from, us) - area(to, us));
  // Frames that came too late while the player had no other buffer.
  const starved = [];
  for (let i = 0; i < frames; ++i) {
    const us = ledger.sent_us[i];
    if (ledger.handed_in_late[i] === 1 && all - after(times.sent, us) + after(times.returned, us) <= 0) starved.push(us / 1e6);
  }
  addChart('chart-buffers', {
    height: 190, y: () => [0, all],
    label: `Who held how many of ${all} buffers over time. ${$('buffers-note').textContent}`,
    draw: (u, context) => {
      const { left, width } = u.bbox;
      const perPixel = (view.to - view.from) / width * 1e6;
      let before = areas(view.from * 1e6);
      for (let x = 0; x < width; ++x) {
        const now = areas(view.from * 1e6 + (x + 1) * perPixel);
        let base = 0;
        now.forEach((integral, i) => {
          const held = (integral - before[i]) / perPixel;
          if (held < .01) return;
          const y = yOf(u, base + held);
          context.fillStyle = colours[holders[i][1]];
          context.fillRect(left + x, y, 1, yOf(u, base) - y);
          base += held;
        });
        before = now;
      }
      context.fillStyle = colours.red;
      for (const at of starved) {
        if (at >= view.from && at <= view.to) context.fillRect(xOf(u, at) - dpr(), u.bbox.top, 2 * dpr(), 8 * dpr());
      }
    } });
  return starved.length;
}

function addFenceChart() {
  const never = (us) => us < 0;
  const signal = ledger.fence_us.map((us, i) => never(us) ? NaN : us - ledger.released_us[i]);
  const back = ledger.returned_us.map((us, i) => us - ledger.released_us[i]);
  const range = rangeOf(signal, back.map((us, i) => Number.isNaN(ledger.shown_us[i]) ? NaN : us));
  const high = sorted(back);
  const top = Math.max(percentile(high, 99.5) / 1e3 * 1.4 || 0, range ? Math.min(range[1], 40) : 0, 20);
  addChart('chart-fences', {
    height: 150, y: () => [0, top], label: 'Milliseconds from leaving the screen until the fence signalled and until the player had the buffer.',
    draw: (u, context) => {
      drawDots(u, context, back, colours.orange, 2.5);
      drawDots(u, context, signal, colours.blue, 2);
    } });
  return { signal: sorted(signal), back: high };
}
