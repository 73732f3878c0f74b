// The renderer's promises: exact reconstruction, levels that are the whole image's low band,
// and pixels that do not depend on how anyone cuts the image into tiles.

#include "quorvel/zoom/renderer.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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

// All of `level`, through the renderer.
std::vector<uint8_t> whole(Renderer const& r, size_t level, Display const& d = {}) {
  return r.render(level, {0, 0, r.width(level), r.height(level)}, d);
}

// The first differing pixel, for a failure message that says where and what.
std::string firstDifference(std::vector<uint8_t> const& a, std::vector<uint8_t> const& b,
                            size_t w) {
  if (a.size() != b.size()) return "sizes differ";
  size_t const i = size_t(std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
  if (i == a.size()) return "";
  return "pixel (" + std::to_string(i / 4 % w) + ", " + std::to_string(i / 4 / w) + ") channel " +
         std::to_string(i % 4) + ": " + std::to_string(a[i]) + " vs " + std::to_string(b[i]);
}

// A set of display filters: bit 0 sharpen, 1 CLAHE, 2 sRGB gamma with black and white
// levels, 3 colour matrix, 4 mask, 5 the linear gamma mode.
Display combination(unsigned bits) {
  Display d;
  if (bits & 1) d.sharpen = 0.8;
  if (bits & 2) d.clahe = 2.0;
  if (bits & 4) d.gamma = true, d.gammaValue = 1.7, d.black = 200, d.white = 3900;
  if (bits & 8) d.matrix = std::array<double, 9>{0.9, 0.1, 0, 0.2, 0.7, 0.1, 0, 0.3, 0.8};
  if (bits & 16) d.mask = std::vector<MaskRect>{{10, 120, 5, 90}, {100, 260, 60, 170}};
  if (bits & 32) {
    d.gamma = true, d.gammaMode = Display::GammaMode::kLinear, d.gammaValue = 0.6;
    d.black = 10, d.white = 240;
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

TEST(Renderer, LevelsAreTheWholeImageLowBandAndLevelZeroIsLossless) {
  auto engine = makeEngine();
  // With two wavelet levels per transform, levels 2, 4, ... start transforms of their own,
  // made from the low band below them.
  for (auto [w, h, tile, levels] : {std::array<size_t, 4>{301, 190, 32, 2},
                                    {300, 217, 64, 3},
                                    {33, 45, 16, 3},
                                    {517, 260, 256, 3}}) {
    auto source = busySource(w, h, uint32_t(w));
    std::vector<uint8_t> const image(source->pixels(), source->pixels() + w * h * 4);
    RendererOptions options{tile, levels, 128};
    options.pixelTiles = false;  // level 0 through the transform: the round trip is exact
    Renderer r(engine, source, options);
    EXPECT_EQ(firstDifference(whole(r, 0), image, w), "") << w << "x" << h << " tile " << tile;
    for (size_t level = 1; level < r.levels(); ++level) {
      size_t rw = 0, rh = 0;
      auto const expected = test::referenceLevel(image, w, h, level, rw, rh);
      ASSERT_EQ(rw, r.width(level));
      ASSERT_EQ(rh, r.height(level));
      EXPECT_EQ(firstDifference(whole(r, level), expected, rw), "")
          << w << "x" << h << " tile " << tile << " level " << level;
    }
  }
}

TEST(Renderer, TilingDoesNotChangeThePixels) {
  auto engine = makeEngine();
  std::mt19937 rng(11);
  for (auto [w, h, tile, levels, outputTile] :
       {std::array<size_t, 5>{283, 201, 64, 3, 64}, {170, 333, 32, 2, 48}}) {
    Renderer r(engine, busySource(w, h, uint32_t(w)), {tile, levels, outputTile});
    // Every filter alone, then combinations (bit 32 swaps in the linear gamma mode).
    for (unsigned bits : {0u, 1u, 2u, 4u, 8u, 16u, 32u, 3u, 7u, 15u, 31u, 35u, 63u - 4u}) {
      Display const d = combination(bits);
      for (size_t level = 0; level < std::min<size_t>(r.levels(), 5); ++level) {
        auto const pieces = renderInPieces(r, level, d, rng);
        EXPECT_EQ(firstDifference(pieces, whole(r, level, d), r.width(level)), "")
            << w << "x" << h << " filters " << bits << " level " << level;
      }
    }
  }
}

// Through a cache far smaller than the image, so that tiles are dropped and made again as
// the levels are rendered: the pixels are the same again, and whatever the encoder's tile.
TEST(Renderer, EncoderTileSizeAndEvictionDoNotChangeThePixels) {
  auto engine = makeEngine(64 << 10);
  auto source = busySource(260, 250, 9);
  Display const d = combination(1 | 2 | 4);
  std::vector<std::vector<uint8_t>> first;  // each level, as the first tile size made it
  for (size_t tile : {16, 64, 200, 512}) {
    Renderer r(engine, source, {tile, 3, 256});
    // Every level, then level 0 again after the cache has dropped its tiles.
    for (size_t i = 0; i <= r.levels(); ++i) {
      size_t const level = i % r.levels();
      auto const out = whole(r, level, d);
      if (first.size() == level) first.push_back(out);
      EXPECT_EQ(firstDifference(out, first[level], r.width(level)), "")
          << "tile " << tile << " level " << level << (i == level ? "" : " again");
    }
  }
  EngineStats const s = engine->stats();
  EXPECT_GT(s.tileEvictions, 0u);
  EXPECT_EQ(s.rendersInFlight, 0u);
}

// A source with levels of its own, each a different picture, so that a level taken from the
// wrong anchor shows.
struct FakePyramid : ImageSource {
  FakePyramid(size_t w, size_t h, std::vector<size_t> levels) : w_(w), h_(h), levels_(levels) {}
  size_t width() const override { return w_; }
  size_t height() const override { return h_; }
  std::vector<size_t> nativeLevels() const override { return levels_; }
  std::vector<uint8_t> pixels(size_t level) const {
    return busyImage(levelExtent(w_, level), levelExtent(h_, level), uint32_t(level) + 100);
  }
  void read(size_t level, Rect const& rect, uint8_t* rgba) const override {
    checkRead(level, rect);
    MemorySource(levelExtent(w_, level), levelExtent(h_, level), pixels(level)).read(0, rect, rgba);
  }
  std::string description() const override { return "fake pyramid"; }
  size_t w_, h_;
  std::vector<size_t> levels_;
};

TEST(Renderer, NativeLevelsStartTransformsOfTheirOwn) {
  auto engine = makeEngine();
  // Levels 2 and 3 are the source's own; with three wavelet levels per transform the
  // anchors are 0, 3 (the coarsest native level within reach) and 6 (made from 3's).
  auto source = std::make_shared<FakePyramid>(400, 300, std::vector<size_t>{0, 2, 3});
  RendererOptions options{64, 3, 128};
  options.pixelTiles = false;
  Renderer r(engine, source, options);
  EXPECT_EQ(r.pyramid().anchors(), (std::vector<size_t>{0, 3, 6, 9}));
  for (size_t level : {0, 3}) {
    EXPECT_EQ(firstDifference(whole(r, level), source->pixels(level), r.width(level)), "")
        << "level " << level;
  }
  // Level 4 is the low band of level 3's own pixels, not of level 0's.
  size_t rw = 0, rh = 0;
  auto const expected = test::referenceLevel(source->pixels(3), r.width(3), r.height(3), 1, rw, rh);
  EXPECT_EQ(firstDifference(whole(r, 4), expected, rw), "");
}

// A source's own levels are drawn from its pixels, skipping the transform; they must give
// what the transform gives with every display, translucent pixels included (the transform
// keeps colour only), and in pieces cut anywhere.
TEST(Renderer, PixelTilesGiveWhatTheTransformGives) {
  auto engine = makeEngine();
  auto source = std::make_shared<FakePyramid>(301, 222, std::vector<size_t>{0, 2, 3});
  std::vector<uint8_t> translucent = busyImage(150, 97, 5);
  for (size_t i = 3; i < translucent.size(); i += 4) translucent[i] = uint8_t(i * 7);
  std::mt19937 rng(5);
  for (auto const& image : std::vector<std::shared_ptr<ImageSource const>>{
           source, std::make_shared<MemorySource>(150, 97, translucent)}) {
    Renderer direct(engine, image, {64, 3, 96});
    RendererOptions viaTransform{64, 3, 96};
    viaTransform.pixelTiles = false;
    Renderer reference(engine, image, viaTransform);
    // Every filter alone, the pointwise ones together, then with the neighbourhood ones.
    for (unsigned bits : {0u, 1u, 2u, 4u, 8u, 16u, 32u, 28u, 31u, 35u}) {
      Display const d = combination(bits);
      for (size_t level : {0, 3, 4}) {
        if (level >= direct.levels()) continue;
        auto const expected = whole(reference, level, d);
        EXPECT_EQ(firstDifference(whole(direct, level, d), expected, direct.width(level)), "")
            << image->description() << " filters " << bits << " level " << level;
        EXPECT_EQ(
            firstDifference(renderInPieces(direct, level, d, rng), expected, direct.width(level)),
            "")
            << image->description() << " filters " << bits << " level " << level << " in pieces";
      }
    }
  }
  // Level 0 of a fresh image with no filters encodes nothing.
  auto fresh = makeEngine();
  Renderer r(fresh, busySource(300, 200, 3), {64, 3, 128});
  whole(r, 0);
  EXPECT_EQ(fresh->stats().blocksEncoded, 0u);
  EXPECT_GT(fresh->stats().tileMisses, 0u);
}

TEST(Renderer, RefusesRequestsOutsideTheImage) {
  auto engine = makeEngine();
  Renderer r(engine, busySource(100, 80, 1), {64, 3, 64});
  EXPECT_THROW(r.render(r.levels(), {0, 0, 1, 1}, {}), std::out_of_range);
  EXPECT_THROW(r.render(0, {90, 0, 11, 10}, {}), std::out_of_range);
  EXPECT_THROW(r.render(1, {0, 0, 51, 40}, {}), std::out_of_range);
  EXPECT_THROW(r.render(0, {0, 0, 0, 10}, {}), std::out_of_range);
  Display bad;
  bad.clahe = 0.5;  // the clip limit lies in 1 .. 100
  EXPECT_THROW(r.render(0, {0, 0, 10, 10}, bad), DisplayError);
  // Nothing was left locked or in flight by the refusals.
  EXPECT_NO_THROW(r.render(0, {0, 0, 100, 80}, combination(3)));
  EXPECT_EQ(engine->stats().rendersInFlight, 0u);
  EXPECT_THROW(Renderer(engine, busySource(10, 10, 1), {100, 3, 64}), std::invalid_argument);
}

size_t residentBytes() {
  size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
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
  RendererOptions options{256, 3, 256};
  options.pixelTiles = false;  // what the transform reconstructs around each output tile
  Renderer r(engine, busySource(1024, 768, 4), options);
  for (size_t y = 0; y < 768; y += 256) {
    for (size_t x = 0; x < 1024; x += 256) r.render(0, {x, y, 256, 256}, combination(1 | 2));
  }
  RenderCounters const c = r.counters();
  EXPECT_LT(double(c.reconstructed) / double(c.delivered), 1.5)
      << "pixels reconstructed per pixel delivered";
}

}  // namespace
}  // namespace quorvel::zoom
