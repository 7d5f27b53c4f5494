// SPDX-License-Identifier: Apache-2.0
// @stomp/stompjs (npm) over @stomp/tcp-wrapper in libtavren's client comparison.
//
//   node stompjs.mjs MODE HOST PORT VERSION QUEUE N [EXTRA]
//
// Same modes and output as bench/compare/floor_client.cpp: send, receive,
// roundtrip, idle. Uses the library's Client with a TCPWrapper as its
// webSocketFactory, the way the wrapper's documentation shows for Node; the
// library's parser delivers each MESSAGE to the subscription's callback on
// Node's event loop, and the callback ACKs it (message.ack()) once it has
// counted it. TCP_NODELAY is set on the wrapper's socket (the wrapper's
// getSocket, made to be overridden, opens it with noDelay), as every client
// of the comparison runs without Nagle's delay. Heart-beats off (0,0);
// reconnection off.
//
// STOMP version: the Client takes a list of versions (stompVersions, a
// Versions of "1.0", "1.1", "1.2"; by default all three) and sends it as
// CONNECT's accept-version; it then speaks what CONNECTED names. Here the list
// holds the VERSION argument alone, as the other clients offer one version.
//
// The packages are found in BENCH_NODE_MODULES (a node_modules folder;
// scripts/bench.sh installs them with npm into build-bench/compare/node),
// by default the one of build-bench/ in this checkout. ES modules do not read
// NODE_PATH, so each package is imported through the entry its package.json
// names for import.
import { readFileSync } from 'node:fs';
import { createConnection } from 'node:net';
import { dirname, join } from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

const BODY = '0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyzAB';
const TIMEOUT = Number(process.env.BENCH_CLIENT_TIMEOUT || '600');
const MODULES = process.env.BENCH_NODE_MODULES
  || join(dirname(fileURLToPath(import.meta.url)), '..', '..', '..', 'build-bench', 'compare', 'node', 'node_modules');

async function importPackage(name) {
  const folder = join(MODULES, name);
  const meta = JSON.parse(readFileSync(join(folder, 'package.json'), 'utf8'));
  const exp = meta.exports && (meta.exports['.'] || meta.exports);
  let entry = exp && exp.import;
  if (entry && typeof entry === 'object') entry = entry.default;
  return import(pathToFileURL(join(folder, entry || meta.module || meta.main)).href);
}

const { Client, Versions } = await importPackage('@stomp/stompjs');
const { TCPWrapper } = await importPackage('@stomp/tcp-wrapper');

class NoDelayTCPWrapper extends TCPWrapper {
  getSocket(port, host) {
    return createConnection({ port, host, noDelay: true });
  }
}

// CLOCK_MONOTONIC seconds (libuv's hrtime reads that clock on Linux).
function now() {
  return Number(process.hrtime.bigint()) / 1e9;
}

function fail(text) {
  process.stderr.write(text + '\n');
}

const [mode, host, portText, version, queue, nText] = process.argv.slice(2);
if (nText === undefined) {
  fail('usage: stompjs.mjs MODE HOST PORT VERSION QUEUE N [EXTRA]');
  process.exit(2);
}
const port = Number(portText);
const n = Number(nText);
const dest = '/queue/' + queue;
const ackmode = version === '1.0' ? 'client' : 'client-individual';
const deadline = now() + TIMEOUT;

// What the callbacks have seen, and the waits on it.
const expected = mode === 'receive' ? n : 0;
const counts = { messages: 0, unique: 0, dups: 0, noseq: 0 };
const seen = new Uint8Array(expected + 2);
const receipts = new Set();
let closed = false;
const waiters = new Set();

function poke() {
  for (const w of waiters) {
    if (closed || w.predicate()) {
      waiters.delete(w);
      clearTimeout(w.timer);
      w.resolve(w.predicate());
    }
  }
}

// Resolves to true once predicate() holds, to false at the deadline or when the connection is gone.
function wait(predicate) {
  if (predicate()) return Promise.resolve(true);
  if (closed) return Promise.resolve(false);
  return new Promise(resolve => {
    const w = { predicate, resolve };
    w.timer = setTimeout(() => {
      waiters.delete(w);
      resolve(predicate());
    }, Math.max(0, (deadline - now()) * 1000));
    waiters.add(w);
  });
}

function sleep(ms) {
  return new Promise(resolve => setTimeout(resolve, ms));
}

