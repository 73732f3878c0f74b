#pragma once
// Huge pyramidal TIFF files for the server tests, written in about a second whatever their
// size, so that a test can serve a gigapixel image without shipping one.

#include <cstddef>
#include <string>

namespace quorvel::serve::testing {

/// Writes a tiled (256 x 256), BigTIFF, pyramidal RGB TIFF of width x height pixels to `path`:
/// level 0 as the first page, then each level halved (ceil) as the following pages (reduced
/// images) down to the first level that fits in one tile. Tiles are deflated, and every tile of
/// a level is one of five variants (a colour with a ramp; no two neighbours alike), so a
/// 32768 x 32768 file takes well under a second. Throws std::runtime_error on failure.
void writePyramidTiff(std::string const& path, size_t width, size_t height);

}  // namespace quorvel::serve::testing
