// Measures, in the browser, the time from a click on the whitelist editor's
// "turn off blocking" switch until the page area has reloaded with the ads
// showing (median of 10). Usage: node measure-whitelist.js [DATA_ROOT]
// (a fresh data root with the shipped lists when none is given).
//
// The measured ad is the news page's banner, which the shipped Ads list
// blocks. A data root whose lists leave it alone (the benchmark's generated
// rule set does) first gets the shipped Ads list as a custom package, so
// pass a copy of a data root you want to keep as it is.
//
// Each step waits for a fresh event (a new load of the page area, a change
// in effect), never for a state that may still be left over from the step
// before, and gives up with an error after `patience` instead of waiting on.
const { chromium } = require('@playwright/test');
const { spawn, execFileSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const config = require('./playwright.config.js');

const patience = 10 * 60 * 1000;

(async () => {
  const program = process.env.TAMSEL || path.resolve(__dirname, '../../build/dev/tamsel');
  const home = process.argv[2] || fs.mkdtempSync(path.join(os.tmpdir(), 'tamsel-measure-'));
  const tamsel = (root, ...args) => execFileSync(program, ['--home', root, ...args], { maxBuffer: 1 << 28 }).toString();
  const ad = 'https://ad.doubleclick.net/ads/banner.svg';
  if (!/^blocked /m.test(tamsel(home, 'safari', 'load', 'https://measure.example/', '--resource', `${ad}:image`))) {
    const shipped = fs.mkdtempSync(path.join(os.tmpdir(), 'tamsel-measure-ads-'));
    const file = path.join(shipped, 'ads.tmsl');
    tamsel(shipped, 'export', 'block-ads', '--to', file);
    // A custom package under an identifier of its own (a built-in one is refused).
    const packages = JSON.parse(fs.readFileSync(file, 'utf8'));
    packages[0].id = 'demo-ads';
    fs.writeFileSync(file, JSON.stringify(packages));
    tamsel(home, 'import', file);
    fs.rmSync(shipped, { recursive: true, force: true });
    console.log(`imported the shipped Ads list into ${home}, which did not block ${ad}`);
  }
  const child = spawn(program, ['--home', home, 'serve', '--listen', '127.0.0.1:0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const url = await new Promise((resolve, reject) => {
    let out = '';
    child.stdout.on('data', (d) => { out += d; const m = /listening on (\S+)/.exec(out); if (m) resolve(m[1]); });
    child.on('exit', (code) => reject(new Error(`tamsel serve exited with ${code}`)));
  });
  const browser = await chromium.launch(config.use.launchOptions);
  try {
    const page = await browser.newPage();
    page.setDefaultTimeout(patience);
    const started = Date.now();
    await page.goto(url + '/');
    await page.waitForSelector('body[data-ready=true]');
    // Counts the page area's navigations (the window drops data-loaded when
    // it sets the area's address, and sets it again on the load), so that a
    // wait is for a load that began after a given moment.
    await page.evaluate(() => {
      window.areaNavigations = 0;
      const area = document.getElementById('page');
      new MutationObserver(() => { if (!area.dataset.loaded) window.areaNavigations++; })
        .observe(area, { attributes: true, attributeFilter: ['data-loaded', 'src'] });
    });
    const navigations = () => page.evaluate(() => window.areaNavigations);
    const loadedSince = async (count) => page.waitForFunction(
      (n) => window.areaNavigations > n && document.getElementById('page').dataset.loaded === 'true', count,
      { timeout: patience });

    await page.getByRole('textbox', { name: 'Address' }).fill('news.example');
    await page.getByRole('textbox', { name: 'Address' }).press('Enter');
    await page.waitForFunction(() => document.getElementById('page').dataset.loaded === 'true' &&
      document.getElementById('page').src.includes('news.example'));
    console.log(`first load of news.example: ${((Date.now() - started) / 1000).toFixed(1)} s`);
    await page.getByRole('button', { name: 'Tamsel' }).click();
    await page.getByRole('button', { name: 'Whitelist' }).click();
    const toggle = page.locator('#child').getByRole('switch').first();
    await toggle.waitFor();
    // The switch as drawn agrees with the editor's model before the first click.
    for (const end = Date.now() + patience; ; await page.waitForTimeout(10)) {
      const model = await (await fetch(url + '/api/popover')).json();
      const row = model.child.rows.find((r) => r.kind === 'turnOffSwitch');
      if (String(row.switch) === await toggle.getAttribute('aria-checked')) break;
      if (Date.now() > end) throw new Error('the switch never showed the editor\'s state');
    }
    const adShows = () => page.frameLocator('iframe').locator('#top-ad')
      .evaluate((img) => img.complete && img.naturalWidth > 0);
    // Asked from here: a predicate of waitForFunction that returns a promise counts as true at once.
    const idle = async () => {
      for (const end = Date.now() + patience; Date.now() < end; await new Promise((r) => setTimeout(r, 10)))
        if ((await (await fetch(url + '/api/extensions')).json()).idle) return;
      throw new Error('the extensions stayed busy');
    };

    const times = [];
    for (let i = 0; i < 20; i++) {
      const turningOn = (await toggle.getAttribute('aria-checked')) === 'false';
      const start = await page.evaluate(() => performance.now());
      // The switch flips on the page at once; the change is under way once the server has taken it.
      await Promise.all([page.waitForResponse((r) => r.url().endsWith('/api/popover/child/turnOffBlocking'), { timeout: patience }),
        toggle.click()]);

      // The change is in effect once no save or reload is on its way; then the page reloads.
      await idle();
      // Whatever loads from now on goes through the changed rules.
      const before = await navigations();
      await page.evaluate(async () => {
        const tab = window.tamsel.tab;
        await fetch(`/api/tabs/${tab}/reload`, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}' });
      });
      await loadedSince(before);
      const shows = await adShows();
      if (shows !== turningOn) throw new Error(`after switch ${i + 1} the ad ${shows ? 'shows' : 'is missing'}`);
      const end = await page.evaluate(() => performance.now());
      if (turningOn) times.push(end - start);
    }
    times.sort((a, b) => a - b);
    const median = (times[4] + times[5]) / 2;
    console.log(`whitelist switch to page area reloaded with ads: median ${median.toFixed(1)} ms over ${times.length}` +
      ` (min ${times[0].toFixed(1)}, max ${times[times.length - 1].toFixed(1)}); data root ${home}`);
  } finally {
    await browser.close();
    child.kill('SIGTERM');
  }
})().catch((error) => { console.error(error); process.exitCode = 1; });
