// SPDX-License-Identifier: Apache-2.0
// The strip that stays in view: the whole playback with its breaks, and the part that the charts show.
'use strict';

const overview = $('overview');
let overviewKept = null;  // the strip without the window, as it was drawn last

function drawOverview(now) {
  const width = overview.clientWidth * dpr(), height = overview.clientHeight * dpr();
  if (width === 0) return;
  if (!overviewKept || now.has('theme') || overview.width !== Math.round(width)) {
    overview.width = Math.round(width);
    overview.height = Math.round(height);
    overviewKept = document.createElement('canvas');
    overviewKept.width = overview.width;
    overviewKept.height = overview.height;
    drawStrip(overviewKept.getContext('2d'), overview.width, overview.height);
  }
  const context = overview.getContext('2d');
  context.clearRect(0, 0, width, height);
  context.drawImage(overviewKept, 0, 0);
  const x = view.from / endAt * width;
  const wide = Math.max((view.to - view.from) / endAt * width, 3 * dpr());
  context.fillStyle = colours.paper;
  context.globalAlpha = .72;
  context.fillRect(0, 0, x, height);
  context.fillRect(x + wide, 0, width - x - wide, height);
  context.globalAlpha = 1;
  context.strokeStyle = colours.blue;
  context.lineWidth = 2 * dpr();
  context.strokeRect(x + dpr(), dpr(), Math.max(wide - 2 * dpr(), dpr()), height - 2 * dpr());
  if (view.frame >= 0) {
    context.fillStyle = colours.mark;
    context.fillRect(frameAt[view.frame] / endAt * width - dpr() / 2, 0, dpr(), height);
  }
  overview.setAttribute('aria-valuenow', String(Math.round((view.from + view.to) / 2 / endAt * 100)));
  overview.setAttribute('aria-valuetext', $('range').textContent);
}

function drawStrip(context, width, height) {
  context.fillStyle = colours.none;
  context.fillRect(0, 0, width, height);
  const at = (second) => second / endAt * width;
  context.fillStyle = colours.bar;
  // On screen: from the first frame of each section to its last.
  let from = -1, to = -1;
  const flush = () => { if (from >= 0) context.fillRect(from, height * .3, Math.max(to - from, 1), height * .4); };
  for (let i = 0; i < shown.length; ++i) {
    const x = at(shownAt[i]);
    if (from < 0 || x > to + 1) { flush(); from = x; }
    const end = ledger.released_us[shown[i]] / 1e6;
    to = Math.max(at(Number.isNaN(end) ? shownAt[i] : end), to);
  }
  flush();
  context.fillStyle = colours.grey;
  for (const second of sectionSeconds) context.fillRect(at(second), 0, dpr(), height);
  for (const stop of happened.stops) {
    const end = stop.to_us < 0 ? endAt : stop.to_us / 1e6;
    context.globalAlpha = .45;
    context.fillRect(at(stop.from_us / 1e6), 0, Math.max(at(end) - at(stop.from_us / 1e6), 1), height);
    context.globalAlpha = 1;
  }
  const last = {};
  for (const found of breaks) {
    if (found.kind !== 0) continue;
    const [colour] = lookOf(found);
    const x = at(frameAt[found.frame]);
    if (last[colour] !== undefined && x - last[colour] < 1) continue;
    last[colour] = x;
    context.fillStyle = colours[colour];
    context.fillRect(x - dpr(), 0, 2 * dpr(), height * .3);
  }
  context.fillStyle = colours.red;
  let lastX = -9;
  for (let i = 0; i < hiddenAt.length; ++i) {
    if (data.words.outcome[ledger.outcome[hiddenFrames[i]]] !== 'dropped') continue;
    const x = at(hiddenAt[i]);
    if (x - lastX < 1) continue;
    lastX = x;
    context.fillRect(x - dpr(), height * .72, 2 * dpr(), height * .28);
  }
}

function watchOverview() {
  let held = null;
  const second = (event) => (event.clientX - overview.getBoundingClientRect().left) / overview.clientWidth * endAt;
  overview.addEventListener('pointerdown', (event) => {
    overview.setPointerCapture(event.pointerId);
    const at = second(event);
    const length = view.to - view.from;
    if (at < view.from || at > view.to || length >= endAt) setView(at - Math.min(length, endAt / 10) / 2, at + Math.min(length, endAt / 10) / 2);
    held = at - view.from;
  });
  overview.addEventListener('pointermove', (event) => {
    if (held === null) return;
    const from = second(event) - held;
    setView(from, from + view.to - view.from);
  });
  overview.addEventListener('pointerup', () => { held = null; });
  overview.addEventListener('dblclick', whole);
}
