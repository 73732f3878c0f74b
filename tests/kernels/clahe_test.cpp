#include "quorvel/kernels/display/clahe.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "kernels/display/clahe_rows.hpp"
#include "kernels/simd_targets.hpp"
#include "kernels/worker_scratch.hpp"
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

using Apply =
    std::function<void(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<Rect> const&,
                       std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<Rect> const&,
                       SingleFilterParameters const&)>;

// One filter job: a w x h source, its rectangle and the target's.
struct Job {
  int w, h;
  Rect in, out;
  int tw, th;
  double clip;
};

std::vector<Job> jobs() {
  std::vector<Job> list;
  // Whole images, partial tiles at the right and bottom, every clip limit class (below one is
  // raised to one).
  for (auto [w, h] : {std::pair{41, 41}, {100, 73}, {80, 80}, {123, 200}}) {
    for (double clip : {0.25, 1.0, 2.0, 3.5})
      list.push_back({w, h, {0, 0, w, h}, {0, 0, w, h}, w, h, clip});
  }
  // A source too small to equalise, so the copy alone is visible, clipped to both buffers;
  // sources of one tile or less in either direction pass unchanged.
  for (auto [in, out] : {std::pair<Rect, Rect>{{0, 0, 30, 20}, {5, 3, 100, 100}},
                         {{-4, -2, 30, 20}, {0, 0, 30, 20}},
                         {{25, 17, 30, 20}, {0, 0, 30, 20}},
                         {{0, 0, 1000, 1000}, {-8, -9, 1000, 1000}}}) {
    list.push_back({30, 20, in, out, 30, 20, 1.5});
  }
  for (auto [w, h] : {std::pair{40, 90}, {90, 40}, {12, 7}})
    list.push_back({w, h, {0, 0, w, h}, {0, 0, w, h}, w, h, 1.5});
  // Whole equalised rows go to the target as they are finished; rows above the first
  // equalised one, partial rows and rows that run into the next source row are copied
  // afterwards.
  int const w = 123, h = 97, rw = w - 40, rh = h - 40;  // rw, rh: after the first tile
  for (auto [in, out, tw, th] : {std::tuple<Rect, Rect, int, int>{{0, 0, w, h}, {0, 0, w, h}, w, h},
                                 {{0, 10, w, h}, {7, 3, w, h}, 140, 90},  // wider target
                                 {{0, 0, w, h}, {0, 45, w, h}, w, h},     // first tile row kept
                                 {{40, 0, rw, h}, {0, 0, rw, h}, w, h},   // first tile column kept,
                                 {{40, 0, rw, rh}, {0, 0, rw, rh}, rw, rh},   // into the rest only
                                 {{3, 0, w - 3, h}, {0, 0, w - 3, h}, w, h},  // partial rows
                                 {{5, -3, w, h}, {0, 0, w, h}, w, h},         // into the next row
                                 {{0, 50, w, h}, {0, 0, w, h}, w, h}}) {      // past the end
    list.push_back({w, h, in, out, tw, th, 1.5});
  }
  return list;
}

// Runs `apply` on the job with a random source and a target filled with a sentinel, and
// checks both against the reference: the source equalised in place from the tile that the
// rectangles select (sources of 40 or fewer pixels on a side pass unchanged), and the target
// holding the flat copy of it. The expected copy clips the output to the target, moves the
// input by what the output lost (as getValidRects does), then copies flat source indices,
// skipping negative row starts.
void expectEqualisedCopy(Apply const& apply, Job const& job, std::mt19937& gen) {
  auto const [w, h, in, out, tw, th, clip] = job;
  std::vector<int16_t> const original = randomImage(w, h, gen);
  RgbS16 const sentinel{{-7, -7, -7}};
  auto source = makeImage(w, h, original);
  auto target = std::make_shared<Buffer2DVector<RgbS16>>(tw, th, true);
  target->clear(sentinel);
  apply({source}, {in}, {target}, {out}, clahe(clip));
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
      int64_t const rowStart = int64_t{iy + y - oy} * w + ix, index = rowStart + x - ox;
      if (x >= ox && x < ox + ow && y >= oy && y < oy + oh && rowStart >= 0 &&
          index < int64_t{w} * h) {
        expected = {{want[3 * index], want[3 * index + 1], want[3 * index + 2]}};
      }
      ASSERT_EQ(target->data()[y * tw + x], expected) << "pixel " << x << ", " << y;
    }
  }
}

