#include "quorvel/kernels/display/clahe.hpp"

#include <hwy/cache_control.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "filters/kernel_frame.hpp"
#include "kernels/display/clahe_rows.hpp"

namespace quorvel {
namespace clahe_detail {

void interpolateRow40Scalar(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                            uint32_t const* tables, int32_t const* colBase,
                            int32_t const* weightLeft, int32_t const* weightRight, int32_t weightUp,
                            int32_t weightDown) {
  for (size_t i = 0; i < count; ++i) {
    int16_t& sample = samples[i * channels];
    uint32_t const t = tables[colBase[i] + std::clamp<int32_t>(sample, 0, maxIndex)];
    auto const wl = static_cast<uint32_t>(weightLeft[i]),
               wr = static_cast<uint32_t>(weightRight[i]);
    uint32_t const top = (t & 255) * wl + (t >> 8 & 255) * wr;
    uint32_t const bottom = (t >> 16 & 255) * wl + (t >> 24) * wr;
    sample = static_cast<int16_t>(divideRounded1600(top * static_cast<uint32_t>(weightUp) +
                                                    bottom * static_cast<uint32_t>(weightDown)));
  }
}

void interpolateRowBytesScalar(int16_t* samples, size_t count, size_t firstColumn,
                               uint8_t const* tables, uint16_t const* weightLeft,
                               uint16_t const* weightRight, int32_t weightUp, int32_t weightDown) {
  size_t const firstBlock = (firstColumn + 20) / 40;
  for (size_t i = 0; i < count; ++i) {
    int16_t& sample = samples[i * 3];
    uint8_t const* t = tables + ((firstColumn + i + 20) / 40 - firstBlock) * 1024;
    size_t const v = static_cast<size_t>(std::clamp<int16_t>(sample, 0, 255));
    uint32_t const wl = weightLeft[i], wr = weightRight[i];
    uint32_t const top = t[v] * wl + t[256 + v] * wr;
    uint32_t const bottom = t[512 + v] * wl + t[768 + v] * wr;
    sample = static_cast<int16_t>(divideRounded1600(top * static_cast<uint32_t>(weightUp) +
                                                    bottom * static_cast<uint32_t>(weightDown)));
  }
}

void extractBinsScalar(int16_t const* samples, uint8_t* bins, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    bins[i] = static_cast<uint8_t>(std::clamp<int16_t>(samples[3 * i], 0, 255));
  }
}

}  // namespace clahe_detail

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
  binsBand_ = {kNoBand, kNoBand};
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
  uint32_t bits = 0;
  for (size_t b = 0; b < numBins; ++b) bits |= histogram[b];
  if (limit < (uint32_t{1} << 31) && bits < (uint32_t{1} << 22) && numBins <= 256) {
    // Counts below 2^22 in at most 256 bins (every real tile): the excess, the shares and
    // the new counts fit in int32, so both passes run on 32-bit lanes that the compiler
    // vectorises. The results are those of the general passes below.
    excess = clipCounts32(histogram, static_cast<int32_t>(limit));
    if (excess == 0) return limit;
  } else {
    for (size_t b = 0; b < numBins; ++b) {
      if (histogram[b] > limit) excess += static_cast<int64_t>(histogram[b] - limit);
    }
    if (excess == 0) return limit;
    excess = clipCounts64(histogram, limit, excess);
  }
  spreadExcess(histogram, limit, excess);
  return limit;
}

int64_t CLAHE::clipCounts32(uint32_t* histogram, int32_t limit) const {
  auto* h = reinterpret_cast<int32_t*>(histogram);  // counts below 2^22
  int32_t const excess = clahe_detail::excessOver(h, numBins, limit);
  if (excess == 0) return 0;
  int32_t const inc = excess / static_cast<int32_t>(numBins);
  return excess - clahe_detail::cutAndShare(h, numBins, limit, inc);
}

