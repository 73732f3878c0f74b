#include "quorvel/kernels/display/sharpness.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "kernels/display/sharpness_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "support/buffers.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using Rgba8 = std::array<uint8_t, 4>;
using RgbS16 = std::array<int16_t, 3>;
using Rgb16 = std::array<uint16_t, 3>;
using Rect = std::vector<int>;
using testing::buffer;

template <class P>
std::shared_ptr<Buffer2DVector<P>> randomBuffer(int w, int h, int lo, int hi, std::mt19937& gen) {
  auto b = buffer<P>(w, h);
  std::uniform_int_distribution<int> dist(lo, hi);
  for (int i = 0; i < w * h; ++i) {
    for (auto& c : b->data()[i]) c = static_cast<typename P::value_type>(dist(gen));
  }
  return b;
}

template <class P>
P at(Buffer2DVector<P> const& b, int64_t x, int64_t y) {
  return b.data()[static_cast<size_t>(y) * b.width() + static_cast<size_t>(x)];
}

// --- References, written straight from the formulas, in 64-bit with explicit 32-bit wrap.

int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }
int64_t clamp10(int64_t v) { return std::clamp<int64_t>(v, 0, 1023); }

int32_t refStrength(double gain, int32_t level) {
  int32_t const s = static_cast<int32_t>(gain * 32.0);
  return s >> (((level % 32) + 32) % 32);
}

// Output pixel centred on source pixel (cx, cy).
Rgba8 refSharpen8(Buffer2DVector<Rgba8> const& src, int64_t cx, int64_t cy, int32_t s) {
  static int const kWeights[5][5] = {
      {0, 0, 1, 0, 0}, {0, 5, 15, 5, 0}, {1, 15, 44, 15, 1}, {0, 5, 15, 5, 0}, {0, 0, 1, 0, 0}};
  Rgba8 out{};
  for (size_t ch = 0; ch < 4; ++ch) {
    int64_t blur = 0;
    for (int dy = -2; dy <= 2; ++dy) {
      for (int dx = -2; dx <= 2; ++dx)
        blur += kWeights[dy + 2][dx + 2] * at(src, cx + dx, cy + dy)[ch];
    }
    int64_t const c = at(src, cx, cy)[ch];
    int32_t const r = wrap32(c * 4096 + 2048 + (128 * c - blur) * s) >> 12;
    out[ch] = static_cast<uint8_t>(std::clamp(r, 0, 255));
  }
  return out;
}

int64_t const kTaps[5] = {1, 13, 36, 13, 1};

Rgb16 refBlurH16(Buffer2DVector<RgbS16> const& src, int64_t cx, int64_t y) {
  Rgb16 out{};
  for (size_t ch = 0; ch < 3; ++ch) {
    int64_t h = 0;
    for (int d = -2; d <= 2; ++d) h += kTaps[d + 2] * clamp10(at(src, cx + d, y)[ch]);
    out[ch] = static_cast<uint16_t>(std::clamp<int64_t>(h, 0, 65535));
  }
  return out;
}

// Image pixel (ix, iy) sharpened against blurSum(ch), the blur of channel ch scaled by 4096.
template <class F>
RgbS16 refMix16(Buffer2DVector<RgbS16> const& image, int64_t ix, int64_t iy, int32_t s,
                F&& blurSum) {
  RgbS16 out{};
  for (size_t ch = 0; ch < 3; ++ch) {
    int64_t const c = clamp10(at(image, ix, iy)[ch]);
    int32_t const r = wrap32(c * 131072 + 65536 + (c * 4096 - blurSum(ch)) * s) >> 17;
    out[ch] = static_cast<int16_t>(std::clamp(r, -32768, 32767));
  }
  return out;
}

