// SPDX-License-Identifier: Apache-2.0
// Numbers and elements. Microseconds are shown with all their digits: what the page says can be
// found in the ledger.
'use strict';

const $ = (id) => document.getElementById(id);

/** An element: make('td', {class: 'num'}, text or elements...). */
function make(name, attributes = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (key.startsWith('on')) element.addEventListener(key.slice(2), value);
    else if (value !== null && value !== undefined && value !== false) element.setAttribute(key, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

const isNumber = (value) => value !== undefined && value !== null && !Number.isNaN(value);
const count = (n) => n.toLocaleString('en-US');
const plural = (n, one, many = one + 's') => `${count(n)} ${n === 1 ? one : many}`;
const seconds = (us) => `${(us / 1e6).toFixed(6)} s`;
const ms = (us) => `${(us / 1e3).toFixed(3)} ms`;
const signedMs = (us) => `${us > 0 ? '+' : us < 0 ? '−' : ''}${(Math.abs(us) / 1e3).toFixed(3)} ms`;
const rate = (hz) => String(+hz.toFixed(3));

/** 1:02:03.456 of seconds, with as many decimals as a step of the axis needs. */
function clock(value, decimals = 3) {
  const sign = value < 0 ? '−' : '';
  const whole = Math.abs(value);
  const fixed = (whole % 60).toFixed(decimals);
  const minutes = Math.floor(whole / 60);
  if (minutes === 0) return sign + fixed;
  const rest = fixed.padStart(decimals ? decimals + 3 : 2, '0');
  return minutes < 60 ? `${sign}${minutes}:${rest}`
    : `${sign}${Math.floor(minutes / 60)}:${String(minutes % 60).padStart(2, '0')}:${rest}`;
}

/** Colour and shape of each cause. Causes of one colour have the same party to blame. */
const causeLooks = {
  'unexplained': ['mark', 'star'], 'pause': ['grey', 'square'], 'resume': ['grey', 'triangle'],
  'underflow': ['purple', 'square'], 'drop': ['red', 'triangle'], 'lost': ['red', 'cross'],
  'late frame': ['orange', 'circle'], 'no buffer': ['orange', 'square'], 'fence': ['orange', 'cross'],
  'refusal': ['green', 'cross'], 'policy': ['purple', 'cross'],
  'late on screen': ['green', 'circle'],
  'source gap': ['sky', 'diamond'], 'clock moved': ['purple', 'diamond'],
  'timestamps': ['sky', 'circle'], 'start': ['grey', 'circle'], 'flush': ['grey', 'diamond'],
  'mode change': ['green', 'diamond'], 'rate change': ['sky', 'square'],
  'renderer': ['red', 'circle'], 'wrong pattern': ['red', 'square'] };
const calmLook = ['grey', 'plus'];
function lookOf(found) {
  if (found.kind !== 0) return calmLook;
  const name = data.words.cause[found.cause];
  return causeLooks[name] ?? [['red', 'orange', 'purple', 'green'][found.cause % 4], 'star'];
}
const causeName = (found) => found.kind === 1 ? 'by arithmetic'
  : found.kind === 2 ? 'first frame of all' : data.words.cause[found.cause];

const shapes = {
  circle: (r) => [[0, r, 'arc']],
  square: (r) => [[-r, -r], [r, -r], [r, r], [-r, r]],
  triangle: (r) => [[0, -r * 1.15], [r * 1.1, r * .9], [-r * 1.1, r * .9]],
  diamond: (r) => [[0, -r * 1.3], [r * 1.1, 0], [0, r * 1.3], [-r * 1.1, 0]],
  star: (r) => Array.from({ length: 10 }, (_, i) => {
    const reach = i % 2 ? r * .5 : r * 1.35;
    return [Math.sin(i * Math.PI / 5) * reach, -Math.cos(i * Math.PI / 5) * reach];
  }),
  cross: (r) => [[-1, -.55], [-.55, -1], [0, -.4], [.55, -1], [1, -.55], [.4, 0], [1, .55], [.55, 1],
    [0, .4], [-.55, 1], [-1, .55], [-.4, 0]].map(([x, y]) => [x * r * 1.1, y * r * 1.1]),
  plus: (r) => [[-.3, -1], [.3, -1], [.3, -.3], [1, -.3], [1, .3], [.3, .3], [.3, 1], [-.3, 1],
    [-.3, .3], [-1, .3], [-1, -.3], [-.3, -.3]].map(([x, y]) => [x * r, y * r]) };

/** Adds a shape to a canvas path. */
function trace(context, shape, x, y, r) {
  if (shape === 'circle') {
    context.moveTo(x + r, y);
    context.arc(x, y, r, 0, 7);
    return;
  }
  shapes[shape](r).forEach(([dx, dy], i) => i ? context.lineTo(x + dx, y + dy) : context.moveTo(x + dx, y + dy));
  context.closePath();
}
/** The same shape as a picture beside text. */
function icon([colour, shape]) {
  const points = shape === 'circle' ? '' : shapes[shape](5).map((p) => p.join()).join(' ');
  const holder = make('span', { 'aria-hidden': 'true' });
  holder.innerHTML = `<svg width="14" height="14" viewBox="-7 -7 14 14" fill="var(--${colour})">${
    points ? `<polygon points="${points}"/>` : '<circle r="5"/>'}</svg>`;
  return holder.firstChild;
}
const swatch = (colour) => make('span', { class: 'swatch', style: `background:var(--${colour})`, 'aria-hidden': 'true' });

/** A table of texts and elements; columns that begin with "#" hold numbers. */
function table(headings, rows, caption) {
  const numeric = headings.map((heading) => heading.startsWith('#'));
  const cell = (name) => (value, i) => make(name, { class: numeric[i] ? 'num' : null }, value);
  return make('table', { 'aria-label': caption },
    make('thead', {}, make('tr', {}, ...headings.map((heading, i) =>
      make('th', { scope: 'col', class: numeric[i] ? 'num' : null }, heading.replace('#', ''))))),
    make('tbody', {}, ...rows.map((row) => make('tr', {}, ...row.map(cell('td'))))));
}

/** A link that puts the cursor on a frame. */
const frameLink = (frame) => make('a', { href: `#f=${frame}`,
  onclick: (event) => { event.preventDefault(); show(frame); } }, String(frame));

async function copy(text, button) {
  const before = button.textContent;
  try {
    await navigator.clipboard.writeText(text);
  } catch {
    const field = make('textarea', { style: 'position:fixed;opacity:0' });
    field.value = text;
    document.body.append(field);
    field.select();
    document.execCommand('copy');
    field.remove();
  }
  button.textContent = 'Copied';
  setTimeout(() => { button.textContent = before; }, 1200);
}
