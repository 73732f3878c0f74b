#include "quorvel/kernels/display/clahe.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "kernels/display/clahe_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "support/test_util.hpp"

namespace quorvel {
namespace {

using RgbS16 = std::array<int16_t, 3>;
using Rect = std::vector<int>;

// --- A plain reference of the whole equalisation, straight from the description: one
// histogram per tile, clipping with redistribution, cumulative mappings in double, and the
// bilinear mix in double, truncated after adding 0.5.

constexpr int kTile = 40;
constexpr int kBins = 256;

using Histogram = std::vector<int64_t>;

void refClip(Histogram& h, int64_t n, double clip) {
  int64_t limit = static_cast<int64_t>(static_cast<double>(n) * clip / kBins);
  if (limit == 0) limit = 1;
  int64_t excess = 0;
  for (int64_t v : h) excess += std::max<int64_t>(0, v - limit);
  int64_t const inc = excess / kBins, upper = limit - inc;
  for (int64_t& v : h) {
    if (v > limit) {
      v = limit;
    } else if (v > upper) {
      excess -= limit - v;
      v = limit;
    } else {
      v += inc;
      excess -= inc;
    }
  }
  while (excess > 0) {
    int64_t const before = excess;
    for (int start = 0; start < kBins && excess > 0; ++start) {
      int64_t const step = std::max<int64_t>(1, kBins / excess);
      for (int64_t b = start; b < kBins && excess > 0; b += step) {
        if (h[b] < limit) ++h[b], --excess;
      }
    }
    if (excess == before) break;
  }
}

// The bilinear mix at pixel (r, c) of the mappings m(tile row, tile column) of the four
// tiles whose centres surround it, in double, plus 0.5. Block 0 between tile centres is the
// 20-pixel half block at the edge.
template <class M>
double refMix(M&& m, int r, int c, int tileRows, int tileCols) {
  int const i = (r + 20) / kTile, k = (c + 20) / kTile;
  double const Y = i == 0 ? 20 : 40, X = k == 0 ? 20 : 40;
  double const y = r - (i == 0 ? 0 : i * kTile - 20), x = c - (k == 0 ? 0 : k * kTile - 20);
  int const up = i == 0 ? 0 : std::min(i - 1, tileRows - 1), down = std::min(i, tileRows - 1);
  int const lf = k == 0 ? 0 : std::min(k - 1, tileCols - 1), rt = std::min(k, tileCols - 1);
  return ((m(up, lf) * (X - x) + m(up, rt) * x) * (Y - y) +
          (m(down, lf) * (X - x) + m(down, rt) * x) * y) /
             (X * Y) +
         0.5;
}

// Equalises channel 0 of `img` (w x h pixels, 3 samples each) in place from (r0, c0) on.
void refClahe(std::vector<int16_t>& img, int w, int h, double clip, int r0, int c0) {
  int const tileRows = (h + kTile - 1) / kTile, tileCols = (w + kTile - 1) / kTile;
  auto binOf = [](int16_t s) { return std::clamp<int>(s, 0, 255); };
  std::vector<Histogram> maps(tileRows * tileCols, Histogram(kBins, 0));
  for (int tr = 0; tr < tileRows; ++tr) {
    for (int tc = 0; tc < tileCols; ++tc) {
      int const th = std::min(kTile, h - tr * kTile), tw = std::min(kTile, w - tc * kTile);
      bool const partial = th < kTile || tw < kTile;
      Histogram& m = maps[tr * tileCols + tc];
      if (partial && tc == tileCols - 1 && tileCols > 1) {
        m = maps[tr * tileCols + tc - 1];
        continue;
      }
      if (partial && tr == tileRows - 1 && tileRows > 1) {
        m = maps[(tr - 1) * tileCols + tc];
        continue;
      }
      for (int y = 0; y < th; ++y) {
        for (int x = 0; x < tw; ++x) {
          ++m[binOf(img[3 * ((tr * kTile + y) * w + tc * kTile + x)])];
        }
      }
      refClip(m, int64_t{th} * tw, clip);
      if (partial) continue;
      double sum = 0;
      for (int64_t& v : m) {
        sum += static_cast<double>(v);
        v = std::min<int64_t>(255, static_cast<int64_t>(sum * (255.0 / (th * tw))));
      }
    }
  }
  std::vector<int16_t> const before = img;
  for (int r = r0; r < h; ++r) {
    for (int c = c0; c < w; ++c) {
      int const b = binOf(before[3 * (r * w + c)]);
      auto m = [&](int tr, int tc) { return static_cast<double>(maps[tr * tileCols + tc][b]); };
      img[3 * (r * w + c)] =
          static_cast<int16_t>(static_cast<int>(refMix(m, r, c, tileRows, tileCols)));
    }
  }
}

std::shared_ptr<Buffer2DVector<RgbS16>> makeImage(int w, int h, std::vector<int16_t> const& s) {
  auto b = std::make_shared<Buffer2DVector<RgbS16>>(w, h, true);
  std::copy(s.begin(), s.end(), b->data()->data());
  return b;
}

std::vector<int16_t> samplesOf(Buffer2DVector<RgbS16> const& b) {
  return std::vector<int16_t>(b.data()->data(), b.data()->data() + 3 * b.width() * b.height());
}

// Channel 0 mixes smooth gradients, blobs and noise (with some samples outside 0..255) so
// the tile histograms differ; channels 1 and 2 are arbitrary 16-bit values.
std::vector<int16_t> randomImage(int w, int h, std::mt19937& gen) {
  std::uniform_int_distribution<int> noise(-25, 25), any(-32768, 32767);
  std::vector<int16_t> s(3 * static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      double const base = 120 + 90 * std::sin(x * 0.07) * std::cos(y * 0.05) + (x * y) % 37;
      s[3 * (y * w + x)] = static_cast<int16_t>(base + noise(gen) * ((x / 17 + y / 13) % 3));
      s[3 * (y * w + x) + 1] = static_cast<int16_t>(any(gen));
      s[3 * (y * w + x) + 2] = static_cast<int16_t>(any(gen));
    }
  }
  return s;
}

FilterClaheParams clahe(double clipLimit) {
  FilterClaheParams p;
  p.clipLimit = clipLimit;
  return p;
}

class ClaheFilter : public ::testing::Test {
 protected:
  SoftwareFilterCLAHE filter_{pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 16)};
};