class ClaheFilter : public ::testing::Test {
 protected:
  SoftwareFilterCLAHE filter_{pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 16)};
  std::string failureWith(Apply const& apply) {
    auto buffer = std::make_shared<Buffer2DVector<RgbS16>>(8, 8, true);
    return testing::failureOf([&] {
      apply({buffer}, {Rect{}}, {buffer}, {{0, 0, 8, 8}}, FilterEmptyParams::instance());
    });
  }
};

TEST_F(ClaheFilter, EqualisesAndCopiesLikeTheReference) {
  Apply const direct = [&](auto const&... args) { filter_.apply(args...); };
  std::mt19937 gen(7);
  for (Job const& job : jobs()) expectEqualisedCopy(direct, job, gen);
  // A target that is the source itself is written after the equalisation.
  int const w = 123, h = 97;
  std::vector<int16_t> want = randomImage(w, h, gen);
  auto buffer = makeImage(w, h, want);
  filter_.apply({buffer}, {{0, 0, w, h}}, {buffer}, {{0, 0, w, h}}, clahe(1.5));
  refClahe(want, w, h, 1.5, 0, 0);
  EXPECT_EQ(samplesOf(*buffer), want);
  std::string const text = failureWith(direct);
  EXPECT_NE(text.find("Filter parameters cast failed"), std::string::npos) << text;
}

TEST_F(ClaheFilter, RunsOnAWorkerWithItsKeptEqualiser) {
  // One worker's jobs in a row share its equaliser, sizes going up and down, and a source
  // wider than the kept one gets its own: nothing of one job may show in the next.
  kernel::WorkerScratch scratch;
  Apply const onWorker = [&](auto const&... args) {
    kernel::applyOnWorker(filter_, scratch, args...);
  };
  std::mt19937 gen(21);
  std::vector<Job> list = jobs();
  int const wide = static_cast<int>(kernel::WorkerScratch::kClaheWidth) + 41;
  list.insert(list.begin() + 5, {wide, 41, {0, 0, wide, 41}, {0, 0, wide, 41}, wide, 41, 2.0});
  for (Job const& job : list) expectEqualisedCopy(onWorker, job, gen);
  EXPECT_EQ(failureWith(onWorker),
            failureWith([&](auto const&... args) { filter_.apply(args...); }));
  // A subclass keeps its own apply.
  struct Counting : SoftwareFilterCLAHE {
    using SoftwareFilterCLAHE::SoftwareFilterCLAHE;
    int calls = 0;
    void apply(std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<Rect> const&,
               std::vector<std::shared_ptr<Buffer2D>> const&, std::vector<Rect> const&,
               SingleFilterParameters const&) override {
      ++calls;
    }
  } counting{pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 16)};
  auto image = makeImage(81, 41, randomImage(81, 41, gen));
  std::vector<int16_t> const before = samplesOf(*image);
  kernel::applyOnWorker(counting, scratch, {image}, {Rect{}}, {image}, {{0, 0, 81, 41}}, clahe(2));
  EXPECT_EQ(counting.calls, 1);
  EXPECT_EQ(samplesOf(*image), before);
}

TEST(ClaheClipLimit, IsRoundedToFloatAndRaisedToOne) {
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(0.5), 1.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(-3.0), 1.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(2.0), 2.0);
  EXPECT_EQ(SoftwareFilterCLAHE::effectiveClipLimit(1.1), static_cast<double>(1.1f));
  EXPECT_TRUE(std::isnan(SoftwareFilterCLAHE::effectiveClipLimit(std::nan(""))));
  EXPECT_TRUE(std::isinf(SoftwareFilterCLAHE::effectiveClipLimit(1e300)));
}

