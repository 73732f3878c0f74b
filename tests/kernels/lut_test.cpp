#include "quorvel/kernels/display/lut.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <typeinfo>

#include "filters/kernel_frame.hpp"
#include "kernels/display/lut_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using Linear8 = SoftwareFilterLinearTo8bitSRGB<uint8_t, 4, uint8_t, 4>;
using Linear16 = SoftwareFilterLinearTo8bitSRGB<int16_t, 3, uint8_t, 4>;
using Gamma16 = SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>;
using testing::failureOf;

constexpr char kPixelTypeText[] =
    "filter is instantiated with a PixelType that does not accommodate the required "
    "bitsPerPixel";

Filter rgba8Description(size_t bitDepthIn, size_t bppIn = 32, size_t bppOut = 32) {
  return pointFilter("FilterLinear8ToSRGB8", 1, bppIn, bppOut, 4, 4, bitDepthIn);
}
Filter rgb16Description(size_t bitDepthIn, size_t bppIn = 48, size_t bppOut = 32) {
  return pointFilter("FilterLinear16TosRGB8", 1, bppIn, bppOut, 3, 4, bitDepthIn);
}

template <class Params>
Params gammaParams(double gamma, size_t black, size_t white) {
  Params p;
  p.gamma = gamma;
  p.blackPoint = black;
  p.whitePoint = white;
  return p;
}

// The gamma table as documented, one entry at a time, with C's NaN-to-integer rule
// (NaN stores 0).
uint8_t referenceGammaEntry(size_t bits, double gamma, size_t black, size_t white, size_t i) {
  size_t const top = (size_t{1} << bits) - 1;
  black = std::min(black, top);
  white = std::min(white, top);
  size_t const lo = std::min(black, white);
  double const range = static_cast<double>(white - lo);
  double a = 0, slope = 0, x0 = 0;
  if (gamma > 1.0) {
    a = 0.055;
    double const t = std::pow((gamma * 0.055) / ((gamma - 1) * 1.055), gamma);
    slope = 0.055 / (t * (gamma - 1));
    x0 = 0.055 / ((gamma - 1) * slope);
  }
  auto const knee = static_cast<size_t>(std::round(x0 * range));
  auto const store = [](double v) -> uint8_t {
    v = std::round(v);
    if (std::isnan(v)) return 0;
    return static_cast<uint8_t>(std::min(255.0, std::max(0.0, v)));
  };
  double const x = (static_cast<double>(i) - static_cast<double>(lo)) / range;
  if (i >= white) return 255;
  if (i >= knee) return store((std::pow(x, 1 / gamma) * (1 + a) - a) * 255.0);
  if (i >= lo) return store(x * slope * 255.0);
  return 0;
}

// A buffer of random pixels.
template <class P>
std::shared_ptr<Buffer2DVector<P>> randomBuffer(size_t w, size_t h, std::mt19937& rng, int lo,
                                                int hi) {
  auto b = std::make_shared<Buffer2DVector<P>>(w, h, true);
  std::uniform_int_distribution<int> dist(lo, hi);
  auto* c = b->data()->data();
  for (size_t i = 0; i < w * h * std::tuple_size<P>::value; ++i) {
    c[i] = static_cast<typename P::value_type>(dist(rng));
  }
  return b;
}

// Random rectangle, partly outside a buffer of the given size now and then.
std::vector<int> randomRect(size_t w, size_t h, std::mt19937& rng) {
  std::uniform_int_distribution<int> x(-3, static_cast<int>(w) - 1), y(-3, static_cast<int>(h) - 1);
  std::uniform_int_distribution<int> size(1, 40);
  return {x(rng), y(rng), size(rng), size(rng)};
}

// Parameters whose key ignores the fields, to show that the key alone selects the table.
class FixedKeyParams : public FilterLinear16TosRGB8Params {
 public:
  std::string key() const override { return "same"; }
};

// --- Tables

