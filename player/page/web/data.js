// SPDX-License-Identifier: Apache-2.0
// The page's data: columns of the ledger, unpacked when they are first asked for.
'use strict';

const summary = data.summary;
const happened = data.happened;

/** Columns unpacked so far, by name. */
const ledger = {};
const unpacking = {};
function column(name) {
  unpacking[name] ??= unpack(data.ledger[name]).then((numbers) => (ledger[name] = numbers));
  return unpacking[name];
}
const columns = (...names) => Promise.all(names.map(column));
const frames = data.ledger.frame.rows;

/** Index of the first element that is greater than a value, in ascending numbers. */
function after(numbers, value) {
  let low = 0, high = numbers.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    numbers[middle] > value ? (high = middle) : (low = middle + 1);
  }
  return low;
}
/** Index of the first element that is not less than a value, in ascending numbers. */
function notBefore(numbers, value) {
  let low = 0, high = numbers.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    numbers[middle] < value ? (low = middle + 1) : (high = middle);
  }
  return low;
}

/** Values that exist, in ascending order. */
function sorted(numbers) {
  return numbers.filter((n) => !Number.isNaN(n)).sort();
}
/** The smallest value that so many per cent do not exceed. */
const percentile = (ascending, percent) =>
  ascending[Math.max(Math.ceil((ascending.length * percent) / 100) - 1, 0)];

/** Breaks: {frame, dwell, expected, kind, cause, text}, in the order of frames; kind 0 unexpected,
    1 by arithmetic, 2 at the start. */
const breaks = [];
const breakOf = new Map();
async function readBreaks() {
  const [frame, dwell, expected, kind, cause, text] = await Promise.all([
    ...['frame', 'dwell', 'expected', 'kind', 'cause'].map((name) => unpack(data.breaks[name])),
    inflate(data.breaks.text)]);
  const texts = new TextDecoder().decode(text).split('\n');
  for (let i = 0; i < frame.length; ++i) {
    const stretch = stretchOf(frame[i]);
    if (!stretch || !stretch.judged) continue;
    breaks.push({ frame: frame[i], dwell: dwell[i], expected: expected[i], kind: kind[i], cause: cause[i], text: texts[i] });
  }
  breaks.sort((a, b) => a.frame - b.frame);
  for (const found of breaks) breakOf.set(found.frame, found);
}

const stretchStarts = data.stretches.map((stretch) => stretch.first_frame);
const stretchOf = (frame) => data.stretches[after(stretchStarts, frame) - 1];

/** Frames that were on screen, in order, with the second at which each came. */
let shown = new Int32Array(0);
let shownAt = new Float64Array(0);
/** The second that stands for a frame: on screen, else given back, else handed in. */
let frameAt = new Float64Array(0);
let endAt = 1;
/** Frames that never came on screen, by the second at which that was known. */
let hiddenFrames = [];
let hiddenAt = new Float64Array(0);

async function readFrames() {
  await columns('shown_us', 'released_us', 'returned_us', 'sent_us', 'dwell_vsyncs', 'outcome');
  const outcomeShown = data.words.outcome.indexOf('shown');
  frameAt = new Float64Array(frames);
  shown = new Int32Array(frames);
  let count = 0, latest = 0;
  for (let i = 0; i < frames; ++i) {
    const isShown = ledger.outcome[i] === outcomeShown;
    const us = [ledger.shown_us[i], ledger.released_us[i], ledger.returned_us[i], ledger.sent_us[i]]
      .find((time) => !Number.isNaN(time));
    frameAt[i] = (us ?? 0) / 1e6;
    isShown ? (shown[count++] = i) : hiddenFrames.push(i);
    const end = Math.max(frameAt[i], (isShown ? ledger.released_us[i] : 0) / 1e6);
    if (end > latest) latest = end;
  }
  shown = shown.subarray(0, count);
  hiddenFrames.sort((a, b) => frameAt[a] - frameAt[b]);
  hiddenAt = Float64Array.from(hiddenFrames, (i) => frameAt[i]);
  shownAt = Float64Array.from(shown, (i) => ledger.shown_us[i] / 1e6);
  for (const action of happened.actions) latest = Math.max(latest, action[0] / 1e6);
  endAt = Math.max(latest, 0.001);
}

/** The frame on screen at a second, else the one nearest to it. */
function frameNear(second) {
  if (shown.length === 0) return frames > 0 ? 0 : -1;
  const at = after(shownAt, second) - 1;
  return shown[Math.max(at, 0)];
}
