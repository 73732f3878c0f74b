#include "quorvel/zoom/pyramid.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

namespace quorvel::zoom {
namespace {

size_t ceilEven(size_t n) { return n + (n & 1); }

// Tiles of one depth of one anchor: 3 or 4 bands of 3 channels per block.
size_t tilesOf(size_t blocks, size_t depth, size_t anchorDepth) {
  return blocks * 3 * (depth == anchorDepth ? 4 : 3);
}

}  // namespace

int64_t mirrorIndex(int64_t i, int64_t n) {
  if (n == 1) return 0;
  int64_t const period = 2 * (n - 1);
  i %= period;
  if (i < 0) i += period;
  return i < n ? i : period - i;
}

Pyramid::Pyramid(size_t width, size_t height, std::vector<size_t> const& nativeLevels, size_t tile,
                 size_t depth)
    : width_(width), height_(height), tile_(tile), depth_(depth) {
  if (width == 0 || height == 0) throw std::invalid_argument("the image has no pixels");
  if (depth < 1 || depth > 8) {
    throw std::invalid_argument("wavelet levels must lie in [1, 8], not " + std::to_string(depth));
  }
  if (tile % (size_t{1} << depth) != 0 || tile < (size_t{2} << depth)) {
    throw std::invalid_argument("the tile size " + std::to_string(tile) +
                                " must be a multiple of 2^levels = " +
                                std::to_string(size_t{1} << depth) + " and at least twice that");
  }
  levels_ = levelCount(width, height);
  auto native = [&](size_t level) {
    return level == 0 ||
           std::find(nativeLevels.begin(), nativeLevels.end(), level) != nativeLevels.end();
  };
  // Anchors: from each one, the coarsest native level within `depth` levels, else exactly
  // `depth` levels on. The last anchor's transform reaches the 1 x 1 level.
  size_t anchor = 0;
  for (;;) {
    anchors_.push_back(anchor);
    native_.push_back(native(anchor));
    if (anchor + 1 >= levels_) {
      depths_.push_back(1);
      break;
    }
    size_t next = anchor + depth;
    for (size_t l = anchor + depth; l > anchor; --l) {
      if (l < levels_ && native(l)) {
        next = l;
        break;
      }
    }
    if (next >= levels_) {
      depths_.push_back(levels_ - anchor);
      break;
    }
    depths_.push_back(next - anchor);
    anchor = next;
  }
  // Tile ids: anchors one after another, depths within an anchor, then blocks row-major,
  // bands, channels.
  size_t next = 0;
  for (size_t a : anchors_) {
    firstDepth_.push_back(idBase_.size());
    size_t const blocks = blocksX(a) * blocksY(a);
    for (size_t d = 1; d <= depthOf(a); ++d) {
      idBase_.push_back(next);
      size_t const count = tilesOf(blocks, d, depthOf(a));
      if (next > std::numeric_limits<size_t>::max() / 4 - count) {
        throw std::invalid_argument("too many tiles: use a larger tile size");
      }
      next += count;
    }
  }
  for (size_t i = 0; i < anchors_.size(); ++i) {
    pixelBase_.push_back(next);
    if (native_[i]) next += blocksX(anchors_[i]) * blocksY(anchors_[i]);
  }
  idCount_ = next;
}

size_t Pyramid::anchorOf(size_t level) const {
  if (level >= levels_) throw std::out_of_range("no zoom level " + std::to_string(level));
  auto it = std::upper_bound(anchors_.begin(), anchors_.end(), level);
  return *(it - 1);
}

static size_t anchorIndex(std::vector<size_t> const& anchors, size_t anchor) {
  auto it = std::lower_bound(anchors.begin(), anchors.end(), anchor);
  if (it == anchors.end() || *it != anchor) {
    throw std::logic_error("level " + std::to_string(anchor) + " is not an anchor");
  }
  return static_cast<size_t>(it - anchors.begin());
}

size_t Pyramid::depthOf(size_t anchor) const { return depths_[anchorIndex(anchors_, anchor)]; }

bool Pyramid::isNative(size_t anchor) const { return native_[anchorIndex(anchors_, anchor)]; }

size_t Pyramid::previousAnchor(size_t anchor) const {
  size_t const i = anchorIndex(anchors_, anchor);
  if (i == 0) throw std::logic_error("level 0 has no anchor below it");
  return anchors_[i - 1];
}

size_t Pyramid::bandExtentX(size_t anchor, size_t depth) const {
  return ceilEven(width(anchor + depth - 1)) / 2 + 2;
}

size_t Pyramid::bandExtentY(size_t anchor, size_t depth) const {
  return ceilEven(height(anchor + depth - 1)) / 2 + 2;
}

size_t Pyramid::blocksX(size_t anchor) const { return (width(anchor) + tile_ - 1) / tile_; }
size_t Pyramid::blocksY(size_t anchor) const { return (height(anchor) + tile_ - 1) / tile_; }

Span Pyramid::blockSpan(size_t b, size_t blocks, size_t depth, size_t extent) const {
  auto const step = static_cast<int64_t>(tile_ >> depth);
  auto const begin = static_cast<int64_t>(b) * step;
  auto const end = static_cast<int64_t>(extent);
  return {begin, b + 1 == blocks ? end : std::min(end, begin + step + kTileOverlap)};
}

Span Pyramid::blocksFor(Span span, size_t blocks, size_t depth) const {
  auto const step = static_cast<int64_t>(tile_ >> depth);
  auto const last = static_cast<int64_t>(blocks) - 1;
  int64_t const first = std::min(span.begin / step, last);
  // Tile b holds pair indices up to (b + 1) step + overlap - 1: the first tile that reaches
  // the span's end is the last one needed.
  int64_t const reach = span.end - kTileOverlap;
  int64_t const end = reach <= 0 ? 0 : (reach + step - 1) / step - 1;
  return {first, std::clamp(end, first, last) + 1};
}

size_t Pyramid::tileId(size_t anchor, size_t depth, size_t bx, size_t by, Band band,
                       size_t channel) const {
  size_t const base = idBase_[firstDepth_[anchorIndex(anchors_, anchor)] + depth - 1];
  size_t const bands = depth == depthOf(anchor) ? 4 : 3;
  // Detail-only depths number their bands from kHighLow.
  size_t const b = static_cast<size_t>(band) - (bands == 3 ? 1 : 0);
  return base + ((by * blocksX(anchor) + bx) * bands + b) * 3 + channel;
}

size_t Pyramid::pixelTileId(size_t anchor, size_t bx, size_t by) const {
  size_t const i = anchorIndex(anchors_, anchor);
  if (!native_[i])
    throw std::invalid_argument("anchor " + std::to_string(anchor) + " is not native");
  return pixelBase_[i] + by * blocksX(anchor) + bx;
}

}  // namespace quorvel::zoom