TEST(LutTables, GammaTableMatchesDocumentedFormula) {
  // At 8 bits with gamma 2.4 the knee rounds to level 1, so every level in between is on
  // the power curve.
  std::vector<uint8_t> const lut = makeGammaLut(8, 2.4, 0, 255);
  ASSERT_EQ(lut.size(), 256u);
  for (size_t i = 0; i < 256; ++i) {
    double const v = (std::pow(i / 255.0, 1 / 2.4) * 1.055 - 0.055) * 255.0;
    EXPECT_EQ(lut[i], i == 0 ? 0 : static_cast<uint8_t>(std::round(v))) << "level " << i;
  }
  std::mt19937 rng(7);
  double const gammas[] = {2.4, 2.2, 1.8, 1.0, 0.8, 0.5, 1.0 / 3.0, 3.7, 1.0001};
  for (int round = 0; round < 60; ++round) {
    size_t const bits = std::uniform_int_distribution<size_t>(1, 12)(rng);
    size_t const size = size_t{1} << bits;
    std::uniform_int_distribution<size_t> level(0, size + size / 4);
    double const gamma = gammas[round % 9];
    size_t const black = level(rng), white = level(rng);
    std::vector<uint8_t> const lut = makeGammaLut(bits, gamma, black, white);
    ASSERT_EQ(lut.size(), size);
    for (size_t i = 0; i < size; ++i) {
      ASSERT_EQ(lut[i], referenceGammaEntry(bits, gamma, black, white, i))
          << "bits " << bits << " gamma " << gamma << " black " << black << " white " << white
          << " level " << i;
    }
  }
}

TEST(LutTables, GammaTableEdgeCases) {
  // whitePoint below blackPoint: lo = white, range 0; pow(-inf, 1/2.4) is +inf, so every
  // entry saturates.
  for (uint8_t v : makeGammaLut(8, 2.4, 200, 100)) EXPECT_EQ(v, 255);
  // Black and white beyond the top level are clamped to it.
  EXPECT_EQ(makeGammaLut(8, 2.4, 0, 1000), makeGammaLut(8, 2.4, 0, 255));
  EXPECT_EQ(makeGammaLut(8, 2.4, 300, 10), makeGammaLut(8, 2.4, 255, 10));
  // gamma 1: a straight ramp from black to white.
  std::vector<uint8_t> const ramp = makeGammaLut(10, 1.0, 100, 900);
  for (size_t i = 0; i < 1024; ++i) {
    double const expected =
        i < 100 ? 0.0 : (i >= 900 ? 255.0 : std::round((i - 100) / 800.0 * 255));
    EXPECT_EQ(ramp[i], expected) << i;
  }
  // gamma 0.5 with a black point: levels below it mirror the curve (exponent 2).
  std::vector<uint8_t> const mirrored = makeGammaLut(8, 0.5, 100, 200);
  EXPECT_EQ(mirrored[0], 255);
  EXPECT_EQ(mirrored[50], 64);  // (-0.5)^2 * 255 = 63.75
  EXPECT_EQ(mirrored[100], 0);
  // gamma 0.8 with a black point: pow of a negative base is NaN, stored as 0.
  std::vector<uint8_t> const nan = makeGammaLut(8, 0.8, 100, 200);
  for (size_t i = 0; i < 100; ++i) EXPECT_EQ(nan[i], 0) << i;
  EXPECT_EQ(nan[150], static_cast<uint8_t>(std::round(std::pow(0.5, 1.25) * 255)));
  // With a black point the toe is measured from 0, not from the black point: at 12 bits
  // round(x0 * range) is 12, so from black 8 the toe covers only levels 8..11.
  std::vector<uint8_t> const toe = makeGammaLut(12, 2.4, 8, 4095);
  for (size_t i = 8; i < 16; ++i) EXPECT_EQ(toe[i], referenceGammaEntry(12, 2.4, 8, 4095, i));
  EXPECT_EQ(makeGammaLut(0, 2.4, 0, 0), std::vector<uint8_t>{255});
}

