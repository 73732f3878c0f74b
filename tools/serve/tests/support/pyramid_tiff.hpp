#pragma once
// Huge pyramidal TIFF files for the server tests, written in about a second whatever their
// size, so that a test can serve a gigapixel image without shipping one.

#include <cstddef>
#include <string>

namespace quorvel::serve::testing {

/// Writes a tiled (256 x 256), BigTIFF, pyramidal RGB TIFF of width x height pixels to `path`:
/// level 0 as the first page, then each level halved (ceil) as the following pages
/// (SUBFILETYPE reduced image) down to the first level that fits in one tile. Tiles are JPEG
/// (YCbCr 4:2:0, shared tables in JPEGTABLES).
///
/// The picture: the image is cut into at most 16 x 16 cells, each of its own colour (red
/// grows to the right, green downwards, blue along a wave), and every tile carries one of four
/// zero-mean wave textures, chosen so that no two neighbouring tiles of a level are alike. A
/// level's tile takes the colours of the cells it covers, so each level is the reduction of
/// level 0 give or take the texture: the mean of a region a few tiles wide agrees across
/// levels to within a grey level or so (a region narrower than a texture period does not
/// average its wave out). The output is deterministic.
///
/// A 32768 x 32768 file takes about half a second on one core and 50 MB. Throws
/// std::runtime_error on failure (a size of 0, a file that cannot be written).
void writePyramidTiff(std::string const& path, size_t width, size_t height);

}  // namespace quorvel::serve::testing
