// The web page in a real browser against a real relay and agent, once with signed requests and once with
// every request sealed: sign in, password, browse, thumbnails, search, preview, copy and download, upload
// and move, and the agent going quiet when the page closes; then a link made on the computer, opened on
// the LinkService page and handed back to the agent. Screenshots of each step go to the artifact folder.
//   node webapp.test.mjs <vandrel-relay> <vandrel> <artifact folder>

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, readdirSync, readFileSync } from 'node:fs';
import path from 'node:path';
import { after, before, test } from 'node:test';
import { launchBrowser, png, startStack, waitFor } from './harness.mjs';

const [relayBinary, agentBinary, artifacts] = process.argv.slice(2);
// Not ASCII, so the key string's UTF-8 bytes matter on both sides.
const PASSWORD = 'correct hörse 🔑';
const WORD = 'quokkaberry';
const COLOURS = { 'red.png': [220, 30, 30], 'green.png': [30, 200, 60], 'blue.png': [40, 60, 220] };

let stack;
let browser;

before(async () => {
  mkdirSync(artifacts, { recursive: true });
  stack = await startStack({
    relayBinary, agentBinary, password: PASSWORD,
    fill(home) {
      for (const [name, colour] of Object.entries(COLOURS)) home.write(`Pictures/${name}`, png(320, 240, colour));
      home.write('Notes/zebra.txt', `Shopping list\nThe ${WORD} jam is on the top shelf.\n`);
      home.write('Notes/plain.txt', 'Nothing to see here.\n');
      home.write('Inbox/.keep', '');
      home.write('Maps/Trip & plan <draft>.txt', 'Day one: the coast.\n');
      // 80 items: the computer counts three pages of 40, the last one empty.
      for (let i = 0; i < 80; i++) home.write(`Many/item-${String(i).padStart(2, '0')}.txt`, `${i}\n`);
    },
  });
  browser = await launchBrowser();
});

after(async () => {
  await browser?.close();
  await stack?.stop();
});

async function shot(page, name) {
  await page.screenshot({ path: path.join(artifacts, `${name}.png`), fullPage: true });
}

function sessionFiles() {
  const dir = path.join(stack.home.storageRoot, 'data.vdldata', 'sessions');
  return existsSync(dir) ? readdirSync(dir).filter((n) => n.endsWith('.json')) : [];
}

// The average colour of a loaded thumbnail, read back through a canvas.
function colourOf(page, name) {
  return page.evaluate((wanted) => {
    const button = [...document.querySelectorAll('#items .item')].find((b) => b.querySelector('.name').textContent === wanted);
    const img = button?.querySelector('img.thumb');
    if (!img?.complete || !img.naturalWidth) return null;
    const canvas = document.createElement('canvas');
    canvas.width = 8;
    canvas.height = 8;
    const context = canvas.getContext('2d');
    context.drawImage(img, 0, 0, img.naturalWidth, img.naturalHeight * 0.5, 0, 0, 8, 8);
    const data = context.getImageData(0, 0, 8, 8).data;
    const sum = [0, 0, 0];
    for (let i = 0; i < data.length; i += 4) for (let c = 0; c < 3; c++) sum[c] += data[i + c];
    return sum.map((s) => s / 64);
  }, name);
}

function item(page, name) {
  return page.locator('#items .item', { has: page.locator('.name', { hasText: new RegExp(`^${name}$`) }) });
}

