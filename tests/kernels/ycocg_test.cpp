#include "quorvel/kernels/reconstruction/ycocg.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "kernels/simd_targets.hpp"
#include "support/buffers.hpp"

namespace quorvel {
namespace {

using Ycc = std::array<int16_t, 3>;
using Rgba = std::array<uint8_t, 4>;

using testing::buffer;
using testing::contents;

// The per-pixel formulas, written out.
Ycc toRgb16(Ycc p) {
  auto const t = static_cast<int16_t>(p[0] - (p[2] >> 1));
  auto const b = static_cast<int16_t>(t - (p[1] >> 1));
  return {static_cast<int16_t>(b + p[1]), static_cast<int16_t>(t + p[2]), b};
}
Rgba toRgba8(Ycc p) {
  int const t = p[0] - (p[2] >> 1), b = t - (p[1] >> 1);
  auto c = [](int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); };
  return {c(b + p[1]), c(t + p[2]), c(b), 255};
}

template <class F, class In, class Out>
void run(std::shared_ptr<Buffer2DVector<In>> const& in, std::vector<int> const& inRect,
         std::shared_ptr<Buffer2DVector<Out>> const& out, std::vector<int> const& outRect,
         char const* name) {
  F f(pointFilter(name));
  f.apply({in}, {inRect}, {out}, {outRect}, FilterEmptyParams::instance());
}

using ToRgb = SoftwareFilterYCoCgToRGB<int16_t, int16_t>;
using ToRgba = SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>;
using ToYcc = SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>;

TEST(YCoCg, DocumentedExamples) {
  auto src = buffer<Ycc>(4, 1);
  src->data()[1] = {-1, -1, -1};  // odd negative chroma halves towards minus infinity
  src->data()[2] = {300, 0, 0};   // above 255: saturates in 8 bits only
  src->data()[3] = {-5, 0, 0};    // negative: 0 in 8 bits
  auto rgba = buffer<Rgba>(4, 1);
  auto rgb = buffer<Ycc>(4, 1);
  run<ToRgba>(src, {0, 0, 4, 1}, rgba, {0, 0, 4, 1}, "FilterYCoCg16ToRGBA8");
  run<ToRgb>(src, {0, 0, 4, 1}, rgb, {0, 0, 4, 1}, "FilterYCoCg16ToRGB16");
  EXPECT_EQ(
      contents(*rgba),
      (std::vector<Rgba>{{0, 0, 0, 255}, {0, 0, 1, 255}, {255, 255, 255, 255}, {0, 0, 0, 255}}));
  // {-1,-1,-1}: t = -1 - (-1) = 0, G = -1, B = 0 - (-1) = 1, R = 0.
  EXPECT_EQ(contents(*rgb),
            (std::vector<Ycc>{{0, 0, 0}, {0, -1, 1}, {300, 300, 300}, {-5, -5, -5}}));
  // Alpha of the source is dropped.
  auto colour = buffer<Rgba>(1, 1, Rgba{10, 20, 30, 7});
  auto ycc = buffer<Ycc>(1, 1);
  run<ToYcc>(colour, {0, 0, 1, 1}, ycc, {0, 0, 1, 1}, "FilterRGBA8ToYCoCg16");
  // Co = -20, t = 30 - 10 = 20, Cg = 0, Y = 20.
  EXPECT_EQ(ycc->data()[0], (Ycc{20, -20, 0}));
}

TEST(YCoCg, RoundTripIsExactForAllColours) {
  // Every 24-bit colour once, in one 4096 x 4096 image, with a varying alpha, on the
  // dispatched target (the other targets are compared on random rows below).
  auto colours = std::make_shared<Buffer2DVector<Rgba>>(4096, 4096, true);
  for (uint32_t i = 0; i < (1u << 24); ++i) {
    colours->data()[i] = {static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8),
                          static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i * 7)};
  }
  auto ycc = std::make_shared<Buffer2DVector<Ycc>>(4096, 4096, true);
  auto back = std::make_shared<Buffer2DVector<Rgba>>(4096, 4096, true);
  run<ToYcc>(colours, {0, 0, 4096, 4096}, ycc, {0, 0, 4096, 4096}, "FilterRGBA8ToYCoCg16");
  run<ToRgba>(ycc, {0, 0, 4096, 4096}, back, {0, 0, 4096, 4096}, "FilterYCoCg16ToRGBA8");
  for (uint32_t i = 0; i < (1u << 24); ++i) {
    Rgba expected = colours->data()[i];
    expected[3] = 255;
    ASSERT_EQ(back->data()[i], expected) << "colour " << std::hex << i;
  }
}

