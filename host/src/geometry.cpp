#include "quorvel/zoom/geometry.hpp"

#include <algorithm>

namespace quorvel::zoom {

std::string Rect::str() const {
  return std::to_string(x) + "," + std::to_string(y) + " " + std::to_string(width) + "x" +
         std::to_string(height);
}

Rect intersect(Rect const& a, Rect const& b) {
  size_t const x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
  size_t const x1 = std::min(a.right(), b.right()), y1 = std::min(a.bottom(), b.bottom());
  if (x1 <= x0 || y1 <= y0) return {x0, y0, 0, 0};
  return {x0, y0, x1 - x0, y1 - y0};
}

size_t levelCount(size_t w, size_t h) {
  size_t count = 1;
  while (levelExtent(w, count - 1) > 1 || levelExtent(h, count - 1) > 1) ++count;
  return count;
}

}  // namespace quorvel::zoom
