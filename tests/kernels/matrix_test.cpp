#include "quorvel/kernels/display/matrix.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <type_traits>

#include "filters/kernel_frame.hpp"
#include "kernels/display/matrix_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using Matrix8 = SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4>;
using Matrix16 = SoftwareFilter3x3Matrix<int16_t, int16_t, 3>;

// The documented arithmetic, step by step, in 64 bits with explicit 32-bit wrap-around.
int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

std::array<int32_t, 9> referenceCoefficients(std::array<int32_t, 9> const& m, double scale) {
  auto const k32 = static_cast<int32_t>(std::round(scale * 1024.0));  // tests keep k in int32
  std::array<int32_t, 9> out{};
  for (size_t i = 0; i < 9; ++i) out[i] = wrap32(int64_t{m[i]} * k32 + 512) >> 10;
  return out;
}

std::array<int64_t, 3> referencePixel(std::array<int32_t, 9> const& mp, int32_t const* x,
                                      int64_t lo, int64_t hi) {
  std::array<int64_t, 3> out{};
  for (size_t j = 0; j < 3; ++j) {
    int64_t s = 0;
    for (size_t i = 0; i < 3; ++i) {
      int32_t const big = wrap32(int64_t{x[i]} * 1024);
      s += wrap32(wrap32(int64_t{mp[3 * i + j]} * big) + 512) >> 10;
    }
    out[j] = static_cast<int64_t>(std::round(static_cast<double>(std::clamp(s, lo, hi)) / 1024));
  }
  return out;
}

// The 8-bit filter works on RGBA, the 16-bit one on RGB.
template <class P>
using MatrixFor = std::conditional_t<std::is_same_v<P, PixelRgbS16>, Matrix16, Matrix8>;

template <class P>
MatrixFor<P> makeFilter() {
  return MatrixFor<P>(std::is_same_v<P, PixelRgbS16>
                          ? pointFilter("Filter3x3Matrix16", 1, 48, 48, 3, 3, 16)
                          : pointFilter("Filter3x3Matrix8", 1, 32, 32, 4, 4, 8));
}

// One pixel through the filter of its type.
template <class P>
P run(P pixel, std::array<int32_t, 9> m, double scale) {
  auto filter = makeFilter<P>();
  auto source = std::make_shared<Buffer2DVector<P>>(1, 1, true);
  auto target = std::make_shared<Buffer2DVector<P>>(1, 1, true);
  source->data()[0] = pixel;
  Filter3x3MatrixParams p;
  p.matrix = m;
  p.scale = scale;
  filter.apply({source}, {{}}, {target}, {{0, 0, 1, 1}}, p);
  return target->data()[0];
}

constexpr std::array<int32_t, 9> kIdentity = {1024, 0, 0, 0, 1024, 0, 0, 0, 1024};

TEST(Matrix3x3, DocumentedExamples) {
  EXPECT_EQ(run<PixelRgba8>({1, 128, 255, 77}, kIdentity, 1.0), (PixelRgba8{1, 128, 255, 77}));
  EXPECT_EQ(run<PixelRgbS16>({-2048, 0, 2047}, kIdentity, 1.0), (PixelRgbS16{-2048, 0, 2047}));
  // From |x| = 2048 the 16-bit products m' * x * 1024 wrap in 32 bits, leaving the low 22
  // bits of m' * x: 1024 * 32767 wraps to -1024, -32768 * 1024 to 0. So 16-bit sums stay
  // within 3 * 2^21 and never reach the clamp.
  EXPECT_EQ(run<PixelRgbS16>({-32768, 0, 32767}, kIdentity, 1.0), (PixelRgbS16{0, 0, -1}));
  // Coefficient 512: 255 gives 130560 in Q10, round(127.5) = 128.
  EXPECT_EQ(run<PixelRgba8>({255, 3, 1, 9}, kIdentity, 0.5), (PixelRgba8{128, 2, 1, 9}));
  EXPECT_EQ(run<PixelRgbS16>({255, -3, -1}, kIdentity, 0.5), (PixelRgbS16{128, -2, -1}));
  // Negative and overflowing sums clamp.
  constexpr std::array<int32_t, 9> kNegate = {-1024, 0, 0, 0, 4096, 0, 0, 0, 1024};
  EXPECT_EQ(run<PixelRgba8>({10, 200, 5, 1}, kNegate, 1.0), (PixelRgba8{0, 255, 5, 1}));
  EXPECT_EQ(run<PixelRgbS16>({1000, 255, 5}, kNegate, 2.0), (PixelRgbS16{-2000, 2040, 10}));
  // scale * 1024 below 0.5 zeroes every coefficient; alpha stays.
  EXPECT_EQ(run<PixelRgba8>({255, 255, 255, 200}, kIdentity, 0.00048), (PixelRgba8{0, 0, 0, 200}));
  EXPECT_EQ(run<PixelRgbS16>({-5, 32767, 7}, kIdentity, 0.0004), (PixelRgbS16{0, 0, 0}));
  // Every input channel feeds output 0 at 0.5: 1536 in Q10 rounds to 2, -1536 to -2.
  constexpr std::array<int32_t, 9> kHalves = {512, 0, 0, 512, 0, 0, 512, 0, 0};
  EXPECT_EQ(run<PixelRgbS16>({1, 1, 1}, kHalves, 1.0)[0], 2);
  EXPECT_EQ(run<PixelRgbS16>({-1, -1, -1}, kHalves, 1.0)[0], -2);
}

