// Targets larger than the caches are written with streaming stores, a separate path from
// the cached one (staged or direct non-temporal stores, a head up to the first cache line,
// partial last chunks). These runs check that it writes exactly what the cached path
// writes, on every SIMD target, for one contiguous call over whole rows and for a
// sub-rectangle written row by row, and that it writes nothing outside the rectangle.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>

#include "kernels/display/sharpness_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "quorvel/kernels/display/sharpness.hpp"
#include "quorvel/kernels/reconstruction/conversions.hpp"
#include "quorvel/kernels/reconstruction/wavelet.hpp"
#include "quorvel/kernels/reconstruction/ycocg.hpp"
#include "support/buffers.hpp"

namespace quorvel {
namespace {

using testing::buffer;
using testing::contents;
using Rect = std::vector<int>;
using Inputs = std::vector<std::shared_ptr<Buffer2D>>;

constexpr size_t kLargeBytes = size_t{9} << 20;  // above the streaming threshold

template <class P>
std::shared_ptr<Buffer2DVector<P>> randomBuffer(size_t w, size_t h, uint32_t seed) {
  auto b = buffer<P>(w, h);
  std::mt19937 rng(seed);
  auto* bytes = reinterpret_cast<uint8_t*>(b->data());
  // Bytes of every value: 16-bit samples cover the whole range, clamps included.
  for (size_t i = 0; i < w * h * sizeof(P); ++i) bytes[i] = static_cast<uint8_t>(rng());
  return b;
}

/// Runs `apply(target, rect)` over the whole rectangle (a large target: streamed) and
/// again one row per call (small targets: cached stores), on targets prefilled with a
/// marker, and expects the same pixels everywhere.
template <class Out>
void expectStreamedMatchesCached(size_t w, size_t h, Rect const& rect,
                                 std::function<void(std::shared_ptr<Buffer2D>, Rect)> apply) {
  Out marker;
  std::fill(reinterpret_cast<uint8_t*>(&marker), reinterpret_cast<uint8_t*>(&marker + 1), 0xA5);
  auto cached = buffer<Out>(w, h, marker);
  for (int y = rect[1]; y < rect[1] + rect[3]; ++y) apply(cached, {rect[0], y, rect[2], 1});
  testing::forEachSimdTarget([&] {
    auto streamed = buffer<Out>(w, h, marker);
    apply(streamed, rect);
    ASSERT_TRUE(contents(*streamed) == contents(*cached)) << w << "x" << h;
  });
}

/// A per-pixel kernel from In to Out: a contiguous call over whole rows of a width that is
/// no multiple of a cache line, and a sub-rectangle whose rows start on cache lines.
template <class F, class In, class Out, size_t N = 1>
void checkPointKernel() {
  for (bool whole : {true, false}) {
    size_t const w = whole ? 1601 : 1600;
    size_t const h = kLargeBytes / (w * sizeof(Out)) + 8;
    Rect const rect = whole ? Rect{0, 0, int(w), int(h)} : Rect{64, 3, int(w) - 64 - 7, int(h) - 5};
    std::array<std::shared_ptr<Buffer2DVector<In>>, N> in;
    for (size_t c = 0; c < N; ++c) in[c] = randomBuffer<In>(w, h, uint32_t(7 + c));
    F f(pointFilter("Streaming", N));
    expectStreamedMatchesCached<Out>(w, h, rect, [&](std::shared_ptr<Buffer2D> out, Rect r) {
      Inputs inputs(in.begin(), in.end());
      f.apply(inputs, std::vector<Rect>(N, r), {out}, {r}, FilterEmptyParams::instance());
    });
  }
}

TEST(Streaming, PointKernelsWriteTheCachedValues) {
  using Rgb16 = PixelRgbS16;
  checkPointKernel<SoftwareFilterYCoCgToRGB<int16_t, int16_t>, Rgb16, Rgb16>();
  checkPointKernel<SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>, Rgb16, PixelRgba8>();
  checkPointKernel<SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>, PixelRgba8, Rgb16>();
  checkPointKernel<SoftwareFilter3x16To4x8<int16_t, uint8_t>, Rgb16, PixelRgba8>();
  checkPointKernel<SoftwareFilter1x16To1x8<int16_t, uint8_t>, int16_t, uint8_t>();
  checkPointKernel<SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>, int16_t, PixelRgba8>();
  checkPointKernel<SoftwareFilterRemoveAlpha<uint8_t>, PixelRgba8, PixelRgb8>();
  checkPointKernel<SoftwareInterleaveFilter<int16_t, 3>, int16_t, Rgb16, 3>();
}

// The wavelet passes stream a whole level; here the cached reference is the scalar form
// of the same call. Output origins at x = 0 start the rows on a cache line, x = 7 makes
// the horizontal pass compute a head before its first streamed line.
TEST(Streaming, WaveletLevelsWriteTheReferenceValues) {
  size_t const n = 2304;  // 2304^2 16-bit samples: about 10 MiB
  for (bool vertical : {true, false}) {
    for (int x : {0, 7}) {
      size_t const bands = n / 2 + 2;
      size_t const w = vertical ? n : bands, h = vertical ? bands : n;
      auto low = randomBuffer<int16_t>(w, h, 1), high = randomBuffer<int16_t>(w, h, 2);
      Inputs const inputs{low, high};
      std::vector<Rect> const inRect{{0, 0, int(w), int(h)}};
      Rect const outRect{x, 0, int(n) - x, int(n)};
      auto expected = buffer<int16_t>(n, n, int16_t{0x5A5A});
      (vertical ? reference::firIV53LeGall16 : reference::firIH53LeGall16)(inputs, inRect,
                                                                           {expected}, {outRect});
      testing::forEachSimdTarget([&] {
        auto out = buffer<int16_t>(n, n, int16_t{0x5A5A});
        if (vertical) {
          SoftwareFilterFirIV53LeGall16<int16_t, int16_t> f(pointFilter("V", 2));
          f.apply(inputs, inRect, {out}, {outRect}, FilterEmptyParams::instance());
        } else {
          SoftwareFilterFirIH53LeGall16<int16_t, int16_t> f(pointFilter("H", 2));
          f.apply(inputs, inRect, {out}, {outRect}, FilterEmptyParams::instance());
        }
        ASSERT_TRUE(contents(*out) == contents(*expected)) << (vertical ? "V" : "H") << " x=" << x;
      });
    }
  }
}

// The 16-bit sharpness pair streams large targets row by row from the first cache line of
// each row; the reference is the scalar row form. The width makes every row start on a
// cache line in one run and 24 bytes past one in the other, which exercises the head.
TEST(Streaming, SixteenBitSharpnessPairWritesTheScalarValues) {
  FilterSharpness16Params params;
  params.gain = 1.5;
  int32_t const strength = sharpness_detail::strength(params.gain, params.level);
  for (size_t const w : {1536, 1540}) {
    size_t const h = kLargeBytes / (w * sizeof(PixelRgb16)) + 2, row = 3 * w;
    auto image = randomBuffer<PixelRgbS16>(w + 4, h + 4, 3);
    auto blur = randomBuffer<PixelRgb16>(w, h + 4, 4);
    std::vector<uint16_t> blurred(row * h);
    std::vector<int16_t> sharpened(row * h);
    auto const* imageSamples = image->data()->data();
    auto const* blurSamples = blur->data()->data();
    for (size_t j = 0; j < h; ++j) {
      sharpness_detail::blurRowH16Scalar(imageSamples + j * 3 * (w + 4) + 6, &blurred[j * row], row,
                                         3);
      uint16_t const* rows[5];
      for (size_t r = 0; r < 5; ++r) rows[r] = blurSamples + (j + r) * row;
      sharpness_detail::sharpenRowV16Scalar(rows, imageSamples + (j + 2) * 3 * (w + 4),
                                            &sharpened[j * row], row, strength);
    }
    testing::forEachSimdTarget([&] {
      auto horizontal = buffer<PixelRgb16>(w, h);
      SoftwareFilterSharpnessH16<3> fh(pointFilter("H", 1));
      fh.apply({image}, {{0, 0, int(w) + 4, int(h)}}, {horizontal}, {{0, 0, int(w), int(h)}},
               FilterEmptyParams::instance());
      auto const* hs = horizontal->data()->data();
      ASSERT_TRUE(std::equal(blurred.begin(), blurred.end(), hs)) << "H16 w=" << w;
      // The vertical pass reads columns 0..w-1 of the image, offset by its own rectangle.
      auto vertical = buffer<PixelRgbS16>(w, h);
      SoftwareFilterSharpnessV16<3> fv(pointFilter("V", 2));
      fv.apply({image, blur}, {{0, 0, int(w), int(h) + 4}, {0, 0, int(w), int(h) + 4}}, {vertical},
               {{0, 0, int(w), int(h)}}, params);
      auto const* vs = vertical->data()->data();
      ASSERT_TRUE(std::equal(sharpened.begin(), sharpened.end(), vs)) << "V16 w=" << w;
    });
  }
}

}  // namespace
}  // namespace quorvel
