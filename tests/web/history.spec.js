// The blocked history: the page's blocked resources by extension, and the badge switch.
const { test, expect, openWindow, browse, openPopover, childView, shot, NEWS_BLOCKED } = require('./fixtures');

for (const scheme of ['light', 'dark']) {
  test(`the blocked history lists the page's blocked resources; the badge count goes off (${scheme})`, async ({ page, server }) => {
    await openWindow(page, server, scheme);
    await browse(page, 'news.example');
    await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));
    const popover = await openPopover(page);
    await popover.getByRole('button', { name: 'Blocked on This Page' }).click();
    const child = await childView(page);
    const ads = child.getByRole('list', { name: /ads/i });
    await expect(ads.getByRole('listitem').filter({ hasText: 'https://ad.doubleclick.net/ads/banner.svg' })).toHaveCount(1);
    await expect(child.getByRole('list', { name: /trackers/i }).getByRole('listitem').first()).toContainText('google-analytics.com');
    await shot(page, `history-${scheme}`);
    const badgeSwitch = child.getByRole('switch');
    await expect(badgeSwitch).toHaveAttribute('aria-checked', 'true');
    await badgeSwitch.click();
    await expect(badgeSwitch).toHaveAttribute('aria-checked', 'false');
    await expect(page.locator('#badge')).toHaveText('');
  });
}
