#pragma once
// The plain types that filter descriptions and the backend interfaces both use. They live
// apart so that neither of those headers needs the other.

#include <cstddef>
#include <cstdint>

namespace quorvel {

/// Sampling of a render target (RenderBackend::ImageFiltering). Targets always report
/// kLinear (4).
enum class ImageFiltering : int32_t {
  kNone = 0,
  kNearest = 1,
  kNearestMipmap = 2,
  kLinearMipmap = 3,
  kLinear = 4,
};

/// One input of executeFilter: a source target and the top-left of the area read from it
/// (taken as signed 32-bit values), or the whole source buffer when `whole` is set.
struct FilterSource {
  size_t target;
  size_t x;
  size_t y;
  bool whole;
};

}  // namespace quorvel