// Runs the filter from `in` of a w x h source to `out` of a tw x th target filled with a
// sentinel, and checks both against the reference: the source equalised in place from the
// tile that the rectangles select (sources of 40 or fewer pixels on a side pass unchanged),
// and the target holding the flat copy of it. The expected copy clips the output to the
// target, moves the input by what the output lost (as getValidRects does), then copies flat
// source indices, skipping negative row starts.
void expectEqualisedCopy(SoftwareFilterCLAHE& filter, std::vector<int16_t> const& original, int w,
                         int h, Rect const& in, Rect const& out, int tw, int th,
                         double clip = 1.5) {
  RgbS16 const sentinel{{-7, -7, -7}};
  auto source = makeImage(w, h, original);
  auto target = std::make_shared<Buffer2DVector<RgbS16>>(tw, th, true);
  target->clear(sentinel);
  filter.apply({source}, {in}, {target}, {out}, clahe(clip));
  int const ox = std::max(out[0], 0), oy = std::max(out[1], 0);
  int const ow = std::min(out[0] + out[2], tw) - ox;
  int const oh = std::min(out[1] + out[3], th) - oy;
  int const ix = std::max(in[0], ox - out[0]), iy = std::max(in[1], oy - out[1]);
  std::vector<int16_t> want = original;
  if (w > 40 && h > 40) {
    auto skip = [](int o, int i) { return static_cast<uint32_t>(std::abs(o) - i) >= 40 ? 40 : 0; };
    refClahe(want, w, h, std::max(1.0, clip), skip(oy, iy), skip(ox, ix));
  }
  SCOPED_TRACE(::testing::Message()
               << "in " << in[0] << ", " << in[1] << " out " << out[0] << ", " << out[1] << " into "
               << tw << " x " << th << " from " << w << " x " << h << " clip " << clip);
  ASSERT_EQ(samplesOf(*source), want);
  for (int y = 0; y < th; ++y) {
    for (int x = 0; x < tw; ++x) {
      RgbS16 expected = sentinel;
      if (x >= ox && x < ox + ow && y >= oy && y < oy + oh) {
        int64_t const rowStart = int64_t{iy + y - oy} * w + ix;
        int64_t const index = rowStart + x - ox;
        if (rowStart >= 0 && index < int64_t{w} * h) {
          expected = {{want[3 * index], want[3 * index + 1], want[3 * index + 2]}};
        }
      }
      ASSERT_EQ(target->data()[y * tw + x], expected) << "pixel " << x << ", " << y;
    }
  }
}

