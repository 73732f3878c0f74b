// What every browser test needs: its own quorvel-serve on a free loopback port, Debian's
// chromium through playwright-core, and bounded waits on the viewer's own idle state.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdirSync } from 'node:fs';
import path from 'node:path';
import { after, before } from 'node:test';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

const here = path.dirname(fileURLToPath(import.meta.url));
export const viewerDir = path.resolve(here, '../..');
export const docsDir = path.resolve(viewerDir, '../docs');

const STARTUP_MS = 20000;
const STOP_MS = 5000;

/// Starts the server on port 0 with `images` (none: the procedural slide) and resolves once
/// it has printed the address it listens on.
export async function startServer(images = []) {
  const binary = process.env.QUORVEL_SERVE;
  if (!binary) throw new Error('QUORVEL_SERVE must name the quorvel-serve binary');
  const args = [...images, '--port', '0', '--bind', '127.0.0.1', '--viewer', viewerDir, '--quiet'];
  const child = spawn(binary, args, { stdio: ['ignore', 'pipe', 'pipe'] });
  let stderr = '';
  child.stderr.on('data', (d) => {
    stderr = (stderr + d).slice(-4000);
  });
  const killOnExit = () => child.kill('SIGKILL');
  process.on('exit', killOnExit);

  const url = await new Promise((resolve, reject) => {
    let out = '';
    const timer = setTimeout(() => {
      child.kill('SIGKILL');
      reject(new Error(`quorvel-serve did not start within ${STARTUP_MS} ms: ${stderr}`));
    }, STARTUP_MS);
    child.stdout.on('data', (d) => {
      out += d;
      const m = /^listening on (http:\/\/127\.0\.0\.1:\d+)\/$/m.exec(out);
      if (m) {
        clearTimeout(timer);
        resolve(m[1]);
      }
    });
    child.on('exit', (code, signal) => {
      clearTimeout(timer);
      reject(new Error(`quorvel-serve exited (${code ?? signal}) before listening: ${stderr}`));
    });
    child.on('error', (e) => {
      clearTimeout(timer);
      reject(e);
    });
  });
  child.stdout.resume();

  async function stop() {
    process.off('exit', killOnExit);
    if (child.exitCode !== null || child.signalCode !== null) return child.exitCode;
    const exited = new Promise((resolve) => child.once('exit', (code) => resolve(code)));
    child.kill('SIGTERM');
    const timer = setTimeout(() => child.kill('SIGKILL'), STOP_MS);
    const code = await exited;
    clearTimeout(timer);
    return code;
  }
  return { url, stop, stderr: () => stderr };
}

export async function launchBrowser() {
  return chromium.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    timeout: 30000,
  });
}

/// A fresh page that records what would show a fault to a person: console errors, uncaught
/// exceptions, requests that failed or were refused.
export async function openPage(browser, options = {}) {
  const context = await browser.newContext({
    viewport: { width: 1280, height: 800 },
    deviceScaleFactor: 1,
    ...options,
  });
  context.setDefaultTimeout(15000);
  const page = await context.newPage();
  const problems = [];
  // The browser asks for /favicon.ico by itself on pages without an icon (the server's index).
  const own = (url) => !/\/favicon\.ico$/.test(url || '');
  page.on('console', (m) => {
    if (m.type() === 'error' && own(m.location()?.url)) problems.push(`console: ${m.text()}`);
  });
  page.on('pageerror', (e) => problems.push(`exception: ${e.message}`));
  page.on('requestfailed', (r) => problems.push(`failed: ${r.url()} ${r.failure()?.errorText}`));
  page.on('response', (r) => {
    if (r.status() >= 400 && own(r.url())) problems.push(`status ${r.status()}: ${r.url()}`);
  });
  return { page, context, problems };
}

/// Waits until the viewer shows the current settings with every visible tile drawn and the
/// view at rest, then one more frame so the drawer has painted them.
export async function waitIdle(page, timeout = 30000) {
  const end = Date.now() + timeout;
  for (let attempt = 0; attempt < 5; attempt++) {
    await page.waitForFunction(() => window.quorvelView?.idle() === true, null, {
      timeout: Math.max(1000, end - Date.now()),
      polling: 50,
    });
    await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));
    if (await page.evaluate(() => window.quorvelView.idle())) return;
  }
  throw new Error('the viewer never stayed idle for two frames');
}

/// RGBA pixels of the viewer's canvas (canvas pixels: CSS pixels at devicePixelRatio 1).
export async function canvasPixels(page, x, y, w, h) {
  return page.evaluate(
    ([x, y, w, h]) => {
      const canvas = window.quorvelView.viewer.drawer.canvas;
      const data = canvas.getContext('2d').getImageData(x, y, w, h).data;
      return { width: w, height: h, data: Array.from(data) };
    },
    [x, y, w, h],
  );
}

