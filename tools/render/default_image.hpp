#pragma once
// The built-in input: a procedurally generated image with the structure of a scanned slide.

#include <cstddef>

#include "image_io.hpp"

namespace quorvel::tool {

/// Edge length of the built-in image.
constexpr size_t kDefaultImageSize = 4096;

/// A deterministic width x height image: a smooth light background, textured stained blobs
/// with cell-like dots, thin sharp lines and rows of text-like glyphs, so that every
/// frequency band of the wavelet carries data. Rows are generated on `threads` threads.
Image defaultImage(size_t width = kDefaultImageSize, size_t height = kDefaultImageSize,
                   size_t threads = 1);

}  // namespace quorvel::tool
