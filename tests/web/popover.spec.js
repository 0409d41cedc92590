// The popover: rows, counters, the make-HTTPS switch and pause.
const { test, expect, openWindow, browse, loaded, openPopover, shot, settled, broken, NEWS_BLOCKED } = require('./fixtures');

for (const scheme of ['light', 'dark']) {
  test(`the popover shows the site's actions and the counters (${scheme})`, async ({ page, server }) => {
    await openWindow(page, server, scheme);
    await browse(page, 'news.example');
    // The page's load event can come before the last blocked report reaches
    // the badge; the counters are read once it shows them all.
    await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));
    const popover = await openPopover(page);
    await expect(popover.getByRole('heading', { name: /news\.example/i })).toBeVisible();
    await expect(popover.getByRole('switch', { name: 'Pause Blocking' })).toHaveAttribute('aria-checked', 'false');
    await expect(popover.getByRole('button', { name: 'Whitelist' })).toBeVisible();
    const today = popover.getByRole('button', { name: 'Today' });
    await expect(today).toHaveAccessibleDescription(new RegExp(`^${NEWS_BLOCKED} `));
    await shot(page, `popover-${scheme}`);
  });
}

test('pause shows the pause glyph and lets everything load; resume blocks again', async ({ page, server }) => {
  await openWindow(page, server);
  let frame = await browse(page, 'news.example');
  await expect.poll(() => broken(frame, '#top-ad')).toBe(true);
  await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));
  const popover = await openPopover(page);
  await popover.getByRole('switch', { name: 'Pause Blocking' }).click();
  await expect(popover.getByRole('switch', { name: 'Pause Blocking' })).toHaveAttribute('aria-checked', 'true');
  await settled(server);
  await page.getByRole('button', { name: 'Reload' }).click();
  frame = await loaded(page);
  await expect(page.locator('#badge')).toHaveText('\u2759\u2006\u2759');
  await expect(page.getByRole('button', { name: 'Tamsel' })).toHaveAccessibleDescription('\u2759\u2006\u2759');
  await expect.poll(() => broken(frame, '#top-ad')).toBe(false);
  await expect.poll(() => frame.locator('html').getAttribute('data-analytics')).toBe('loaded');

  await openPopover(page);
  await popover.getByRole('switch', { name: 'Pause Blocking' }).click();
  await expect(popover.getByRole('switch', { name: 'Pause Blocking' })).toHaveAttribute('aria-checked', 'false');
  await settled(server);
  await page.getByRole('button', { name: 'Reload' }).click();
  frame = await loaded(page);
  await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));
  await expect.poll(() => broken(frame, '#top-ad')).toBe(true);
});

test('make HTTPS: the switch answers with the model, an alert is an alertdialog', async ({ page, server }) => {
  await openWindow(page, server);
  await browse(page, 'http://shop.example/');
  const popover = await openPopover(page);
  const https = popover.getByRole('switch', { name: 'Make HTTPS' });
  await https.click();
  const alert = page.getByRole('alertdialog');
  // Either the site is forced to HTTPS, or an alert says why it cannot be.
  await expect(alert.or(popover.getByRole('switch', { name: 'Make HTTPS', checked: true }))).toBeVisible();
  if (await alert.isVisible()) {
    await shot(page, 'alert-light');
    await alert.getByRole('button').last().click();
    await expect(alert).toBeHidden();
  } else {
    await settled(server);
    await page.getByRole('button', { name: 'Reload' }).click();
    await loaded(page);
    await expect(page.getByRole('textbox', { name: 'Address' })).toHaveValue('https://shop.example/');
  }
});
