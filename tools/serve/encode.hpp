#pragma once
// The encoders that turn pixels into the bytes of a response.

#include <string>

#include "formats.hpp"
#include "imaging.hpp"

namespace quorvel::serve {

/// Encodes `pixels` (1, 3 or 4 channels; a 4th channel is ignored, the output is opaque grey or
/// RGB) as `format`. `quality` (1..100) drives JPEG and lossy WebP and is ignored by lossless
/// PNG. Grey stays grey in JPEG and PNG; WebP has no grey, so it is stored as RGB. Throws
/// std::invalid_argument for inconsistent pixels, a size the format cannot hold or a quality out
/// of range, and std::runtime_error when an encoder fails. Thread-safe.
std::string encode(Pixels const& pixels, Format format, int quality);

}  // namespace quorvel::serve
