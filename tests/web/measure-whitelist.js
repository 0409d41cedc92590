// Measures, in the browser, the time from a click on the whitelist editor's
// "turn off blocking" switch until the page area has reloaded with the ads
// showing (median of 10). Usage: node measure-whitelist.js [DATA_ROOT]
// (a fresh data root with the shipped lists when none is given).
const { chromium } = require('@playwright/test');
const { spawn } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const config = require('./playwright.config.js');

(async () => {
  const program = process.env.TAMSEL || path.resolve(__dirname, '../../build/dev/tamsel');
  const home = process.argv[2] || fs.mkdtempSync(path.join(os.tmpdir(), 'tamsel-measure-'));
  const child = spawn(program, ['--home', home, 'serve', '--listen', '127.0.0.1:0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const url = await new Promise((resolve) => {
    let out = '';
    child.stdout.on('data', (d) => { out += d; const m = /listening on (\S+)/.exec(out); if (m) resolve(m[1]); });
  });
  const browser = await chromium.launch(config.use.launchOptions);
  const page = await browser.newPage();
  await page.goto(url + '/');
  await page.waitForSelector('body[data-ready=true]');
  await page.getByRole('textbox', { name: 'Address' }).fill('news.example');
  await page.getByRole('textbox', { name: 'Address' }).press('Enter');
  await page.waitForSelector('iframe[data-loaded=true]');
  await page.getByRole('button', { name: 'Tamsel' }).click();
  await page.getByRole('button', { name: 'Whitelist' }).click();
  const toggle = page.locator('#child').getByRole('switch').first();
  await toggle.waitFor();
  const adShows = () => page.frameLocator('iframe').locator('#top-ad')
    .evaluate((img) => img.complete && img.naturalWidth > 0).catch(() => false);
  const times = [];
  for (let i = 0; i < 20; i++) {
    const turningOn = (await toggle.getAttribute('aria-checked')) === 'false';
    const start = await page.evaluate(() => performance.now());
    await toggle.click();
    // The change is in effect once no save or reload is queued; then the page reloads.
    await page.waitForFunction(async () => (await (await fetch('/api/extensions')).json()).idle, null, { polling: 10 });
    await page.evaluate(async () => {
      const tab = window.tamsel.tab;
      await fetch(`/api/tabs/${tab}/reload`, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}' });
    });
    await page.waitForSelector('iframe[data-loaded=true]');
    while ((await adShows()) !== turningOn) await page.waitForTimeout(5);
    const end = await page.evaluate(() => performance.now());
    if (turningOn) times.push(end - start);
  }
  times.sort((a, b) => a - b);
  const median = (times[4] + times[5]) / 2;
  console.log(`whitelist switch to page area reloaded with ads: median ${median.toFixed(1)} ms over ${times.length}` +
    ` (min ${times[0].toFixed(1)}, max ${times[times.length - 1].toFixed(1)}); data root ${home}`);
  await browser.close();
  child.kill('SIGTERM');
})();
