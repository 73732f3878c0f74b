#include "band_atlas.hpp"

#include <gtest/gtest.h>

namespace quorvel::tool {
namespace {

struct Square {
  size_t x, y, size;
  bool overlaps(Square const& o) const {
    return x < o.x + o.size && o.x < x + size && y < o.y + o.size && o.y < y + size;
  }
};

TEST(BandAtlas, SquaresFitApartAndClearOfTheRowsStepSpill) {
  for (size_t tile : {8u, 9u, 16u, 33u, 64u, 256u, 257u}) {
    for (size_t levels = 1; levels <= 5; ++levels) {
      WaveletLayout const layout(tile, levels);
      BandAtlas const atlas(layout);
      std::vector<Square> squares;
      for (size_t l = 1; l <= levels; ++l) {
        size_t const nb = layout.bandSize(l);
        for (size_t c = 0; c < 3; ++c) {
          for (auto p : {atlas.low(l, c), atlas.high(l, c)}) {
            ASSERT_LE(p.x + nb, atlas.width()) << tile << "/" << levels;
            ASSERT_LE(p.y + nb, atlas.height()) << tile << "/" << levels;
            squares.push_back({p.x, p.y, nb});
          }
        }
        // One vertical pass reads the three low (or high) squares as one row.
        EXPECT_EQ(atlas.low(l, 2).x, atlas.low(l, 0).x + 2 * nb);
        EXPECT_EQ(atlas.high(l, 0).x, atlas.low(l, 0).x + 3 * nb);
        EXPECT_EQ(atlas.low(l, 0).y, atlas.high(l, 2).y);
      }
      for (size_t i = 0; i < squares.size(); ++i) {
        for (size_t j = i + 1; j < squares.size(); ++j) {
          ASSERT_FALSE(squares[i].overlaps(squares[j])) << tile << "/" << levels;
        }
      }
      // Writing the approximation of level l - 1 for the last channel also fills up to
      // 4 nb(l) - 2 nb(l - 1) columns left of that level's row: no square of another level
      // may lie there.
      for (size_t l = 2; l <= levels; ++l) {
        size_t const prev = layout.bandSize(l - 1), nb = layout.bandSize(l);
        BandAtlas::Position const row = atlas.origin(l - 1);
        size_t const spill = 4 * nb > 2 * prev ? 4 * nb - 2 * prev : 0;
        Square const reach{row.x >= spill ? row.x - spill : 0, row.y, spill};
        for (size_t k = 1; k <= levels; ++k) {
          if (k == l - 1) continue;
          for (size_t c = 0; c < 3; ++c) {
            Square const high{atlas.high(k, c).x, atlas.high(k, c).y, layout.bandSize(k)};
            if (spill > 0) {
              EXPECT_FALSE(reach.overlaps(high)) << tile << "/" << levels << " l" << l;
            }
          }
        }
      }
    }
  }
}

TEST(BandAtlas, PacksEveryBandWhereTheRendererReadsIt) {
  WaveletLayout const layout(16, 2);
  BandAtlas const atlas(layout);
  std::array<std::vector<std::vector<int16_t>>, 3> channels;
  int16_t next = 1;
  for (auto& bands : channels) {
    for (size_t b = 0; b < layout.bandCount(); ++b) {
      size_t const nb = layout.bandSize(layout.bandLevel(b));
      bands.push_back(std::vector<int16_t>(nb * nb, next++));
    }
  }
  auto const planes = atlas.pack(channels);
  auto at = [&](size_t plane, BandAtlas::Position p) {
    return planes[plane][p.y * atlas.width() + p.x];
  };
  for (size_t c = 0; c < 3; ++c) {
    auto const& b = channels[c];
    for (size_t l = 1; l <= 2; ++l) {
      EXPECT_EQ(at(0, atlas.high(l, c)), b[layout.bandIndex(l, BandKind::kHighLow)][0]);
      EXPECT_EQ(at(1, atlas.low(l, c)), b[layout.bandIndex(l, BandKind::kLowHigh)][0]);
      EXPECT_EQ(at(1, atlas.high(l, c)), b[layout.bandIndex(l, BandKind::kHighHigh)][0]);
    }
    EXPECT_EQ(at(0, atlas.low(2, c)), b[layout.bandIndex(2, BandKind::kLowLow)][0]);
    EXPECT_EQ(at(0, atlas.low(1, c)), 0);  // written by the renderer, not stored
  }
}

}  // namespace
}  // namespace quorvel::tool