TEST(Clahe, ClipsAndMapsKnownTiles) {
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
  // A constant tile at limit 6: every bin ends at the limit (64 counts find no room), so
  // bin b maps to 6 (b + 1) / 1600 of the range.
  c.clipLimit = 1.0;
  std::vector<int16_t> samples(3 * 1600, 100);
  c.computeMappings(samples.data());
  for (size_t b = 0; b < 256; ++b) {
    EXPECT_EQ(c.mappings[b], static_cast<uint32_t>(6.0 * (b + 1) * (255.0 / 1600))) << b;
  }
  // Samples outside 0..255 land in the end bins. Half of them in bin 0 and half in bin
  // 255, unclipped: the scale 255 / 1600 is rounded down in double, so the full count maps
  // just short of 255 and truncates to 254.
  for (auto [sample, bin] :
       {std::pair<int16_t, size_t>{-1, 0}, {-32768, 0}, {256, 255}, {32767, 255}, {77, 77}}) {
    EXPECT_EQ(c.sampleIndex(sample), bin) << sample;
  }
  c.clipLimit = 1e9;
  for (size_t i = 0; i < 1600; ++i) {
    samples[3 * i] = static_cast<int16_t>(i % 2 ? 300 + i : -1 - static_cast<int>(i));
  }
  c.computeMappings(samples.data());
  EXPECT_EQ(c.mappings[0], 127u);
  EXPECT_EQ(c.mappings[254], 127u);
  EXPECT_EQ(c.mappings[255], 254u);
}

TEST(Clahe, ClippingMatchesTheReferenceOnRandomHistograms) {
  // Skewed histograms of full and small tiles: bins far over the limit, bins just under it
  // (filled only up to the limit), and excesses from none to many times the bin count. On
  // every target, the vector fold and clip of a tile's four count sets, followed by the
  // spreading of what is left, gives clipHistogram's result.
  std::mt19937 rng(17);
  testing::forEachSimdTarget([&] {
    for (int i = 0; i < 1000; ++i) {
      int64_t const pixels = i % 3 == 0 ? 1 + rng() % 200 : 1600;
      double const clip = i % 50 == 0 ? 1e9 : 1.0 + (rng() % 400) / 40.0;
      std::vector<uint32_t> h(kBins, 0);
      int const spread = 1 + static_cast<int>(rng() % kBins);
      for (int64_t p = 0; p < pixels; ++p) ++h[(rng() % spread) * (i % 2 ? 1 : 255 / spread)];
      std::vector<uint16_t> sets(4 * kBins);
      for (size_t b = 0; b < sets.size(); ++b)
        sets[b] = static_cast<uint16_t>((h[b % 256] + b / 256) / 4);
      Histogram expected(h.begin(), h.end());
      refClip(expected, pixels, clip);
      CLAHE c;
      c.configure(40, 40, clip);
      c.clipHistogram(h.data(), static_cast<size_t>(pixels));
      ASSERT_EQ(Histogram(h.begin(), h.end()), expected) << "case " << i;
      uint64_t const limit = c.clipLimitFor(static_cast<size_t>(pixels));
      std::vector<uint32_t> folded(kBins, 7);
      int32_t const left = clahe_detail::foldAndClip(
          sets.data(), folded.data(), static_cast<int32_t>(std::min<uint64_t>(limit, 32767)));
      clahe_detail::spreadExcess(folded.data(), kBins, limit, left);
      ASSERT_EQ(folded, h) << "case " << i;
      ASSERT_EQ(sets, std::vector<uint16_t>(4 * kBins, 0));
    }
  });
}

TEST(Clahe, InterpolatesExactlyLikeTheDoubleFormula) {
  // Mappings set by hand, on every target: byte mappings take the vector rows, wider ones
  // the general path; both follow the formula, in the rectangle asked for only.
  std::mt19937 gen(11);
  testing::forEachSimdTarget([&] {
    for (uint32_t top : {255u, 40000u}) {
      CLAHE c;
      c.configure(100, 90, 2.0);
      std::uniform_int_distribution<uint32_t> entry(0, top);
      for (auto& m : c.mappings) m = entry(gen);
      std::vector<int16_t> samples(3 * 100 * 90);
      std::uniform_int_distribution<int> s(-10, 270);
      for (auto& v : samples) v = static_cast<int16_t>(s(gen));
      std::vector<int16_t> const before = samples;
      c.interpolate(samples.data(), 3, 5, 1000, 71);
      for (int r = 0; r < 100; ++r) {
        for (int col = 0; col < 90; ++col) {
          size_t const at = 3 * (r * 90 + col);
          int const b = std::clamp<int>(before[at], 0, 255);
          auto m = [&](int tr, int tc) { return double(c.mappings[(tr * 3 + tc) * 256 + b]); };
          auto const v = static_cast<int16_t>(static_cast<uint16_t>(refMix(m, r, col, 3, 3)));
          bool const inside = r >= 3 && col >= 5 && col < 76;
          ASSERT_EQ(samples[at], inside ? v : before[at]) << r << ", " << col << " top " << top;
        }
      }
    }
  });
}

