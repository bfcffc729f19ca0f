// SPDX-License-Identifier: Apache-2.0
// Opens report pages in a headless Chromium as a reader would, and holds what they show to the event
// log and the ledger that the player wrote beside them:
//   node page-test.mjs KORVANE_TV SCENARIOS CLIP CHROMIUM FOLDER
// FOLDER keeps the pages and a picture of each.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdirSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { Browser } from './browser.mjs';

const [korvaneTv, scenarios, clip, chromium, folder] = process.argv.slice(2);
rmSync(folder, { recursive: true, force: true });
mkdirSync(folder, { recursive: true });

const scenario = (name, content, display) => {
  writeFileSync(`${folder}/${name}.toml`, `title = "${name}"\nholds = "nothing"\n[content]\n${content}\n[display]\n${display}\n[expect]\nfirst_frame_within = "0ms..60s"\n`);
  return `${folder}/${name}.toml`;
};
const named = (name) => `${scenarios}/${name}.toml`;
/** What a stranger must read off the verdict and the legend of breaks. */
const pages = {
  'cadence-24-on-60': { verdict: /^Even: \[3:2\]/, legend: /^$/ },
  'display-drift': { verdict: /^Even/, legend: /by arithmetic/ },
  '60-on-50': { verdict: /As even as the rates allow/, legend: /superseded/ },
  'audio-underflow': { verdict: /audio/, legend: /underflow/ },
  'player-seek-storm': { verdict: /./, legend: /flushed/ },
  'tunnel-fence-never': { verdict: /buffer never came back/, legend: /dropped/ },
  'cadence-25-on-59.94-jump': { verdict: /pattern \[3:2\] is in force/, legend: /wrong pattern/ },
  'splice-forward-an-hour': { verdict: /^Even/, legend: /^$/, waits: /splice.*no time lost.*jump from 10.000 s to 3610.000 s/s },
  'audio-never-starts': { verdict: /Nothing was shown/, legend: /dropped/ },
  'ten-hours': { verdict: /^Even/, legend: /by arithmetic/ } };
const own = { '60-on-50': scenario('60-on-50', 'fps = 60\nduration = "20s"', 'rate = 50'),
  'ten-hours': scenario('ten-hours', 'fps = 24\nduration = "10h"', 'rate = 59.94') };

function runTv(...words) {
  const done = spawnSync(korvaneTv, words, { encoding: 'utf8' });
  if (done.stderr.includes('lacks the chart library')) {
    console.log(`skipped: ${done.stderr}`);
    process.exit(77);
  }
  assert.ok(done.status === 0 || done.status === 1, done.stderr);
  return done.stdout;
}

/** What the event log says of each frame: {media_us, vsync, shown_us, dwell, lip_sync}. */
function framesOf(eventLog) {
  const frames = [];
  for (const line of eventLog.split('\n')) {
    const [at, kind, ...pairs] = line.split(' ');
    const values = Object.fromEntries(pairs.map((pair) => pair.split('=')));
    if (values.frame === undefined) continue;
    const frame = frames[values.frame] ??= {};
    if (kind === 'sent') frame.media_us = +values.media_us;
    if (kind === 'shown') Object.assign(frame, { vsync: +values.vsync, shown_us: Math.trunc(+at.replace('.', '') / 1000),
      lip_sync_us: values.lip_sync_us === undefined ? null : +values.lip_sync_us });
    if (kind === 'replaced') frame.dwell_vsyncs = +values.dwell;
  }
  return frames;
}

/** The page's columns as lists, null where a row is empty. */
const columnsOf = (page, ...names) => page.evaluate(`columns(${names.map((name) => `'${name}'`)})
  .then((all) => all.map((numbers) => Array.from(numbers, (n) => Number.isNaN(n) ? null : n)))`);

async function open(browser, file, size) {
  const page = await browser.open(`file://${file}`, size);
  await page.until(`document.body && document.body.dataset.ready === 'whole'`, 60000);
  await page.settle();
  return page;
}
const summaryOf = (page) => page.evaluate('summary');

