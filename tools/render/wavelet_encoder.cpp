#include "wavelet_encoder.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace quorvel::tool {
namespace {

int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
int64_t ceilDiv(int64_t a, int64_t b) { return -floorDiv(-a, b); }
size_t ceilEven(size_t n) { return n + (n & 1); }

// Index into [0, n) of sample i of the whole-sample symmetric extension of n samples.
int64_t mirror(int64_t i, int64_t n) {
  if (n == 1) return 0;
  int64_t const period = 2 * (n - 1);
  i %= period;
  if (i < 0) i += period;
  return i < n ? i : period - i;
}

// Along one axis: the sample range [lo, hi] a level receives, and the coefficient ranges
// it can compute from it: d(k) needs x(2k .. 2k + 2), s(k) needs d(k - 1) and d(k).
struct Span {
  int64_t lo, hi;
};
Span detailSpan(Span x) { return {ceilDiv(x.lo, 2), floorDiv(x.hi - 2, 2)}; }
Span smoothSpan(Span x) {
  Span const d = detailSpan(x);
  return {d.lo + 1, d.hi};
}

// A plane of int32 samples covering [x0, x0 + w) x [y0, y0 + h) of an infinite grid.
struct Grid {
  int64_t x0 = 0, y0 = 0;
  size_t w = 0, h = 0;
  std::vector<int32_t> v;
  int32_t* row(int64_t y) { return &v[static_cast<size_t>(y - y0) * w]; }
  int32_t const* row(int64_t y) const { return &v[static_cast<size_t>(y - y0) * w]; }
  int32_t at(int64_t x, int64_t y) const { return row(y)[x - x0]; }
  bool holds(int64_t x, int64_t y) const {
    return x >= x0 && y >= y0 && x < x0 + static_cast<int64_t>(w) &&
           y < y0 + static_cast<int64_t>(h);
  }
};

Grid makeGrid(int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
  Grid g;
  g.x0 = x0, g.y0 = y0;
  g.w = static_cast<size_t>(std::max<int64_t>(0, x1 - x0 + 1));
  g.h = static_cast<size_t>(std::max<int64_t>(0, y1 - y0 + 1));
  g.v.resize(g.w * g.h);
  return g;
}

// One level of reversible 5/3 lifting along rows: low = s, high = d on every row.
void liftRows(Grid const& in, Grid& low, Grid& high) {
  Span const x{in.x0, in.x0 + static_cast<int64_t>(in.w) - 1};
  Span const d = detailSpan(x), s = smoothSpan(x);
  int64_t const y1 = in.y0 + static_cast<int64_t>(in.h) - 1;
  high = makeGrid(d.lo, in.y0, d.hi, y1);
  low = makeGrid(s.lo, in.y0, s.hi, y1);
  for (int64_t y = in.y0; y <= y1; ++y) {
    int32_t const* src = in.row(y) - in.x0;  // indexed by absolute x
    int32_t* dst = high.row(y) - d.lo;
    for (int64_t k = d.lo; k <= d.hi; ++k) {
      dst[k] = src[2 * k + 1] - ((src[2 * k] + src[2 * k + 2]) >> 1);
    }
    int32_t* lst = low.row(y) - s.lo;
    for (int64_t k = s.lo; k <= s.hi; ++k) {
      lst[k] = src[2 * k] + ((dst[k - 1] + dst[k] + 2) >> 2);
    }
  }
}

// The same along columns, row by row so that the inner loops run over contiguous samples.
void liftColumns(Grid const& in, Grid& low, Grid& high) {
  Span const y{in.y0, in.y0 + static_cast<int64_t>(in.h) - 1};
  Span const d = detailSpan(y), s = smoothSpan(y);
  int64_t const x1 = in.x0 + static_cast<int64_t>(in.w) - 1;
  high = makeGrid(in.x0, d.lo, x1, d.hi);
  low = makeGrid(in.x0, s.lo, x1, s.hi);
  for (int64_t k = d.lo; k <= d.hi; ++k) {
    int32_t const *a = in.row(2 * k), *b = in.row(2 * k + 1), *c = in.row(2 * k + 2);
    int32_t* out = high.row(k);
    for (size_t i = 0; i < in.w; ++i) out[i] = b[i] - ((a[i] + c[i]) >> 1);
  }
  for (int64_t k = s.lo; k <= s.hi; ++k) {
    int32_t const *x = in.row(2 * k), *dp = high.row(k - 1), *dn = high.row(k);
    int32_t* out = low.row(k);
    for (size_t i = 0; i < in.w; ++i) out[i] = x[i] + ((dp[i] + dn[i] + 2) >> 2);
  }
}

// Copies the nb x nb window whose element (r, c) is grid sample (c + dx, r + dy).
std::vector<int16_t> window(Grid const& g, size_t nb, int64_t dx, int64_t dy) {
  auto const n = static_cast<int64_t>(nb);
  if (!g.holds(dx, dy) || !g.holds(n - 1 + dx, n - 1 + dy)) {
    throw std::logic_error("wavelet window outside the transformed plane");
  }
  std::vector<int16_t> out(nb * nb);
  for (int64_t r = 0; r < n; ++r) {
    int32_t const* src = g.row(r + dy) + (dx - g.x0);
    for (int64_t c = 0; c < n; ++c) {
      int32_t const v = src[c];
      if (v < std::numeric_limits<int16_t>::min() || v > std::numeric_limits<int16_t>::max()) {
        throw std::range_error("wavelet coefficient does not fit 16 bits");
      }
      out[static_cast<size_t>(r * n + c)] = static_cast<int16_t>(v);
    }
  }
  return out;
}

}  // namespace

