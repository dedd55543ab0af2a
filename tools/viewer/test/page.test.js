// The viewer page (file://) in headless Chromium against the real relay replaying
// a simulator recording: every group shows up, the interval control gets the
// relay's "... OK", the dump buttons send, and the page reconnects when the relay
// restarts; over wss:// too, with a throwaway certificate that this Chromium alone
// trusts (skipped without openssl). The page as the relay serves it connects to
// that relay with no parameter, passes its ?token= on, and turns read-only when a
// command is denied. Screenshots go to KORB_VIEW_ARTIFACTS_DIR. Run by CTest;
// exits 77 (skipped) where Chromium or playwright-core is not installed.
'use strict';

const fs = require('node:fs');
const path = require('node:path');
const os = require('node:os');
const net = require('node:net');
const crypto = require('node:crypto');
const { spawn, execFileSync } = require('node:child_process');
const { pathToFileURL } = require('node:url');

const SKIP = 77;
const VIEWER_DIR = path.resolve(__dirname, '..');
const CHROMIUM = process.env.KORB_CHROMIUM || '/usr/bin/chromium';
const UI_TIMEOUT_MS = 20000; // the relay under ASan is slow to start

function skip(why) {
  console.log(`SKIP: ${why}`);
  process.exit(SKIP);
}

if (!fs.existsSync(CHROMIUM)) skip(`no Chromium at ${CHROMIUM} (apt-get install chromium; or set KORB_CHROMIUM)`);
let chromium;
try {
  ({ chromium } = require('playwright-core'));
} catch (e) {
  skip(`playwright-core is not installed (run "npm ci" in ${VIEWER_DIR}): ${e.message}`);
}

const test = require('node:test');
const assert = require('node:assert/strict');

const STREAMER = process.env.KORB_STREAMER_BIN;
const TOOLS = process.env.KORB_TOOLS_BIN_DIR;
const ARTIFACTS = process.env.KORB_VIEW_ARTIFACTS_DIR || path.join(os.tmpdir(), 'korb-viewer-artifacts');

function freePort() {
  return new Promise((resolve, reject) => {
    const srv = net.createServer();
    srv.on('error', reject);
    srv.listen(0, '127.0.0.1', () => {
      const { port } = srv.address();
      srv.close(() => resolve(port));
    });
  });
}

function canConnect(port) {
  return new Promise((resolve) => {
    const s = net.connect({ port, host: '127.0.0.1' }, () => {
      s.destroy();
      resolve(true);
    });
    s.on('error', () => resolve(false));
  });
}

// Groups of the channel frames in a recording and whether it holds single frames, by a scan of its own.
function recordingGroups(file) {
  const d = fs.readFileSync(file);
  const groups = new Set();
  let single = false;
  let pos = 0;
  while (pos + 56 <= d.length) {
    const kind = d[pos + 4];
    const count = d.readUInt16LE(pos + 17);
    const len = 56 + count * (kind === 1 ? 4 : 8);
    if (d.readUInt32LE(pos) !== 0x12345678 || (kind !== 1 && kind !== 2) || count > 13000 || pos + len > d.length) {
      pos++;
      continue;
    }
    if (kind === 1) groups.add(String(d.readInt8(pos + 16)));
    else single = true;
    pos += len;
  }
  return { groups: [...groups], single };
}

// A self-signed certificate for 127.0.0.1 and its key (mode 0600) in `dir`, the
// relay's configuration naming them, and the base64 SHA-256 of the certificate's
// public key, by which Chromium is told to trust it; null without openssl.
function makeTls(dir) {
  const crt = path.join(dir, 'korb.crt');
  const key = path.join(dir, 'korb.key');
  try {
    execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes',
      '-days', '2', '-subj', '/CN=127.0.0.1', '-addext', 'subjectAltName=IP:127.0.0.1', '-keyout', key, '-out', crt],
    { stdio: 'pipe', timeout: 30000 });
  } catch (e) {
    if (e.code === 'ENOENT') return null;
    throw e;
  }
  fs.chmodSync(key, 0o600);
  const config = path.join(dir, 'relay.ini');
  fs.writeFileSync(config, `[tls]\ncertificate=${crt}\nkey=${key}\n`);
  const spki = new crypto.X509Certificate(fs.readFileSync(crt)).publicKey.export({ type: 'spki', format: 'der' });
  return { config, spki: crypto.createHash('sha256').update(spki).digest('base64') };
}