TEST(LutTables, SrgbEncodeTables) {
  // The exact 8-bit table floors (level 255 gives 254).
  std::vector<uint8_t> const exact = makeSrgbLut(8);
  ASSERT_EQ(exact.size(), 256u);
  EXPECT_EQ(exact[1], 12);
  EXPECT_EQ(exact[255], 254);
  for (size_t i = 0; i < 256; ++i) {
    double const x = i / 255.0;
    double const y = x < 0.0031308 ? x * 12.92 : std::pow(x, 0.4166666666666667) * 1.055 - 0.055;
    EXPECT_EQ(exact[i], static_cast<uint8_t>(std::floor(y * 255.0))) << i;
  }
  // At 12 bits the table is within one of the rounded IEC encoding.
  std::vector<uint8_t> const lut = makeLinearToSrgbLut(12);
  ASSERT_EQ(lut.size(), 4096u);
  for (size_t i = 0; i < 4096; ++i) {
    long double const x = static_cast<long double>(i) / 4095.0L;
    long double const y = x <= 0.0031308L ? 12.92L * x : 1.055L * std::pow(x, 1.0L / 2.4L) - 0.055L;
    long double const iec = std::round(y * 255.0L);
    EXPECT_LE(std::fabs(static_cast<long double>(lut[i]) - iec), 1.0L) << "level " << i;
  }
  EXPECT_EQ(makeLinearToSrgbLut(8), makeSrgbLut(8));
  EXPECT_EQ(makeLinearToSrgbLut(16), makeGammaLut(16, 2.4, 0, 65535));
  EXPECT_EQ(failureOf([] { makeLinearToSrgbLut(17); }),
            "unsupported bit depth for SoftwareFilterLinearTo8bitSRGB");
}

TEST(LutTables, SrgbDecodeTo3500Scale) {
  std::vector<int16_t> const linear = makeSrgbToLinear3500();
  ASSERT_EQ(linear.size(), 256u);
  for (int i = 0; i < 256; ++i) {
    double const x = static_cast<double>(static_cast<float>(i) / 255.0f);
    double const v =
        i < 10 ? (x / 12.92) * 3500 + 0.5 : std::pow((x + 0.055) / 1.055, 2.4) * 3500 + 0.5;
    EXPECT_EQ(linear[static_cast<size_t>(i)], static_cast<int16_t>(std::min(3500.0, v))) << i;
  }
}

// --- Filters: construction, keys, cache

TEST(LutFilter, ConstructorChecksPixelTypes) {
  // Bits per pixel beyond a whole pixel's worth are ignored.
  EXPECT_NO_THROW(Linear8(rgba8Description(8, 35, 35)));
  EXPECT_NO_THROW(Gamma16(rgb16Description(16, 50, 35)));
  std::function<void()> const rejected[] = {
      [] { Linear8(rgba8Description(9)); },
      [] { Linear8(rgba8Description(8, 36, 32)); },
      [] { SoftwareFilterBlackWhiteGamma8(rgba8Description(8, 32, 36)); },
      [] { Gamma16(rgb16Description(17)); },
      [] { Linear16(rgb16Description(16, 51, 32)); },
      [] { Gamma16(rgb16Description(16, 48, 36)); }};
  for (size_t i = 0; i < std::size(rejected); ++i) {
    EXPECT_EQ(failureOf(rejected[i]), kPixelTypeText) << "case " << i;
  }
}

TEST(LutFilter, KeysSelectCachedTables) {
  Gamma16 filter(rgb16Description(12));
  FixedKeyParams a, b;
  a.gamma = 2.2;
  b.gamma = 1.0;  // a different table, but the same key
  auto const& first = filter.getLut(a);
  EXPECT_EQ(&filter.getLut(b), &first);
  EXPECT_EQ(first, makeGammaLut(12, 2.2, 0, 65535));
  auto const c = gammaParams<FilterLinear16TosRGB8Params>(2.4, 0, 1000);
  EXPECT_EQ(filter.getLut(c), makeGammaLut(12, 2.4, 0, 1000));
  EXPECT_EQ(filter.cachedLutCount(), 2u);

  // The sRGB filters key by bit depth and ignore the parameters.
  Linear16 srgb(rgb16Description(10));
  EXPECT_EQ(srgb.lutKey(FilterEmptyParams::instance()), 10);
  EXPECT_EQ(srgb.getLut(c), makeGammaLut(10, 2.4, 0, 1023));
  EXPECT_EQ(Linear8(rgba8Description(8)).getLut(FilterEmptyParams::instance()), makeSrgbLut(8));
}

