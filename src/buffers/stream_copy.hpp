#pragma once
// Copies of pixel rows to memory the library does not read again.

#include <cstddef>
#include <cstdint>

namespace quorvel::buffer_detail {

/// Bytes from which a read-back (getPixels) writes the caller's buffer with streaming
/// stores: beyond the per-core caches, where ordinary stores would first read every line
/// of the destination and then push the renderer's working set out of the shared cache.
inline constexpr size_t kStreamReadBackBytes = size_t{1} << 20;

/// `rows` rows of `rowBytes` bytes from src to dst (strides in bytes) with streaming
/// stores, fenced before returning.
void copyRowsStreaming(uint8_t* dst, size_t dstStride, uint8_t const* src, size_t srcStride,
                       size_t rowBytes, size_t rows);

}  // namespace quorvel::buffer_detail
