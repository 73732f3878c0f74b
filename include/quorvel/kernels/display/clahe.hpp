#pragma once
// Contrast-limited adaptive histogram equalisation of the first channel of 3 x int16 images.
//
// The image is cut into square tiles; each tile gets a clipped histogram (the excess above
// the clip limit spread evenly over the bins) turned into a cumulative mapping, and every
// pixel is mapped bilinearly between the mappings of the four tiles whose centres surround
// it. The interpolation is done in exact integer arithmetic: the weighted sum of the four
// mappings is an integer num, and floor(num / (X * Y) + 0.5) = (2 num + X Y) / (2 X Y).

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// Where CLAHE::equalize() also writes the rows it equalises: row r in [firstRow, firstRow +
/// rows), pixels [c0, width) with all their channels, goes to pixels + (r - firstRow) *
/// stride samples. Writing each row while it is still in registers spares a copy pass over
/// the whole image.
struct ClaheRowCopy {
  int16_t* pixels = nullptr;
  size_t stride = 0;  ///< samples from one target row to the next
  size_t firstRow = 0;
  size_t rows = 0;
  /// Write with streaming stores where the rows allow: for targets too large to stay cached.
  bool stream = false;
  int16_t* target(size_t r) const {
    return r - firstRow < rows ? pixels + (r - firstRow) * stride : nullptr;
  }
};

/// The equalisation worker of one filter run. Samples are int16 values of interleaved pixels:
/// the sample of pixel (row r, column c) is samples[(r * stride + c) * channels]; the other
/// channels are never touched. Not thread-safe; one object per call.
class QUORVEL_API CLAHE {
 public:
  CLAHE() = default;
  virtual ~CLAHE();

  /// Sets the members for an image of height x width pixels of three channels: 40 x 40
  /// tiles, 256 bins over the grey levels 0..255, and the tile grid, bin table and mapping
  /// storage that follow from them. Without `sizeMappings` the mapping storage is left
  /// empty, for equalize(), which only ever holds two tile rows of it.
  void configure(size_t imageHeight, size_t imageWidth, double limit, bool sizeMappings = true);

  /// Computes one mapping per tile from the samples (tile rows outer, columns inner).
  /// Requires configure() (or members set to the same effect).
  void computeMappings(int16_t const* samples);

  /// Replaces the first channel of the pixels in rows [r0, r0 + rowCount) and columns
  /// [c0, c0 + colCount), cropped to height x width, by the bilinear mix of the mappings.
  virtual void interpolate(int16_t* samples, size_t r0, size_t c0, size_t rowCount,
                           size_t colCount);

  /// computeMappings() followed by interpolate(samples, r0, c0, height - r0, width - c0),
  /// run one band of tile rows at a time so that each band is equalised while it is still in
  /// cache. After each band `rowsDone(n)` is told that rows [0, n) hold their final values;
  /// the equalised rows that `copy` names are also written there. Only two tile rows of
  /// mappings are kept at a time: afterwards `mappings` holds the last two (tile row t in
  /// slot t % 2), unless the image has a single tile row.
  /// Requires configure() with histHeight == height and histWidth == width.
  void equalize(int16_t* samples, size_t r0, size_t c0, std::function<void(size_t)> const& rowsDone,
                ClaheRowCopy const& copy = {});

  /// Clips `histogram` (numBins bins of a tile of `pixelCount` pixels) and spreads the
  /// excess over the bins. Returns the limit used.
  uint64_t clipHistogram(uint32_t* histogram, size_t pixelCount) const;
  /// The clip limit of a tile of `pixelCount` pixels: clipLimit times the mean count per
  /// bin, truncated, and at least 1.
  uint64_t clipLimitFor(size_t pixelCount) const;

  /// The bin table index of a sample: 0 below minValue, s - minValue up to maxValue -
  /// minValue, maxValue - minValue above.
  size_t sampleIndex(int16_t sample) const {
    int64_t const range = int64_t{maxValue} - minValue;
    if (sample < minValue) return 0;
    if (sample <= range) return static_cast<size_t>(sample - int64_t{minValue});
    return static_cast<size_t>(range);
  }