TEST(LutFilter, WrongParameterClassesFailAndLeaveCacheUnchanged) {
  Gamma16 filter(rgb16Description(16));
  try {
    filter.getLut(Filter3x3MatrixParams{});
    FAIL() << "no exception";
  } catch (QuorvelException const& e) {
    EXPECT_STREQ(e.what(),
                 "#Name:Error: bad cast, provided filter parameters are expected to be of type "
                 "ComparableSingleFilterParameters#Location:std::vector<OutputPixelType> const& "
                 "SoftwareFilterLut::getLut(SingleFilterParameters const& params)");
    EXPECT_THROW(std::rethrow_if_nested(e), std::bad_cast);
  }
  // Comparable, but not the filter's class: the cast in computeLut fails.
  EXPECT_EQ(failureOf([&] { filter.getLut(FilterBlackWhiteGamma8Params{}); }),
            "#Name:Filter parameters cast failed#Location:T& SingleFilterParameters::as<T>()");
  SoftwareFilterBlackWhiteGamma8 gamma8(rgba8Description(8));
  EXPECT_THROW(gamma8.getLut(FilterLinear16TosRGB8Params{}), QuorvelException);
  EXPECT_EQ(filter.cachedLutCount(), 0u);
  EXPECT_EQ(gamma8.cachedLutCount(), 0u);
}

TEST(LutFilter, BlackWhiteGammaTableComposesDecodeAndGamma) {
  SoftwareFilterBlackWhiteGamma8 filter(rgba8Description(8));
  auto const& lut = filter.getLut(gammaParams<FilterBlackWhiteGamma8Params>(1.8, 300, 3200));
  std::vector<uint8_t> const levels = makeGammaLut(12, 1.8, 300, 3200);
  std::vector<int16_t> const linear = makeSrgbToLinear3500();
  ASSERT_EQ(lut.size(), 256u);
  for (size_t i = 0; i < 256; ++i) EXPECT_EQ(lut[i], levels[static_cast<size_t>(linear[i])]) << i;
}

// --- Filters: pixels

// Applies `filter` on random images and rectangles and compares every target pixel with
// the documented per-pixel mapping; pixels outside the output rectangle keep the sentinel.
template <class In, class FilterT>
void checkRandomApply(FilterT&& filter, SingleFilterParameters const& params, int lo, int hi,
                      uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> const lut = filter.getLut(params);
  constexpr bool kSixteen = std::is_same_v<In, PixelRgbS16>;
  size_t const last = std::min<size_t>(lut.size() - 1, kSixteen ? 32767 : 255);
  PixelRgba8 const sentinel{0xA5, 0x5A, 0xC3, 0x3C};
  for (int round = 0; round < 25; ++round) {
    std::uniform_int_distribution<size_t> dim(1, 37);
    size_t const w = dim(rng), h = dim(rng), tw = dim(rng), th = dim(rng);
    auto source = randomBuffer<In>(w, h, rng, lo, hi);
    auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(tw, th, true);
    target->clear(sentinel);
    std::vector<int> const inRect = randomRect(w, h, rng), outRect = randomRect(tw, th, rng);
    std::vector<int> clipped;
    if (!SoftwareFilter::intersect(outRect, target->rect(), clipped)) {
      EXPECT_THROW(filter.apply({source}, {inRect}, {target}, {outRect}, params), QuorvelException);
      continue;
    }
    filter.apply({source}, {inRect}, {target}, {outRect}, params);
    kernel::Span const s = kernel::validSpan(inRect, *source, outRect, *target);
    for (size_t y = 0; y < th; ++y) {
      for (size_t x = 0; x < tw; ++x) {
        PixelRgba8 expected = sentinel;
        int64_t const dx = static_cast<int64_t>(x) - s.outX, dy = static_cast<int64_t>(y) - s.outY;
        if (dx >= 0 && dy >= 0 && dx < s.width && dy < s.height) {
          In const& p = source->data()[(s.inY + dy) * static_cast<int64_t>(w) + s.inX + dx];
          for (size_t c = 0; c < 3; ++c) {
            expected[c] = lut[static_cast<size_t>(std::clamp<int64_t>(p[c], 0, last))];
          }
          expected[3] = kSixteen ? 255 : p[3];
        }
        ASSERT_EQ(target->data()[y * tw + x], expected)
            << "pixel " << x << "," << y << " of " << tw << "x" << th << " round " << round;
      }
    }
  }
}

