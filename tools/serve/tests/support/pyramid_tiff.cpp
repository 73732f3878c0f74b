// A pyramidal TIFF of any size, fast: most tiles of a level are one of a few hundred
// variants (a cell colour and a texture), each JPEG-compressed once and written as raw
// tile data as often as it occurs. Only the coarse levels, whose tiles span several cells,
// are rendered tile by tile, and they have few tiles.

#include "pyramid_tiff.hpp"

#include <tiffio.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csetjmp>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

// jpeglib.h uses size_t and FILE without including their headers.
#include <jpeglib.h>

namespace quorvel::serve::testing {
namespace {

constexpr size_t kTile = 256;
constexpr size_t kMaxCellsPerSide = 16;
constexpr int kTextures = 4;
constexpr int kJpegQuality = 60;
// Large enough to see in every tile, small enough that no channel clips and that the waves'
// zero mean keeps the levels' means equal.
constexpr double kTextureAmplitude = 24.0;
constexpr double kPi = 3.14159265358979323846;

struct Rgb {
  uint8_t r, g, b;
};

/// The level-0 image cut into square cells of 256 * 2^shift pixels, at most
/// kMaxCellsPerSide of them a side, each with its own colour.
class Cells {
 public:
  Cells(size_t width, size_t height) {
    size_t const longest = std::max(width, height);
    while ((longest + cellSize() - 1) / cellSize() > kMaxCellsPerSide) ++shift_;
    across_ = (width + cellSize() - 1) / cellSize();
    down_ = (height + cellSize() - 1) / cellSize();
    colours_.reserve(across_ * down_);
    for (size_t cy = 0; cy < down_; ++cy) {
      for (size_t cx = 0; cx < across_; ++cx) {
        double const u = (double(cx) + 0.5) / double(across_);
        double const v = (double(cy) + 0.5) / double(down_);
        colours_.push_back(
            {static_cast<uint8_t>(std::lround(40 + 175 * u)),
             static_cast<uint8_t>(std::lround(40 + 175 * v)),
             static_cast<uint8_t>(std::lround(128 + 80 * std::sin(2 * kPi * (u + 0.5 * v))))});
      }
    }
  }

  size_t shift() const { return shift_; }
  size_t count() const { return colours_.size(); }
  size_t cellSize() const { return kTile << shift_; }

  /// The cell of the level-0 pixel (x, y); pixels past the image (the padding of edge
  /// tiles) belong to the last cell.
  size_t cellAt(size_t x, size_t y) const {
    size_t const cx = std::min(x / cellSize(), across_ - 1);
    size_t const cy = std::min(y / cellSize(), down_ - 1);
    return cy * across_ + cx;
  }

  Rgb colour(size_t cell) const { return colours_[cell]; }

 private:
  size_t shift_ = 0;
  size_t across_ = 0, down_ = 0;
  std::vector<Rgb> colours_;
};

/// Four zero-mean luminance waves over a tile, each a whole number of periods across it.
class Textures {
 public:
  Textures() {
    for (int t = 0; t < kTextures; ++t) {
      auto& wave = waves_[size_t(t)];
      wave.resize(kTile * kTile);
      for (size_t y = 0; y < kTile; ++y) {
        for (size_t x = 0; x < kTile; ++x) {
          double const fx = double(x) / kTile, fy = double(y) / kTile;
          double value = 0;
          switch (t) {
            case 0:
              value = std::sin(2 * kPi * 4 * fy);
              break;
            case 1:
              value = std::sin(2 * kPi * 4 * fx);
              break;
            case 2:
              value = std::sin(2 * kPi * 2 * (fx + fy));
              break;
            default:
              value = std::sin(2 * kPi * 2 * fx) * std::sin(2 * kPi * 2 * fy) * 1.5;
              break;
          }
          wave[y * kTile + x] = static_cast<int8_t>(std::lround(kTextureAmplitude * value));
        }
      }
    }
  }

  /// The texture of tile (tx, ty) of any level: the eight neighbours of a tile all differ
  /// from it, because tx + 2 * ty changes by 1, 2 or 3 (mod 4) between neighbours.
  static int forTile(size_t tx, size_t ty) { return int((tx + 2 * ty) % kTextures); }

  int8_t at(int texture, size_t x, size_t y) const {
    return waves_[size_t(texture)][y * kTile + x];
  }