// Whole images, partial tiles at the right and bottom, every clip limit class (below one is
// raised to one); channels 1 and 2 pass bit for bit.
TEST_F(ClaheFilter, MatchesTheReferenceOnImagesWithPartialTiles) {
  std::mt19937 gen(7);
  for (auto [w, h] : {std::pair{41, 41}, {100, 73}, {80, 80}, {123, 200}}) {
    for (double clip : {0.25, 1.0, 2.0, 3.5}) {
      expectEqualisedCopy(filter_, randomImage(w, h, gen), w, h, {0, 0, w, h}, {0, 0, w, h}, w, h,
                          clip);
    }
  }
}

TEST_F(ClaheFilter, CopiesOnlyWhatTheBuffersHold) {
  // Source of 30 x 20 (too small to equalise), so the copy alone is visible.
  std::vector<int16_t> original(3 * 30 * 20);
  for (size_t i = 0; i < original.size(); ++i) original[i] = static_cast<int16_t>(i);
  for (auto [in, out] : {std::pair<Rect, Rect>{{0, 0, 30, 20}, {5, 3, 100, 100}},
                         {{-4, -2, 30, 20}, {0, 0, 30, 20}},
                         {{25, 17, 30, 20}, {0, 0, 30, 20}},
                         {{0, 0, 1000, 1000}, {-8, -9, 1000, 1000}}}) {
    expectEqualisedCopy(filter_, original, 30, 20, in, out, 30, 20);
  }
  // Sources of one tile or less in either direction pass through unchanged.
  std::mt19937 gen(9);
  for (auto [w, h] : {std::pair{40, 90}, {90, 40}, {12, 7}}) {
    expectEqualisedCopy(filter_, randomImage(w, h, gen), w, h, {0, 0, w, h}, {0, 0, w, h}, w, h);
  }
}

TEST_F(ClaheFilter, CopiesTheEqualisedRowsForAnyRectangles) {
  // Whole equalised rows go to the target as they are finished; rows above the first
  // equalised one, partial rows and rows that run into the next source row are copied
  // afterwards. Every layout gives the same target.
  std::mt19937 gen(12);
  int const w = 123, h = 97;
  std::vector<int16_t> const original = randomImage(w, h, gen);
  struct Case {
    Rect in, out;
    int tw, th;
  };
  int const rw = w - 40, rh = h - 40;  // what follows the first tile column and row
  Case const cases[] = {
      {{0, 0, w, h}, {0, 0, w, h}, w, h},          // whole rows, same layout
      {{0, 10, w, h}, {7, 3, w, h}, 140, 90},      // whole rows into a wider target
      {{0, 0, w, h}, {0, 45, w, h}, w, h},         // the first tile row is not equalised
      {{40, 0, rw, h}, {0, 0, rw, h}, w, h},       // nor is the first tile column,
      {{40, 0, rw, rh}, {0, 0, rw, rh}, rw, rh},   // also into a target of the rest only
      {{3, 0, w - 3, h}, {0, 0, w - 3, h}, w, h},  // partial rows
      {{5, -3, w, h}, {0, 0, w, h}, w, h},         // rows running into the next one
      {{0, 50, w, h}, {0, 0, w, h}, w, h},         // past the end of the source
  };
  for (Case const& c : cases) {
    expectEqualisedCopy(filter_, original, w, h, c.in, c.out, c.tw, c.th);
  }
  // A target that is the source itself is written after the equalisation.
  auto buffer = makeImage(w, h, original);
  filter_.apply({buffer}, {{0, 0, w, h}}, {buffer}, {{0, 0, w, h}}, clahe(1.5));
  std::vector<int16_t> want = original;
  refClahe(want, w, h, 1.5, 0, 0);
  EXPECT_EQ(samplesOf(*buffer), want);
}

TEST_F(ClaheFilter, RejectsParametersOfAnotherClass) {
  auto buffer = std::make_shared<Buffer2DVector<RgbS16>>(8, 8, true);
  std::string const text = testing::failureOf([&] {
    filter_.apply({buffer}, {Rect{}}, {buffer}, {{0, 0, 8, 8}}, FilterEmptyParams::instance());
  });
  EXPECT_NE(text.find("Filter parameters cast failed"), std::string::npos) << text;
}

