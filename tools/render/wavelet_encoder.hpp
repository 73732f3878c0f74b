#pragma once
// The host side of the reversible LeGall 5/3 wavelet: band geometry and the forward
// transform of one tile plane into bands that the backend's inverse filters undo exactly.
//
// Band convention of the inverse filters: along the filtered axis, low band element k is
// s(k) and high band element k is d(k - 1) (one leading detail coefficient). A level that
// must deliver n samples from sample 0 on reconstructs ceilEven(n) samples and reads
// nb = ceilEven(n) / 2 + 2 elements of each band. The low band of a level is the output of
// the next coarser level, so level l + 1 must deliver nb(l) samples, and so on. Every band
// of every level is thus an nb x nb square, and a tile reconstructs with no neighbour data.
//
// The coefficients are those of the whole-sample symmetric extension of the tile, computed
// on a plane extended far enough that every window read is exact: the extended plane is
// transformed level by level without any border rule, each level losing a few samples at
// its ends, and the windows are cut where all values are known.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorvel::tool {

/// Kinds of detail band; `kLowLow` is the coarsest approximation.
enum class BandKind { kHighLow = 0, kLowHigh = 1, kHighHigh = 2, kLowLow = 3 };

/// Band sizes of a tile size and level count.
class WaveletLayout {
 public:
  /// Geometry for square tiles of `tile` samples and `levels` (>= 1) levels.
  WaveletLayout(size_t tile, size_t levels);

  size_t tile() const { return tile_; }
  size_t levels() const { return levels_; }
  /// Edge of every band of level `level` (1 = finest).
  size_t bandSize(size_t level) const { return bandSize_[level - 1]; }
  /// Samples of the approximation of level `level` - 1 (the tile itself for level 1) that
  /// level `level` reconstructs along each axis.
  size_t delivered(size_t level) const { return level == 1 ? tile_ : bandSize_[level - 2]; }
  /// Number of bands: three detail bands per level and the coarsest approximation.
  size_t bandCount() const { return 3 * levels_ + 1; }
  /// Index of a band in [0, bandCount()): level l detail bands at 3 (l - 1) + kind, the
  /// approximation last.
  size_t bandIndex(size_t level, BandKind kind) const;
  /// Level of band `index`.
  size_t bandLevel(size_t index) const { return index == 3 * levels_ ? levels_ : index / 3 + 1; }
  /// Coefficients stored per tile plane (all bands).
  size_t coefficientCount() const;
  /// Samples added on each side of the tile before the forward transform.
  size_t margin() const { return margin_; }

 private:
  size_t tile_, levels_, margin_ = 0;
  std::vector<size_t> bandSize_;
};

/// Forward transform of one tile x tile plane (row-major): bandCount() bands, each a
/// row-major bandSize x bandSize plane of int16 coefficients in bandIndex order. Throws
/// std::range_error if a coefficient does not fit 16 bits (not for 9-bit input samples up
/// to five levels).
std::vector<std::vector<int16_t>> forwardTransform(int16_t const* plane,
                                                   WaveletLayout const& layout);

}  // namespace quorvel::tool
