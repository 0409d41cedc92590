// The popover and its child views, walked as a user walks them.
const { test, expect, openWindow, browse, loaded, shot, settled } = require('./fixtures');

const broken = (frame, selector) => frame.locator(selector).evaluate((img) => img.complete && img.naturalWidth === 0);

for (const scheme of ['light', 'dark']) {
  test(`popover, whitelist editor, statistics, history and report (${scheme})`, async ({ page, server }) => {
    await openWindow(page, server, scheme);
    const frame = await browse(page, 'news.example');
    await expect.poll(() => broken(frame, '#top-ad')).toBe(true);

    const button = page.getByRole('button', { name: 'Tamsel' });
    await button.click();
    const popover = page.getByRole('dialog', { name: 'Tamsel' });
    await expect(popover).toBeVisible();
    await expect(popover.locator('.counter').first()).toBeVisible();
    await shot(page, `popover-${scheme}`);

    // The whitelist editor, for ads only.
    await popover.getByRole('button', { name: /whitelist/i }).first().click();
    const editor = page.locator('#child');
    await expect(editor).toBeVisible();
    await shot(page, `whitelist-${scheme}`);
    const switches = editor.getByRole('switch');
    expect(await switches.count()).toBeGreaterThan(2);
    await editor.locator('[data-row]').filter({ hasText: /^Ads/ }).getByRole('switch').click();
    await expect(editor.locator('[data-row]').filter({ hasText: /^Ads/ }).getByRole('switch')).toHaveAttribute('aria-checked', 'true');
    await settled(server);
    await editor.getByRole('button', { name: 'Close' }).click();
    await page.getByRole('button', { name: 'Reload' }).click();
    const again = await loaded(page);
    await expect.poll(() => broken(again, '#top-ad')).toBe(false);
    expect(await again.locator('html').getAttribute('data-analytics')).toBeNull();

    // Statistics from the today counter.
    if (!(await popover.isVisible())) await button.click();
    await popover.locator('[data-counter=today]').click();
    await expect(page.getByRole('radio', { checked: true }).first()).toBeVisible();
    await expect(page.locator('#child canvas, #child [role=status]').first()).toBeVisible();
    await shot(page, `statistics-${scheme}`);
    await page.locator('#child').getByRole('button', { name: 'Close' }).click();
  });
}
