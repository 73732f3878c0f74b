#pragma once
// Where the host layer's pixels come from: a source gives the RGBA8 pixels of any rectangle
// of an image, however large, on demand.
//
// A source may hold its own reduced copies of the image (the levels of a pyramidal file, or
// a generator that renders at any scale); it lists them in nativeLevels(), and the encoder
// starts a new wavelet from such a level instead of reducing the full-resolution pixels.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "quorvel/zoom/geometry.hpp"

namespace quorvel::zoom {

/// A source that cannot be opened or read, with a one-line reason.
class SourceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An image the host layer can read region by region. Thread-safe: read() may be called
/// from many threads at once.
class ImageSource {
 public:
  virtual ~ImageSource() = default;

  /// Size of level 0 in pixels.
  virtual size_t width() const = 0;
  virtual size_t height() const = 0;

  /// The zoom levels this source reads directly, ascending, always starting with 0. Level k
  /// is levelExtent(width(), k) x levelExtent(height(), k) pixels.
  virtual std::vector<size_t> nativeLevels() const { return {0}; }

  /// Writes the RGBA8 pixels of `rect` of native level `level` to `rgba`, rows of
  /// rect.width * 4 bytes packed. `rect` must lie inside the level (std::out_of_range
  /// otherwise); a source that fails to read throws SourceError.
  virtual void read(size_t level, Rect const& rect, uint8_t* rgba) const = 0;

  /// A short description for people: the file name, or what generates the pixels.
  virtual std::string description() const = 0;

 protected:
  /// Throws std::out_of_range unless `level` is native and `rect` lies inside it.
  void checkRead(size_t level, Rect const& rect) const;
};

/// An RGBA8 image held in memory, rows packed (stride 4 * width). Only level 0 is native.
class MemorySource : public ImageSource {
 public:
  /// Takes the pixels; rgba.size() must be 4 * width * height (std::invalid_argument).
  MemorySource(size_t width, size_t height, std::vector<uint8_t> rgba,
               std::string description = "image in memory");

  size_t width() const override { return width_; }
  size_t height() const override { return height_; }
  void read(size_t level, Rect const& rect, uint8_t* rgba) const override;
  std::string description() const override { return description_; }

  uint8_t const* pixels() const { return rgba_.data(); }

 private:
  size_t width_, height_;
  std::vector<uint8_t> rgba_;
  std::string description_;
};

/// A deterministic procedural slide of any size: a light background, stained tissue-like
/// blobs with cell nuclei, thin fibres and rows of label text. Every level is native: a
/// reduced level is rendered at its own scale (each pixel averaged over a few samples of
/// its area), never by reducing level 0, so a 65536 x 65536 slide costs nothing to open and
/// any region of any level costs only its own pixels.
class ProceduralSlide : public ImageSource {
 public:
  /// A slide of width x height pixels (each 1 .. 2^31); `seed` varies the layout.
  explicit ProceduralSlide(size_t width = 65536, size_t height = 65536, uint32_t seed = 1);
  ~ProceduralSlide() override;

  size_t width() const override;
  size_t height() const override;
  std::vector<size_t> nativeLevels() const override;
  void read(size_t level, Rect const& rect, uint8_t* rgba) const override;
  std::string description() const override;

 private:
  struct Scene;
  std::unique_ptr<Scene const> scene_;
};

/// Opens an image file through libvips without decoding it whole: PNG, JPEG, TIFF (striped,
/// tiled, BigTIFF, pyramidal) and the whole-slide formats libvips reads through OpenSlide.
/// The levels of a pyramid become native levels (a level whose size is not the exact
/// reduction of level 0 is read through the nearest finer level). Throws SourceError when
/// the file cannot be opened or is not an image.
std::shared_ptr<ImageSource> openImageFile(std::string const& path);

}  // namespace quorvel::zoom
