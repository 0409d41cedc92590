// Browser tests of tamsel serve's page, in Debian's Chromium, loopback only.
const { defineConfig } = require('@playwright/test');

module.exports = defineConfig({
  testDir: '.',
  testMatch: '*.spec.js',
  timeout: 60000,
  workers: 1,
  reporter: [['list']],
  use: {
    browserName: 'chromium',
    viewport: { width: 1100, height: 760 },
    launchOptions: {
      executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
      args: [
        '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1',
        '--disable-background-networking', '--disable-component-update', '--no-first-run', '--disable-sync',
      ],
    },
  },
});
