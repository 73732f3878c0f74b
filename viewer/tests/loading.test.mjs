// Opening the viewer: the page, OpenSeadragon and every visible tile arrive from the server
// itself, nothing fails, and the canvas shows an image rather than an empty frame.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import {
  canvasStatistics, eventually, openPage, screenshot, serverAndBrowser, waitIdle,
} from './lib/harness.mjs';

describe('opening the viewer', { timeout: 90000 }, () => {
  const env = serverAndBrowser();

  test('the index links to the viewer of each image', async () => {
    const { page, context, problems } = await openPage(env.browser);
    try {
      await page.goto(env.server.url + '/');
      const link = page.locator('a[href="/view/slide"]');
      await link.waitFor();
      await Promise.all([page.waitForURL('**/view/slide**'), link.click()]);
      await waitIdle(page);
      assert.deepEqual(problems, []);
    } finally {
      await context.close();
    }
  });

  test('every visible tile loads from this server with no error and the canvas is not blank', async () => {
    const { page, context, problems } = await openPage(env.browser);
    const requests = [];
    page.on('request', (r) => requests.push(r.url()));
    try {
      const response = await page.goto(env.server.url + '/view/slide');
      assert.equal(response.status(), 200);
      await waitIdle(page);

      // Everything the page needed came from the server it was opened from.
      const foreign = requests.filter((u) => !u.startsWith(env.server.url) && !u.startsWith('data:'));
      assert.deepEqual(foreign, []);
      assert.ok(requests.some((u) => u.includes('/static/osd/openseadragon.min.js')));
      const tiles = requests.filter((u) => /\/iiif\/3\/slide\/[^/]+\/[^/]+\/0\/default\.jpg/.test(u));
      assert.ok(tiles.length > 0, 'tiles are IIIF image requests');

      const state = await page.evaluate(() => {
        const v = window.quorvelView.viewer;
        const item = v.world.getItemAt(0);
        return {
          items: v.world.getItemCount(),
          fullyLoaded: item.getFullyLoaded(),
          navigator: Boolean(v.navigator && v.navigator.element.offsetWidth > 0),
          zoom: document.getElementById('zoom').textContent,
          canvas: { w: v.drawer.canvas.width, h: v.drawer.canvas.height },
        };
      });
      assert.equal(state.items, 1);
      assert.ok(state.fullyLoaded);
      assert.ok(state.navigator, 'the mini-map is shown');
      // The whole 65536-pixel slide fits the window: a reduction, shown as 1:N.
      assert.match(state.zoom, /^1:\d+(\.\d)? \(\d+(\.\d)?%\)$/);

      const { variance } = await canvasStatistics(page, 0, 0);
      assert.ok(variance > 20, `the canvas shows an image (grey variance ${variance.toFixed(1)})`);

      // The statistic reads the server's own render times from the tile responses.
      const stats = await eventually(() => page.evaluate(() => window.quorvelView.renderStats()));
      assert.ok(stats.count > 0 && stats.median >= 0 && Number.isFinite(stats.mean));
      assert.match(await page.locator('#stats').textContent(), /median \d+(\.\d)? ms/);

      assert.deepEqual(problems, []);
      await screenshot(page, 'desktop');
    } finally {
      await context.close();
    }
  });

  test('keys zoom, pan and go home, but not while typing in a number box', async () => {
    const { page, context, problems } = await openPage(env.browser);
    try {
      await page.goto(env.server.url + '/view/slide');
      await waitIdle(page);
      const view = () => page.evaluate(() => window.quorvelView.view());
      const settle = () => page.waitForFunction(() => {
        const vp = window.quorvelView.viewer.viewport;
        return vp.getZoom(true) === vp.getZoom(false) && vp.getCenter(true).equals(vp.getCenter(false));
      }, null, { timeout: 10000, polling: 50 });
      const home = await view();

      await page.locator('#stage').click({ position: { x: 300, y: 400 } });
      await page.keyboard.press('+');
      await settle();
      const zoomed = await view();
      assert.ok(zoomed.z > home.z * 1.2, `+ zooms in (${home.z} -> ${zoomed.z})`);

      await page.keyboard.press('ArrowRight');
      await page.keyboard.press('ArrowDown');
      await settle();
      const panned = await view();
      assert.ok(panned.x > zoomed.x && panned.y > zoomed.y, 'arrows pan right and down');

      await page.keyboard.press('-');
      await settle();
      assert.ok((await view()).z < panned.z, '- zooms out');

      // Typing a negative number or a plus sign in a box is not a key for the view.
      const before = await view();
      const box = page.locator('#sharpen');
      await box.click();
      await box.press('Control+a');
      await box.pressSequentially('-1.5');
      await box.press('ArrowUp');
      await page.locator('#matrix-scale').click();
      await page.locator('#matrix-scale').press('+');
      await page.locator('#matrix-scale').press('0');
      await settle();
      const after = await view();
      assert.equal(after.z, before.z);
      assert.equal(after.x, before.x);
      assert.equal(after.y, before.y);

      await page.locator('#stage').click({ position: { x: 300, y: 400 } });
      await page.keyboard.press('0');
      await settle();
      const back = await view();
      assert.ok(Math.abs(back.z - home.z) / home.z < 1e-6, '0 returns to the whole image');
      assert.ok(Math.abs(back.x - home.x) < 1 && Math.abs(back.y - home.y) < 1);
      assert.deepEqual(problems, []);
    } finally {
      await context.close();
    }
  });
});