 private:
  std::array<std::vector<int8_t>, kTextures> waves_;
};

uint8_t clampByte(int value) { return static_cast<uint8_t>(std::clamp(value, 0, 255)); }

struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  (*info->err->format_message)(info, error->message);
  std::longjmp(error->jump, 1);
}

/// One libjpeg compressor for all tiles: the tables go once into the file's JPEGTABLES and
/// every tile is an abbreviated stream without them, which saves about 600 bytes a tile.
class TileEncoder {
 public:
  TileEncoder() {
    info_.err = jpeg_std_error(&error_.manager);
    error_.manager.error_exit = jpegErrorExit;
    error_.message[0] = 0;
    // libjpeg reports errors by longjmp; nothing with a destructor lives in this scope
    // between setjmp and the calls that may jump, and the buffer is a member so that its
    // value survives the jump.
    if (setjmp(error_.jump)) {
      std::free(tablesBuffer_);
      jpeg_destroy_compress(&info_);
      throw std::runtime_error(std::string("writePyramidTiff: JPEG: ") + error_.message);
    }
    jpeg_create_compress(&info_);
    info_.image_width = kTile;
    info_.image_height = kTile;
    info_.input_components = 3;
    info_.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info_);
    jpeg_set_quality(&info_, kJpegQuality, TRUE);
    // TIFF says what the samples are; a JFIF marker inside a tile only confuses readers.
    info_.write_JFIF_header = FALSE;
    jpeg_mem_dest(&info_, &tablesBuffer_, &tablesSize_);
    jpeg_write_tables(&info_);
    tables_.assign(reinterpret_cast<char*>(tablesBuffer_), tablesSize_);
    std::free(tablesBuffer_);
    tablesBuffer_ = nullptr;
  }

  ~TileEncoder() { jpeg_destroy_compress(&info_); }
  TileEncoder(TileEncoder const&) = delete;
  TileEncoder& operator=(TileEncoder const&) = delete;

  std::string const& tables() const { return tables_; }

  /// The abbreviated JPEG stream of a 256 x 256 RGB tile, rows packed.
  std::string encode(uint8_t const* rgb) {
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    if (!compress(rgb, &buffer, &size)) {
      std::free(buffer);
      throw std::runtime_error(std::string("writePyramidTiff: JPEG: ") + error_.message);
    }
    std::string stream(reinterpret_cast<char*>(buffer), size);
    std::free(buffer);
    return stream;
  }

 private:
  bool compress(uint8_t const* rgb, unsigned char** buffer, unsigned long* size) {
    if (setjmp(error_.jump)) {
      jpeg_abort_compress(&info_);
      return false;
    }
    jpeg_mem_dest(&info_, buffer, size);
    jpeg_suppress_tables(&info_, TRUE);
    jpeg_start_compress(&info_, FALSE);
    while (info_.next_scanline < kTile) {
      JSAMPROW row = const_cast<JSAMPROW>(rgb + size_t(info_.next_scanline) * kTile * 3);
      jpeg_write_scanlines(&info_, &row, 1);
    }
    jpeg_finish_compress(&info_);
    return true;
  }

  jpeg_compress_struct info_{};
  JpegError error_{};
  unsigned char* tablesBuffer_ = nullptr;
  unsigned long tablesSize_ = 0;
  std::string tables_;
};

/// libtiff's messages for this file only, kept for the exception instead of printed.
int keepTiffMessage(TIFF*, void* userData, char const* module, char const* format, va_list args) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  auto* last = static_cast<std::string*>(userData);
  *last = std::string(module ? module : "libtiff") + ": " + text;
  return 1;
}

int dropTiffWarning(TIFF*, void*, char const*, char const*, va_list) { return 1; }

size_t halve(size_t n) { return (n + 1) / 2; }

