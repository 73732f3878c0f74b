#include "quorvel/kernels/reconstruction/wavelet.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "kernels/simd_targets.hpp"
#include "support/buffers.hpp"

namespace quorvel {
namespace {

using Plane = Buffer2DVector<int16_t>;
using Rect = std::vector<int>;
using testing::contents;
constexpr int16_t kSentinel = 0x5A5A;

std::shared_ptr<Plane> plane(size_t w, size_t h, int16_t fill = 0) {
  return testing::buffer<int16_t>(w, h, fill);
}

std::shared_ptr<Plane> randomPlane(size_t w, size_t h, std::mt19937& rng, int lo, int hi) {
  auto p = plane(w, h);
  std::uniform_int_distribution<int> dist(lo, hi);
  for (size_t i = 0; i < w * h; ++i) p->data()[i] = static_cast<int16_t>(dist(rng));
  return p;
}

// The lifting steps written out from the formulas, in 16-bit wrap-around arithmetic.
int16_t even(int16_t l, int16_t h0, int16_t h1) {
  return static_cast<int16_t>(l - (static_cast<int16_t>(h0 + h1 + 2) >> 2));
}
int16_t odd(int16_t h1, int16_t e0, int16_t e1) {
  return static_cast<int16_t>(h1 + (static_cast<int16_t>(e0 + e1) >> 1));
}

// The documented pass structure, for consistent rectangles only. `vertical` selects the
// direction; line c across it holds band elements k and target samples s.
void referenceInverse(bool vertical, Plane const& low, Plane const& high, Rect const& in,
                      Plane& target, Rect out) {
  int const tw = static_cast<int>(target.width()), th = static_cast<int>(target.height());
  int const bw = static_cast<int>(low.width());
  int& origin = vertical ? out[1] : out[0];
  int& length = vertical ? out[3] : out[2];
  length = std::min(length, (vertical ? th : tw) - origin);
  int const bandLength = vertical ? in[3] : in[2];
  int const a = static_cast<int>(std::floor(-origin / 2.0));
  int const b = static_cast<int>(std::ceil(-origin / 2.0));
  int const m = std::min(static_cast<int>(std::floor(length / 2.0)), bandLength - 2);
  int const t = std::min(static_cast<int>(std::ceil(length / 2.0)),
                         vertical ? bandLength - 1 : bandLength - 2);
  for (int c = 0; c < (vertical ? in[2] : in[3]); ++c) {
    auto band = [&](int k) {
      return vertical ? (in[1] + k) * bw + in[0] + c : (in[1] + c) * bw + in[0] + k;
    };
    auto put = [&](int s, int16_t v) {
      // A sample before the target (the even-only pass starting below b) is dropped.
      if (origin + s < 0) return;
      target.data()[vertical ? (out[1] + s) * tw + out[0] + c : (out[1] + c) * tw + out[0] + s] = v;
    };
    auto h = [&](int k) { return high.data()[band(k)]; };
    auto e = [&](int k) { return even(low.data()[band(k)], h(k), h(k + 1)); };
    auto o = [&](int k) { return odd(h(k + 1), e(k), e(k + 1)); };
    for (int k = a; k < b; ++k) put(2 * k + 1, o(k));
    for (int k = b; k < m; ++k) put(2 * k, e(k)), put(2 * k + 1, o(k));
    for (int k = m; k < t; ++k) put(2 * k, e(k));
  }
}

void run(bool vertical, std::shared_ptr<Plane> const& low, std::shared_ptr<Plane> const& high,
         Rect const& in, std::shared_ptr<Plane> const& target, Rect const& out) {
  std::vector<std::shared_ptr<Buffer2D>> const inputs{low, high};
  auto const& none = FilterEmptyParams::instance();
  if (vertical) {
    SoftwareFilterFirIV53LeGall16<int16_t, int16_t>(pointFilter("FilterFirIV53LeGall16", 2))
        .apply(inputs, {in}, {target}, {out}, none);
  } else {
    SoftwareFilterFirIH53LeGall16<int16_t, int16_t>(pointFilter("FilterFirIH53LeGall16", 2))
        .apply(inputs, {in}, {target}, {out}, none);
  }
}

// The forward reversible 5/3 transform of every line of `image` (w x h, symmetrically
// extended) along one direction, in the band layout L(k) = s(k), H(k) = d(k - 1), written
// to the band rectangle `in` inside larger planes. Bands start at sample 0; the target
// receives the samples from `first` on.
struct Bands {
  std::shared_ptr<Plane> low, high;
  Rect in;
};
Bands transform(bool vertical, std::vector<int> const& image, int w, int h, int first) {
  int const n = vertical ? h : w, across = vertical ? w : h, bands = (n - first) / 2 + 3;
  int const pw = (vertical ? across : bands) + 3, ph = (vertical ? bands : across) + 2;
  Bands out{plane(pw, ph, 777), plane(pw, ph, -777),
            vertical ? Rect{2, 1, across, bands} : Rect{2, 1, bands, across}};
  auto floorDiv = [](int v, int d) { return static_cast<int>(std::floor(v / double(d))); };
  for (int c = 0; c < across; ++c) {
    auto x = [&](int i) {
      i = (i % (2 * n - 2) + 2 * n - 2) % (2 * n - 2);
      i = i < n ? i : 2 * n - 2 - i;
      return vertical ? image[i * w + c] : image[c * w + i];
    };
    auto d = [&](int k) { return x(2 * k + 1) - floorDiv(x(2 * k) + x(2 * k + 2), 2); };
    auto s = [&](int k) { return x(2 * k) + floorDiv(d(k - 1) + d(k) + 2, 4); };
    for (int k = 0; k < bands; ++k) {
      size_t const i = vertical ? (1 + k) * pw + 2 + c : (1 + c) * pw + 2 + k;
      out.low->data()[i] = static_cast<int16_t>(s(k));
      out.high->data()[i] = static_cast<int16_t>(d(k - 1));
    }
  }
  return out;
}

// Reconstructs an image of w x h (plus `first` leading samples that fall before the
// target) and checks the target equals it exactly.
void checkPerfectReconstruction(bool vertical, int w, int h, int first) {
  std::mt19937 rng(static_cast<unsigned>(w * 131 + h * 7 + first));
  std::uniform_int_distribution<int> dist(-2048, 2047);
  int const fullW = vertical ? w : w + first, fullH = vertical ? h + first : h;
  std::vector<int> image(fullW * fullH);
  for (int& v : image) v = dist(rng);
  Bands bands = transform(vertical, image, fullW, fullH, first);
  auto target = plane(w, h, kSentinel);
  Rect const out = vertical ? Rect{0, -first, w, h + first} : Rect{-first, 0, w + first, h};
  run(vertical, bands.low, bands.high, bands.in, target, out);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      int const expected = vertical ? image[(y + first) * w + x] : image[y * fullW + x + first];
      ASSERT_EQ(target->data()[y * w + x], expected)
          << (vertical ? "V" : "H") << " w=" << w << " h=" << h << " first=" << first << " at ("
          << x << ", " << y << ")";
    }
  }
}