  size_t tileRows = 0;  ///< ceil(height / tileSize)
  size_t tileCols = 0;  ///< ceil(width / tileSize)
  int32_t minValue = 0;
  int32_t maxValue = 255;
  size_t height = 0;  ///< extent of the interpolation
  size_t width = 0;
  size_t histHeight = 0;  ///< extent of the histograms
  size_t histWidth = 0;
  size_t stride = 0;  ///< pixels per row
  size_t channels = 3;
  size_t tileSize = 40;
  size_t numBins = 256;
  double clipLimit = 1.0;
  /// Bin of each sample index (see sampleIndex): i * numBins / (maxValue - minValue + 1).
  std::vector<int32_t> binLut;
  /// tileRows x tileCols x numBins, tile-row-major: histograms, then mappings.
  std::vector<uint32_t> mappings;

 private:
  uint32_t* tileMapping(size_t tileRow, size_t tileCol) {
    size_t const slot = mappingSlots_ == 0 ? tileRow : tileRow % mappingSlots_;
    return mappings.data() + (slot * tileCols + tileCol) * numBins;
  }
  // Whether the members describe the grid that the vector steps serve (see configure()).
  bool standardGrid() const;
  void countTileRow(int16_t const* samples, size_t tileRow);
  // Interpolates rows [r0, r1), columns [c0, c1), one block row (rows between two tile
  // centres) at a time; prepareColumns(c0, c1) comes first.
  void prepareColumns(size_t c0, size_t c1);
  void interpolateRows(int16_t* samples, size_t r0, size_t c0, size_t r1, size_t c1,
                       ClaheRowCopy const& copy);
  void interpolateRowsGeneral(int16_t* samples, size_t r0, size_t c0, size_t r1, size_t c1,
                              ClaheRowCopy const& copy);
  // The mappings of a tile row as bytes, or null if one of them exceeds a byte.
  uint8_t const* tileRowBytes(size_t tileRow);

  static constexpr size_t kNone = ~size_t{0};
  // standardGrid(), decided by each public step for the private ones it calls.
  bool standard_ = false;
  // Tile rows of mappings held (tile row t in slot t % mappingSlots_); 0: all of them.
  size_t mappingSlots_ = 0;
  // The bins of the last two tile rows counted on the standard grid (two slots of tileSize
  // rows of histWidth bytes) and which tile row each slot holds: the banded equalisation
  // interpolates the same rows soon after and reads them back.
  std::vector<uint8_t> bandBins_;
  std::array<size_t, 2> binsBand_{kNone, kNone};
  // The working storage of the standard grid, kept with the object so that a reused one
  // allocates nothing: four interleaved 16-bit count sets of one tile; the weights of the
  // right-hand tiles in the columns prepared; the mappings of two tile rows as bytes (tile
  // row t in slot t % 2), narrowed once for the two block rows that read them, with the tile
  // row each slot holds and whether its mappings fit; the bins and looked-up planes of a row.
  std::vector<uint16_t> counts_;
  std::vector<int32_t> weights_;
  std::vector<uint8_t> tileBytes_;
  std::array<size_t, 2> bytesFor_{kNone, kNone};
  std::array<bool, 2> bytesFit_{false, false};
  std::vector<uint8_t> rowScratch_;
};

/// "FilterCLAHE": equalises the first channel of a 3 x int16 source in place (sources of
/// more than 40 x 40 pixels only) and copies the destination rectangle out of it; channels
/// 2 and 3 pass through bit for bit.
class QUORVEL_API SoftwareFilterCLAHE : public SoftwareFilter {
 public:
  explicit SoftwareFilterCLAHE(Filter const& description) : SoftwareFilter(description) {}

  /// Runs the equalisation with the clip limit of FilterClaheParams (raised to 1.0 at single
  /// precision) and writes outputRects[0]. Modifies inputs[0]. Stateless between calls.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;

  /// The clip limit in effect for `requested`: rounded to single precision, then raised to
  /// 1.0 when below it (a NaN stays NaN).
  static double effectiveClipLimit(double requested);
};

}  // namespace quorvel
