#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iterator>
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

double luminance(uint8_t const* p) { return 0.299 * p[0] + 0.587 * p[1] + 0.114 * p[2]; }

TEST(ProceduralSlide, ReadsDoNotDependOnTheRectangleOrThread) {
  ProceduralSlide const slide(8192, 8192, 3);
  // Regions over the label and over tissue, at level 0 and level 3.
  for (auto const& [level, whole] : {std::pair<size_t, Rect>{0, {1200, 3000, 300, 200}},
                                     std::pair<size_t, Rect>{0, {3500, 2900, 300, 200}},
                                     std::pair<size_t, Rect>{3, {150, 370, 300, 200}},
                                     std::pair<size_t, Rect>{3, {700, 400, 300, 200}}}) {
    auto const expected = readRect(slide, level, whole);
    std::vector<uint8_t> stitched(expected.size(), 0);
    size_t const xs[] = {0, 1, 77, 160, 300}, ys[] = {0, 63, 64, 199, 200};
    std::vector<std::thread> threads;
    for (size_t i = 0; i + 1 < std::size(xs); ++i) {
      for (size_t j = 0; j + 1 < std::size(ys); ++j) {
        threads.emplace_back([&, i, j] {
          Rect const part{whole.x + xs[i], whole.y + ys[j], xs[i + 1] - xs[i], ys[j + 1] - ys[j]};
          auto const pixels = readRect(slide, level, part);
          for (size_t r = 0; r < part.height; ++r) {
            std::copy_n(&pixels[r * part.width * 4], part.width * 4,
                        &stitched[((ys[j] + r) * whole.width + xs[i]) * 4]);
          }
        });
      }
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(stitched, expected) << "level " << level << " " << whole.str();
  }
}

TEST(ProceduralSlide, SeedsChangeTheLayout) {
  Rect const r{3000, 3000, 256, 256};
  auto const a = readRect(ProceduralSlide(8192, 8192, 1), 0, r);
  auto const b = readRect(ProceduralSlide(8192, 8192, 2), 0, r);
  size_t differing = 0;
  for (size_t i = 0; i < a.size(); ++i) differing += std::abs(a[i] - b[i]) > 8;
  EXPECT_GT(differing, a.size() / 20);
}

TEST(ProceduralSlide, EveryLevelIsNative) {
  for (auto const& [w, h] : {std::pair<size_t, size_t>{2048, 2048}, {3000, 17}, {1, 1}}) {
    ProceduralSlide const slide(w, h, 5);
    size_t const count = levelCount(w, h);
    std::vector<size_t> expected(count);
    for (size_t k = 0; k < count; ++k) expected[k] = k;
    EXPECT_EQ(slide.nativeLevels(), expected);
    uint8_t last[4] = {0, 0, 0, 0};
    slide.read(count - 1, {0, 0, 1, 1}, last);
    EXPECT_EQ(last[3], 255);
    EXPECT_GT(luminance(last), 50);
  }
}

TEST(ProceduralSlide, ReducedLevelsMatchLevelZero) {
  ProceduralSlide const slide(2048, 2048, 1);
  auto const full = readRect(slide, 0, {0, 0, 2048, 2048});
  // Level-0 rows and columns 256 .. 2048 (label, glass and tissue), at levels 1 and 3: each
  // reduced pixel against the mean of its block of level 0.
  for (size_t level : {1, 3}) {
    size_t const f = size_t{1} << level, n = 2048 / f, start = 256 / f;
    Rect const reduced{start, start, n - start, n - start};
    auto const small = readRect(slide, level, reduced);
    double mean0[3] = {0, 0, 0}, mean[3] = {0, 0, 0}, blockError = 0;
    for (size_t y = 0; y < reduced.height; ++y) {
      for (size_t x = 0; x < reduced.width; ++x) {
        for (int c = 0; c < 3; ++c) {
          double block = 0;
          for (size_t dy = 0; dy < f; ++dy) {
            for (size_t dx = 0; dx < f; ++dx) {
              block += full[(((reduced.y + y) * f + dy) * 2048 + (reduced.x + x) * f + dx) * 4 + c];
            }
          }
          block /= static_cast<double>(f * f);
          double const value = small[(y * reduced.width + x) * 4 + c];
          mean0[c] += block, mean[c] += value;
          blockError += std::abs(block - value);
        }
      }
    }
    double const count = static_cast<double>(reduced.width * reduced.height);
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(mean0[c] / count, mean[c] / count, 1.5) << "level " << level << " channel " << c;
    }
    // Pixel by pixel too: a shifted or mis-sized pixel area fails this.
    EXPECT_LT(blockError / (3 * count), level == 1 ? 0.8 : 2.5) << "level " << level;
  }
}