int64_t CLAHE::clipCounts64(uint32_t* histogram, uint64_t limit, int64_t excess) const {
  // From here on some bin exceeds the limit, so it is below 2^32 and signed math is safe.
  int64_t const limitS = static_cast<int64_t>(limit);
  int64_t const inc = excess / static_cast<int64_t>(numBins);
  int64_t const upper = limitS - inc;
  // Cut every bin to the limit and hand each bin an equal share; bins already close to the
  // limit are only filled up to it.
  // (Written without branches: the three cases depend on the data.)
  for (size_t b = 0; b < numBins; ++b) {
    int64_t const h = histogram[b];
    int64_t const over = -static_cast<int64_t>(h > limitS);
    int64_t const near = -static_cast<int64_t>(h > upper);  // includes `over`
    excess -= (((limitS - h) & near) | (inc & ~near)) & ~over;
    histogram[b] = static_cast<uint32_t>((limitS & near) | ((h + inc) & ~near));
  }
  return excess;
}

void CLAHE::spreadExcess(uint32_t* histogram, uint64_t limit, int64_t excess) const {
  // Spread what is left one count at a time over evenly spaced bins below the limit, until
  // nothing is left or a whole round finds no room.
  // The step is only recomputed when the excess changed, and bins take their share without
  // branching on their count.
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

bool CLAHE::fastBins() const {
  if (channels != 3 || tileSize != 40 || numBins != 256 || minValue != 0 || maxValue != 255 ||
      binLut.size() != 256) {
    return false;
  }
  for (size_t i = 0; i < 256; ++i) {
    if (binLut[i] != static_cast<int32_t>(i)) return false;
  }
  return true;
}

void CLAHE::countTileRow(int16_t const* samples, size_t tr, std::vector<uint32_t>& counts,
                         std::vector<uint16_t>& fastCounts) {
  int32_t const* const bins = binLut.data();
  auto const bin = [this, bins](int16_t sample) {
    return static_cast<size_t>(bins[sampleIndex(sample)]);
  };
  auto const isFull = [this](size_t r, size_t c) {
    return std::min(r * tileSize + tileSize, histHeight) == r * tileSize + tileSize &&
           std::min(c * tileSize + tileSize, histWidth) == c * tileSize + tileSize;
  };
  binsBand_[tr % 2] = kNoBand;
  size_t const rBegin = std::min(tr * tileSize, histHeight);
  size_t const rEnd = std::min(rBegin + tileSize, histHeight);
  // Count the tiles that keep their own histogram: partial tiles at the right or bottom
  // edge reuse the mapping of a neighbour.
  size_t countedCols = 0;
  while (countedCols < tileCols &&
         (isFull(tr, countedCols) || !((countedCols + 1 == tileCols && tileCols > 1) ||
                                       (tr + 1 == tileRows && tileRows > 1)))) {
    ++countedCols;
  }
  size_t const cEndAll = std::min(countedCols * tileSize, histWidth);
  bool const fast = fastBins();
  size_t const bandRows = rEnd - rBegin;
  uint64_t const fullLimit = clipLimitFor(tileSize * tileSize);
  bool const fetchAhead = kernel::streamTarget(histHeight * stride * channels * sizeof(int16_t));
  uint8_t* rowBins = nullptr;
  if (fast) {
    // The usual grid: the bins of the band's pixel rows are extracted in one vector pass per
    // row; each tile is then counted on its own (below) into four interleaved 16-bit
    // histograms (at most 40 * 10 counts each) that stay in the first-level cache, so runs
    // of equal samples do not serialise on one counter.
    // The bins cover the whole width and stay in one of two slots, where the interpolation
    // of the same rows finds them again.
    fastCounts.assign(4 * 256, 0);  // zeroed again by each fold
    bandBins_.resize(2 * tileSize * histWidth);
    rowBins = bandBins_.data() + tr % 2 * tileSize * histWidth;
    for (size_t r = rBegin; r < rEnd; ++r) {
      clahe_detail::extractBins(samples + r * stride * channels, rowBins + (r - rBegin) * histWidth,
                                histWidth);
    }
    binsBand_[tr % 2] = tr;
  } else {
    // Any other grid: two interleaved sets (even and odd pixels) per tile.
    counts.assign(2 * tileCols * numBins, 0u);
    for (size_t r = rBegin; r < rEnd; ++r) {
      int16_t const* row = samples + r * stride * channels;
      for (size_t cBegin = 0; cBegin < cEndAll; cBegin += tileSize) {
        uint32_t* even = counts.data() + 2 * (cBegin / tileSize) * numBins;
        uint32_t* odd = even + numBins;
        size_t const cEnd = std::min(cBegin + tileSize, cEndAll);
        int16_t const* p = row + cBegin * channels;
        size_t c = cBegin;
        for (; c + 2 <= cEnd; c += 2, p += 2 * channels) {
          ++even[bin(p[0])];
          ++odd[bin(p[channels])];
        }
        if (c < cEnd) ++even[bin(*p)];
      }
    }
  }

  for (size_t tc = 0; tc < tileCols; ++tc) {
    size_t const cBegin = std::min(tc * tileSize, histWidth);
    size_t const cEnd = std::min(cBegin + tileSize, histWidth);
    bool const full = isFull(tr, tc);
    uint32_t* mapping = tileMapping(tr, tc);
    if (!full && tc + 1 == tileCols && tileCols > 1) {
      std::copy_n(mapping - numBins, numBins, mapping);
      continue;
    }
    if (!full && tr + 1 == tileRows && tileRows > 1) {
      std::copy_n(tileMapping(tr - 1, tc), numBins, mapping);
      continue;
    }
    if (fast) {
      uint16_t* h = fastCounts.data();
      size_t const n = cEnd - cBegin;
      // Counting runs from the first-level cache and leaves the memory bus idle: meanwhile,
      // the same tile's pixels in the next band are fetched, a few lines per row counted,
      // so that band's extraction finds them in cache (about 5% of a 4096 x 4096 call).
      // An image that stays in the caches is left to the hardware prefetcher: there the
      // prefetches only cost time.
      size_t const nextRows = fetchAhead ? std::min(rEnd + tileSize, histHeight) - rEnd : 0;
      size_t const tileBytes = n * channels * sizeof(int16_t);
      for (size_t r = 0; r < bandRows; ++r) {
        if (r < nextRows) {
          auto const* next =
              reinterpret_cast<char const*>(samples + ((rEnd + r) * stride + cBegin) * channels);
          for (size_t b = 0; b < tileBytes; b += 64) hwy::Prefetch(next + b);
        }
        uint8_t const* p = rowBins + r * histWidth + cBegin;
        size_t c = 0;
        for (; c + 4 <= n; c += 4, p += 4) {
          ++h[p[0]];
          ++h[256 + p[1]];
          ++h[512 + p[2]];
          ++h[768 + p[3]];
        }
        for (; c < n; ++c, ++p) ++h[*p];
      }
    }
    size_t const pixels = (rEnd - rBegin) * (cEnd - cBegin);
    if (fast) {
      // The count sets are folded and clipped in one 16-bit step (a tile has at most 1600
      // pixels here), at the same limit as clipHistogram's; then the rest is spread.
      uint64_t const limit = full ? fullLimit : clipLimitFor(pixels);
      int64_t const left = clahe_detail::foldAndClip(
          fastCounts.data(), mapping, static_cast<int32_t>(std::min<uint64_t>(limit, 32767)));
      if (left > 0) spreadExcess(mapping, limit, left);
    } else {
      uint32_t const* even = counts.data() + 2 * tc * numBins;
      for (size_t b = 0; b < numBins; ++b) mapping[b] = even[b] + even[numBins + b];
      clipHistogram(mapping, pixels);
    }
    if (!full) continue;  // a lone partial tile keeps its clipped histogram
    // The cumulative histogram scaled to the grey range, truncated.
    double const scale =
        static_cast<double>(int64_t{maxValue} - minValue) / static_cast<double>(pixels);
    if (numBins == 256 && minValue == 0 && maxValue >= 0 && pixels <= (size_t{1} << 22)) {
      // Clipping never adds counts: the running sums stay within 32 bits.
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
  if (mappings.size() != tileRows * tileCols * numBins) {
    mappings.assign(tileRows * tileCols * numBins, 0);
  }
  // The histograms of one tile row are counted together, pixel row by pixel row, so the
  // samples stream through memory in order.
  std::vector<uint32_t> counts;
  std::vector<uint16_t> fastCounts;
  for (size_t tr = 0; tr < tileRows; ++tr) countTileRow(samples, tr, counts, fastCounts);
}

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

}  // namespace

// The column set-up of the packed interpolation, shared by all rows of one run.
struct CLAHE::PackedGrid {
  bool usable = false;  // 40-pixel grid starting at level 0
  size_t kFirst = 0, kLast = 0;
  bool bytes = false;  // byte-plane tables (256 levels, byte permutes available)
  std::vector<int32_t> colBase, weightLeft, weightRight;
  std::vector<uint32_t> tables;  // packed words, for the gather form
  std::vector<uint16_t> weightLeft16, weightRight16;
  std::vector<uint8_t> byteTables, scratch;  // byte planes, for the byte form
  // Byte copies of two tile rows of mappings (identity bins), tile row t in slot t % 2:
  // each mapping is narrowed once, not once for each of the four blocks that read it.
  std::vector<uint8_t> rowBytes;
  std::array<size_t, 2> rowBytesFor{kNoBand, kNoBand};
  size_t builtFor = std::numeric_limits<size_t>::max();
  std::vector<int8_t> rowIsBytes;  // per tile row: -1 unknown, else all mappings < 256
};

void CLAHE::prepareInterpolation(PackedGrid& grid, size_t c0, size_t c1) const {
  constexpr size_t kTile = 40, kHalf = 20;
  grid.usable = tileSize == kTile && minValue == 0;
  grid.rowIsBytes.assign(tileRows, -1);
  grid.builtFor = std::numeric_limits<size_t>::max();
  grid.rowBytesFor = {kNoBand, kNoBand};
  if (!grid.usable) return;
  size_t const levels = binLut.size();
  grid.kFirst = (c0 + kHalf) / kTile;
  grid.kLast = (c1 - 1 + kHalf) / kTile;
  size_t const count = c1 - c0;
  // Per column: which block table to read and the horizontal weights, scaled to sum to 40
  // (a half block counts double) so that every block divides by 40 * 40.
  grid.colBase.resize(count);
  grid.weightLeft.resize(count);
  grid.weightRight.resize(count);
  for (size_t c = c0; c < c1; ++c) {
    size_t const k = (c + kHalf) / kTile;
    Block const cols = blockOf(k, kTile, tileCols);
    auto const scale = static_cast<int32_t>(kTile / cols.size);
    auto const x = static_cast<int32_t>(c - cols.start);
    grid.colBase[c - c0] = static_cast<int32_t>((k - grid.kFirst) * levels);
    grid.weightLeft[c - c0] = (static_cast<int32_t>(cols.size) - x) * scale;
    grid.weightRight[c - c0] = x * scale;
  }
  size_t const blocks = grid.kLast - grid.kFirst + 1;
  grid.bytes = levels == 256 && channels == 3 && clahe_detail::byteTablesPreferred();
  if (grid.bytes) {
    grid.weightLeft16.assign(grid.weightLeft.begin(), grid.weightLeft.end());
    grid.weightRight16.assign(grid.weightRight.begin(), grid.weightRight.end());
    grid.byteTables.resize(blocks * 4 * 256);
    grid.scratch.resize(5 * count);
  } else {
    grid.tables.resize(blocks * levels);
  }
}

void CLAHE::interpolateRows(PackedGrid& grid, int16_t* samples, size_t r0, size_t c0, size_t r1,
                            size_t c1, ClaheRowCopy const& copy) {
  size_t const half = tileSize / 2;
  auto const isBytes = [&](size_t tr) {
    if (grid.rowIsBytes[tr] < 0) {
      // An OR over the row rather than a search: it vectorises, and nearly every row passes.
      grid.rowIsBytes[tr] = clahe_detail::orAll(tileMapping(tr, 0), tileCols * numBins) < 256;
    }
    return grid.rowIsBytes[tr] == 1;
  };
  // One block row at a time: byte mappings on the standard grid take the packed, vectorised
  // form; both forms give the same samples.
  for (size_t r = r0; r < r1;) {
    size_t const i = (r + half) / tileSize;
    Block const rows = blockOf(i, tileSize, tileRows);
    size_t const end = std::min(r1, rows.start + rows.size);
    if (grid.usable && isBytes(rows.tileBefore) && isBytes(rows.tileAfter)) {
      interpolatePacked(grid, samples, r, c0, end, c1, copy);
    } else {
      interpolateWide(samples, r, c0, end, c1, copy);
    }
    r = end;
  }
}

void CLAHE::interpolate(int16_t* samples, size_t r0, size_t c0, size_t rowCount, size_t colCount) {
  if (r0 >= height || c0 >= width || tileRows == 0 || tileCols == 0 || tileSize == 0 ||
      mappings.size() < tileRows * tileCols * numBins) {
    return;
  }
  size_t const r1 = r0 + std::min(rowCount, height - r0);
  size_t const c1 = c0 + std::min(colCount, width - c0);
  if (r1 == r0 || c1 == c0) return;
  bool const binsValid = std::all_of(binLut.begin(), binLut.end(), [&](int32_t b) {
    return b >= 0 && static_cast<size_t>(b) < numBins;
  });
  if (!binsValid || binLut.size() != static_cast<size_t>(int64_t{maxValue} - minValue + 1)) return;
  // The samples may have changed since they were counted.
  binsBand_ = {kNoBand, kNoBand};
  PackedGrid grid;
  prepareInterpolation(grid, c0, c1);
  interpolateRows(grid, samples, r0, c0, r1, c1, ClaheRowCopy{});
}

void CLAHE::equalize(int16_t* samples, size_t r0, size_t c0,
                     std::function<void(size_t)> const& rowsDone, ClaheRowCopy const& copy) {
  bool const binsValid = std::all_of(binLut.begin(), binLut.end(), [&](int32_t b) {
    return b >= 0 && static_cast<size_t>(b) < numBins;
  });
  if (histHeight != height || histWidth != width || r0 >= height || c0 >= width || tileRows == 0 ||
      tileCols == 0 || tileSize == 0 || !binsValid ||
      binLut.size() != static_cast<size_t>(int64_t{maxValue} - minValue + 1)) {
    computeMappings(samples);
    interpolate(samples, r0, c0, height - std::min(r0, height), width - std::min(c0, width));
    for (size_t r = r0; r < height && c0 < width; ++r) copyRow(copy, samples, r, c0, width);
    rowsDone(height);
    return;
  }
  // A tile row's mappings are last read by the block row that ends at the centre of the
  // tile row below it, which is interpolated before that row is counted: two tile rows of
  // mappings, a few hundred kilobytes that stay in cache, do for any height.
  mappingSlots_ = std::min<size_t>(tileRows, 2);
  mappings.resize(mappingSlots_ * tileCols * numBins);
  PackedGrid grid;
  prepareInterpolation(grid, c0, width);
  std::vector<uint32_t> counts;
  std::vector<uint16_t> fastCounts;
  size_t next = r0;  // first row still to be interpolated
  for (size_t tr = 0; tr < tileRows; ++tr) {
    // Tile row tr completes the mappings of every row up to the centre of its tiles; those
    // rows do not overlap the samples of the tile rows still to be counted.
    countTileRow(samples, tr, counts, fastCounts);
    size_t const ready =
        tr + 1 == tileRows ? height : std::min(height, (tr + 1) * tileSize - tileSize / 2);
    if (next < ready) {
      interpolateRows(grid, samples, next, c0, ready, width, copy);
      next = ready;
    }
    rowsDone(ready);
  }
  // The slots no longer hold what interpolate() expects of the member.
  mappingSlots_ = 0;
}

void CLAHE::interpolatePacked(PackedGrid& grid, int16_t* samples, size_t r0, size_t c0, size_t r1,
                              size_t c1, ClaheRowCopy const& copy) {
  constexpr size_t kTile = 40, kHalf = 20;
  size_t const levels = binLut.size();
  size_t const count = c1 - c0;
  bool const identity = fastBins();
  auto const bytesOfTileRow = [&](size_t tr) {
    size_t const slot = tr % 2, size = tileCols * 256;
    if (grid.rowBytesFor[slot] != tr) {
      grid.rowBytes.resize(2 * size);
      clahe_detail::narrowToBytes(tileMapping(tr, 0), grid.rowBytes.data() + slot * size, size);
      grid.rowBytesFor[slot] = tr;
    }
    return grid.rowBytes.data() + slot * size;
  };
  // Per column block of the current block row: the four mappings packed into one word per
  // sample index (UL | UR << 8 | LL << 16 | LR << 24), so a pixel needs a single lookup.
  for (size_t r = r0; r < r1; ++r) {
    size_t const i = (r + kHalf) / kTile;
    Block const rows = blockOf(i, kTile, tileRows);
    if (i != grid.builtFor) {
      uint8_t const* above = nullptr;
      uint8_t const* below = nullptr;
      if (grid.bytes && identity) {
        above = bytesOfTileRow(rows.tileBefore);
        below = bytesOfTileRow(rows.tileAfter);
      }
      for (size_t k = grid.kFirst; k <= grid.kLast; ++k) {
        Block const cols = blockOf(k, kTile, tileCols);
        uint32_t const* ul = tileMapping(rows.tileBefore, cols.tileBefore);
        uint32_t const* ur = tileMapping(rows.tileBefore, cols.tileAfter);
        uint32_t const* ll = tileMapping(rows.tileAfter, cols.tileBefore);
        uint32_t const* lr = tileMapping(rows.tileAfter, cols.tileAfter);
        if (grid.bytes && identity) {
          uint8_t* planes = grid.byteTables.data() + (k - grid.kFirst) * 1024;
          std::memcpy(planes, above + cols.tileBefore * 256, 256);
          std::memcpy(planes + 256, above + cols.tileAfter * 256, 256);
          std::memcpy(planes + 512, below + cols.tileBefore * 256, 256);
          std::memcpy(planes + 768, below + cols.tileAfter * 256, 256);
          continue;
        }
        if (grid.bytes) {
          uint8_t* planes = grid.byteTables.data() + (k - grid.kFirst) * 1024;
          for (uint32_t const* m : {ul, ur, ll, lr}) {
            for (size_t v = 0; v < 256; ++v) {
              planes[v] = static_cast<uint8_t>(m[static_cast<size_t>(binLut[v])]);
            }
            planes += 256;
          }
          continue;
        }
        uint32_t* table = grid.tables.data() + (k - grid.kFirst) * levels;
        if (identity) {
          for (size_t v = 0; v < 256; ++v)
            table[v] = ul[v] | ur[v] << 8 | ll[v] << 16 | lr[v] << 24;
        } else {
          for (size_t v = 0; v < levels; ++v) {
            auto const b = static_cast<size_t>(binLut[v]);
            table[v] = ul[b] | ur[b] << 8 | ll[b] << 16 | lr[b] << 24;
          }
        }
      }
      grid.builtFor = i;
    }
    auto const scale = static_cast<int32_t>(kTile / rows.size);
    auto const y = static_cast<int32_t>(r - rows.start);
    int32_t const weightUp = (static_cast<int32_t>(rows.size) - y) * scale;
    if (grid.bytes) {
      // The bins extracted when this row was counted, if its slot still holds them.
      uint8_t const* bins = nullptr;
      size_t const t = r / kTile;
      if (histWidth == width && binsBand_[t % 2] == t) {
        bins = bandBins_.data() + ((t % 2) * kTile + r - t * kTile) * histWidth + c0;
      }
      clahe_detail::interpolateRowBytes(samples + (r * stride + c0) * channels, bins, count, c0,
                                        grid.byteTables.data(), grid.weightLeft16.data(),
                                        grid.weightRight16.data(), weightUp, y * scale,
                                        grid.scratch.data(), copy.target(r), copy.stream);
      continue;
    }
    clahe_detail::interpolateRow40(samples + (r * stride + c0) * channels, count, channels,
                                   static_cast<int32_t>(levels - 1), grid.tables.data(),
                                   grid.colBase.data(), grid.weightLeft.data(),
                                   grid.weightRight.data(), weightUp, y * scale);
    copyRow(copy, samples, r, c0, c1);
  }
}

void CLAHE::interpolateWide(int16_t* samples, size_t r0, size_t c0, size_t r1, size_t c1,
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
    copyRow(copy, samples, r, c0, c1);
  }
}

void CLAHE::copyRow(ClaheRowCopy const& copy, int16_t const* samples, size_t r, size_t c0,
                    size_t c1) const {
  if (int16_t* target = copy.target(r)) {
    std::copy_n(samples + (r * stride + c0) * channels, (c1 - c0) * channels, target);
  }
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

namespace {
constexpr size_t kReusedWidth = 16384;
}  // namespace

void SoftwareFilterCLAHE::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                std::vector<std::vector<int>> const& inputRects,
                                std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                std::vector<std::vector<int>> const& outputRects,
                                SingleFilterParameters const& params) {
  double const limit = effectiveClipLimit(params.as<FilterClaheParams>().clipLimit);
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
    // The working rows and mappings (a few hundred kilobytes at 4096 wide) are kept per
    // worker thread across calls: allocating them afresh cost page faults and zeroing on
    // every call. Very wide sources get their own, so that no thread holds megabytes.
    thread_local CLAHE reused;
    CLAHE own;
    CLAHE& clahe = sourceW <= kReusedWidth ? reused : own;
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
