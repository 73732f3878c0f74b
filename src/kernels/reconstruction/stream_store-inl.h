// Non-temporal row writing shared by the reconstruction kernels (per-target include guard:
// this header is included once per SIMD target from the *_hwy.cpp files).
//
// Large outputs are written with streaming stores: they skip the read-for-ownership of
// each target cache line and do not evict the sources, which keeps a pass over a plane
// larger than the caches close to copy speed. Small outputs use ordinary stores, because
// the next filter of the chain reads them back from the cache.

#if defined(QUORVEL_KERNELS_STREAM_STORE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef QUORVEL_KERNELS_STREAM_STORE_INL_H_
#undef QUORVEL_KERNELS_STREAM_STORE_INL_H_
#else
#define QUORVEL_KERNELS_STREAM_STORE_INL_H_
#endif

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

/// Output size in bytes from which a call writes with streaming stores: about a quarter of
/// a shared last-level cache, below which the output is better left cached.
inline constexpr size_t kStreamThresholdBytes = size_t{8} << 20;

/// Copies `bytes` from src to dst, the vector-aligned middle of dst with streaming stores.
/// The caller issues hwy::FlushStream() before the target is read by another thread.
HWY_INLINE void StreamCopy(uint8_t* HWY_RESTRICT dst, const uint8_t* HWY_RESTRICT src,
                           size_t bytes) {
  const hn::ScalableTag<uint8_t> d;
  const size_t n = hn::Lanes(d);
  // Head: up to the first vector-aligned target byte.
  size_t i = (n - reinterpret_cast<uintptr_t>(dst) % n) % n;
  if (i > bytes) i = bytes;
  std::memcpy(dst, src, i);
  // Blocks of whole aligned vectors.
  for (; i + n <= bytes; i += n) hn::Stream(hn::LoadU(d, src + i), d, dst + i);
  // Tail.
  std::memcpy(dst + i, src + i, bytes - i);
}

/// Writes `count` items of a row of `itemBytes` bytes each: compute(first, n, out) stores
/// items [first, first + n) at out. Streams through a small cached staging area when
/// `stream` is set, otherwise computes straight into dst.
template <class F>
HWY_INLINE void WriteRow(uint8_t* dst, size_t count, size_t itemBytes, bool stream, F&& compute) {
  if (!stream) {
    compute(size_t{0}, count, dst);
    return;
  }
  constexpr size_t kStagingBytes = 8192;
  alignas(64) uint8_t staging[kStagingBytes];
  size_t const chunk = kStagingBytes / itemBytes;
  for (size_t first = 0; first < count; first += chunk) {
    size_t const n = count - first < chunk ? count - first : chunk;
    compute(first, n, staging);
    StreamCopy(dst + first * itemBytes, staging, n * itemBytes);
  }
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // QUORVEL_KERNELS_STREAM_STORE_INL_H_
