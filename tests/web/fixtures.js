// Each test gets its own `tamsel serve` on a fresh data root, port 0.
const { test: base, expect } = require('@playwright/test');
const { spawn, execFileSync } = require('child_process');
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
    execFileSync(program, ['--home', home, 'defaults', 'write', 'userPrefersBadgeToolbarIconKey', '-bool', 'true']);
    const child = spawn(program, ['--home', home, 'serve', '--listen', '127.0.0.1:0'], { stdio: ['ignore', 'pipe', 'pipe'] });
    const url = await listening(child, 'tamsel serve');
    const api = async (method, route, body) => {
      const res = await fetch(url + route, { method, headers: { 'Content-Type': 'application/json' }, body: body ? JSON.stringify(body) : undefined });
      return res.json();
    };
    await use({ url, home, api, program });
    child.kill('SIGTERM');
    await new Promise((resolve) => child.on('exit', resolve));
    fs.rmSync(home, { recursive: true, force: true });
  }, { scope: 'test' }],

  // A cloud server on 127.0.0.1:0 over a temporary SQLite file, with the test's
  // data root signed in to it as "alice"; `admin` is the administrator's token.
  cloud: [async ({ server }, use) => {
    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tamsel-web-cloud-'));
    const database = 'sqlite:' + path.join(dir, 'cloud.sqlite');
    const run = (...args) => execFileSync(program, ['--home', dir, ...args]).toString().trim();
    const admin = run('cloud-server', 'add-user', 'root', '--admin', '--database', database);
    const alice = run('cloud-server', 'add-user', 'alice', '--database', database);
    const child = spawn(program, ['--home', dir, 'cloud-server', '--listen', '127.0.0.1:0', '--database', database],
      { stdio: ['ignore', 'pipe', 'pipe'] });
    const url = await listening(child, 'tamsel cloud-server');
    execFileSync(program, ['--home', server.home, 'cloud', 'login', '--server', url, '--user', 'alice', '--token', alice]);
    // The records of one type in a public database, as the administrator reads them.
    const publicRecords = async (container, recordType) => {
      const res = await fetch(`${url}/database/1/${container}/development/public/records/query`, {
        method: 'POST', headers: { 'Content-Type': 'application/json', Authorization: `Bearer ${admin}` },
        body: JSON.stringify({ query: { recordType } }),
      });
      return (await res.json()).records;
    };
    await use({ url, admin, publicRecords });
    child.kill('SIGTERM');
    await new Promise((resolve) => child.on('exit', resolve));
    fs.rmSync(dir, { recursive: true, force: true });
  }, { scope: 'test' }],
});

// The address a program prints first ("listening on URL").
function listening(child, name) {
  return new Promise((resolve, reject) => {
    let out = '';
    child.stdout.on('data', (d) => { out += d; const m = /listening on (\S+)/.exec(out); if (m) resolve(m[1]); });
    child.on('exit', (code) => reject(new Error(`${name} exited with ${code}`)));
  });
}

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
