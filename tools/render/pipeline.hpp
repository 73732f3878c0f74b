#pragma once
// The host's work on one image: encode every tile as the host holds it (YCoCg16 through
// the backend's own colour filter, then the forward wavelet), upload the coefficient tiles
// and render them back through the backend, in waves that fit the tile cache.

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "image_io.hpp"
#include "progress.hpp"
#include "tile_renderer.hpp"

namespace quorvel::tool {

/// A request the program refuses (exit status 2), with a one-line reason.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct RenderOptions {
  size_t tile = 256;
  size_t levels = 3;
  size_t threads = 1;    // backend workers, also the host's encoder and uploader threads
  size_t cacheMb = 256;  // tile cache capacity in MiB
  DisplayOptions display;
};

/// Wall-clock seconds of the stages renderImage runs, summed over its waves.
struct StageTimes {
  double encode = 0, upload = 0, render = 0;
  size_t waves = 0;
  size_t tiles = 0;
};

/// The tile x tile RGBA8 pixels of image tile (tx, ty); pixels past the image's right or
/// bottom edge repeat the last column or row.
std::vector<unsigned char> paddedTile(Image const& image, size_t tx, size_t ty, size_t tile);

/// Encodes, uploads and renders `input`; returns the rendered image of the same size.
/// Throws UsageError when the cache cannot hold a single tile.
Image renderImage(Image const& input, RenderOptions const& options, Progress& progress,
                  StageTimes& times);

}  // namespace quorvel::tool