TEST(LutFilter, AllMembersMatchReferenceOnRandomImages) {
  auto const gamma = gammaParams<FilterLinear16TosRGB8Params>(2.2, 40, 3000);
  auto const& none = FilterEmptyParams::instance();
  Gamma16 gamma16(rgb16Description(12));
  checkRandomApply<PixelRgbS16>(gamma16, gamma, -40000, 40000, 1);
  checkRandomApply<PixelRgbS16>(gamma16, gamma, -10, 5000, 2);
  checkRandomApply<PixelRgbS16>(Gamma16(rgb16Description(16)), gamma, -32768, 32767, 3);
  checkRandomApply<PixelRgbS16>(Linear16(rgb16Description(10)), none, -100, 2000, 4);
  checkRandomApply<PixelRgba8>(Linear8(rgba8Description(8)), none, 0, 255, 5);
  // 32 entries: levels above read the last one.
  checkRandomApply<PixelRgba8>(Linear8(rgba8Description(5)), none, 0, 255, 6);
  checkRandomApply<PixelRgba8>(SoftwareFilterBlackWhiteGamma8(rgba8Description(8)),
                               gammaParams<FilterBlackWhiteGamma8Params>(2.4, 0, 2000), 0, 255, 7);
}

TEST(LutFilter, MissingStorageFails) {
  auto source = std::make_shared<Buffer2DVector<PixelRgba8>>(4, 4, false);
  auto target = std::make_shared<Buffer2DVector<PixelRgba8>>(4, 4, true);
  EXPECT_THROW(Linear8(rgba8Description(8))
                   .apply({source}, {{}}, {target}, {{0, 0, 4, 4}}, FilterEmptyParams::instance()),
               QuorvelException);
}

// --- Row kernels on every SIMD target

TEST(LutRows, VectorFormsEqualScalarOnEveryTarget) {
  std::mt19937 rng(11);
  std::vector<uint8_t> table(256), rgba(4 * 300), big(32768 + 3);
  std::vector<int16_t> rgb(3 * 300);
  for (auto* v : {&table, &rgba, &big}) {
    for (auto& b : *v) b = static_cast<uint8_t>(rng());
  }
  for (auto& v : rgb) v = static_cast<int16_t>(rng());
  // Every tail length up to two vectors of 32 pixels and one more, then longer rows.
  std::vector<size_t> widths(67);
  std::iota(widths.begin(), widths.end(), size_t{0});
  widths.insert(widths.end(), {129, 300});
  testing::forEachSimdTarget([&] {
    for (size_t width : widths) {
      std::vector<uint8_t> want(4 * width + 8, 0xEE), got(4 * width + 8, 0xEE);
      lut_detail::applyLutRgba8Scalar(table.data(), rgba.data(), want.data(), width);
      lut_detail::applyLutRgba8(table.data(), rgba.data(), got.data(), width);
      ASSERT_EQ(got, want) << "rgba8 width " << width;
      for (int32_t maxIndex : {0, 1, 255, 4095, 32767}) {
        std::fill(want.begin(), want.end(), 0xEE);
        std::fill(got.begin(), got.end(), 0xEE);
        lut_detail::applyLutRgbS16Scalar(big.data(), maxIndex, rgb.data(), want.data(), width);
        lut_detail::applyLutRgbS16(big.data(), maxIndex, rgb.data(), got.data(), width);
        ASSERT_EQ(got, want) << "rgb16 width " << width << " max " << maxIndex;
      }
    }
  });
}

}  // namespace
}  // namespace quorvel
