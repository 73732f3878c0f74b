// Display parameters in the browser: what the canvas shows after a control moves is what the
// server renders for the same region and parameters, across tile borders too, and the change
// happens in place without a blank frame.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import {
  canvasPixels, compare, openPage, pixelAlignedView, screenshot, serverAndBrowser, serverPixels,
  statistics, waitIdle,
} from './lib/harness.mjs';

const ID = 'slide';

/// The page address that shows full-resolution pixel (left, top) at canvas pixel (0, 0).
async function alignedUrl(page, server, left, top, extra) {
  const view = await pixelAlignedView(page, left, top);
  const q = new URLSearchParams(extra);
  q.set('x', String(view.x));
  q.set('y', String(view.y));
  q.set('z', '1');
  return `${server.url}/view/${ID}?${q}`;
}

describe('display parameters', { timeout: 120000 }, () => {
  const env = serverAndBrowser();

  test('the gamma slider re-renders in place and the canvas matches the server at that gamma', async () => {
    const { page, context, problems } = await openPage(env.browser);
    const tileQueries = [];
    page.on('request', (r) => {
      const u = new URL(r.url());
      if (u.pathname.startsWith(`/iiif/3/${ID}/`) && !u.pathname.endsWith('info.json')) {
        tileQueries.push(u.searchParams.get('gamma'));
      }
    });
    try {
      await page.goto(`${env.server.url}/view/${ID}?format=png`);
      await waitIdle(page);
      // Tissue: nuclei on stroma, so that gamma has edges and mid-tones to act on.
      const left = 32500;
      const top = 36700;
      await page.goto(await alignedUrl(page, env.server, left, top, { format: 'png' }));
      await waitIdle(page);
      const region = { x: 120, y: 90, w: 96, h: 80 };
      const iiif = (query) =>
        `${env.server.url}/iiif/3/${ID}/${left + region.x},${top + region.y},${region.w},${region.h}` +
        `/max/0/default.png${query}`;
      const read = () => canvasPixels(page, region.x, region.y, region.w, region.h);

      const plain = await read();
      const plainDiff = compare(plain, await serverPixels(page, iiif('')));
      assert.ok(plainDiff.max <= 1, `at gamma 1 the canvas is the server's render (${JSON.stringify(plainDiff)})`);
      const viewBefore = await page.evaluate(() => window.quorvelView.view());
      const swapsBefore = await page.evaluate(() => window.quorvelView.swaps());

      // Watch every frame of the swap: the region must never go blank.
      await page.evaluate((r) => {
        const canvas = window.quorvelView.viewer.drawer.canvas;
        const ctx = canvas.getContext('2d');
        window.__frames = { min: Infinity, count: 0, on: true };
        const look = () => {
          if (!window.__frames.on) return;
          const d = ctx.getImageData(r.x, r.y, r.w, r.h).data;
          let s = 0;
          let q = 0;
          for (let i = 0; i < d.length; i += 4) {
            const g = (d[i] + d[i + 1] + d[i + 2]) / 3;
            s += g;
            q += g * g;
          }
          const n = d.length / 4;
          window.__frames.min = Math.min(window.__frames.min, q / n - (s / n) ** 2);
          window.__frames.count++;
          requestAnimationFrame(look);
        };
        requestAnimationFrame(look);
      }, region);

      tileQueries.length = 0;
      const slider = page.locator('#gamma-slider');
      await slider.focus();
      // A drag is a burst of input events: only where it stops should be rendered.
      for (let i = 0; i < 30; i++) await slider.press('ArrowRight');
      await waitIdle(page);
      const frames = await page.evaluate(() => {
        window.__frames.on = false;
        return window.__frames;
      });

      const gamma = await page.evaluate(() => window.quorvelView.settings().gamma);
      assert.ok(Math.abs(gamma - 2) < 0.02, `30 slider steps make gamma about 2 (${gamma})`);
      assert.equal(await page.locator('#gamma').inputValue(), String(gamma));
      const requested = new Set(tileQueries);
      assert.ok(requested.has(String(gamma)), 'tiles are asked for at the final gamma');
      // Thirty steps without a pause would be thirty renderings; a slow machine may let one
      // or two through between key presses.
      assert.ok(requested.size <= 4, `intermediate slider values are not rendered: ${[...requested]}`);
      const swaps = await page.evaluate(() => window.quorvelView.swaps());
      assert.ok(swaps > swapsBefore && swaps <= swapsBefore + 3, `swaps ${swapsBefore} -> ${swaps}`);
      assert.equal(await page.evaluate(() => window.quorvelView.viewer.world.getItemCount()), 1);
      assert.deepEqual(await page.evaluate(() => window.quorvelView.view()), viewBefore, 'the view stays');

      const bright = await read();
      const expected = await serverPixels(page, iiif(`?gamma=${gamma}`));
      const diff = compare(bright, expected);
      assert.ok(diff.max <= 2, `the canvas is the server's render at gamma ${gamma} (${JSON.stringify(diff)})`);
      assert.ok(compare(bright, plain).mean > 3, 'gamma changed the picture');

      const variance = Math.min(statistics(plain).variance, statistics(bright).variance);
      assert.ok(frames.count > 0);
      assert.ok(frames.min > variance * 0.2,
        `no blank or blurred frame while the tiles were replaced (variance fell to ${frames.min.toFixed(1)} of ${variance.toFixed(1)})`);
      assert.deepEqual(problems, []);
    } finally {
      await context.close();
    }
  });

  test('with sharpen and CLAHE, a region across a tile corner equals the server render of that region', async () => {
    const { page, context, problems } = await openPage(env.browser);
    try {
      await page.goto(`${env.server.url}/view/${ID}`);
      await waitIdle(page);
      // Full-resolution tile corner (32768, 36864), in tissue, lands on canvas pixel (268, 164).
      const corner = { x: 32768, y: 36864 };
      const at = { x: 268, y: 164 };
      const params = { sharpen: '2', clahe: '4', format: 'png' };
      await page.goto(await alignedUrl(page, env.server, corner.x - at.x, corner.y - at.y, params));
      await waitIdle(page);

      const settings = await page.evaluate(() => window.quorvelView.settings());
      assert.equal(settings.sharpen, 2);
      assert.ok(settings.claheOn && settings.clahe === 4);
      assert.equal(await page.evaluate(() => window.devicePixelRatio), 1);
      // The 2D-canvas fallback stretches every tile by a pixel; only WebGL draws them 1:1.
      assert.equal(await page.evaluate(() => window.quorvelView.viewer.drawer.getType()), 'webgl');

      // A 2 x 2 tile block around the corner, and a thin strip along one tile edge.
      for (const r of [{ x: at.x - 40, y: at.y - 36, w: 80, h: 72 }, { x: at.x - 3, y: at.y + 60, w: 6, h: 150 }]) {
        const shown = await canvasPixels(page, r.x, r.y, r.w, r.h);
        const left = corner.x - at.x + r.x;
        const top = corner.y - at.y + r.y;
        const whole = await serverPixels(page,
          `${env.server.url}/iiif/3/${ID}/${left},${top},${r.w},${r.h}/max/0/default.png?sharpen=2&clahe=4`);
        const diff = compare(shown, whole);
        assert.ok(diff.max <= 1, `region ${JSON.stringify(r)} matches within 1 level (${JSON.stringify(diff)})`);
        assert.ok(statistics(shown).variance > 1, 'the region has detail to compare');
      }

      // The grid overlay draws the level's tile edges exactly where the tiles meet.
      await page.locator('#grid-on').check();
      const grid = await page.evaluate(({ at }) => {
        const c = document.getElementById('grid');
        const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
        // Rows inside one tile row, long enough to meet a dash of every vertical line.
        const columns = new Set();
        for (let y = at.y + 100; y < at.y + 120; y++) {
          for (let x = 0; x < c.width; x++) if (d[(y * c.width + x) * 4 + 3] > 0) columns.add(x);
        }
        return { factor: c.dataset.factor, width: c.width, columns: [...columns].sort((a, b) => a - b) };
      }, { at });
      assert.equal(grid.factor, '1', 'at 1:1 the grid is the full-resolution level');
      const edges = [];
      for (let x = at.x % 256; x < grid.width; x += 256) edges.push(x);
      assert.deepEqual(grid.columns, edges, 'grid lines lie on the tile edges and nowhere else');
      assert.match(page.url(), /[?&]grid=1(&|$)/);

      assert.deepEqual(problems, []);
      await screenshot(page, 'clahe-sharpen-grid');
    } finally {
      await context.close();
    }
  });
});
