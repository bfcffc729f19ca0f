// SPDX-License-Identifier: Apache-2.0
// The parts of the page that are text and tables.
'use strict';

const goodGrades = ['even', 'as_rates_allow'];
const badGrades = ['nothing_shown', 'stalled', 'broken_off', 'faulty'];

function fillHeader() {
  const grade = document.body.dataset.grade;
  const good = goodGrades.includes(grade) && data.failures.length === 0;
  document.body.classList.add(good ? 'good' : badGrades.includes(grade) || data.failures.length ? 'bad' : 'warn');
  $('about').textContent = data.about ? `– ${data.about}` : '';
  const fact = (label, value) => make('span', {}, `${label} `, make('b', {}, value));
  $('facts').replaceChildren(
    fact('content', summary.content_hz ? `${rate(summary.content_hz)} fps` : 'unknown rate'),
    fact('display', `${rate(summary.display_hz)} Hz`),
    fact('expected', summary.expected_pattern || 'no pattern'),
    fact('shown', `${count(summary.frames_shown)} of ${plural(summary.frames_in, 'frame')}`),
    fact('in', clock(endAt, 1) + (endAt < 60 ? ' s' : '')),
    fact('sound', !summary.with_audio ? 'none' : summary.passthrough ? 'pass-through' : 'yes'),
    fact('clock', summary.virtual_time ? 'virtual' : 'real'));
  $('failures').hidden = data.failures.length === 0;
  $('failures').replaceChildren(...data.failures.map((failure) => make('li', {}, `Expected otherwise: ${failure}`)));
}

function fillLatencies() {
  const starts = data.stretches.filter((stretch) => stretch.begin === 'section');
  const first = starts.find((stretch) => stretch.section === 0);
  const later = starts.filter((stretch) => stretch.section > 0);
  const pauses = happened.stops.filter((stop) => stop.by_player);
  const waits = happened.stops.filter((stop) => !stop.by_player);
  const took = (stop) => stop.to_us >= 0 && stop.next_us >= 0 ? stop.next_us - stop.to_us : NaN;
  const stood = (stop) => Math.max(stop.last_us - stop.from_us, 0);
  const worst = (list, value) => list.map(value).filter(isNumber).reduce((a, b) => Math.max(a, b), -1);
  const tile = (label, us, none) => make('div', { class: 'tile' },
    make('b', {}, us >= 0 ? ms(us) : '–'), make('span', {}, us >= 0 ? label : `${label}: ${none}`));
  const longest = (list, label) => list.length > 1 ? `${label}, longest of ${list.length}` : label;
  $('latencies').replaceChildren(
    tile('to the first frame', first ? first.first_frame_us : -1, 'none came'),
    tile('first to second frame', first ? first.second_frame_us : -1, 'none came'),
    tile(longest(later, 'seek or flush to frame'), worst(later, (s) => s.first_frame_us), 'no seek'),
    tile(longest(pauses, 'pause until still'), worst(pauses, stood), 'no pause'),
    tile(longest(pauses, 'resume to next frame'), worst(pauses, took), 'no resume'),
    tile(longest(waits, 'sound back to next frame'), worst(waits, took), 'no underflow'));
  if (later.length + happened.stops.length + happened.splices.length === 0) return;
  const rows = [
    ...later.map((s) => [happened.sections[s.section][0], 'seek or flush', frameLink(s.first_frame), ms(s.first_frame_us),
      s.second_frame_us >= 0 ? `second ${ms(s.second_frame_us)} later` : 'no second frame']),
    ...happened.stops.map((s) => [s.from_us, s.by_player ? 'pause' : 'underflow',
      s.next_frame >= 0 ? frameLink(s.next_frame) : '–', isNumber(took(s)) ? ms(took(s)) : '–',
      `clock stood ${s.to_us >= 0 ? ms(s.to_us - s.from_us) : 'to the end'}, last frame ${ms(stood(s))} into it`]),
    ...happened.splices.map((s) => [s.at_us, 'splice', frameLink(s.frame), s.lost_us > 0 ? `${ms(s.lost_us)} lost` : 'no time lost', s.what])]
    .sort((a, b) => a[0] - b[0]);
  const most = 200;
  $('waits').replaceChildren(make('details', { open: rows.length <= 6 ? '' : null },
    make('summary', {}, `Each one (${count(rows.length)})`),
    make('div', { class: 'scroll' }, table(['#At', 'What', '#Frame', '#Next frame after', 'And'],
      rows.slice(0, most).map((row) => [seconds(row[0]), ...row.slice(1)]), 'Seeks, pauses, underflows and splices'))));
}

