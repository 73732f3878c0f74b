#include "imaging.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "quorvel/zoom/resample.hpp"

namespace quorvel::serve {
namespace {

// Square blocks that orient copies at a time, so that a rotation, which reads the source down
// its columns, keeps the rows it touches in cache.
constexpr size_t kBlock = 64;

// Fills `dst` (width x height pixels of C bytes) block by block from `src`, where output pixel
// (x, y) is source pixel start + x*stepX + y*stepY. A constant C turns each copy into one move.
template <size_t C>
void orientBlocks(uint8_t const* src, uint8_t* dst, size_t width, size_t height, ptrdiff_t start,
                  ptrdiff_t stepX, ptrdiff_t stepY) {
  for (size_t by = 0; by < height; by += kBlock) {
    size_t const yEnd = std::min(height, by + kBlock);
    for (size_t bx = 0; bx < width; bx += kBlock) {
      size_t const xEnd = std::min(width, bx + kBlock);
      for (size_t y = by; y < yEnd; ++y) {
        ptrdiff_t from =
            start + static_cast<ptrdiff_t>(y) * stepY + static_cast<ptrdiff_t>(bx) * stepX;
        uint8_t* to = dst + (y * width + bx) * C;
        for (size_t x = bx; x < xEnd; ++x, from += stepX, to += C) {
          std::memcpy(to, src + from * static_cast<ptrdiff_t>(C), C);
        }
      }
    }
  }
}

}  // namespace

void checkPixels(Pixels const& pixels, char const* context) {
  auto fail = [&](std::string const& why) {
    throw std::invalid_argument(std::string(context) + ": " + why);
  };
  if (pixels.channels != 1 && pixels.channels != 3 && pixels.channels != 4) {
    fail("pixels have " + std::to_string(pixels.channels) + " channels; 1, 3 or 4 are supported");
  }
  if (pixels.width == 0 || pixels.height == 0) {
    fail("the image is empty (" + std::to_string(pixels.width) + "x" +
         std::to_string(pixels.height) + ")");
  }
  size_t const max = std::numeric_limits<size_t>::max();
  if (pixels.width > max / pixels.height || pixels.width * pixels.height > max / pixels.channels ||
      pixels.data.size() != pixels.width * pixels.height * pixels.channels) {
    fail("pixel data holds " + std::to_string(pixels.data.size()) + " bytes, not " +
         std::to_string(pixels.width) + "x" + std::to_string(pixels.height) + "x" +
         std::to_string(pixels.channels));
  }
}

Pixels resize(Pixels const& in, size_t width, size_t height) {
  checkPixels(in, "resize");
  if (width == in.width && height == in.height) return in;
  Pixels result;
  result.data = zoom::resample(in.data.data(), in.width, in.height, in.channels, width, height);
  result.width = width;
  result.height = height;
  result.channels = in.channels;
  return result;
}

Pixels orient(Pixels in, unsigned rotation, bool mirror) {
  if (rotation != 0 && rotation != 90 && rotation != 180 && rotation != 270) {
    throw std::invalid_argument("orient: rotation must be 0, 90, 180 or 270 degrees, not " +
                                std::to_string(rotation));
  }
  checkPixels(in, "orient");
  if (rotation == 0 && !mirror) return in;

  // Each output pixel (x, y) reads source column i = i0 + x*ix + y*iy and row
  // j = j0 + x*jx + y*jy; the rotation fixes those, then the mirror reflects i.
  ptrdiff_t const lastX = static_cast<ptrdiff_t>(in.width) - 1;
  ptrdiff_t const lastY = static_cast<ptrdiff_t>(in.height) - 1;
  ptrdiff_t i0 = 0, ix = 1, iy = 0, j0 = 0, jx = 0, jy = 1;
  switch (rotation) {
    case 90:
      i0 = 0, ix = 0, iy = 1, j0 = lastY, jx = -1, jy = 0;
      break;
    case 180:
      i0 = lastX, ix = -1, iy = 0, j0 = lastY, jx = 0, jy = -1;
      break;
    case 270:
      i0 = lastX, ix = 0, iy = -1, j0 = 0, jx = 1, jy = 0;
      break;
    default:
      break;
  }
  if (mirror) i0 = lastX - i0, ix = -ix, iy = -iy;
  ptrdiff_t const stride = static_cast<ptrdiff_t>(in.width);

  Pixels out;
  bool const turned = rotation == 90 || rotation == 270;
  out.width = turned ? in.height : in.width;
  out.height = turned ? in.width : in.height;
  out.channels = in.channels;
  out.data.resize(in.data.size());
  auto run = [&](auto copy) {
    copy(in.data.data(), out.data.data(), out.width, out.height, i0 + j0 * stride, ix + jx * stride,
         iy + jy * stride);
  };
  switch (in.channels) {
    case 4:
      run(orientBlocks<4>);
      break;
    case 3:
      run(orientBlocks<3>);
      break;
    default:
      run(orientBlocks<1>);
      break;
  }
  return out;
}

Pixels applyQuality(Pixels in, Quality quality) {
  if (quality == Quality::kDefault || quality == Quality::kColor) return in;
  checkPixels(in, "applyQuality");
  bool const bitonal = quality == Quality::kBitonal;
  size_t const count = in.width * in.height;
  uint8_t* data = in.data.data();
  if (in.channels == 1) {
    if (bitonal) {
      for (size_t i = 0; i < count; ++i) data[i] = data[i] >= 128 ? 255 : 0;
    }
    return in;
  }
  // Rec. 601 weights, the ones JPEG uses for its own Y, scaled to 16 bits and summing to 65536
  // so white stays 255. Written in place: pixel i's luma lands at or before its own bytes.
  size_t const step = in.channels;
  for (size_t i = 0; i < count; ++i) {
    uint8_t const* p = data + i * step;
    uint32_t const luma = (19595u * p[0] + 38470u * p[1] + 7471u * p[2] + 32768u) >> 16;
    data[i] = bitonal ? (luma >= 128 ? 255 : 0) : static_cast<uint8_t>(luma);
  }
  in.data.resize(count);
  in.channels = 1;
  return in;
}

}  // namespace quorvel::serve
