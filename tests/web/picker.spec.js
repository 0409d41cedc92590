// The element picker: from the popover's row and from the context menu.
const fs = require('fs');
const path = require('path');
const { test, expect, openWindow, browse, loaded, openPopover, shot, settled } = require('./fixtures');

test('a picked element is hidden after the reload, and its rule is in the hide-elements package', async ({ page, server }) => {
  await openWindow(page, server);
  const frame = await browse(page, 'news.example');
  await expect(frame.locator('#lede')).toBeVisible();
  // The context menu offers the picker.
  await frame.locator('#lede').click({ button: 'right' });
  const item = page.getByRole('menuitem');
  await expect(item).toBeVisible();
  await shot(page, 'context-menu-light');
  await item.click();
  await expect.poll(() => frame.locator('html').evaluate((h) => h.style.cursor)).toBe('crosshair');
  await frame.locator('#lede').hover();
  await frame.locator('#lede').click();
  await settled(server);
  await expect.poll(async () => {
    const tab = (await server.api('GET', '/api/windows')).windows[0].tabs[0];
    return (await server.api('GET', `/api/tabs/${tab.id}/stylesheet`)).selectors.join(' ');
  }).toContain('#lede');
  await page.getByRole('button', { name: 'Reload' }).click();
  const again = await loaded(page);
  await expect(again.locator('#lede')).toBeHidden();
  await expect(again.locator('#story-photo')).toBeVisible();
  const files = fs.readdirSync(server.home, { recursive: true }).filter((f) => /custom|hide/i.test(f) && f.endsWith('.json'));
  const texts = files.map((f) => fs.readFileSync(path.join(server.home, f), 'utf8'));
  expect(texts.some((t) => t.includes('#lede'))).toBe(true);
});
