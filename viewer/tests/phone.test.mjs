// On a phone-sized screen the image still gets most of the screen and every control can be
// reached: the panel goes below the image and folds away with its toggle.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import {
  canvasStatistics, openPage, screenshot, serverAndBrowser, waitIdle,
} from './lib/harness.mjs';

describe('a phone-sized screen', { timeout: 90000 }, () => {
  const env = serverAndBrowser();

  test('shows the image and lets every control be reached', async () => {
    const { page, context, problems } = await openPage(env.browser, {
      viewport: { width: 390, height: 844 },
      deviceScaleFactor: 2,
      isMobile: true,
      hasTouch: true,
    });
    try {
      await page.goto(`${env.server.url}/view/slide`);
      await waitIdle(page);

      const stage = await page.locator('#stage').boundingBox();
      assert.ok(stage.width >= 380 && stage.height >= 0.4 * 844, `the image is large: ${JSON.stringify(stage)}`);
      const overflow = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
      assert.ok(overflow <= 0, `nothing sticks out sideways (${overflow} px)`);

      // The drawing buffer follows the screen's pixel density, and holds an image.
      const drawn = await canvasStatistics(page, 0, 0);
      assert.ok(drawn.width >= 2 * 380, `canvas at device pixels (${drawn.width})`);
      assert.ok(drawn.variance > 20, 'the canvas is not blank');

      for (const id of ['gamma-slider', 'sharpen-slider', 'clahe-on', 'preset', 'format', 'reset']) {
        const control = page.locator('#' + id);
        await control.scrollIntoViewIfNeeded();
        assert.ok(await control.isVisible(), `${id} is visible`);
        const box = await control.boundingBox();
        assert.ok(box.x >= 0 && box.x + box.width <= 390, `${id} fits the width`);
      }
      await page.locator('#clahe-on').tap();
      await waitIdle(page);
      assert.equal((await page.evaluate(() => window.quorvelView.settings())).claheOn, true);

      await page.evaluate(() => window.scrollTo(0, 0));
      const toggle = page.locator('#panel-toggle');
      await toggle.tap();
      assert.equal(await page.locator('#panel').isVisible(), false, 'the toggle folds the controls away');
      assert.equal(await toggle.getAttribute('aria-expanded'), 'false');
      await toggle.tap();
      assert.equal(await page.locator('#panel').isVisible(), true);
      assert.deepEqual(problems, []);
      await screenshot(page, 'phone');
    } finally {
      await context.close();
    }
  });
});