// Image pixel (ix, iy) against the blur column bx centred on row by.
RgbS16 refSharpenV16(Buffer2DVector<RgbS16> const& image, int64_t ix, int64_t iy,
                     Buffer2DVector<Rgb16> const& blur, int64_t bx, int64_t by, int32_t s) {
  return refMix16(image, ix, iy, s, [&](size_t ch) {
    int64_t b = 0;
    for (int d = -2; d <= 2; ++d) b += kTaps[d + 2] * at(blur, bx, by + d)[ch];
    return b;
  });
}

// The full 2-D separable blur of the pair, computed directly.
RgbS16 refSharpen2D16(Buffer2DVector<RgbS16> const& image, int64_t cx, int64_t cy, int32_t s) {
  return refMix16(image, cx, cy, s, [&](size_t ch) {
    int64_t b = 0;
    for (int dy = -2; dy <= 2; ++dy) {
      for (int dx = -2; dx <= 2; ++dx) {
        b += kTaps[dy + 2] * kTaps[dx + 2] * clamp10(at(image, cx + dx, cy + dy)[ch]);
      }
    }
    return b;
  });
}

// Checks every target pixel: inside `out` it must equal expected(i, j), elsewhere the sentinel.
template <class P, class F>
void expectTarget(Buffer2DVector<P> const& target, Rect const& out, P sentinel, F&& expected) {
  for (int64_t y = 0; y < static_cast<int64_t>(target.height()); ++y) {
    for (int64_t x = 0; x < static_cast<int64_t>(target.width()); ++x) {
      bool const inside = x >= out[0] && x < out[0] + out[2] && y >= out[1] && y < out[1] + out[3];
      P const want = inside ? expected(x - out[0], y - out[1]) : sentinel;
      ASSERT_EQ(at(target, x, y), want) << "pixel (" << x << ", " << y << ")"
                                        << (inside ? " inside" : " outside") << " the output";
    }
  }
}

template <class Params = FilterSharpness8Params>
Params params(double gain, int32_t level) {
  Params p;
  p.gain = gain;
  p.level = level;
  return p;
}
auto const params16 = params<FilterSharpness16Params>;

TEST(SharpnessStrength, TruncatesGainAndShiftsByLevel) {
  struct Case {
    double gain;
    int32_t level, want;
  };
  // A negative level shifts by its non-negative residue (-1 -> 31); values the conversion
  // cannot hold saturate; NaN means no sharpening.
  Case const cases[] = {{1.0, 0, 32},           {1.0, 1, 16},        {1.0, 33, 16},
                        {0.03, 0, 0},           {-1.0, 0, -32},      {-1.0, 2, -8},
                        {-0.03, 0, 0},          {2.5, 0, 80},        {1.0, -1, 0},
                        {-1.0, -1, -1},         {1.0, -31, 16},      {1e300, 0, INT32_MAX},
                        {-1e300, 0, INT32_MIN}, {std::nan(""), 0, 0}};
  for (Case const& c : cases) {
    EXPECT_EQ(sharpness_detail::strength(c.gain, c.level), c.want)
        << "gain " << c.gain << " level " << c.level;
  }
}

class Sharpness8 : public ::testing::Test {
 protected:
  SoftwareFilterSharpness<uint8_t, 4> filter_{pointFilter("FilterSharpness8")};
  Rgba8 const sentinel_{{0xA5, 0x5A, 0xC3, 0x3C}};
};

TEST_F(Sharpness8, FlatColourStaysWhileAnAlphaSpikeOvershoots) {
  // Colour is flat, alpha has a spike: colour stays, and alpha is sharpened like colour,
  // rising at the spike and dipping beside it. The overshoot pins the sign of the detail
  // term, which a reference written the same wrong way round would not catch.
  auto src = buffer<Rgba8>(40, 9, {{0, 77, 200, 100}});
  src->data()[4 * 40 + 4][3] = 140;
  auto dst = buffer<Rgba8>(36, 5);
  filter_.apply({src}, {{0, 0, 40, 9}}, {dst}, {{0, 0, 36, 5}}, params(1.0, 0));
  expectTarget(*dst, {0, 0, 36, 5}, sentinel_, [&](int64_t i, int64_t j) {
    return Rgba8{{0, 77, 200, refSharpen8(*src, i + 2, j + 2, 32)[3]}};
  });
  EXPECT_GT(at(*dst, 2, 2)[3], 140);
  EXPECT_LT(at(*dst, 1, 2)[3], 100);
}

