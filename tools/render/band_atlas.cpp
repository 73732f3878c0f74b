#include "band_atlas.hpp"

#include <algorithm>
#include <cstring>

namespace quorvel::tool {

BandAtlas::BandAtlas(WaveletLayout const& layout) : layout_(layout) {
  size_t const nb1 = layout.bandSize(1);
  size_t x = 0, below = 0;
  for (size_t l = 1; l <= layout.levels(); ++l) {
    size_t const nb = layout.bandSize(l);
    if (l == 1) {
      origins_.push_back({0, 0});
      width_ = 6 * nb;
    } else {
      // The horizontal filter given an output origin right of column 0 also reconstructs
      // leftwards from the band data left of its input. Writing a channel other than the
      // first reaches up to 4 nb(l + 1) - 2 nb(l) columns left of this level's squares, so
      // that many spare columns separate it from the previous level.
      if (l < layout.levels()) {
        size_t const spill = 4 * layout.bandSize(l + 1);
        x += spill > 2 * nb ? spill - 2 * nb : 0;
      }
      origins_.push_back({x, nb1});
      x += 6 * nb;
      below = std::max(below, nb);
    }
  }
  width_ = std::max(width_, x);
  height_ = nb1 + below;
}

BandAtlas::Position BandAtlas::low(size_t level, size_t channel) const {
  Position const o = origin(level);
  return {o.x + channel * layout_.bandSize(level), o.y};
}

BandAtlas::Position BandAtlas::high(size_t level, size_t channel) const {
  Position const o = origin(level);
  return {o.x + (3 + channel) * layout_.bandSize(level), o.y};
}

std::array<std::vector<int16_t>, 2> BandAtlas::pack(
    std::array<std::vector<std::vector<int16_t>>, 3> const& channels) const {
  std::array<std::vector<int16_t>, 2> planes;
  for (auto& p : planes) p.assign(width_ * height_, 0);
  auto put = [&](std::vector<int16_t>& plane, std::vector<int16_t> const& band, size_t nb,
                 Position p) {
    for (size_t r = 0; r < nb; ++r) {
      std::memcpy(&plane[(p.y + r) * width_ + p.x], &band[r * nb], nb * sizeof(int16_t));
    }
  };
  size_t const coarsest = layout_.levels();
  for (size_t c = 0; c < 3; ++c) {
    auto const& bands = channels[c];
    for (size_t l = 1; l <= coarsest; ++l) {
      size_t const nb = layout_.bandSize(l);
      put(planes[0], bands[layout_.bandIndex(l, BandKind::kHighLow)], nb, high(l, c));
      put(planes[1], bands[layout_.bandIndex(l, BandKind::kLowHigh)], nb, low(l, c));
      put(planes[1], bands[layout_.bandIndex(l, BandKind::kHighHigh)], nb, high(l, c));
    }
    put(planes[0], bands[layout_.bandIndex(coarsest, BandKind::kLowLow)],
        layout_.bandSize(coarsest), low(coarsest, c));
  }
  return planes;
}

}  // namespace quorvel::tool
