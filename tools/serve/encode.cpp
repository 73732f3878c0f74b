#include "encode.hpp"

// jpeglib.h uses size_t and FILE without declaring them.
// clang-format off
#include <cstddef>
#include <cstdio>
#include <jpeglib.h>
#include <jerror.h>
// clang-format on
#include <png.h>
#include <webp/encode.h>
#include <zlib.h>

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorvel::serve {
namespace {

// Encoded bytes of one call, in a buffer each thread keeps between calls so a tile encodes
// without growing a fresh buffer. The encoders' callbacks grow it from inside the C libraries,
// where nothing may throw, so it is plain malloc memory that reports failure instead.
class OutputBuffer {
 public:
  OutputBuffer() = default;
  OutputBuffer(OutputBuffer const&) = delete;
  OutputBuffer& operator=(OutputBuffer const&) = delete;
  ~OutputBuffer() { std::free(data_); }

  /// Empties the buffer and makes room for at least `capacity` bytes; false when out of memory.
  bool start(size_t capacity) noexcept {
    size_ = 0;
    return reserve(capacity);
  }

  /// Grows to hold at least `capacity` bytes, doubling; false when out of memory.
  bool reserve(size_t capacity) noexcept {
    if (capacity <= capacity_) return true;
    size_t grown = std::max(capacity, capacity_ * 2);
    auto* data = static_cast<unsigned char*>(std::realloc(data_, grown));
    if (!data) return false;
    data_ = data;
    capacity_ = grown;
    return true;
  }

  /// Appends `size` bytes; false when out of memory.
  bool append(void const* bytes, size_t size) noexcept {
    if (size > capacity_ - size_ && !reserve(size_ + size)) return false;
    std::memcpy(data_ + size_, bytes, size);
    size_ += size;
    return true;
  }

  /// The bytes written, as an exactly sized string (responses are cached, so no slack). A
  /// buffer grown by an unusually large image is released rather than kept by the thread.
  std::string take() {
    std::string bytes(reinterpret_cast<char const*>(data_), size_);
    size_ = 0;
    if (capacity_ > kKeptCapacity) {
      std::free(data_);
      data_ = nullptr;
      capacity_ = 0;
    }
    return bytes;
  }

  unsigned char* data() noexcept { return data_; }
  size_t capacity() const noexcept { return capacity_; }
  void setSize(size_t size) noexcept { size_ = size; }

 private:
  // A 256x256 tile at the highest quality fits with room to spare.
  static constexpr size_t kKeptCapacity = size_t{4} << 20;

  unsigned char* data_ = nullptr;
  size_t size_ = 0, capacity_ = 0;
};

OutputBuffer& threadOutput() {
  thread_local OutputBuffer output;
  return output;
}

// A first guess at the encoded size, so a typical tile needs no regrowth.
size_t initialCapacity(Pixels const& pixels) {
  return std::max<size_t>(size_t{64} << 10, pixels.width * pixels.height * 3 / 4);
}

void checkQuality(int quality, char const* context) {
  if (quality < 1 || quality > 100) {
    throw std::invalid_argument(std::string(context) + ": quality must be 1 to 100, not " +
                                std::to_string(quality));
  }
}

void checkSides(Pixels const& pixels, size_t max, char const* context) {
  if (pixels.width > max || pixels.height > max) {
    throw std::invalid_argument(std::string(context) + ": " + std::to_string(pixels.width) + "x" +
                                std::to_string(pixels.height) + " exceeds the format's " +
                                std::to_string(max) + " pixels a side");
  }
}

// ---- JPEG ------------------------------------------------------------------------------------

// Rows handed to libjpeg per call; two iMCU rows of 4:2:0 data.
constexpr JDIMENSION kJpegRowBatch = 32;

// One compressor per thread, created once and reused for every JPEG the thread encodes, with
// its tables rebuilt only when the settings change. That setup is 1-2 us of the ~160 us a
// 256x256 RGBA tile takes at quality 90, so the gain is small but free. The compressor writes
// into the thread's OutputBuffer through its own destination, which, unlike jpeg_mem_dest's,
// starts at a tile's size instead of 4 KB and leaves no buffer behind when compression fails
// halfway. The default integer DCT stays: the fast one measured no faster here, only coarser.
class JpegEncoder {
 public:
  JpegEncoder() {
    cinfo_.err = jpeg_std_error(&error_.pub);
    error_.pub.error_exit = onError;
    error_.pub.output_message = [](j_common_ptr) {};
    destination_.pub.init_destination = initDestination;
    destination_.pub.empty_output_buffer = emptyOutputBuffer;
    destination_.pub.term_destination = termDestination;
    // Creation fails only when out of memory; libjpeg then jumps back here.
    if (setjmp(error_.jump)) {
      jpeg_destroy_compress(&cinfo_);
      return;
    }
    jpeg_create_compress(&cinfo_);
    created_ = true;
  }
  JpegEncoder(JpegEncoder const&) = delete;
  JpegEncoder& operator=(JpegEncoder const&) = delete;
  ~JpegEncoder() {
    if (created_) jpeg_destroy_compress(&cinfo_);
  }

  /// Compresses `pixels` into `output`; false with message() set on failure.
  bool compress(Pixels const& pixels, int quality, OutputBuffer& output) {
    if (!created_) {
      std::strcpy(error_.message, "cannot create the JPEG compressor");
      return false;
    }
    // libjpeg reports errors by jumping back here, over its own frames only; nothing in this
    // frame has a destructor, and nothing set after setjmp is read after the jump.
    if (setjmp(error_.jump)) {
      jpeg_abort_compress(&cinfo_);
      configuredQuality_ = 0;
      return false;
    }
    destination_.output = &output;
    cinfo_.dest = &destination_.pub;
    cinfo_.image_width = static_cast<JDIMENSION>(pixels.width);
    cinfo_.image_height = static_cast<JDIMENSION>(pixels.height);
    cinfo_.input_components = static_cast<int>(pixels.channels);
    // RGBX lets libjpeg read the rendered RGBA in place, skipping the fourth byte.
    cinfo_.in_color_space = pixels.channels == 1   ? JCS_GRAYSCALE
                            : pixels.channels == 3 ? JCS_RGB
                                                   : JCS_EXT_RGBX;
    // The tables persist in the object between images, so they are rebuilt only when the
    // colour space or quality changes; jpeg_start_compress writes them into every image.
    if (cinfo_.in_color_space != configuredSpace_ || quality != configuredQuality_) {
      jpeg_set_defaults(&cinfo_);
      jpeg_set_quality(&cinfo_, quality, TRUE);
      configuredSpace_ = cinfo_.in_color_space;
      configuredQuality_ = quality;
    }
    jpeg_start_compress(&cinfo_, TRUE);
    size_t const stride = pixels.width * pixels.channels;
    auto* const base = const_cast<JSAMPLE*>(pixels.data.data());
    JSAMPROW rows[kJpegRowBatch];
    while (cinfo_.next_scanline < cinfo_.image_height) {
      JDIMENSION const count = std::min(kJpegRowBatch, cinfo_.image_height - cinfo_.next_scanline);
      for (JDIMENSION i = 0; i < count; ++i) {
        rows[i] = base + (cinfo_.next_scanline + i) * stride;
      }
      jpeg_write_scanlines(&cinfo_, rows, count);
    }
    jpeg_finish_compress(&cinfo_);
    return true;
  }

  char const* message() const { return error_.message; }

 private:
  struct ErrorManager {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
  };
  struct Destination {
    jpeg_destination_mgr pub;
    OutputBuffer* output;
  };

  [[noreturn]] static void onError(j_common_ptr cinfo) {
    auto* error = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, error->message);
    std::longjmp(error->jump, 1);
  }
  static OutputBuffer& outputOf(j_compress_ptr cinfo) {
    return *reinterpret_cast<Destination*>(cinfo->dest)->output;
  }
  static void initDestination(j_compress_ptr cinfo) {
    OutputBuffer& output = outputOf(cinfo);
    cinfo->dest->next_output_byte = output.data();
    cinfo->dest->free_in_buffer = output.capacity();
  }
  // Called with the whole buffer full.
  static boolean emptyOutputBuffer(j_compress_ptr cinfo) {
    OutputBuffer& output = outputOf(cinfo);
    size_t const used = output.capacity();
    if (!output.reserve(used + 1)) ERREXIT1(cinfo, JERR_OUT_OF_MEMORY, 0);
    cinfo->dest->next_output_byte = output.data() + used;
    cinfo->dest->free_in_buffer = output.capacity() - used;
    return TRUE;
  }
  static void termDestination(j_compress_ptr cinfo) {
    OutputBuffer& output = outputOf(cinfo);
    output.setSize(output.capacity() - cinfo->dest->free_in_buffer);
  }

  jpeg_compress_struct cinfo_{};
  ErrorManager error_{};
  Destination destination_{};
  bool created_ = false;
  J_COLOR_SPACE configuredSpace_ = JCS_UNKNOWN;
  int configuredQuality_ = 0;
};

std::string encodeJpeg(Pixels const& pixels, int quality) {
  checkQuality(quality, "JPEG");
  checkSides(pixels, JPEG_MAX_DIMENSION, "JPEG");
  thread_local JpegEncoder encoder;
  OutputBuffer& output = threadOutput();
  if (!output.start(initialCapacity(pixels))) throw std::bad_alloc();
  if (!encoder.compress(pixels, quality, output)) {
    throw std::runtime_error(std::string("cannot encode JPEG: ") + encoder.message());
  }
  return output.take();
}

// ---- PNG -------------------------------------------------------------------------------------

// Paeth filtering on every row with zlib's run-length strategy. Measured on 256x256 RGB tiles
// of a photograph: libpng's default (zlib 6, adaptive filters) takes 10-12 ms for 123-135 KB;
// zlib 1-2 with the Sub filter 3.5-3.9 ms for 137-151 KB; this 2.8 ms for 119-132 KB, since the
// Paeth residuals of photographic detail are short-range and a match search finds little beyond
// runs. On screenshot tiles it stays within 10% of zlib 2's size (0.6 ms against 0.45 ms).
// Adaptive filtering adds about 25% time for under 0.1% size.
constexpr int kPngFilters = PNG_FILTER_PAETH;
constexpr int kPngStrategy = Z_RLE;

struct PngError {
  char message[256];
};

[[noreturn]] void onPngError(png_structp png, png_const_charp text) {
  auto* error = static_cast<PngError*>(png_get_error_ptr(png));
  std::snprintf(error->message, sizeof error->message, "%s", text);
  png_longjmp(png, 1);
}

void onPngWrite(png_structp png, png_bytep bytes, png_size_t size) {
  if (!static_cast<OutputBuffer*>(png_get_io_ptr(png))->append(bytes, size)) {
    png_error(png, "out of memory");
  }
}

// Writes `pixels` as an 8-bit grey or RGB PNG into `output`; false with `error` set on failure.
// libpng reports errors by jumping back into this frame, which holds nothing with a destructor.
bool writePng(Pixels const& pixels, OutputBuffer& output, PngError& error) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, onPngError,
                                            [](png_structp, char const*) {});
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    std::strcpy(error.message, "cannot create the PNG writer");
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_set_write_fn(png, &output, onPngWrite, nullptr);
  png_set_IHDR(png, info, static_cast<png_uint_32>(pixels.width),
               static_cast<png_uint_32>(pixels.height), 8,
               pixels.channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_strategy(png, kPngStrategy);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, kPngFilters);
  png_write_info(png, info);
  // libpng drops the fourth byte of each pixel as it writes, so RGBA rows go in unconverted.
  if (pixels.channels == 4) png_set_filler(png, 0, PNG_FILLER_AFTER);
  size_t const stride = pixels.width * pixels.channels;
  for (size_t y = 0; y < pixels.height; ++y) {
    png_write_row(png, pixels.data.data() + y * stride);
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

std::string encodePng(Pixels const& pixels) {
  checkSides(pixels, PNG_UINT_31_MAX, "PNG");
  OutputBuffer& output = threadOutput();
  if (!output.start(initialCapacity(pixels))) throw std::bad_alloc();
  PngError error{};
  if (!writePng(pixels, output, error)) {
    throw std::runtime_error(std::string("cannot encode PNG: ") + error.message);
  }
  return output.take();
}

// ---- WebP ------------------------------------------------------------------------------------

char const* webpErrorText(WebPEncodingError code) {
  switch (code) {
    case VP8_ENC_ERROR_OUT_OF_MEMORY:
    case VP8_ENC_ERROR_BITSTREAM_OUT_OF_MEMORY:
      return "out of memory";
    case VP8_ENC_ERROR_BAD_DIMENSION:
      return "bad dimensions";
    case VP8_ENC_ERROR_PARTITION0_OVERFLOW:
    case VP8_ENC_ERROR_PARTITION_OVERFLOW:
      return "partition overflow";
    case VP8_ENC_ERROR_BAD_WRITE:
      return "cannot write the output";
    case VP8_ENC_ERROR_FILE_TOO_BIG:
      return "file too big";
    default:
      return "encoder error";
  }
}

constexpr int kWebpMethod = 2;

int onWebpWrite(uint8_t const* bytes, size_t size, WebPPicture const* picture) {
  return static_cast<OutputBuffer*>(picture->custom_ptr)->append(bytes, size) ? 1 : 0;
}

struct WebpPictureFree {
  void operator()(WebPPicture* picture) const { WebPPictureFree(picture); }
};

std::string encodeWebp(Pixels const& pixels, int quality) {
  checkQuality(quality, "WebP");
  checkSides(pixels, WEBP_MAX_DIMENSION, "WebP");
  // The simple API's path (default preset, lossy YUV picture) taken by hand, so RGBA imports
  // through RGBX without its alpha and the bytes go straight into the thread's buffer.
  WebPConfig config;
  if (!WebPConfigInit(&config)) throw std::runtime_error("cannot encode WebP: library mismatch");
  config.quality = static_cast<float>(quality);
  // Method 2 of 0-6 (default 4) halves the encoding time of a 256x256 photographic tile (3.6-4.0
  // ms against 6.6-7.4 ms at quality 90) for output about 2% larger.
  config.method = kWebpMethod;
  WebPPicture picture;
  if (!WebPPictureInit(&picture)) throw std::runtime_error("cannot encode WebP: library mismatch");
  std::unique_ptr<WebPPicture, WebpPictureFree> owner(&picture);
  picture.width = static_cast<int>(pixels.width);
  picture.height = static_cast<int>(pixels.height);
  int const stride = static_cast<int>(pixels.width * pixels.channels);
  int imported = 0;
  if (pixels.channels == 4) {
    imported = WebPPictureImportRGBX(&picture, pixels.data.data(), stride);
  } else if (pixels.channels == 3) {
    imported = WebPPictureImportRGB(&picture, pixels.data.data(), stride);
  } else {
    std::vector<uint8_t> rgb(pixels.data.size() * 3);
    for (size_t i = 0; i < pixels.data.size(); ++i) {
      std::memset(&rgb[i * 3], pixels.data[i], 3);
    }
    imported = WebPPictureImportRGB(&picture, rgb.data(), stride * 3);
  }
  if (!imported) throw std::bad_alloc();
  OutputBuffer& output = threadOutput();
  if (!output.start(initialCapacity(pixels) / 2)) throw std::bad_alloc();
  picture.writer = onWebpWrite;
  picture.custom_ptr = &output;
  if (!WebPEncode(&config, &picture)) {
    throw std::runtime_error(std::string("cannot encode WebP: ") +
                             webpErrorText(picture.error_code));
  }
  return output.take();
}

}  // namespace

std::string encode(Pixels const& pixels, Format format, int quality) {
  checkPixels(pixels, "encode");
  switch (format) {
    case Format::kJpeg:
      return encodeJpeg(pixels, quality);
    case Format::kPng:
      return encodePng(pixels);
    case Format::kWebp:
      return encodeWebp(pixels, quality);
  }
  throw std::invalid_argument("encode: unknown format " + std::to_string(static_cast<int>(format)));
}

}  // namespace quorvel::serve