TEST(ClaheClipLimit, IsRoundedToFloatAndRaisedToOne) {
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(0.5), 1.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(-3.0), 1.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(2.0), 2.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(1.1), static_cast<double>(1.1f));
  EXPECT_NE(SoftwareFilterCLAHE::effectiveClipLimit(1.1), 1.1);
  EXPECT_TRUE(std::isnan(SoftwareFilterCLAHE::effectiveClipLimit(std::nan(""))));
  EXPECT_TRUE(std::isinf(SoftwareFilterCLAHE::effectiveClipLimit(1e300)));
}

TEST(Clahe, ClipLimitOneGivesLimitSixOnAFullTile) {
  CLAHE c;
  c.configure(40, 40, 1.0);
  std::vector<uint32_t> h(256, 0);
  h[3] = 1600;
  EXPECT_EQ(c.clipHistogram(h.data(), 1600), 6u);
  // Small tiles still clip at 1; a NaN limit clips nothing.
  EXPECT_EQ(c.clipHistogram(h.data(), 10), 1u);
  c.clipLimit = std::nan("");
  std::vector<uint32_t> g(256, 0);
  g[9] = 1600;
  c.clipHistogram(g.data(), 1600);
  EXPECT_EQ(g[9], 1600u);
}

TEST(Clahe, ClippingMatchesTheReferenceOnRandomHistograms) {
  // Skewed histograms of full and small tiles: bins far over the limit, bins just under it
  // (filled only up to the limit), and excesses from none to many times the bin count.
  std::mt19937 rng(17);
  testing::forEachSimdTarget([&] {
    for (int i = 0; i < 1000; ++i) {
      int64_t const pixels = i % 3 == 0 ? 1 + rng() % 200 : 1600;
      double const clip = 1.0 + (rng() % 400) / 40.0;
      std::vector<uint32_t> h(kBins, 0);
      int const spread = 1 + static_cast<int>(rng() % kBins);
      for (int64_t p = 0; p < pixels; ++p) ++h[(rng() % spread) * (i % 2 ? 1 : 255 / spread)];
      Histogram expected(h.begin(), h.end());
      refClip(expected, pixels, clip);
      CLAHE c;
      c.configure(40, 40, clip);
      c.clipHistogram(h.data(), static_cast<size_t>(pixels));
      ASSERT_EQ(Histogram(h.begin(), h.end()), expected) << "case " << i;
    }
  });
}

TEST(Clahe, ConstantTileGivesARamp) {
  CLAHE c;
  c.configure(40, 40, 1.0);
  std::vector<int16_t> samples(3 * 1600, 100);
  c.computeMappings(samples.data());
  // Every bin ends at the limit 6 (64 counts find no room), so bin b maps to 6 (b + 1) / 1600
  // of the range.
  for (size_t b = 0; b < 256; ++b) {
    EXPECT_EQ(c.mappings[b], static_cast<uint32_t>(6.0 * (b + 1) * (255.0 / 1600))) << b;
  }
}

TEST(Clahe, OutOfRangeSamplesLandInTheEndBins) {
  CLAHE c;
  c.configure(40, 40, 1e9);
  for (auto [sample, bin] :
       {std::pair<int16_t, size_t>{-1, 0}, {-32768, 0}, {256, 255}, {32767, 255}, {77, 77}}) {
    EXPECT_EQ(c.sampleIndex(sample), bin) << sample;
  }
  std::vector<int16_t> samples(3 * 1600);
  for (size_t i = 0; i < 1600; ++i) {
    samples[3 * i] = static_cast<int16_t>(i % 2 ? 300 + i : -1 - static_cast<int>(i));
  }
  c.computeMappings(samples.data());
  // Half the samples in bin 0 and half in bin 255, unclipped. The scale 255 / 1600 is
  // rounded down in double, so the full count maps just short of 255 and truncates to 254.
  EXPECT_EQ(c.mappings[0], 127u);
  EXPECT_EQ(c.mappings[254], 127u);
  EXPECT_EQ(c.mappings[255], 254u);
}