async function walkThrough({ encrypted, tag, contextOptions }) {
  const context = await browser.newContext({ acceptDownloads: true, ...contextOptions });
  const page = await context.newPage();
  const pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));
  // Everything the page sends, to check that the password never leaves it and nothing leaves the relay.
  const sent = [];
  page.on('request', (r) => sent.push({ url: r.url(), body: r.postDataBuffer()?.toString('utf8') ?? '' }));
  const home = stack.home;

  // A wrong token leaves the page at the sign-in form; the right one from the address signs in, and the
  // token is gone from the address afterwards.
  await page.goto(`${stack.url}/#token=not-the-token`);
  await page.locator('#status.error', { hasText: 'access token' }).waitFor();
  assert.equal(await page.isVisible('#login-form'), true);
  await shot(page, `${tag}-00-bad-token`);
  await page.goto('about:blank');
  await page.goto(`${stack.url}/#token=${stack.token}`);
  const computer = page.locator('#computer-list button').first();
  await computer.waitFor({ timeout: 60000 });
  assert.match(await computer.textContent(), /Password required/);
  assert.equal(new URL(page.url()).hash, '');
  await shot(page, `${tag}-01-computers`);

  // A wrong password is refused by the agent's answer to a search; the right one opens the roots.
  await computer.click();
  await page.fill('#password-input', 'wrong');
  await page.press('#password-input', 'Enter');
  await page.locator('#status.error', { hasText: 'Wrong password.' }).waitFor({ timeout: 60000 });
  await shot(page, `${tag}-02-wrong-password`);
  await page.fill('#password-input', PASSWORD);
  await page.press('#password-input', 'Enter');
  await item(page, 'home').waitFor({ timeout: 60000 });
  assert.equal(await page.evaluate((p) => JSON.stringify({ ...sessionStorage, ...localStorage }).includes(p), PASSWORD), false);
  // Back to the computer list and in again: the tab remembers the proof, not the password.
  await page.click('#home');
  await computer.click();
  await item(page, 'home').waitFor({ timeout: 60000 });
  assert.equal(await page.isVisible('#password-form'), false);
  if (encrypted) await page.check('#encrypt-all');
  const switched = sent.length;
  assert.ok(sessionFiles().length >= 1, 'the relay wrote a session file for the page');

  // Into the home folder and on into Pictures (the last item) by keyboard alone, where the thumbnails load
  // in grid view.
  await item(page, 'home').focus();
  await page.keyboard.press('Enter');
  await item(page, 'Pictures').waitFor({ timeout: 60000 });
  await shot(page, `${tag}-02b-home-list`);
  await page.keyboard.press('End');
  assert.equal(await page.evaluate(() => document.activeElement.querySelector('.name')?.textContent), 'Pictures');
  await page.keyboard.press('Enter');
  await item(page, 'red.png').waitFor({ timeout: 60000 });
  if (!(await page.locator('#items.grid').count())) await page.click('#view-toggle');
  for (const [name, [r, g, b]] of Object.entries(COLOURS)) {
    const colour = await waitFor(`the thumbnail of ${name}`, () => colourOf(page, name));
    const [cr, cg, cb] = colour;
    const strongest = Math.max(cr, cg, cb);
    const expected = r > g && r > b ? cr : g > b ? cg : cb;
    assert.equal(expected, strongest, `${name} thumbnail has the wrong colour ${colour}`);
  }
  const crumbs = await page.locator('#crumbs li').allTextContents();
  assert.deepEqual(crumbs.slice(-2), ['home', 'Pictures']);
  await shot(page, `${tag}-03-thumbnails`);

  // Preview with keyboard navigation and item info from the agent.
  await item(page, 'green.png').click();
  await page.locator('#preview-image[src]').waitFor({ timeout: 60000 });
  await page.locator('#preview-info dt', { hasText: 'Size' }).waitFor({ timeout: 60000 });
  assert.ok(await page.locator('#preview-image').evaluate((img) => img.naturalWidth > 0));
  assert.equal(await page.textContent('#preview-name'), 'green.png');
  await page.keyboard.press('ArrowRight');
  await page.locator('#preview-name', { hasText: 'red.png' }).waitFor();
  await page.locator('#preview-image[src]').waitFor({ timeout: 60000 });
  await shot(page, `${tag}-04-preview`);

  // Copy to the cloud folder, then download the copy through the relay: the same bytes.
  await page.click('#copy-button');
  await page.locator('#status', { hasText: 'Copied to Dropbox' }).waitFor({ timeout: 120000 });
  const [download] = await Promise.all([page.waitForEvent('download'), page.click('#download-link')]);
  const saved = path.join(artifacts, `${tag}-downloaded-red.png`);
  await download.saveAs(saved);
  assert.deepEqual(readFileSync(saved), readFileSync(home.file('Pictures/red.png')));
  await shot(page, `${tag}-05-copied`);
  await page.keyboard.press('Escape');
  assert.equal(await page.isHidden('#preview'), true);

  // From the home folder, a word inside a text file finds it; the same word with the images filter finds
  // nothing. The index may still be crawling the new home, so the search is repeated until it answers.
  await page.locator('#crumbs button', { hasText: 'home' }).click();
  await item(page, 'Notes').waitFor({ timeout: 60000 });
  await page.fill('#search-text', WORD);
  await page.selectOption('#search-type', '');
  await waitFor('the search to find the text file', async () => {
    await page.press('#search-text', 'Enter');
    await page.locator('#status', { hasText: 'found.' }).waitFor({ timeout: 60000 });
    return (await item(page, 'zebra.txt').count()) > 0;
  }, { timeoutMs: 120000, everyMs: 1000 });
  assert.equal(await item(page, 'plain.txt').count(), 0);
  await shot(page, `${tag}-06-search`);
  await page.selectOption('#search-type', { label: 'Images' });
  await page.press('#search-text', 'Enter');
  await page.locator('#status', { hasText: '0 found.' }).waitFor({ timeout: 60000 });

  // A long folder comes in pages of 40, and the empty page the computer counts at the end is not offered.
  await page.locator('#crumbs button', { hasText: 'home' }).click();
  await item(page, 'Many').click();
  await page.locator('#page-label', { hasText: 'Page 1 of 2 (80 items)' }).waitFor({ timeout: 60000 });
  assert.equal(await page.locator('#items .item').count(), 40);
  await page.click('#page-next');
  await page.locator('#page-label', { hasText: 'Page 2 of 2' }).waitFor({ timeout: 60000 });
  assert.equal(await page.locator('#items .item').count(), 40);
  assert.equal(await item(page, 'item-79.txt').count(), 1);
  assert.equal(await page.isDisabled('#page-next'), true);
  await shot(page, `${tag}-06b-second-page`);

  // Upload into Inbox: through the cloud folder and moved onto the computer into the folder on screen.
  await page.locator('#crumbs button', { hasText: 'home' }).click();
  await item(page, 'Inbox').click();
  await page.locator('#crumbs li:last-child', { hasText: 'Inbox' }).waitFor();
  const upload = `Uploaded in ${tag} mode.\n`;
  await page.setInputFiles('#upload', { name: `from-${tag}.txt`, mimeType: 'text/plain', buffer: Buffer.from(upload) });
  await page.locator('#status', { hasText: 'Moved out of Dropbox' }).waitFor({ timeout: 120000 });
  await item(page, `from-${tag}.txt`).waitFor({ timeout: 60000 });
  assert.equal(readFileSync(home.file(`Inbox/from-${tag}.txt`), 'utf8'), upload);
  await shot(page, `${tag}-07-uploaded`);

  // A password changed on the computer while the tab remembers the old one. A signed preview then gets no
  // answer at all, and the page says so when the relay gives up on it; a listing is refused and the page
  // asks for the password again.
  if (!encrypted) {
    stack.setPassword(`${PASSWORD} elsewhere`);
    await item(page, `from-${tag}.txt`).click();
    await page.locator('#preview-wait', { hasText: 'did not answer in time' }).waitFor({ timeout: 90000 });
    await shot(page, `${tag}-08-no-answer`);
    await page.keyboard.press('Escape');
    stack.setPassword(PASSWORD);
  } else {
    stack.setPassword(`${PASSWORD} changed`);
    await page.locator('#crumbs button', { hasText: 'home' }).click();
    await page.locator('#status.error', { hasText: 'refused the password' }).waitFor({ timeout: 60000 });
    assert.equal(await page.isVisible('#password-form'), true);
    await page.fill('#password-input', `${PASSWORD} changed`);
    await page.press('#password-input', 'Enter');
    await item(page, 'home').waitFor({ timeout: 60000 });
    await shot(page, `${tag}-08-password-changed`);
  }
  assert.deepEqual(pageErrors, []);
  // Signed requests carry the hash beside the record; sealed ones carry only the envelope and its session.
  const records = sent.slice(switched).filter((r) => r.url.endsWith('/api/request')).map((r) => JSON.parse(r.body).request);
  assert.ok(records.length > 10);
  for (const record of records) {
    if (encrypted) {
      assert.deepEqual(Object.keys(record).sort(), ['encrypted_request', 'lifetime', 'os_session', 'request_type']);
      assert.equal(record.request_type, 'encrypted');
    } else {
      assert.match(record.pword_hash, /^[0-9a-f]{64}$/);
    }
  }
  for (const { url, body } of sent) {
    assert.ok(url.startsWith(`${stack.url}/`) || url.startsWith('blob:') || url === 'about:blank', `request to ${url}`);
    assert.ok(!body.includes(PASSWORD) && !body.includes('hörse'), `the password went out to ${url}`);
  }

  // Closing the page closes its session at once, and the agent stops polling.
  const pollsBefore = stack.polls.count;
  await waitFor('the agent to poll', () => stack.polls.count > pollsBefore + 1);
  await page.close({ runBeforeUnload: true });
  await waitFor('the session file to go', () => sessionFiles().length === 0, { timeoutMs: 10000 });
  await waitFor('the agent to stop polling', () => Date.now() - stack.polls.last > 6000, { timeoutMs: 90000, everyMs: 500 });
  await context.close();
}

