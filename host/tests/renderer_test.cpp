// The renderer's promises: exact reconstruction, levels that are the whole image's low band,
// and pixels that do not depend on how anyone cuts the image into tiles.

#include "quorvel/zoom/renderer.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "support/images.hpp"

namespace quorvel::zoom {
namespace {

using test::busyImage;
using test::busySource;

std::shared_ptr<Engine> makeEngine(size_t cacheBytes = size_t{64} << 20) {
  return std::make_shared<Engine>(EngineOptions{2, cacheBytes});
}

// The first differing pixel, for a failure message that says where and what.
std::string firstDifference(std::vector<uint8_t> const& a, std::vector<uint8_t> const& b,
                            size_t w) {
  if (a.size() != b.size()) return "sizes differ";
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) {
      size_t const p = i / 4;
      return "pixel (" + std::to_string(p % w) + ", " + std::to_string(p / w) + ") channel " +
             std::to_string(i % 4) + ": " + std::to_string(a[i]) + " vs " + std::to_string(b[i]);
    }
  }
  return "";
}

Display combination(unsigned bits) {
  Display d;
  if (bits & 1) d.sharpen = 0.8;
  if (bits & 2) d.clahe = 2.0;
  if (bits & 4) {
    d.gamma = true;
    d.gammaValue = 1.7;
    d.black = 200;
    d.white = 3900;
  }
  if (bits & 8) {
    d.matrix = std::array<double, 9>{0.9, 0.1, 0, 0.2, 0.7, 0.1, 0, 0.3, 0.8};
  }
  if (bits & 16) d.mask = std::vector<MaskRect>{{10, 120, 5, 90}, {100, 260, 60, 170}};
  if (bits & 32) {
    d.gamma = true;
    d.gammaMode = Display::GammaMode::kLinear;
    d.gammaValue = 0.6;
    d.black = 10;
    d.white = 240;
  }
  return d;
}

// Renders `whole` of `level` piece by piece, cutting it at random columns and rows.
std::vector<uint8_t> renderInPieces(Renderer const& r, size_t level, Display const& d,
                                    std::mt19937& rng) {
  size_t const w = r.width(level), h = r.height(level);
  std::vector<uint8_t> out(w * h * 4);
  auto cuts = [&](size_t n) {
    std::vector<size_t> c{0};
    while (c.back() < n)
      c.push_back(std::min(n, c.back() + 1 + rng() % std::max<size_t>(1, n / 2)));
    return c;
  };
  auto const xs = cuts(w), ys = cuts(h);
  for (size_t j = 0; j + 1 < ys.size(); ++j) {
    for (size_t i = 0; i + 1 < xs.size(); ++i) {
      Rect const piece{xs[i], ys[j], xs[i + 1] - xs[i], ys[j + 1] - ys[j]};
      r.render(level, piece, d, &out[(piece.y * w + piece.x) * 4], w * 4);
    }
  }
  return out;
}

TEST(Renderer, LevelZeroWithoutDisplayIsLossless) {
  auto engine = makeEngine();
  for (auto [w, h, tile] :
       {std::tuple<size_t, size_t, size_t>{300, 217, 64}, {33, 45, 16}, {517, 260, 256}}) {
    auto source = busySource(w, h, 3);
    Renderer r(engine, source, {tile, 3, 128});
    auto const out = r.render(0, {0, 0, w, h}, {});
    std::vector<uint8_t> const in(source->pixels(), source->pixels() + w * h * 4);
    EXPECT_EQ(firstDifference(out, in, w), "") << w << "x" << h << " tile " << tile;
  }
}

TEST(Renderer, ReducedLevelsAreTheWholeImageLowBand) {
  auto engine = makeEngine();
  size_t const w = 301, h = 190;
  auto const image = busyImage(w, h, 5);
  auto source = std::make_shared<MemorySource>(w, h, image);
  // Two wavelet levels per transform: levels 2, 4, ... start transforms of their own, made
  // from the low band below them.
  Renderer r(engine, source, {32, 2, 64});
  for (size_t level = 0; level < r.levels(); ++level) {
    size_t rw = 0, rh = 0;
    auto const expected = test::referenceLevel(image, w, h, level, rw, rh);
    ASSERT_EQ(rw, r.width(level));
    ASSERT_EQ(rh, r.height(level));
    EXPECT_EQ(firstDifference(r.render(level, {0, 0, rw, rh}, {}), expected, rw), "")
        << "level " << level;
  }
}

