// SPDX-License-Identifier: Apache-2.0
// The charts of a comparison: A above, B below, over media time. Frames that are not the same stand
// out; where many fall on one place, one mark stands for them.

const $ = (id) => document.getElementById(id);
const names = ['A', 'B'];
const plots = [];
let capped = 0;  // longer dwells are drawn there
const systemDark = matchMedia('(prefers-color-scheme: dark)');
let printing = false;
let whole = 1;
const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
const sideColours = ['blue', 'orange'];

function applyTheme() {
  document.documentElement.dataset.theme = systemDark.matches && !printing ? 'dark' : 'light';
  plots.forEach((plot) => plot.redraw(false, true));
}

const clock = (value) => {
  const rest = (value % 60).toFixed(3);
  return value < 60 ? `${rest} s` : `${Math.floor(value / 60)}:${rest.padStart(6, '0')}`;
};
/** Index of the last frame at or before a media time; -1: none. */
function frameAt(side, second) {
  let low = 0, high = side.at.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    side.at[middle] <= second ? low = middle + 1 : high = middle;
  }
  return low - 1;
}
function tell(second) {
  $('readout').textContent = data.sides.map((side, i) => {
    const frame = frameAt(side, second);
    if (frame < 0) return `${names[i]}: no frame`;
    const sync = side.lip_sync[frame] === side.lip_sync[frame] ? `, lip-sync ${(side.lip_sync[frame] / 1e3).toFixed(1)} ms` : '';
    return `${names[i]} at ${clock(side.at[frame])}: ${side.dwell[frame] !== side.dwell[frame] ? 'never on screen'
      : `${side.dwell[frame]} vsync${side.dwell[frame] === 1 ? '' : 's'}${sync}`}`;
  }).join('  ·  ');
}

/** Marks of one side: value(frame) gives the height, nothing leaves a frame out. */
function drawSide(u, i, value, up) {
  const side = data.sides[i], context = u.ctx, ratio = devicePixelRatio || 1;
  const first = Math.max(frameAt(side, u.scales.x.min), 0), end = Math.min(frameAt(side, u.scales.x.max) + 2, side.at.length);
  const base = colour(sideColours[i]), seen = new Set();
  const size = (end - first < 400 ? 4 : 3) * ratio;
  for (const strong of [false, true]) {
    context.fillStyle = base;
    context.globalAlpha = strong ? 1 : .35;
    for (let frame = first; frame < end; ++frame) {
      if (Boolean(side.changed[frame]) !== strong) continue;
      const height = value(side, frame);
      if (height !== height) continue;
      const x = Math.round(u.valToPos(side.at[frame], 'x', true)), y = Math.round(u.valToPos(height, 'y', true));
      const key = x * 65536 + y + (strong ? .5 : 0);
      if (seen.has(key)) continue;
      seen.add(key);
      const reach = strong ? size * 1.5 : size;
      context.fillRect(x - reach / 2, y + (up === 0 ? -reach / 2 : (i ? up : -up) * ratio - reach / 2), reach, reach);
    }
  }
  context.globalAlpha = 1;
}

