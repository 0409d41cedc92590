// The popover and its child views, walked as a user walks them.
const { test, expect, openWindow, browse, loaded, shot, settled } = require('./fixtures');

const broken = (frame, selector) => frame.locator(selector).evaluate((img) => img.complete && img.naturalWidth === 0);

for (const scheme of ['light', 'dark']) {
  test(`popover, whitelist editor, statistics, history and report (${scheme})`, async ({ page, server }) => {
    page.on('pageerror', (e) => console.log('PAGEERROR', e.message));
    await openWindow(page, server, scheme);
    const frame = await browse(page, 'news.example');
    await expect.poll(() => broken(frame, '#top-ad')).toBe(true);

    const button = page.getByRole('button', { name: 'Tamsel' });
    await button.click();
    const popover = page.getByRole('dialog', { name: 'Tamsel' });
    await expect(popover).toBeVisible();
    await expect(popover.locator('.counter').first()).toBeVisible();
    await page.waitForTimeout(400);
    await shot(page, `popover-${scheme}`);

    // The whitelist editor, for ads only.
    await popover.getByRole('button', { name: /whitelist/i }).first().click();
    const editor = page.locator('#child');
    await expect(editor).toBeVisible();
    await page.waitForTimeout(400);
    await shot(page, `whitelist-${scheme}`);
    const off = editor.getByRole('switch', { name: 'Turn Off Blocking on This Site' });
    await off.click();
    await expect(off).toHaveAttribute('aria-checked', 'true');
    await page.waitForTimeout(400);
    await shot(page, `whitelist-on-${scheme}`);
    await settled(server);
    await editor.getByRole('button', { name: 'Close' }).click();
    await page.getByRole('button', { name: 'Reload' }).click();
    const again = await loaded(page);
    await expect.poll(() => broken(again, '#top-ad')).toBe(false);
    await expect(page.locator('#badge')).toHaveText('\u2764\uFE0E');

    // Statistics from the today counter.
    if (!(await popover.isVisible())) await button.click();
    await popover.locator('[data-counter=today]').click();
    const stats = (await server.api('GET', '/api/popover')).child;
    expect(stats.kind).toBe('blockingStats');
    expect(stats.period).toBe('today');
    await page.waitForTimeout(400);
    await shot(page, `statistics-${scheme}`);
  });
}