class Relay {
  constructor(port, recording, name, tls) {
    this.port = port;
    this.recording = recording;
    this.name = name;
    this.tls = tls; // { port, config } or null
    this.output = '';
  }

  async start() {
    const devicePort = await freePort();
    const config = this.tls ? ['-ps', String(this.tls.port), '-cfg', this.tls.config] : ['-nofile'];
    this.proc = spawn(STREAMER, ['-e', '-n', this.name, '-p', String(this.port), `-addr=127.0.0.1:${devicePort}`,
      `-file=${this.recording}`, '-interval_ms=50', ...config], { stdio: ['ignore', 'pipe', 'pipe'] });
    this.exited = new Promise((resolve) => this.proc.on('exit', (code, sig) => resolve({ code, sig })));
    let gone = null;
    this.exited.then((r) => (gone = r));
    for (const s of [this.proc.stdout, this.proc.stderr]) s.on('data', (b) => (this.output += b));
    const deadline = Date.now() + UI_TIMEOUT_MS;
    while (Date.now() < deadline) {
      if (gone) throw new Error(`relay exited (${JSON.stringify(gone)}) before listening:\n${this.output}`);
      if (await canConnect(this.port)) return;
      await new Promise((r) => setTimeout(r, 100));
    }
    throw new Error(`relay did not listen on ${this.port}:\n${this.output}`);
  }

  async stop() {
    if (!this.proc || this.proc.exitCode !== null || this.proc.signalCode !== null) return;
    this.proc.kill('SIGTERM');
    const killer = setTimeout(() => this.proc.kill('SIGKILL'), 5000);
    await this.exited;
    clearTimeout(killer);
  }
}

let tmp;
let tls;
let relay;
let expected;
let context;
const pageErrors = [];

test.before(async () => {
  assert.ok(STREAMER && fs.existsSync(STREAMER), `relay executable not found: ${STREAMER}`);
  const sim = path.join(TOOLS || '', 'korb_rdv_sim');
  assert.ok(fs.existsSync(sim), `simulator not found: ${sim}`);
  tmp = fs.mkdtempSync(path.join(os.tmpdir(), 'korb-viewer-'));
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  const recording = path.join(tmp, 'recording.bin');
  execFileSync(sim, ['--write', recording, '--seconds', '2'], { stdio: 'pipe', timeout: 30000 });
  expected = recordingGroups(recording);
  assert.ok(expected.groups.length > 0 || expected.single, 'the recording holds no frame');
  tls = makeTls(tmp);
  relay = new Relay(await freePort(), recording, `ViewPage${process.pid}`,
    tls && { port: await freePort(), config: tls.config });
  await relay.start();
  context = await chromium.launchPersistentContext(path.join(tmp, 'profile'), {
    executablePath: CHROMIUM,
    headless: true,
    viewport: { width: 1280, height: 900 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-quic',
      '--no-first-run', '--disable-component-update', '--disable-sync',
      ...(tls ? [`--ignore-certificate-errors-spki-list=${tls.spki}`] : [])],
  });
});

test.after(async () => {
  if (context) await context.close();
  if (relay) await relay.stop();
  if (tmp) fs.rmSync(tmp, { recursive: true, force: true });
});

async function openPage(url) {
  const page = await context.newPage();
  page.on('pageerror', (e) => pageErrors.push(`${url}: ${e.message}`));
  await page.goto(url);
  return page;
}

async function expectGroups(page) {
  await page.waitForSelector('#status[data-state="connected"]', { timeout: UI_TIMEOUT_MS });
  const keys = [...expected.groups, ...(expected.single ? ['single'] : [])];
  for (const key of keys) {
    const card = page.locator(`.group[data-group="${key}"]`);
    await card.waitFor({ timeout: UI_TIMEOUT_MS });
    // Time stamp and packets/s are shown for the group.
    await page.waitForFunction((k) => {
      const c = document.querySelector(`.group[data-group="${k}"]`);
      return c && Number(c.dataset.pps) > 0 && /pk\/s/.test(c.querySelector('.meta').textContent);
    }, key, { timeout: UI_TIMEOUT_MS });
    const meta = await card.locator('.meta').textContent();
    assert.match(meta, /^t \d+ ms/);
  }
  const shown = await page.$$eval('.group', (cards) => cards.map((c) => c.dataset.group));
  assert.deepEqual(shown.slice().sort(), keys.slice().sort(), 'exactly the groups of the recording');
  assert.equal(await page.textContent('#malformed-count'), '0');
}

