#pragma once
// The pixel work between the host layer's rendered RGBA and an encoder: resampling to the
// requested size, mirroring and right-angle rotation, and the IIIF qualities.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "formats.hpp"

namespace quorvel::serve {

/// Packed 8-bit pixels: `channels` (1 grey, 3 RGB or 4 RGBA) interleaved, rows width*channels
/// bytes, no padding; `data` holds exactly width*height*channels bytes.
struct Pixels {
  size_t width = 0, height = 0, channels = 4;
  std::vector<uint8_t> data;
};

/// Throws std::invalid_argument, naming `context`, unless `pixels` is a non-empty image of 1, 3
/// or 4 channels whose data holds exactly width*height*channels bytes.
void checkPixels(Pixels const& pixels, char const* context);

/// Resamples `in` (RGBA8 as rendered, though 1, 3 or 4 channels all work) to exactly `width` x
/// `height`, keeping its channel count: Lanczos3 when reducing, bicubic when enlarging, each axis
/// on its own. Throws std::invalid_argument for inconsistent pixels or a side of 0 or over ten
/// million, and std::runtime_error with libvips' message when resampling fails. Thread-safe.
Pixels resize(Pixels const& in, size_t width, size_t height);

/// Mirrors horizontally (when `mirror`) and then rotates clockwise by `rotation` degrees (0, 90,
/// 180 or 270). Works on 1, 3 or 4 channels; throws std::invalid_argument for another rotation
/// or inconsistent pixels.
Pixels orient(Pixels in, unsigned rotation, bool mirror);

/// The pixels of `quality` for `in` (RGBA8, RGB8 or grey): default and color return `in` itself;
/// gray is one channel of Rec. 601 luma, (19595 R + 38470 G + 7471 B + 32768) >> 16; bitonal is
/// one channel, 255 where that luma is at least 128 and 0 elsewhere. A grey `in` is its own luma.
Pixels applyQuality(Pixels in, Quality quality);

}  // namespace quorvel::serve