// Every length from an even origin, and from an odd negative one (the first sample falls
// before the target). Vertically, across the filtered axis, every tail length of 16 and 32
// lanes; horizontally up to 34 pairs a row: every tail length of 16 lanes.
TEST(Wavelet, ReconstructsSignalsOfEveryLength) {
  testing::forEachSimdTarget([] {
    for (int n : {2, 3, 4, 5, 8, 9, 16, 17, 31, 32, 33, 40, 67}) {
      for (int w : {1, 7, 8, 9, 16, 17, 33, 67}) checkPerfectReconstruction(true, w, n, 0);
    }
    for (int w = 1; w <= 65; ++w) checkPerfectReconstruction(true, w, 5, 0);
    for (int n : {2, 3, 6, 7, 40, 67}) {
      for (int w : {5, 16, 40}) checkPerfectReconstruction(true, w, n, 1);
    }
    for (int n = 2; n <= 68; ++n) {
      for (int h : {1, 3}) checkPerfectReconstruction(false, n, h, 0);
      checkPerfectReconstruction(false, n, 2, 1);
    }
    checkPerfectReconstruction(false, 67, 5, 0);
    checkPerfectReconstruction(false, 130, 2, 0);
    checkPerfectReconstruction(false, 67, 3, 1);
  });
}

// Kernel output (and the scalar form's) against the documented passes on random data,
// including positive and odd origins, clamped outputs, the height/width-2 case, and
// sentinel checks of every element the call must not write.
void checkAgainstPasses(bool vertical, std::mt19937& rng, int lo, int hi) {
  std::uniform_int_distribution<int> size(2, 70), origin(-3, 5), pad(0, 3);
  int const across = size(rng), bandLength = size(rng) / 2 + 2;
  // Three spare band elements on each side of the filtered axis: the passes read from
  // k = a >= -3 up to k = bandLength.
  int const inF = 3 + pad(rng), inA = pad(rng);
  int const inX = vertical ? inA : inF, inY = vertical ? inF : inA;
  int const bw = vertical ? inA + across + pad(rng) : inF + bandLength + 3;
  int const bh = vertical ? inF + bandLength + 3 : inA + across + pad(rng);
  auto low = randomPlane(bw, bh, rng, lo, hi), high = randomPlane(bw, bh, rng, lo, hi);
  Rect const in =
      vertical ? Rect{inX, inY, across, bandLength} : Rect{inX, inY, bandLength, across};
  int const ox = std::max(0, origin(rng)), oy = std::max(0, origin(rng));
  int const o = origin(rng);
  // Output along the filtered axis: origin o (may be negative), length up to past the end.
  int const tw = vertical ? across + ox + pad(rng) : 2 * bandLength + pad(rng);
  int const th = vertical ? 2 * bandLength + pad(rng) : across + oy + pad(rng);
  Rect const out = vertical ? Rect{ox, o, across, 2 * bandLength + pad(rng)}
                            : Rect{o, oy, 2 * bandLength + pad(rng), across};
  auto expected = plane(tw, th, kSentinel), actual = plane(tw, th, kSentinel);
  auto scalar = plane(tw, th, kSentinel);
  referenceInverse(vertical, *low, *high, in, *expected, out);
  run(vertical, low, high, in, actual, out);
  (vertical ? reference::firIV53LeGall16 : reference::firIH53LeGall16)({low, high}, {in}, {scalar},
                                                                       {out});
  SCOPED_TRACE(::testing::Message()
               << (vertical ? "V" : "H") << " in {" << in[0] << "," << in[1] << "," << in[2] << ","
               << in[3] << "} out {" << out[0] << "," << out[1] << "," << out[2] << "," << out[3]
               << "} target " << tw << "x" << th);
  ASSERT_EQ(contents(*actual), contents(*expected));
  ASSERT_EQ(contents(*scalar), contents(*expected)) << "scalar form";
}

