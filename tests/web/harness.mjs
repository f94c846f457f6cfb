// Brings up what the browser tests and the browser benchmark talk to: a real vandrel-relay and a real
// `vandrel --headless` in a temporary home that shares a plain synced folder with the relay, and
// Debian's chromium driven by playwright-core. Between the agent and the relay sits a pass-through that
// only counts the agent's polls, so a test can see the agent start and stop polling.

import { spawn, spawnSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import http from 'node:http';
import { createRequire } from 'node:module';
import net from 'node:net';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import zlib from 'node:zlib';

const require = createRequire(import.meta.url);
const { chromium } = require('playwright-core');

export const CHROMIUM = '/usr/bin/chromium';
// The page is served from its source folder: plain modules, nothing to build.
export const WEB_ROOT = fileURLToPath(new URL('../../src/relay/web', import.meta.url));

export function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

export async function waitFor(what, check, { timeoutMs = 60000, everyMs = 200 } = {}) {
  const end = Date.now() + timeoutMs;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await new Promise((r) => setTimeout(r, everyMs));
  }
}

const CRC_TABLE = Array.from({ length: 256 }, (_, n) => {
  let c = n;
  for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
  return c >>> 0;
});

function crc32(bytes) {
  let c = 0xffffffff;
  for (const b of bytes) c = CRC_TABLE[(c ^ b) & 255] ^ (c >>> 8);
  return (c ^ 0xffffffff) >>> 0;
}

function chunk(type, data) {
  const head = Buffer.alloc(8);
  head.writeUInt32BE(data.length, 0);
  head.write(type, 4, 'latin1');
  const crc = Buffer.alloc(4);
  crc.writeUInt32BE(crc32(Buffer.concat([head.subarray(4), data])), 0);
  return Buffer.concat([head, data, crc]);
}

// A PNG of one colour with a darker band, so a thumbnail's colour can be checked in the page.
export function png(width, height, [r, g, b]) {
  const rows = [];
  for (let y = 0; y < height; y++) {
    const row = Buffer.alloc(1 + width * 3);
    const shade = y > height * 0.8 ? 0.5 : 1;
    for (let x = 0; x < width; x++) row.set([r * shade, g * shade, b * shade], 1 + x * 3);
    rows.push(row);
  }
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header.set([8, 2, 0, 0, 0], 8);
  return Buffer.concat([
    Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
    chunk('IHDR', header),
    chunk('IDAT', zlib.deflateSync(Buffer.concat(rows))),
    chunk('IEND', Buffer.alloc(0)),
  ]);
}

export class TempHome {
  constructor() {
    this.root = mkdtempSync(path.join(tmpdir(), 'vandrel-web-'));
    this.path = path.join(this.root, 'home');
    this.cloud = path.join(this.path, 'Cloud');
    this.storageRoot = path.join(this.cloud, 'Apps', 'vandrel');
    this.env = {
      PATH: process.env.PATH,
      LANG: 'C.UTF-8',
      HOME: this.path,
      XDG_CONFIG_HOME: path.join(this.path, '.config'),
      XDG_DATA_HOME: path.join(this.path, '.local/share'),
      XDG_CACHE_HOME: path.join(this.path, '.cache'),
      XDG_STATE_HOME: path.join(this.path, '.local/state'),
      XDG_RUNTIME_DIR: path.join(this.root, 'run'),
      VANDREL_KEYCHAIN: 'file',
      VANDREL_CLOUD_FOLDERS: this.cloud,
    };
    // Sanitizer builds take their settings from the caller.
    for (const name of ['ASAN_OPTIONS', 'UBSAN_OPTIONS', 'LSAN_OPTIONS']) {
      if (process.env[name] !== undefined) this.env[name] = process.env[name];
    }
    for (const dir of ['XDG_CONFIG_HOME', 'XDG_DATA_HOME', 'XDG_CACHE_HOME', 'XDG_STATE_HOME', 'XDG_RUNTIME_DIR']) {
      mkdirSync(this.env[dir], { recursive: true, mode: 0o700 });
    }
    this.write('Cloud/Apps/vandrel/data.vdldata/sessions_are_here.json', JSON.stringify({ date: Date.now() / 1000 }));
    // The agent indexes only this home, not the machine.
    this.write('.config/vandrel/vandrel.conf', `[General]\nIndexedRoots=${this.path}\n`);
  }

