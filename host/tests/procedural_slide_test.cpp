#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>
#include <thread>
#include <utility>
#include <vector>

#include "quorvel/zoom/image_source.hpp"

namespace quorvel::zoom {
namespace {

std::vector<uint8_t> readRect(ImageSource const& source, size_t level, Rect const& r) {
  std::vector<uint8_t> rgba(r.width * r.height * 4);
  source.read(level, r, rgba.data());
  return rgba;
}

using At = std::pair<size_t, Rect>;  // a rectangle of a level

double luminance(uint8_t const* p) { return 0.299 * p[0] + 0.587 * p[1] + 0.114 * p[2]; }

TEST(ProceduralSlide, ReadsDoNotDependOnTheRectangleOrThread) {
  ProceduralSlide const slide(8192, 8192, 3);
  // Regions over the label and over tissue, at level 0 and level 3, stitched from parts
  // read at once on threads of their own.
  for (auto const& [level, whole] : {At{0, {1200, 3000, 300, 200}}, At{0, {3500, 2900, 300, 200}},
                                     At{3, {150, 370, 300, 200}}, At{3, {700, 400, 300, 200}}}) {
    std::vector<uint8_t> stitched(whole.width * whole.height * 4, 0);
    size_t const xs[] = {0, 1, 77, 160, 300}, ys[] = {0, 63, 64, 199, 200};
    std::vector<std::thread> threads;
    for (size_t k = 0; k < 16; ++k) {
      threads.emplace_back([&, i = k % 4, j = k / 4] {
        Rect const part{whole.x + xs[i], whole.y + ys[j], xs[i + 1] - xs[i], ys[j + 1] - ys[j]};
        auto const pixels = readRect(slide, level, part);
        for (size_t r = 0; r < part.height; ++r) {
          std::copy_n(&pixels[r * part.width * 4], part.width * 4,
                      &stitched[((ys[j] + r) * whole.width + xs[i]) * 4]);
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(stitched, readRect(slide, level, whole)) << "level " << level << " " << whole.str();
  }
}

TEST(ProceduralSlide, LevelZeroLooksLikeTissueAndReducedLevelsAverageIt) {
  ProceduralSlide const slide(2048, 2048, 1);
  auto const full = readRect(slide, 0, {0, 0, 2048, 2048});
  // Another seed gives another layout.
  auto const other = readRect(ProceduralSlide(2048, 2048, 2), 0, {0, 0, 2048, 2048});
  size_t const all = 2048 * 2048;
  size_t light = 0, stained = 0, edges = 0, opaque = 0, differing = 0;
  for (size_t i = 0; i < all; ++i) {
    uint8_t const* p = &full[i * 4];
    double const l = luminance(p);
    light += l > 215;
    stained += l < 170 && p[2] > p[1] + 20;  // pink to purple
    opaque += p[3] == 255;
    if (i % 2048 + 1 < 2048 && std::abs(l - luminance(p + 4)) > 60) ++edges;
    for (size_t c = 0; c < 4; ++c) differing += std::abs(p[c] - other[i * 4 + c]) > 8;
  }
  EXPECT_EQ(opaque, all);
  EXPECT_GT(light, all / 5);
  EXPECT_GT(stained, all / 30);
  EXPECT_GT(edges, size_t{20000});
  EXPECT_GT(differing, all * 4 / 20);

  // Level-0 rows and columns 256 .. 2048 (label, glass and tissue), at levels 1 and 3: each
  // reduced pixel against the mean of its block of level 0.
  for (size_t level : {1, 3}) {
    size_t const f = size_t{1} << level, start = 256 / f, n = 2048 / f - start;
    auto const small = readRect(slide, level, {start, start, n, n});
    double sum0[3] = {0, 0, 0}, sum[3] = {0, 0, 0}, blockError = 0;
    for (size_t i = 0; i < n * n * 3; ++i) {
      size_t const x = (start + i / 3 % n) * f, y = (start + i / 3 / n) * f, c = i % 3;
      double block = 0;
      for (size_t d = 0; d < f * f; ++d) block += full[((y + d / f) * 2048 + x + d % f) * 4 + c];
      block /= double(f * f);
      sum0[c] += block, sum[c] += small[i / 3 * 4 + c];
      blockError += std::abs(block - small[i / 3 * 4 + c]);
    }
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(sum0[c] / (n * n), sum[c] / (n * n), 1.5)
          << "level " << level << " channel " << c;
    }
    // Pixel by pixel too: a shifted or mis-sized pixel area fails this.
    EXPECT_LT(blockError / (3 * n * n), level == 1 ? 0.8 : 2.5) << "level " << level;
  }
}

TEST(ProceduralSlide, EveryLevelIsNativeAndHugeSlidesAreCheap) {
  auto const start = std::chrono::steady_clock::now();
  size_t const huge = size_t{1} << 31;  // the largest size
  for (auto const& [w, h] :
       {std::pair<size_t, size_t>{2048, 2048}, {3000, 17}, {1, 1}, {huge, huge}}) {
    ProceduralSlide const slide(w, h, 5);
    std::vector<size_t> expected(levelCount(w, h));
    std::iota(expected.begin(), expected.end(), size_t{0});
    EXPECT_EQ(slide.nativeLevels(), expected) << w << " x " << h;
    auto const top = readRect(slide, expected.size() - 1, {0, 0, 1, 1});  // not blank
    EXPECT_EQ(top[3], 255) << w << " x " << h;
    EXPECT_GT(luminance(top.data()), 50) << w << " x " << h;
  }
  ProceduralSlide const largest(huge, huge, 9);
  readRect(largest, 0, {huge - 64, huge - 64, 64, 64});
  readRect(largest, 0, {100'000'000, 1'000'000'000, 64, 64});
  ProceduralSlide const standard;  // 65536 x 65536: detail at level 0 and level 8
  for (size_t level : {0, 8}) {
    auto const pixels = readRect(standard, level, {0, 0, 256, 256});
    size_t distinct = 0;
    for (size_t i = 4; i < pixels.size(); i += 4) distinct += pixels[i] != pixels[0];
    EXPECT_GT(distinct, 100u) << "level " << level;
  }
  // Generous: work proportional to the slide's size would take minutes.
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 10.0);
}

TEST(ProceduralSlide, RefusesBadSizesAndReadsOutside) {
  for (auto const& [w, h] :
       {std::pair<size_t, size_t>{0, 10}, {10, 0}, {(size_t{1} << 31) + 1, 10}}) {
    EXPECT_THROW(ProceduralSlide(w, h), std::invalid_argument) << w << " x " << h;
  }
  ProceduralSlide const slide(1000, 600);
  uint8_t buffer[64 * 4];
  for (auto const& [level, rect] :
       {At{0, {990, 0, 11, 1}}, At{0, {0, 600, 1, 1}}, At{0, {0, 0, 0, 1}}, At{1, {0, 0, 501, 1}},
        At{levelCount(1000, 600), {0, 0, 1, 1}}}) {
    EXPECT_THROW(slide.read(level, rect, buffer), std::out_of_range) << level << " " << rect.str();
  }
  EXPECT_NO_THROW(slide.read(1, {499, 299, 1, 1}, buffer));
}

}  // namespace
}  // namespace quorvel::zoom
