// Drives the dashboard of a running worker in headless Chromium and prints
// one JSON report; exits 1 when any check fails.
//   node dashboard_browser.mjs <mode> <base URL> <screenshot folder> [options as JSON]
// Modes: "pages" (every page, both screen sizes, the databases and storage
// flows), "keys" (a worker that requires an API key), "proxy" (pages shown
// under a controller's prefix), "unavailable" (pages of areas turned off).
import { chromium } from 'playwright-core';
import { mkdirSync, readFileSync } from 'node:fs';

const [mode, base, shots, optionText] = process.argv.slice(2);
const options = optionText ? JSON.parse(optionText) : {};
mkdirSync(shots, { recursive: true });
const failures = [];
const report = { mode, checks: [] };
const pages = ['/dashboard/', '/dashboard/databases', '/dashboard/storage', '/dashboard/vector', '/dashboard/nfs',
  '/dashboard/science', '/dashboard/agents', '/dashboard/devtoolbox'];

function check(name, ok, detail) {
  report.checks.push({ name, ok: !!ok, detail });
  if (!ok) failures.push(name + (detail ? ': ' + detail : ''));
}

// Console errors, page errors and failed requests, except those `allowed`.
function watch(page, label, allowed = () => false) {
  page.on('console', m => { if (m.type() === 'error' && !allowed({ text: m.text() })) failures.push(`${label}: console: ${m.text()}`); });
  page.on('pageerror', e => failures.push(`${label}: page error: ${e.message}`));
  page.on('requestfailed', r => { if (!allowed({ url: r.url() })) failures.push(`${label}: request failed: ${r.url()}`); });
  page.on('response', r => { if (r.status() >= 400 && !allowed({ url: r.url(), status: r.status() })) failures.push(`${label}: ${r.status()} ${r.url()}`); });
}

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  headless: true,
  args: ['--no-sandbox', '--disable-background-networking', '--disable-dev-shm-usage', '--disable-gpu'],
});
const shotName = path => (path.replace(/^\/dashboard\/?/, '') || 'overview');

