// Statistics from the today counter: the period picker and the chart.
const { execFileSync } = require('child_process');
const { test, expect, openWindow, browse, openPopover, childView, shot, NEWS_BLOCKED } = require('./fixtures');

// Stores blocked resources as if Safari had reported them `daysAgo` days ago.
function recordBlocked(server, daysAgo, extension, urls) {
  const when = new Date(Date.now() - daysAgo * 86400e3).toISOString().slice(0, 19) + 'Z';
  execFileSync(server.program, ['--home', server.home, 'report-blocked', '--page', `https://old${daysAgo}.example/`,
    '--extension', extension, '--now', when, ...urls]);
}

// What the chart on the page has drawn: per series, its label, its values and
// how many canvas pixels carry its colour (a series on the chart is a line of
// its colour, so a drawn series has some).
function drawnSeries(page) {
  return page.evaluate(() => {
    const charts = Object.values(window.Chart.instances);
    if (charts.length !== 1) return { charts: charts.length };
    const chart = charts[0];
    const { width, height } = chart.canvas;
    const pixels = chart.canvas.getContext('2d').getImageData(0, 0, width, height).data;
    const rgb = (colour) => {
      const probe = document.createElement('canvas').getContext('2d');
      probe.fillStyle = colour;
      const hex = probe.fillStyle;  // "#rrggbb" for an opaque colour
      return [1, 3, 5].map((i) => parseInt(hex.slice(i, i + 2), 16));
    };
    const series = chart.data.datasets.map((set) => {
      const [r, g, b] = rgb(set.borderColor);
      let count = 0;
      for (let i = 0; i < pixels.length; i += 4) {
        if (pixels[i + 3] > 200 && Math.abs(pixels[i] - r) < 6 && Math.abs(pixels[i + 1] - g) < 6 && Math.abs(pixels[i + 2] - b) < 6) count++;
      }
      return { label: set.label, total: set.data.reduce((a, v) => a + v, 0), points: set.data.length, pixels: count };
    });
    return { charts: 1, labels: chart.data.labels.length, series };
  });
}

for (const scheme of ['light', 'dark']) {
  test(`statistics: today from the counter, then the week and all time drawn as a line per category (${scheme})`, async ({ page, server }) => {
    page.on('pageerror', (e) => { throw e; });
    // Ads blocked 40 days ago, trackers and social widgets 3 days ago (so
    // that no two lines of the week lie on each other), and the news page now.
    recordBlocked(server, 40, 'block-ads', ['https://ad.doubleclick.net/old.js', 'https://ad.doubleclick.net/older.js']);
    recordBlocked(server, 3, 'block-trackers', ['https://www.google-analytics.com/old.js']);
    recordBlocked(server, 3, 'block-social', ['https://connect.facebook.net/a.js', 'https://connect.facebook.net/b.js',
      'https://connect.facebook.net/c.js']);
    await openWindow(page, server, scheme);
    await browse(page, 'news.example');
    await expect(page.locator('#badge')).toHaveText(String(NEWS_BLOCKED));

    const popover = await openPopover(page);
    await popover.getByRole('button', { name: 'Today' }).click();
    const child = await childView(page);
    const picker = child.getByRole('radiogroup');
    await expect(picker.getByRole('radio', { checked: true })).toHaveText('Today');
    // Today is drawn in two-hour buckets, so before 02:00 there is one bucket
    // and the view says there is too little data.
    await expect(child.locator('canvas').or(child.getByRole('status'))).toBeVisible();
    await shot(page, `statistics-today-${scheme}`);

    await picker.getByRole('radio', { name: 'This Week' }).click();
    await expect(picker.getByRole('radio', { checked: true })).toHaveText('This Week');
    await expect(child.locator('canvas')).toBeVisible();
    let drawn = await drawnSeries(page);
    expect(drawn.charts).toBe(1);
    expect(drawn.labels).toBe(7);
    const week = Object.fromEntries(drawn.series.map((s) => [s.label.toLowerCase(), s]));
    expect(week.ads.total).toBeGreaterThan(0);      // the news page's ads
    expect(week.trackers.total).toBe(1 + 2);     // three days ago, and the news page's script and pixel
    expect(week.others.total).toBe(3 + 2);       // three days ago, and the news page's social and comment scripts
    for (const s of drawn.series) expect(s.pixels, `${s.label} is drawn`).toBeGreaterThan(20);
    await shot(page, `statistics-week-${scheme}`);

    await picker.getByRole('radio', { name: 'All Time' }).click();
    await expect(picker.getByRole('radio', { checked: true })).toHaveText('All Time');
    await expect(child.locator('canvas')).toBeVisible();
    drawn = await drawnSeries(page);
    expect(drawn.charts).toBe(1);
    expect(drawn.labels).toBe(30);
    const all = Object.fromEntries(drawn.series.map((s) => [s.label.toLowerCase(), s]));
    expect(all.ads.total).toBe(2 + 2);              // 40 days ago and the news page's two ad images
    for (const s of drawn.series) expect(s.pixels, `${s.label} is drawn`).toBeGreaterThan(20);
    await shot(page, `statistics-all-time-${scheme}`);
  });
}
