#pragma once
// Arithmetic and texts shared by the files of the backend instance.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "quorvel/filters/filter.hpp"

namespace quorvel::backend_support {

/// Signed 32-bit arithmetic with two's-complement wrap, as the drawing geometry is defined.
inline int32_t wrap32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

/// a * b, or the largest size_t where the product would wrap: a size that cannot exist
/// then fails the allocation instead of becoming a small one.
inline size_t saturatingMul(size_t a, size_t b) {
  if (a != 0 && b > std::numeric_limits<size_t>::max() / a) {
    return std::numeric_limits<size_t>::max();
  }
  return a * b;
}

/// The message of a call that names a filter with no instance on this backend.
inline std::string notAvailable(Filter const& filter) {
  return "Instance for Filter <" + filter.name() + "> not available";
}

}  // namespace quorvel::backend_support