TEST(Renderer, TilingDoesNotChangeThePixels) {
  auto engine = makeEngine();
  std::mt19937 rng(11);
  struct Case {
    size_t w, h, tile, levels, outputTile;
  };
  for (Case c : {Case{283, 201, 64, 3, 64}, Case{170, 333, 32, 2, 48}}) {
    auto source = busySource(c.w, c.h, uint32_t(c.w));
    Renderer r(engine, source, {c.tile, c.levels, c.outputTile});
    // Every filter alone, then combinations (bit 32 swaps in the linear gamma mode).
    for (unsigned bits : {0u, 1u, 2u, 4u, 8u, 16u, 32u, 3u, 7u, 15u, 31u, 35u, 63u - 4u}) {
      Display const d = combination(bits);
      for (size_t level = 0; level < std::min<size_t>(r.levels(), 5); ++level) {
        size_t const w = r.width(level), h = r.height(level);
        auto const whole = r.render(level, {0, 0, w, h}, d);
        auto const pieces = renderInPieces(r, level, d, rng);
        EXPECT_EQ(firstDifference(pieces, whole, w), "")
            << c.w << "x" << c.h << " filters " << bits << " level " << level;
      }
    }
  }
}

TEST(Renderer, EncoderTileSizeDoesNotChangeThePixels) {
  auto engine = makeEngine();
  auto source = busySource(260, 250, 9);
  Display d = combination(1 | 2 | 4);
  std::vector<std::vector<uint8_t>> results;
  for (size_t tile : {16, 64, 200, 512}) {
    Renderer r(engine, source, {tile, 3, 256});
    std::vector<uint8_t> all;
    for (size_t level = 0; level < r.levels(); ++level) {
      auto const out = r.render(level, {0, 0, r.width(level), r.height(level)}, d);
      all.insert(all.end(), out.begin(), out.end());
    }
    results.push_back(std::move(all));
  }
  for (size_t i = 1; i < results.size(); ++i) EXPECT_TRUE(results[i] == results[0]) << i;
}

TEST(Renderer, SmallCacheEvictsAndReencodesTheSamePixels) {
  // A cache far smaller than the image: tiles are dropped and made again as the view moves.
  auto engine = makeEngine(64 << 10);
  auto source = busySource(400, 300, 2);
  Renderer r(engine, source, {64, 3, 64});
  Display d = combination(2);
  auto const first = r.render(0, {0, 0, 400, 300}, d);
  auto const again = r.render(0, {0, 0, 400, 300}, d);
  EXPECT_EQ(firstDifference(again, first, 400), "");
  EngineStats const s = engine->stats();
  EXPECT_GT(s.tileEvictions, 0u);
  EXPECT_EQ(s.rendersInFlight, 0u);
}

// A source with levels of its own, each a different picture, so that a level taken from the
// wrong anchor shows.
class FakePyramid : public ImageSource {
 public:
  FakePyramid(size_t w, size_t h, std::vector<size_t> levels) : w_(w), h_(h), levels_(levels) {}
  size_t width() const override { return w_; }
  size_t height() const override { return h_; }
  std::vector<size_t> nativeLevels() const override { return levels_; }
  void read(size_t level, Rect const& rect, uint8_t* rgba) const override {
    checkRead(level, rect);
    size_t const lw = levelExtent(w_, level);
    auto const all = busyImage(lw, levelExtent(h_, level), uint32_t(level) + 100);
    for (size_t y = 0; y < rect.height; ++y) {
      std::copy_n(&all[((rect.y + y) * lw + rect.x) * 4], rect.width * 4,
                  rgba + y * rect.width * 4);
    }
  }
  std::string description() const override { return "fake pyramid"; }

 private:
  size_t w_, h_;
  std::vector<size_t> levels_;
};

