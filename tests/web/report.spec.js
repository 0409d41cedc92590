// The report form: a problem report sent with an empty comment reaches the
// report container of the signed-in cloud account; without an account the
// popover shows the error in an alert.
const { test, expect, openWindow, browse, openPopover, childView, shot } = require('./fixtures');

const reportContainer = 'iCloud.app.tamsel.Tamsel.Report';

// Opens the report form on the shop page, picks "broken site" and sends.
async function sendReport(page, server, scheme) {
  await openWindow(page, server, scheme);
  await browse(page, 'shop.example');
  const popover = await openPopover(page);
  await popover.getByRole('button', { name: 'Report a Problem' }).click();
  const child = await childView(page);
  await expect(child.getByRole('textbox')).toHaveValue('');
  await child.getByRole('radio').first().click();
  await expect(child.getByRole('radio').first()).toHaveAttribute('aria-checked', 'true');
  await shot(page, `report-${scheme}`);
  await child.locator('button.send').click();
  return child;
}

for (const scheme of ['light', 'dark']) {
  test(`a report with an empty comment is stored in the report container (${scheme})`, async ({ page, server, cloud }) => {
    const child = await sendReport(page, server, scheme);
    await expect(child.getByRole('heading', { name: 'Thank You! Report Sent' })).toBeVisible();
    await expect(page.getByRole('alertdialog')).toHaveCount(0);
    // Ready for another report: no type chosen any more.
    await expect(child.getByRole('radio', { checked: true })).toHaveCount(0);
    await shot(page, `report-sent-${scheme}`);

    const records = await cloud.publicRecords(reportContainer, 'Report');
    expect(records).toHaveLength(1);
    const fields = records[0].fields;
    expect(fields.type.value).toBe('brokenSite');
    expect(fields.url.value).toBe(await activeURL(server));
    expect(fields.comment).toBeUndefined();
    expect(fields.osVersion.value).toMatch(/^macOS /);
    expect(Object.keys(fields).sort()).toEqual(['appVersion', 'device', 'osVersion', 'type', 'url']);
  });
}

test('without a cloud account the report fails in an alert', async ({ page, server }) => {
  const child = await sendReport(page, server, 'light');
  const alert = page.getByRole('alertdialog');
  await expect(alert).toBeVisible();
  await expect(alert).toContainText('No account');
  await shot(page, 'report-alert-light');
  await alert.getByRole('button').last().click();
  await expect(alert).toBeHidden();
  // The form stays as it was, ready to send again once signed in.
  await expect(child.getByRole('radio').first()).toHaveAttribute('aria-checked', 'true');
});

// The address of the front window's active tab, as the substitute Safari has it.
async function activeURL(server) {
  const { windows } = await server.api('GET', '/api/tabs');
  return windows.find((w) => w.front).tabs.find((t) => t.active).url;
}
