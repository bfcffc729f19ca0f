// SPDX-License-Identifier: Apache-2.0
// A frame's whole story, from the ledger.
'use strict';

const since = (from, to) => isNumber(from) && isNumber(to) ? ms(to - from) : null;

/** Rows [what, value, small print] of a frame. */
function storyOf(frame) {
  const at = (name) => ledger[name][frame];
  const rows = [];
  const add = (what, value, ...small) => rows.push([what, value, small.filter(Boolean)]);
  const outcome = data.words.outcome[at('outcome')];
  add('Media time', seconds(at('media_us')), `section ${at('section')}, buffer ${at('buffer')}`);
  add('Handed in', `at ${seconds(at('sent_us'))}`,
    isNumber(at('clock_us')) && `${ms(at('clock_us') - at('sent_us'))} before its time by the clock`,
    at('handed_in_late') === 1 && 'too late for its vsync');
  if (isNumber(at('drop_reason'))) {
    add('Dropped', data.words.drop_reason[at('drop_reason')], `at ${seconds(at('returned_us'))}`,
      isNumber(at('drop_late_us')) && (at('drop_late_us') >= 0 ? `${ms(at('drop_late_us'))} behind the clock`
        : `${ms(-at('drop_late_us'))} ahead of the clock`));
  }
  if (isNumber(at('clock_us'))) add('Time by the clock', seconds(at('clock_us')));
  if (isNumber(at('queued_us'))) {
    add('To the tunnel', `at ${seconds(at('queued_us'))}`,
      isNumber(at('present_us')) && `${ms(at('present_us') - at('queued_us'))} before its presentation time`);
    const moved = at('present_us') - at('clock_us');
    add('Presentation time', isNumber(at('present_us')) ? seconds(at('present_us')) : 'at once',
      isNumber(moved) && (moved === 0 ? 'as the clock has it' : `${signedMs(moved)} from the clock's: the library moved it`),
      isNumber(at('vsync_phase_us')) && `${ms(at('vsync_phase_us'))} into its vsync interval`);
  }
  if (isNumber(at('vsync'))) {
    add('On screen', `at ${seconds(at('shown_us'))}`, `vsync ${at('vsync')}`,
      isNumber(at('present_us')) && `${ms(at('shown_us') - at('present_us'))} after its presentation time`);
    const found = breakOf.get(frame);
    add('Stayed', plural(at('dwell_vsyncs'), 'vsync'), since(at('shown_us'), at('released_us')),
      found && `the pattern wanted ${found.expected}`);
    if (isNumber(at('lip_sync_us'))) add('Lip-sync', signedMs(at('lip_sync_us')),
      at('lip_sync_us') >= 0 ? 'the sound was heard earlier' : 'the sound was heard later');
    if (isNumber(at('av_offset_us'))) add('Against the clock', signedMs(at('av_offset_us')));
  } else if (outcome === 'superseded') {
    add('Superseded', `at ${seconds(at('released_us'))}`, 'a newer frame was due at the same vsync');
  }
  if (isNumber(at('released_us'))) add('Replaced', `at ${seconds(at('released_us'))}`);
  if (at('fence_us') < 0) add('Fence', 'never signalled');
  else if (isNumber(at('fence_us'))) add('Fence', `after ${since(at('released_us'), at('fence_us'))}`);
  add('Back with the player', isNumber(at('returned_us')) ? `at ${seconds(at('returned_us'))}` : 'not by callback',
    at('returns') > 1 && `returned ${at('returns')} times`);
  return rows;
}

/** Who held the buffer how long: [holder, microseconds, colour]. */
function holdersOf(frame) {
  const at = (name) => ledger[name][frame];
  const left = isNumber(at('queued_us')) ? at('queued_us') : at('returned_us');
  const out = isNumber(at('shown_us')) ? at('shown_us') : at('released_us');
  return [['library', left - at('sent_us'), 'bar'], ['tunnel', out - at('queued_us'), 'blue'],
    ['screen', at('released_us') - at('shown_us'), 'green'],
    ['way back', isNumber(at('queued_us')) ? at('returned_us') - at('released_us') : NaN, 'orange']]
    .filter(([, us]) => us > 0);
}

let toldFrame = -2;
async function tellStory() {
  const frame = view.hover >= 0 ? view.hover : view.frame;
  if (frame === toldFrame) return;
  toldFrame = frame;
  const host = $('story');
  host.classList.toggle('nothing', frame < 0);
  if (frame < 0) {
    host.replaceChildren(make('h2', {}, 'A frame’s story'),
      make('p', { class: 'soft' }, frames > 0 ? 'Point at a chart, or press an arrow key. A click keeps the frame.'
        : 'No frame was handed in.'));
    return;
  }
  await columns(...Object.keys(data.ledger));
  if (frame !== toldFrame) return;
  const outcome = data.words.outcome[ledger.outcome[frame]];
  const found = breakOf.get(frame);
  const held = holdersOf(frame);
  const total = held.reduce((sum, [, us]) => sum + us, 0);
  host.replaceChildren(...[
    make('h2', {}, make('span', { id: 'story-frame' }, `Frame ${frame}`), make('span', { class: 'soft' }, outcome),
      make('button', { type: 'button', class: 'narrow', 'aria-label': 'Close', onclick: () => { view.frame = view.hover = -1; announce('frame'); } }, '✕')),
    found && make('p', { class: found.kind === 0 ? 'break' : 'break calm' }, icon(lookOf(found)),
      make('span', {}, `${found.dwell} instead of ${found.expected}: ${found.text || causeName(found)}`)),
    held.length ? make('div', { class: 'stack', role: 'img', 'aria-label': 'Who held the buffer how long' },
      ...held.map(([, us, colour]) => make('i', { style: `flex:${us / total} 0 0;background:var(--${colour})` }))) : null,
    make('dl', {}, ...held.flatMap(([name, us, colour]) => [
      make('dt', {}, swatch(colour), ` ${name}`), make('dd', {}, ms(us))])),
    make('dl', { id: 'story-rows' }, ...storyOf(frame).flatMap(([what, value, small]) => [
      make('dt', {}, what), make('dd', {}, value, ...small.map((line) => make('small', {}, line)))])),
    make('div', { class: 'buttons' },
      make('button', { type: 'button', 'aria-label': 'Frame before', onclick: () => select(frame - 1) }, '◂'),
      make('button', { type: 'button', 'aria-label': 'Frame after', onclick: () => select(frame + 1) }, '▸'),
      make('button', { type: 'button', onclick: () => show(frame) }, 'Zoom here'),
      make('button', { type: 'button', id: 'link-frame', onclick: (event) =>
        copy(`${location.href.split('#')[0]}#f=${frame}`, event.target) }, 'Link to this frame'))]
    .filter(Boolean));
}