TEST_F(Sharpness8, MatchesReferenceForEveryWidthAndTarget) {
  std::mt19937 gen(2);
  struct Case {
    double gain;
    int32_t level;
  };
  // Gain 0 must give back the source exactly. At 2000 the sums stay inside 32 bits; at
  // 5000 the steepest edges wrap.
  Case const cases[] = {{1.0, 0},    {2.75, 1},   {-1.5, 0}, {12.0, 3},
                        {2000.0, 0}, {-0.9, -30}, {0.0, 0},  {5000.0, 0}};
  testing::forEachSimdTarget([&] {
    for (int w = 1; w <= 20; ++w) {
      for (int h : {1, 3}) {
        Case const& c = cases[static_cast<size_t>(w + h) % std::size(cases)];
        auto src = randomBuffer<Rgba8>(w + 7, h + 6, 0, 255, gen);
        auto dst = buffer<Rgba8>(w + 3, h + 2, sentinel_);
        Rect const out{2, 1, w, h};
        filter_.apply({src}, {{3, 1, w + 4, h + 4}}, {dst}, {out}, params(c.gain, c.level));
        int32_t const s = refStrength(c.gain, c.level);
        SCOPED_TRACE(::testing::Message() << "width " << w << " height " << h << " s " << s);
        expectTarget(*dst, out, sentinel_, [&](int64_t i, int64_t j) {
          return refSharpen8(*src, 3 + 2 + i, 1 + 2 + j, s);
        });
      }
    }
  });
}

TEST_F(Sharpness8, ClipsEveryRectangleToItsBuffer) {
  std::mt19937 gen(3);
  auto src = randomBuffer<Rgba8>(12, 10, 0, 255, gen);
  // The output loses 2 columns and 1 row on the left/top, so the windows move by as much;
  // the source then has room for 12 - 4 - 2 = 6 columns and 10 - 4 - 1 = 5 rows.
  auto dst = buffer<Rgba8>(20, 20, sentinel_);
  filter_.apply({src}, {{0, 0, 100, 100}}, {dst}, {{-2, -1, 50, 50}}, params(1.0, 0));
  expectTarget(*dst, {0, 0, 6, 5}, sentinel_,
               [&](int64_t i, int64_t j) { return refSharpen8(*src, 2 + 2 + i, 1 + 2 + j, 32); });
  // A negative input origin drops the output pixels whose windows start outside.
  dst->clear(sentinel_);
  filter_.apply({src}, {{-3, -1, 16, 14}}, {dst}, {{4, 4, 16, 14}}, params(1.0, 0));
  expectTarget(*dst, {7, 5, 8, 6}, sentinel_,
               [&](int64_t i, int64_t j) { return refSharpen8(*src, 2 + i, 2 + j, 32); });
  // A source too small for one window leaves the target untouched.
  dst->clear(sentinel_);
  filter_.apply({buffer<Rgba8>(4, 30)}, {{0, 0, 4, 30}}, {dst}, {{0, 0, 5, 5}}, params(1.0, 0));
  expectTarget(*dst, {0, 0, 0, 0}, sentinel_, [&](int64_t, int64_t) { return sentinel_; });
}