function fillNotes() {
  const unexpected = breaks.filter((found) => found.kind === 0).length;
  const names = [...new Set(data.stretches.map((s) => s.expected).filter(Boolean))];
  const few = names.length <= 3 ? names.join(', then ') : `${names.length} patterns`;
  $('dwell-note').textContent = shown.length === 0 ? 'No frame came on screen.'
    : `${few ? `The rates demand ${few}. ` : ''}${plural(summary.dwells_unexpected, 'unexpected dwell')}, ` +
      `${count(summary.dwells_by_arithmetic)} that the two rates cannot avoid.` +
      (unexpected !== summary.dwells_unexpected ? ` ${count(unexpected)} are marked.` : '');
  const sync = summary;
  $('sync-note').textContent = sync.lip_sync_samples === 0
    ? summary.with_audio ? 'No frame came on screen while sound was heard.' : 'Played without sound: there is only the sync clock to compare with.'
    : `Median ${signedMs(sync.lip_sync_median_us)}, 99 of 100 frames within ${ms(sync.lip_sync_p99_us)}, worst ` +
      `${signedMs(sync.lip_sync_worst_us)} at frame ${sync.lip_sync_worst_frame}. Above 0 the sound came early. ` +
      `Outside EBU R37 for ${sync.lip_sync_seconds_outside_ebu} s, detectable (ITU) for ` +
      `${sync.lip_sync_seconds_outside_itu_detectable} s, not acceptable for ${sync.lip_sync_seconds_outside_itu_acceptable} s.`;
  $('phase-note').textContent = shown.length === 0 ? 'No frame came on screen.' : 'Milliseconds after the vsync before it. Within 4 ms of either end a small error moves a ' +
    'frame to another vsync; the library keeps that margin when it holds a pattern.';
}

const legendItem = (mark, words, number) => make('li', {}, mark, words, number === undefined ? null : make('b', {}, count(number)));

function fillLegends() {
  const groups = new Map();
  for (const found of breaks) {
    const name = causeName(found);
    if (!groups.has(name)) groups.set(name, { found, frames: 0 });
    ++groups.get(name).frames;
  }
  const order = [...groups].sort((a, b) => (a[1].found.kind !== 0) - (b[1].found.kind !== 0) || b[1].frames - a[1].frames);
  const hidden = new Map();
  for (const frame of hiddenFrames) {
    const name = data.words.outcome[ledger.outcome[frame]];
    hidden.set(name, (hidden.get(name) ?? 0) + 1);
  }
  $('dwell-legend').replaceChildren(
    ...order.map(([name, { found, frames: number }]) => legendItem(icon(lookOf(found)),
      make('button', { type: 'button', title: 'Go to the first one', onclick: () => show(found.frame) }, name), number)),
    ...[...hidden].map(([name, number]) => legendItem(swatch(hiddenColour[name] ?? 'grey'), `never on screen: ${name}`, number)),
    ...(happened.stops.length ? [legendItem(swatch('none'), 'the clock stood still')] : []));
  $('sync-legend').replaceChildren(...(summary.lip_sync_samples + summary.av_offset_samples > 0 ? [
    legendItem(swatch('blue'), 'against the sound that was heard', summary.lip_sync_samples),
    legendItem(swatch('orange'), 'against the sync clock', summary.av_offset_samples)] : []));
  $('buffers-legend').replaceChildren(...holders.map(([, colour, words]) => legendItem(swatch(colour), words)),
    legendItem(swatch('red'), 'late for want of a free buffer'));
  if (shown.length === 0) return;
  $('fences-legend').replaceChildren(legendItem(swatch('blue'), 'ms from leaving the screen to the fence'),
    legendItem(swatch('orange'), 'ms from leaving the screen to the player'));
}

