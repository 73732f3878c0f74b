#include "image_io.hpp"

// clang-format off
#include <cstdio>  // jpeglib.h uses FILE and size_t without declaring them
#include <jpeglib.h>
// clang-format on
#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace quorvel::tool {
namespace {

// Images above this many pixels are refused before any allocation (16 GiB of RGBA8).
constexpr uint64_t kMaxPixels = uint64_t{1} << 32;

std::string quoted(std::string const& path) { return "'" + path + "'"; }

struct FileCloser {
  void operator()(FILE* f) const {
    if (f != nullptr) std::fclose(f);
  }
};
using File = std::unique_ptr<FILE, FileCloser>;

File openFile(std::string const& path, char const* mode) {
  File f(std::fopen(path.c_str(), mode));
  if (!f) throw ImageError("cannot open " + quoted(path) + ": " + std::strerror(errno));
  return f;
}

void checkSize(std::string const& path, uint64_t width, uint64_t height) {
  if (width == 0 || height == 0) throw ImageError(quoted(path) + " has no pixels");
  if (width * height > kMaxPixels) {
    throw ImageError(quoted(path) + " is too large (" + std::to_string(width) + " x " +
                     std::to_string(height) + " pixels)");
  }
}

Image blankImage(std::string const& path, uint64_t width, uint64_t height) {
  checkSize(path, width, height);
  Image image;
  image.width = width;
  image.height = height;
  image.rgba.assign(width * height * 4, 255);
  return image;
}

// Widens one row of `channels` samples per pixel (1 grey, 2 grey + alpha, 3 RGB, 4 RGBA)
// into RGBA8.
void widenRow(uint8_t const* in, size_t channels, size_t width, uint8_t* out) {
  for (size_t x = 0; x < width; ++x, in += channels, out += 4) {
    switch (channels) {
      case 1:
        out[0] = out[1] = out[2] = in[0];
        out[3] = 255;
        break;
      case 2:
        out[0] = out[1] = out[2] = in[0];
        out[3] = in[1];
        break;
      case 3:
        out[0] = in[0], out[1] = in[1], out[2] = in[2], out[3] = 255;
        break;
      default:
        out[0] = in[0], out[1] = in[1], out[2] = in[2], out[3] = in[3];
        break;
    }
  }
}

// --- PNG -------------------------------------------------------------------------------

[[noreturn]] void pngError(png_structp png, png_const_charp message) {
  auto* text = static_cast<std::string*>(png_get_error_ptr(png));
  *text = message;
  png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

Image readPng(std::string const& path) {
  File file = openFile(path, "rb");
  std::string message;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, pngError, pngWarning);
  png_infop info = png_create_info_struct(png);
  Image image;
  std::vector<png_bytep> rows;
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    throw ImageError(quoted(path) + ": PNG error: " + message);
  }
  png_set_user_limits(png, 0x7fffffff, 0x7fffffff);
  png_init_io(png, file.get());
  png_read_info(png, info);
  png_uint_32 const width = png_get_image_width(png, info);
  png_uint_32 const height = png_get_image_height(png, info);
  // Everything becomes 8-bit RGBA: palettes and low bit depths expand, 16 bits keep the
  // high byte, grey is copied to R, G and B, missing alpha is filled with 255.
  png_set_expand(png);
  png_set_strip_16(png);
  png_set_gray_to_rgb(png);
  png_set_filler(png, 0xff, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  if (png_get_rowbytes(png, info) != size_t{width} * 4) {
    png_destroy_read_struct(&png, &info, nullptr);
    throw ImageError(quoted(path) + ": unsupported PNG pixel layout");
  }
  try {
    image = blankImage(path, width, height);
  } catch (...) {
    png_destroy_read_struct(&png, &info, nullptr);
    throw;
  }
  rows.resize(height);
  for (size_t y = 0; y < height; ++y) rows[y] = image.pixel(0, y);
  png_read_image(png, rows.data());
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return image;
}

void writePng(std::string const& path, Image const& image) {
  File file = openFile(path, "wb");
  std::string message;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, pngError, pngWarning);
  png_infop info = png_create_info_struct(png);
  std::vector<uint8_t> row(image.width * 3);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw ImageError(quoted(path) + ": PNG error: " + message);
  }
  png_init_io(png, file.get());
  // Fast settings: large outputs are written in seconds, at a modest cost in file size.
  png_set_compression_level(png, 1);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
               static_cast<png_uint_32>(image.height), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
  png_write_info(png, info);
  for (size_t y = 0; y < image.height; ++y) {
    uint8_t const* in = image.pixel(0, y);
    for (size_t x = 0; x < image.width; ++x) std::memcpy(&row[3 * x], in + 4 * x, 3);
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  if (std::fflush(file.get()) != 0) {
    throw ImageError("cannot write " + quoted(path) + ": " + std::strerror(errno));
  }
}