TEST_F(Sharpness8, RejectsBadInputWithTheFrameworkMessages) {
  auto src = buffer<Rgba8>(8, 8), dst = buffer<Rgba8>(4, 4);
  EXPECT_NE(testing::failureOf([&] {
              filter_.apply({src}, {Rect{}}, {dst}, {{0, 0, 4, 4}}, FilterEmptyParams::instance());
            }).find("Filter parameters cast failed"),
            std::string::npos);
  EXPECT_THROW(filter_.apply({src}, {Rect{}}, {dst}, {{4, 0, 4, 4}}, params(1.0, 0)),
               QuorvelException);
  auto empty = std::make_shared<Buffer2DVector<Rgba8>>(8, 8, false);
  EXPECT_THROW(filter_.apply({empty}, {Rect{}}, {dst}, {{0, 0, 4, 4}}, params(1.0, 0)),
               QuorvelException);
}

class Sharpness16 : public ::testing::Test {
 protected:
  SoftwareFilterSharpnessH16<3> horizontal_{pointFilter("FilterSharpnessH16")};
  SoftwareFilterSharpnessV16<3> vertical_{pointFilter("FilterSharpnessV16", 2)};
  RgbS16 const sentinelS_{{-12345, 4321, 0x5A5A}};
  Rgb16 const sentinelU_{{0xDEAD, 0xBEEF, 0xA5A5}};
};

TEST_F(Sharpness16, HorizontalBlurClampsToTenBitsForEveryWidth) {
  std::mt19937 gen(4);
  // Every width up to 20 for the tails, then rows long enough for the aligned-load path,
  // whose first and last loads are masked to the samples a row may read.
  std::vector<int> const widths = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13,  14,
                                   15, 16, 17, 18, 19, 20, 22, 33, 43, 64, 65, 77, 100, 131};
  // A window from (30, 0) puts the first centre 192 bytes into the storage, on a cache line.
  testing::forEachSimdTarget([&] {
    for (int w : widths) {
      for (auto [x0, y0] : {std::pair{1, 1}, std::pair{30, 0}}) {
        auto src = randomBuffer<RgbS16>(x0 + w + 4, 3, -2000, 3000, gen);
        auto dst = buffer<Rgb16>(w + 2, 4, sentinelU_);
        Rect const out{1, 1, w, 2};
        horizontal_.apply({src}, {{x0, y0, w + 4, 2}}, {dst}, {out}, FilterEmptyParams::instance());
        SCOPED_TRACE(::testing::Message() << "width " << w << " from x " << x0);
        expectTarget(*dst, out, sentinelU_,
                     [&](int64_t i, int64_t j) { return refBlurH16(*src, x0 + 2 + i, y0 + j); });
      }
    }
  });
}

TEST_F(Sharpness16, VerticalPassMatchesReferenceForEveryWidth) {
  std::mt19937 gen(5);
  double const gains[] = {1.0, -2.0, 0.7, 30.0, 4000.0, -6.0e7};
  // 3 w samples a row: widths 1..32 leave every tail length of 32 lanes, 22 and up two
  // whole vectors and more.
  testing::forEachSimdTarget([&] {
    for (int w = 1; w <= 32; ++w) {
      auto image = randomBuffer<RgbS16>(w + 3, 8, -1500, 2500, gen);
      auto blur = randomBuffer<Rgb16>(w + 1, 9, 0, 65535, gen);
      auto dst = buffer<RgbS16>(w + 1, 5, sentinelS_);
      double const gain = gains[static_cast<size_t>(w) % 6];
      Rect const out{1, 2, w, 3};
      // The two sources are read from the origins of their own rectangles.
      vertical_.apply({image, blur}, {{2, 1, w, 7}, {0, 2, w, 7}}, {dst}, {out},
                      params16(gain, w % 3));
      int32_t const s = refStrength(gain, w % 3);
      SCOPED_TRACE(::testing::Message() << "width " << w << " s " << s);
      expectTarget(*dst, out, sentinelS_, [&](int64_t i, int64_t j) {
        return refSharpenV16(*image, 2 + i, 3 + j, *blur, i, 4 + j, s);
      });
      // With one rectangle both sources share it.
      dst->clear(sentinelS_);
      vertical_.apply({image, blur}, {{0, 1, w, 7}}, {dst}, {out}, params16(gain, 0));
      expectTarget(*dst, out, sentinelS_, [&](int64_t i, int64_t j) {
        return refSharpenV16(*image, i, 3 + j, *blur, i, 3 + j, refStrength(gain, 0));
      });
    }
  });
}

