#pragma once
// The row kernels behind the Lookup-table filters, private to the library: the vector forms
// dispatched to the processor's instruction set and the scalar forms they are tested against.

#include <cstddef>
#include <cstdint>

namespace quorvel::lut_detail {

/// Maps `width` pixels of 4 x uint8 through `table` (256 entries, already clamped to the
/// table's last entry), copying alpha. Vectorised; equal to the scalar form.
void applyLutRgba8(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width);

/// Maps `width` pixels of 3 x int16 through `lut` (index clamped to [0, maxIndex]) to
/// 4 x uint8 with alpha 255. `lut` must hold maxIndex + 4 readable bytes. Vectorised; equal
/// to the scalar form.
void applyLutRgbS16(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                    size_t width);

/// Scalar forms of the two row kernels, the reference of the vector ones.
void applyLutRgba8Scalar(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width);
void applyLutRgbS16Scalar(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                          size_t width);

}  // namespace quorvel::lut_detail