// --- JPEG ------------------------------------------------------------------------------

struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void jpegErrorExit(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  (*info->err->format_message)(info, error->message);
  std::longjmp(error->jump, 1);
}
void jpegQuiet(j_common_ptr, int) {}

Image readJpeg(std::string const& path) {
  File file = openFile(path, "rb");
  jpeg_decompress_struct info;
  JpegError error;
  info.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = jpegErrorExit;
  error.manager.emit_message = jpegQuiet;
  Image image;
  std::vector<uint8_t> row;
  if (setjmp(error.jump)) {
    jpeg_destroy_decompress(&info);
    throw ImageError(quoted(path) + ": JPEG error: " + error.message);
  }
  jpeg_create_decompress(&info);
  jpeg_stdio_src(&info, file.get());
  jpeg_read_header(&info, TRUE);
  bool const grey = info.jpeg_color_space == JCS_GRAYSCALE;
  if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK) {
    jpeg_destroy_decompress(&info);
    throw ImageError(quoted(path) + ": CMYK JPEG files are not supported");
  }
  info.out_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_start_decompress(&info);
  try {
    image = blankImage(path, info.output_width, info.output_height);
  } catch (...) {
    jpeg_destroy_decompress(&info);
    throw;
  }
  size_t const channels = static_cast<size_t>(info.output_components);
  row.resize(image.width * channels);
  while (info.output_scanline < info.output_height) {
    size_t const y = info.output_scanline;
    JSAMPROW rowPointer = row.data();
    jpeg_read_scanlines(&info, &rowPointer, 1);
    widenRow(row.data(), channels, image.width, image.pixel(0, y));
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return image;
}

// --- TIFF ------------------------------------------------------------------------------

// libtiff reports through global handlers; the last error text is kept per thread.
thread_local std::string tiffMessage;

void tiffError(char const* module, char const* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  tiffMessage = module != nullptr ? std::string(module) + ": " + text : std::string(text);
}

void installTiffHandlers() {
  TIFFSetErrorHandler(tiffError);
  TIFFSetWarningHandler(nullptr);
}

struct TiffCloser {
  void operator()(TIFF* t) const {
    if (t != nullptr) TIFFClose(t);
  }
};
using Tiff = std::unique_ptr<TIFF, TiffCloser>;

[[noreturn]] void tiffFailure(std::string const& path, std::string const& what) {
  std::string text = quoted(path) + ": TIFF error: " + what;
  if (!tiffMessage.empty()) text += " (" + tiffMessage + ")";
  throw ImageError(text);
}

// 8-bit contiguous grey/RGB(A) data, tiled or in strips, read directly and exactly.
bool readTiffDirect(std::string const& path, TIFF* tiff, Image& image) {
  uint16_t bits = 0, samples = 0, planar = PLANARCONFIG_CONTIG, photometric = 0;
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
  if (!TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric)) return false;
  bool const grey = photometric == PHOTOMETRIC_MINISBLACK && (samples == 1 || samples == 2);
  bool const rgb = photometric == PHOTOMETRIC_RGB && (samples == 3 || samples == 4);
  if (bits != 8 || planar != PLANARCONFIG_CONTIG || !(grey || rgb)) return false;

  if (TIFFIsTiled(tiff)) {
    uint32_t tileW = 0, tileH = 0;
    TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &tileW);
    TIFFGetField(tiff, TIFFTAG_TILELENGTH, &tileH);
    if (tileW == 0 || tileH == 0) tiffFailure(path, "invalid tile size");
    std::vector<uint8_t> tile(TIFFTileSize(tiff));
    if (tile.size() < size_t{tileW} * tileH * samples) tiffFailure(path, "invalid tile size");
    for (uint32_t ty = 0; ty < image.height; ty += tileH) {
      for (uint32_t tx = 0; tx < image.width; tx += tileW) {
        if (TIFFReadTile(tiff, tile.data(), tx, ty, 0, 0) < 0) tiffFailure(path, "bad tile");
        size_t const w = std::min<size_t>(tileW, image.width - tx);
        size_t const h = std::min<size_t>(tileH, image.height - ty);
        for (size_t y = 0; y < h; ++y) {
          widenRow(&tile[y * tileW * samples], samples, w, image.pixel(tx, ty + y));
        }
      }
    }
  } else {
    std::vector<uint8_t> row(TIFFScanlineSize(tiff));
    if (row.size() < image.width * samples) tiffFailure(path, "invalid scanline size");
    for (uint32_t y = 0; y < image.height; ++y) {
      if (TIFFReadScanline(tiff, row.data(), y, 0) < 0) tiffFailure(path, "bad scanline");
      widenRow(row.data(), samples, image.width, image.pixel(0, y));
    }
  }
  return true;
}

