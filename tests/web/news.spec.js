// The page area: a demo site through the content blockers, the badge, the offline page.
const { test, expect, openWindow, browse, shot, NEWS_BLOCKED } = require('./fixtures');

const broken = (frame, selector) => frame.locator(selector).evaluate((img) => img.complete && img.naturalWidth === 0);

test('the news site loads without its ads and trackers, and the badge counts them', async ({ page, server }) => {
  await openWindow(page, server);
  const frame = await browse(page, 'news.example');
  await expect(frame.getByRole('heading', { name: 'Fishing boats return to the old harbour' })).toBeVisible();
  await expect.poll(() => broken(frame, '#top-ad')).toBe(true);
  await expect.poll(() => broken(frame, '#side-ad')).toBe(true);
  await expect.poll(() => broken(frame, '#story-photo')).toBe(false);
  expect(await frame.locator('html').getAttribute('data-analytics')).toBeNull();

  const tab = (await server.api('GET', '/api/windows')).windows[0].tabs[0];
  expect(tab.url).toBe('https://news.example/');
  const button = page.getByRole('button', { name: 'Tamsel' });
  await expect(button).toHaveAccessibleDescription(String(NEWS_BLOCKED));
  await shot(page, 'demo-news-light');
});

test('another address shows the offline page, and still counts as a page with a host', async ({ page, server }) => {
  await openWindow(page, server, 'dark');
  const frame = await browse(page, 'example.org/somewhere');
  await expect(frame.getByRole('heading', { name: 'You Are Offline' })).toBeVisible();
  const windows = await server.api('GET', '/api/windows');
  expect(windows.windows[0].tabs.some((t) => t.url === 'https://example.org/somewhere')).toBe(true);
  await browse(page, 'shop.example');
  await shot(page, 'demo-shop-dark');
});

test('the shop loses both its ads, the feed image included', async ({ page, server }) => {
  await openWindow(page, server);
  const frame = await browse(page, 'shop.example');
  await expect.poll(() => broken(frame, '#deal-ad')).toBe(true);
  await expect.poll(() => broken(frame, '#feed-ad')).toBe(true);
  await expect.poll(() => broken(frame, 'img[alt="Kettle"]')).toBe(false);
  // The analytics and social scripts and the two ad images.
  await expect(page.getByRole('button', { name: 'Tamsel' })).toHaveAccessibleDescription('4');
  await shot(page, 'demo-shop-light');
});

test('back goes through the tab\'s history, which the server keeps across a reload of the window', async ({ page, server }) => {
  await openWindow(page, server);
  await browse(page, 'news.example');
  const back = page.getByRole('button', { name: 'Back' });
  await expect(back).toBeDisabled();
  await browse(page, 'example.org/first');
  await browse(page, 'shop.example');
  await expect(back).toBeEnabled();
  // The window page starts over; the tab's history does not.
  await openWindow(page, server);
  await expect(page.getByRole('textbox', { name: 'Address' })).toHaveValue('https://shop.example/');
  await back.click();
  await expect(page.getByRole('textbox', { name: 'Address' })).toHaveValue('https://example.org/first');
  await back.click();
  await expect(page.getByRole('textbox', { name: 'Address' })).toHaveValue('https://news.example/');
  const frame = page.frameLocator('iframe');
  await expect(frame.getByRole('heading', { name: 'Fishing boats return to the old harbour' })).toBeVisible();
  await expect(back).toBeDisabled();
  const tab = (await server.api('GET', '/api/tabs')).windows[0].tabs[0];
  expect(tab).toMatchObject({ url: 'https://news.example/', canGoBack: false });
});