TEST(Clahe, VectorStepsMatchTheGeneralPathOnEveryTarget) {
  // The standard grid equalises band by band with the vector steps, reusing the bins it
  // counted and writing each finished row to a copy (streamed where asked). The same image
  // with a fourth channel takes the general scalar path in two passes. Both agree on every
  // target: in the rows reported final as they are reported, in the copy, and in the two
  // tile rows of mappings the banded run keeps (tile row t in slot t % 2).
  std::mt19937 gen(9);
  struct Case {
    size_t w, h, r0, c0;
    double clip;
    bool stream;
  };
  for (Case const& t : {Case{81, 97, 0, 0, 3.0, false}, Case{128, 160, 40, 0, 1.0, true},
                        Case{163, 41, 0, 40, 2.0, true}, Case{200, 219, 40, 40, 1e9, false}}) {
    SCOPED_TRACE(::testing::Message() << t.w << " x " << t.h << " from " << t.r0 << ", " << t.c0);
    std::vector<int16_t> image = randomImage(static_cast<int>(t.w), static_cast<int>(t.h), gen);
    std::fill_n(image.begin(), 3 * t.w * 30, int16_t{40});  // flat tiles, whose bins all clip
    // The general path: rgb becomes rgb-, then back.
    std::vector<int16_t> general(image.size() / 3 * 4, -5), want(image.size());
    for (size_t p = 0; p < t.w * t.h; ++p) std::copy_n(&image[3 * p], 3, &general[4 * p]);
    CLAHE b;
    b.configure(t.h, t.w, t.clip);
    b.channels = 4;
    b.computeMappings(general.data());
    b.interpolate(general.data(), t.r0, t.c0, t.h, t.w);
    for (size_t p = 0; p < t.w * t.h; ++p) std::copy_n(&general[4 * p], 3, &want[3 * p]);
    // Copy rows that start on 64 bytes, so that streaming stores apply.
    size_t const stride = (3 * (t.w - t.c0) + 31) / 32 * 32;
    std::vector<int16_t> buffer(stride * t.h + 32);
    int16_t* rows = buffer.data() + (64 - reinterpret_cast<uintptr_t>(buffer.data()) % 64) % 64 / 2;
    testing::forEachSimdTarget([&] {
      std::vector<int16_t> samples = image;
      CLAHE a;
      a.configure(t.h, t.w, t.clip);
      size_t last = 0;
      a.equalize(
          samples.data(), t.r0, t.c0,
          [&](size_t done) {
            ASSERT_GE(done, last);
            ASSERT_TRUE(
                std::equal(samples.begin(), samples.begin() + 3 * done * t.w, want.begin()));
            last = done;
          },
          ClaheRowCopy{rows, stride, t.r0, t.h - t.r0, t.stream});
      EXPECT_EQ(last, t.h);
      ASSERT_EQ(samples, want);
      for (size_t r = t.r0; r < t.h; ++r) {
        int16_t const* row = rows + (r - t.r0) * stride;
        ASSERT_TRUE(std::equal(row, row + 3 * (t.w - t.c0), &want[3 * (r * t.w + t.c0)])) << r;
      }
      size_t const rowSize = a.tileCols * 256;
      ASSERT_EQ(a.mappings.size(), std::min<size_t>(a.tileRows, 2) * rowSize);
      for (size_t tr = a.tileRows - a.mappings.size() / rowSize; tr < a.tileRows; ++tr) {
        EXPECT_TRUE(std::equal(&a.mappings[tr % 2 * rowSize], &a.mappings[(tr % 2 + 1) * rowSize],
                               &b.mappings[tr * rowSize]))
            << "tile row " << tr;
      }
    });
  }
}

}  // namespace
}  // namespace quorvel