TEST(Wavelet, MatchesDocumentedPassesOnRandomData) {
  testing::forEachSimdTarget([] {
    for (bool vertical : {true, false}) {
      std::mt19937 rng(vertical ? 11 : 12);
      for (int i = 0; i < 300; ++i) checkAgainstPasses(vertical, rng, -8192, 8191);
      // The same exact values for every 16-bit input: sums wrap, never saturate.
      for (int i = 0; i < 100; ++i) checkAgainstPasses(vertical, rng, -32768, 32767);
    }
  });
}

TEST(WaveletV, HeightTwoWritesOnlyTheEvenRow) {
  // m = 0: no pairs; the even-only pass writes row 0 = e(0) and nothing else.
  auto low = plane(3, 2, 10), high = plane(3, 2, 4), target = plane(3, 4, kSentinel);
  run(true, low, high, {0, 0, 3, 2}, target, {0, 0, 3, 4});
  std::vector<int16_t> expected(12, kSentinel);
  std::fill(expected.begin(), expected.begin() + 3, int16_t{10 - ((4 + 4 + 2) >> 2)});
  EXPECT_EQ(contents(*target), expected);
  // With an odd origin the even row would land at -1 and is dropped; row 0 gets o(0),
  // which reads band row 2, missing here, so nothing is written at all.
  auto shifted = plane(3, 4, kSentinel);
  run(true, low, high, {0, 0, 3, 2}, shifted, {0, -1, 3, 4});
  EXPECT_EQ(contents(*shifted), std::vector<int16_t>(12, kSentinel));
}

TEST(WaveletH, WidthTwoWritesNothingWidthThreeOnePair) {
  // Here the tail bound is input.width - 2 = 0: unlike the vertical filter, no even-only
  // column either.
  auto low = plane(3, 1, -6), high = plane(3, 1, 3), target = plane(4, 1, kSentinel);
  run(false, low, high, {0, 0, 2, 1}, target, {0, 0, 4, 1});
  EXPECT_EQ(contents(*target), std::vector<int16_t>(4, kSentinel));
  run(false, low, high, {0, 0, 3, 1}, target, {0, 0, 4, 1});
  int16_t const e = static_cast<int16_t>(-6 - ((3 + 3 + 2) >> 2));
  EXPECT_EQ(contents(*target),
            (std::vector<int16_t>{e, static_cast<int16_t>(3 + e), kSentinel, kSentinel}));
}

// Inconsistent rectangles must stay inside every buffer (checked under AddressSanitizer)
// and write only inside the target.
TEST(WaveletV, InconsistentRectanglesStayInsideBuffers) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> any(-40, 80), size(0, 24);
  Rect const huge{2000000000, -2000000000, 2147483647, 2147483647};
  for (int i = 0; i < 3000; ++i) {
    auto low = randomPlane(size(rng), size(rng), rng, -100, 100);
    auto high = randomPlane(size(rng), size(rng), rng, -100, 100);
    auto target = plane(size(rng), size(rng), kSentinel);
    Rect in{any(rng), any(rng), any(rng), any(rng)}, out{any(rng), any(rng), any(rng), any(rng)};
    if (i % 50 == 0) in = huge;
    if (i % 70 == 0) out = huge;
    run(i % 2 == 0, low, high, in, target, out);
  }
  // Missing storage fails as documented.
  auto empty = std::make_shared<Plane>(4, 4, false);
  EXPECT_THROW(run(true, empty, plane(4, 4), {0, 0, 4, 4}, plane(4, 4), {0, 0, 4, 4}),
               QuorvelException);
}

TEST(WaveletH, BandsSmallerThanRectanglesWriteOnlyValidSamples) {
  // The rectangle claims 16 band columns but the bands hold 6: the kernel reconstructs the
  // samples whose band elements exist and leaves the rest of the target untouched.
  std::mt19937 rng(9);
  auto low = randomPlane(6, 3, rng, -50, 50), high = randomPlane(6, 3, rng, -50, 50);
  auto wide = plane(40, 3, kSentinel), exact = plane(40, 3, kSentinel);
  run(false, low, high, {0, 0, 16, 5}, wide, {0, 0, 40, 9});
  referenceInverse(false, *low, *high, {0, 0, 6, 3}, *exact, {0, 0, 40, 3});
  EXPECT_EQ(contents(*wide), contents(*exact));
}

}  // namespace
}  // namespace quorvel
