// Non-temporal copy of pixel rows out of the library, compiled once per SIMD target.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "buffers/stream_copy_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "buffers/stream_copy.hpp"
#include "simd/stream_store-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {

void CopyRowsStreaming(uint8_t* dst, size_t dstStride, uint8_t const* src, size_t srcStride,
                       size_t rowBytes, size_t rows) {
  for (size_t r = 0; r < rows; ++r) StreamCopy(dst + r * dstStride, src + r * srcStride, rowBytes);
  hwy::FlushStream();
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel::buffer_detail {

HWY_EXPORT(CopyRowsStreaming);

void copyRowsStreaming(uint8_t* dst, size_t dstStride, uint8_t const* src, size_t srcStride,
                       size_t rowBytes, size_t rows) {
  HWY_DYNAMIC_DISPATCH(CopyRowsStreaming)(dst, dstStride, src, srcStride, rowBytes, rows);
}

}  // namespace quorvel::buffer_detail
#endif  // HWY_ONCE
