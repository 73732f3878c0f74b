// The page's address carries the settings and the view: a copied link reopens the same
// picture, every control shows what the address says, and the tiles are asked for with
// exactly those parameters. An unknown identifier gets a message, not a broken viewer.

import assert from 'node:assert/strict';
import { describe, test } from 'node:test';
import { eventually, openPage, serverAndBrowser, waitIdle } from './lib/harness.mjs';

const GREY = '0.2126,0.2126,0.2126,0.7152,0.7152,0.7152,0.0722,0.0722,0.0722';

const near = (a, b, relative = 1e-4) => Math.abs(a - b) <= relative * Math.max(1, Math.abs(b));

async function controls(page) {
  return page.evaluate(() => {
    const v = (id) => document.getElementById(id).value;
    return {
      gamma: v('gamma'),
      mode: v('gamma-mode'),
      black: v('black'),
      white: v('white'),
      whiteMax: document.getElementById('white-slider').max,
      sharpen: v('sharpen'),
      claheOn: document.getElementById('clahe-on').checked,
      clahe: v('clahe'),
      preset: v('preset'),
      matrix: [...document.querySelectorAll('#matrix input')].map((i) => i.value),
      scale: v('matrix-scale'),
      format: v('format'),
      grid: document.getElementById('grid-on').checked,
    };
  });
}

describe('the address of a view', { timeout: 120000 }, () => {
  const env = serverAndBrowser();

  test('opening an address restores its settings and view, and the tiles carry them', async () => {
    const { page, context, problems } = await openPage(env.browser);
    const tiles = [];
    page.on('request', (r) => {
      if (/\/iiif\/3\/slide\/.+\/default\.\w+/.test(r.url())) tiles.push(new URL(r.url()));
    });
    try {
      const q = new URLSearchParams({
        gamma: '1.5', black: '10', white: '200', 'gamma-mode': 'linear', sharpen: '-1',
        clahe: '7', matrix: GREY, format: 'png', grid: '1', x: '20000', y: '30000', z: '0.25',
      });
      await page.goto(`${env.server.url}/view/slide?${q}`);
      await waitIdle(page);

      assert.deepEqual(await controls(page), {
        gamma: '1.5', mode: 'linear', black: '10', white: '200', whiteMax: '255', sharpen: '-1',
        claheOn: true, clahe: '7', preset: 'grey', matrix: GREY.split(','), scale: '1',
        format: 'png', grid: true,
      });
      const view = await page.evaluate(() => window.quorvelView.view());
      assert.ok(near(view.x, 20000) && near(view.y, 30000) && near(view.z, 0.25), JSON.stringify(view));
      assert.match(await page.locator('#zoom').textContent(), /^1:4 \(25%\)$/);

      assert.ok(tiles.length > 0);
      for (const u of tiles) {
        assert.ok(u.pathname.endsWith('.png'), u.href);
        assert.deepEqual(Object.fromEntries(u.searchParams), {
          gamma: '1.5', black: '10', white: '200', 'gamma-mode': 'linear', sharpen: '-1',
          clahe: '7', matrix: GREY,
        }, u.href);
      }
      // The server took every parameter as the viewer wrote it.
      assert.deepEqual(problems, []);
    } finally {
      await context.close();
    }
  });

  test('after changes, reloading the new address gives the same state; reset clears it', async () => {
    const { page, context, problems } = await openPage(env.browser);
    try {
      await page.goto(`${env.server.url}/view/slide`);
      await waitIdle(page);

      await page.locator('#preset').selectOption('stain');
      const gg = page.locator('#matrix input[data-m="4"]');
      await gg.fill('1.5');
      await gg.press('Enter');
      await page.locator('#white').fill('3000');
      await page.locator('#white').press('Enter');
      await page.locator('#clahe-on').check();
      await page.locator('#format').selectOption('png');
      await page.locator('#stage').click({ position: { x: 300, y: 300 } });
      await page.keyboard.press('+');
      await page.keyboard.press('+');
      await page.keyboard.press('ArrowLeft');
      await waitIdle(page);

      const state = await page.evaluate(() => ({ s: window.quorvelView.settings(), v: window.quorvelView.view() }));
      assert.equal(await page.locator('#preset').inputValue(), 'custom');
      assert.equal(state.s.matrix[4], 1.5);
      assert.equal(state.s.white, 3000);
      assert.ok(state.s.claheOn);

      // The address follows, a little later than the view (it is written at most a few times a second).
      await eventually(async () => {
        const u = new URL(page.url());
        const z = Number(u.searchParams.get('z'));
        return u.searchParams.get('white') === '3000' && near(z, state.v.z, 1e-5);
      }, 5000);
      const address = page.url();
      assert.match(address, /[?&]matrix=2\.094%2C-3\.484%2C-0\.297%2C0\.305%2C1\.5%2C/);

      await page.goto(address);
      await waitIdle(page);
      const again = await page.evaluate(() => ({ s: window.quorvelView.settings(), v: window.quorvelView.view() }));
      assert.deepEqual(again.s, state.s);
      assert.ok(near(again.v.x, state.v.x) && near(again.v.y, state.v.y) && near(again.v.z, state.v.z),
        `${JSON.stringify(again.v)} vs ${JSON.stringify(state.v)}`);
      assert.equal(await page.locator('#preset').inputValue(), 'custom');

      await page.locator('#reset').click();
      await waitIdle(page);
      const c = await controls(page);
      assert.equal(c.preset, 'identity');
      assert.equal(c.white, '4095');
      assert.equal(c.claheOn, false);
      await eventually(() => {
        const keys = [...new URL(page.url()).searchParams.keys()].sort();
        return JSON.stringify(keys) === JSON.stringify(['x', 'y', 'z']);
      }, 5000);
      assert.deepEqual(problems, []);
    } finally {
      await context.close();
    }
  });

  test('an unknown identifier shows a message instead of a viewer', async () => {
    const { page, context, problems } = await openPage(env.browser);
    try {
      const response = await page.goto(`${env.server.url}/view/no-such-image`);
      assert.equal(response.status(), 404);
      const message = page.locator('#message');
      await message.waitFor({ state: 'visible' });
      assert.match(await message.textContent(), /No image called 'no-such-image' on this server/);
      assert.equal(await page.locator('#main').isVisible(), false);
      assert.equal(await page.locator('.openseadragon-canvas').count(), 0);
      assert.equal(await message.locator('a[href="/"]').count(), 1);
      // Only the two 404s that say the image is unknown; no exception.
      assert.ok(problems.every((p) => /404/.test(p)), problems.join('\n'));
    } finally {
      await context.close();
    }
  });
});
