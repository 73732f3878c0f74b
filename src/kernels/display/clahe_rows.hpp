#pragma once
// The row and histogram steps of CLAHE, vectorised with scalar twins for the tests. Private
// to the library: they are the kernel's building blocks, not part of its interface.

#include <cstddef>
#include <cstdint>

namespace quorvel::clahe_detail {

/// floor(num / 1600 + 0.5) = (num + 800) / 1600 for num <= 255 * 1600, as two shifts and one
/// multiply: floor(floor(n / 64) / 25) = floor(n / 1600), and (m * 5243) >> 17 = m / 25 for
/// m < 43690.
inline uint32_t divideRounded1600(uint32_t num) { return ((num + 800) >> 6) * 5243 >> 17; }

/// One row of the 40-pixel-tile interpolation with byte mappings. Sample i is
/// samples[i * channels] and becomes the mix of the packed word
/// tables[colBase[i] + clamp(sample, 0, maxIndex)] (UL | UR << 8 | LL << 16 | LR << 24) with
/// the horizontal weights weightLeft[i], weightRight[i] and the vertical weights weightUp,
/// weightDown, all scaled so that each pair sums to 40; the result is (num + 800) / 1600.
/// Vectorised; equal to the scalar form.
void interpolateRow40(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                      uint32_t const* tables, int32_t const* colBase, int32_t const* weightLeft,
                      int32_t const* weightRight, int32_t weightUp, int32_t weightDown);
void interpolateRow40Scalar(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                            uint32_t const* tables, int32_t const* colBase,
                            int32_t const* weightLeft, int32_t const* weightRight, int32_t weightUp,
                            int32_t weightDown);

/// The same row from byte tables, for grids of 256 levels: `tables` holds, for each column
/// block from the row's first (block k covers the columns c with (c + 20) / 40 == k), the
/// four mappings as planes of 256 bytes (UL, UR, LL, LR). Column i of the row is image
/// column firstColumn + i; its sample is clamped to [0, 255] and mixed as in
/// interpolateRow40. `bins` holds the clamped samples if the caller has them, else null;
/// `scratch` holds 5 * count bytes. If `copy` is not null, the row's pixels as they end up
/// (3 * count samples) are also written there, with streaming stores if `stream` is set.
/// Vectorised where the processor can look bytes up by permutes (see
/// byteTablesPreferred); equal to the scalar form.
void interpolateRowBytes(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                         uint8_t const* tables, uint16_t const* weightLeft,
                         uint16_t const* weightRight, int32_t weightUp, int32_t weightDown,
                         uint8_t* scratch, int16_t* copy = nullptr, bool stream = false);
void interpolateRowBytesScalar(int16_t* samples, size_t count, size_t firstColumn,
                               uint8_t const* tables, uint16_t const* weightLeft,
                               uint16_t const* weightRight, int32_t weightUp, int32_t weightDown);
/// Whether interpolateRowBytes beats the gathers of interpolateRow40 on this processor.
bool byteTablesPreferred();

/// bytes[i] = min(words[i], 255) for i < n, and the OR of n words (vectorised).
void narrowToBytes(uint32_t const* words, uint8_t* bytes, size_t n);
uint32_t orAll(uint32_t const* words, size_t n);

/// The bin of `count` samples samples[i * 3] for 256 bins over 0..255: the sample clamped
/// to [0, 255]. Vectorised; equal to the scalar form.
void extractBins(int16_t const* samples, uint8_t* bins, size_t count);

/// The two clipping passes over n bins of counts below 2^22 (vectorised): the sum of what
/// lies above `limit`; then every bin cut to the limit, bins above limit - inc filled up to
/// it and the rest given inc, returning the total given.
int32_t excessOver(int32_t const* h, size_t n, int32_t limit);
int32_t cutAndShare(int32_t* h, size_t n, int32_t limit, int32_t inc);
void extractBinsScalar(int16_t const* samples, uint8_t* bins, size_t count);

/// histogram[b] = the sum of counts[s * 256 + b] over the four sets s (which are zeroed),
/// followed by the two clipping passes at `limit` (excessOver, then cutAndShare with inc =
/// excess / 256 when there is an excess), for tiles of fewer than 32768 pixels and limits
/// of at least 1, in 16-bit lanes. Returns what is left of the excess for the spreading.
int32_t foldAndClip(uint16_t* counts, uint32_t* histogram, int32_t limit);
/// The mapping level of a running sum on a grey range starting at 0: the sum times the
/// scale, truncated, and capped at maxLevel.
inline uint32_t levelOfSum(uint64_t sum, double scale, uint32_t maxLevel) {
  double const level = static_cast<double>(sum) * scale;
  return level >= static_cast<double>(maxLevel) ? maxLevel : static_cast<uint32_t>(level);
}

/// Replaces each of 256 bins by levelOfSum(running sum of the bins up to it), for
/// histograms whose total fits in 32 bits (vectorised).
void cumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel);

}  // namespace quorvel::clahe_detail
