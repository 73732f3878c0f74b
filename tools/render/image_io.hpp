#pragma once
// Reading and writing 8-bit images with the system codecs (libpng, libjpeg, libtiff).
//
// Every image is held as packed RGBA8 rows whatever the file stored: grey and RGB inputs
// are widened, 16-bit PNG and TIFF samples are narrowed to their high byte.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorvel::tool {

/// An RGBA8 image, rows packed (stride = 4 * width).
struct Image {
  size_t width = 0;
  size_t height = 0;
  std::vector<uint8_t> rgba;

  uint8_t* pixel(size_t x, size_t y) { return &rgba[(y * width + x) * 4]; }
  uint8_t const* pixel(size_t x, size_t y) const { return &rgba[(y * width + x) * 4]; }
};

/// A file that cannot be read or written, with a one-line reason.
class ImageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a PNG, JPEG or TIFF file (the format is taken from the file's first bytes; tiled
/// and BigTIFF files included). Throws ImageError naming the file and the problem.
Image readImage(std::string const& path);

/// Whether `path` ends in an extension writeImage understands (.png, .tif, .tiff).
bool writableExtension(std::string const& path);

/// Writes `image` as RGB8 (the alpha channel is dropped) to a PNG or TIFF file chosen by
/// the extension of `path`, creating missing parent folders. Throws ImageError.
void writeImage(std::string const& path, Image const& image);

}  // namespace quorvel::tool
