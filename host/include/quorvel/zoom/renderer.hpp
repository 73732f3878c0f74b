#pragma once
// Rendering any rectangle of a huge image at any zoom level through the backend.
//
// An Engine owns one backend, its worker pool and tile cache, and the coefficient tile
// store; any number of Renderers (one per image) share it. A Renderer turns
// render(level, rect, display) into one batch per output tile: the coefficient tiles the
// rectangle needs (plus the margins the filters reach) are encoded and uploaded on first
// use, locked while the batch runs and left to the cache's LRU afterwards; the inverse
// wavelet runs only the levels between the transform's top and the level asked for.
//
// Thread safety: Engine and Renderer are thread-safe; any number of threads may render at
// once, each call building its own batches (the backend keeps one batch per host thread).

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/zoom/display.hpp"
#include "quorvel/zoom/encoder.hpp"
#include "quorvel/zoom/geometry.hpp"
#include "quorvel/zoom/image_source.hpp"
#include "quorvel/zoom/pyramid.hpp"

namespace quorvel::zoom {

struct EngineOptions {
  /// Backend worker threads.
  size_t workers = 1;
  /// Bytes of coefficient tiles the cache keeps beyond the tiles in use.
  size_t cacheBytes = size_t{256} << 20;
};

/// Counters of an engine since it was made (all images together).
struct EngineStats {
  size_t blocksEncoded = 0;    // encoder runs (one per block with missing tiles)
  size_t tileHits = 0;         // tile groups found in the cache
  size_t tileMisses = 0;       // tile groups that had to be encoded
  size_t tileEvictions = 0;    // tile groups encoded again after the cache dropped them
  size_t tilesRendered = 0;    // output tiles (batches) rendered
  size_t rendersInFlight = 0;  // render calls running now
  size_t cacheBytes = 0;       // bytes held by the tile cache
  size_t cacheCapacity = 0;    // its capacity in bytes
};

class Engine {
 public:
  explicit Engine(EngineOptions const& options);
  ~Engine();
  Engine(Engine const&) = delete;
  Engine& operator=(Engine const&) = delete;

  EngineStats stats() const;
  size_t workers() const;

  struct Impl;
  Impl& impl() const { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

struct RendererOptions {
  /// Encoder tile (block) edge at each anchor level, a multiple of 2^levels.
  size_t tile = 256;
  /// Wavelet levels per transform (see Pyramid).
  size_t levels = 3;
  /// Largest output tile one batch renders; larger rectangles are cut into such tiles.
  size_t outputTile = 256;
  /// Draw the levels where the plan anchors a transform and the source reads itself from
  /// the source's pixels, whatever the display (CLAHE and linear-light gamma convert them to
  /// YCoCg16 first): the transform of such a level gives back exactly those pixels, and
  /// reading one block of the file, instead of a block with the margins the inverse reaches
  /// into its eight neighbours, is most of the cost of a tile rendered cold. Off, every
  /// level goes through the transform (tests compare the two).
  bool pixelTiles = true;
};

/// Pixels reconstructed and delivered by one renderer (for the margin cost).
struct RenderCounters {
  uint64_t delivered = 0;  // output pixels
  /// Pixels of the level shown reconstructed by the inverse, each channel counting a third
  /// (CLAHE's context needs the luma only).
  uint64_t reconstructed = 0;
  uint64_t samples = 0;  // samples reconstructed at every depth, all channels
};

class Renderer {
 public:
  /// Plans `source` on `engine`; opening reads nothing. Throws std::invalid_argument for
  /// options the image cannot use.
  Renderer(std::shared_ptr<Engine> engine, std::shared_ptr<ImageSource const> source,
           RendererOptions const& options = {});
  ~Renderer();
  Renderer(Renderer const&) = delete;
  Renderer& operator=(Renderer const&) = delete;

  Pyramid const& pyramid() const { return pyramid_; }
  size_t levels() const { return pyramid_.levels(); }
  size_t width(size_t level = 0) const { return pyramid_.width(level); }
  size_t height(size_t level = 0) const { return pyramid_.height(level); }
  ImageSource const& source() const { return *source_; }

  /// Renders `rect` of zoom level `level` (0: full resolution, k: reduced 2^k times) with
  /// `display` into `rgba`: RGBA8, rows `stride` bytes apart (0: 4 * rect.width). The
  /// result does not depend on how a caller cuts a region into rectangles. Throws
  /// std::out_of_range for a level or rectangle outside the image, DisplayError for bad
  /// display parameters, SourceError when the image cannot be read, and the backend's
  /// exceptions when a batch fails.
  void render(size_t level, Rect const& rect, Display const& display, uint8_t* rgba,
              size_t stride = 0) const;
  std::vector<uint8_t> render(size_t level, Rect const& rect, Display const& display) const;

  RenderCounters counters() const;

 private:
  struct Job;
  struct DisplaySteps;
  void renderTile(size_t level, Rect const& rect, Display const& display, Job& job) const;
  // The pixel tiles of the blocks under `area` of a native level, resident and locked in
  // `job`, with a workspace for an area of that size; then drawn into `target`.
  void acquirePixels(size_t level, Rect const& area, Job& job) const;
  void drawPixels(size_t target, size_t level, Rect const& area) const;
  // The inverse transform over `e` (luma) and `s` (chroma) into `job`'s new workspace;
  // returns the targets of the three planes, each with `e`'s origin.
  std::array<size_t, 3> reconstruct(size_t level, Rect const& s, Rect const& e, Job& job) const;
  // The 8-bit display steps after the first, over `s` (the output `r` and its margins).
  void finishDisplay(size_t level, Rect const& r, Rect const& s, Display const& display,
                     DisplaySteps& steps) const;

  std::shared_ptr<Engine> engine_;
  std::shared_ptr<ImageSource const> source_;
  RendererOptions options_;
  Pyramid pyramid_;
  size_t tileBase_;  // first backend tile id of this image
  std::unique_ptr<WaveletEncoder> encoder_;
  mutable std::atomic<uint64_t> delivered_{0}, reconstructed3_{0}, samples_{0};
};

}  // namespace quorvel::zoom