TEST(Matrix3x3, ScaledCoefficientsWrapAndRoundHalfAway) {
  std::array<int32_t, 9> const m = {1, -1, 1023, -1023, 2147483647, -2147483647, 513, 511, 0};
  // 0.5 / 1024 gives k = round(0.5) = 1 (half away from zero), and -0.5 / 1024 gives -1.
  for (double scale : {1.0, 0.5, -0.5, 2.5, -3.0, 1000.0, 0.0004882812, 0.5 / 1024, -0.5 / 1024}) {
    EXPECT_EQ(matrix_detail::scaledCoefficients(m, scale), referenceCoefficients(m, scale))
        << "scale " << scale;
  }
  // NaN or an out-of-range k converts like the hardware: INT32_MIN.
  EXPECT_EQ(matrix_detail::scaledCoefficients(kIdentity, std::nan(""))[0],
            static_cast<int32_t>(static_cast<uint32_t>(INT32_MIN) * 1024u + 512u) >> 10);
}

TEST(Matrix3x3, WrongParametersFail) {
  auto filter = makeFilter<PixelRgba8>();
  auto buffer = std::make_shared<Buffer2DVector<PixelRgba8>>(2, 2, true);
  EXPECT_EQ(testing::failureOf([&] {
              filter.apply({buffer}, {{}}, {buffer}, {{0, 0, 2, 2}}, FilterClaheParams{});
            }),
            "#Name:Filter parameters cast failed#Location:T& SingleFilterParameters::as<T>()");
}

