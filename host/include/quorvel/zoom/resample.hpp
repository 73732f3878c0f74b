#pragma once
// Resampling a decoded image to any size, for hosts that deliver sizes between the zoom
// levels (an IIIF size that is not a power of two).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorvel::zoom {

/// Resamples `pixels` (width x height pixels of `channels` 8-bit samples, rows packed) to
/// exactly outWidth x outHeight through libvips: Lanczos3 when reducing, bicubic when
/// enlarging; a pixel that libvips' own rounding adds is cut and one it drops repeats the
/// edge. Throws std::invalid_argument for a side of 0 or over ten million and
/// std::runtime_error when libvips fails. Thread-safe.
std::vector<uint8_t> resample(uint8_t const* pixels, size_t width, size_t height, size_t channels,
                              size_t outWidth, size_t outHeight);

}  // namespace quorvel::zoom
