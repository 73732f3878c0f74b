#include "quorvel/kernels/display/clahe.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "filters/kernel_frame.hpp"
#include "kernels/display/clahe_rows.hpp"
#include "kernels/worker_scratch.hpp"

namespace quorvel {
namespace {

// One block of the interpolation grid along one axis: blocks are bounded by tile centres,
// block 0 being the half block at the image edge.
struct Block {
  size_t start;       // first pixel of the uncropped block
  uint32_t size;      // uncropped size
  size_t tileBefore;  // tile above / left
  size_t tileAfter;   // tile below / right
};

Block blockOf(size_t index, size_t tileSize, size_t tiles) {
  size_t const half = tileSize / 2;
  if (index == 0) return {0, static_cast<uint32_t>(tileSize - half), 0, 0};
  size_t const last = tiles - 1;
  size_t const before = std::min(index - 1, last), after = std::min(index, last);
  return {index * tileSize - half, static_cast<uint32_t>(tileSize), before, after};
}

// Whether the bin table has one entry per grey level, each a bin that exists: members set
// by hand may describe something else, which the interpolation leaves alone.
bool binTableValid(CLAHE const& c) {
  return c.binLut.size() == static_cast<size_t>(int64_t{c.maxValue} - c.minValue + 1) &&
         std::all_of(c.binLut.begin(), c.binLut.end(),
                     [&](int32_t b) { return b >= 0 && static_cast<size_t>(b) < c.numBins; });
}

}  // namespace

void clahe_detail::spreadExcess(uint32_t* histogram, size_t numBins, uint64_t limit,
                                int64_t excess) {
  // The step is only recomputed when the excess changed (a round that finds the bins full
  // would divide once per start), and bins take their share without branching on their count.
  int64_t stepFor = -1;
  size_t step = 1;
  while (excess > 0) {
    int64_t const before = excess;
    for (size_t start = 0; start < numBins && excess > 0; ++start) {
      if (excess != stepFor) {
        step = std::max<size_t>(1, numBins / static_cast<size_t>(excess));
        stepFor = excess;
      }
      for (size_t b = start; b < numBins && excess > 0; b += step) {
        uint32_t const share = histogram[b] < limit ? 1u : 0u;
        histogram[b] += share;
        excess -= share;
      }
    }
    if (excess == before) break;
  }
}

CLAHE::~CLAHE() = default;

void CLAHE::configure(size_t imageHeight, size_t imageWidth, double limit, bool sizeMappings) {
  tileSize = 40;
  numBins = 256;
  minValue = 0;
  maxValue = 255;
  channels = 3;
  height = histHeight = imageHeight;
  width = histWidth = imageWidth;
  stride = imageWidth;
  clipLimit = limit;
  tileRows = (imageHeight + tileSize - 1) / tileSize;
  tileCols = (imageWidth + tileSize - 1) / tileSize;
  size_t const levels = static_cast<size_t>(int64_t{maxValue} - minValue + 1);
  binLut.resize(levels);
  for (size_t i = 0; i < levels; ++i) binLut[i] = static_cast<int32_t>(i * numBins / levels);
  mappingSlots_ = 0;
  if (sizeMappings) {
    mappings.assign(tileRows * tileCols * numBins, 0);
  } else {
    mappings.clear();
  }
}

uint64_t CLAHE::clipLimitFor(size_t pixelCount) const {
  // The conversion to an integer saturates; a NaN limit (kept on purpose) means no clipping.
  double const exact = static_cast<double>(pixelCount) * clipLimit / static_cast<double>(numBins);
  uint64_t limit = std::numeric_limits<uint64_t>::max();
  if (exact < 1.0) {
    limit = 0;
  } else if (exact < 18446744073709551615.0) {
    limit = static_cast<uint64_t>(exact);
  }
  return limit == 0 ? 1 : limit;
}

uint64_t CLAHE::clipHistogram(uint32_t* histogram, size_t pixelCount) const {
  uint64_t const limit = clipLimitFor(pixelCount);
  int64_t excess = 0;
  for (size_t b = 0; b < numBins; ++b) {
    if (histogram[b] > limit) excess += static_cast<int64_t>(histogram[b] - limit);
  }
  if (excess == 0) return limit;
  // Some bin exceeds the limit, so it is below 2^32 and signed arithmetic is safe. Every bin
  // is cut to the limit and given an equal share; bins close to the limit are only filled up
  // to it.
  auto const limitS = static_cast<int64_t>(limit);
  int64_t const inc = excess / static_cast<int64_t>(numBins), upper = limitS - inc;
  for (size_t b = 0; b < numBins; ++b) {
    int64_t const h = histogram[b];
    if (h <= limitS) excess -= h > upper ? limitS - h : inc;
    histogram[b] = static_cast<uint32_t>(h > upper ? limitS : h + inc);
  }
  clahe_detail::spreadExcess(histogram, numBins, limit, excess);
  return limit;
}

bool CLAHE::standardGrid() const {
  if (channels != 3 || tileSize != 40 || numBins != 256 || minValue != 0 || maxValue != 255 ||
      binLut.size() != 256) {
    return false;
  }
  for (size_t i = 0; i < 256; ++i) {
    if (binLut[i] != static_cast<int32_t>(i)) return false;
  }
  return true;
}

void CLAHE::countTileRow(int16_t const* samples, size_t tr) {
  size_t const rBegin = std::min(tr * tileSize, histHeight);
  size_t const rEnd = std::min(rBegin + tileSize, histHeight);
  uint8_t* band = nullptr;
  binsBand_[tr % 2] = kNone;
  if (standard_) {
    // The bins of the band's rows in one vector pass per row; each tile is then counted on
    // its own into four interleaved 16-bit histograms (at most 40 * 10 counts each) that stay
    // in the first-level cache, so runs of equal samples do not serialise on one counter.
    bandBins_.resize(2 * tileSize * histWidth);
    band = bandBins_.data() + tr % 2 * tileSize * histWidth;
    for (size_t r = rBegin; r < rEnd; ++r) {
      clahe_detail::extractBins(samples + r * stride * channels, band + (r - rBegin) * histWidth,
                                histWidth);
    }
    binsBand_[tr % 2] = tr;
    counts_.assign(4 * 256, 0);  // zeroed again by each fold
  }
  for (size_t tc = 0; tc < tileCols; ++tc) {
    size_t const cBegin = std::min(tc * tileSize, histWidth);
    size_t const cEnd = std::min(cBegin + tileSize, histWidth);
    bool const full = rEnd - rBegin == tileSize && cEnd - cBegin == tileSize;
    uint32_t* mapping = tileMapping(tr, tc);
    // Partial tiles at the right or bottom edge reuse the mapping of a neighbour.
    if (!full && tc + 1 == tileCols && tileCols > 1) {
      std::copy_n(mapping - numBins, numBins, mapping);
      continue;
    }
    if (!full && tr + 1 == tileRows && tileRows > 1) {
      std::copy_n(tileMapping(tr - 1, tc), numBins, mapping);
      continue;
    }
    size_t const pixels = (rEnd - rBegin) * (cEnd - cBegin);
    if (standard_) {
      uint16_t* h = counts_.data();
      for (size_t r = 0; r < rEnd - rBegin; ++r) {
        uint8_t const* p = band + r * histWidth + cBegin;
        size_t c = 0, n = cEnd - cBegin;
        for (; c + 4 <= n; c += 4) {
          ++h[p[c]];
          ++h[256 + p[c + 1]];
          ++h[512 + p[c + 2]];
          ++h[768 + p[c + 3]];
        }
        for (; c < n; ++c) ++h[p[c]];
      }
      // Folded and clipped at clipHistogram's limit, then the rest of the excess spread.
      uint64_t const limit = clipLimitFor(pixels);
      int64_t const left = clahe_detail::foldAndClip(
          counts_.data(), mapping, static_cast<int32_t>(std::min<uint64_t>(limit, 32767)));
      clahe_detail::spreadExcess(mapping, numBins, limit, left);
    } else {
      std::fill_n(mapping, numBins, 0);
      for (size_t r = rBegin; r < rEnd; ++r) {
        int16_t const* row = samples + r * stride * channels;
        for (size_t c = cBegin; c < cEnd; ++c) ++mapping[binLut[sampleIndex(row[c * channels])]];
      }
      clipHistogram(mapping, pixels);
    }
    if (!full) continue;  // a lone partial tile keeps its clipped histogram
    // The cumulative histogram scaled to the grey range, truncated.
    double const scale =
        static_cast<double>(int64_t{maxValue} - minValue) / static_cast<double>(pixels);
    if (standard_) {
      clahe_detail::cumulativeLevels(mapping, scale, static_cast<uint32_t>(maxValue));
      continue;
    }
    uint64_t sum = 0;
    for (size_t b = 0; b < numBins; ++b) {
      sum += mapping[b];
      auto const level = static_cast<int64_t>(static_cast<double>(sum) * scale + minValue);
      mapping[b] = static_cast<uint32_t>(std::min<int64_t>(maxValue, level));
    }
  }
}

void CLAHE::computeMappings(int16_t const* samples) {
  mappingSlots_ = 0;
  standard_ = standardGrid();
  if (mappings.size() != tileRows * tileCols * numBins) {
    mappings.assign(tileRows * tileCols * numBins, 0);
  }
  for (size_t tr = 0; tr < tileRows; ++tr) countTileRow(samples, tr);
}

void CLAHE::prepareColumns(size_t c0, size_t c1) {
  bytesFor_ = {kNone, kNone};
  if (!standard_) return;
  // Per column the weight of the tiles to the right, scaled so that the weights of a pixel
  // sum to 40 (a half block counts double) and every block divides by 40 * 40.
  size_t const count = c1 - c0;
  weights_.resize(count);
  for (size_t c = c0; c < c1; ++c) {
    Block const cols = blockOf((c + 20) / 40, 40, tileCols);
    weights_[c - c0] = static_cast<int32_t>((c - cols.start) * (40 / cols.size));
  }
  rowScratch_.resize(5 * count);
}

uint8_t const* CLAHE::tileRowBytes(size_t tr) {
  size_t const slot = tr % 2, size = tileCols * 256;
  if (bytesFor_[slot] != tr) {
    tileBytes_.resize(2 * size);
    uint32_t const* m = tileMapping(tr, 0);
    uint8_t* bytes = tileBytes_.data() + slot * size;
    uint32_t bits = 0;
    for (size_t i = 0; i < size; ++i) {
      bits |= m[i];
      bytes[i] = static_cast<uint8_t>(m[i]);
    }
    bytesFor_[slot] = tr;
    bytesFit_[slot] = bits < 256;
  }
  return bytesFit_[slot] ? tileBytes_.data() + slot * size : nullptr;
}

void CLAHE::interpolateRows(int16_t* samples, size_t r0, size_t c0, size_t r1, size_t c1,
                            ClaheRowCopy const& copy) {
  for (size_t r = r0; r < r1;) {
    size_t const i = (r + tileSize / 2) / tileSize;
    Block const rows = blockOf(i, tileSize, tileRows);
    size_t const end = std::min(r1, rows.start + rows.size);
    // Mappings of more than a byte (only a lone partial tile's histogram, or mappings set
    // by hand) take the general path.
    uint8_t const* above = standard_ ? tileRowBytes(rows.tileBefore) : nullptr;
    uint8_t const* below = standard_ ? tileRowBytes(rows.tileAfter) : nullptr;
    if (above == nullptr || below == nullptr) {
      interpolateRowsGeneral(samples, r, c0, end, c1, copy);
      r = end;
      continue;
    }
    for (; r < end; ++r) {
      // The bins extracted when this row was counted, if its slot still holds them.
      uint8_t const* bins = nullptr;
      size_t const t = r / 40;
      if (histWidth == width && binsBand_[t % 2] == t) {
        bins = bandBins_.data() + ((t % 2) * 40 + r - t * 40) * histWidth + c0;
      }
      clahe_detail::interpolateRow(samples + (r * stride + c0) * 3, bins, c1 - c0, c0, tileCols,
                                   above, below, weights_.data(),
                                   static_cast<int32_t>((r - rows.start) * (40 / rows.size)),
                                   rowScratch_.data(), copy.target(r), copy.stream);
    }
  }
}

void CLAHE::interpolateRowsGeneral(int16_t* samples, size_t r0, size_t c0, size_t r1, size_t c1,
                                   ClaheRowCopy const& copy) {
  size_t const half = tileSize / 2;
  for (size_t r = r0; r < r1; ++r) {
    Block const rows = blockOf((r + half) / tileSize, tileSize, tileRows);
    uint64_t const y = r - rows.start, Y = rows.size;
    int16_t* row = samples + r * stride * channels;
    for (size_t c = c0; c < c1; ++c) {
      Block const cols = blockOf((c + half) / tileSize, tileSize, tileCols);
      uint64_t const x = c - cols.start, X = cols.size;
      int16_t& sample = row[c * channels];
      auto const b = static_cast<size_t>(binLut[sampleIndex(sample)]);
      uint64_t const ul = tileMapping(rows.tileBefore, cols.tileBefore)[b];
      uint64_t const ur = tileMapping(rows.tileBefore, cols.tileAfter)[b];
      uint64_t const ll = tileMapping(rows.tileAfter, cols.tileBefore)[b];
      uint64_t const lr = tileMapping(rows.tileAfter, cols.tileAfter)[b];
      uint64_t const num = (ul * (X - x) + ur * x) * (Y - y) + (ll * (X - x) + lr * x) * y;
      // Stored as 16 bits, as the rounded value of the mix.
      sample = static_cast<int16_t>(static_cast<uint16_t>((2 * num + X * Y) / (2 * X * Y)));
    }
    if (int16_t* target = copy.target(r)) {
      std::copy_n(row + c0 * channels, (c1 - c0) * channels, target);
    }
  }
}

void CLAHE::interpolate(int16_t* samples, size_t r0, size_t c0, size_t rowCount, size_t colCount) {
  if (r0 >= height || c0 >= width || tileRows == 0 || tileCols == 0 || tileSize == 0 ||
      mappings.size() < tileRows * tileCols * numBins) {
    return;
  }
  size_t const r1 = r0 + std::min(rowCount, height - r0);
  size_t const c1 = c0 + std::min(colCount, width - c0);
  if (r1 == r0 || c1 == c0 || !binTableValid(*this)) return;
  // The samples may have changed since they were counted.
  binsBand_ = {kNone, kNone};
  standard_ = standardGrid();
  prepareColumns(c0, c1);
  interpolateRows(samples, r0, c0, r1, c1, ClaheRowCopy{});
}

void CLAHE::equalize(int16_t* samples, size_t r0, size_t c0,
                     std::function<void(size_t)> const& rowsDone, ClaheRowCopy const& copy) {
  if (histHeight != height || histWidth != width || r0 >= height || c0 >= width || tileRows == 0 ||
      tileCols == 0 || tileSize == 0 || !binTableValid(*this)) {
    computeMappings(samples);
    interpolate(samples, r0, c0, height - std::min(r0, height), width - std::min(c0, width));
    for (size_t r = r0; r < height && c0 < width; ++r) {
      if (int16_t* target = copy.target(r)) {
        std::copy_n(samples + (r * stride + c0) * channels, (width - c0) * channels, target);
      }
    }
    rowsDone(height);
    return;
  }
  // A tile row's mappings are last read by the block row that ends at the centre of the
  // tile row below it, which is interpolated before that row is counted: two tile rows of
  // mappings, a few hundred kilobytes that stay in cache, do for any height.
  mappingSlots_ = std::min<size_t>(tileRows, 2);
  mappings.resize(mappingSlots_ * tileCols * numBins);
  standard_ = standardGrid();
  prepareColumns(c0, width);
  size_t next = r0;  // first row still to be interpolated
  for (size_t tr = 0; tr < tileRows; ++tr) {
    // Tile row tr completes the mappings of every row up to the centre of its tiles; those
    // rows do not overlap the samples of the tile rows still to be counted.
    countTileRow(samples, tr);
    size_t const ready =
        tr + 1 == tileRows ? height : std::min(height, (tr + 1) * tileSize - tileSize / 2);
    if (next < ready) {
      interpolateRows(samples, next, c0, ready, width, copy);
      next = ready;
    }
    rowsDone(ready);
  }
  // The slots no longer hold what interpolate() expects of the member.
  mappingSlots_ = 0;
}

double SoftwareFilterCLAHE::effectiveClipLimit(double requested) {
  // Narrowing a double beyond the float range is undefined: spell out the overflow to inf.
  float narrowed = 0.0f;
  if (std::isnan(requested)) {
    narrowed = std::numeric_limits<float>::quiet_NaN();
  } else if (std::fabs(requested) > static_cast<double>(std::numeric_limits<float>::max())) {
    narrowed = requested > 0 ? std::numeric_limits<float>::infinity()
                             : -std::numeric_limits<float>::infinity();
  } else {
    narrowed = static_cast<float>(requested);
  }
  if (1.0f > narrowed) narrowed = 1.0f;
  return static_cast<double>(narrowed);
}

void SoftwareFilterCLAHE::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                std::vector<std::vector<int>> const& inputRects,
                                std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                std::vector<std::vector<int>> const& outputRects,
                                SingleFilterParameters const& params) {
  CLAHE clahe;
  clahe_detail::applyClahe(clahe, inputs, inputRects, outputs, outputRects, params);
}

