// Statistics from the today counter: the period picker and the chart.
const { test, expect, openWindow, browse, openPopover, childView, shot } = require('./fixtures');

for (const scheme of ['light', 'dark']) {
  test(`statistics open on today with a chart or the not-enough-data text (${scheme})`, async ({ page, server }) => {
    page.on('pageerror', (e) => { throw e; });
    await openWindow(page, server, scheme);
    await browse(page, 'news.example');
    const popover = await openPopover(page);
    await popover.getByRole('button', { name: 'Today' }).click();
    const child = await childView(page);
    const picker = child.getByRole('radiogroup');
    await expect(picker.getByRole('radio', { checked: true })).toHaveText('Today');
    await expect(child.locator('canvas').or(child.getByRole('status'))).toBeVisible();
    if (await child.locator('canvas').isVisible())
      expect(await page.evaluate(() => Object.keys(window.Chart.instances).length)).toBe(1);
    await shot(page, `statistics-${scheme}`);
    await picker.getByRole('radio', { name: 'All Time' }).click();
    await expect(picker.getByRole('radio', { checked: true })).toHaveText('All Time');
  });
}