TEST(Clahe, InterpolatesExactlyLikeTheDoubleFormula) {
  // Every numerator the packed path can meet, for each block area (20 or 40 on a side):
  // scaled to the area 1600, the shift-multiply division equals the double formula.
  for (uint32_t area : {400u, 800u, 1600u}) {
    for (uint32_t num = 0; num <= 255 * area; ++num) {
      auto const want = static_cast<uint32_t>(static_cast<double>(num) / area + 0.5);
      ASSERT_EQ(clahe_detail::divideRounded1600(num * (1600 / area)), want) << num << " / " << area;
    }
  }
  std::mt19937 gen(11);
  // Mappings beyond one byte take the wide path; both must follow the formula.
  for (uint32_t top : {255u, 40000u}) {
    CLAHE c;
    c.configure(100, 90, 2.0);
    std::uniform_int_distribution<uint32_t> entry(0, top);
    for (auto& m : c.mappings) m = entry(gen);
    std::vector<int16_t> samples(3 * 100 * 90);
    std::uniform_int_distribution<int> s(-10, 270);
    for (auto& v : samples) v = static_cast<int16_t>(s(gen));
    std::vector<int16_t> const before = samples;
    c.interpolate(samples.data(), 3, 5, 1000, 1000);
    for (int r = 0; r < 100; ++r) {
      for (int col = 0; col < 90; ++col) {
        size_t const at = 3 * (r * 90 + col);
        if (r < 3 || col < 5) {
          ASSERT_EQ(samples[at], before[at]);
          continue;
        }
        int const b = std::clamp<int>(before[at], 0, 255);
        auto m = [&](int tr, int tc) { return double(c.mappings[(tr * 3 + tc) * 256 + b]); };
        double const v = refMix(m, r, col, 3, 3);
        ASSERT_EQ(samples[at], static_cast<int16_t>(static_cast<uint16_t>(v)))
            << r << ", " << col << " top " << top;
      }
    }
  }
}

TEST(Clahe, VectorRowKernelsMatchTheScalarFormsOnEveryTarget) {
  std::mt19937 gen(5);
  std::uniform_int_distribution<int> s(-300, 600), w(0, 40), base(0, 3);
  std::uniform_int_distribution<uint32_t> word;
  std::vector<uint32_t> tables(4 * 256);
  for (auto& t : tables) t = word(gen);
  quorvel::testing::forEachSimdTarget([&] {
    for (size_t count = 0; count <= 100; ++count) {
      std::vector<int16_t> samples(3 * count + 3);
      for (auto& v : samples) v = static_cast<int16_t>(s(gen));
      std::vector<uint8_t> bins(count + 1, 77), want(count + 1, 77);
      clahe_detail::extractBins(samples.data(), bins.data(), count);
      clahe_detail::extractBinsScalar(samples.data(), want.data(), count);
      ASSERT_EQ(bins, want) << count;

      std::vector<int32_t> colBase(count), left(count), right(count);
      for (size_t i = 0; i < count; ++i) {
        colBase[i] = base(gen) * 256;
        left[i] = w(gen);
        right[i] = 40 - left[i];
      }
      int32_t const up = w(gen);
      std::vector<int16_t> got = samples, expected = samples;
      clahe_detail::interpolateRow40(got.data(), count, 3, 255, tables.data(), colBase.data(),
                                     left.data(), right.data(), up, 40 - up);
      clahe_detail::interpolateRow40Scalar(expected.data(), count, 3, 255, tables.data(),
                                           colBase.data(), left.data(), right.data(), up, 40 - up);
      ASSERT_EQ(got, expected) << count;

      // The byte-plane form, starting anywhere in a column block.
      std::vector<uint8_t> planes(5 * 1024), scratch(5 * count);
      for (auto& t : planes) t = static_cast<uint8_t>(word(gen));
      std::vector<uint16_t> left16(left.begin(), left.end()), right16(right.begin(), right.end());
      size_t const first = count * 7 % 41;
      expected = samples;
      clahe_detail::interpolateRowBytesScalar(expected.data(), count, first, planes.data(),
                                              left16.data(), right16.data(), up, 40 - up);
      for (uint8_t const* given : std::array<uint8_t const*, 2>{nullptr, want.data()}) {
        // With the bins given, the finished pixels are also copied out (and nothing more),
        // to a line-aligned target, with streaming stores for every other count.
        got = samples;
        std::vector<int16_t> buffer(3 * count + 3 + 32, -9);
        int16_t* copied =
            buffer.data() + (64 - reinterpret_cast<uintptr_t>(buffer.data()) % 64) % 64 / 2;
        clahe_detail::interpolateRowBytes(got.data(), given, count, first, planes.data(),
                                          left16.data(), right16.data(), up, 40 - up,
                                          scratch.data(), given ? copied : nullptr, count % 2 == 0);
        ASSERT_EQ(got, expected) << count << " from column " << first
                                 << (given ? " with bins" : "");
        if (given) {
          expected[3 * count] = expected[3 * count + 1] = expected[3 * count + 2] = -9;
          ASSERT_EQ(std::vector<int16_t>(copied, copied + 3 * count + 3), expected)
              << count << " from column " << first;
          std::copy_n(samples.begin() + 3 * count, 3, expected.begin() + 3 * count);
        }
      }
    }
  });
}

