#pragma once
// The host's wavelet encoder: turns the pixels of an image source into the coefficient
// tiles of a Pyramid.
//
// Every tile is a window of the transform of the whole anchor level: the encoder reads the
// source with the margin the 5/3 lifting reaches at each depth, so a tile's border
// coefficients come from its neighbours' pixels, and mirrors only at the image's own edges.
// Colours go to YCoCg16 through a converter (the backend's own colour filter, see Engine)
// before the forward transform.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "quorvel/zoom/image_source.hpp"
#include "quorvel/zoom/pyramid.hpp"

namespace quorvel::zoom {

/// One int16 plane, rows packed.
struct Plane16 {
  size_t width = 0, height = 0;
  std::vector<int16_t> samples;
};

/// The three YCoCg16 channels of a rectangle of some level, as separate planes.
struct YCoCgPlanes {
  Rect rect;
  std::array<Plane16, 3> channels;
};

/// Converts `w` x `h` RGBA8 pixels (rows packed) to interleaved YCoCg16 (3 x int16 per
/// pixel). Must be callable from several threads at once.
using ColourConverter =
    std::function<void(uint8_t const* rgba, size_t w, size_t h, int16_t* ycocg)>;

/// The tiles of one depth of one block: planes[band][channel], each sized by the block's
/// pair-index spans. The low-low band is present only at the transform's coarsest depth.
struct DepthTiles {
  size_t depth = 0;
  Span x, y;
  std::array<std::array<Plane16, 3>, 4> planes;
};

class WaveletEncoder {
 public:
  /// `baseCacheBytes` bounds the cache of anchor levels computed from the level below
  /// (used only where the source has no native level).
  WaveletEncoder(std::shared_ptr<ImageSource const> source, Pyramid const& pyramid,
                 ColourConverter convert, size_t baseCacheBytes = size_t{64} << 20);
  ~WaveletEncoder();

  /// Encodes block (bx, by) of `anchor` and returns the tiles of depths minDepth ..
  /// depthOf(anchor). Thread-safe. Throws SourceError when the source fails and
  /// std::range_error if a coefficient does not fit 16 bits.
  std::vector<DepthTiles> encodeBlock(size_t anchor, size_t bx, size_t by, size_t minDepth) const;

  /// The exact YCoCg16 approximation of `rect` of `anchor` (an anchor level): the source's
  /// pixels where the level is native, the low band of the transform below otherwise.
  YCoCgPlanes base(size_t anchor, Rect const& rect) const;

  Pyramid const& pyramid() const { return pyramid_; }
  ImageSource const& source() const { return *source_; }

 private:
  struct BaseCache;
  std::shared_ptr<YCoCgPlanes const> baseBlock(size_t anchor, size_t bx, size_t by) const;

  std::shared_ptr<ImageSource const> source_;
  Pyramid pyramid_;
  ColourConverter convert_;
  std::unique_ptr<BaseCache> cache_;
};

}  // namespace quorvel::zoom