test('signed requests: a desktop in light theme', { timeout: 600000 }, async () => {
  await walkThrough({ encrypted: false, tag: 'signed', contextOptions: { viewport: { width: 1200, height: 800 }, colorScheme: 'light' } });
});

test('every request sealed: a phone in dark theme', { timeout: 600000 }, async () => {
  await walkThrough({
    encrypted: true, tag: 'sealed',
    contextOptions: { viewport: { width: 390, height: 844 }, colorScheme: 'dark', isMobile: true, hasTouch: true },
  });
});

test('a link made on the computer opens on the LinkService page and back in the agent', { timeout: 300000 }, async () => {
  const file = stack.home.file('Maps/Trip & plan <draft>.txt');
  const made = spawnSync(agentBinary, ['link', file], { env: stack.home.env, encoding: 'utf8' });
  assert.equal(made.status, 0, made.stderr);
  const link = made.stdout.trim();
  assert.ok(link.startsWith(`${stack.url}/l/p/20/`), link);
  let schemeUrl;
  for (const [tag, options] of [['light', { viewport: { width: 1200, height: 800 }, colorScheme: 'light' }],
    ['phone-dark', { viewport: { width: 390, height: 844 }, colorScheme: 'dark', isMobile: true }]]) {
    const context = await browser.newContext(options);
    await context.grantPermissions(['clipboard-read', 'clipboard-write'], { origin: stack.url });
    const page = await context.newPage();
    const problems = [];
    page.on('pageerror', (e) => problems.push(e.message));
    page.on('console', (m) => m.type() === 'error' && problems.push(m.text()));
    await page.goto(link);
    assert.equal(await page.textContent('#name'), 'Trip & plan <draft>.txt');
    assert.equal(await page.textContent('#size'), 'A file of 20 bytes');
    assert.deepEqual(await page.locator('#folders li').allTextContents(), [path.basename(stack.home.root), 'home', 'Maps']);
    schemeUrl = await page.getAttribute('#open', 'href');
    assert.equal(schemeUrl, `qlk://${link.slice(`${stack.url}/l/`.length)}`);
    await page.click('#copy');
    await page.locator('#copy-status', { hasText: 'Copied.' }).waitFor();
    assert.equal(await page.evaluate(() => navigator.clipboard.readText()), schemeUrl);
    await shot(page, `link-page-${tag}`);
    const bad = await page.goto(`${stack.url}/l/p/20/${'%3Cb%3E/'.repeat(2)}`);
    assert.equal(bad.status(), 400);
    assert.equal(await page.textContent('h1'), 'Not a file link');
    await shot(page, `link-page-${tag}-malformed`);
    // The browser reports the 400 itself; anything else is a script error or a refusal of the content policy.
    assert.deepEqual(problems.filter((m) => !m.includes('status of 400')), []);
    await context.close();
  }
  // What the page hands over is what the agent resolves: the running agent finds the file.
  const opened = spawnSync(agentBinary, ['open', schemeUrl], { env: stack.home.env, encoding: 'utf8' });
  assert.equal(opened.status, 0, opened.stderr);
  await waitFor('the agent to reveal the linked file', () => stack.logs().includes(file), { timeoutMs: 60000 });
});