test('file:// page shows the groups of the recording, steers the relay and reconnects', async () => {
  const url = `${pathToFileURL(path.join(VIEWER_DIR, 'index.html')).href}?url=ws://127.0.0.1:${relay.port}`;
  const page = await openPage(url);
  await expectGroups(page);

  await page.fill('#interval', '100');
  await page.click('#send-interval');
  await page.waitForFunction(() => document.getElementById('reply').textContent === 'ims:100 OK',
    null, { timeout: UI_TIMEOUT_MS });
  await page.fill('#interval', '1');
  await page.click('#send-interval');
  assert.match(await page.textContent('#reply'), /must be 2 to 65535/);
  for (const cmd of ['csv', 'buf']) {
    await page.click(`#dump-${cmd}`);
    assert.equal(await page.textContent('#reply'), `sent ${cmd}: (the relay does not answer this command)`);
  }

  // Let a few frames be drawn after the clicks, then keep a picture.
  await page.waitForTimeout(500);
  const shot = path.join(ARTIFACTS, 'viewer.png');
  await page.screenshot({ path: shot, fullPage: true });
  assert.ok(fs.statSync(shot).size > 1000);
  console.log(`screenshot: ${shot}`);

  await relay.stop();
  await page.waitForSelector('#status[data-state="reconnecting"]', { timeout: UI_TIMEOUT_MS });
  await relay.start();
  await page.waitForSelector('#status[data-state="connected"]', { timeout: UI_TIMEOUT_MS });
  const before = Number(await page.textContent('#packet-count'));
  await page.waitForFunction((n) => Number(document.getElementById('packet-count').textContent) > n + 5, before,
    { timeout: UI_TIMEOUT_MS });
  await page.close();
  assert.deepEqual(pageErrors, []);
});

test('the page over wss:// shows the groups and steers the relay', async (t) => {
  if (!tls) {
    t.skip('openssl is not installed: no test certificate');
    return;
  }
  const url = `${pathToFileURL(path.join(VIEWER_DIR, 'index.html')).href}?url=wss://127.0.0.1:${relay.tls.port}`;
  const page = await openPage(url);
  await expectGroups(page);
  await page.fill('#interval', '80');
  await page.click('#send-interval');
  await page.waitForFunction(() => document.getElementById('reply').textContent === 'ims:80 OK',
    null, { timeout: UI_TIMEOUT_MS });
  await page.close();
  assert.deepEqual(pageErrors, []);
});

test('the page served by the relay (http and https) connects to it with no parameter', async () => {
  const urls = [`http://127.0.0.1:${relay.port}/`, ...(tls ? [`https://127.0.0.1:${relay.tls.port}/`] : [])];
  for (const url of urls) {
    const page = await openPage(url);
    await expectGroups(page);
    await page.close();
  }
  assert.deepEqual(pageErrors, []);
});

test('the served page passes its token on and turns read-only when a command is denied', async () => {
  const page = await context.newPage();
  let socketUrl = null;
  // The relay's side of a denial, played here: "ims:" is answered as a viewer's would be.
  await page.routeWebSocket(/./, (ws) => {
    socketUrl = ws.url();
    const relaySide = ws.connectToServer();
    ws.onMessage((m) => (String(m).startsWith('ims:') ? ws.send(`${m} DENIED`) : relaySide.send(m)));
  });
  await page.goto(`http://127.0.0.1:${relay.port}/?token=s3cret`);
  await page.waitForSelector('#status[data-state="connected"]', { timeout: UI_TIMEOUT_MS });
  assert.equal(socketUrl, `ws://127.0.0.1:${relay.port}/?token=s3cret`);
  assert.equal(await page.isDisabled('#send-interval'), false);
  await page.fill('#interval', '100');
  await page.click('#send-interval');
  await page.waitForSelector('#role', { state: 'visible', timeout: UI_TIMEOUT_MS });
  assert.equal(await page.textContent('#reply'), 'ims:100 DENIED');
  for (const id of ['#send-interval', '#dump-csv', '#dump-buf']) assert.ok(await page.isDisabled(id), id);
  await page.close();
});
