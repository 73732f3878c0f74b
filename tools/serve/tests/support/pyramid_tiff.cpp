// A pyramidal TIFF of any size, fast: every tile of a level is one of a few variants, each
// deflate-compressed once and written as raw tile data as often as it occurs.

#include "support/pyramid_tiff.hpp"

#include <tiffio.h>
#include <zlib.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorvel::serve::testing {
namespace {

constexpr size_t kTile = 256;
// Variants per level: the eight neighbours of a tile never share its variant, since
// tx + 3 * ty changes by 1, 2, 3 or 4 (mod kVariants) between neighbours.
constexpr size_t kVariants = 5;

/// The deflated RGB pixels of variant `v` of `level`: a colour of its own with a diagonal
/// ramp, so that no tile is flat and neighbouring tiles differ.
std::string variantTile(size_t level, size_t v) {
  std::vector<uint8_t> rgb(kTile * kTile * 3);
  int const r = 60 + 35 * int(v), g = 200 - 20 * int(level % 8), b = 90 + 25 * int((v + level) % 5);
  for (size_t y = 0; y < kTile; ++y) {
    for (size_t x = 0; x < kTile; ++x) {
      int const ramp = int((x + y) / 16) - 16;
      uint8_t* out = &rgb[(y * kTile + x) * 3];
      out[0] = uint8_t(r + ramp);
      out[1] = uint8_t(g + ramp);
      out[2] = uint8_t(b - ramp);
    }
  }
  uLongf size = compressBound(rgb.size());
  std::string deflated(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(deflated.data()), &size, rgb.data(), rgb.size(), 6) !=
      Z_OK) {
    throw std::runtime_error("writePyramidTiff: cannot compress a tile");
  }
  deflated.resize(size);
  return deflated;
}

}  // namespace

void writePyramidTiff(std::string const& path, size_t width, size_t height) {
  if (width == 0 || height == 0) {
    throw std::runtime_error("writePyramidTiff: the image must have pixels");
  }
  // TIFF stores a level's size in 32 bits.
  if (width > 0xFFFFFFFFu || height > 0xFFFFFFFFu) {
    throw std::runtime_error("writePyramidTiff: at most 4294967295 pixels a side");
  }
  TIFFSetWarningHandler(nullptr);
  TIFF* tiff = TIFFOpen(path.c_str(), "w8");
  if (!tiff) throw std::runtime_error("writePyramidTiff: cannot create '" + path + "'");
  auto fail = [&](std::string const& what) {
    TIFFClose(tiff);
    std::remove(path.c_str());
    throw std::runtime_error("writePyramidTiff: " + what + " ('" + path + "')");
  };
  size_t w = width, h = height;
  for (size_t level = 0;; ++level) {
    bool const ok =
        TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, level == 0 ? 0 : FILETYPE_REDUCEDIMAGE) &&
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t(w)) &&
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t(h)) &&
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, uint32_t(kTile)) &&
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, uint32_t(kTile)) &&
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8) &&
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3) &&
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB) &&
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    if (!ok) fail("cannot set the tags of level " + std::to_string(level));
    std::array<std::string, kVariants> variants;
    for (size_t v = 0; v < kVariants; ++v) variants[v] = variantTile(level, v);
    size_t const across = (w + kTile - 1) / kTile, down = (h + kTile - 1) / kTile;
    for (size_t ty = 0; ty < down; ++ty) {
      for (size_t tx = 0; tx < across; ++tx) {
        std::string& tile = variants[(tx + 3 * ty) % kVariants];
        auto const index = static_cast<uint32_t>(ty * across + tx);
        auto const size = static_cast<tmsize_t>(tile.size());
        if (TIFFWriteRawTile(tiff, index, tile.data(), size) != size) {
          fail("cannot write tile " + std::to_string(index) + " of level " + std::to_string(level));
        }
      }
    }
    if (!TIFFWriteDirectory(tiff)) fail("cannot write level " + std::to_string(level));
    if (w <= kTile && h <= kTile) break;
    w = (w + 1) / 2;
    h = (h + 1) / 2;
  }
  TIFFClose(tiff);
}

}  // namespace quorvel::serve::testing
