#include "quorvel/zoom/encoder.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <quorvel/backend/lru_map.hpp>
#include <stdexcept>
#include <tuple>

namespace quorvel::zoom {
namespace {

// Samples of one channel over [x0, x0 + w) x [y0, y0 + h) of an (extended) index grid.
struct Grid {
  int64_t x0 = 0, y0 = 0, w = 0, h = 0;
  // Every sample is written before it is read, so the storage is not zeroed first (that
  // was a tenth of an encode).
  std::unique_ptr<int32_t[]> v;

  Grid() = default;
  Grid(Span x, Span y)
      : x0(x.begin),
        y0(y.begin),
        w(std::max<int64_t>(0, x.size())),
        h(std::max<int64_t>(0, y.size())),
        v(new int32_t[static_cast<size_t>(w * h)]) {}
  int32_t* row(int64_t y) { return v.get() + (y - y0) * w; }
  int32_t const* row(int64_t y) const { return v.get() + (y - y0) * w; }
  int32_t at(int64_t x, int64_t y) const { return row(y)[x - x0]; }
  Span xs() const { return {x0, x0 + w}; }
  Span ys() const { return {y0, y0 + h}; }
};
using Planes = std::array<Grid, 3>;

Span hull(Span a, Span b) {
  if (a.empty()) return b;
  if (b.empty()) return a;
  return {std::min(a.begin, b.begin), std::max(a.end, b.end)};
}

// The in-image indices that extended indices [lo, hi) of an axis of n samples read.
Span mirrorHull(Span s, int64_t n) {
  if (s.begin >= 0 && s.end <= n) return s;
  int64_t lo = n, hi = -1;
  // Beyond a full period every index has been seen.
  if (s.size() >= 2 * n) return {0, n};
  for (int64_t i = s.begin; i < s.end; ++i) {
    int64_t const m = mirrorIndex(i, n);
    lo = std::min(lo, m), hi = std::max(hi, m);
  }
  return {lo, hi + 1};
}

// What one forward level must produce along an axis: low coefficients s(k) for k in `s`
// and high coefficients d(k) for k in `d` (which must cover [s.begin - 1, s.end)).
struct AxisNeed {
  Span s, d;
  // The samples of the level below that these coefficients read: d(k) reads x(2k .. 2k+2).
  Span input() const { return {2 * d.begin, 2 * d.end + 1}; }
};

AxisNeed needFor(Span s, Span window) {
  // Pair index k of a high band holds d(k - 1).
  Span d = hull({s.begin - 1, s.end}, {window.begin - 1, window.end - 1});
  if (s.empty()) d = {window.begin - 1, window.end - 1};
  return {s, d};
}

// One level of reversible 5/3 lifting along both axes, rows first (the backend undoes the
// columns first). `in` holds the exact samples of the level below over (at least) the
// in-image indices the outputs read; indices outside [0, n) are mirrored into it.
struct Bands {
  Grid ll, hl, lh, hh;
};

// `even` and `odd` are scratch of at least need.d.size() + 1 samples each.
void liftAxis(int32_t const* x, int64_t xBegin, AxisNeed const& need, int32_t* s, int32_t* d,
              int32_t* even, int32_t* odd) {
  // x is indexed by extended sample index - xBegin; s and d by coefficient index - begin.
  // The samples are split into their even and odd halves first, so that both lifting steps
  // run over contiguous samples and vectorise (strided, they did not: a tenth of an encode).
  int64_t const n = need.d.size();
  int32_t const* from = x + (2 * need.d.begin - xBegin);
  for (int64_t k = 0; k < n; ++k) {
    even[k] = from[2 * k];
    odd[k] = from[2 * k + 1];
  }
  even[n] = from[2 * n];
  for (int64_t k = 0; k < n; ++k) d[k] = odd[k] - ((even[k] + even[k + 1]) >> 1);
  // s(k) reads x(2k), which is even[k - d.begin], and d(k - 1), d(k).
  int64_t const first = need.s.begin - need.d.begin;
  int64_t const count = need.s.size();
  int32_t* out = s;
  for (int64_t k = 0; k < count; ++k) {
    int64_t const j = first + k;
    out[k] = even[j] + ((d[j - 1] + d[j] + 2) >> 2);
  }
}

Bands forwardLevel(Grid const& in, int64_t nx, int64_t ny, AxisNeed const& ax, AxisNeed const& ay) {
  Span const xIn = ax.input(), yIn = ay.input();
  // Rows: the extended rows of yIn, each a mirrored copy of an in-image row.
  std::vector<int64_t> columns(static_cast<size_t>(xIn.size()));
  for (int64_t i = xIn.begin; i < xIn.end; ++i) {
    columns[static_cast<size_t>(i - xIn.begin)] = mirrorIndex(i, nx) - in.x0;
  }
  Grid rowLow(ax.s, yIn), rowHigh(ax.d, yIn);
  std::vector<int32_t> line(columns.size());
  std::vector<int32_t> even(static_cast<size_t>(ax.d.size() + 1)), odd(even.size());
  // Only the columns past the image's edges are mirrored; the rest of a row is one run.
  int64_t const directBegin = std::max<int64_t>(xIn.begin, 0);
  int64_t const directEnd = std::min<int64_t>(xIn.end, nx);
  for (int64_t y = yIn.begin; y < yIn.end; ++y) {
    int32_t const* src = in.row(mirrorIndex(y, ny));
    if (directBegin < directEnd) {
      std::copy(src + (directBegin - in.x0), src + (directEnd - in.x0),
                line.begin() + (directBegin - xIn.begin));
    }
    for (int64_t i = xIn.begin; i < std::min(directBegin, xIn.end); ++i) {
      line[static_cast<size_t>(i - xIn.begin)] = src[columns[static_cast<size_t>(i - xIn.begin)]];
    }
    for (int64_t i = std::max(directEnd, xIn.begin); i < xIn.end; ++i) {
      line[static_cast<size_t>(i - xIn.begin)] = src[columns[static_cast<size_t>(i - xIn.begin)]];
    }
    liftAxis(line.data(), xIn.begin, ax, rowLow.row(y), rowHigh.row(y), even.data(), odd.data());
  }
  // Columns, row by row so that the inner loops run over contiguous samples.
  auto columnsOf = [&](Grid const& rows, Grid& low, Grid& high) {
    low = Grid(rows.xs(), ay.s);
    high = Grid(rows.xs(), ay.d);
    int64_t const w = rows.w;
    for (int64_t k = ay.d.begin; k < ay.d.end; ++k) {
      int32_t const *a = rows.row(2 * k), *b = rows.row(2 * k + 1), *c = rows.row(2 * k + 2);
      int32_t* out = high.row(k);
      for (int64_t i = 0; i < w; ++i) out[i] = b[i] - ((a[i] + c[i]) >> 1);
    }
    for (int64_t k = ay.s.begin; k < ay.s.end; ++k) {
      int32_t const *x = rows.row(2 * k), *dp = high.row(k - 1), *dn = high.row(k);
      int32_t* out = low.row(k);
      for (int64_t i = 0; i < w; ++i) out[i] = x[i] + ((dp[i] + dn[i] + 2) >> 2);
    }
  };
  Bands bands;
  columnsOf(rowLow, bands.ll, bands.lh);
  columnsOf(rowHigh, bands.hl, bands.hh);
  return bands;
}

// The window of `g` whose element (i, j) is grid sample (x.begin + i + dx, y.begin + j + dy).
Plane16 window(Grid const& g, Span x, Span y, int64_t dx, int64_t dy) {
  Plane16 p;
  p.width = static_cast<size_t>(x.size());
  p.height = static_cast<size_t>(y.size());
  p.samples.resize(p.width * p.height);
  for (int64_t j = 0; j < y.size(); ++j) {
    int32_t const* src = g.row(y.begin + j + dy) + (x.begin + dx - g.x0);
    int16_t* dst = &p.samples[static_cast<size_t>(j) * p.width];
    // The range is checked once a row, so that the copy itself vectorises.
    int32_t lo = 0, hi = 0;
    for (int64_t i = 0; i < x.size(); ++i) {
      lo = std::min(lo, src[i]);
      hi = std::max(hi, src[i]);
      dst[i] = static_cast<int16_t>(src[i]);
    }
    if (lo < std::numeric_limits<int16_t>::min() || hi > std::numeric_limits<int16_t>::max()) {
      throw std::range_error("a wavelet coefficient does not fit 16 bits");
    }
  }
  return p;
}

Grid crop(Grid const& g, Span x, Span y) {
  Grid out(x, y);
  for (int64_t r = y.begin; r < y.end; ++r) {
    std::copy_n(g.row(r) + (x.begin - g.x0), x.size(), out.row(r));
  }
  return out;
}

Planes toGrids(YCoCgPlanes const& p) {
  Planes g;
  for (size_t c = 0; c < 3; ++c) {
    g[c] = Grid(spanX(p.rect), spanY(p.rect));
    std::copy(p.channels[c].samples.begin(), p.channels[c].samples.end(), g[c].v.get());
  }
  return g;
}

// Per axis, what each depth of a lift from an anchor must produce: windows[d] are the pair
// indices of the depth-d tiles wanted (empty: none), and `top` the approximation indices
// wanted after the last depth. Returns, per depth, the AxisNeed, and in `input` the
// in-image indices of the anchor level to read.
std::vector<AxisNeed> planAxis(std::vector<Span> const& windows, Span top,
                               std::vector<int64_t> const& extents, Span& input) {
  size_t const depths = windows.size();
  std::vector<AxisNeed> needs(depths);
  Span next = top;  // approximation indices the depth above reads
  for (size_t d = depths; d >= 1; --d) {
    Span const window = windows[d - 1];
    needs[d - 1] = needFor(hull(next, window), window);
    next = mirrorHull(needs[d - 1].input(), extents[d - 1]);
  }
  input = next;
  return needs;
}

}  // namespace

struct WaveletEncoder::BaseCache {
  explicit BaseCache(size_t bytes) : map(bytes) {}
  std::mutex mutex;
  LruMap<std::tuple<size_t, size_t, size_t>, std::shared_ptr<YCoCgPlanes const>> map;
};

WaveletEncoder::WaveletEncoder(std::shared_ptr<ImageSource const> source, Pyramid const& pyramid,
                               ColourConverter convert, size_t baseCacheBytes)
    : source_(std::move(source)),
      pyramid_(pyramid),
      convert_(std::move(convert)),
      cache_(std::make_unique<BaseCache>(baseCacheBytes)) {}

WaveletEncoder::~WaveletEncoder() = default;

YCoCgPlanes WaveletEncoder::base(size_t anchor, Rect const& rect) const {
  YCoCgPlanes out;
  out.rect = rect;
  for (auto& c : out.channels) {
    c.width = rect.width, c.height = rect.height;
    c.samples.resize(rect.width * rect.height);
  }
  if (pyramid_.isNative(anchor)) {
    std::vector<uint8_t> rgba(rect.width * rect.height * 4);
    source_->read(anchor, rect, rgba.data());
    std::vector<int16_t> ycocg(rect.width * rect.height * 3);
    convert_(rgba.data(), rect.width, rect.height, ycocg.data());
    for (size_t i = 0; i < rect.width * rect.height; ++i) {
      for (size_t c = 0; c < 3; ++c) out.channels[c].samples[i] = ycocg[3 * i + c];
    }
    return out;
  }
  // The low band of the transform below, gathered block by block from the cache.
  size_t const t = pyramid_.tile();
  for (size_t by = rect.y / t; by * t < rect.bottom(); ++by) {
    for (size_t bx = rect.x / t; bx * t < rect.right(); ++bx) {
      auto const block = baseBlock(anchor, bx, by);
      Rect const part = intersect(rect, block->rect);
      for (size_t c = 0; c < 3; ++c) {
        for (size_t r = 0; r < part.height; ++r) {
          int16_t const* src =
              &block->channels[c].samples[(part.y + r - block->rect.y) * block->rect.width +
                                          (part.x - block->rect.x)];
          std::copy_n(
              src, part.width,
              &out.channels[c].samples[(part.y + r - rect.y) * rect.width + (part.x - rect.x)]);
        }
      }
    }
  }
  return out;
}

std::shared_ptr<YCoCgPlanes const> WaveletEncoder::baseBlock(size_t anchor, size_t bx,
                                                             size_t by) const {
  auto const key = std::make_tuple(anchor, bx, by);
  {
    std::lock_guard<std::mutex> lock(cache_->mutex);
    if (auto* hit = cache_->map.touch(key)) return *hit;
  }
  // Computed outside the lock; two threads may compute the same block once each.
  size_t const below = pyramid_.previousAnchor(anchor), depth = anchor - below;
  size_t const t = pyramid_.tile();
  Span const x{int64_t(bx * t), int64_t(std::min((bx + 1) * t, pyramid_.width(anchor)))};
  Span const y{int64_t(by * t), int64_t(std::min((by + 1) * t, pyramid_.height(anchor)))};
  std::vector<int64_t> wx(depth), hy(depth);
  for (size_t d = 0; d < depth; ++d) {
    wx[d] = int64_t(pyramid_.width(below + d)), hy[d] = int64_t(pyramid_.height(below + d));
  }
  Span inX, inY;
  auto const nx = planAxis(std::vector<Span>(depth), x, wx, inX);
  auto const ny = planAxis(std::vector<Span>(depth), y, hy, inY);
  Planes approx = toGrids(base(below, rectOf(inX, inY)));
  for (size_t d = 1; d <= depth; ++d) {
    for (auto& g : approx) g = forwardLevel(g, wx[d - 1], hy[d - 1], nx[d - 1], ny[d - 1]).ll;
  }
  auto block = std::make_shared<YCoCgPlanes>();
  block->rect = rectOf(x, y);
  for (size_t c = 0; c < 3; ++c) {
    block->channels[c] = window(approx[c], x, y, 0, 0);
  }
  std::lock_guard<std::mutex> lock(cache_->mutex);
  cache_->map.access(key) = block;
  cache_->map.setCost(key, block->rect.width * block->rect.height * 6);
  return block;
}

std::vector<DepthTiles> WaveletEncoder::encodeBlock(size_t anchor, size_t bx, size_t by,
                                                    size_t minDepth) const {
  size_t const depth = pyramid_.depthOf(anchor);
  if (minDepth < 1 || minDepth > depth) throw std::out_of_range("no such depth");
  std::vector<Span> wxs(depth), wys(depth);
  std::vector<int64_t> wx(depth), hy(depth);
  for (size_t d = 1; d <= depth; ++d) {
    wx[d - 1] = int64_t(pyramid_.width(anchor + d - 1));
    hy[d - 1] = int64_t(pyramid_.height(anchor + d - 1));
    if (d < minDepth) continue;
    wxs[d - 1] =
        pyramid_.blockSpan(bx, pyramid_.blocksX(anchor), d, pyramid_.bandExtentX(anchor, d));
    wys[d - 1] =
        pyramid_.blockSpan(by, pyramid_.blocksY(anchor), d, pyramid_.bandExtentY(anchor, d));
  }
  Span inX, inY;
  auto const nx = planAxis(wxs, {}, wx, inX);
  auto const ny = planAxis(wys, {}, hy, inY);

  std::vector<DepthTiles> out;
  Planes approx = toGrids(base(anchor, rectOf(inX, inY)));
  for (size_t d = 1; d <= depth; ++d) {
    bool const wanted = d >= minDepth;
    if (wanted) {
      out.emplace_back();
      out.back().depth = d;
      out.back().x = wxs[d - 1];
      out.back().y = wys[d - 1];
    }
    for (size_t c = 0; c < 3; ++c) {
      Bands b = forwardLevel(approx[c], wx[d - 1], hy[d - 1], nx[d - 1], ny[d - 1]);
      if (wanted) {
        Span const x = wxs[d - 1], y = wys[d - 1];
        auto& planes = out.back().planes;
        // Pair index k of a high band holds d(k - 1).
        planes[size_t(Band::kHighLow)][c] = window(b.hl, x, y, -1, 0);
        planes[size_t(Band::kLowHigh)][c] = window(b.lh, x, y, 0, -1);
        planes[size_t(Band::kHighHigh)][c] = window(b.hh, x, y, -1, -1);
        if (d == depth) planes[size_t(Band::kLowLow)][c] = window(b.ll, x, y, 0, 0);
      }
      if (d < depth) {
        // Only the in-image approximation is carried up: the next depth mirrors it anew.
        Span const nextX = mirrorHull(nx[d].input(), wx[d]);
        Span const nextY = mirrorHull(ny[d].input(), hy[d]);
        approx[c] = crop(b.ll, nextX, nextY);
      }
    }
  }
  return out;
}

}  // namespace quorvel::zoom
