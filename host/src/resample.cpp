#include "quorvel/zoom/resample.hpp"

#include <stdexcept>
#include <string>

#include "vips_support.hpp"

namespace quorvel::zoom {
namespace {

[[noreturn]] void fail(char const* what) {
  throw std::runtime_error(std::string("resize: ") + what + ": " + vips::takeError());
}

}  // namespace

std::vector<uint8_t> resample(uint8_t const* pixels, size_t width, size_t height, size_t channels,
                              size_t outWidth, size_t outHeight) {
  size_t const maxSide = VIPS_MAX_COORD;
  if (outWidth == 0 || outHeight == 0 || outWidth > maxSide || outHeight > maxSide ||
      width > maxSide || height > maxSide) {
    throw std::invalid_argument("resize: cannot resample " + std::to_string(width) + "x" +
                                std::to_string(height) + " to " + std::to_string(outWidth) + "x" +
                                std::to_string(outHeight) + "; sides must be 1 to " +
                                std::to_string(maxSide));
  }
  if (std::string const& failure = vips::start(); !failure.empty()) {
    throw std::runtime_error("resize: " + failure);
  }
  // libvips reads the caller's pixels in place; they outlive every image made from them here,
  // and with the operation cache off nothing keeps a reference past this call.
  vips::ImagePtr image(vips_image_new_from_memory(pixels, width * height * channels,
                                                  static_cast<int>(width), static_cast<int>(height),
                                                  static_cast<int>(channels), VIPS_FORMAT_UCHAR));
  if (!image) fail("cannot wrap the pixels");
  double const hscale = static_cast<double>(outWidth) / static_cast<double>(width);
  double const vscale = static_cast<double>(outHeight) / static_cast<double>(height);
  VipsImage* out = nullptr;
  // Lanczos3 drives the reduction; when enlarging, libvips picks the bicubic interpolator for
  // this kernel.
  if (vips_resize(image.get(), &out, hscale, "vscale", vscale, "kernel", VIPS_KERNEL_LANCZOS3,
                  nullptr)) {
    fail("cannot resample");
  }
  image.reset(out);
  int const w = static_cast<int>(outWidth), h = static_cast<int>(outHeight);
  if (vips_image_get_width(image.get()) != w || vips_image_get_height(image.get()) != h) {
    if (vips_embed(image.get(), &out, 0, 0, w, h, "extend", VIPS_EXTEND_COPY, nullptr)) {
      fail("cannot fit the resampled size");
    }
    image.reset(out);
  }
  // Resampling may promote the format (cast back to bytes, clipping any Lanczos overshoot).
  if (vips_image_get_format(image.get()) != VIPS_FORMAT_UCHAR) {
    if (vips_cast(image.get(), &out, VIPS_FORMAT_UCHAR, nullptr)) fail("cannot cast");
    image.reset(out);
  }
  std::vector<uint8_t> result(outWidth * outHeight * channels);
  if (!vips::readPixels(image.get(), {0, 0, outWidth, outHeight}, result.data())) {
    fail("cannot compute the result");
  }
  return result;
}

}  // namespace quorvel::zoom
