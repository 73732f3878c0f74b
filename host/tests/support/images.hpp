#pragma once
// Test images and an independent reference of the whole-image wavelet.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/zoom/image_source.hpp"

namespace quorvel::zoom::test {

/// A w x h RGBA8 image with smooth gradients, hard-edged shapes, text-like strokes and
/// per-pixel noise, so that every wavelet band and every filter neighbourhood sees detail.
std::vector<uint8_t> busyImage(size_t w, size_t h, uint32_t seed);
std::shared_ptr<MemorySource> busySource(size_t w, size_t h, uint32_t seed);

/// RGBA8 of zoom level `level` as the whole-image reversible 5/3 transform defines it: the
/// YCoCg16 planes of the image, transformed `level` levels with whole-sample symmetric
/// extension at the plane's edges each level, the low band turned back into RGBA8 as the
/// backend's colour filter does (clamped to 0..255).
std::vector<uint8_t> referenceLevel(std::vector<uint8_t> const& rgba, size_t w, size_t h,
                                    size_t level, size_t& outW, size_t& outH);

}  // namespace quorvel::zoom::test
