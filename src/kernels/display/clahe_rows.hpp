#pragma once
// The internals of CLAHE, private to the library: the filter run on a given equaliser, and
// the vector steps of the standard grid (40-pixel tiles, 256 bins over the grey levels
// 0..255, three channels), dispatched to the processor's instruction set. Each step has a
// scalar reference in CLAHE's general path, which any other grid takes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/filters/filter_parameters.hpp"

namespace quorvel {
class CLAHE;
}

namespace quorvel::clahe_detail {

/// SoftwareFilterCLAHE::apply with `clahe` as the equaliser, whose storage it reuses.
void applyClahe(CLAHE& clahe, std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                std::vector<std::vector<int>> const& inputRects,
                std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                std::vector<std::vector<int>> const& outputRects,
                SingleFilterParameters const& params);

/// bins[i] = samples[3 i] clamped to [0, 255], for i < count.
void extractBins(int16_t const* samples, uint8_t* bins, size_t count);

/// For a tile of fewer than 32768 pixels counted into four interleaved sets of 256 bins:
/// histogram[b] = the sum of counts[s * 256 + b] over the sets (which are zeroed), clipped
/// at `limit` (at least 1) as CLAHE::clipHistogram clips: the excess over the limit is
/// summed, every bin cut to the limit, and each bin given excess / 256 or filled up to the
/// limit. Returns what is left of the excess for spreadExcess.
int32_t foldAndClip(uint16_t* counts, uint32_t* histogram, int32_t limit);

/// Hands out what is left of a histogram's excess one count at a time to evenly spaced bins
/// below the limit, until nothing is left or a whole round finds no room.
void spreadExcess(uint32_t* histogram, size_t numBins, uint64_t limit, int64_t excess);

/// Replaces each of 256 bins by the running sum up to it times `scale`, truncated and
/// capped at maxLevel, for histograms whose total is below 2^31.
void cumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel);

/// One row of the interpolation: sample i is samples[3 i], in image column firstColumn + i,
/// and its bin is bins[i] (or, with bins null, its sample clamped to [0, 255]). `above` and
/// `below` hold the mappings of the tile rows above and below the row as bytes, 256 per tile
/// of the tileCols; the pixel's four mappings are those of the tiles whose centres surround
/// it. The sample becomes (num + 800) / 1600, num the mix of its four mapping bytes, the
/// right ones weighted weightRight[i] and the left ones 40 minus that, the lower ones
/// weightDown and the upper ones 40 minus that. `scratch` holds 5 * count bytes. If `copy`
/// is not null, the row's 3 * count samples as they end up are also written there, with
/// streaming stores if `stream` is set.
void interpolateRow(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                    size_t tileCols, uint8_t const* above, uint8_t const* below,
                    int32_t const* weightRight, int32_t weightDown, uint8_t* scratch, int16_t* copy,
                    bool stream);

}  // namespace quorvel::clahe_detail
