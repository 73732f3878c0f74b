#include "quorvel/kernels/display/sharpness.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "kernels/simd_targets.hpp"

namespace quorvel {
namespace {

using Rgba8 = std::array<uint8_t, 4>;
using RgbS16 = std::array<int16_t, 3>;
using Rgb16 = std::array<uint16_t, 3>;
using Rect = std::vector<int>;

template <class P>
std::shared_ptr<Buffer2DVector<P>> makeBuffer(size_t w, size_t h) {
  return std::make_shared<Buffer2DVector<P>>(w, h, true);
}

template <class P, class Gen>
void fillRandom(Buffer2DVector<P>& b, Gen&& gen) {
  for (size_t i = 0; i < b.width() * b.height(); ++i) {
    for (auto& c : b.data()[i]) c = static_cast<typename P::value_type>(gen());
  }
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

int16_t mix16(int64_t c, int64_t blur4096, int32_t s) {
  int32_t const r = wrap32(c * 131072 + 65536 + (c * 4096 - blur4096) * s) >> 17;
  return static_cast<int16_t>(std::clamp(r, -32768, 32767));
}

RgbS16 refSharpenV16(Buffer2DVector<RgbS16> const& image, Buffer2DVector<Rgb16> const& blur,
                     int64_t x, int64_t cy, int32_t s) {
  RgbS16 out{};
  for (size_t ch = 0; ch < 3; ++ch) {
    int64_t b = 0;
    for (int d = -2; d <= 2; ++d) b += kTaps[d + 2] * at(blur, x, cy + d)[ch];
    out[ch] = mix16(clamp10(at(image, x, cy)[ch]), b, s);
  }
  return out;
}

// The full 2-D separable blur of the pair, computed directly.
RgbS16 refSharpen2D16(Buffer2DVector<RgbS16> const& image, int64_t cx, int64_t cy, int32_t s) {
  RgbS16 out{};
  for (size_t ch = 0; ch < 3; ++ch) {
    int64_t b = 0;
    for (int dy = -2; dy <= 2; ++dy) {
      for (int dx = -2; dx <= 2; ++dx) {
        b += kTaps[dy + 2] * kTaps[dx + 2] * clamp10(at(image, cx + dx, cy + dy)[ch]);
      }
    }
    out[ch] = mix16(clamp10(at(image, cx, cy)[ch]), b, s);
  }
  return out;
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

FilterSharpness8Params params8(double gain, int32_t level) {
  FilterSharpness8Params p;
  p.gain = gain;
  p.level = level;
  return p;
}

FilterSharpness16Params params16(double gain, int32_t level) {
  FilterSharpness16Params p;
  p.gain = gain;
  p.level = level;
  return p;
}

TEST(SharpnessStrength, TruncatesGainAndShiftsByLevel) {
  using sharpness_detail::strength;
  EXPECT_EQ(strength(1.0, 0), 32);
  EXPECT_EQ(strength(1.0, 1), 16);
  EXPECT_EQ(strength(1.0, 33), 16);
  EXPECT_EQ(strength(0.03, 0), 0);
  EXPECT_EQ(strength(-1.0, 0), -32);
  EXPECT_EQ(strength(-1.0, 2), -8);
  EXPECT_EQ(strength(-0.03, 0), 0);
  EXPECT_EQ(strength(2.5, 0), 80);
  // A negative level shifts by its non-negative residue: -1 -> 31.
  EXPECT_EQ(strength(1.0, -1), 0);
  EXPECT_EQ(strength(-1.0, -1), -1);
  EXPECT_EQ(strength(1.0, -31), 16);
  // Values the conversion cannot hold saturate; NaN counts as no sharpening.
  EXPECT_EQ(strength(1e300, 0), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(strength(-1e300, 0), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(strength(std::nan(""), 0), 0);
}

class Sharpness8 : public ::testing::Test {
 protected:
  SoftwareFilterSharpness<uint8_t, 4> filter_{pointFilter("FilterSharpness8")};
  Rgba8 const sentinel_{{0xA5, 0x5A, 0xC3, 0x3C}};
};

TEST_F(Sharpness8, GainZeroIsIdentity) {
  std::mt19937 gen(1);
  auto src = makeBuffer<Rgba8>(37, 9);
  fillRandom(*src, gen);
  auto dst = makeBuffer<Rgba8>(33, 5);
  filter_.apply({src}, {{0, 0, 37, 9}}, {dst}, {{0, 0, 33, 5}}, params8(0.0, 0));
  expectTarget(*dst, {0, 0, 33, 5}, sentinel_,
               [&](int64_t i, int64_t j) { return at(*src, i + 2, j + 2); });
}

TEST_F(Sharpness8, FlatRegionIsUnchangedForAnyGain) {
  auto src = makeBuffer<Rgba8>(40, 8);
  src->clear({{0, 77, 200, 255}});
  for (double gain : {-5.0, -1.0, 0.5, 1.0, 3.7, 40.0, 5000.0}) {
    auto dst = makeBuffer<Rgba8>(36, 4);
    filter_.apply({src}, {{0, 0, 40, 8}}, {dst}, {{0, 0, 36, 4}}, params8(gain, 0));
    expectTarget(*dst, {0, 0, 36, 4}, sentinel_, [](int64_t, int64_t) {
      return Rgba8{{0, 77, 200, 255}};
    });
  }
}

TEST_F(Sharpness8, SharpensAlphaLikeColour) {
  // Colour is flat, alpha has a spike: only alpha changes, overshooting around the spike.
  auto src = makeBuffer<Rgba8>(9, 9);
  src->clear({{10, 20, 30, 100}});
  src->data()[4 * 9 + 4][3] = 140;
  auto dst = makeBuffer<Rgba8>(5, 5);
  filter_.apply({src}, {{0, 0, 9, 9}}, {dst}, {{0, 0, 5, 5}}, params8(1.0, 0));
  expectTarget(*dst, {0, 0, 5, 5}, sentinel_,
               [&](int64_t i, int64_t j) { return refSharpen8(*src, i + 2, j + 2, 32); });
  EXPECT_GT(at(*dst, 2, 2)[3], 140);
  EXPECT_LT(at(*dst, 1, 2)[3], 100);
  EXPECT_EQ(at(*dst, 2, 2)[0], 10);
}

TEST_F(Sharpness8, MatchesReferenceForEveryWidthAndTarget) {
  std::mt19937 gen(2);
  std::uniform_int_distribution<int> byte(0, 255);
  struct Case {
    double gain;
    int32_t level;
  };
  Case const cases[] = {{1.0, 0}, {2.75, 1}, {-1.5, 0}, {12.0, 3}, {2000.0, 0}, {-0.9, -30}};
  testing::forEachSimdTarget([&] {
    for (int w = 1; w <= 20; ++w) {
      for (int h : {1, 3}) {
        Case const& c = cases[static_cast<size_t>(w + h) % 6];
        auto src = makeBuffer<Rgba8>(static_cast<size_t>(w) + 7, static_cast<size_t>(h) + 6);
        fillRandom(*src, [&] { return byte(gen); });
        auto dst = makeBuffer<Rgba8>(static_cast<size_t>(w) + 3, static_cast<size_t>(h) + 2);
        dst->clear(sentinel_);
        Rect const out{2, 1, w, h};
        filter_.apply({src}, {{3, 1, w + 4, h + 4}}, {dst}, {out}, params8(c.gain, c.level));
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
  auto src = makeBuffer<Rgba8>(12, 10);
  fillRandom(*src, gen);
  // The output loses 2 columns and 1 row on the left/top, so the windows move by as much;
  // the source then has room for 12 - 4 - 2 = 6 columns and 10 - 4 - 1 = 5 rows.
  auto dst = makeBuffer<Rgba8>(20, 20);
  dst->clear(sentinel_);
  filter_.apply({src}, {{0, 0, 100, 100}}, {dst}, {{-2, -1, 50, 50}}, params8(1.0, 0));
  expectTarget(*dst, {0, 0, 6, 5}, sentinel_,
               [&](int64_t i, int64_t j) { return refSharpen8(*src, 2 + 2 + i, 1 + 2 + j, 32); });
  // A negative input origin drops the output pixels whose windows start outside.
  dst->clear(sentinel_);
  filter_.apply({src}, {{-3, -1, 16, 14}}, {dst}, {{4, 4, 16, 14}}, params8(1.0, 0));
  expectTarget(*dst, {7, 5, 8, 6}, sentinel_,
               [&](int64_t i, int64_t j) { return refSharpen8(*src, 2 + i, 2 + j, 32); });
  // A source too small for one window leaves the target untouched.
  auto tiny = makeBuffer<Rgba8>(4, 30);
  dst->clear(sentinel_);
  filter_.apply({tiny}, {{0, 0, 4, 30}}, {dst}, {{0, 0, 5, 5}}, params8(1.0, 0));
  expectTarget(*dst, {0, 0, 0, 0}, sentinel_, [&](int64_t, int64_t) { return sentinel_; });
}

TEST_F(Sharpness8, RejectsBadInputWithTheFrameworkMessages) {
  auto src = makeBuffer<Rgba8>(8, 8);
  auto dst = makeBuffer<Rgba8>(4, 4);
  EXPECT_THROW(
      {
        try {
          filter_.apply({src}, {Rect{}}, {dst}, {{0, 0, 4, 4}}, FilterEmptyParams::instance());
        } catch (QuorvelException const& e) {
          EXPECT_NE(std::string(e.what()).find("Filter parameters cast failed"), std::string::npos);
          throw;
        }
      },
      QuorvelException);
  EXPECT_THROW(filter_.apply({src}, {Rect{}}, {dst}, {{4, 0, 4, 4}}, params8(1.0, 0)),
               QuorvelException);
  auto empty = std::make_shared<Buffer2DVector<Rgba8>>(8, 8, false);
  EXPECT_THROW(filter_.apply({empty}, {Rect{}}, {dst}, {{0, 0, 4, 4}}, params8(1.0, 0)),
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
  std::uniform_int_distribution<int> sample(-2000, 3000);
  // Every width up to 20 for the tails, then rows long enough for the aligned-load path,
  // whose first and last loads are masked to the samples a row may read.
  std::vector<int> widths(20);
  std::iota(widths.begin(), widths.end(), 1);
  widths.insert(widths.end(), {22, 33, 43, 64, 65, 77, 100, 131});
  // A window from (30, 0) puts the first centre 192 bytes into the storage, on a cache line.
  testing::forEachSimdTarget([&] {
    for (int w : widths) {
      for (auto [x0, y0] : {std::pair{1, 1}, std::pair{30, 0}}) {
        auto src = makeBuffer<RgbS16>(static_cast<size_t>(x0 + w + 4), 3);
        fillRandom(*src, [&] { return sample(gen); });
        auto dst = makeBuffer<Rgb16>(static_cast<size_t>(w) + 2, 4);
        dst->clear(sentinelU_);
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
  std::uniform_int_distribution<int> sample(-1500, 2500);
  std::uniform_int_distribution<int> blurSample(0, 65535);
  double const gains[] = {1.0, -2.0, 0.7, 30.0, 4000.0, -6.0e7};
  testing::forEachSimdTarget([&] {
    for (int w = 1; w <= 20; ++w) {
      auto image = makeBuffer<RgbS16>(static_cast<size_t>(w) + 3, 8);
      auto blur = makeBuffer<Rgb16>(static_cast<size_t>(w) + 1, 9);
      fillRandom(*image, [&] { return sample(gen); });
      fillRandom(*blur, [&] { return blurSample(gen); });
      auto dst = makeBuffer<RgbS16>(static_cast<size_t>(w) + 1, 5);
      dst->clear(sentinelS_);
      double const gain = gains[static_cast<size_t>(w) % 6];
      Rect const out{1, 2, w, 3};
      // The two sources are read from the origins of their own rectangles.
      vertical_.apply({image, blur}, {{2, 1, w, 7}, {0, 2, w, 7}}, {dst}, {out},
                      params16(gain, w % 3));
      int32_t const s = refStrength(gain, w % 3);
      SCOPED_TRACE(::testing::Message() << "width " << w << " s " << s);
      expectTarget(*dst, out, sentinelS_, [&](int64_t i, int64_t j) {
        RgbS16 want{};
        for (size_t ch = 0; ch < 3; ++ch) {
          int64_t b = 0;
          for (int d = 0; d < 5; ++d) b += kTaps[d] * at(*blur, i, 2 + j + d)[ch];
          want[ch] = mix16(clamp10(at(*image, 2 + i, 1 + 2 + j)[ch]), b, s);
        }
        return want;
      });
      // With one rectangle both sources share it.
      dst->clear(sentinelS_);
      vertical_.apply({image, blur}, {{0, 1, w, 7}}, {dst}, {out}, params16(gain, 0));
      int32_t const s0 = refStrength(gain, 0);
      expectTarget(*dst, out, sentinelS_, [&](int64_t i, int64_t j) {
        return refSharpenV16(*image, *blur, i, 1 + 2 + j, s0);
      });
    }
  });
}

TEST_F(Sharpness16, GainZeroReturnsTheTenBitClampedImage) {
  auto image = makeBuffer<RgbS16>(6, 7);
  for (size_t i = 0; i < 42; ++i) {
    image->data()[i] = {{static_cast<int16_t>(i * 50 - 300), static_cast<int16_t>(-32768 + i),
                         static_cast<int16_t>(32767 - i)}};
  }
  auto blur = makeBuffer<Rgb16>(6, 7);
  horizontal_.apply({image}, {{0, 0, 6, 7}}, {blur}, {{2, 0, 2, 7}}, FilterEmptyParams::instance());
  auto dst = makeBuffer<RgbS16>(6, 3);
  vertical_.apply({image, blur}, {{0, 0, 6, 7}, {0, 0, 6, 7}}, {dst}, {{0, 0, 6, 3}},
                  params16(0.0, 0));
  for (int64_t j = 0; j < 3; ++j) {
    for (int64_t i = 0; i < 6; ++i) {
      auto const c = at(*image, i, j + 2);
      RgbS16 const want{{static_cast<int16_t>(clamp10(c[0])), 0, 1023}};
      EXPECT_EQ(at(*dst, i, j), want) << i << ", " << j;
    }
  }
}

TEST_F(Sharpness16, HorizontalThenVerticalEqualsTheDirectTwoDimensionalBlur) {
  std::mt19937 gen(6);
  std::uniform_int_distribution<int> sample(-200, 1300);
  size_t const w = 29, h = 13;
  auto image = makeBuffer<RgbS16>(w, h);
  fillRandom(*image, [&] { return sample(gen); });
  // The horizontal pass covers the full height so the vertical pass has its rows.
  auto blur = makeBuffer<Rgb16>(w - 4, h);
  horizontal_.apply({image}, {{0, 0, int(w), int(h)}}, {blur}, {{0, 0, int(w) - 4, int(h)}},
                    FilterEmptyParams::instance());
  for (double gain : {1.0, 2.5, -0.75}) {
    auto dst = makeBuffer<RgbS16>(w - 4, h - 4);
    vertical_.apply({image, blur}, {{2, 0, int(w) - 4, int(h)}, {0, 0, int(w) - 4, int(h)}}, {dst},
                    {{0, 0, int(w) - 4, int(h) - 4}}, params16(gain, 1));
    int32_t const s = refStrength(gain, 1);
    expectTarget(*dst, {0, 0, int(w) - 4, int(h) - 4}, RgbS16{},
                 [&](int64_t i, int64_t j) { return refSharpen2D16(*image, i + 2, j + 2, s); });
  }
}

TEST_F(Sharpness16, ClipsToEveryBuffer) {
  auto image = makeBuffer<RgbS16>(10, 10);
  auto blur = makeBuffer<Rgb16>(4, 10);
  image->clear({{500, 500, 500}});
  blur->clear({{500 * 64, 500 * 64, 500 * 64}});
  auto dst = makeBuffer<RgbS16>(10, 10);
  dst->clear(sentinelS_);
  // The narrower blur source limits the width to 4 and its height to 10 - 4 = 6 rows.
  vertical_.apply({image, blur}, {{0, 0, 10, 10}, {0, 0, 10, 10}}, {dst}, {{0, 0, 10, 10}},
                  params16(1.0, 0));
  expectTarget(*dst, {0, 0, 4, 6}, sentinelS_, [](int64_t, int64_t) {
    return RgbS16{{500, 500, 500}};
  });
  auto out16 = makeBuffer<Rgb16>(10, 10);
  out16->clear(sentinelU_);
  horizontal_.apply({image}, {{-1, 3, 10, 10}}, {out16}, {{0, 0, 10, 10}},
                    FilterEmptyParams::instance());
  expectTarget(*out16, {1, 0, 6, 7}, sentinelU_, [](int64_t, int64_t) {
    return Rgb16{{32000, 32000, 32000}};
  });
}

}  // namespace
}  // namespace quorvel
