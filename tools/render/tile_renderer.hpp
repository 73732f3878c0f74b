#pragma once
// The draw sequence of one output tile: coefficient tiles blitted into band targets, the
// inverse wavelet per channel and level, interleave, colour transform and the display
// filters chosen on the command line, all queued as one batch for one worker.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <quorvel/render.hpp>
#include <vector>

#include "band_atlas.hpp"
#include "wavelet_encoder.hpp"

namespace quorvel::tool {

/// One mask rectangle in image coordinates, bounds inclusive.
struct MaskRect {
  uint32_t xmin, xmax, ymin, ymax;
};

/// Display filters applied after reconstruction, in this order: CLAHE on the luma, the
/// colour transform (through the 16-bit sRGB table in linear gamma mode), black/white/gamma
/// on 8-bit sRGB, the colour matrix, sharpening, the mask.
struct DisplayOptions {
  enum class GammaMode { kSrgb8, kLinear16 };
  /// Black/white/gamma: "FilterBlackWhiteGamma8" (levels on the 12-bit linear scale) or
  /// "FilterLinear16TosRGB8" (levels on the 8-bit input scale).
  bool gamma = false;
  GammaMode gammaMode = GammaMode::kSrgb8;
  double gammaValue = 1.0;
  size_t black = 0;
  size_t white = 4095;
  std::optional<double> sharpenGain;
  std::optional<double> claheLimit;
  /// Matrix coefficients as real numbers (1 = identity), m[3i + j] from input channel i to
  /// output channel j, and the global scale.
  std::optional<std::array<double, 9>> matrix;
  double matrixScale = 1.0;
  /// Mask rectangles; pixels outside all of them become opaque black.
  std::optional<std::vector<MaskRect>> mask;

  /// True when any filter changes the reconstructed pixels.
  bool any() const { return gamma || sharpenGain || claheLimit || matrix || mask.has_value(); }
};

/// Q10 coefficients of DisplayOptions::matrix, as "Filter3x3Matrix8" takes them.
std::array<int32_t, 9> matrixQ10(std::array<double, 9> const& m);

/// Tile id of band plane `plane` (0: A, 1: B of BandAtlas) of image tile `tile`.
inline size_t atlasTileId(size_t tile, size_t plane) { return 2 * tile + plane; }

/// Renders image tiles from their coefficient tiles on a fixed set of slots, each slot a
/// private set of render targets so that several tiles can be in flight on different
/// workers. Finished tiles land in one of two strip targets (a row of tiles each), which
/// the caller reads back straight into its image. Use from one thread.
class TileRenderer {
 public:
  /// Instantiates the filters and creates `slots` sets of targets and two strips of
  /// `stripWidth` x tile pixels in `instance`.
  TileRenderer(std::shared_ptr<RenderBackendInstance> instance, WaveletLayout const& layout,
               DisplayOptions const& display, size_t slots, size_t stripWidth);
  /// Waits for every queued tile, then erases the targets.
  ~TileRenderer();
  TileRenderer(TileRenderer const&) = delete;
  TileRenderer& operator=(TileRenderer const&) = delete;

  size_t slots() const { return slots_.size(); }

  /// Queues the whole draw sequence of image tile `tile` (top-left corner at image pixel
  /// (x0, y0)) on `slot`, ending in strip `strip` at column x0, and hands it to a worker.
  /// Call waitSlot(slot) first if the slot was used before.
  void submit(size_t slot, size_t tile, size_t x0, size_t y0, size_t strip);

  /// Waits until the slot's last tile no longer uses the slot's targets.
  void waitSlot(size_t slot);

  /// Waits for every tile queued on strip `strip`, then copies its top `height` rows of
  /// `width` RGBA8 pixels to `rgba` (rows packed).
  void readStrip(size_t strip, size_t width, size_t height, uint8_t* rgba);

 private:
  struct Slot {
    size_t bandsLow, bandsHigh;      // planes A and B of the band atlas
    size_t columnsLow, columnsHigh;  // vertical-pass outputs, inputs of the horizontal pass
    size_t planes;                   // the three reconstructed channels, stacked
    size_t ycocg, ycocgEqualised, rgb16, rgbaA, rgbaB, padded, masked;
    size_t fence;  // written last, so a ready fence means the whole batch is done
    bool used;
  };

  void inverseWavelet(Slot const& s);
  void display(Slot& s, size_t x0, size_t y0, size_t strip);
  size_t target(std::vector<size_t> const& size, size_t bits, bool isSigned);

  std::shared_ptr<RenderBackendInstance> instance_;
  WaveletLayout layout_;
  DisplayOptions display_;
  BandAtlas atlas_;
  size_t tile_;
  size_t columnsW_ = 0, columnsH_ = 0;

  Filter blit16_, blit8_, vertical_, horizontal_, interleave_, toRgba_, toRgb16_, linearGamma_,
      srgbGamma_, matrix_, sharpen_, clahe_, mask_;
  FilterLinear16TosRGB8Params linearGammaParams_;
  FilterBlackWhiteGamma8Params srgbGammaParams_;
  Filter3x3MatrixParams matrixParams_;
  FilterSharpness8Params sharpenParams_;
  FilterClaheParams claheParams_;
  std::vector<unsigned char> envelopesId_{'m', 'a', 's', 'k'};

  std::vector<Slot> slots_;
  std::array<size_t, 2> strips_{};
  std::vector<size_t> targets_;
};

}  // namespace quorvel::tool