TEST(YCoCg, VectorRowsMatchFormulasOnRandomData) {
  testing::forEachSimdTarget([] {
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> any(-32768, 32767), byte(0, 255);
    for (int w = 1; w <= 70; ++w) {
      auto src = buffer<Ycc>(w, 3);
      for (int i = 0; i < w * 3; ++i) {
        src->data()[i] = {static_cast<int16_t>(any(rng)), static_cast<int16_t>(any(rng)),
                          static_cast<int16_t>(any(rng))};
      }
      auto rgb = buffer<Ycc>(w, 3);
      auto rgba = buffer<Rgba>(w, 3);
      run<ToRgb>(src, {0, 0, w, 3}, rgb, {0, 0, w, 3}, "FilterYCoCg16ToRGB16");
      run<ToRgba>(src, {0, 0, w, 3}, rgba, {0, 0, w, 3}, "FilterYCoCg16ToRGBA8");
      std::vector<Ycc> rows(w * 3);
      reference::yCoCgToRgb16(src->data()->data(), rows.data()->data(), w * 3);
      for (int i = 0; i < w * 3; ++i) {
        ASSERT_EQ(rgb->data()[i], toRgb16(src->data()[i])) << "w=" << w << " i=" << i;
        ASSERT_EQ(rows[i], toRgb16(src->data()[i]));
        ASSERT_EQ(rgba->data()[i], toRgba8(src->data()[i])) << "w=" << w << " i=" << i;
      }
      auto colours = buffer<Rgba>(w, 2);
      for (int i = 0; i < w * 2; ++i) {
        colours->data()[i] = {static_cast<uint8_t>(byte(rng)), static_cast<uint8_t>(byte(rng)),
                              static_cast<uint8_t>(byte(rng)), static_cast<uint8_t>(byte(rng))};
      }
      auto ycc = buffer<Ycc>(w, 2), scalar = buffer<Ycc>(w, 2);
      run<ToYcc>(colours, {0, 0, w, 2}, ycc, {0, 0, w, 2}, "FilterRGBA8ToYCoCg16");
      reference::rgba8ToYCoCg(colours->data()->data(), scalar->data()->data(), w * 2);
      ASSERT_EQ(contents(*ycc), contents(*scalar)) << "w=" << w;
    }
  });
}

TEST(YCoCg, ExtremeInputsClampLikeThirtyTwoBitSums) {
  // Channel sums beyond 16 bits must still clamp as the 32-bit sums do.
  std::vector<int16_t> const edges{-32768, -32767, -16385, -16384, -256,  -1,    0,
                                   1,      255,    256,    16383,  16384, 32766, 32767};
  std::vector<Ycc> pixels;
  for (int16_t y : edges) {
    for (int16_t co : edges) {
      for (int16_t cg : edges) pixels.push_back({y, co, cg});
    }
  }
  testing::forEachSimdTarget([&] {
    int const w = static_cast<int>(pixels.size());
    auto src = buffer<Ycc>(w, 1);
    std::copy(pixels.begin(), pixels.end(), src->data());
    auto rgba = buffer<Rgba>(w, 1);
    run<ToRgba>(src, {0, 0, w, 1}, rgba, {0, 0, w, 1}, "FilterYCoCg16ToRGBA8");
    for (int i = 0; i < w; ++i) {
      ASSERT_EQ(rgba->data()[i], toRgba8(pixels[i]))
          << pixels[i][0] << " " << pixels[i][1] << " " << pixels[i][2];
    }
  });
}

TEST(YCoCg, ClipsToTheTargetAndLeavesTheRestUntouched) {
  Rgba const sentinel{1, 2, 3, 4};
  auto src = buffer<Ycc>(6, 5, Ycc{100, 0, 0});
  src->data()[2 * 6 + 2] = {7, 0, 0};  // source (2, 2) lands on target (3, 2)
  auto target = buffer<Rgba>(4, 4, sentinel);
  // Output at (2, 1) of size 5 x 5 reaches past the target: only 2 x 3 pixels are written,
  // from source (1, 1) on.
  run<ToRgba>(src, {1, 1, 5, 5}, target, {2, 1, 5, 5}, "FilterYCoCg16ToRGBA8");
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      Rgba expected = sentinel;
      if (x >= 2 && y >= 1) expected = {100, 100, 100, 255};
      if (x == 3 && y == 2) expected = {7, 7, 7, 255};
      EXPECT_EQ(target->data()[y * 4 + x], expected) << x << "," << y;
    }
  }
  // An output rectangle that misses the target fails in validation.
  EXPECT_ANY_THROW(run<ToRgba>(src, {0, 0, 2, 2}, target, {9, 9, 2, 2}, "FilterYCoCg16ToRGBA8"));
}

}  // namespace
}  // namespace quorvel
