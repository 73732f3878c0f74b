#pragma once
// Rectangles and level sizes shared by every part of the host layer.
//
// Zoom level k of an image is the image reduced 2^k times: an axis of n pixels at level 0
// has ceil(n / 2^k) pixels at level k, which is also the length of the low band of the
// wavelet after k levels.

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvel::zoom {

/// A rectangle of pixels: columns [x, x + width), rows [y, y + height).
struct Rect {
  size_t x = 0, y = 0, width = 0, height = 0;

  size_t right() const { return x + width; }
  size_t bottom() const { return y + height; }
  bool empty() const { return width == 0 || height == 0; }
  bool contains(Rect const& r) const {
    return r.x >= x && r.y >= y && r.right() <= right() && r.bottom() <= bottom();
  }
  friend bool operator==(Rect const& a, Rect const& b) {
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
  }
  friend bool operator!=(Rect const& a, Rect const& b) { return !(a == b); }
  std::string str() const;
};

/// A half-open range [begin, end) of indices along one axis; signed, because windows of the
/// wavelet reach past the image's edges.
struct Span {
  int64_t begin = 0, end = 0;
  int64_t size() const { return end - begin; }
  bool empty() const { return end <= begin; }
};

/// The columns and the rows of a rectangle, and the rectangle of two non-negative spans.
inline Span spanX(Rect const& r) { return {int64_t(r.x), int64_t(r.right())}; }
inline Span spanY(Rect const& r) { return {int64_t(r.y), int64_t(r.bottom())}; }
inline Rect rectOf(Span x, Span y) {
  return {size_t(x.begin), size_t(y.begin), size_t(x.size()), size_t(y.size())};
}

/// The intersection of two rectangles (empty when they do not meet).
Rect intersect(Rect const& a, Rect const& b);

/// Pixels along an axis of `n` level-0 pixels at zoom level `level`: ceil(n / 2^level).
inline size_t levelExtent(size_t n, size_t level) {
  if (level >= 64) return n == 0 ? 0 : 1;
  size_t const step = size_t{1} << level;
  return n / step + (n % step != 0);
}

/// Number of zoom levels of an image of w x h pixels: levels 0 .. count - 1, the last one
/// 1 x 1 pixel.
size_t levelCount(size_t w, size_t h);

}  // namespace quorvel::zoom