try {
  if (mode === 'pages') {
    for (const viewport of [{ width: 1280, height: 800, tag: 'desktop' }, { width: 390, height: 844, tag: 'phone' }]) {
      const context = await browser.newContext({ viewport, acceptDownloads: true });
      const page = await context.newPage();
      watch(page, viewport.tag);
      for (const path of pages) {
        await page.goto(base + path, { waitUntil: 'networkidle' });
        const title = await page.title();
        check(`${path} has a title`, title.endsWith(' - Vostra Data Worker'), title);
        check(`${path} is not marked unavailable`, (await page.locator('.unavailable').count()) === 0,
          await page.locator('.unavailable').allInnerTexts().then(t => t.join(' | ')));
        // Every control has a label a screen reader can read.
        const unlabelled = await page.evaluate(() => [...document.querySelectorAll('input, select, textarea')]
          .filter(e => e.type !== 'hidden' && !(e.labels && e.labels.length) && !e.getAttribute('aria-label') && !e.closest('dialog'))
          .map(e => e.id || e.name || e.outerHTML.slice(0, 60)));
        check(`${path} labels every control`, unlabelled.length === 0, unlabelled.join(', '));
        const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
        check(`${path} fits ${viewport.tag} width`, overflow <= 1, `${overflow}px too wide`);
        await page.screenshot({ path: `${shots}/${shotName(path)}-${viewport.tag}.png`, fullPage: true });
      }
      await context.close();
    }

    const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, acceptDownloads: true });
    const page = await context.newPage();
    watch(page, 'flows');

    // The overview of a worker with many sources, ready soon after load.
    const started = Date.now();
    await page.goto(base + '/dashboard/', { waitUntil: 'domcontentloaded' });
    await page.locator('#sources table tbody tr').first().waitFor();
    report.overview_rows = await page.locator('#sources table tbody tr').count();
    report.overview_ms = await page.evaluate(() => performance.now());
    report.overview_wall_ms = Date.now() - started;
    check('overview lists every source', report.overview_rows === options.sources, `${report.overview_rows} rows`);

    // Keyboard: the skip link first, then the page links, in order.
    await page.keyboard.press('Tab');
    check('skip link is the first stop', await page.evaluate(() => document.activeElement.className === 'skip'));
    await page.keyboard.press('Tab');
    check('navigation follows', await page.evaluate(() => document.activeElement.closest('nav') !== null));

    // Databases: add a source, run a query, see its rows.
    await page.goto(base + '/dashboard/databases', { waitUntil: 'networkidle' });
    await page.getByLabel('Id').fill('browser_db');
    await page.getByLabel('Access').selectOption('readwrite');
    await page.getByLabel('File path').fill(options.sqlite_path);
    await page.getByRole('button', { name: 'Add source' }).click();
    await page.locator('#source-list td', { hasText: 'browser_db' }).first().waitFor();
    await page.getByLabel('Source', { exact: true }).selectOption('browser_db');
    await page.getByLabel('SQL').fill("SELECT 40 + 2 AS answer, 'forty-two' AS word");
    await page.getByRole('button', { name: 'Run' }).click();
    await page.locator('#query-result td', { hasText: 'forty-two' }).waitFor();
    check('query rows appear', (await page.locator('#query-result td').first().innerText()) === '42');
    await page.screenshot({ path: `${shots}/databases-after-query.png`, fullPage: true });

    // Storage: upload a text file and a binary one, see them listed, and
    // download the binary one byte for byte.
    await page.goto(base + '/dashboard/storage', { waitUntil: 'networkidle' });
    const binary = Buffer.from(Array.from({ length: 512 }, (_, i) => (i * 7) % 256));
    await page.getByLabel('Upload files to this folder').setInputFiles([
      { name: 'notes.txt', mimeType: 'text/plain', buffer: Buffer.from('hello from the browser\n') },
      { name: 'blob.bin', mimeType: 'application/octet-stream', buffer: binary },
    ]);
    await page.getByRole('button', { name: 'Upload', exact: true }).click();
    await page.locator('#files td', { hasText: 'blob.bin' }).waitFor();
    check('uploaded text file is listed', (await page.locator('#files td', { hasText: 'notes.txt' }).count()) === 1);
    const [download] = await Promise.all([page.waitForEvent('download'), page.locator('[data-download="blob.bin"]').click()]);
    const saved = `${shots}/downloaded.bin`;
    await download.saveAs(saved);
    check('binary download is byte for byte', Buffer.compare(readFileSync(saved), binary) === 0);
    await page.screenshot({ path: `${shots}/storage-after-upload.png`, fullPage: true });
    await context.close();
  }

  if (mode === 'keys') {
    const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, acceptDownloads: true });
    const page = await context.newPage();
    // The first calls are refused until the key is given.
    watch(page, 'keys', r => r.status === 401 || /status of 401/.test(r.text || ''));
    await page.goto(base + '/dashboard/', { waitUntil: 'domcontentloaded' });
    await page.getByRole('textbox', { name: 'API key' }).waitFor();
    await page.screenshot({ path: `${shots}/key-dialog.png` });
    await page.getByRole('textbox', { name: 'API key' }).fill(options.key);
    await page.getByRole('button', { name: 'Use key' }).click();
    await page.locator('#cards .card').first().waitFor();
    check('overview shows after the key', (await page.locator('#cards .card').count()) >= 3);
    // Kept for the session: the next page needs no dialog, and downloads carry the key.
    await page.goto(base + '/dashboard/storage', { waitUntil: 'networkidle' });
    check('key kept across pages', !(await page.locator('#key-dialog').evaluate(d => d.open)));
    await page.getByLabel('Upload files to this folder').setInputFiles([{ name: 'k.txt', mimeType: 'text/plain', buffer: Buffer.from('with a key') }]);
    await page.getByRole('button', { name: 'Upload', exact: true }).click();
    await page.locator('#files td', { hasText: 'k.txt' }).waitFor();
    const [download] = await Promise.all([page.waitForEvent('download'), page.locator('[data-download="k.txt"]').click()]);
    await download.saveAs(`${shots}/k.txt`);
    check('download with the key', readFileSync(`${shots}/k.txt`, 'utf8') === 'with a key');
    await context.close();
  }

  if (mode === 'proxy') {
    // The controller shows the pages under its own prefix; here the browser
    // forwards that prefix to the worker.
    const prefix = base + '/controller/workers/w1';
    const context = await browser.newContext();
    await context.addInitScript(p => { window.COMPONENT_API_BASE = p; }, prefix);
    const seen = [];
    await context.route(prefix + '/**', async route => {
      seen.push(route.request().url());
      const response = await route.fetch({ url: route.request().url().replace(prefix, base) });
      await route.fulfill({ response });
    });
    const page = await context.newPage();
    watch(page, 'proxy');
    await page.goto(base + '/dashboard/databases', { waitUntil: 'networkidle' });
    const links = await page.locator('nav a').evaluateAll(as => as.map(a => a.getAttribute('href')));
    check('links rewritten to the base', links.length === 8 && links.every(h => h.startsWith(prefix + '/dashboard/')), links.join(' '));
    check('API calls sent to the base', seen.some(u => u.startsWith(prefix + '/api/v1/data/sources')), seen.join(' '));
    await context.close();
  }

  if (mode === 'unavailable') {
    const context = await browser.newContext();
    const page = await context.newPage();
    // The worker answers 503 for the areas it has turned off: expected here.
    watch(page, 'unavailable', r => r.status === 503 || /status of 503/.test(r.text || ''));
    for (const path of ['/dashboard/vector', '/dashboard/agents', '/dashboard/devtoolbox']) {
      await page.goto(base + path, { waitUntil: 'networkidle' });
      const text = await page.locator('.unavailable').first().innerText().catch(() => '');
      check(`${path} says it is not available`, text.startsWith('Not available on this worker.'), text);
      await page.screenshot({ path: `${shots}/${shotName(path)}-unavailable.png`, fullPage: true });
    }
    await context.close();
  }
} catch (error) {
  failures.push('script: ' + error.message);
} finally {
  await browser.close();
}
report.failures = failures;
console.log(JSON.stringify(report));
process.exit(failures.length ? 1 : 0);