// Random matrices (small, and large enough to wrap), random images and rectangles, against
// the step-by-step reference; pixels outside the output rectangle keep the sentinel.
template <class P>
void checkRandom(uint32_t seed) {
  constexpr bool kSixteen = std::is_same_v<P, PixelRgbS16>;
  constexpr int64_t kLo = kSixteen ? -33554432 : 0, kHi = kSixteen ? 33553408 : 261120;
  using C = typename P::value_type;
  std::mt19937 rng(seed);
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  auto filter = makeFilter<P>();
  P fill{};
  for (size_t c = 0; c < fill.size(); ++c) fill[c] = static_cast<C>(0x1234 + 0x1111 * c);
  for (int round = 0; round < 40; ++round) {
    Filter3x3MatrixParams params;
    int32_t const range = round % 3 == 0 ? 2147483647 : (round % 3 == 1 ? 20000 : 3000);
    for (auto& c : params.matrix) c = uniform(-range, range);
    params.scale = std::uniform_real_distribution<double>(-3.0, 3.0)(rng);
    std::array<int32_t, 9> const mp = referenceCoefficients(params.matrix, params.scale);
    int const w = uniform(1, 80), h = uniform(4, 83) / 4, tw = uniform(1, 80),
              th = uniform(4, 83) / 4;
    auto source = std::make_shared<Buffer2DVector<P>>(w, h, true);
    for (int i = 0; i < w * h; ++i) {
      for (auto& c : source->data()[i]) c = static_cast<C>(uniform(INT16_MIN, INT16_MAX));
    }
    auto target = std::make_shared<Buffer2DVector<P>>(tw, th, true);
    target->clear(fill);
    // Whole rows every fourth round, so that every round of vector blocks runs.
    std::vector<int> inRect{0, 0, w, h}, outRect{0, 0, tw, th};
    if (round % 4 != 0) {
      inRect = {uniform(-2, w), uniform(-2, h), uniform(1, 80), uniform(1, 80)};
      outRect = {uniform(-3, tw), uniform(-2, th), uniform(1, 80), uniform(1, 80)};
    }
    std::vector<int> clipped;
    if (!SoftwareFilter::intersect(outRect, target->rect(), clipped)) {
      EXPECT_THROW(filter.apply({source}, {inRect}, {target}, {outRect}, params), QuorvelException);
      continue;
    }
    filter.apply({source}, {inRect}, {target}, {outRect}, params);
    kernel::Span const s = kernel::validSpan(inRect, *source, outRect, *target);
    for (int y = 0; y < th; ++y) {
      for (int x = 0; x < tw; ++x) {
        P expected = fill;
        int64_t const dx = x - s.outX, dy = y - s.outY;
        if (dx >= 0 && dy >= 0 && dx < s.width && dy < s.height) {
          P const& p = source->data()[(s.inY + dy) * w + s.inX + dx];
          int32_t const xs[3] = {p[0], p[1], p[2]};
          auto const o = referencePixel(mp, xs, kLo, kHi);
          for (size_t c = 0; c < 3; ++c) expected[c] = static_cast<C>(o[c]);
          if constexpr (!kSixteen) expected[3] = p[3];
        }
        ASSERT_EQ(target->data()[y * tw + x], expected)
            << (kSixteen ? "16-bit" : "8-bit") << " pixel " << x << "," << y << " round " << round
            << " range " << range;
      }
    }
  }
}

TEST(Matrix3x3, MatchesReferenceOnRandomImages) {
  checkRandom<PixelRgba8>(21);
  checkRandom<PixelRgbS16>(22);
}

TEST(Matrix3x3, VectorFormsEqualScalarOnEveryTarget) {
  std::mt19937 rng(5);
  size_t const maxWidth = 200;
  std::vector<uint8_t> rgba(4 * maxWidth);
  for (auto& v : rgba) v = static_cast<uint8_t>(rng());
  std::vector<int16_t> rgb(3 * maxWidth);
  for (auto& v : rgb) v = static_cast<int16_t>(rng());
  rgb[0] = -32768, rgb[1] = 32767, rgb[2] = -1;  // extremes first so short widths see them too
  std::vector<std::array<int32_t, 9>> matrices = {kIdentity};
  for (int32_t range : {2048, 9000, 1 << 20, 2147483647}) {
    std::array<int32_t, 9> m{};
    for (auto& c : m) c = std::uniform_int_distribution<int32_t>(-range, range)(rng);
    matrices.push_back(m);
  }
  // Every tail length up to two vectors of 32 pixels and one more, then a long row.
  std::vector<size_t> widths(67);
  std::iota(widths.begin(), widths.end(), size_t{0});
  widths.push_back(maxWidth);
  testing::forEachSimdTarget([&] {
    for (auto const& m : matrices) {
      for (size_t width : widths) {
        std::vector<uint8_t> want8(4 * width + 4, 0xEE), got8(want8);
        matrix_detail::applyMatrixRgba8Scalar(m.data(), rgba.data(), want8.data(), width);
        matrix_detail::applyMatrixRgba8(m.data(), rgba.data(), got8.data(), width);
        ASSERT_EQ(got8, want8) << "width " << width;
        std::vector<int16_t> want16(3 * width + 3, 0x7777), got16(want16);
        matrix_detail::applyMatrixRgbS16Scalar(m.data(), rgb.data(), want16.data(), width);
        matrix_detail::applyMatrixRgbS16(m.data(), rgb.data(), got16.data(), width);
        ASSERT_EQ(got16, want16) << "width " << width;
        // In place, as the filter may run: every step reads its pixels before it writes.
        std::copy(rgb.begin(), rgb.begin() + 3 * width, got16.begin());
        matrix_detail::applyMatrixRgbS16(m.data(), got16.data(), got16.data(), width);
        ASSERT_EQ(got16, want16) << "in place, width " << width;
      }
    }
  });
}

}  // namespace
}  // namespace quorvel