class Writer {
 public:
  Writer(std::string const& path, size_t width, size_t height)
      : path_(path), width_(width), height_(height), cells_(width, height) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (!options) throw std::runtime_error("writePyramidTiff: out of memory");
    TIFFOpenOptionsSetErrorHandlerExtR(options, keepTiffMessage, &lastError_);
    TIFFOpenOptionsSetWarningHandlerExtR(options, dropTiffWarning, nullptr);
    tiff_ = TIFFOpenExt(path.c_str(), "w8", options);
    TIFFOpenOptionsFree(options);
    if (!tiff_) fail("cannot create the file");
  }

  ~Writer() {
    if (tiff_) TIFFClose(tiff_);
  }
  Writer(Writer const&) = delete;
  Writer& operator=(Writer const&) = delete;

  void write() {
    size_t w = width_, h = height_;
    for (size_t level = 0;; ++level) {
      writeLevel(level, w, h);
      if (w <= kTile && h <= kTile) break;
      w = halve(w);
      h = halve(h);
    }
    // Every directory is written by now, and libtiff writes without buffering, so closing
    // has nothing left that could fail.
    TIFFClose(tiff_);
    tiff_ = nullptr;
  }

 private:
  [[noreturn]] void fail(std::string const& what) {
    std::string message = "writePyramidTiff: " + what + " ('" + path_ + "')";
    if (!lastError_.empty()) message += ": " + lastError_;
    if (tiff_) {
      TIFFClose(tiff_);
      tiff_ = nullptr;
    }
    std::remove(path_.c_str());
    throw std::runtime_error(message);
  }

  void writeLevel(size_t level, size_t w, size_t h) {
    static uint16_t const kSubsampling = 2;
    float const referenceBlackWhite[6] = {0, 255, 128, 255, 128, 255};
    bool ok = TIFFSetField(tiff_, TIFFTAG_SUBFILETYPE, level == 0 ? 0 : FILETYPE_REDUCEDIMAGE) &&
              TIFFSetField(tiff_, TIFFTAG_IMAGEWIDTH, uint32_t(w)) &&
              TIFFSetField(tiff_, TIFFTAG_IMAGELENGTH, uint32_t(h)) &&
              TIFFSetField(tiff_, TIFFTAG_TILEWIDTH, uint32_t(kTile)) &&
              TIFFSetField(tiff_, TIFFTAG_TILELENGTH, uint32_t(kTile)) &&
              TIFFSetField(tiff_, TIFFTAG_BITSPERSAMPLE, 8) &&
              TIFFSetField(tiff_, TIFFTAG_SAMPLESPERPIXEL, 3) &&
              TIFFSetField(tiff_, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(tiff_, TIFFTAG_COMPRESSION, COMPRESSION_JPEG) &&
              TIFFSetField(tiff_, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR) &&
              TIFFSetField(tiff_, TIFFTAG_YCBCRSUBSAMPLING, kSubsampling, kSubsampling) &&
              TIFFSetField(tiff_, TIFFTAG_REFERENCEBLACKWHITE, referenceBlackWhite) &&
              TIFFSetField(tiff_, TIFFTAG_JPEGTABLES, uint32_t(encoder_.tables().size()),
                           encoder_.tables().data());
    if (!ok) fail("cannot set the tags of level " + std::to_string(level));

    size_t const across = (w + kTile - 1) / kTile, down = (h + kTile - 1) / kTile;
    bool const withinCells = level <= cells_.shift();
    for (size_t ty = 0; ty < down; ++ty) {
      for (size_t tx = 0; tx < across; ++tx) {
        int const texture = Textures::forTile(tx, ty);
        std::string const* stream;
        std::string rendered;
        if (withinCells) {
          // The whole tile lies in one cell, so the tile is one of the shared variants.
          size_t const cell = cells_.cellAt((tx * kTile) << level, (ty * kTile) << level);
          std::string& variant = variants_[cell * kTextures + size_t(texture)];
          if (variant.empty()) variant = encoder_.encode(render(level, tx, ty, texture).data());
          stream = &variant;
        } else {
          rendered = encoder_.encode(render(level, tx, ty, texture).data());
          stream = &rendered;
        }
        auto const index = static_cast<uint32_t>(ty * across + tx);
        auto const size = static_cast<tmsize_t>(stream->size());
        if (TIFFWriteRawTile(tiff_, index, const_cast<char*>(stream->data()), size) != size) {
          fail("cannot write tile " + std::to_string(index) + " of level " + std::to_string(level));
        }
      }
    }
    if (!TIFFWriteDirectory(tiff_)) fail("cannot write level " + std::to_string(level));
  }

  /// The RGB pixels of tile (tx, ty) of `level`: each pixel takes the colour of the cell its
  /// centre falls in at level 0, plus the tile's texture.
  std::vector<uint8_t> render(size_t level, size_t tx, size_t ty, int texture) const {
    std::vector<uint8_t> rgb(kTile * kTile * 3);
    size_t const half = (size_t{1} << level) / 2;
    for (size_t y = 0; y < kTile; ++y) {
      size_t const y0 = ((ty * kTile + y) << level) + half;
      for (size_t x = 0; x < kTile; ++x) {
        size_t const x0 = ((tx * kTile + x) << level) + half;
        Rgb const c = cells_.colour(cells_.cellAt(x0, y0));
        int const shade = textures_.at(texture, x, y);
        uint8_t* const out = &rgb[(y * kTile + x) * 3];
        out[0] = clampByte(c.r + shade);
        out[1] = clampByte(c.g + shade);
        out[2] = clampByte(c.b + shade);
      }
    }
    return rgb;
  }

  std::string path_;
  size_t width_, height_;
  Cells cells_;
  Textures textures_;
  TileEncoder encoder_;
  std::vector<std::string> variants_ = std::vector<std::string>(cells_.count() * kTextures);
  std::string lastError_;
  TIFF* tiff_ = nullptr;
};

}  // namespace

void writePyramidTiff(std::string const& path, size_t width, size_t height) {
  if (width == 0 || height == 0) {
    throw std::runtime_error("writePyramidTiff: the image must have pixels");
  }
  // TIFF stores a level's size in 32 bits.
  if (width > 0xFFFFFFFFu || height > 0xFFFFFFFFu) {
    throw std::runtime_error("writePyramidTiff: at most 4294967295 pixels a side");
  }
  Writer(path, width, height).write();
}

}  // namespace quorvel::serve::testing
