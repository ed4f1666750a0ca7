// SPDX-License-Identifier: Apache-2.0
// Draws a merged trace of the IPC link as an SVG timeline, for the README: a track per thread,
// slices as boxes, instants as marks, the flows from a client's calls to the peer's handling as
// arrows, counters as steps. (The Perfetto UI shows the same trace, and more.)
//   node draw-trace.mjs TRACE [FROM_US TO_US] > picture.svg
import fs from 'node:fs';

const [file, fromArg, toArg] = process.argv.slice(2);
const events = JSON.parse(fs.readFileSync(file, 'utf8')).traceEvents;
const names = new Map();  // "pid" or "pid.tid": name
for (const e of events.filter((e) => e.ph === 'M')) {
  if (e.name === 'process_name') names.set(`${e.pid}`, e.args.name);
  if (e.name === 'thread_name') names.set(`${e.pid}.${e.tid}`, e.args.name);
}
const timed = events.filter((e) => e.ph !== 'M');
const from = fromArg ? Number(fromArg) : Math.min(...timed.map((e) => e.ts));
const to = toArg ? Number(toArg) : Math.max(...timed.map((e) => e.ts + (e.dur || 0)));
const shown = timed.filter((e) => e.ts + (e.dur || 0) >= from && e.ts <= to);

const width = 1600, left = 230, row = 34, top = 30;
const x = (ts) => left + ((ts - from) / (to - from)) * (width - left - 20);
const tracks = [];  // keys: "pid.tid" for threads, "pid:counter" for counters
const trackOf = (key) => {
  if (!tracks.includes(key)) tracks.push(key);
  return tracks.indexOf(key);
};
for (const e of shown) trackOf(e.ph === 'C' ? `${e.pid}:${e.name}` : `${e.pid}.${e.tid}`);
tracks.sort((a, b) => (a.includes(':') - b.includes(':')) || a.localeCompare(b));
const y = (key) => top + tracks.indexOf(key) * row;
const hue = (name) => [...name].reduce((h, c) => (h * 31 + c.charCodeAt(0)) % 360, 7);
const esc = (text) => String(text).replace(/&/g, '&amp;').replace(/</g, '&lt;');

const out = [];
const height = top + tracks.length * row + 30;
out.push(`<svg xmlns="http://www.w3.org/2000/svg" width="${width}" height="${height}" ` +
         `font-family="sans-serif" font-size="11">`);
out.push(`<rect width="${width}" height="${height}" fill="white"/>`);
out.push('<defs><marker id="arrow" markerWidth="8" markerHeight="8" refX="7" refY="4" ' +
         'orient="auto"><path d="M0,0 L8,4 L0,8 z" fill="#555"/></marker></defs>');
for (const key of tracks) {
  const [pid, rest] = key.includes(':') ? key.split(':') : key.split('.');
  const label = key.includes(':') ? `${rest}` :
      `${names.get(pid) || pid} / ${names.get(key) || rest}`;
  out.push(`<rect x="0" y="${y(key)}" width="${width}" height="${row - 2}" fill="#f4f4f4"/>`);
  out.push(`<text x="6" y="${y(key) + 20}">${esc(label.slice(0, 36))}</text>`);
}
for (const e of shown.filter((e) => e.ph === 'X')) {
  const key = `${e.pid}.${e.tid}`, x0 = x(Math.max(e.ts, from));
  const w = Math.max(2, x(Math.min(e.ts + e.dur, to)) - x0);
  out.push(`<rect x="${x0}" y="${y(key) + 4}" width="${w}" height="22" ` +
           `fill="hsl(${hue(e.name)},55%,70%)" stroke="#444" stroke-width="0.5"/>`);
  if (w > 6 * e.name.length) out.push(`<text x="${x0 + 3}" y="${y(key) + 19}">${esc(e.name)}</text>`);
}
for (const e of shown.filter((e) => e.ph === 'i')) {
  const key = `${e.pid}.${e.tid}`, x0 = x(e.ts);
  out.push(`<path d="M${x0 - 5},${y(key) + 30} L${x0 + 5},${y(key) + 30} L${x0},${y(key) + 20} z" ` +
           `fill="#c33"><title>${esc(e.name)}</title></path>`);
}
const starts = new Map(shown.filter((e) => e.ph === 's').map((e) => [e.id, e]));
for (const e of shown.filter((e) => e.ph === 'f' && starts.has(e.id))) {
  const s = starts.get(e.id);
  out.push(`<line x1="${x(s.ts)}" y1="${y(`${s.pid}.${s.tid}`) + 15}" x2="${x(e.ts)}" ` +
           `y2="${y(`${e.pid}.${e.tid}`) + 15}" stroke="#555" marker-end="url(#arrow)"/>`);
}
const counters = new Map();
for (const e of shown.filter((e) => e.ph === 'C')) {
  const key = `${e.pid}:${e.name}`;
  if (!counters.has(key)) counters.set(key, []);
  counters.get(key).push([e.ts, Object.values(e.args)[0]]);
}
for (const [key, points] of counters) {
  const most = Math.max(1, ...points.map(([, v]) => v));
  const path = points.map(([ts, v], i) => `${i ? 'L' : 'M'}${x(ts)},${y(key) + 28 - 24 * v / most}`)
                     .join(' ');
  out.push(`<path d="${path} L${x(to)},${y(key) + 28 - 24 * points.at(-1)[1] / most}" ` +
           'fill="none" stroke="#26a" stroke-width="1.5"/>');
}
out.push(`<text x="${left}" y="${height - 10}">${((to - from) / 1000).toFixed(2)} ms: ` +
         `${shown.length} events</text>`);
out.push('</svg>');
console.log(out.join('\n'));
