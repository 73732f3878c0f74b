#pragma once
// The row kernels behind the sharpening filters, private to the library: the vector forms
// dispatched to the processor's instruction set and the scalar forms they are tested against.

#include <cstddef>
#include <cstdint>

namespace quorvel::sharpness_detail {

/// The integer strength in 1/32 units: truncate(gain * 32) (saturated to 32 bits, NaN as 0),
/// shifted right arithmetically by the non-negative residue of level modulo 32.
int32_t strength(double gain, int32_t level);

/// One output row of the 8-bit filter: `count` samples, sample k of the output from
/// rows[r][k + d * step] (r = 0..4 for rows y-2..y+2, d = -2..2), i.e. each row pointer
/// addresses the centre sample of the first output. Vectorised; equal to the scalar form.
void sharpenRow8(uint8_t const* const rows[5], uint8_t* out, size_t count, size_t step,
                 int32_t strength);
void sharpenRow8Scalar(uint8_t const* const rows[5], uint8_t* out, size_t count, size_t step,
                       int32_t strength);

/// One output row of the horizontal 16-bit pass: `count` samples from in[k + d * step]
/// (d = -2..2); `in` addresses the centre sample of the first output. Vectorised; `stream`
/// writes with non-temporal stores (for targets larger than the caches).
void blurRowH16(int16_t const* in, uint16_t* out, size_t count, size_t step, bool stream = false);
void blurRowH16Scalar(int16_t const* in, uint16_t* out, size_t count, size_t step);

/// One output row of the vertical 16-bit pass: the blur from blurRows[r][k] (rows y-2..y+2
/// of the horizontal result), the centre from centre[k] (unfiltered). Vectorised; `stream`
/// as in blurRowH16.
void sharpenRowV16(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                   size_t count, int32_t strength, bool stream = false);
void sharpenRowV16Scalar(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                         size_t count, int32_t strength);

}  // namespace quorvel::sharpness_detail
