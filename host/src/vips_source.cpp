// Image files through libvips.
//
// Every level is a lazy libvips pipeline (loader -> sRGB -> 8 bits -> RGBA -> exact level
// size) built once at open; read() asks a region of it for the rectangle. libvips allows one
// image to be shared by many threads as long as each thread uses its own region, so every
// read() makes its own region and no lock of ours guards the pixels.
//
// Memory: loaders that can read any region of a file (tiled TIFF, OpenSlide) decode only the
// tiles a read touches, into caches of libvips and OpenSlide that are bounded. Formats that
// can only be decoded from the top (PNG, JPEG, striped TIFF) are decoded once by libvips
// into a temporary image, in memory when it is under libvips' disc threshold (100 MB unless
// VIPS_DISC_THRESHOLD says otherwise) and in a temporary file otherwise. That decode happens
// at open, because open probes one pixel of every level so that a damaged file fails there
// rather than in the middle of an encode.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "quorvel/zoom/image_source.hpp"
#include "vips_support.hpp"

namespace quorvel::zoom {
namespace {

using vips::ImagePtr;

enum class Format { kTiff, kOpenSlide, kOther };

// Decoded tiles kept per level of a tiled file: 48 RGBA tiles of 256 pixels (12 MiB) cover the
// tiles around a viewer's row of blocks, so each tile of the file is decoded about once as
// the viewer's requests sweep over it.
constexpr int kCacheTile = 256;
constexpr int kCacheTiles = 48;

/// Loads one stored image (a page, a sub-IFD or a slide level) for random access, failing
/// on truncated data instead of filling it with black. `option` may be null.
ImagePtr load(std::string const& loader, std::string const& path, char const* option = nullptr,
              int value = 0) {
  VipsImage* out = nullptr;
  if (vips_call(loader.c_str(), path.c_str(), &out, "access", VIPS_ACCESS_RANDOM, "fail_on",
                VIPS_FAIL_ON_TRUNCATED, option, value, nullptr)) {
    return nullptr;
  }
  return ImagePtr(out);
}

/// Replaces `image` by op(image, &out, ...); false (with the libvips error set) on failure.
template <typename Op, typename... Args>
bool apply(ImagePtr& image, Op op, Args... args) {
  VipsImage* out = nullptr;
  if (op(image.get(), &out, args..., nullptr)) return false;
  image.reset(out);
  return true;
}

/// The RGBA8 pipeline of `image`, exactly width x height pixels: a stored level one pixel
/// short of the exact reduction repeats its last column or row, one pixel over is cropped.
ImagePtr toRgba8(ImagePtr image, size_t width, size_t height) {
  if (image->Coding == VIPS_CODING_RAD && !apply(image, vips_rad2float)) return nullptr;
  if (!vips_colourspace_issupported(image.get())) {
    // Untagged samples (MULTIBAND): read them as grey or RGB by their band count.
    bool const wide = image->BandFmt == VIPS_FORMAT_USHORT;
    auto const kind = image->Bands < 3
                          ? (wide ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_B_W)
                          : (wide ? VIPS_INTERPRETATION_RGB16 : VIPS_INTERPRETATION_sRGB);
    if (!apply(image, vips_copy, "interpretation", kind)) return nullptr;
  }
  if (!apply(image, vips_colourspace, VIPS_INTERPRETATION_sRGB)) return nullptr;
  // sRGB that was already sRGB keeps its sample format; shifting keeps the high byte.
  if (image->BandFmt != VIPS_FORMAT_UCHAR &&
      !apply(image, vips_cast, VIPS_FORMAT_UCHAR, "shift", TRUE)) {
    return nullptr;
  }
  if (image->Bands == 3 && !apply(image, vips_bandjoin_const1, 255.0)) return nullptr;
  if (image->Bands > 4 && !apply(image, vips_extract_band, 0, "n", 4)) return nullptr;
  if (image->Bands != 4) {
    vips_error("quorvel", "%d bands after conversion to sRGB", image->Bands);
    return nullptr;
  }
  if ((static_cast<size_t>(image->Xsize) != width || static_cast<size_t>(image->Ysize) != height) &&
      !apply(image, vips_embed, 0, 0, static_cast<int>(width), static_cast<int>(height), "extend",
             VIPS_EXTEND_COPY)) {
    return nullptr;
  }
  return image;
}

/// The zoom level a stored image of w x h pixels with the given reduction of a w0 x h0
/// level 0 stands for, or 0 when it is none: the nearest power of two 2^k to the reduction,
/// provided the size is within one pixel of levelExtent(w0, k) x levelExtent(h0, k). The
/// size decides, so a level reduced 3 times, say, is never taken for one reduced 2 or 4
/// times.
size_t levelFor(size_t w0, size_t h0, size_t w, size_t h, double downsample) {
  if (!(downsample > 1.0)) return 0;
  double const k = std::round(std::log2(downsample));
  if (k < 1 || k > 62) return 0;
  auto const level = static_cast<size_t>(k);
  auto const near = [](size_t a, size_t b) { return a + 1 >= b && b + 1 >= a; };
  return near(w, levelExtent(w0, level)) && near(h, levelExtent(h0, level)) ? level : 0;
}

/// An OpenSlide property as text, empty when absent.
std::string property(VipsImage* image, std::string const& name) {
  if (vips_image_get_typeof(image, name.c_str()) == 0) return {};
  char* value = nullptr;
  if (vips_image_get_as_string(image, name.c_str(), &value)) return {};
  std::string text = value;
  g_free(value);
  return text;
}

class VipsSource final : public ImageSource {
 public:
  explicit VipsSource(std::string path) : path_(std::move(path)) {
    // vips_foreign_find_load takes a trailing "[...]" as load options; an empty pair keeps
    // such a file name whole.
    std::string const query = !path_.empty() && path_.back() == ']' ? path_ + "[]" : path_;
    char const* found = vips_foreign_find_load(query.c_str());
    if (!found) fail(vips::takeError());
    std::string const loader = found;
    Format const format = loader == "VipsForeignLoadTiffFile"        ? Format::kTiff
                          : loader == "VipsForeignLoadOpenslideFile" ? Format::kOpenSlide
                                                                     : Format::kOther;

    ImagePtr base =
        format == Format::kOpenSlide ? load(loader, path_, "level", 0) : load(loader, path_);
    if (!base) fail(vips::takeError());
    if (base->Xsize <= 0 || base->Ysize <= 0) fail("the image has no pixels");
    width_ = static_cast<size_t>(base->Xsize);
    height_ = static_cast<size_t>(base->Ysize);

    std::vector<std::pair<size_t, ImagePtr>> stored;  // zoom level, loaded image
    auto const consider = [&](ImagePtr image, double downsample) {
      size_t const level = levelFor(width_, height_, static_cast<size_t>(image->Xsize),
                                    static_cast<size_t>(image->Ysize), downsample);
      bool const taken = std::any_of(stored.begin(), stored.end(),
                                     [&](auto const& s) { return s.first == level; });
      if (level != 0 && !taken) stored.emplace_back(level, std::move(image));
    };
    auto const ratio = [&](VipsImage* image) {
      return width_ >= height_ ? double(width_) / image->Xsize : double(height_) / image->Ysize;
    };
    if (format == Format::kTiff) {
      // A pyramid is either the sub-IFDs of the first page or the following pages. Pages
      // that libvips cannot load (an exotic label or macro image) are not levels.
      int const subifds = vips_image_get_n_subifds(base.get());
      int const pages = subifds > 0 ? subifds : std::min(vips_image_get_n_pages(base.get()), 256);
      for (int i = subifds > 0 ? 0 : 1; i < pages; ++i) {
        ImagePtr image = load(loader, path_, subifds > 0 ? "subifd" : "page", i);
        if (!image) {
          vips::takeError();
          continue;
        }
        double const downsample = ratio(image.get());
        consider(std::move(image), downsample);
      }
    } else if (format == Format::kOpenSlide) {
      // The properties are C-locale text, whatever the locale of the host program.
      auto const number = [&](std::string const& name) {
        return g_ascii_strtod(property(base.get(), name).c_str(), nullptr);
      };
      auto const count = static_cast<int>(number("openslide.level-count"));
      for (int i = 1; i < count; ++i) {
        std::string const prefix = "openslide.level[" + std::to_string(i) + "].";
        double const downsample = number(prefix + "downsample");
        auto const w = static_cast<size_t>(number(prefix + "width"));
        auto const h = static_cast<size_t>(number(prefix + "height"));
        if (levelFor(width_, height_, w, h, downsample) == 0) continue;
        ImagePtr image = load(loader, path_, "level", i);
        if (!image) fail(vips::takeError());
        consider(std::move(image), downsample);
      }
    }
    stored.emplace_back(0, std::move(base));
    std::sort(stored.begin(), stored.end(),
              [](auto const& a, auto const& b) { return a.first < b.first; });

    for (auto& [level, image] : stored) {
      ImagePtr rgba =
          toRgba8(std::move(image), levelExtent(width_, level), levelExtent(height_, level));
      if (!rgba) fail(vips::takeError());
      // For the levels made through the transform (those between the file's own) the
      // encoder reads each block with margins that reach a few pixels into every
      // neighbouring tile of the file: without a cache of decoded tiles, one block of a
      // tiled file costs nine tile decodes instead of about one and a half when a viewer
      // asks for a region. Files decoded whole need none.
      if (format != Format::kOther &&
          !apply(rgba, vips_tilecache, "tile_width", kCacheTile, "tile_height", kCacheTile,
                 "max_tiles", kCacheTiles, "access", VIPS_ACCESS_RANDOM, "threaded", TRUE)) {
        fail(vips::takeError());
      }
      levels_.push_back(level);
      images_.push_back(std::move(rgba));
      failures_.emplace_back();
    }
    for (size_t i = 0; i < levels_.size(); ++i) {
      VipsImage* const image = images_[i].get();
      uint8_t pixel[4];
      if (!vips::readPixels(image, {size_t(image->Xsize) - 1, size_t(image->Ysize) - 1, 1, 1},
                            pixel)) {
        fail(vips::takeError());
      }
    }
  }