async function holdsTheEventLog(page, file) {
  const names = ['media_us', 'vsync', 'shown_us', 'dwell_vsyncs', 'lip_sync_us'];
  const columns = await columnsOf(page, 'outcome', ...names);
  const logged = framesOf(readFileSync(file, 'utf8'));
  assert.equal(columns[0].length, logged.length, 'frames');
  logged.forEach((frame, i) => names.forEach((name, at) => {
    // Frames that were only queued at stop have a record, but no event of the screen.
    if (frame.vsync === undefined && name !== 'media_us') return;
    assert.equal(columns[at + 1][i], frame[name] ?? null, `${name} of frame ${i}`);
  }));
}

/** Everything on the page that is a number of the summary or a count of its columns agrees. */
async function agreesWithItself(page, expected) {
  const summary = await summaryOf(page);
  const text = await page.text('#text');
  assert.ok(text.startsWith(`verdict   ${summary.verdict}\n`), 'the text report has the verdict');
  assert.equal(await page.text('#verdict'), summary.verdict);
  assert.match(summary.verdict, expected.verdict);
  assert.match(await page.text('#dwell-legend'), expected.legend);
  assert.match(await page.text('#waits'), expected.waits ?? /^/);
  assert.equal(await page.evaluate('breaks.filter((b) => b.kind === 0).length'), summary.dwells_unexpected, 'unexpected breaks');
  assert.equal(await page.evaluate('breaks.filter((b) => b.kind === 1).length'), summary.dwells_by_arithmetic, 'slips');
  assert.equal(await page.evaluate('shown.length'), summary.frames_shown);
  assert.equal(await page.evaluate('hiddenFrames.length'), summary.frames_in - summary.frames_shown);
  assert.equal(await page.text('#command'), summary.command_line);
  if (summary.even && summary.held) {
    assert.ok(await page.evaluate('patternsOnScreen().some(({ name }) => name === summary.pattern)'), 'the pattern is seen on screen');
  }
  for (const id of ['dwell', 'sync', 'phase', 'pattern', 'buffers', 'fences'].map((name) => `chart-${name}`)) {
    const label = await page.evaluate(`document.getElementById('${id}').getAttribute('aria-label') ?? document.getElementById('${id}').childElementCount`);
    assert.ok(label === 0 || label.length > 20, `${id} is told to screen readers`);
  }
  assert.ok(await page.evaluate('document.scrollingElement.scrollWidth <= innerWidth'), 'nothing is cut at the right');
  assert.deepEqual(page.errors, []);
}

