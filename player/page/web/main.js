// SPDX-License-Identifier: Apache-2.0
// Puts the page together: what the reader sees first comes first, charts further down follow.
'use strict';

const keys = {
  ArrowLeft: (event) => select((view.frame < 0 ? 1 : view.frame) - (event.shiftKey ? 10 : 1)),
  ArrowRight: (event) => select(view.frame + (event.shiftKey ? 10 : 1)),
  Home: () => select(0), End: () => select(frames - 1),
  '+': () => zoom(.5), '=': () => zoom(.5), '-': () => zoom(2), '0': whole, Escape: whole,
  n: () => nextBreak(1), p: () => nextBreak(-1), t: nextTheme, '?': () => $('help-dialog').showModal() };

function watchControls() {
  const on = (id, run) => $(id).addEventListener('click', run);
  on('zoom-in', () => zoom(.5));
  on('zoom-out', () => zoom(2));
  on('whole', whole);
  on('break-before', () => nextBreak(-1));
  on('break-after', () => nextBreak(1));
  on('theme', nextTheme);
  on('help', () => $('help-dialog').showModal());
  on('link-view', (event) => copy(`${location.href.split('#')[0]}#${address()}`, event.target));
  $('goto').addEventListener('change', () => {
    const frame = parseInt($('goto').value, 10);
    if (frames > 0 && frame >= 0) show(Math.min(frame, frames - 1));
  });
  $('breaks-details').addEventListener('toggle', fillBreaksTable);
  $('frames-details').addEventListener('toggle', fillFramesTable);
  addEventListener('keydown', (event) => {
    const inField = /^(INPUT|SELECT|TEXTAREA)$/.test(event.target.tagName) || $('help-dialog').open;
    if (inField || event.ctrlKey || event.metaKey || event.altKey || !keys[event.key]) return;
    const moves = event.key.startsWith('Arrow') || event.key === 'Home' || event.key === 'End';
    if (moves && frames === 0) return;
    event.preventDefault();
    keys[event.key](event);
  });
  addEventListener('hashchange', () => { if (location.hash.slice(1) !== address()) readAddress(); });
  new ResizeObserver(resize).observe($('main'));
  const print = (begins) => {
    printing = begins;
    applyTheme();
    resize(begins ? 660 : undefined);
    charts.forEach(redraw);
  };
  addEventListener('beforeprint', () => print(true));
  addEventListener('afterprint', () => print(false));
}

function resize(width) {
  for (const { plot, host, options } of charts) {
    const wide = typeof width === 'number' ? width : Math.max(host.clientWidth, 200);
    if (plot.width !== wide) plot.setSize({ width: wide, height: options.height });
  }
  announce('view');
}

let tables = 0;
listeners.push((now) => {
  $('range').textContent = `${clock(view.from)} – ${clock(view.to)} (${clock(view.to - view.from)} s of ${clock(endAt, 1)} s)`;
  for (const chart of charts) follow(chart, now);
  drawOverview(now);
  if (now.has('view')) {
    clearTimeout(tables);
    tables = setTimeout(() => { fillBreaksTable(); fillFramesTable(); }, 250);
  }
  if (view.frame >= 0 && document.activeElement !== $('goto')) $('goto').value = view.frame;
  tellStory();
});

/** Lets the browser paint what is there. */
const painted = () => new Promise((go) => requestAnimationFrame(() => setTimeout(go)));

async function run() {
  applyTheme();
  await Promise.all([readFrames(), readBreaks()]);
  overviewKept = null;
  fillHeader();
  fillLatencies();
  fillNotes();
  whole();
  if (shown.length) addDwellChart();
  watchControls();
  watchOverview();
  readAddress();
  fillLegends();
  document.body.dataset.ready = 'first';
  await painted();
  await columns('lip_sync_us', 'av_offset_us', 'vsync_phase_us');
  if (summary.lip_sync_samples + summary.av_offset_samples > 0) addSyncChart();
  if (shown.length) addPhaseChart();
  await painted();
  fillPattern(patternsOnScreen(), patternsInForce());
  fillOutcomes();
  fillLog();
  fillAgain();
  await painted();
  await columns('queued_us', 'fence_us', 'handed_in_late');
  let starved = 0, fences = { signal: [], back: [] };
  if (frames > 0) starved = addBufferChart();
  fillBufferNote(starved);
  if (shown.length) fences = addFenceChart();
  fillPercentiles(fences);
  announce('view');
  document.body.dataset.ready = 'whole';
}

run();