TEST(ProceduralSlide, ContentIsNotFlat) {
  ProceduralSlide const slide(2048, 2048, 1);
  auto const pixels = readRect(slide, 0, {0, 0, 2048, 2048});
  size_t light = 0, stained = 0, edges = 0, opaque = 0;
  for (size_t i = 0; i < 2048 * 2048; ++i) {
    uint8_t const* p = &pixels[i * 4];
    double const l = luminance(p);
    light += l > 215;
    stained += l < 170 && p[2] > p[1] + 20;  // pink to purple
    opaque += p[3] == 255;
    if (i % 2048 + 1 < 2048 && std::abs(l - luminance(p + 4)) > 60) ++edges;
  }
  EXPECT_EQ(opaque, size_t{2048} * 2048);
  EXPECT_GT(light, size_t{2048} * 2048 / 5);
  EXPECT_GT(stained, size_t{2048} * 2048 / 30);
  EXPECT_GT(edges, size_t{20000});
}

TEST(ProceduralSlide, BadArgumentsThrow) {
  EXPECT_THROW(ProceduralSlide(0, 10), std::invalid_argument);
  EXPECT_THROW(ProceduralSlide(10, 0), std::invalid_argument);
  EXPECT_THROW(ProceduralSlide((size_t{1} << 31) + 1, 10), std::invalid_argument);
  ProceduralSlide const slide(1000, 600);
  uint8_t buffer[64 * 4];
  EXPECT_THROW(slide.read(0, {990, 0, 11, 1}, buffer), std::out_of_range);
  EXPECT_THROW(slide.read(0, {0, 600, 1, 1}, buffer), std::out_of_range);
  EXPECT_THROW(slide.read(0, {0, 0, 0, 1}, buffer), std::out_of_range);
  EXPECT_THROW(slide.read(1, {0, 0, 501, 1}, buffer), std::out_of_range);
  EXPECT_THROW(slide.read(levelCount(1000, 600), {0, 0, 1, 1}, buffer), std::out_of_range);
  EXPECT_NO_THROW(slide.read(1, {499, 299, 1, 1}, buffer));
}

TEST(ProceduralSlide, HugeSlidesOpenAndReadQuickly) {
  auto const start = std::chrono::steady_clock::now();
  ProceduralSlide const slide;
  EXPECT_EQ(slide.width(), 65536u);
  EXPECT_EQ(slide.nativeLevels().size(), 17u);
  for (size_t level : {0, 8}) {
    auto const pixels = readRect(slide, level, {0, 0, 256, 256});
    size_t distinct = 0;
    for (size_t i = 4; i < pixels.size(); i += 4) distinct += pixels[i] != pixels[0];
    EXPECT_GT(distinct, 100u) << "level " << level;
  }
  // The largest size, at the far corner and at the top level.
  ProceduralSlide const largest(size_t{1} << 31, size_t{1} << 31, 9);
  size_t const last = (size_t{1} << 31) - 64;
  readRect(largest, 0, {last, last, 64, 64});
  readRect(largest, 0, {100'000'000, 1'000'000'000, 64, 64});
  readRect(largest, 31, {0, 0, 1, 1});
  // Generous: work proportional to the slide's size would take minutes.
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 10.0);
}

}  // namespace
}  // namespace quorvel::zoom
