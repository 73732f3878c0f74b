#include "wavelet_encoder.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <quorvel/render.hpp>
#include <random>

namespace quorvel::tool {
namespace {

using Plane = Buffer2DVector<int16_t>;

std::shared_ptr<Plane> planeOf(std::vector<int16_t> const& values, size_t w, size_t h) {
  auto p = std::make_shared<Plane>(w, h, true);
  std::copy(values.begin(), values.end(), p->data());
  return p;
}

// Undoes one level with the backend's own kernels, called directly: columns, then rows,
// keeping `need` samples per axis.
std::vector<int16_t> inverseLevel(std::vector<int16_t> const& ll, std::vector<int16_t> const& hl,
                                  std::vector<int16_t> const& lh, std::vector<int16_t> const& hh,
                                  size_t nb, size_t need) {
  SoftwareFilterFirIV53LeGall16<int16_t, int16_t> vertical(pointFilter("FilterFirIV53LeGall16", 2));
  SoftwareFilterFirIH53LeGall16<int16_t, int16_t> horizontal(
      pointFilter("FilterFirIH53LeGall16", 2));
  int const n = static_cast<int>(nb), m = static_cast<int>(need);
  auto low = std::make_shared<Plane>(nb, need, true),
       high = std::make_shared<Plane>(nb, need, true);
  vertical.apply({planeOf(ll, nb, nb), planeOf(lh, nb, nb)}, {{0, 0, n, n}}, {low}, {{0, 0, n, m}},
                 FilterEmptyParams::instance());
  vertical.apply({planeOf(hl, nb, nb), planeOf(hh, nb, nb)}, {{0, 0, n, n}}, {high}, {{0, 0, n, m}},
                 FilterEmptyParams::instance());
  auto out = std::make_shared<Plane>(need, need, true);
  horizontal.apply({low, high}, {{0, 0, n, m}}, {out}, {{0, 0, m, m}},
                   FilterEmptyParams::instance());
  return {out->data(), out->data() + need * need};
}

std::vector<int16_t> reconstruct(std::vector<std::vector<int16_t>> const& bands,
                                 WaveletLayout const& layout) {
  std::vector<int16_t> approx = bands[layout.bandIndex(layout.levels(), BandKind::kLowLow)];
  for (size_t l = layout.levels(); l >= 1; --l) {
    approx = inverseLevel(approx, bands[layout.bandIndex(l, BandKind::kHighLow)],
                          bands[layout.bandIndex(l, BandKind::kLowHigh)],
                          bands[layout.bandIndex(l, BandKind::kHighHigh)], layout.bandSize(l),
                          layout.delivered(l));
  }
  return approx;
}

TEST(WaveletEncoder, BandsGrowByTheLeadingAndTrailingCoefficients) {
  WaveletLayout const layout(256, 3);
  EXPECT_EQ(layout.bandSize(1), 130u);  // 128 pairs + 2
  EXPECT_EQ(layout.bandSize(2), 67u);   // delivers the 130 samples level 1 reads
  EXPECT_EQ(layout.bandSize(3), 36u);   // 68 samples (67 rounded up to pairs) / 2 + 2
  EXPECT_EQ(layout.delivered(1), 256u);
  EXPECT_EQ(layout.delivered(3), 67u);
  EXPECT_EQ(layout.bandCount(), 10u);
  EXPECT_EQ(layout.coefficientCount(), 3u * (130 * 130 + 67 * 67 + 36 * 36) + 36 * 36);
  EXPECT_EQ(layout.bandLevel(layout.bandIndex(2, BandKind::kHighHigh)), 2u);
  EXPECT_EQ(layout.bandLevel(layout.bandIndex(3, BandKind::kLowLow)), 3u);
}

TEST(WaveletEncoder, KernelsReconstructEveryTileExactly) {
  std::mt19937 rng(3);
  for (size_t tile : {8u, 9u, 16u, 31u, 64u}) {
    for (size_t levels = 1; levels <= 5; ++levels) {
      WaveletLayout const layout(tile, levels);
      // 9-bit signed samples, the range of the YCoCg chroma planes, plus smooth and
      // constant content.
      for (int kind = 0; kind < 3; ++kind) {
        std::uniform_int_distribution<int> dist(-255, 255);
        std::vector<int16_t> plane(tile * tile);
        for (size_t i = 0; i < plane.size(); ++i) {
          int const v = kind == 0 ? dist(rng) : kind == 1 ? int(i % tile) * 3 - 40 : 255;
          plane[i] = static_cast<int16_t>(v);
        }
        auto const bands = forwardTransform(plane.data(), layout);
        ASSERT_EQ(reconstruct(bands, layout), plane)
            << "tile " << tile << " levels " << levels << " kind " << kind;
      }
    }
  }
}

TEST(WaveletEncoder, ConstantPlaneHasNoDetail) {
  WaveletLayout const layout(32, 2);
  std::vector<int16_t> plane(32 * 32, 100);
  auto const bands = forwardTransform(plane.data(), layout);
  for (size_t i = 0; i + 1 < bands.size(); ++i) {
    for (int16_t v : bands[i]) ASSERT_EQ(v, 0) << "band " << i;
  }
  for (int16_t v : bands.back()) ASSERT_EQ(v, 100);
}

}  // namespace
}  // namespace quorvel::tool
