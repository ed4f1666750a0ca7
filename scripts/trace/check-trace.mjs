// SPDX-License-Identifier: Apache-2.0
// Checks a merged trace of the IPC link (vrocam_trace_merge's output) with readers that are not
// ours: its events against trace-schema.json (ajv), and the whole trace through the Chrome DevTools
// trace engine, in which every call of a client must be linked by a flow to the peer's handling
// of it. Each further argument names an event that must be there ("fault 1 fired").
//   node check-trace.mjs TRACE [EVENT...]
import fs from 'node:fs';
import path from 'node:path';
import {fileURLToPath} from 'node:url';
import Ajv from 'ajv';
import * as Trace from '@paulirish/trace_engine';

const [file, ...wanted] = process.argv.slice(2);
const fail = (what) => {
  console.error(`check-trace: ${file}: ${what}`);
  process.exit(1);
};
const trace = JSON.parse(fs.readFileSync(file, 'utf8'));

const here = path.dirname(fileURLToPath(import.meta.url));
const schema = JSON.parse(fs.readFileSync(path.join(here, 'trace-schema.json'), 'utf8'));
const validate = new Ajv({allErrors: true}).compile(schema);
if (!validate(trace)) fail(`not what the schema says:\n${JSON.stringify(validate.errors.slice(0, 5))}`);

const events = trace.traceEvents;
const names = new Set(events.map((e) => e.name));
for (const name of wanted) {
  if (!names.has(name)) fail(`no event named '${name}'`);
}

// The DevTools engine wants a DOMRect, which Node has not.
globalThis.DOMRect ??= class {
  constructor(x = 0, y = 0, width = 0, height = 0) {
    Object.assign(this, {x, y, width, height});
  }
};
const model = Trace.TraceModel.Model.createWithAllHandlers();
await model.parse(events);
const flows = model.parsedTrace().data.Flows.flows;
const clients = new Set(events.filter((e) => e.ph === 's').map((e) => e.pid));
const peers = new Set(events.filter((e) => e.ph === 'f').map((e) => e.pid));
const linked = new Set();
for (const flow of flows) {
  const from = flow.find((e) => clients.has(e.pid) && e.ph === 'X');
  const to = flow.find((e) => peers.has(e.pid) && e.ph === 'X');
  if (from && to) linked.add(from);
}
const calls = events.filter((e) => e.ph === 'X' && clients.has(e.pid));
const lone = calls.filter((e) => !linked.has(e));
if (calls.length === 0) fail('no call of a client in it');
if (lone.length !== 0) {
  fail(`${lone.length} of ${calls.length} calls have no flow to the peer, the first: ` +
       `${lone[0].name} at ${lone[0].ts}`);
}
const count = (n, what) => `${n} ${what}${n === 1 ? '' : 's'}`;
console.log(`check-trace: ${events.length} events as the schema says; the DevTools trace engine ` +
            `links all ${count(calls.length, 'call')} of ${count(clients.size, 'client')} to ` +
            `${count(peers.size, 'peer')}` +
            (wanted.length ? `; found ${wanted.map((w) => `'${w}'`).join(', ')}` : ''));
