// Each test gets its own `tamsel serve` on a fresh data root, port 0.
const { test: base, expect } = require('@playwright/test');
const { spawn } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

const root = path.resolve(__dirname, '../..');
const program = process.env.TAMSEL || path.join(root, 'build/dev/tamsel');
const shots = process.env.SCREENSHOTS || path.join(root, 'build/web-screenshots');

const test = base.extend({
  server: [async ({}, use) => {
    const home = fs.mkdtempSync(path.join(os.tmpdir(), 'tamsel-web-'));
    // The badge shows the page's count, as the tests expect of it.
    require('child_process').execFileSync(program, ['--home', home, 'defaults', 'write', 'userPrefersBadgeToolbarIconKey', '-bool', 'true']);
    const child = spawn(program, ['--home', home, 'serve', '--listen', '127.0.0.1:0'], { stdio: ['ignore', 'pipe', 'pipe'] });
    const url = await new Promise((resolve, reject) => {
      let out = '';
      child.stdout.on('data', (d) => { out += d; const m = /listening on (\S+)/.exec(out); if (m) resolve(m[1]); });
      child.on('exit', (code) => reject(new Error(`tamsel serve exited with ${code}`)));
    });
    const api = async (method, route, body) => {
      const res = await fetch(url + route, { method, headers: { 'Content-Type': 'application/json' }, body: body ? JSON.stringify(body) : undefined });
      return res.json();
    };
    await use({ url, home, api, program });
    child.kill('SIGTERM');
    await new Promise((resolve) => child.on('exit', resolve));
    fs.rmSync(home, { recursive: true, force: true });
  }, { scope: 'test' }],
});

// Opens the page and waits until it has drawn the window.
async function openWindow(page, server, scheme = 'light') {
  await page.emulateMedia({ colorScheme: scheme });
  await page.goto(server.url + '/');
  await expect(page.locator('body[data-ready=true]')).toBeVisible();
}

// Types an address and waits for the page area's document to load.
async function browse(page, address) {
  await page.getByRole('textbox', { name: 'Address' }).fill(address);
  await page.getByRole('textbox', { name: 'Address' }).press('Enter');
  return loaded(page);
}

// The page area once its document and every resource of it have loaded.
async function loaded(page) {
  await expect(page.locator('iframe[data-loaded=true]')).toHaveCount(1);
  return page.frameLocator('iframe');
}

async function shot(page, name) {
  fs.mkdirSync(shots, { recursive: true });
  await page.screenshot({ path: path.join(shots, `${name}.png`) });
}

// Waits for every queued save and reload of the extensions.
async function settled(server) {
  for (let i = 0; i < 200; i++) {
    if ((await server.api('GET', '/api/extensions')).idle) return;
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error('the extensions did not settle');
}

// Opens the popover with the toolbar button and waits for its fade-in.
async function openPopover(page) {
  const popover = page.getByRole('dialog', { name: 'Tamsel' });
  if (!(await popover.isVisible())) await page.getByRole('button', { name: 'Tamsel' }).click();
  await expect(popover).toBeVisible();
  await page.waitForTimeout(350);
  return popover;
}

// The child view, once it has slid in.
async function childView(page) {
  const child = page.locator('#child');
  await expect(child).toBeVisible();
  await page.waitForTimeout(350);
  return child;
}

// What the default rules block on news.example: three scripts (analytics,
// the social SDK, the comments embed), two ad images and the analytics pixel.
// Each is reported once, so the badge ends at this count once every report
// has reached the extension.
const NEWS_BLOCKED = 6;

const broken = (frame, selector) => frame.locator(selector).evaluate((img) => img.complete && img.naturalWidth === 0);

module.exports = { test, expect, openWindow, browse, loaded, openPopover, childView, broken, shot, settled, NEWS_BLOCKED };