// ---- tables that follow the view ----

const rowsAtOnce = 200;
/** A table of rows, some at a time, with buttons for the others. */
function paged(host, total, headings, rowsFrom, caption) {
  let from = 0;
  const draw = () => host.replaceChildren(
    make('p', { class: 'soft' }, total === 0 ? 'None.' : `${count(from + 1)} to ${count(Math.min(from + rowsAtOnce, total))} of ${count(total)} `,
      total > rowsAtOnce ? make('button', { type: 'button', onclick: () => { from = Math.max(from - rowsAtOnce, 0); draw(); } }, 'Before') : null, ' ',
      total > rowsAtOnce ? make('button', { type: 'button', onclick: () => { if (from + rowsAtOnce < total) from += rowsAtOnce; draw(); } }, 'After') : null),
    make('div', { class: 'scroll', tabindex: '0' }, table(headings, rowsFrom(from, Math.min(from + rowsAtOnce, total)), caption)));
  draw();
}

function fillBreaksTable() {
  if (!$('breaks-details').open) return;
  const at = breakFrames();
  const first = notBefore(at, view.from), end = after(at, view.to);
  paged($('breaks-table'), end - first, ['#Frame', '#At', '#Vsyncs', '#Expected', 'Cause', 'In words'],
    (from, to) => breaks.slice(first + from, first + to).map((found) => [frameLink(found.frame),
      `${frameAt[found.frame].toFixed(6)} s`, found.dwell, found.expected, causeName(found), found.text]),
    'Breaks of the pattern in view');
}

const tableColumns = ['frame', 'media_us', 'outcome', 'sent_us', 'queued_us', 'present_us', 'vsync', 'shown_us',
  'dwell_vsyncs', 'lip_sync_us', 'av_offset_us', 'released_us', 'fence_us', 'returned_us'];
async function fillFramesTable() {
  if (!$('frames-details').open) return;
  await columns(...tableColumns);
  let first = 0, end = frames;
  while (first < frames && frameAt[first] < view.from) ++first;
  while (end > first && frameAt[end - 1] > view.to) --end;
  const cell = (name, frame) => {
    const value = ledger[name][frame];
    return name === 'frame' ? frameLink(frame) : !isNumber(value) ? '' : name === 'outcome' ? data.words.outcome[value]
      : name === 'fence_us' && value < 0 ? 'never' : String(value);
  };
  paged($('frames-table'), end - first, tableColumns.map((name) => name === 'outcome' ? name : `#${name}`),
    (from, to) => Array.from({ length: to - from }, (_, i) => tableColumns.map((name) => cell(name, first + from + i))),
    'Frames in view');
}

// ---- pattern ----

function fillPattern(onScreen, inForce) {
  const judged = data.stretches.filter((stretch) => stretch.judged);
  const logged = happened.log.some(([, , tag]) => tag === 'VideoSyncFRAC');
  $('pattern-note').textContent = (logged
    ? 'In force: what the library’s log announces and takes back; flushes, restarts and resumed sound end it too. '
    : 'In force: unknown, for the library’s log is off (--log 1 turns it on). ') +
    'On screen: runs of at least ten frames whose vsyncs repeat.';
  const most = 100;
  const rows = judged.slice(0, most).map((stretch) => [frameLink(stretch.first_frame),
    `${rate(stretch.content_hz)} on ${rate(stretch.display_hz)}`, stretch.expected || '–', stretch.seen || 'none', stretch.held || 'not held']);
  if (rows.length > 0) {
    const body = table(['#From frame', 'fps on Hz', 'Expected', 'Seen', 'When'], rows, 'Stretches with one rate');
    $('pattern-table').replaceChildren(rows.length > 4 ? make('details', {},
      make('summary', {}, `Each stretch (${count(judged.length)})`), make('div', { class: 'scroll' }, body)) : body);
  }
  const lane = (short, spans) => ({ short, spans, ends: Float64Array.from(spans, (span) => span.to) });
  addPatternChart([lane('in force', inForce), lane('on screen', onScreen)]);
}

// ---- outcomes ----

