#include "quorvel/zoom/renderer.hpp"

#include <algorithm>
#include <cstring>
#include <deque>

#include "engine_impl.hpp"

namespace quorvel::zoom {
namespace {

using Impl = Engine::Impl;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

// CLAHE works on cells of this many pixels of the level shown.
constexpr int64_t kCell = 40;

FilterSource at(size_t target, int64_t x, int64_t y) {
  return {target, static_cast<size_t>(x), static_cast<size_t>(y), false};
}

int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// One inverse level along one axis: it reads pair indices [k0, k0 + nb) of the bands and
// reconstructs h samples from sample 2 k0, of which `rows` from index 2 k0 - shift on are
// kept (shift is 0 or -1: an odd first sample is reached by clipping the even one before
// it). `pad`: the approximation the level reads ends one sample past the image, where the
// transform's extension repeats the last sample.
struct AxisStep {
  int64_t k0 = 0, h = 0, nb = 0, shift = 0, rows = 0;
  bool pad = false;
};

// Steps for depths first .. last (inclusive) that deliver approximation samples `wanted`
// of depth first - 1; extents[d] is the approximation length at depth d. The horizontal
// filter ends its trailing even sample one band element earlier than the vertical one, so
// its windows are one element longer for an odd sample count.
std::vector<AxisStep> planInverse(Span wanted, size_t first, size_t last,
                                  std::vector<int64_t> const& extents, bool horizontal) {
  std::vector<AxisStep> steps;
  Span cur = wanted;
  for (size_t d = first; d <= last; ++d) {
    AxisStep s;
    s.k0 = cur.begin / 2;
    s.h = cur.end - 2 * s.k0;
    s.nb = (horizontal ? (s.h + 1) / 2 : s.h / 2) + 2;
    s.shift = 2 * s.k0 - cur.begin;
    s.rows = cur.size();
    int64_t const lastLow = s.k0 + s.h / 2;
    s.pad = lastLow == extents[d];
    steps.push_back(s);
    cur = {s.k0, std::min(lastLow, extents[d] - 1) + 1};
  }
  return steps;
}

// The cells CLAHE needs along one axis so that every pixel of `s` sees the same mappings as
// in the whole level: the cells whose centres bracket it, at least two cells (a narrower
// source is not equalised at all), and for a partial last cell the cell before it, whose
// mapping it copies.
struct CellRange {
  int64_t first, last;  // inclusive
};
CellRange claheCells(Span s, int64_t n) {
  int64_t const cells = (n + kCell - 1) / kCell;
  CellRange c{std::max<int64_t>(0, floorDiv(s.begin - kCell / 2, kCell)),
              std::min(cells - 1, floorDiv(s.end - 1 - kCell / 2, kCell) + 1)};
  if (c.first == c.last) {
    if (c.last + 1 < cells) {
      ++c.last;
    } else {
      --c.first;
    }
  }
  if (c.last == cells - 1 && n % kCell != 0) c.first = std::min(c.first, cells - 2);
  return c;
}

// The region of the level to equalise for output `s` of a level of nx x ny pixels.
Rect claheRegion(Rect const& s, int64_t nx, int64_t ny) {
  CellRange cx = claheCells(spanX(s), nx), cy = claheCells(spanY(s), ny);
  int64_t const cellsX = (nx + kCell - 1) / kCell, cellsY = (ny + kCell - 1) / kCell;
  bool const partialX = nx % kCell != 0, partialY = ny % kCell != 0;
  // A partial cell of the last row copies the one above, a partial cell of the last column
  // the one to its left (that rule wins in the corner). Within the region the same rules
  // apply to its own last row and column, so a region that ends on the level's last row but
  // not on its last column gets one more column: its own last column would otherwise copy
  // from the left where the level copies from above. No pixel of `s` reads that column.
  if (cy.last == cellsY - 1 && partialY) {
    cy.first = std::min(cy.first, cellsY - 2);
    if (cx.last < cellsX - 1) ++cx.last;
  }
  if (cx.last == cellsX - 1 && (partialX || (partialY && cy.last == cellsY - 1))) {
    cx.first = std::min(cx.first, cellsX - 2);
  }
  Span const x{cx.first * kCell, std::min(nx, (cx.last + 1) * kCell)};
  Span const y{cy.first * kCell, std::min(ny, (cy.last + 1) * kCell)};
  return rectOf(x, y);
}

Rect expand(Rect const& r, size_t by, size_t w, size_t h) {
  size_t const x0 = r.x >= by ? r.x - by : 0, y0 = r.y >= by ? r.y - by : 0;
  size_t const x1 = std::min(w, r.right() + by), y1 = std::min(h, r.bottom() + by);
  return {x0, y0, x1 - x0, y1 - y0};
}

// Calls f(bx, by) for each block of a level's grid of `tile`-pixel blocks that `area` touches.
template <class F>
void forEachBlock(Rect const& area, size_t tile, F f) {
  for (size_t by = area.y / tile; by * tile < area.bottom(); ++by) {
    for (size_t bx = area.x / tile; bx * tile < area.right(); ++bx) f(bx, by);
  }
}

}  // namespace

struct Renderer::Job {
  Rect rect;
  std::unique_ptr<Impl::Workspace> workspace;
  Impl::Lease lease;