TEST(Renderer, NativeLevelsStartTransformsOfTheirOwn) {
  auto engine = makeEngine();
  // Levels 2 and 3 are the source's own; with three wavelet levels per transform the
  // anchors are 0, 3 (the coarsest native level within reach) and 6 (made from 3's).
  auto source = std::make_shared<FakePyramid>(400, 300, std::vector<size_t>{0, 2, 3});
  Renderer r(engine, source, {64, 3, 128});
  EXPECT_EQ(r.pyramid().anchors(), (std::vector<size_t>{0, 3, 6, 9}));
  for (size_t level : {0, 3}) {
    size_t const w = r.width(level), h = r.height(level);
    std::vector<uint8_t> own(w * h * 4);
    source->read(level, {0, 0, w, h}, own.data());
    EXPECT_EQ(firstDifference(r.render(level, {0, 0, w, h}, {}), own, w), "") << level;
  }
  // Level 4 is the low band of level 3's own pixels, not of level 0's.
  size_t w3 = r.width(3), h3 = r.height(3), rw = 0, rh = 0;
  std::vector<uint8_t> own3(w3 * h3 * 4);
  source->read(3, {0, 0, w3, h3}, own3.data());
  auto const expected = test::referenceLevel(own3, w3, h3, 1, rw, rh);
  EXPECT_EQ(firstDifference(r.render(4, {0, 0, rw, rh}, {}), expected, rw), "");
}

TEST(Renderer, RefusesRequestsOutsideTheImage) {
  auto engine = makeEngine();
  Renderer r(engine, busySource(100, 80, 1), {64, 3, 64});
  EXPECT_THROW(r.render(r.levels(), {0, 0, 1, 1}, {}), std::out_of_range);
  EXPECT_THROW(r.render(0, {90, 0, 11, 10}, {}), std::out_of_range);
  EXPECT_THROW(r.render(1, {0, 0, 51, 40}, {}), std::out_of_range);
  EXPECT_THROW(r.render(0, {0, 0, 0, 10}, {}), std::out_of_range);
  Display bad;
  bad.clahe = 0.5;
  EXPECT_THROW(r.render(0, {0, 0, 10, 10}, bad), DisplayError);
  // Nothing was left locked or in flight by the refusals.
  EXPECT_NO_THROW(r.render(0, {0, 0, 100, 80}, combination(3)));
  EXPECT_EQ(engine->stats().rendersInFlight, 0u);
  EXPECT_THROW(Renderer(engine, busySource(10, 10, 1), {100, 3, 64}), std::invalid_argument);
}

size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * 4096;
}

// Random views of every level of a 65536 x 65536 slide through a 16 MiB cache: the cache
// holds no more than its capacity once nothing is locked, and the process grows by less
// than the cache plus the per-render bound the README states (workspaces, encoder scratch,
// locked tiles: about 12 MiB per render in flight, two workers here).
TEST(Renderer, AHugeSlideStaysWithinTheCacheAndAStatedBound) {
  size_t const cache = size_t{16} << 20;
  auto engine = std::make_shared<Engine>(EngineOptions{2, cache});
  Renderer r(engine, std::make_shared<ProceduralSlide>(65536, 65536, 3), {256, 3, 256});
  std::mt19937 rng(5);
  Display enhanced = combination(1 | 2 | 4);
  auto view = [&] {
    size_t const level = rng() % r.levels();
    size_t const w = r.width(level), h = r.height(level);
    size_t const x = (rng() % ((w + 255) / 256)) * 256, y = (rng() % ((h + 255) / 256)) * 256;
    Rect const rect{x, y, std::min<size_t>(256, w - x), std::min<size_t>(256, h - y)};
    r.render(level, rect, rng() % 2 ? enhanced : Display{});
  };
  for (int i = 0; i < 8; ++i) view();
  [[maybe_unused]] size_t const before = residentBytes();
  for (int i = 0; i < 40; ++i) view();
  EngineStats const s = engine->stats();
  EXPECT_LE(s.cacheBytes, cache);
  EXPECT_GT(s.tileEvictions + s.tileMisses, 40u);
#ifndef QUORVEL_PLAIN_ALLOCATOR  // the sanitizers' allocators keep freed memory resident
  size_t const grown = residentBytes() - std::min(before, residentBytes());
  EXPECT_LT(grown, cache + (size_t{40} << 20)) << "bytes";
#endif
}

TEST(Renderer, MarginsCostLittleForLargeOutputTiles) {
  auto engine = makeEngine();
  auto source = busySource(1024, 768, 4);
  Renderer r(engine, source, {256, 3, 256});
  Display d = combination(1 | 2);
  for (size_t y = 0; y < 768; y += 256) {
    for (size_t x = 0; x < 1024; x += 256) r.render(0, {x, y, 256, 256}, d);
  }
  RenderCounters const c = r.counters();
  double const cost = double(c.reconstructed) / double(c.delivered);
  EXPECT_LT(cost, 1.5) << "pixels reconstructed per pixel delivered";
}

}  // namespace
}  // namespace quorvel::zoom
