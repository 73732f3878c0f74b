#pragma once
// How an image is laid out as wavelet coefficients: which zoom levels start a transform of
// their own, how deep each transform goes, and how its bands are cut into tiles.
//
// A transform of the whole level (never of a tile) starts at an "anchor" level and runs
// `depth` levels of the reversible 5/3 wavelet; zoom levels anchor .. anchor + depth - 1
// are rendered from it. The next anchor is the coarsest level the source reads natively
// within `depth` levels (a pyramidal file's own level, or any level of a generator), or,
// where it has none, anchor + depth: that level is then the low band of the transform
// below it, so an image in memory is one whole-image transform from top to bottom.
//
// Band geometry, per axis, of depth d (1 = finest) of a transform whose approximation at
// depth d - 1 has n samples: the inverse filters pair low element k with high element k,
// where high element k is the detail coefficient d(k - 1). Every band of depth d is kept in
// this "pair index" space, elements 0 .. K - 1 with K = ceilEven(n) / 2 + 2, which covers
// everything any window of the inverse reads, the symmetric extension at the image's own
// edges included.
//
// Tiles: the anchor level is cut into blocks of `tile` pixels; the depth-d tile of a block
// holds pair indices [b * tile / 2^d, (b + 1) * tile / 2^d + kTileOverlap) (the last block
// of a row or column runs on to K). Each tile is one int16 plane of one band of one channel.
// The overlap is what the inverse of an output tile aligned on the block grid reads past
// its own block (two to four elements): such a render draws one tile per band instead of
// two to four, and copies no band data it does not read.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "quorvel/zoom/geometry.hpp"

namespace quorvel::zoom {

/// The four bands of a depth: low/high horizontally, then low/high vertically. Only the
/// coarsest depth of a transform stores kLowLow; the others get it from the depth above.
enum class Band : uint8_t { kLowLow = 0, kHighLow = 1, kLowHigh = 2, kHighHigh = 3 };

/// Pair indices a depth's tile holds past the next block's first one.
constexpr int64_t kTileOverlap = 4;

class Pyramid {
 public:
  /// The plan for a width x height image whose source reads `nativeLevels` directly, cut
  /// into tiles of `tile` pixels with transforms of up to `depth` levels. `tile` must be a
  /// multiple of 2^depth and at least 2^(depth + 1); depth 1 .. 8 (std::invalid_argument).
  Pyramid(size_t width, size_t height, std::vector<size_t> const& nativeLevels, size_t tile,
          size_t depth);

  size_t width(size_t level = 0) const { return levelExtent(width_, level); }
  size_t height(size_t level = 0) const { return levelExtent(height_, level); }
  /// Zoom levels 0 .. levels() - 1; the last one is 1 x 1.
  size_t levels() const { return levels_; }
  size_t tile() const { return tile_; }
  size_t maxDepth() const { return depth_; }

  /// The anchor whose transform renders `level`.
  size_t anchorOf(size_t level) const;
  /// Levels of the transform started at `anchor` (an anchor level).
  size_t depthOf(size_t anchor) const;
  /// Whether the source reads `anchor` itself (otherwise it is the low band of the
  /// transform of the anchor below).
  bool isNative(size_t anchor) const;
  /// The anchor below `anchor` (which must not be 0).
  size_t previousAnchor(size_t anchor) const;
  std::vector<size_t> const& anchors() const { return anchors_; }

  /// Pair-index extent K of every band of depth `depth` of `anchor` along x or y.
  size_t bandExtentX(size_t anchor, size_t depth) const;
  size_t bandExtentY(size_t anchor, size_t depth) const;
  /// Blocks per row and per column at `anchor`.
  size_t blocksX(size_t anchor) const;
  size_t blocksY(size_t anchor) const;
  /// Pair indices of block `b` at `depth` along an axis with band extent `extent`.
  Span blockSpan(size_t b, size_t blocks, size_t depth, size_t extent) const;
  /// The blocks whose depth-`depth` tiles hold pair indices `span` along an axis.
  Span blocksFor(Span span, size_t blocks, size_t depth) const;

  /// A tile id unique within this pyramid (below tileIdCount()).
  size_t tileId(size_t anchor, size_t depth, size_t bx, size_t by, Band band, size_t channel) const;
  /// The id of block (bx, by)'s RGBA8 tile at native anchor `anchor`: the source's own
  /// pixels, drawn without the transform where nothing needs the neighbours' pixels.
  size_t pixelTileId(size_t anchor, size_t bx, size_t by) const;
  /// Ids are below this: coefficient tiles first, then pixel tiles.
  size_t tileIdCount() const { return idCount_; }

 private:
  size_t width_, height_, tile_, depth_, levels_;
  std::vector<size_t> anchors_, depths_;
  std::vector<bool> native_;
  std::vector<size_t> idBase_;      // first tile id of each depth of each anchor
  std::vector<size_t> firstDepth_;  // index into idBase_ of each anchor's depth 1
  std::vector<size_t> pixelBase_;   // first pixel tile id of each anchor (native ones only)
  size_t idCount_ = 0;
};

/// Index into [0, n) of sample i of the whole-sample symmetric extension of n samples.
int64_t mirrorIndex(int64_t i, int64_t n);

}  // namespace quorvel::zoom