  size_t width() const override { return width_; }
  size_t height() const override { return height_; }
  std::vector<size_t> nativeLevels() const override { return levels_; }
  std::string description() const override { return path_; }

  void read(size_t level, Rect const& rect, uint8_t* rgba) const override {
    checkRead(level, rect);
    auto const index = size_t(std::find(levels_.begin(), levels_.end(), level) - levels_.begin());
    std::string failure;
    {
      std::lock_guard<std::mutex> lock(failuresMutex_);
      failure = failures_[index];
    }
    if (failure.empty() && !vips::readPixels(images_[index].get(), rect, rgba)) {
      failure = vips::takeError();
      std::lock_guard<std::mutex> lock(failuresMutex_);
      if (failures_[index].empty()) failures_[index] = failure;
    }
    if (!failure.empty()) {
      throw SourceError("cannot read " + rect.str() + " of level " + std::to_string(level) +
                        " of '" + path_ + "': " + failure);
    }
  }

 private:
  [[noreturn]] void fail(std::string const& why) const {
    throw SourceError("cannot open '" + path_ + "': " + why);
  }

  std::string path_;
  size_t width_ = 0, height_ = 0;
  std::vector<size_t> levels_;    // ascending, levels_[0] == 0
  std::vector<ImagePtr> images_;  // the RGBA8 pipeline of each of levels_
  // Why each of levels_ failed, empty while it has not. A level fails for good after its
  // first error: libvips' tile cache keeps black tiles in place of the ones that failed (and
  // of the rest of that request) and serves them later without an error. A read running at
  // the same moment as the failing one may still get such black tiles.
  mutable std::mutex failuresMutex_;
  mutable std::vector<std::string> failures_;
};

}  // namespace

std::shared_ptr<ImageSource> openImageFile(std::string const& path) {
  if (std::string const& failure = vips::start(); !failure.empty()) {
    throw SourceError("cannot open '" + path + "': " + failure);
  }
  return std::make_shared<VipsSource>(path);
}

}  // namespace quorvel::zoom