/// RGBA pixels of an image the server renders, decoded by the browser as it decodes tiles.
export async function serverPixels(page, url) {
  return page.evaluate(async (url) => {
    const response = await fetch(url);
    if (!response.ok) throw new Error(`${url}: ${response.status} ${await response.text()}`);
    const bitmap = await createImageBitmap(await response.blob());
    const canvas = new OffscreenCanvas(bitmap.width, bitmap.height);
    const ctx = canvas.getContext('2d');
    ctx.drawImage(bitmap, 0, 0);
    const data = ctx.getImageData(0, 0, bitmap.width, bitmap.height).data;
    return { width: bitmap.width, height: bitmap.height, data: Array.from(data) };
  }, url);
}

/// The largest difference of one colour channel, and where it is.
export function compare(a, b) {
  if (a.width !== b.width || a.height !== b.height) {
    throw new Error(`sizes differ: ${a.width}x${a.height} and ${b.width}x${b.height}`);
  }
  let max = 0;
  let at = null;
  let sum = 0;
  for (let i = 0; i < a.data.length; i++) {
    if (i % 4 === 3) continue;
    const d = Math.abs(a.data[i] - b.data[i]);
    sum += d;
    if (d > max) {
      max = d;
      const p = i >> 2;
      at = { x: p % a.width, y: Math.floor(p / a.width), channel: i % 4 };
    }
  }
  return { max, at, mean: sum / ((a.data.length / 4) * 3) };
}

/// Mean and variance of the grey of a canvas region, computed in the page: a whole canvas is
/// too many numbers to carry over the protocol.
export async function canvasStatistics(page, x, y, w, h) {
  return page.evaluate(
    ([x, y, w, h]) => {
      const canvas = window.quorvelView.viewer.drawer.canvas;
      const d = canvas.getContext('2d').getImageData(x, y, w ?? canvas.width, h ?? canvas.height).data;
      let sum = 0;
      let sq = 0;
      for (let i = 0; i < d.length; i += 4) {
        const grey = (d[i] + d[i + 1] + d[i + 2]) / 3;
        sum += grey;
        sq += grey * grey;
      }
      const n = d.length / 4;
      return { mean: sum / n, variance: sq / n - (sum / n) ** 2, width: canvas.width, height: canvas.height };
    },
    [x, y, w, h],
  );
}

/// Mean and variance of the grey of the pixels (a blank canvas has variance 0).
export function statistics(pixels) {
  let n = 0;
  let sum = 0;
  let sq = 0;
  for (let i = 0; i < pixels.data.length; i += 4) {
    const grey = (pixels.data[i] + pixels.data[i + 1] + pixels.data[i + 2]) / 3;
    sum += grey;
    sq += grey * grey;
    n++;
  }
  const mean = sum / n;
  return { mean, variance: sq / n - mean * mean };
}

/// The view that puts full-resolution pixel (left, top) on canvas pixel (0, 0) at 1:1, so
/// every image pixel falls on one whole canvas pixel.
export async function pixelAlignedView(page, left, top) {
  const size = await page.evaluate(() => {
    const s = window.quorvelView.viewer.viewport.getContainerSize();
    return { width: s.x, height: s.y };
  });
  return { x: left + size.width / 2, y: top + size.height / 2, z: 1 };
}

/// Saves a screenshot to docs/ only when asked: the committed pictures change on purpose.
export async function screenshot(page, name) {
  if (process.env.QUORVEL_SCREENSHOTS !== '1') return;
  mkdirSync(docsDir, { recursive: true });
  await page.screenshot({ path: path.join(docsDir, `viewer-${name}.png`) });
}

/// Polls `check` (an async predicate) every `every` ms until it holds or `timeout` passes.
export async function eventually(check, timeout = 10000, every = 100) {
  const end = Date.now() + timeout;
  for (;;) {
    const value = await check();
    if (value) return value;
    if (Date.now() > end) throw new Error(`condition not met within ${timeout} ms`);
    await new Promise((r) => setTimeout(r, every));
  }
}

// A suite's server and browser: started before its first test, stopped after its last (the
// server must stop cleanly on SIGTERM). `server` and `browser` are set once the suite runs.
export function serverAndBrowser(images = []) {
  const shared = { server: undefined, browser: undefined };
  before(async () => {
    shared.server = await startServer(images);
    shared.browser = await launchBrowser();
  });
  after(async () => {
    await shared.browser?.close();
    const code = await shared.server?.stop();
    assert.equal(code, 0, 'the server stops cleanly on SIGTERM');
  });
  return shared;
}
