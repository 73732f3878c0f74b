#pragma once
// The row kernels behind the 3x3 colour-matrix filters, private to the library: the vector forms
// dispatched to the processor's instruction set and the scalar forms they are tested against.

#include <array>
#include <cstddef>
#include <cstdint>

namespace quorvel::matrix_detail {

/// The per-call coefficients m' = (m * k + 512) >> 10 with k = round(scale * 1024) (half
/// away from zero; NaN or out of int32 range gives INT32_MIN), in wrapping 32-bit math.
std::array<int32_t, 9> scaledCoefficients(std::array<int32_t, 9> const& matrix, double scale);

/// Maps `width` pixels of 4 x uint8 (alpha copied). Vectorised; equal to the scalar form.
void applyMatrixRgba8(int32_t const* coefficients, uint8_t const* in, uint8_t* out, size_t width);
/// Maps `width` pixels of 3 x int16. Vectorised; equal to the scalar form.
void applyMatrixRgbS16(int32_t const* coefficients, int16_t const* in, int16_t* out, size_t width);

/// Scalar forms of the row kernels, the reference of the vector ones.
void applyMatrixRgba8Scalar(int32_t const* coefficients, uint8_t const* in, uint8_t* out,
                            size_t width);
void applyMatrixRgbS16Scalar(int32_t const* coefficients, int16_t const* in, int16_t* out,
                             size_t width);

}  // namespace quorvel::matrix_detail