Image readTiff(std::string const& path) {
  installTiffHandlers();
  tiffMessage.clear();
  Tiff tiff(TIFFOpen(path.c_str(), "r"));
  if (!tiff) tiffFailure(path, "cannot open");
  uint32_t width = 0, height = 0;
  TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
  Image image = blankImage(path, width, height);
  if (readTiffDirect(path, tiff.get(), image)) return image;

  // Anything else (palettes, 16 bits, planar, YCbCr, ...) through libtiff's RGBA reader.
  char reason[1024] = "";
  if (!TIFFRGBAImageOK(tiff.get(), reason)) tiffFailure(path, reason);
  std::vector<uint32_t> raster(size_t{width} * height);
  if (!TIFFReadRGBAImageOriented(tiff.get(), width, height, raster.data(), ORIENTATION_TOPLEFT,
                                 0)) {
    tiffFailure(path, "cannot decode");
  }
  for (size_t i = 0; i < raster.size(); ++i) {
    uint32_t const p = raster[i];
    image.rgba[4 * i + 0] = static_cast<uint8_t>(TIFFGetR(p));
    image.rgba[4 * i + 1] = static_cast<uint8_t>(TIFFGetG(p));
    image.rgba[4 * i + 2] = static_cast<uint8_t>(TIFFGetB(p));
    image.rgba[4 * i + 3] = static_cast<uint8_t>(TIFFGetA(p));
  }
  return image;
}

void writeTiff(std::string const& path, Image const& image) {
  installTiffHandlers();
  tiffMessage.clear();
  // Classic TIFF addresses 4 GiB; larger outputs become BigTIFF.
  bool const big = image.width * image.height * 3 > (uint64_t{1} << 31);
  Tiff tiff(TIFFOpen(path.c_str(), big ? "w8" : "w"));
  if (!tiff) tiffFailure(path, "cannot create");
  uint32_t const rowsPerStrip = 64;
  TIFFSetField(tiff.get(), TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.width));
  TIFFSetField(tiff.get(), TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.height));
  TIFFSetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tiff.get(), TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tiff.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tiff.get(), TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  TIFFSetField(tiff.get(), TIFFTAG_ZIPQUALITY, 1);
  TIFFSetField(tiff.get(), TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  TIFFSetField(tiff.get(), TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
  std::vector<uint8_t> strip(image.width * 3 * rowsPerStrip);
  for (uint32_t y0 = 0, s = 0; y0 < image.height; y0 += rowsPerStrip, ++s) {
    size_t const rows = std::min<size_t>(rowsPerStrip, image.height - y0);
    for (size_t y = 0; y < rows; ++y) {
      uint8_t const* in = image.pixel(0, y0 + y);
      uint8_t* out = &strip[y * image.width * 3];
      for (size_t x = 0; x < image.width; ++x) std::memcpy(out + 3 * x, in + 4 * x, 3);
    }
    if (TIFFWriteEncodedStrip(tiff.get(), s, strip.data(),
                              static_cast<tmsize_t>(rows * image.width * 3)) < 0) {
      tiffFailure(path, "cannot write");
    }
  }
  if (!TIFFWriteDirectory(tiff.get())) tiffFailure(path, "cannot write");
}

std::string lowerExtension(std::string const& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

}  // namespace

Image readImage(std::string const& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    throw ImageError("cannot read " + quoted(path) + ": it is a directory");
  }
  unsigned char magic[4] = {0, 0, 0, 0};
  size_t got = 0;
  {
    File file = openFile(path, "rb");
    got = std::fread(magic, 1, sizeof magic, file.get());
  }
  if (got >= 4 && std::memcmp(magic, "\x89PNG", 4) == 0) return readPng(path);
  if (got >= 3 && magic[0] == 0xFF && magic[1] == 0xD8 && magic[2] == 0xFF) return readJpeg(path);
  bool const tiff =
      got >= 4 &&
      ((magic[0] == 'I' && magic[1] == 'I' && magic[3] == 0 &&
        (magic[2] == 42 || magic[2] == 43)) ||
       (magic[0] == 'M' && magic[1] == 'M' && magic[2] == 0 && (magic[3] == 42 || magic[3] == 43)));
  if (tiff) return readTiff(path);
  throw ImageError(quoted(path) + " is not a PNG, JPEG or TIFF file");
}

bool writableExtension(std::string const& path) {
  std::string const ext = lowerExtension(path);
  return ext == ".png" || ext == ".tif" || ext == ".tiff";
}

void writeImage(std::string const& path, Image const& image) {
  if (!writableExtension(path)) {
    throw ImageError("cannot write " + quoted(path) + ": the name must end in .png, .tif or .tiff");
  }
  std::filesystem::path const parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(parent, ec);
    if (ec)
      throw ImageError("cannot create folder " + quoted(parent.string()) + ": " + ec.message());
  }
  if (lowerExtension(path) == ".png") {
    writePng(path, image);
  } else {
    writeTiff(path, image);
  }
}

}  // namespace quorvel::tool
