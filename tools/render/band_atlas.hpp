#pragma once
// Where the wavelet bands of one image tile sit in the two band planes the renderer draws
// them into, and the packing of the encoder's bands into those planes.
//
// The inverse filters read a low band and a high band through one rectangle of two
// different targets, so each pair lives at the same place in plane A and plane B:
//   low square:  approximation (A) and LH band (B),
//   high square: HL band (A) and HH band (B).
// Per level, the three channels' low squares come first and their high squares next, side
// by side in one row: one vertical pass then covers a whole row of squares of all three
// channels. Level 1 takes the top row; coarser levels follow each other below it, each
// after a few spare columns. Only the coarsest approximation is stored; the finer ones are
// written by the renderer.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "wavelet_encoder.hpp"

namespace quorvel::tool {

class BandAtlas {
 public:
  struct Position {
    size_t x, y;
  };

  explicit BandAtlas(WaveletLayout const& layout);

  size_t width() const { return width_; }
  size_t height() const { return height_; }
  /// Top-left of the row of squares of `level`: three low squares, then three high ones.
  Position origin(size_t level) const { return origins_[level - 1]; }
  /// Top-left of the low (approximation / LH) square of `channel` at `level`.
  Position low(size_t level, size_t channel) const;
  /// Top-left of the high (HL / HH) square of `channel` at `level`.
  Position high(size_t level, size_t channel) const;

  /// Packs forwardTransform's bands of the three channels into planes A and B (row-major,
  /// width x height, unused samples 0).
  std::array<std::vector<int16_t>, 2> pack(
      std::array<std::vector<std::vector<int16_t>>, 3> const& channels) const;

 private:
  WaveletLayout layout_;
  std::vector<Position> origins_;
  size_t width_ = 0, height_ = 0;
};

}  // namespace quorvel::tool
