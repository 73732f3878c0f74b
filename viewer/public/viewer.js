// The viewer page of quorvel-serve: OpenSeadragon over the server's IIIF tiles, with the
// display parameters as query parameters of every tile URL. Settings and view live in the
// page's own query string so that a copied link reopens the same picture.
'use strict';

(() => {
  const OSD = window.OpenSeadragon;

  const TILE = 256;
  const SLIDER_DEBOUNCE_MS = 200;
  const URL_THROTTLE_MS = 300;
  // A swap that never reaches the fully loaded state (a tile that keeps failing) must not
  // keep the old rendering on screen for ever.
  const SWAP_TIMEOUT_MS = 15000;
  const STATS_WINDOW = 64;
  const MAX_PIXEL_ZOOM = 16;

  const PRESETS = {
    identity: [1, 0, 0, 0, 1, 0, 0, 0, 1],
    // Rec. 709 luma weights, the same grey on all three outputs.
    grey: [0.2126, 0.2126, 0.2126, 0.7152, 0.7152, 0.7152, 0.0722, 0.0722, 0.0722],
    // Solved so that white and greys stay as they are, a haematoxylin-like blue-purple
    // (90, 70, 150) becomes cyan and an eosin-like pink (235, 140, 200) becomes magenta: the
    // red channel then carries the first stain alone and the green channel the second.
    stain: [2.094, -3.484, -0.297, 0.305, 1.301, -1.09, -1.398, 3.184, 2.387],
  };

  const maxLevelOf = (mode) => (mode === 'linear' ? 255 : 4095);

  function defaults() {
    return {
      gamma: 1,
      mode: 'srgb',
      black: 0,
      white: 4095,
      sharpen: 0,
      claheOn: false,
      clahe: 2,
      matrix: PRESETS.identity.slice(),
      scale: 1,
      format: 'jpg',
      grid: false,
    };
  }

  const $ = (id) => document.getElementById(id);
  const clamp = (v, lo, hi) => Math.min(hi, Math.max(lo, v));
  const round = (v, digits) => Number(v.toFixed(digits));
  const finite = (text) => {
    if (text === null || text === '' || !/^[-+0-9.eE]+$/.test(text)) return null;
    const v = Number(text);
    return Number.isFinite(v) ? v : null;
  };
  const sameMatrix = (a, b) => a.every((v, i) => Math.abs(v - b[i]) < 1e-9);

  // --- Settings <-> query strings ----------------------------------------------------------

  function levelsOn(s) {
    return s.gamma !== 1 || s.black !== 0 || s.white !== maxLevelOf(s.mode);
  }

  function matrixOn(s) {
    return !(sameMatrix(s.matrix, PRESETS.identity) && s.scale === 1);
  }

  /// The display parameters exactly as the server reads them; absent ones stay off.
  function displayParams(s) {
    const p = new URLSearchParams();
    if (levelsOn(s)) {
      if (s.gamma !== 1) p.set('gamma', String(s.gamma));
      if (s.black !== 0) p.set('black', String(s.black));
      if (s.white !== maxLevelOf(s.mode)) p.set('white', String(s.white));
      if (s.mode === 'linear') p.set('gamma-mode', 'linear');
    }
    if (s.sharpen !== 0) p.set('sharpen', String(s.sharpen));
    if (s.claheOn) p.set('clahe', String(s.clahe));
    if (matrixOn(s)) {
      p.set('matrix', s.matrix.map(String).join(',') + (s.scale !== 1 ? ':' + s.scale : ''));
    }
    return p;
  }

  function settingsFromQuery(q) {
    const s = defaults();
    if (q.get('gamma-mode') === 'linear') {
      s.mode = 'linear';
      s.white = 255;
    }
    const max = maxLevelOf(s.mode);
    const gamma = finite(q.get('gamma'));
    if (gamma !== null) s.gamma = round(clamp(gamma, 0.1, 10), 3);
    const black = finite(q.get('black'));
    const white = finite(q.get('white'));
    if (white !== null) s.white = clamp(Math.round(white), 1, max);
    if (black !== null) s.black = clamp(Math.round(black), 0, s.white - 1);
    const sharpen = finite(q.get('sharpen'));
    if (sharpen !== null) s.sharpen = round(clamp(sharpen, -4, 4), 2);
    const clahe = finite(q.get('clahe'));
    if (clahe !== null) {
      s.claheOn = true;
      s.clahe = round(clamp(clahe, 1, 100), 2);
    }
    const matrix = q.get('matrix');
    if (matrix) {
      const [coefficients, scale] = matrix.split(':');
      const m = coefficients.split(',').map(finite);
      const k = scale === undefined ? 1 : finite(scale);
      if (m.length === 9 && m.every((v) => v !== null) && k !== null) {
        s.matrix = m.map((v) => clamp(v, -1000, 1000));
        s.scale = clamp(k, -1000, 1000);
      }
    }
    if (['jpg', 'png', 'webp'].includes(q.get('format'))) s.format = q.get('format');
    s.grid = q.get('grid') === '1';
    return s;
  }

  function viewFromQuery(q) {
    const x = finite(q.get('x'));
    const y = finite(q.get('y'));
    const z = finite(q.get('z'));
    return x !== null && y !== null && z !== null && z > 0 ? { x, y, z } : null;
  }

  function presetOf(matrix) {
    for (const [name, m] of Object.entries(PRESETS)) if (sameMatrix(matrix, m)) return name;
    return 'custom';
  }

  // --- Page start ---------------------------------------------------------------------------

  const prefix = '/view/';
  const id = location.pathname.startsWith(prefix)
    ? decodeURIComponent(location.pathname.slice(prefix.length))
    : '';
  const base = location.origin + '/iiif/3/' + encodeURIComponent(id);
  const query = new URLSearchParams(location.search);
  let settings = settingsFromQuery(query);
  const initialView = viewFromQuery(query);

  let info = null;
  let viewer = null;
  let shown = null; // {key, item}: the rendering on screen
  let pending = null; // {key, item, dead, timer}: the rendering loading on top of it
  let swaps = 0;
  let viewPlaced = false;
  const renderTimes = [];

  document.title = id + ' · quorvel-serve';
  $('title').textContent = id || '(no image)';

  function fail(text) {
    document.body.dataset.state = 'error';
    const box = $('message');
    box.replaceChildren();
    const p = document.createElement('p');
    p.textContent = text;
    const a = document.createElement('a');
    a.href = '/';
    a.textContent = 'See the images this server has';
    box.append(p, a);
    box.hidden = false;
    $('main').hidden = true;
    $('panel-toggle').hidden = true;
  }

  function status(text) {
    const el = $('status');
    el.textContent = text || '';
    el.hidden = !text;
  }

  async function start() {
    if (!id) {
      fail('No image named in this address: open /view/<identifier>.');
      return;
    }
    let response;
    try {
      response = await fetch(base + '/info.json', { headers: { Accept: 'application/json' } });
    } catch (e) {
      fail('The server could not be reached: ' + e.message);
      return;
    }
    if (response.status === 404) {
      fail(`No image called '${id}' on this server.`);
      return;
    }
    if (!response.ok) {
      const reason = (await response.text()).trim();
      fail(`The server refused the description of '${id}' (${response.status}): ${reason}`);
      return;
    }
    info = await response.json();
    if (!OSD) {
      fail('The viewer library did not load (/static/osd/openseadragon.min.js).');
      return;
    }
    $('size').textContent = `${info.width} × ${info.height}`;
    setupViewer();
    bindControls();
    showSettings();
    observeRenderTimes();
    render();
  }

  // --- OpenSeadragon ------------------------------------------------------------------------

  function setupViewer() {
    viewer = OSD({
      element: $('osd'),
      prefixUrl: '/static/osd/images/',
      showNavigator: true,
      navigatorPosition: 'BOTTOM_RIGHT',
      // A person checking an image wants the mini-map and buttons to stay put.
      navigatorAutoFade: false,
      autoHideControls: false,
      // WebGL draws tiles edge to edge; the 2D-canvas drawer stretches each tile by a pixel
      // to hide hairlines, which would blur exactly what the tile grid is there to check.
      drawer: ['webgl', 'canvas'],
      maxZoomPixelRatio: MAX_PIXEL_ZOOM,
      visibilityRatio: 0.2,
      blendTime: 0,
      maxTilesPerFrame: 8,
      immediateRender: false,
      animationTime: 0.6,
      showRotationControl: false,
      // The page places the first view itself (from its address), once.
      preserveViewport: true,
      gestureSettingsMouse: { clickToZoom: false, dblClickToZoom: true },
    });
    // The page has its own keys, which also work when the focus is outside the canvas.
    viewer.addHandler('canvas-key', (e) => {
      e.preventDefaultAction = true;
    });
    viewer.addHandler('animation', viewChanged);
    viewer.addHandler('animation-finish', viewChanged);
    viewer.addHandler('resize', viewChanged);
    viewer.addHandler('update-viewport', drawGrid);
    viewer.addHandler('tile-load-failed', (e) => {
      status('A tile failed to load: ' + (e.message || e.tile?.getUrl?.() || 'unknown reason'));
    });
    // Inside OpenSeadragon's canvas element, the grid lies under its buttons and mini-map.
    viewer.canvas.appendChild($('grid'));
    new ResizeObserver(sizeGrid).observe($('stage'));
  }

  function makeSource(params, format) {
    const data = OSD.IIIFTileSource.prototype.configure(structuredClone(info), base + '/info.json');
    // Our own base, not the description's: it must be this origin and the escaped identifier.
    data.id = base;
    delete data['@id'];
    data.tileFormat = format;
    const source = new OSD.IIIFTileSource(data);
    const suffix = params.toString() ? '?' + params.toString() : '';
    source.getTileUrl = function (level, x, y) {
      return OSD.IIIFTileSource.prototype.getTileUrl.call(this, level, x, y) + suffix;
    };
    return source;
  }

  function tileKey() {
    return settings.format + '?' + displayParams(settings).toString();
  }

  /// Shows the current settings. The new rendering loads hidden on top of the old one and
  /// replaces it once every visible tile has arrived: no blank frame, and no blurred one
  /// either (its coarse levels would otherwise cover the sharp old tiles while it loads).
  function render() {
    const key = tileKey();
    if (pending && pending.key === key) return;
    if (pending) discard(pending);
    pending = null;
    if (shown && shown.key === key) {
      settled();
      return;
    }
    const entry = { key, item: null, dead: false, timer: 0 };
    pending = entry;
    document.body.dataset.state = 'rendering';
    const first = viewer.world.getItemCount() === 0;
    viewer.addTiledImage({
      tileSource: makeSource(displayParams(settings), settings.format),
      index: viewer.world.getItemCount(),
      opacity: first ? 1 : 0,
      preload: true,
      success: (e) => {
        if (entry.dead) {
          viewer.world.removeItem(e.item);
          return;
        }
        entry.item = e.item;
        if (!viewPlaced) applyInitialView();
        e.item.addHandler('fully-loaded-change', (ev) => {
          if (ev.fullyLoaded) promote(entry);
        });
        if (e.item.getFullyLoaded()) promote(entry);
        entry.timer = setTimeout(() => promote(entry), SWAP_TIMEOUT_MS);
      },
      error: (e) => {
        if (entry.dead) return;
        pending = null;
        status('The image could not be opened: ' + (e.message || 'unknown reason'));
        settled();
      },
    });
  }

  function promote(entry) {
    if (entry.dead || pending !== entry) return;
    clearTimeout(entry.timer);
    pending = null;
    const world = viewer.world;
    for (let i = world.getItemCount() - 1; i >= 0; i--) {
      const item = world.getItemAt(i);
      if (item !== entry.item) world.removeItem(item);
    }
    entry.item.setOpacity(1);
    shown = entry;
    swaps += 1;
    settled();
  }

  function discard(entry) {
    entry.dead = true;
    clearTimeout(entry.timer);
    if (entry.item) viewer.world.removeItem(entry.item);
  }

  function settled() {
    document.body.dataset.state = pending ? 'rendering' : 'ready';
    if (!pending) status('');
  }

  // --- View: image pixels <-> OpenSeadragon's viewport (image width = 1) ---------------------

  function containerWidth() {
    return viewer.viewport.getContainerSize().x;
  }

  function currentView(current) {
    const vp = viewer.viewport;
    const c = vp.getCenter(current);
    return {
      x: c.x * info.width,
      y: c.y * info.width,
      z: (vp.getZoom(current) * containerWidth()) / info.width,
    };
  }

  function goTo(view, immediately) {
    const vp = viewer.viewport;
    const maxZ = MAX_PIXEL_ZOOM;
    vp.zoomTo((clamp(view.z, 1e-9, maxZ) * info.width) / containerWidth(), null, immediately);
    vp.panTo(new OSD.Point(view.x / info.width, view.y / info.width), immediately);
  }

  function applyInitialView() {
    viewPlaced = true;
    if (initialView) goTo(initialView, true);
    else viewer.viewport.goHome(true);
    viewChanged();
  }

  function zoomText(z) {
    const percent = z * 100;
    const shownPercent = percent >= 10 ? Math.round(percent) : round(percent, 1);
    if (z >= 1) return `${shownPercent}%`;
    const n = 1 / z;
    const ratio = Math.abs(n - Math.round(n)) < 0.05 ? Math.round(n) : round(n, 1);
    return `1:${ratio} (${shownPercent}%)`;
  }

  function viewChanged() {
    if (!info || !viewer.world.getItemCount()) return;
    $('zoom').textContent = zoomText(currentView(true).z);
    drawGrid();
    scheduleUrl();
  }

  // --- The page's own address ---------------------------------------------------------------

  let urlTimer = 0;
  function scheduleUrl() {
    if (urlTimer) return;
    urlTimer = setTimeout(() => {
      urlTimer = 0;
      writeUrl();
    }, URL_THROTTLE_MS);
  }

  function pageParams() {
    const p = displayParams(settings);
    if (settings.mode === 'linear') p.set('gamma-mode', 'linear');
    if (settings.format !== 'jpg') p.set('format', settings.format);
    if (settings.grid) p.set('grid', '1');
    if (viewer && viewer.world.getItemCount()) {
      const v = currentView(false);
      p.set('x', String(round(v.x, 2)));
      p.set('y', String(round(v.y, 2)));
      p.set('z', String(Number(v.z.toPrecision(6))));
    } else if (initialView) {
      p.set('x', String(initialView.x));
      p.set('y', String(initialView.y));
      p.set('z', String(initialView.z));
    }
    return p;
  }

  function writeUrl() {
    const q = pageParams().toString();
    const next = location.pathname + (q ? '?' + q : '') + location.hash;
    if (next !== location.pathname + location.search + location.hash) {
      history.replaceState(null, '', next);
    }
  }

  // --- Controls ------------------------------------------------------------------------------

  const gammaToSlider = (g) => Math.log10(g);
  const sliderToGamma = (v) => round(10 ** v, 2);

  /// Puts the settings into every control (after a load, a reset or a mode change).
  function showSettings() {
    const s = settings;
    const max = maxLevelOf(s.mode);
    $('gamma').value = s.gamma;
    $('gamma-slider').value = gammaToSlider(s.gamma);
    $('gamma-mode').value = s.mode;
    for (const name of ['black', 'white']) {
      for (const el of [$(name), $(name + '-slider')]) {
        el.max = max;
        el.value = s[name];
      }
    }
    $('sharpen').value = s.sharpen;
    $('sharpen-slider').value = s.sharpen;
    $('clahe-on').checked = s.claheOn;
    $('clahe').value = s.clahe;
    $('clahe-slider').value = s.clahe;
    $('clahe').disabled = !s.claheOn;
    $('clahe-slider').disabled = !s.claheOn;
    const preset = presetOf(s.matrix);
    $('preset').value = preset;
    for (const input of document.querySelectorAll('#matrix input')) {
      input.value = s.matrix[Number(input.dataset.m)];
    }
    $('matrix-scale').value = s.scale;
    $('format').value = s.format;
    $('grid-on').checked = s.grid;
    $('grid').hidden = !s.grid;
  }

  let renderTimer = 0;
  /// Slider drags come as a stream of input events: render once they pause.
  function changedSoon() {
    clearTimeout(renderTimer);
    renderTimer = setTimeout(changedNow, SLIDER_DEBOUNCE_MS);
  }

  function changedNow() {
    clearTimeout(renderTimer);
    renderTimer = 0;
    render();
    writeUrl();
  }

  /// A slider with its number box: either one moves the other.
  function pair(name, fromSlider, toSlider, clean) {
    const box = $(name);
    const slider = $(name + '-slider');
    slider.addEventListener('input', () => {
      const v = clean(fromSlider(Number(slider.value)));
      settings[name] = v;
      box.value = v;
      afterEdit(name);
      changedSoon();
    });
    // Keys on a slider send a change with every step, so its changes wait like its inputs.
    slider.addEventListener('change', changedSoon);
    const fromBox = (now) => {
      const v = finite(box.value);
      if (v === null) return;
      const c = clean(v);
      settings[name] = c;
      slider.value = toSlider(c);
      afterEdit(name);
      if (now) {
        box.value = c;
        changedNow();
      } else {
        changedSoon();
      }
    };
    box.addEventListener('input', () => fromBox(false));
    box.addEventListener('change', () => fromBox(true));
  }

  /// Keeps black below white whichever one moved.
  function afterEdit(name) {
    const s = settings;
    const max = maxLevelOf(s.mode);
    if (name === 'black' && s.black >= s.white) {
      s.white = Math.min(max, s.black + 1);
      s.black = s.white - 1;
    } else if (name === 'white' && s.white <= s.black) {
      s.black = Math.max(0, s.white - 1);
      s.white = s.black + 1;
    }
    if (name === 'black' || name === 'white') {
      for (const n of ['black', 'white']) {
        $(n).value = s[n];
        $(n + '-slider').value = s[n];
      }
    }
  }

  function bindControls() {
    const same = (v) => v;
    pair('gamma', (v) => sliderToGamma(v), gammaToSlider, (v) => round(clamp(v, 0.1, 10), 3));
    pair('black', same, same, (v) => clamp(Math.round(v), 0, maxLevelOf(settings.mode) - 1));
    pair('white', same, same, (v) => clamp(Math.round(v), 1, maxLevelOf(settings.mode)));
    pair('sharpen', same, same, (v) => round(clamp(v, -4, 4), 2));
    pair('clahe', same, same, (v) => round(clamp(v, 1, 100), 2));

    $('gamma-mode').addEventListener('change', () => {
      const oldMax = maxLevelOf(settings.mode);
      settings.mode = $('gamma-mode').value;
      const max = maxLevelOf(settings.mode);
      // The points keep their place on the scale when its range changes.
      settings.white = clamp(Math.round((settings.white * max) / oldMax), 1, max);
      settings.black = clamp(Math.round((settings.black * max) / oldMax), 0, settings.white - 1);
      showSettings();
      changedNow();
    });
    $('clahe-on').addEventListener('change', () => {
      settings.claheOn = $('clahe-on').checked;
      showSettings();
      changedNow();
    });
    $('preset').addEventListener('change', () => {
      const name = $('preset').value;
      if (name !== 'custom') {
        settings.matrix = PRESETS[name].slice();
        settings.scale = 1;
      }
      showSettings();
      // Custom starts from the coefficients shown; the preset menu says custom until the
      // numbers match a preset again.
      $('preset').value = name;
      changedNow();
    });
    const matrixInputs = [...document.querySelectorAll('#matrix input'), $('matrix-scale')];
    for (const input of matrixInputs) {
      const edit = (now) => {
        const v = finite(input.value);
        if (v === null) return;
        const c = clamp(v, -1000, 1000);
        if (input.id === 'matrix-scale') settings.scale = c;
        else settings.matrix[Number(input.dataset.m)] = c;
        $('preset').value = 'custom';
        if (now) {
          input.value = c;
          changedNow();
        } else {
          changedSoon();
        }
      };
      input.addEventListener('input', () => edit(false));
      input.addEventListener('change', () => edit(true));
    }
    $('format').addEventListener('change', () => {
      settings.format = $('format').value;
      changedNow();
    });
    $('grid-on').addEventListener('change', () => {
      settings.grid = $('grid-on').checked;
      $('grid').hidden = !settings.grid;
      sizeGrid();
      writeUrl();
    });
    $('reset').addEventListener('click', () => {
      settings = defaults();
      showSettings();
      changedNow();
    });
    $('panel-toggle').addEventListener('click', () => {
      const open = document.body.classList.toggle('panel-closed') === false;
      $('panel-toggle').setAttribute('aria-expanded', String(open));
    });
    document.addEventListener('keydown', onKey);
  }

  function typingIn(target) {
    if (!(target instanceof Element)) return false;
    return Boolean(target.closest('input, select, textarea, [contenteditable=""], [contenteditable="true"]'));
  }

  function onKey(e) {
    if (!viewer || !info || e.ctrlKey || e.metaKey || e.altKey || typingIn(e.target)) return;
    const vp = viewer.viewport;
    const size = vp.getBounds();
    const step = 0.15;
    switch (e.key) {
      case '+':
      case '=':
        vp.zoomBy(1.5);
        break;
      case '-':
      case '_':
        vp.zoomBy(1 / 1.5);
        break;
      case '0':
        vp.goHome();
        break;
      case 'ArrowLeft':
        vp.panBy(new OSD.Point(-size.width * step, 0));
        break;
      case 'ArrowRight':
        vp.panBy(new OSD.Point(size.width * step, 0));
        break;
      case 'ArrowUp':
        vp.panBy(new OSD.Point(0, -size.height * step));
        break;
      case 'ArrowDown':
        vp.panBy(new OSD.Point(0, size.height * step));
        break;
      default:
        return;
    }
    vp.applyConstraints();
    e.preventDefault();
  }

  // --- Tile grid -----------------------------------------------------------------------------

  function sizeGrid() {
    const canvas = $('grid');
    const stage = $('stage');
    const ratio = window.devicePixelRatio || 1;
    canvas.width = Math.round(stage.clientWidth * ratio);
    canvas.height = Math.round(stage.clientHeight * ratio);
    drawGrid();
  }

  /// The scale factor of the finest level OpenSeadragon draws at image zoom z (screen pixels
  /// per full-resolution pixel): it takes a level while a level pixel covers at least half a
  /// screen pixel.
  function levelFactor(z) {
    const f = 2 ** -Math.floor(Math.log2(2 * z));
    const largest = 2 ** Math.ceil(Math.log2(Math.max(info.width, info.height)));
    return clamp(f, 1, largest);
  }

  function drawGrid() {
    const canvas = $('grid');
    if (!settings.grid || !viewer || !info || !viewer.world.getItemCount()) return;
    const ctx = canvas.getContext('2d');
    ctx.clearRect(0, 0, canvas.width, canvas.height);
    const view = currentView(true);
    const ratio = canvas.width / Math.max(1, $('stage').clientWidth);
    const f = levelFactor(view.z);
    const step = TILE * f; // full-resolution pixels between grid lines
    const cw = containerWidth();
    const ch = viewer.viewport.getContainerSize().y;
    const toX = (ix) => ((ix - view.x) * view.z + cw / 2) * ratio;
    const toY = (iy) => ((iy - view.y) * view.z + ch / 2) * ratio;
    const x0 = Math.max(0, Math.floor((view.x - cw / 2 / view.z) / step) * step);
    const y0 = Math.max(0, Math.floor((view.y - ch / 2 / view.z) / step) * step);
    const x1 = Math.min(info.width, view.x + cw / 2 / view.z);
    const y1 = Math.min(info.height, view.y + ch / 2 / view.z);
    ctx.lineWidth = Math.max(1, ratio);
    // Cyan stands out on stained tissue and on white; the gaps let the pixels under the
    // line be seen.
    ctx.strokeStyle = 'rgba(0, 229, 255, 0.95)';
    ctx.setLineDash([8 * ratio, 5 * ratio]);
    ctx.beginPath();
    let lines = 0;
    for (let ix = x0; ix <= x1 && lines < 400; ix += step, lines++) {
      const x = Math.round(toX(ix)) + 0.5;
      ctx.moveTo(x, Math.max(0, toY(0)));
      ctx.lineTo(x, Math.min(canvas.height, toY(info.height)));
    }
    for (let iy = y0; iy <= y1 && lines < 800; iy += step, lines++) {
      const y = Math.round(toY(iy)) + 0.5;
      ctx.moveTo(Math.max(0, toX(0)), y);
      ctx.lineTo(Math.min(canvas.width, toX(info.width)), y);
    }
    ctx.stroke();
    canvas.dataset.factor = String(f);
  }

  // --- Server render time ----------------------------------------------------------------

  function observeRenderTimes() {
    if (!('PerformanceObserver' in window)) return;
    // Entries beyond the buffer still reach observers; the buffer itself is just dropped.
    performance.addEventListener?.('resourcetimingbufferfull', () => performance.clearResourceTimings());
    const observer = new PerformanceObserver((list) => {
      let added = false;
      for (const entry of list.getEntries()) {
        if (!entry.name.includes('/iiif/3/') || entry.name.includes('/info.json')) continue;
        const timing = (entry.serverTiming || []).find((t) => t.name === 'render');
        if (!timing) continue;
        renderTimes.push(timing.duration);
        if (renderTimes.length > STATS_WINDOW) renderTimes.shift();
        added = true;
      }
      if (added) showStats();
    });
    observer.observe({ type: 'resource', buffered: true });
  }

  function renderStats() {
    if (!renderTimes.length) return null;
    const sorted = renderTimes.slice().sort((a, b) => a - b);
    const mid = sorted.length >> 1;
    const median = sorted.length % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
    const mean = sorted.reduce((a, b) => a + b, 0) / sorted.length;
    return { count: sorted.length, median, mean, max: sorted[sorted.length - 1] };
  }

  function showStats() {
    const s = renderStats();
    if (!s) return;
    const ms = (v) => (v < 10 ? v.toFixed(1) : Math.round(v)) + ' ms';
    $('stats').textContent = `Render time per tile: median ${ms(s.median)}, mean ${ms(s.mean)}, ` +
      `max ${ms(s.max)} (last ${s.count} tiles)`;
  }

  // --- For the browser tests and the console ----------------------------------------------

  window.quorvelView = {
    get viewer() {
      return viewer;
    },
    get info() {
      return info;
    },
    settings: () => structuredClone(settings),
    view: () => (viewer && info ? currentView(true) : null),
    goTo: (view) => goTo(view, true),
    /// True when nothing is pending: settings rendered, every visible tile drawn, no motion.
    idle: () => {
      if (!viewer || !shown || pending || renderTimer) return false;
      const vp = viewer.viewport;
      const moving = vp.getZoom(true) !== vp.getZoom(false) ||
        !vp.getCenter(true).equals(vp.getCenter(false));
      return !moving && shown.item.getFullyLoaded();
    },
    swaps: () => swaps,
    renderStats,
    tileUrl: (level, x, y) => shown?.item.source.getTileUrl(level, x, y),
  };

  start().catch((e) => fail('The viewer failed: ' + e.message));
})();
