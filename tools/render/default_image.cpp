#include "default_image.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <thread>
#include <vector>

namespace quorvel::tool {
namespace {

uint32_t hash(uint32_t x, uint32_t y, uint32_t seed) {
  uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ seed * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return h;
}

// Smooth value noise in [0, 1) on a grid of `cell` pixels.
double valueNoise(double x, double y, double cell, uint32_t seed) {
  double const gx = x / cell, gy = y / cell;
  auto const ix = static_cast<uint32_t>(gx), iy = static_cast<uint32_t>(gy);
  double const fx = gx - ix, fy = gy - iy;
  double const sx = fx * fx * (3 - 2 * fx), sy = fy * fy * (3 - 2 * fy);
  auto v = [&](uint32_t a, uint32_t b) { return (hash(a, b, seed) & 0xffff) / 65536.0; };
  double const top = v(ix, iy) + (v(ix + 1, iy) - v(ix, iy)) * sx;
  double const bottom = v(ix, iy + 1) + (v(ix + 1, iy + 1) - v(ix, iy + 1)) * sx;
  return top + (bottom - top) * sy;
}

struct Blob {
  double cx, cy, rx, ry;
  double r, g, b;  // stain colour
};

struct Line {
  double a, b, c;  // a x + b y + c = 0, (a, b) unit length
  double halfWidth;
};

struct Scene {
  double scale;  // 1 for the full-size image
  std::vector<Blob> blobs;
  std::vector<Line> lines;
};

Scene makeScene(size_t width, size_t height) {
  Scene s;
  s.scale = std::max(width, height) / 4096.0;
  uint32_t seed = 7;
  auto rnd = [&] { return (hash(seed++, 17, 99) & 0xffffff) / double(0x1000000); };
  for (int i = 0; i < 36; ++i) {
    Blob b;
    b.cx = rnd() * width;
    b.cy = rnd() * height * 0.85;  // the bottom strip holds the label text
    b.rx = (80 + rnd() * 420) * s.scale + 2;
    b.ry = b.rx * (0.6 + rnd() * 0.8);
    bool const eosin = rnd() < 0.5;
    b.r = eosin ? 220 : 150 + rnd() * 30;
    b.g = eosin ? 120 + rnd() * 40 : 90 + rnd() * 30;
    b.b = eosin ? 170 + rnd() * 30 : 190 + rnd() * 30;
    s.blobs.push_back(b);
  }
  for (int i = 0; i < 12; ++i) {
    double const angle = rnd() * 3.14159265358979;
    double const px = rnd() * width, py = rnd() * height;
    Line l{std::cos(angle), std::sin(angle), 0, 0.5 + (i % 3) * 0.5};
    l.c = -(l.a * px + l.b * py);
    s.lines.push_back(l);
  }
  return s;
}

// A 5 x 7 glyph pattern from the character index: text-like strokes without a font.
bool glyphPixel(uint32_t glyph, int gx, int gy) {
  if (gx == 0 || gy == 0 || gx > 5 || gy > 7) return false;
  uint32_t const bits = hash(glyph, 3, 5);
  bool const stem = (gx == 1 && (bits & 1)) || (gx == 5 && (bits & 2));
  bool const bar = (gy == 1 && (bits & 4)) || (gy == 4 && (bits & 8)) || (gy == 7 && (bits & 16));
  bool const dot = gx == 3 && gy == 2 + static_cast<int>((bits >> 5) % 4);
  return stem || bar || dot;
}

void renderRows(Scene const& scene, Image& image, size_t y0, size_t y1) {
  size_t const w = image.width, h = image.height;
  double const textTop = h * 0.88, glyphScale = std::max(1.0, 2.0 * scene.scale);
  std::vector<Blob const*> rowBlobs;
  for (size_t y = y0; y < y1; ++y) {
    rowBlobs.clear();
    for (Blob const& b : scene.blobs) {
      if (std::abs(double(y) - b.cy) < b.ry) rowBlobs.push_back(&b);
    }
    for (size_t x = 0; x < w; ++x) {
      // Smooth background: a faint vignette and slow colour drift.
      double const nx = double(x) / w - 0.5, ny = double(y) / h - 0.5;
      double const vignette = 1.0 - 0.10 * (nx * nx + ny * ny);
      double const drift = valueNoise(x, y, 700 * scene.scale + 8, 1) - 0.5;
      double r = (236 + 10 * drift) * vignette, g = (232 + 6 * drift) * vignette;
      double b = (238 - 8 * drift) * vignette;
      // Stained blobs with a soft rim, fibre texture and cell-like dots.
      for (Blob const* blob : rowBlobs) {
        double const dx = (x - blob->cx) / blob->rx, dy = (y - blob->cy) / blob->ry;
        double const d = dx * dx + dy * dy;
        if (d >= 1.0) continue;
        double const edge = std::min(1.0, (1.0 - d) * 6.0);
        double const texture = valueNoise(x, y, 9, 2) * 0.6 + valueNoise(x, y, 3, 3) * 0.4;
        double const a = edge * (0.55 + 0.35 * texture);
        r += (blob->r - r) * a, g += (blob->g - g) * a, b += (blob->b - b) * a;
        uint32_t const cell = hash(x / 14, y / 14, 4);
        double const cx = (x / 14) * 14 + 4 + (cell & 7),
                     cy = (y / 14) * 14 + 4 + ((cell >> 3) & 7);
        double const rr = (x - cx) * (x - cx) + (y - cy) * (y - cy);
        if ((cell >> 6) % 3 == 0 && rr < 9 + ((cell >> 8) & 7)) {
          r *= 0.45, g *= 0.35, b *= 0.6;  // a dark nucleus with a sharp boundary
        }
      }
      // Thin sharp lines (scratches, fibres of the mount).
      for (Line const& l : scene.lines) {
        double const dist = std::abs(l.a * x + l.b * y + l.c);
        if (dist < l.halfWidth) r *= 0.55, g *= 0.55, b *= 0.6;
      }
      // The label: rows of dark glyphs on the bottom strip.
      if (y >= textTop && y < h - 8 && x >= 16 && x < w - 16) {
        auto const gx = static_cast<int>((x - 16) / glyphScale);
        auto const gy = static_cast<int>((y - textTop) / glyphScale);
        int const line = gy / 10, col = gx / 7;
        if (glyphPixel(static_cast<uint32_t>(line * 4096 + col), gx % 7, gy % 10) &&
            (hash(static_cast<uint32_t>(col / 6), static_cast<uint32_t>(line), 9) & 3) != 0) {
          r = 30, g = 30, b = 40;
        }
      }
      // Sensor noise, one grey level.
      uint32_t const n = hash(static_cast<uint32_t>(x), static_cast<uint32_t>(y), 11);
      double const noise = (n & 3) * 0.5 - 0.75;
      uint8_t* p = image.pixel(x, y);
      p[0] = static_cast<uint8_t>(std::clamp(r + noise, 0.0, 255.0));
      p[1] = static_cast<uint8_t>(std::clamp(g + noise, 0.0, 255.0));
      p[2] = static_cast<uint8_t>(std::clamp(b + noise, 0.0, 255.0));
      p[3] = 255;
    }
  }
}

}  // namespace

Image defaultImage(size_t width, size_t height, size_t threads) {
  Image image;
  image.width = width;
  image.height = height;
  image.rgba.assign(width * height * 4, 255);
  Scene const scene = makeScene(width, height);
  threads = std::max<size_t>(1, std::min(threads, height));
  std::vector<std::thread> pool;
  // Interleaved bands of 64 rows keep the threads' loads even (blobs are unevenly placed).
  for (size_t t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      for (size_t y = t * 64; y < height; y += threads * 64) {
        renderRows(scene, image, y, std::min(height, y + 64));
      }
    });
  }
  for (auto& th : pool) th.join();
  return image;
}

}  // namespace quorvel::tool
