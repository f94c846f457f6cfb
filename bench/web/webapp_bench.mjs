// Browser figures through the whole chain (chromium, vandrel-relay, vandrel --headless in a temporary home):
//  - a search submitted in the page until its result is on screen;
//  - a folder of 1,000 images opened until every thumbnail of the first screen has loaded, with thumbnails
//    the agent makes fresh (each run opens a page of the folder not seen before) and from a new tab
//    opening the first page again (thumbnails made before, the listing and the tab's session new).
//   node bench/web/webapp_bench.mjs <vandrel-relay> <vandrel> [runs]

import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const { launchBrowser, png, startStack, waitFor } = await import(path.join(here, '../../tests/web/harness.mjs'));

const [relayBinary, agentBinary, runsText] = process.argv.slice(2);
if (!relayBinary || !agentBinary) {
  console.error('usage: node webapp_bench.mjs <vandrel-relay> <vandrel> [runs]');
  process.exit(2);
}
const RUNS = Math.max(1, Math.min(20, Number(runsText) || 5));
const IMAGES = 1000;
const PASSWORD = 'bench password';

function summary(label, values) {
  const sorted = [...values].sort((a, b) => a - b);
  const at = (q) => sorted[Math.min(sorted.length - 1, Math.floor(q * sorted.length))];
  console.log(`${label.padEnd(52)} median ${at(0.5).toFixed(0).padStart(6)} ms   min ${sorted[0].toFixed(0).padStart(6)} ms   max ${sorted[sorted.length - 1].toFixed(0).padStart(6)} ms   (n=${sorted.length})`);
}

const stack = await startStack({
  relayBinary, agentBinary, password: PASSWORD,
  fill(home) {
    for (let i = 0; i < IMAGES; i++) {
      home.write(`Photos/img-${String(i).padStart(4, '0')}.png`, png(640, 480, [(i * 37) % 256, (i * 91) % 256, (i * 53) % 256]));
    }
    for (let i = 0; i < 200; i++) home.write(`Notes/note-${i}.txt`, `Note ${i}: the word marker${i}x is in here.\n`);
  },
});
const browser = await launchBrowser();

function item(page, name) {
  return page.locator('#items .item', { has: page.locator('.name', { hasText: new RegExp(`^${name}$`) }) });
}

async function signedInPage() {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 } });
  const page = await context.newPage();
  await page.goto(`${stack.url}/#token=${stack.token}`);
  await page.locator('#computer-list button').first().click({ timeout: 60000 });
  await page.fill('#password-input', PASSWORD);
  await page.press('#password-input', 'Enter');
  await page.locator('#items .item').first().waitFor({ timeout: 60000 });
  if (!(await page.locator('#items.grid').count())) await page.click('#view-toggle');
  await page.evaluate(() => performance.setResourceTimingBufferSize(10000));
  return { context, page };
}

// Runs `start` in the page and waits, frame by frame, until `done` holds; gives the milliseconds between.
function timeInPage(page, start, done) {
  return page.evaluate(async ([startText, doneText]) => {
    const begin = performance.now();
    new Function(startText)();
    const check = new Function(doneText);
    while (!check()) {
      if (performance.now() - begin > 120000) throw new Error('no result within 120 s');
      await new Promise((r) => requestAnimationFrame(r));
    }
    return performance.now() - begin;
  }, [start, done]);
}

const IN_PHOTOS = `if (document.querySelector('#crumbs li:last-child')?.textContent !== 'Photos') return false;`;

// Every item that shows in the viewport has its thumbnail.
const FIRST_SCREEN_LOADED = `
  const items = [...document.querySelectorAll('#items .item')];
  if (!items.length) return false;
  const seen = items.filter((b) => { const r = b.getBoundingClientRect(); return r.bottom > 0 && r.top < innerHeight; });
  return seen.length > 0 && seen.every((b) => b.querySelector('img.thumb.loaded'));`;

try {
  const { context, page } = await signedInPage();

  // The index has to have crawled the home before searches mean anything.
  await waitFor('the index to hold the notes', async () => {
    await page.fill('#search-text', 'marker199x');
    await page.press('#search-text', 'Enter');
    await page.locator('#status', { hasText: 'found.' }).waitFor({ timeout: 60000 });
    return (await page.locator('#items .item').count()) > 0;
  }, { timeoutMs: 300000, everyMs: 1000 });

  const searches = [];
  for (let i = 0; i < RUNS * 2; i++) {
    const word = `marker${i * 7}x`;
    searches.push(await timeInPage(page,
      `document.getElementById('search-text').value = '${word}'; document.getElementById('search').requestSubmit();`,
      `return [...document.querySelectorAll('#items .name')].some((n) => n.textContent === 'note-${i * 7}.txt');`));
  }

  await page.locator('#crumbs button').first().click();
  await item(page, 'home').click({ timeout: 60000 });
  await item(page, 'Photos').waitFor({ timeout: 60000 });
  const cold = [];
  cold.push(await timeInPage(page,
    `[...document.querySelectorAll('#items .item')].find((b) => b.querySelector('.name').textContent === 'Photos').click();`,
    IN_PHOTOS + FIRST_SCREEN_LOADED));
  for (let i = 1; i < RUNS; i++) {
    cold.push(await timeInPage(page, `document.getElementById('page-next').click();`,
      `return document.getElementById('page-label').textContent.startsWith('Page ${i + 1} ') && (() => { ${FIRST_SCREEN_LOADED} })();`));
  }
  // Each thumbnail is one held /api/request; their round trips explain the figure above.
  const roundTrips = await page.evaluate(() => performance.getEntriesByType('resource')
    .filter((e) => e.name.endsWith('/api/request')).map((e) => e.duration));
  const photos = await page.evaluate(() => history.state.place.dir);
  await context.close();

  const warm = [];
  for (let i = 0; i < RUNS; i++) {
    const fresh = await signedInPage();
    warm.push(await timeInPage(fresh.page,
      `history.pushState({ place: { dir: ${JSON.stringify(photos)}, page: 0, search: null } }, ''); dispatchEvent(new PopStateEvent('popstate', { state: history.state }));`,
      IN_PHOTOS + FIRST_SCREEN_LOADED));
    await fresh.context.close();
  }

  console.log(`Browser benchmark: chromium ${browser.version()}, ${IMAGES} PNG images of 640 x 480, grid view at 1280 x 800, thumbnails 256 x 256`);
  summary('search submitted -> result on screen', searches);
  summary('open image folder -> first screen of thumbnails (new)', cold);
  summary('same folder in a new tab -> first screen', warm);
  summary('one request through relay and agent (round trip)', roundTrips);
} finally {
  await browser.close();
  await stack.stop();
}