WaveletLayout::WaveletLayout(size_t tile, size_t levels) : tile_(tile), levels_(levels) {
  if (tile == 0 || levels == 0) throw std::invalid_argument("empty wavelet layout");
  size_t need = tile;
  for (size_t l = 1; l <= levels; ++l) {
    bandSize_.push_back(ceilEven(need) / 2 + 2);
    need = bandSize_.back();
  }
  // The smallest extension for which every window of every level is computed from known
  // samples: s(k) for k in [0, nb) and d(k) for k in [-1, nb - 1) on both axes.
  auto enough = [&](int64_t margin) {
    Span x{-margin, static_cast<int64_t>(tile) - 1 + margin};
    for (size_t l = 1; l <= levels; ++l) {
      auto const nb = static_cast<int64_t>(bandSize_[l - 1]);
      Span const d = detailSpan(x), s = smoothSpan(x);
      if (d.lo > -1 || d.hi < nb - 2 || s.lo > 0 || s.hi < nb - 1) return false;
      x = s;
    }
    return true;
  };
  int64_t margin = 2;
  while (!enough(margin)) margin += 2;
  margin_ = static_cast<size_t>(margin);
}

size_t WaveletLayout::bandIndex(size_t level, BandKind kind) const {
  if (kind == BandKind::kLowLow) return 3 * levels_;
  return 3 * (level - 1) + static_cast<size_t>(kind);
}

size_t WaveletLayout::coefficientCount() const {
  size_t n = 0;
  for (size_t i = 0; i < bandCount(); ++i) n += bandSize(bandLevel(i)) * bandSize(bandLevel(i));
  return n;
}

std::vector<std::vector<int16_t>> forwardTransform(int16_t const* plane,
                                                   WaveletLayout const& layout) {
  auto const t = static_cast<int64_t>(layout.tile());
  auto const e = static_cast<int64_t>(layout.margin());
  // Level 0: the tile and its whole-sample symmetric extension.
  Grid approx = makeGrid(-e, -e, t - 1 + e, t - 1 + e);
  std::vector<int64_t> columns(approx.w);
  for (size_t i = 0; i < approx.w; ++i) columns[i] = mirror(approx.x0 + int64_t(i), t);
  for (int64_t y = approx.y0; y < approx.y0 + int64_t(approx.h); ++y) {
    int16_t const* src = plane + mirror(y, t) * t;
    int32_t* dst = approx.row(y);
    for (size_t i = 0; i < approx.w; ++i) dst[i] = src[columns[i]];
  }

  std::vector<std::vector<int16_t>> bands(layout.bandCount());
  Grid rowLow, rowHigh, lowHigh, highLow, highHigh, next;
  for (size_t l = 1; l <= layout.levels(); ++l) {
    // Rows first, then columns: the backend undoes the columns first, then the rows.
    liftRows(approx, rowLow, rowHigh);
    liftColumns(rowLow, next, lowHigh);
    liftColumns(rowHigh, highLow, highHigh);
    size_t const nb = layout.bandSize(l);
    // Low band element k is s(k); high band element k is d(k - 1).
    bands[layout.bandIndex(l, BandKind::kHighLow)] = window(highLow, nb, -1, 0);
    bands[layout.bandIndex(l, BandKind::kLowHigh)] = window(lowHigh, nb, 0, -1);
    bands[layout.bandIndex(l, BandKind::kHighHigh)] = window(highHigh, nb, -1, -1);
    approx = std::move(next);
  }
  bands[layout.bandIndex(layout.levels(), BandKind::kLowLow)] =
      window(approx, layout.bandSize(layout.levels()), 0, 0);
  return bands;
}

}  // namespace quorvel::tool