function addChart(id, label, height, range, ticks, draw) {
  const axis = { stroke: () => colour('soft'), grid: { stroke: () => colour('grid'), width: 1 }, ticks: { show: false },
    font: '12px system-ui, "DejaVu Sans", sans-serif' };
  const host = $(id);
  host.setAttribute('role', 'img');
  host.setAttribute('aria-label', label);
  const plot = new uPlot({
    width: Math.max(host.clientWidth, 200), height, legend: { show: false }, padding: [8, 16, 0, 0],
    scales: { x: { time: false }, y: { range } },
    cursor: { sync: { key: 'media', scales: ['x', null] }, points: { show: false }, drag: { x: true, y: false } },
    series: [{}, { stroke: 'transparent' }],
    axes: [{ ...axis, size: 30, values: (_, splits) => splits.map((s) => clock(s).replace(/\.?0+( s)?$/, '$1').replace(' s', '')) },
      { ...axis, size: 52, ...(ticks ? { splits: ticks } : {}), values: (_, splits) => splits.map((v) => ticks && v === -1 ? 'none' : ticks && capped && v === capped ? `${v}+` : String(+v.toFixed(3))) }],
    hooks: {
      draw: [(u) => {
        u.ctx.save();
        u.ctx.beginPath();
        u.ctx.rect(u.bbox.left, u.bbox.top, u.bbox.width, u.bbox.height);
        u.ctx.clip();
        draw(u);
        u.ctx.restore();
      }],
      setScale: [(u, key) => {
        for (const other of plots) {
          if (key === 'x' && (other.scales.x.min !== u.scales.x.min || other.scales.x.max !== u.scales.x.max)) {
            other.setScale('x', { min: u.scales.x.min, max: u.scales.x.max });
          }
        }
      }],
      setCursor: [(u) => { if (u.cursor.left >= 0) tell(u.posToVal(u.cursor.left, 'x')); }] },
  }, [[0, whole], [null, null]], host);
  plots.push(plot);
}

function show(second) {
  plots[0].setScale('x', { min: Math.max(second - 1.5, 0), max: second + 1.5 });
  tell(second);
  $('chart-dwell').scrollIntoView({ block: 'center' });
}

async function run() {
  applyTheme();
  systemDark.addEventListener('change', applyTheme);
  $('lacks').hidden = true;
  for (const side of data.sides) {
    for (const [name, column] of Object.entries(side)) side[name] = await unpack(column);
    side.at = side.media.map((us) => us / 1e6);
    whole = Math.max(whole, side.at[side.at.length - 1] ?? 0);
  }
  let longest = 3, most = 100, least = -100, heard = false;
  for (const { dwell, lip_sync: sync } of data.sides) {
    for (const value of dwell) if (value > longest) longest = value;
    for (const value of sync) {
      if (value !== value) continue;
      heard = true;
      most = Math.max(most, value / 1e3 + 10);
      least = Math.min(least, value / 1e3 - 10);
    }
  }
  const top = Math.min(longest, 9), gone = -1;
  capped = longest > top ? top : 0;
  $('legend').innerHTML = names.map((name, i) => `<li><span class="swatch" style="background:var(--${sideColours[i]})"></span>${name}</li>`).join('') +
    '<li>pale: the same in both; none: never on screen</li>';
  const ticks = () => Array.from({ length: top + 2 }, (_, i) => i - 1);
  addChart('chart-dwell', 'Vsyncs on screen over media time, A above B. The table of frames below holds the same.', 240, [-1.6, top + .6], ticks,
    (u) => [0, 1].forEach((i) => drawSide(u, i, (side, frame) => side.dwell[frame] !== side.dwell[frame] ? gone : Math.min(side.dwell[frame], top), 4)));
  if (heard) {
    const [, from, to] = data.bands[0];
    addChart('chart-sync', 'Lip-sync of A and B over media time.', 220, [Math.max(least, -600), Math.min(most, 600)], null,
      (u) => {
        u.ctx.fillStyle = colour('line');
        for (const us of [from, 0, to]) u.ctx.fillRect(u.bbox.left, Math.round(u.valToPos(us / 1e3, 'y', true)), u.bbox.width, devicePixelRatio || 1);
        [0, 1].forEach((i) => drawSide(u, i, (side, frame) => side.lip_sync[frame] / 1e3, 0));
      });
  } else $('sync-note').textContent = 'No frame of either came on screen while sound was heard.';
  new ResizeObserver(() => plots.forEach((plot) => plot.setSize({ width: Math.max(plot.root.parentNode.clientWidth, 200), height: plot.height }))).observe($('main'));
  $('frames')?.addEventListener('click', (event) => {
    const row = event.target.closest('tr');
    if (row) show(row.dataset.us / 1e6);
  });
  for (const [name, begins] of [['beforeprint', true], ['afterprint', false]]) {
    addEventListener(name, () => { printing = begins; applyTheme(); });
  }
  document.body.dataset.ready = 'whole';
}

if (typeof uPlot === 'function') run();
else applyTheme();