  // A workspace whose planes hold `area`, reused from the engine where one is idle.
  void takeWorkspace(Impl& impl, Rect const& area, size_t outputTile) {
    workspace = impl.takeWorkspace(std::max(area.width, area.height) + 4, outputTile);
  }
};

// The 8-bit display steps of one output tile alternate between two targets; the last one
// writes the output target (the mask clears it first and writes only what its rectangles
// keep). The first step is the one that makes 8-bit pixels.
struct Renderer::DisplaySteps {
  DisplaySteps(Impl::Workspace& workspace, Display const& d)
      : ws(workspace),
        remaining(1 + (d.gamma && d.gammaMode != Display::GammaMode::kLinear) +
                  d.matrix.has_value() + d.sharpen.has_value() + d.mask.has_value()) {}
  /// The target the next step writes.
  size_t next() {
    current = --remaining == 0 ? ws.out : (current == ws.rgbaA ? ws.rgbaB : ws.rgbaA);
    return current;
  }
  Impl::Workspace& ws;
  size_t remaining;
  size_t current = SIZE_MAX;  // the target the last step wrote
};

Renderer::Renderer(std::shared_ptr<Engine> engine, std::shared_ptr<ImageSource const> source,
                   RendererOptions const& options)
    : engine_(std::move(engine)),
      source_(std::move(source)),
      options_(options),
      pyramid_(source_->width(), source_->height(), source_->nativeLevels(), options.tile,
               options.levels) {
  if (options.outputTile < 16 || options.outputTile > 4096) {
    throw std::invalid_argument("the output tile must lie in [16, 4096]");
  }
  Impl* impl = &engine_->impl();
  tileBase_ = impl->reserveTileIds(pyramid_.tileIdCount());
  encoder_ = std::make_unique<WaveletEncoder>(
      source_, pyramid_, [impl](uint8_t const* rgba, size_t w, size_t h, int16_t* ycocg) {
        impl->convert(rgba, w, h, ycocg);
      });
}

Renderer::~Renderer() = default;

RenderCounters Renderer::counters() const {
  return {delivered_.load(), reconstructed3_.load() / 3, samples_.load()};
}

std::vector<uint8_t> Renderer::render(size_t level, Rect const& rect,
                                      Display const& display) const {
  std::vector<uint8_t> out(rect.width * rect.height * 4);
  render(level, rect, display, out.data());
  return out;
}

void Renderer::render(size_t level, Rect const& rect, Display const& display, uint8_t* rgba,
                      size_t stride) const {
  if (level >= levels()) {
    throw std::out_of_range("zoom level " + std::to_string(level) + " is not in [0, " +
                            std::to_string(levels() - 1) + "]");
  }
  Rect const whole{0, 0, width(level), height(level)};
  if (rect.empty() || !whole.contains(rect)) {
    throw std::out_of_range("rectangle " + rect.str() + " is not inside level " +
                            std::to_string(level) + " (" + whole.str() + ")");
  }
  display.validate();
  if (stride == 0) stride = rect.width * 4;
  Impl& impl = engine_->impl();
  ++impl.rendersInFlight;
  struct InFlight {
    Impl& impl;
    ~InFlight() { --impl.rendersInFlight; }
  } inFlight{impl};

  // One batch per output tile; a few are queued ahead so the workers never wait for this
  // thread's encoding and read-back.
  size_t const ot = options_.outputTile;
  size_t const ahead = impl.context.numberOfWorkerThreads() + 1;
  std::deque<Job> pending;
  // Tiles narrower than the caller's rows are read back here first: one buffer for the call,
  // not an allocation (and its page faults) per tile.
  std::vector<uint8_t> staging;
  auto finish = [&](Job& job) {
    Rect const r = job.rect;
    size_t const rowBytes = r.width * 4;
    uint8_t* dst = rgba + (r.y - rect.y) * stride + (r.x - rect.x) * 4;
    std::vector<size_t> const area{0, r.width, 0, r.height};
    if (stride == rowBytes) {
      impl.instance->getPixels(dst, rowBytes * r.height, job.workspace->out, area);
    } else {
      staging.resize(std::max(staging.size(), rowBytes * r.height));
      impl.instance->getPixels(staging.data(), rowBytes * r.height, job.workspace->out, area);
      for (size_t y = 0; y < r.height; ++y) {
        std::memcpy(dst + y * stride, &staging[y * rowBytes], rowBytes);
      }
    }
    impl.giveWorkspace(std::move(job.workspace));
    ++impl.tilesRendered;
  };
  try {
    for (size_t y = rect.y; y < rect.bottom(); y += ot) {
      for (size_t x = rect.x; x < rect.right(); x += ot) {
        pending.emplace_back();
        Job& job = pending.back();
        job.rect = {x, y, std::min(ot, rect.right() - x), std::min(ot, rect.bottom() - y)};
        renderTile(level, job.rect, display, job);
        if (pending.size() >= ahead) {
          finish(pending.front());
          pending.pop_front();
        }
      }
    }
    while (!pending.empty()) {
      finish(pending.front());
      pending.pop_front();
    }
  } catch (...) {
    // Batches still queued finish before their tiles and targets go; a workspace whose
    // batch failed keeps its targets' error state, so it is dropped, not reused.
    for (Job& job : pending) {
      if (!job.workspace) continue;
      try {
        impl.instance->waitForTarget(job.workspace->out);
      } catch (...) {
      }
      job.workspace->erase(*impl.instance);
    }
    impl.instance->finalizeDrawSequence();
    throw;
  }
  delivered_ += rect.width * rect.height;
}

void Renderer::acquirePixels(size_t level, Rect const& area, Job& job) const {
  Impl& impl = engine_->impl();
  size_t const t = pyramid_.tile();
  std::vector<Impl::Unit> units;
  forEachBlock(area, t, [&](size_t bx, size_t by) {
    Impl::Unit u;
    u.anchor = level, u.depth = 0, u.bx = bx, u.by = by;
    units.push_back(u);
  });
  impl.acquire(*encoder_, tileBase_, units, job.lease);
  job.takeWorkspace(impl, area, options_.outputTile);
}

void Renderer::drawPixels(size_t target, size_t level, Rect const& area) const {
  Impl& impl = engine_->impl();
  size_t const t = pyramid_.tile(), nx = width(level), ny = height(level);
  forEachBlock(area, t, [&](size_t bx, size_t by) {
    // The block lands at its place relative to the area; what lies outside it is clipped.
    size_t const x = bx * t, y = by * t;
    impl.instance->drawTiles(target, impl.blit8, {area.x, area.width, area.y, area.height},
                             {0, area.width, 0, area.height},
                             {std::min(t, nx - x), std::min(t, ny - y)}, {{0, 0}},
                             {tileBase_ + pyramid_.pixelTileId(level, bx, by)}, {x, y});
  });
}

void Renderer::renderTile(size_t level, Rect const& r, Display const& display, Job& job) const {
  Impl& impl = engine_->impl();
  RenderBackendInstance& inst = *impl.instance;
  auto const& none = FilterEmptyParams::instance();
  size_t const nx = width(level), ny = height(level);

  // Regions of the level, from the output outwards: sharpening reads two pixels around
  // every output pixel, CLAHE whole cells around those.
  Rect const s = display.sharpen ? expand(r, 2, nx, ny) : r;
  bool const equalise = display.clahe && nx > size_t(kCell) && ny > size_t(kCell);
  Rect const e = equalise ? claheRegion(s, int64_t(nx), int64_t(ny)) : s;

  size_t const anchor = pyramid_.anchorOf(level);
  bool const linear = display.gamma && display.gammaMode == Display::GammaMode::kLinear;
  // A level the source reads itself is drawn from its pixels (see RendererOptions).
  bool const fromPixels = options_.pixelTiles && level == anchor && pyramid_.isNative(anchor);
  if (fromPixels && !equalise && !linear) {
    // Straight to the 8-bit steps: the first one draws the pixels over `s`.
    acquirePixels(level, s, job);
    DisplaySteps steps(*job.workspace, display);
    drawPixels(steps.next(), level, s);
    finishDisplay(level, r, s, display, steps);
    return;
  }
  // YCoCg over `e` (its chroma needed over `s` only), equalised where asked: CLAHE works on
  // the whole of its source buffer, so its source is a target of exactly the region's size.
  std::array<size_t, 3> planes{};
  if (fromPixels) {
    acquirePixels(level, e, job);
  } else {
    planes = reconstruct(level, s, e, job);
  }
  Impl::Workspace& ws = *job.workspace;
  size_t const y48 = ws.ycocg;
  size_t const claheSource = equalise ? inst.createTarget({e.width, e.height}, 48, true,
                                                          Filtering::kNone, Format::kYCoCg16)
                                      : y48;
  if (fromPixels) {
    drawPixels(ws.rgbaA, level, e);
    inst.executeFilter(impl.toYCoCg, {at(ws.rgbaA, 0, 0)}, e.width, e.height, claheSource, 0, 0, 0,
                       0, none, {0, 0});
  } else {
    inst.executeFilter(impl.interleave,
                       {at(planes[0], 0, 0), at(planes[1], 0, 0), at(planes[2], 0, 0)}, e.width,
                       e.height, claheSource, 0, 0, 0, 0, none, {0, 0});
  }
  if (equalise) {
    ws.claheParams.clipLimit = *display.clahe;
    inst.executeFilter(impl.clahe, {at(claheSource, 0, 0)}, e.width, e.height, y48, 0, 0, 0, 0,
                       ws.claheParams, {0, 0});
    inst.eraseTarget(claheSource);  // released once the queued CLAHE job has run
  }

  DisplaySteps steps(ws, display);
  int64_t const sx0 = int64_t(s.x - e.x), sy0 = int64_t(s.y - e.y);
  if (linear) {
    ws.linearGammaParams.gamma = display.gammaValue;
    ws.linearGammaParams.blackPoint = display.black;
    ws.linearGammaParams.whitePoint = display.white;
    inst.executeFilter(impl.toRgb16, {at(y48, sx0, sy0)}, s.width, s.height, ws.rgb16, 0, 0, 0, 0,
                       none, {0, 0});
    size_t const to = steps.next();
    inst.executeFilter(impl.linearGamma, {at(ws.rgb16, 0, 0)}, s.width, s.height, to, 0, 0, 0, 0,
                       ws.linearGammaParams, {0, 0});
  } else {
    inst.executeFilter(impl.toRgba, {at(y48, sx0, sy0)}, s.width, s.height, steps.next(), 0, 0, 0,
                       0, none, {0, 0});
  }
  finishDisplay(level, r, s, display, steps);
}

std::array<size_t, 3> Renderer::reconstruct(size_t level, Rect const& s, Rect const& e,
                                            Job& job) const {
  Impl& impl = engine_->impl();
  RenderBackendInstance& inst = *impl.instance;
  auto const& none = FilterEmptyParams::instance();
  size_t const anchor = pyramid_.anchorOf(level), top = pyramid_.depthOf(anchor);
  size_t const first = level - anchor + 1;  // the finest depth the inverse runs
  std::vector<int64_t> wx(top + 1), hy(top + 1);
  for (size_t d = 0; d <= top; ++d) {
    wx[d] = int64_t(pyramid_.width(anchor + d)), hy[d] = int64_t(pyramid_.height(anchor + d));
  }
  // CLAHE equalises the luma only: the chroma channels are reconstructed over `s` alone.
  struct Plan {
    std::vector<AxisStep> x, y;
  };
  Plan const luma{planInverse(spanX(e), first, top, wx, true),
                  planInverse(spanY(e), first, top, hy, false)};
  Plan const chroma = e == s ? luma
                             : Plan{planInverse(spanX(s), first, top, wx, true),
                                    planInverse(spanY(s), first, top, hy, false)};
  // The blocks whose tiles hold a depth's windows.
  auto blocksX = [&](AxisStep const& step, size_t d) {
    return pyramid_.blocksFor({step.k0, step.k0 + step.nb}, pyramid_.blocksX(anchor), d);
  };
  auto blocksY = [&](AxisStep const& step, size_t d) {
    return pyramid_.blocksFor({step.k0, step.k0 + step.nb}, pyramid_.blocksY(anchor), d);
  };

  // The coefficient tiles every depth reads, resident and locked for this batch. The luma's
  // windows hold the chroma's.
  std::vector<Impl::Unit> units;
  for (size_t d = first; d <= top; ++d) {
    Span const bx = blocksX(luma.x[d - first], d), by = blocksY(luma.y[d - first], d);
    for (int64_t j = by.begin; j < by.end; ++j) {
      for (int64_t i = bx.begin; i < bx.end; ++i) {
        Impl::Unit u;
        u.anchor = anchor, u.depth = d, u.bx = size_t(i), u.by = size_t(j);
        units.push_back(u);
      }
    }
  }
  impl.acquire(*encoder_, tileBase_, units, job.lease);

  job.takeWorkspace(impl, e, options_.outputTile);
  Impl::Workspace& ws = *job.workspace;

  // Inverse wavelet, coarsest depth first. Each channel's approximation stays in its own
  // target; the detail bands and the column passes are shared by the channels in turn.
  uint64_t samples = 0;
  for (size_t d = top; d >= first; --d) {
    for (size_t c = 0; c < 3; ++c) {
      Plan const& plan = c == 0 ? luma : chroma;
      AxisStep const& sx = plan.x[d - first];
      AxisStep const& sy = plan.y[d - first];
      Span const bx = blocksX(sx, d), by = blocksY(sy, d);
      size_t const kx = pyramid_.bandExtentX(anchor, d), ky = pyramid_.bandExtentY(anchor, d);
      auto draw = [&](size_t target, Band band) {
        for (int64_t j = by.begin; j < by.end; ++j) {
          Span const ty = pyramid_.blockSpan(size_t(j), pyramid_.blocksY(anchor), d, ky);
          for (int64_t i = bx.begin; i < bx.end; ++i) {
            Span const tx = pyramid_.blockSpan(size_t(i), pyramid_.blocksX(anchor), d, kx);
            size_t const id = tileBase_ + pyramid_.tileId(anchor, d, size_t(i), size_t(j), band, c);
            // The tile lands at its pair indices relative to the window; the parts outside the
            // target are clipped, those inside it but outside the window are never read.
            inst.drawTiles(
                target, impl.blit16, {size_t(sx.k0), size_t(sx.nb), size_t(sy.k0), size_t(sy.nb)},
                {0, size_t(sx.nb), 0, size_t(sy.nb)}, {size_t(tx.size()), size_t(ty.size())},
                {{0, 0}}, {id}, {size_t(tx.begin), size_t(ty.begin)});
          }
        }
      };
      if (d == top) draw(ws.ll[c], Band::kLowLow);
      draw(ws.hl, Band::kHighLow);
      draw(ws.lh, Band::kLowHigh);
      draw(ws.hh, Band::kHighHigh);
      size_t const nbx = size_t(sx.nb), nby = size_t(sy.nb);
      size_t const clipTop = size_t(-sy.shift), clipBottom = size_t(2 * sy.nb - sy.h);
      // Columns: approximation over LH gives the low-pass columns, HL over HH the high-pass
      // ones; then rows, into the approximation target the next depth reads.
      inst.executeFilter(impl.vertical, {at(ws.ll[c], 0, 0), at(ws.lh, 0, 0)}, nbx, nby,
                         ws.columnsLow, 0, 0, clipTop, clipBottom, none, {0, 0});
      inst.executeFilter(impl.vertical, {at(ws.hl, 0, 0), at(ws.hh, 0, 0)}, nbx, nby,
                         ws.columnsHigh, 0, 0, clipTop, clipBottom, none, {0, 0});
      inst.executeFilter(impl.horizontal, {at(ws.columnsLow, 0, 0), at(ws.columnsHigh, 0, 0)}, nbx,
                         size_t(sy.rows), ws.ll[c], size_t(-sx.shift), size_t(2 * sx.nb - sx.h), 0,
                         0, none, {0, 0});
      if (d > first) {
        // The next depth reads one approximation sample past the image: the transform's
        // extension there repeats the last sample (in the corner too).
        AxisStep const& nx1 = plan.x[d - 1 - first];
        AxisStep const& ny1 = plan.y[d - 1 - first];
        size_t const cols = size_t(sx.rows), rows = size_t(sy.rows);
        if (nx1.pad) {
          inst.executeFilter(impl.blit16, {at(ws.ll[c], int64_t(cols) - 1, 0)}, 1, rows, ws.ll[c],
                             0, 0, 0, 0, none, {cols, 0});
        }
        if (ny1.pad) {
          inst.executeFilter(impl.blit16, {at(ws.ll[c], 0, int64_t(rows) - 1)},
                             cols + (nx1.pad ? 1 : 0), 1, ws.ll[c], 0, 0, 0, 0, none, {0, rows});
        }
      }
      samples += uint64_t(sx.rows) * uint64_t(sy.rows);
    }
  }
  samples_ += samples;
  reconstructed3_ += e.width * e.height + 2 * s.width * s.height;

  std::array<size_t, 3> planes = ws.ll;
  if (e != s) {
    // The chroma planes move to where `s` lies in the region; the rest of them is never read
    // (CLAHE passes chroma through, and only `s` goes on).
    planes[1] = ws.hl, planes[2] = ws.lh;
    for (size_t c = 1; c < 3; ++c) {
      inst.executeFilter(impl.blit16, {at(ws.ll[c], 0, 0)}, s.width, s.height, planes[c], 0, 0, 0,
                         0, none, {s.x - e.x, s.y - e.y});
    }
  }
  return planes;
}

void Renderer::finishDisplay(size_t level, Rect const& r, Rect const& s, Display const& display,
                             DisplaySteps& steps) const {
  Impl& impl = engine_->impl();
  RenderBackendInstance& inst = *impl.instance;
  auto const& none = FilterEmptyParams::instance();
  Impl::Workspace& ws = steps.ws;
  size_t& current = steps.current;
  auto step = [&](Filter const& f, std::vector<FilterSource> const& sources, size_t w, size_t h,
                  SingleFilterParameters const& params, size_t ox, size_t oy) {
    size_t const destination = steps.next();
    inst.executeFilter(f, sources, w, h, destination, 0, 0, 0, 0, params, {ox, oy});
  };
  bool const srgb = display.gamma && display.gammaMode != Display::GammaMode::kLinear;
  if (srgb) {
    ws.srgbGammaParams.gamma = display.gammaValue;
    ws.srgbGammaParams.blackPoint = display.black;
    ws.srgbGammaParams.whitePoint = display.white;
    step(impl.srgbGamma, {at(current, 0, 0)}, s.width, s.height, ws.srgbGammaParams, 0, 0);
  }
  if (display.matrix) {
    ws.matrixParams.matrix = matrixQ10(*display.matrix);
    ws.matrixParams.scale = display.matrixScale;
    step(impl.matrix, {at(current, 0, 0)}, s.width, s.height, ws.matrixParams, 0, 0);
  }
  if (display.sharpen) {
    // The 5 x 5 window reads two pixels around the output; past the level's edges the edge
    // pixels repeat, as they would for the whole level.
    size_t const p = ws.padded, pw = r.width + 4, ph = r.height + 4;
    size_t const px = s.x + 2 - r.x, py = s.y + 2 - r.y;
    inst.executeFilter(impl.blit8, {at(current, 0, 0)}, s.width, s.height, p, 0, 0, 0, 0, none,
                       {px, py});
    for (size_t c = 0; c < px; ++c) {
      inst.executeFilter(impl.blit8, {at(p, int64_t(px), int64_t(py))}, 1, s.height, p, 0, 0, 0, 0,
                         none, {c, py});
    }
    for (size_t c = px + s.width; c < pw; ++c) {
      inst.executeFilter(impl.blit8, {at(p, int64_t(px + s.width - 1), int64_t(py))}, 1, s.height,
                         p, 0, 0, 0, 0, none, {c, py});
    }
    for (size_t row = 0; row < py; ++row) {
      inst.executeFilter(impl.blit8, {at(p, 0, int64_t(py))}, pw, 1, p, 0, 0, 0, 0, none, {0, row});
    }
    for (size_t row = py + s.height; row < ph; ++row) {
      inst.executeFilter(impl.blit8, {at(p, 0, int64_t(py + s.height - 1))}, pw, 1, p, 0, 0, 0, 0,
                         none, {0, row});
    }
    ws.sharpenParams.gain = *display.sharpen;
    // The description's two-pixel margins place the output window two pixels in.
    step(impl.sharpen, {at(p, 0, 0)}, pw, ph, ws.sharpenParams, 2, 2);
  }
  if (display.mask) {
    std::string const key = "mask/" + std::to_string(level) + "/" + display.maskKey();
    std::vector<unsigned char> const id(key.begin(), key.end());
    inst.clear(ws.out, {0, 0, 0, 255});
    // Stored and used under the store's lock: no other store can evict the set in between,
    // and the queued job keeps it alive afterwards.
    std::lock_guard<std::mutex> lock(impl.storeMutex);
    if (!inst.dataEnvelopesSet(id)) {
      EnvelopeData data(1);
      // Coordinates of the level shown; past 31 halvings every one of them is 0.
      auto reduce = [level](uint32_t v) { return level < 32 ? v >> level : 0u; };
      for (MaskRect const& m : *display.mask) {
        data[0].second.push_back({reduce(m.xmin), reduce(m.xmax), reduce(m.ymin), reduce(m.ymax)});
      }
      inst.dataEnvelopes(id, data);
    }
    inst.maskRange(current, ws.out, impl.mask, id, {r.x, r.right() - 1, r.y, r.bottom() - 1});
  }
  inst.finalizeDrawSequence();
}

}  // namespace quorvel::zoom
