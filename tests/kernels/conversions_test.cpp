#include "quorvel/kernels/reconstruction/conversions.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <type_traits>

#include "kernels/simd_targets.hpp"
#include "support/buffers.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using Rgb16 = std::array<int16_t, 3>;
using Rgb8 = std::array<uint8_t, 3>;
using Rgba8 = std::array<uint8_t, 4>;

using testing::buffer;
using testing::contents;

template <class F>
void run(std::vector<std::shared_ptr<Buffer2D>> const& in,
         std::vector<std::vector<int>> const& inRects, std::shared_ptr<Buffer2D> const& out,
         std::vector<int> const& outRect,
         SingleFilterParameters const& params = FilterEmptyParams::instance()) {
  F f(pointFilter("Conversion", in.size()));
  f.apply(in, inRects, {out}, {outRect}, params);
}

uint8_t clamp8(int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

// A w x h buffer whose samples, channel by channel, come from next().
template <class P, class G>
std::shared_ptr<Buffer2DVector<P>> randomBuffer(int w, int h, G&& next) {
  auto b = buffer<P>(w, h);
  for (int i = 0; i < w * h; ++i) {
    if constexpr (std::is_arithmetic_v<P>) {
      b->data()[i] = static_cast<P>(next());
    } else {
      for (auto& c : b->data()[i]) c = static_cast<typename P::value_type>(next());
    }
  }
  return b;
}

FilterTruncate16Params truncation(size_t bits, bool midpoint) {
  FilterTruncate16Params p;
  p.bits = bits;
  p.reconstructAtMidpoint = midpoint;
  return p;
}

std::vector<int16_t> truncated(std::vector<int16_t> const& values, size_t bits, bool midpoint) {
  auto in = buffer<int16_t>(values.size(), 1), out = buffer<int16_t>(values.size(), 1);
  std::copy(values.begin(), values.end(), in->data());
  int const w = static_cast<int>(values.size());
  run<SoftwareFilterTruncate<int16_t>>({in}, {{0, 0, w, 1}}, out, {0, 0, w, 1},
                                       truncation(bits, midpoint));
  return contents(*out);
}

TEST(Conversions, TruncateQuantisesMagnitudes) {
  EXPECT_EQ(truncated({37, -37, 5, 0}, 4, true), (std::vector<int16_t>{39, -39, 0, 0}));
  EXPECT_EQ(truncated({37, -37, 5, -32768}, 4, false), (std::vector<int16_t>{32, -32, 0, -32768}));
  std::vector<int16_t> const any{-32768, -3, -1, 0, 1, 2, 32767};
  EXPECT_EQ(truncated(any, 0, false), any);
  EXPECT_EQ(truncated(any, 0, true), any);
  // -32768 keeps its 16-bit magnitude: q = -32768 + 7 wraps, and is negated back.
  EXPECT_EQ(truncated({-32768}, 4, true)[0], static_cast<int16_t>(32768 - 7));
  EXPECT_EQ(truncated({32767}, 15, false)[0], 0);
  // A wrong parameter class fails with the cast message.
  auto in = buffer<int16_t>(1, 1);
  std::string const text = testing::failureOf([&] {
    run<SoftwareFilterTruncate<int16_t>>({in}, {{0, 0, 1, 1}}, in, {0, 0, 1, 1});
  });
  EXPECT_NE(text.find("#Name:Filter parameters cast failed"), std::string::npos) << text;
}

TEST(Conversions, TruncateSixteenBitsZeroesOneRunClampedToTheBuffer) {
  auto in = buffer<int16_t>(4, 3, 9);
  auto out = buffer<int16_t>(4, 3, 9);
  // 2 x 2 from (1, 1): four consecutive elements from index 5, row stride not applied.
  run<SoftwareFilterTruncate<int16_t>>({in}, {{0, 0, 2, 2}}, out, {1, 1, 2, 2},
                                       truncation(16, false));
  EXPECT_EQ(contents(*out), (std::vector<int16_t>{9, 9, 9, 9, 9, 0, 0, 0, 0, 9, 9, 9}));
  // 3 x 2 from (2, 2) asks for six elements from index 10: clamped to the last two.
  auto tail = buffer<int16_t>(4, 3, 9);
  run<SoftwareFilterTruncate<int16_t>>({in}, {{0, 0, 3, 2}}, tail, {2, 2, 3, 2},
                                       truncation(20, true));
  EXPECT_EQ(contents(*tail), (std::vector<int16_t>{9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 0, 0}));
}

TEST(Conversions, InterleaveUsesEachSourcesOwnRectangle) {
  // Three planes of different widths, each read from its own origin.
  auto a = buffer<int16_t>(5, 3), b = buffer<int16_t>(3, 3), c = buffer<int16_t>(4, 4);
  for (int i = 0; i < 15; ++i) a->data()[i] = static_cast<int16_t>(100 + i);
  for (int i = 0; i < 9; ++i) b->data()[i] = static_cast<int16_t>(200 + i);
  for (int i = 0; i < 16; ++i) c->data()[i] = static_cast<int16_t>(-300 - i);
  Rgb16 const sentinel{7, 7, 7};
  auto out = buffer<Rgb16>(4, 3, sentinel);
  run<SoftwareInterleaveFilter<int16_t, 3>>({a, b, c}, {{2, 1, 2, 2}, {0, 0, 2, 2}, {1, 2, 2, 2}},
                                            out, {1, 0, 2, 2});
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      Rgb16 expected = sentinel;
      if (x >= 1 && x < 3 && y < 2) {
        int const i = x - 1, j = y;
        expected = {static_cast<int16_t>(100 + (1 + j) * 5 + 2 + i),
                    static_cast<int16_t>(200 + j * 3 + i),
                    static_cast<int16_t>(-300 - ((2 + j) * 4 + 1 + i))};
      }
      EXPECT_EQ(out->data()[y * 4 + x], expected) << x << "," << y;
    }
  }
}