void clahe_detail::applyClahe(CLAHE& clahe, std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                              std::vector<std::vector<int>> const& inputRects,
                              std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                              std::vector<std::vector<int>> const& outputRects,
                              SingleFilterParameters const& params) {
  double const limit =
      SoftwareFilterCLAHE::effectiveClipLimit(params.as<FilterClaheParams>().clipLimit);
  auto& source = kernel::typed<std::array<int16_t, 3>>(inputs, 0);
  auto& target = kernel::typed<std::array<int16_t, 3>>(outputs, 0);
  std::vector<int> in = kernel::rectAt(inputRects, 0);
  std::vector<int> out = kernel::rectAt(outputRects, 0);
  SoftwareFilter::getValidRects(in, source.rect(), out, target.rect());

  size_t const sourceW = source.width(), sourceH = source.height();
  int16_t* samples = reinterpret_cast<int16_t*>(source.data());

  // Copy the destination rectangle out of the source: destination pixel (out.x + i,
  // out.y + j) comes from source pixel (in.x + i, in.y + j), i.e. from the flat source index
  // (in.y + j) * width + in.x + i. Rows whose start index is negative are skipped, and a row
  // is cut where the source ends. copyRows(n) copies the rows whose source lies in the first
  // n source rows.
  auto const* src = source.data();
  auto* dst = target.data();
  int64_t const total = static_cast<int64_t>(sourceW * sourceH);
  int64_t j = 0;
  bool copying = true;
  auto copyRows = [&](size_t finalRows) {
    int64_t const finalEnd = static_cast<int64_t>(finalRows * sourceW);
    for (; copying && j < out[3]; ++j) {
      int64_t const offset = (in[1] + j) * static_cast<int64_t>(sourceW) + in[0];
      if (offset < 0) continue;
      int64_t const count = std::min<int64_t>(out[2], total - offset);
      if (count <= 0) {
        copying = false;
        break;
      }
      if (offset + count > finalEnd) break;
      std::memmove(dst + (out[1] + j) * static_cast<int64_t>(target.width()) + out[0], src + offset,
                   static_cast<size_t>(count) * sizeof(*src));
    }
  };

  if (sourceH > 40 && sourceW > 40) {
    clahe.configure(sourceH, sourceW, limit, false);
    // A destination that starts a tile or more into the source (or before it: the unsigned
    // difference wraps) skips equalising the first tile row / column.
    auto skip = [](int destination, int source) -> size_t {
      auto const difference =
          static_cast<uint32_t>(static_cast<uint64_t>(std::abs(int64_t{destination}) - source));
      return difference >= 40 ? 40 : 0;
    };
    size_t const c0 = skip(out[0], in[0]), r0 = skip(out[1], in[1]);
    // Each band is copied out as soon as it is final, while it is still in cache, unless the
    // target shares memory with the source still being equalised.
    auto const* srcBytes = reinterpret_cast<char const*>(src);
    auto const* dstBytes = reinterpret_cast<char const*>(dst);
    size_t const srcSize = static_cast<size_t>(total) * sizeof(*src);
    size_t const dstSize = target.width() * target.height() * sizeof(*dst);
    bool const overlap = std::less<char const*>()(srcBytes, dstBytes + dstSize) &&
                         std::less<char const*>()(dstBytes, srcBytes + srcSize);
    if (!overlap && in[0] == static_cast<int64_t>(c0) &&
        static_cast<int64_t>(out[2]) == static_cast<int64_t>(sourceW - c0)) {
      // Each destination row is the whole equalised span of one source row: the rows
      // above r0 are final already, and the equalisation writes every later row to the
      // destination as it finishes it, from its registers.
      copyRows(r0);
      ClaheRowCopy copy;
      int64_t const firstRow = in[1] + j;
      if (copying && j < out[3] && firstRow >= 0 && firstRow < static_cast<int64_t>(sourceH)) {
        copy.pixels = reinterpret_cast<int16_t*>(
            dst + (out[1] + j) * static_cast<int64_t>(target.width()) + out[0]);
        copy.stride = 3 * target.width();
        copy.firstRow = static_cast<size_t>(firstRow);
        copy.rows = static_cast<size_t>(
            std::min<int64_t>(out[3] - j, static_cast<int64_t>(sourceH) - firstRow));
        copy.stream = kernel::streamTarget(copy.rows * copy.stride * sizeof(int16_t));
      }
      clahe.equalize(
          samples, r0, c0, [](size_t) {}, copy);
      return;
    }
    clahe.equalize(samples, r0, c0, [&](size_t rows) {
      if (!overlap) copyRows(rows);
    });
  }
  copyRows(sourceH);
}

}  // namespace quorvel