TEST(Clahe, TileMappingStepsMatchTheScalarFormsOnEveryTarget) {
  // The fold and clipping of the four count sets, and the cumulative levels, on histograms
  // of 1600 counts spread from one bin to all of them.
  std::mt19937 gen(13);
  double const scale = 255.0 / 1600;
  quorvel::testing::forEachSimdTarget([&] {
    for (int spread : {1, 3, 40, 256}) {
      std::vector<uint16_t> counts(4 * 256, 0);
      std::vector<uint32_t> want(256, 0);
      for (int p = 0; p < 1600; ++p) {
        size_t const bin = gen() % spread * (255 / std::max(1, spread - 1));
        ++counts[p % 4 * 256 + bin];
        ++want[bin];
      }
      // The fold and clip against the passes written out, for limits that cut everything,
      // some bins or nothing (which leaves the plain fold).
      for (int32_t limit : {1, 6, 12, 40, 2000}) {
        std::vector<uint16_t> sets = counts;
        std::vector<uint32_t> clipped = want;
        int32_t excess = 0;
        for (uint32_t v : want) excess += std::max(static_cast<int32_t>(v) - limit, 0);
        int32_t left = excess;
        if (excess > 0) {
          int32_t const inc = excess / 256;
          for (auto& v : clipped) {
            auto const c = static_cast<int32_t>(v);
            left -= c > limit ? 0 : std::min(inc, limit - c);
            v = static_cast<uint32_t>(c > limit - inc ? limit : c + inc);
          }
        }
        std::vector<uint32_t> fused(256, 7);
        ASSERT_EQ(clahe_detail::foldAndClip(sets.data(), fused.data(), limit), left);
        ASSERT_EQ(fused, clipped) << spread << " at limit " << limit;
        ASSERT_EQ(sets, std::vector<uint16_t>(4 * 256, 0));
      }
      std::vector<uint32_t> got = want;
      uint32_t sum = 0;
      for (auto& w : want) w = static_cast<uint32_t>((sum += w) * scale);
      clahe_detail::cumulativeLevels(got.data(), scale, 255);
      ASSERT_EQ(got, want) << spread;
    }
  });
}

TEST(Clahe, BandedEqualisationEqualsTheTwoPasses) {
  std::mt19937 gen(9);
  for (auto [w, h, r0, c0] : {std::array<size_t, 4>{81, 97, 0, 0},
                              {120, 160, 40, 0},
                              {163, 41, 0, 40},
                              {200, 219, 40, 40}}) {
    std::vector<int16_t> samples = randomImage(static_cast<int>(w), static_cast<int>(h), gen);
    std::vector<int16_t> want = samples;
    CLAHE a, b;
    a.configure(h, w, 3.0);
    b.configure(h, w, 3.0);
    a.computeMappings(want.data());
    a.interpolate(want.data(), r0, c0, h - r0, w - c0);
    size_t last = 0;
    b.equalize(samples.data(), r0, c0, [&](size_t rows) {
      // Rows reported final never change again.
      ASSERT_GE(rows, last);
      for (size_t i = 0; i < 3 * rows * w; ++i) ASSERT_EQ(samples[i], want[i]) << i;
      last = rows;
    });
    EXPECT_EQ(last, h);
    EXPECT_EQ(samples, want);
    // The banded run keeps the last two tile rows of mappings, tile row t in slot t % 2.
    size_t const rowSize = a.tileCols * 256;
    ASSERT_EQ(b.mappings.size(), std::min<size_t>(a.tileRows, 2) * rowSize);
    for (size_t t = a.tileRows - b.mappings.size() / rowSize; t < a.tileRows; ++t) {
      EXPECT_TRUE(std::equal(b.mappings.begin() + (t % 2) * rowSize,
                             b.mappings.begin() + (t % 2 + 1) * rowSize,
                             a.mappings.begin() + t * rowSize))
          << "tile row " << t;
    }
  }
}

}  // namespace
}  // namespace quorvel