const outcomeColours = { shown: 'bar', superseded: 'purple', dropped: 'red', flushed: 'grey', refused: 'orange',
  'discarded by stop': 'bar2', 'in tunnel at stop': 'sky', lost: 'mark', pending: 'mark' };
const outcomeStages = { shown: 'display', superseded: 'tunnel: a newer frame was due at the same vsync',
  dropped: 'library: given back unseen', flushed: 'player: its call of flush', refused: 'library: given back at its time, unseen',
  'discarded by stop': 'library: in its queue at stop', 'in tunnel at stop': 'tunnel: waiting at stop', lost: 'unaccounted for' };

function fillOutcomes() {
  const rows = [], bar = [];
  const firstOf = new Map();
  for (let i = 0; i < frames; ++i) if (!firstOf.has(ledger.outcome[i])) firstOf.set(ledger.outcome[i], i);
  data.words.outcome.forEach((name, i) => {
    const number = summary[`frames_${name.replaceAll(' ', '_')}`];
    if (!number) return;
    bar.push(make('i', { style: `flex:${number} 0 0;background:var(--${outcomeColours[name]})` }));
    rows.push([make('span', {}, swatch(outcomeColours[name]), ` ${name}`), outcomeStages[name] ?? '', count(number),
      firstOf.has(i) ? frameLink(firstOf.get(i)) : '', '']);
    if (name !== 'dropped') return;
    for (const drop of data.drops) {
      rows.push([make('span', { class: 'soft' }, `  ${drop.reason}`), drop.from_log === drop.frames ? 'reason from the library’s log' : 'reason from the clock’s values',
        count(drop.frames), frameLink(drop.first), `${plural(drop.runs, 'run')}, longest ${count(drop.longest)}`]);
    }
  });
  const runs = runLengths();
  $('outcomes-body').replaceChildren(
    make('div', { class: 'stack', role: 'img', 'aria-label': 'Share of each outcome' }, ...bar),
    table(['Outcome', 'Where, and why', '#Frames', '#First', 'Runs'], rows, 'Outcomes of all frames'),
    make('div', { class: 'split' },
      make('div', {}, make('h3', {}, 'Frames on screen, by vsyncs'), dwellTable()),
      make('div', {}, make('h3', {}, 'Frames missing in a row'), runs.length
        ? table(['#In a row', '#Times', '#First at frame'], runs.map(([length, run]) => [length, count(run.times), frameLink(run.first)]), 'Run lengths of frames not shown')
        : make('p', { class: 'soft' }, 'None is missing.')),
      make('div', {}, make('h3', {}, 'Times, in ms'), make('div', { id: 'percentiles' })),
      make('div', {}, make('h3', {}, 'What a viewer sees'), table(['', '#'], [
        ['visible breaks a minute', summary.visible_breaks_per_minute.toFixed(1)],
        ['time on screen off by, on average', ms(summary.judder_mean_error_us)],
        ['longest freeze', summary.longest_freeze_frame >= 0 ? ms(summary.longest_freeze_us) : 'none'],
        ['freeze score, rate (as Android counts)', `${summary.freeze_score}, ${+summary.freeze_rate.toPrecision(2)}`],
        ['judder score, rate (as Android counts)', `${summary.judder_score}, ${+summary.judder_rate.toPrecision(2)}`]], 'Judder and freezes'))));
}

function dwellTable() {
  const counts = new Map();
  for (let i = 0; i < shown.length; ++i) {
    const dwell = ledger.dwell_vsyncs[shown[i]];
    const of = counts.get(dwell) ?? { frames: 0, first: shown[i] };
    ++of.frames;
    counts.set(dwell, of);
  }
  const rows = [...counts].sort((a, b) => a[0] - b[0]).slice(0, 40);
  return rows.length ? table(['#Vsyncs', '#Frames', '#First'], rows.map(([dwell, of]) => [dwell, count(of.frames), frameLink(of.first)]), 'Frames by vsyncs on screen')
    : make('p', { class: 'soft' }, 'None came on screen.');
}