  file(relative) {
    return path.join(this.path, relative);
  }

  write(relative, content) {
    const full = this.file(relative);
    mkdirSync(path.dirname(full), { recursive: true });
    writeFileSync(full, content);
    return full;
  }

  remove() {
    rmSync(this.root, { recursive: true, force: true });
  }
}

// Counts the agent's posts on their way to the relay and passes everything through unchanged.
export class PollCounter {
  constructor(relayPort) {
    this.relayPort = relayPort;
    this.count = 0;
    this.last = 0;
    this.server = http.createServer((req, res) => {
      this.count++;
      this.last = Date.now();
      const upstream = http.request(
        { host: '127.0.0.1', port: this.relayPort, method: req.method, path: req.url, headers: req.headers },
        (reply) => {
          res.writeHead(reply.statusCode, reply.headers);
          reply.pipe(res);
        },
      );
      upstream.on('error', () => res.destroy());
      req.pipe(upstream);
    });
  }

  async listen() {
    this.port = await freePort();
    await new Promise((resolve) => this.server.listen(this.port, '127.0.0.1', resolve));
    return this.port;
  }

  close() {
    this.server.closeAllConnections();
    this.server.close();
  }
}

function collect(child) {
  let text = '';
  child.stdout.on('data', (d) => { text += d; });
  child.stderr.on('data', (d) => { text += d; });
  return () => text;
}

function stop(child) {
  if (!child || child.exitCode !== null) return Promise.resolve();
  return new Promise((resolve) => {
    const killer = setTimeout(() => child.kill('SIGKILL'), 10000);
    child.once('exit', () => { clearTimeout(killer); resolve(); });
    child.kill('SIGTERM');
  });
}

// Starts relay and agent; `fill(home)` writes the files the agent should serve before it starts.
export async function startStack({ relayBinary, agentBinary, password, fill }) {
  const home = new TempHome();
  fill?.(home);
  const setPassword = (text) => {
    const set = spawnSync(agentBinary, ['password', 'set'], { env: home.env, input: `${text}\n`, encoding: 'utf8' });
    if (set.status !== 0) throw new Error(`vandrel password set failed: ${set.stderr}`);
  };
  if (password !== undefined) setPassword(password);

  const relayPort = await freePort();
  const relay = spawn(relayBinary, [
    '--port', String(relayPort), '--bind', '127.0.0.1',
    '--cloud-folder', home.cloud, '--state-dir', path.join(home.root, 'relay-state'), '--web-root', WEB_ROOT,
  ], { env: home.env, stdio: ['ignore', 'pipe', 'pipe'] });
  const relayLog = collect(relay);
  const url = `http://127.0.0.1:${relayPort}`;
  const token = await waitFor('the relay to print its address', () => relayLog().match(/#token=([A-Za-z0-9_-]+)/)?.[1], { timeoutMs: 20000 });

  // Links made on this computer open on the relay's LinkService page.
  home.env.VANDREL_LINK_SERVICE_URL = `${url}/l`;
  const polls = new PollCounter(relayPort);
  const pollPort = await polls.listen();
  const agent = spawn(agentBinary, ['--headless'], {
    env: { ...home.env, VANDREL_RELAY_URL: `http://127.0.0.1:${pollPort}` },
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  const agentLog = collect(agent);

  return {
    home, url, token, polls, relay, agent, setPassword,
    logs: () => `--- relay\n${relayLog()}\n--- agent\n${agentLog()}`,
    async stop() {
      await Promise.all([stop(agent), stop(relay)]);
      polls.close();
      home.remove();
    },
  };
}

export async function launchBrowser() {
  // The background services would try to reach the internet; the page needs only the loopback relay.
  return chromium.launch({
    executablePath: CHROMIUM,
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
}