// A line on standard input (or its end, or the client time-out).
function stdinLine() {
  return new Promise(resolve => {
    const timer = setTimeout(resolve, TIMEOUT * 1000);
    const done = () => {
      clearTimeout(timer);
      process.stdin.pause();
      resolve();
    };
    process.stdin.once('data', done);
    process.stdin.once('end', done);
    process.stdin.resume();
  });
}

function onMessage(ack) {
  return message => {
    const seq = Number(message.headers['bench-seq'] || '0');
    counts.messages += 1;
    if (!(seq > 0 && seq <= expected)) {
      counts.noseq += 1;
    } else if (seen[seq]) {
      counts.dups += 1;
    } else {
      seen[seq] = 1;
      counts.unique += 1;
    }
    if (ack) message.ack();
    poke();
  };
}

// RabbitMQ reads the CONNECT "host" header as its virtual host: "/".
const connectHeaders = { login: 'guest', passcode: 'guest' };
if (version !== '1.0') connectHeaders.host = '/';
const client = new Client({
  webSocketFactory: () => new NoDelayTCPWrapper(host, port),
  connectHeaders,
  stompVersions: new Versions([version]),
  heartbeatIncoming: 0,
  heartbeatOutgoing: 0,
  reconnectDelay: 0,
  debug: () => {},
});
let connected = false;
const connecting = new Promise(resolve => {
  client.onConnect = () => {
    connected = true;
    resolve(true);
  };
  client.onWebSocketClose = () => {
    if (!connected) resolve(false);
    closed = true;
    poke();
  };
});
client.onStompError = frame => fail(`ERROR frame: ${frame.headers.message} ${frame.body}`);
client.onWebSocketError = event => fail(`socket error: ${event.message}`);
client.onUnhandledReceipt = frame => {
  receipts.add(frame.headers['receipt-id']);
  poke();
};

function watchReceipt(id) {
  client.watchForReceipt(id, () => {
    receipts.add(id);
    poke();
  });
}

function subscribe(ack, callback, receipt) {
  const headers = { id: '0', ack };
  if (receipt) {
    headers.receipt = receipt;
    watchReceipt(receipt);
  }
  client.subscribe(dest, callback, headers);
}

// DISCONNECT with a receipt, as the library does it; the socket is closed after 5 s in any case.
async function disconnect() {
  if (!closed) await Promise.race([client.deactivate(), sleep(5000)]);
}

function result(fields) {
  process.stdout.write('RESULT ' + JSON.stringify({ ...fields, version }) + '\n');
}

client.activate();
if (!(await connecting)) {
  fail('no CONNECTED');
  process.exit(1);
}

if (mode === 'send') {
  const t0 = now();
  for (let i = 0; i < n; i++) client.publish({ destination: dest, body: BODY });
  // The end marker of every client: a subscription with a receipt, answered
  // once the broker has handled every frame before it.
  watchReceipt('last');
  client.subscribe(dest + '-ctl', () => {}, { id: 'ctl', ack: 'auto', receipt: 'last' });
  const ok = await wait(() => receipts.has('last'));
  const t1 = now();
  await disconnect();
  if (!ok) {
    fail('no receipt for the end marker');
    process.exit(1);
  }
  result({ t0, t1, n });
} else if (mode === 'receive') {
  const t0 = now();
  subscribe(ackmode, onMessage(true));
  if (await wait(() => counts.unique >= n)) {
    process.stdout.write(`GOT ${now().toFixed(6)}\n`);
    await stdinLine();
  } else {
    fail(closed ? 'the connection ended' : 'gave up after the client time-out');
  }
  await disconnect();
  result({ t0, got: counts.messages, unique: counts.unique, dups: counts.dups, gaps: n - counts.unique,
    noseq: counts.noseq });
} else if (mode === 'roundtrip') {
  subscribe(ackmode, onMessage(true), 'sub');
  await wait(() => receipts.has('sub'));
  const lat = [];
  for (let i = 1; i <= n; i++) {
    const t = now();
    client.publish({ destination: dest, body: BODY });
    if (!(await wait(() => counts.messages >= i))) {
      fail(`message ${i} did not come back`);
      break;
    }
    lat.push(Math.round((now() - t) * 1e7) / 10);
  }
  await sleep(200);
  await disconnect();
  result({ lat_us: lat });
} else if (mode === 'idle') {
  subscribe(ackmode, onMessage(true), 'sub');
  await wait(() => receipts.has('sub'));
  process.stdout.write('READY\n');
  await stdinLine();
  await disconnect();
  result({});
} else {
  fail('unknown mode ' + mode);
  process.exit(2);
}
process.exit(0);
