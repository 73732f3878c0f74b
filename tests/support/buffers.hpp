#pragma once
// Buffers for kernel tests: allocated, filled with one pixel, and read back as a vector.

#include <algorithm>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"

namespace quorvel::testing {

/// A w x h buffer with storage, every pixel set to `fill`.
template <class P>
std::shared_ptr<Buffer2DVector<P>> buffer(size_t w, size_t h, P fill = P{}) {
  auto b = std::make_shared<Buffer2DVector<P>>(w, h, true);
  std::fill(b->data(), b->data() + w * h, fill);
  return b;
}

/// Every pixel of `b`, row by row.
template <class P>
std::vector<P> contents(Buffer2DVector<P> const& b) {
  return {b.data(), b.data() + b.width() * b.height()};
}

}  // namespace quorvel::testing
