// SPDX-License-Identifier: Apache-2.0
// What all charts share: the time in view, the frame under the cursor, the theme. The page's address
// names frame and view.
'use strict';

const view = { from: 0, to: 1, frame: -1, hover: -1 };
const listeners = [];  // called after a change, once per picture
let pending = false;
/** What changed: 'view', 'frame', 'theme'. */
const changed = new Set();

function announce(what) {
  changed.add(what);
  if (pending) return;
  pending = true;
  requestAnimationFrame(() => {
    pending = false;
    const now = new Set(changed);
    changed.clear();
    for (const listener of listeners) listener(now);
    writeAddress();
  });
}

/** Shortest time that can be in view: about one vsync. */
const shortest = 0.02;
function setView(from, to) {
  const length = Math.min(Math.max(to - from, shortest), endAt);
  const middle = (from + to) / 2;
  view.from = Math.min(Math.max(middle - length / 2, 0), endAt - length);
  view.to = view.from + length;
  announce('view');
}
const whole = () => setView(0, endAt);
/** @param factor  below 1: closer */
function zoom(factor, around = view.frame >= 0 ? frameAt[view.frame] : (view.from + view.to) / 2) {
  const inside = around >= view.from && around <= view.to ? around : (view.from + view.to) / 2;
  setView(inside - (inside - view.from) * factor, inside + (view.to - inside) * factor);
}
const pan = (by) => setView(view.from + by, view.to + by);

/** Puts the cursor on a frame and, unless the view is to stay, brings it into view. */
function select(frame, stay = false) {
  view.frame = Math.min(Math.max(frame, 0), frames - 1);
  view.hover = -1;
  const at = frameAt[view.frame];
  const length = view.to - view.from;
  if (!stay && (at < view.from || at > view.to)) setView(at - length / 2, at + length / 2);
  announce('frame');
}
/** The same, close enough to see frames of their own. */
function show(frame) {
  const close = 3;
  if (view.to - view.from > close * 2) setView(frameAt[frame] - close / 2, frameAt[frame] + close / 2);
  select(frame);
}
function hover(frame) {
  if (frame === view.hover) return;
  view.hover = frame;
  announce('frame');
}

function nextBreak(direction) {
  const list = breaks.filter((found) => found.kind === 0);
  if (list.length === 0) return;
  const from = view.frame >= 0 ? view.frame : direction > 0 ? -1 : frames;
  const found = direction > 0 ? list.find((b) => b.frame > from) ?? list[0]
    : list.slice().reverse().find((b) => b.frame < from) ?? list[list.length - 1];
  show(found.frame);
}

// ---- address ----

function address() {
  const parts = [];
  if (view.frame >= 0) parts.push(`f=${view.frame}`);
  if (view.from > 0 || view.to < endAt) parts.push(`v=${view.from.toFixed(3)}-${view.to.toFixed(3)}`);
  return parts.join('&');
}
let addressKnown = false;  // before that, it must not be written over
function writeAddress() {
  if (!addressKnown) return;
  const hash = address();
  if (hash !== location.hash.slice(1)) {
    try {
      history.replaceState(null, '', hash ? `#${hash}` : location.pathname + location.search);
    } catch { /* some browsers forbid it for pages from disk */ }
  }
}
function readAddress() {
  const parts = new URLSearchParams(location.hash.slice(1));
  addressKnown = true;
  const [, from, to] = /^(\d+\.?\d*)-(\d+\.?\d*)$/.exec(parts.get('v') ?? '') ?? [];
  if (to !== undefined) setView(+from, +to);
  const frame = parts.get('f');
  if (/^\d+$/.test(frame ?? '') && frames > 0) select(+frame, to !== undefined);
  if (frame !== null && to === undefined && view.frame >= 0) show(view.frame);
}

// ---- theme ----

const themes = ['auto', 'light', 'dark'];
const systemDark = matchMedia('(prefers-color-scheme: dark)');
let theme = 'auto';
let colours = {};
try { theme = themes.find((name) => name === localStorage.getItem('korvane-theme')) ?? 'auto'; } catch { /* no storage */ }

let printing = false;  // always light
function applyTheme() {
  const dark = !printing && (theme === 'dark' || (theme === 'auto' && systemDark.matches));
  document.documentElement.dataset.theme = dark ? 'dark' : 'light';
  const style = getComputedStyle(document.documentElement);
  colours = new Proxy({}, { get: (kept, key) => kept[key] ??= style.getPropertyValue(`--${String(key)}`).trim() });
  $('theme').textContent = `Theme: ${theme}`;
  announce('theme');
}
function nextTheme() {
  theme = themes[(themes.indexOf(theme) + 1) % themes.length];
  try { localStorage.setItem('korvane-theme', theme); } catch { /* no storage */ }
  applyTheme();
}
systemDark.addEventListener('change', () => applyTheme());