TEST(Conversions, RemoveAlphaUsesRectanglesAsGivenInsideBuffers) {
  auto src = buffer<Rgba8>(3, 2);
  for (int i = 0; i < 6; ++i) {
    src->data()[i] = {static_cast<uint8_t>(i), static_cast<uint8_t>(10 + i),
                      static_cast<uint8_t>(20 + i), 99};
  }
  Rgb8 const sentinel{1, 1, 1};
  auto out = buffer<Rgb8>(3, 2, sentinel);
  // No validation: the output origin is not moved, the input size is only capped by the
  // buffers: 2 x 2 from source (1, 0) to target (0, 0).
  run<SoftwareFilterRemoveAlpha<uint8_t>>({src}, {{1, 0, 5, 5}}, out, {0, 0, 2, 9});
  EXPECT_EQ(
      contents(*out),
      (std::vector<Rgb8>{{1, 11, 21}, {2, 12, 22}, sentinel, {4, 14, 24}, {5, 15, 25}, sentinel}));
  // Rectangles entirely outside write nothing and do not fail.
  run<SoftwareFilterRemoveAlpha<uint8_t>>({src}, {{-9, 0, 2, 2}}, out, {50, 0, 2, 2});
}

// Widths up to two vectors of 64 pixels and more: every tail length of each step.
TEST(Conversions, VectorRowsMatchScalarForEveryTailLength) {
  testing::forEachSimdTarget([] {
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> any(-32768, 32767), near(-300, 600), byte(0, 255);
    auto anySample = [&] { return any(rng); };
    auto anyByte = [&] { return byte(rng); };
    // The ends of the range and both sides of each clamp edge, first in every image so
    // that short rows see them too.
    int16_t const edges[] = {-32768, -1, 0, 255, 256, 32767};
    for (int w = 1; w <= 130; ++w) {
      int const h = 2;
      int n = 0;
      auto g = randomBuffer<int16_t>(w + 1, h, [&] { return n++ % 3 ? near(rng) : any(rng); });
      auto rgb = randomBuffer<Rgb16>(w, h, [&] { return n++ % 3 == 1 ? any(rng) : near(rng); });
      std::copy_n(edges, std::min(6, 2 * w + 1), g->data() + 1);
      std::copy_n(edges, 6, rgb->data()->data());
      // Sources read from x = 1 so rows start unaligned.
      auto g8 = buffer<uint8_t>(w, h);
      auto gr = buffer<Rgba8>(w, h), c8 = buffer<Rgba8>(w, h);
      run<SoftwareFilter1x16To1x8<int16_t, uint8_t>>({g}, {{1, 0, w, h}}, g8, {0, 0, w, h});
      run<SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>>({g}, {{1, 0, w, h}}, gr,
                                                              {0, 0, w, h});
      run<SoftwareFilter3x16To4x8<int16_t, uint8_t>>({rgb}, {{0, 0, w, h}}, c8, {0, 0, w, h});
      auto tr = buffer<int16_t>(w, h), trm = buffer<int16_t>(w, h);
      unsigned const bits = static_cast<unsigned>(w % 16);
      run<SoftwareFilterTruncate<int16_t>>({g}, {{1, 0, w, h}}, tr, {0, 0, w, h},
                                           truncation(bits, false));
      run<SoftwareFilterTruncate<int16_t>>({g}, {{1, 0, w, h}}, trm, {0, 0, w, h},
                                           truncation(bits, true));
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
          int16_t const v = g->data()[y * (w + 1) + x + 1];
          ASSERT_EQ(g8->data()[y * w + x], clamp8(v)) << "w=" << w << " v=" << v;
          uint8_t const c = clamp8(v);
          ASSERT_EQ(gr->data()[y * w + x], (Rgba8{c, c, c, 255})) << "w=" << w << " v=" << v;
          Rgb16 const p = rgb->data()[y * w + x];
          ASSERT_EQ(c8->data()[y * w + x], (Rgba8{clamp8(p[0]), clamp8(p[1]), clamp8(p[2]), 255}));
          int16_t expected = 0, expectedMid = 0;
          reference::truncate16(&v, &expected, 1, bits, false);
          reference::truncate16(&v, &expectedMid, 1, bits, true);
          ASSERT_EQ(tr->data()[y * w + x], expected) << "w=" << w << " v=" << v;
          ASSERT_EQ(trm->data()[y * w + x], expectedMid) << "w=" << w << " v=" << v;
        }
      }
      // Interleave and alpha removal against their definitions.
      auto p0 = randomBuffer<int16_t>(w, 1, anySample), p1 = randomBuffer<int16_t>(w, 1, anySample),
           p2 = randomBuffer<int16_t>(w, 1, anySample);
      auto rgba = randomBuffer<Rgba8>(w, 1, anyByte);
      auto merged = buffer<Rgb16>(w, 1);
      auto noAlpha = buffer<Rgb8>(w, 1);
      run<SoftwareInterleaveFilter<int16_t, 3>>(
          {p0, p1, p2}, {{0, 0, w, 1}, {0, 0, w, 1}, {0, 0, w, 1}}, merged, {0, 0, w, 1});
      run<SoftwareFilterRemoveAlpha<uint8_t>>({rgba}, {{0, 0, w, 1}}, noAlpha, {0, 0, w, 1});
      for (int i = 0; i < w; ++i) {
        ASSERT_EQ(merged->data()[i], (Rgb16{p0->data()[i], p1->data()[i], p2->data()[i]}));
        Rgba8 const s = rgba->data()[i];
        ASSERT_EQ(noAlpha->data()[i], (Rgb8{s[0], s[1], s[2]})) << "w=" << w;
      }
    }
  });
}

}  // namespace
}  // namespace quorvel
