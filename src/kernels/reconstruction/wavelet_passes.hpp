#pragma once
// The row passes of the inverse 5/3 wavelet, shared by the scalar and the vector bodies.
// A plan holds buffer pointers and element indices that the kernel has already clipped, so
// the passes do no bounds checks: every index they form is inside its buffer.

#include <cstdint>

namespace quorvel::kernel {

/// Clipped work of one wavelet call. k ranges are band indices along the filtered
/// direction; `count` is the number of columns (vertical) or rows (horizontal).
struct WaveletPlan {
  int16_t const* low = nullptr;
  int16_t const* high = nullptr;
  int16_t* out = nullptr;
  // Vertical: element index of band row k = 0 and of target sample row 0, at the first
  // processed column. Horizontal: index of band element k = 0 and of target sample 0 in
  // the first processed row.
  int64_t lowBase = 0, highBase = 0, outBase = 0;
  int64_t bandStride = 0;  // between band rows (the width of source 0)
  int64_t outStride = 0;   // between target rows
  int64_t count = 0;
  // Passes: only o(k) for k in [oddBegin, oddEnd), e(k) and o(k) for k in
  // [pairBegin, pairEnd), only e(k) for k in [evenBegin, evenEnd).
  int64_t oddBegin = 0, oddEnd = 0, pairBegin = 0, pairEnd = 0, evenBegin = 0, evenEnd = 0;
};

/// Scalar passes: the reference forms.
void waveletVerticalScalar(WaveletPlan const& plan);
void waveletHorizontalScalar(WaveletPlan const& plan);

/// Vector passes for the best target of this processor; identical results.
void waveletVerticalVector(WaveletPlan const& plan);
void waveletHorizontalVector(WaveletPlan const& plan);

}  // namespace quorvel::kernel