const tests = {
  async 'every page opens, and agrees with the event log'(browser) {
    const words = ['run', ...Object.keys(pages).map((name) => own[name] ?? named(name)), '-j', '2', '--report', `${folder}/run`];
    const said = runTv(...words);
    for (const [name, expected] of Object.entries(pages)) {
      const file = `${folder}/run/${name}/report.html`;
      assert.ok(statSync(file).size < 2e6, `${name} is smaller than 2 MB`);
      const page = await open(browser, file);
      await agreesWithItself(page, expected);
      if (name !== 'ten-hours') await holdsTheEventLog(page, `${folder}/run/${name}/events.txt`);
      await page.screenshot(`${folder}/${name}.png`, { full: true });
      await page.close();
    }
    rmSync(`${folder}/run/ten-hours/events.txt`);
    const index = await browser.open(`file://${folder}/run/index.html`);
    await index.until(`document.querySelectorAll('#runs tr').length === ${Object.keys(pages).length}`);
    assert.match(said, new RegExp(`${Object.keys(pages).length} scenarios, (\\d+) ok`));
    assert.equal((await index.text('#verdict')).split(' ')[0], /, (\d+) ok/.exec(said)[1]);
    await index.evaluate(`document.getElementById('part').value = 'never-starts'; fill()`);
    assert.equal(await index.evaluate(`document.querySelector('#runs a').getAttribute('href')`), 'audio-never-starts/report.html');
    assert.deepEqual(index.errors, []);
  },

  async 'a played file: each value of the page, the CSV and the JSON lines is the same'(browser) {
    runTv('play', clip, '--seek', '1s:2s', '--csv', `${folder}/f.csv`, '--ledger', `${folder}/f.jsonl`, '--json', `${folder}/f.json`, '--report', `${folder}/play`, '-q');
    const page = await open(browser, `${folder}/play/report.html`);
    const [head, ...lines] = readFileSync(`${folder}/f.csv`, 'utf8').trim().split('\n').map((line) => line.split(','));
    const json = readFileSync(`${folder}/f.jsonl`, 'utf8').trim().split('\n').map((line) => JSON.parse(line));
    const columns = await columnsOf(page, ...head);
    const words = await page.evaluate('data.words');
    lines.forEach((line, row) => head.forEach((name, i) => {
      const shown = columns[i][row];
      const word = words[name]?.[shown]?.replaceAll(' ', '_') ?? (line[i] === 'at_once' ? 'at_once' : shown ?? '');
      assert.equal(String(word), line[i], `${name} of frame ${row}`);
      assert.equal(String(json[row][name] ?? ''), line[i], `${name} of frame ${row} in the JSON lines`);
    }));
    assert.deepEqual(await summaryOf(page), JSON.parse(readFileSync(`${folder}/f.json`, 'utf8')));
    assert.equal(readFileSync(`${folder}/play/events.txt`, 'utf8').match(/ shown /g).length, await page.evaluate('shown.length'));
    assert.match(await page.text('#waits'), /seek or flush/);
    assert.deepEqual(page.errors, []);
  },

  async 'mouse: a click tells a frame, a drag zooms, a double click shows the whole'(browser) {
    const page = await open(browser, `${folder}/run/audio-underflow/report.html`);
    const at = (second) => page.evaluate(`(() => { const { plot, host } = charts[0]; host.scrollIntoView({ block: 'center' });
      const box = plot.over.getBoundingClientRect(); return [box.left + plot.valToPos(${second}, 'x'), box.top + box.height / 2]; })()`);
    await page.click(...await at(5));
    await page.until(`document.getElementById('story-frame')`);
    const frame = await page.evaluate('view.frame');
    const [shown, dwell] = await page.evaluate(`[ledger.shown_us[${frame}], ledger.dwell_vsyncs[${frame}]]`);
    assert.ok(shown <= 5e6 && 5e6 < shown + 50001, `frame ${frame} was on screen at 5 s`);
    const story = await page.text('#story');
    for (const words of [`Frame ${frame}`, `at ${(shown / 1e6).toFixed(6)} s`, `${dwell} vsyncs`]) assert.ok(story.includes(words), words);
    const [from, to] = [await at(9), await at(12)];
    await page.drag(from, [(from[0] + to[0]) / 2, from[1]], to);
    const [left, right] = await page.evaluate('[view.from, view.to]');
    assert.ok(Math.abs(left - 9) < .1 && Math.abs(right - 12) < .1, `${left} to ${right}`);
    assert.deepEqual(await page.evaluate('charts.map(({ plot }) => [plot.scales.x.min, plot.scales.x.max]).filter(([l, r]) => l !== view.from && r !== view.to).length'),
      await page.evaluate('charts.filter((chart) => chart.stale).length'), 'charts in the window zoom together');
    const link = await page.evaluate('location.hash');
    assert.match(link, new RegExp(`f=${frame}&v=`));
    const other = await open(browser, `${folder}/run/audio-underflow/report.html${link}`);
    assert.deepEqual(await other.evaluate('[view.frame, view.from.toFixed(3)]'), [frame, left.toFixed(3)], 'the link shows the same');
    await page.evaluate(`charts[0].plot.over.dispatchEvent(new MouseEvent('dblclick'))`);
    assert.deepEqual(await page.evaluate('[view.from, view.to - endAt]'), [0, 0]);
    assert.deepEqual([...page.errors, ...other.errors], []);
  },

  async 'keyboard alone: frames, breaks, zoom, ends, help, theme'(browser) {
    const page = await open(browser, `${folder}/run/tunnel-fence-never/report.html`);
    const frame = () => page.evaluate('view.frame');
    await page.press('n');
    assert.equal(await frame(), await page.evaluate('breaks.find((b) => b.kind === 0).frame'));
    assert.match(await page.text('#story'), /instead of/);
    const before = await frame();
    await page.press('ArrowRight');
    await page.press('ArrowRight', { shift: true });
    await page.press('ArrowLeft');
    assert.equal(await frame(), before + 10);
    await page.evaluate(`show(ledger.drop_reason.findIndex((reason) => reason > 0))`);
    await page.settle();
    assert.match(await page.text('#story'), /Droppedlate.*behind the clock/, 'a dropped frame tells how late it was');
    await page.press('End');
    assert.equal(await frame(), await page.evaluate('frames - 1'));
    await page.press('0');
    const wide = await page.evaluate('view.to - view.from');
    await page.press('Home');
    await page.press('+');
    assert.ok(Math.abs(await page.evaluate('view.to - view.from') - wide / 2) < 1e-6);
    await page.press('?');
    assert.ok(await page.evaluate(`document.getElementById('help-dialog').open`));
    await page.evaluate(`document.getElementById('help-dialog').close()`);
    await page.emulate({ dark: true });
    await page.settle();
    const themes = [];
    for (let i = 0; i < 3; ++i) {
      themes.push(await page.evaluate('document.documentElement.dataset.theme'));
      await page.press('t');
    }
    assert.deepEqual(themes, ['dark', 'light', 'dark']);
    await page.evaluate(`document.getElementById('breaks-details').open = true; whole()`);
    await page.until(`document.querySelectorAll('#breaks-table tbody tr').length === breaks.length`);
    await page.evaluate(`document.getElementById('frames-details').open = true`);
    await page.until(`document.querySelectorAll('#frames-table tbody tr').length === rowsAtOnce`);
    assert.deepEqual(page.errors, []);
  },

  async 'a comparison draws both, and agrees with its figures'(browser) {
    const sides = ['cadence-24-on-60', 'audio-underflow'].map((name) => `${folder}/run/${name}`);
    const text = runTv('compare', ...sides, '--report', `${folder}/compare`, '--json', `${folder}/compare.json`);
    const told = JSON.parse(readFileSync(`${folder}/compare.json`, 'utf8'));
    assert.equal(told.figures_from, 'summaries');
    const page = await open(browser, `${folder}/compare/compare.html`);
    assert.equal(await page.text('#verdict'), told.verdict);
    assert.equal(text.split('\n')[0], told.verdict);
    assert.equal(await page.evaluate(`document.querySelectorAll('#frames tr').length`), told.frames.length);
    for (const [i, key] of ['a', 'b'].entries()) {
      assert.equal(await page.evaluate(`data.sides[${i}].dwell.filter((n) => n > 0).length`), told.figures.frames_shown[key]);
      assert.equal(await page.evaluate(`data.sides[${i}].changed.filter((n) => n > 0).length`), told.frames.filter((frame) => frame[key]).length);
    }
    await page.evaluate(`document.querySelector('#frames tr').click()`);
    const at = told.frames[0].media_us / 1e6;
    assert.deepEqual(await page.evaluate('plots.map((plot) => plot.scales.x.max)'), [at + 1.5, at + 1.5], 'both charts go to a frame that is clicked');
    assert.match(await page.text('#readout'), /A at .* vsyncs.*B at /);
    await page.screenshot(`${folder}/compare.png`, { full: true });
    assert.deepEqual(page.errors, []);
  },

  async 'a phone and paper get all of it, too'(browser) {
    const page = await open(browser, `${folder}/run/audio-underflow/report.html`, { width: 390, height: 800 });
    assert.ok(await page.evaluate('document.scrollingElement.scrollWidth <= innerWidth'), 'nothing is cut');
    await page.send('Emulation.setDeviceMetricsOverride', { width: 1400, height: 900, deviceScaleFactor: 1, mobile: false });
    await page.emulate({ dark: true });
    await page.settle();
    await page.evaluate(`dispatchEvent(new Event('beforeprint'))`);
    assert.equal(await page.evaluate('document.documentElement.dataset.theme'), 'light', 'paper is light');
    await page.evaluate(`dispatchEvent(new Event('afterprint'))`);
    const { data } = await page.send('Page.printToPDF', { printBackground: true });
    assert.ok(data.length > 50000, 'the charts are on paper');
    writeFileSync(`${folder}/print.pdf`, Buffer.from(data, 'base64'));
    assert.deepEqual(page.errors, []);
  } };

const browser = await Browser.start(chromium);
let failed = 0;
for (const [name, test] of Object.entries(tests)) {
  try {
    await test(browser);
    console.log(`ok      ${name}`);
  } catch (error) {
    ++failed;
    console.log(`FAILED  ${name}\n${error.stack}`);
  }
}
await browser.stop();
process.exit(failed ? 1 : 0);