/** [length, {times, first}] of frames in a row that never came on screen, without those after a flush. */
function runLengths() {
  const missing = ['dropped', 'superseded', 'refused', 'lost'].map((name) => data.words.outcome.indexOf(name));
  const runs = new Map();
  for (let i = 0; i < frames; ++i) {
    const first = i;
    while (i < frames && missing.includes(ledger.outcome[i])) ++i;
    if (i === first) continue;
    const run = runs.get(i - first) ?? { times: 0, first };
    ++run.times;
    runs.set(i - first, run);
  }
  return [...runs].sort((a, b) => a[0] - b[0]);
}

function fillPercentiles(fences) {
  const stage = (from, to) => sorted(ledger[to].map((us, i) => us - ledger[from][i]));
  const rows = [['in the library', stage('sent_us', 'queued_us')], ['in the tunnel', stage('queued_us', 'shown_us')],
    ['on screen', sorted(Float64Array.from(shown, (i) => ledger.released_us[i] - ledger.shown_us[i]))],
    ['replaced to fence', fences.signal], ['replaced to player', fences.back]]
    .filter(([, values]) => values.length)
    .map(([name, values]) => [name, ...[50, 90, 99, 100].map((p) => (percentile(values, p) / 1e3).toFixed(3))]);
  $('percentiles').replaceChildren(rows.length ? table(['', '#p50', '#p90', '#p99', '#most'], rows, 'Percentiles of times')
    : make('p', { class: 'soft' }, 'Nothing to count.'));
}

function fillBufferNote(starved) {
  const pool = data.pool;
  $('buffers-note').textContent = `${plural(pool.buffers, 'buffer')}; the player waited ${plural(pool.waits, 'time')} for a free one, ` +
    `longest ${ms(pool.longest_wait_us)}; that made ${plural(starved, 'frame')} late. ` +
    (pool.came_back
      ? `Back with the player ${ms(pool.back_median_us)} after leaving the screen (median), p99 ${ms(pool.back_p99_us)}.`
      : '') +
    (summary.buffers_kept ? ` ${plural(summary.buffers_kept, 'buffer')} never came back.` : '');
}

// ---- log and command ----

const priorities = { 2: 'V', 3: 'D', 4: 'I', 5: 'W', 6: 'E', 7: 'F' };
function fillLog() {
  const lines = happened.log;
  const body = make('div');
  const draw = (least) => {
    const wanted = lines.filter(([, priority]) => priority >= least);
    paged(body, wanted.length, ['#At', '', 'Tag', 'Line'], (from, to) => wanted.slice(from, to).map(([us, priority, tag, words, more]) => [
      make('a', { href: '#', onclick: (event) => { event.preventDefault(); if (frames) show(frameNear(us / 1e6)); } }, `${(us / 1e6).toFixed(6)} s`),
      make('b', { style: priority >= 6 ? 'color:var(--red)' : priority === 5 ? 'color:var(--orange)' : null }, priorities[priority] ?? String(priority)),
      tag, words + (more ? ` … ${count(more)} more like this` : '')]), 'Lines of the log');
    for (const row of body.querySelectorAll('tbody tr')) row.lastChild.className = 'text';
  };
  const errors = lines.reduce((sum, [, priority, , , more]) => sum + (priority >= 6 ? 1 + more : 0), 0);
  $('log-body').replaceChildren(
    make('p', { class: 'note' }, `${plural(errors, 'error')}. Of each kind of line the first hundred are kept; ` +
      `--log 7 makes the library say more.${happened.log_left ? ` ${plural(happened.log_left, 'line')} of further kinds left out.` : ''} `,
      make('label', {}, 'Show ', make('select', { id: 'log-least', onchange: (event) => draw(+event.target.value) },
        make('option', { value: 0 }, 'all'), make('option', { value: 5 }, 'warnings and errors'), make('option', { value: 6 }, 'errors')))),
    body);
  draw(0);
}

function fillAgain() {
  const command = make('pre', { class: 'command', id: 'command' }, summary.command_line);
  $('again-body').replaceChildren(command,
    make('p', {}, make('button', { type: 'button', onclick: (event) => copy(summary.command_line, event.target) }, 'Copy'), ' ',
      make('span', { class: 'soft' }, `seed ${summary.seed} · events ${summary.event_hash} · korvane-tv ${summary.version}` +
        (summary.virtual_time ? ' · virtual time: the same again to the byte' : ' · real time: each run is another'))));
}
