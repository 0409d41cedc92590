// The whitelist editor: the site whitelisted for ads only.
const { test, expect, openWindow, browse, loaded, openPopover, childView, shot, settled, broken, NEWS_BLOCKED } = require('./fixtures');

const fs = require('fs');
const path = require('path');

const logText = (server) => fs.readFileSync(path.join(server.home, 'logs/tamsel.log'), 'utf8');
const rowSwitch = (child, title) => child.getByRole('switch', { name: title, exact: true });

for (const scheme of ['light', 'dark']) {
  test(`whitelisting for ads only brings the ads back, trackers stay blocked, the badge shows the heart (${scheme})`, async ({ page, server }) => {
    await openWindow(page, server, scheme);
    let frame = await browse(page, 'news.example');
    await expect.poll(() => broken(frame, '#top-ad')).toBe(true);
    // Every blocked report has reached the extension before the editor opens.
    await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));

    const popover = await openPopover(page);
    await popover.getByRole('button', { name: 'Whitelist' }).click();
    const child = await childView(page);
    const turnOff = child.getByRole('switch').first();
    await turnOff.click();
    await expect(turnOff).toHaveAttribute('aria-checked', 'true');
    // The keyboard keeps its place while the popover redraws (here for the
    // appearance switching back and forth, as rebuilds and reports redraw it).
    const row = popover.getByRole('button', { name: 'Blocked on This Page' });
    await row.focus();
    await row.evaluate((node) => { node.dataset.drawn = 'before'; });
    await page.emulateMedia({ colorScheme: scheme === 'light' ? 'dark' : 'light' });
    await expect(popover.locator('[data-drawn]')).toHaveCount(0);
    await expect(row).toBeFocused();
    await row.evaluate((node) => { node.dataset.drawn = 'before'; });
    await page.emulateMedia({ colorScheme: scheme });
    await expect(popover.locator('[data-drawn]')).toHaveCount(0);
    await expect(row).toBeFocused();
    // A second click on a row under the editor (the keyboard still reaches
    // them) is ignored: the editor stays, nothing else opens.
    await page.keyboard.press('Enter');
    await expect.poll(() => logText(server)).toContain('Ignoring the click: there are already presented: ');
    await expect(child.getByRole('switch', { name: 'Turn Off Blocking on This Site' })).toBeVisible();
    await expect(child.getByRole('list')).toHaveCount(0);
    expect((await server.api('GET', '/api/popover')).child.kind).toBe('whitelist');

    const all = child.getByRole('switch').nth(1);
    await expect(all).toHaveAttribute('aria-checked', 'true');
    await all.click();
    const ads = rowSwitch(child, 'Ads');
    await expect(ads).toBeVisible();
    await ads.click();
    await expect(ads).toHaveAttribute('aria-checked', 'true');
    await shot(page, `whitelist-${scheme}`);
    await settled(server);
    await expect(page.locator('#badge')).toHaveText('\u2764\uFE0E');

    await child.getByRole('button', { name: 'Close' }).click();
    await page.getByRole('button', { name: 'Reload' }).click();
    frame = await loaded(page);
    await expect.poll(() => broken(frame, '#top-ad')).toBe(false);
    await expect.poll(() => broken(frame, '#pixel')).toBe(true);
    expect(await frame.locator('html').getAttribute('data-analytics')).toBeNull();
  });
}