TEST_F(Sharpness16, GainZeroReturnsTheTenBitClampedImage) {
  auto image = buffer<RgbS16>(6, 7);
  for (size_t i = 0; i < 42; ++i) {
    image->data()[i] = {{static_cast<int16_t>(i * 50 - 300), static_cast<int16_t>(-32768 + i),
                         static_cast<int16_t>(32767 - i)}};
  }
  auto blur = buffer<Rgb16>(6, 7);
  horizontal_.apply({image}, {{0, 0, 6, 7}}, {blur}, {{2, 0, 2, 7}}, FilterEmptyParams::instance());
  auto dst = buffer<RgbS16>(6, 3);
  vertical_.apply({image, blur}, {{0, 0, 6, 7}, {0, 0, 6, 7}}, {dst}, {{0, 0, 6, 3}},
                  params16(0.0, 0));
  expectTarget(*dst, {0, 0, 6, 3}, RgbS16{}, [&](int64_t i, int64_t j) {
    return RgbS16{{static_cast<int16_t>(clamp10(at(*image, i, j + 2)[0])), 0, 1023}};
  });
}

TEST_F(Sharpness16, HorizontalThenVerticalEqualsTheDirectTwoDimensionalBlur) {
  std::mt19937 gen(6);
  int const w = 29, h = 13;
  auto image = randomBuffer<RgbS16>(w, h, -200, 1300, gen);
  // The horizontal pass covers the full height so the vertical pass has its rows.
  auto blur = buffer<Rgb16>(w - 4, h);
  horizontal_.apply({image}, {{0, 0, w, h}}, {blur}, {{0, 0, w - 4, h}},
                    FilterEmptyParams::instance());
  for (double gain : {1.0, 2.5, -0.75}) {
    auto dst = buffer<RgbS16>(w - 4, h - 4);
    vertical_.apply({image, blur}, {{2, 0, w - 4, h}, {0, 0, w - 4, h}}, {dst},
                    {{0, 0, w - 4, h - 4}}, params16(gain, 1));
    int32_t const s = refStrength(gain, 1);
    expectTarget(*dst, {0, 0, w - 4, h - 4}, RgbS16{},
                 [&](int64_t i, int64_t j) { return refSharpen2D16(*image, i + 2, j + 2, s); });
  }
}

TEST_F(Sharpness16, ClipsToEveryBuffer) {
  auto image = buffer<RgbS16>(10, 10, {{500, 500, 500}});
  auto blur = buffer<Rgb16>(4, 10, {{500 * 64, 500 * 64, 500 * 64}});
  auto dst = buffer<RgbS16>(10, 10, sentinelS_);
  // The narrower blur source limits the width to 4 and its height to 10 - 4 = 6 rows.
  vertical_.apply({image, blur}, {{0, 0, 10, 10}, {0, 0, 10, 10}}, {dst}, {{0, 0, 10, 10}},
                  params16(1.0, 0));
  expectTarget(*dst, {0, 0, 4, 6}, sentinelS_, [](int64_t, int64_t) {
    return RgbS16{{500, 500, 500}};
  });
  auto out16 = buffer<Rgb16>(10, 10, sentinelU_);
  horizontal_.apply({image}, {{-1, 3, 10, 10}}, {out16}, {{0, 0, 10, 10}},
                    FilterEmptyParams::instance());
  expectTarget(*out16, {1, 0, 6, 7}, sentinelU_, [](int64_t, int64_t) {
    return Rgb16{{32000, 32000, 32000}};
  });
}

}  // namespace
}  // namespace quorvel
