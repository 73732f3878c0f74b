#include "support/images.hpp"

#include <algorithm>
#include <cmath>

namespace quorvel::zoom::test {
namespace {

uint32_t mix(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352dU;
  x ^= x >> 15;
  x *= 0x846ca68bU;
  x ^= x >> 16;
  return x;
}

uint8_t clamp8(int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

// One level of the forward 5/3 along a line of n samples, written from the lifting
// equations with an explicitly mirrored copy of the line.
void forwardLine(std::vector<int32_t> const& x, std::vector<int32_t>& low) {
  auto const n = static_cast<int64_t>(x.size());
  auto X = [&](int64_t i) {
    if (n == 1) return x[0];
    while (i < 0 || i >= n) i = i < 0 ? -i : 2 * (n - 1) - i;
    return x[static_cast<size_t>(i)];
  };
  auto D = [&](int64_t k) { return X(2 * k + 1) - ((X(2 * k) + X(2 * k + 2)) >> 1); };
  low.resize(static_cast<size_t>((n + 1) / 2));
  for (int64_t k = 0; k < (n + 1) / 2; ++k) {
    low[static_cast<size_t>(k)] = X(2 * k) + ((D(k - 1) + D(k) + 2) >> 2);
  }
}

}  // namespace

std::vector<uint8_t> busyImage(size_t w, size_t h, uint32_t seed) {
  std::vector<uint8_t> rgba(w * h * 4);
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      uint8_t* p = &rgba[(y * w + x) * 4];
      double const fx = double(x) / double(w), fy = double(y) / double(h);
      int r = int(200 * fx + 30), g = int(160 * fy + 50),
          b = int(120 + 100 * std::sin(fx * 9 + seed));
      // Hard-edged boxes and a disc.
      if (((x / 37 + y / 23 + seed) % 5) == 0) r = 250, g = 20;
      double const dx = double(x) - 0.6 * double(w), dy = double(y) - 0.4 * double(h);
      if (dx * dx + dy * dy < double(w * h) / 30) b = 10, g = 200;
      // Text-like strokes: thin dark bars on a grid.
      if (y % 11 < 2 && (mix(uint32_t(x / 5) * 31 + uint32_t(y / 11) + seed) & 3) == 0) {
        r = g = b = 15;
      }
      uint32_t const noise = mix(uint32_t(x) * 7919 + uint32_t(y) * 104729 + seed * 13);
      p[0] = clamp8(r + int(noise & 15) - 8);
      p[1] = clamp8(g + int((noise >> 4) & 15) - 8);
      p[2] = clamp8(b + int((noise >> 8) & 15) - 8);
      p[3] = 255;
    }
  }
  return rgba;
}

std::shared_ptr<MemorySource> busySource(size_t w, size_t h, uint32_t seed) {
  return std::make_shared<MemorySource>(w, h, busyImage(w, h, seed), "busy test image");
}

std::vector<uint8_t> referenceLevel(std::vector<uint8_t> const& rgba, size_t w, size_t h,
                                    size_t level, size_t& outW, size_t& outH) {
  std::vector<std::vector<int32_t>> planes(3, std::vector<int32_t>(w * h));
  for (size_t i = 0; i < w * h; ++i) {
    int32_t const r = rgba[4 * i], g = rgba[4 * i + 1], b = rgba[4 * i + 2];
    int32_t const co = r - b, t = b + (co >> 1), cg = g - t;
    planes[0][i] = t + (cg >> 1), planes[1][i] = co, planes[2][i] = cg;
  }
  size_t cw = w, ch = h;
  for (size_t l = 0; l < level; ++l) {
    size_t const nw = (cw + 1) / 2, nh = (ch + 1) / 2;
    for (auto& p : planes) {
      // Rows, then columns.
      std::vector<int32_t> rows(nw * ch), line, low;
      for (size_t y = 0; y < ch; ++y) {
        line.assign(p.begin() + long(y * cw), p.begin() + long((y + 1) * cw));
        forwardLine(line, low);
        std::copy(low.begin(), low.end(), rows.begin() + long(y * nw));
      }
      std::vector<int32_t> next(nw * nh);
      for (size_t x = 0; x < nw; ++x) {
        line.resize(ch);
        for (size_t y = 0; y < ch; ++y) line[y] = rows[y * nw + x];
        forwardLine(line, low);
        for (size_t y = 0; y < nh; ++y) next[y * nw + x] = low[y];
      }
      p = std::move(next);
    }
    cw = nw, ch = nh;
  }
  std::vector<uint8_t> out(cw * ch * 4);
  for (size_t i = 0; i < cw * ch; ++i) {
    int32_t const t = planes[0][i] - (planes[2][i] >> 1), b = t - (planes[1][i] >> 1);
    out[4 * i] = clamp8(b + planes[1][i]);
    out[4 * i + 1] = clamp8(t + planes[2][i]);
    out[4 * i + 2] = clamp8(b);
    out[4 * i + 3] = 255;
  }
  outW = cw, outH = ch;
  return out;
}

}  // namespace quorvel::zoom::test
