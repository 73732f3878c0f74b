// Non-temporal row writing shared by the kernels and the read-back copy (per-target include
// guard: this header is included once per SIMD target from the *_hwy.cpp files).
//
// Large outputs are written with streaming stores: they skip the read-for-ownership of
// each target cache line and do not evict the sources, which keeps a pass over a plane
// larger than the caches close to copy speed. Small outputs use ordinary stores, because
// the next filter of the chain reads them back from the cache.

#if defined(QUORVEL_SIMD_STREAM_STORE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef QUORVEL_SIMD_STREAM_STORE_INL_H_
#undef QUORVEL_SIMD_STREAM_STORE_INL_H_
#else
#define QUORVEL_SIMD_STREAM_STORE_INL_H_
#endif

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

/// Cache line size that streaming works in.
inline constexpr size_t kStreamLineBytes = 64;

/// Bytes computed into the first-level cache before they are streamed out. Small on
/// purpose: with a few kilobytes the core alternates long bursts of reads with long bursts
/// of streaming stores, and a pass ran twice as slow as with a few lines at a time, where
/// the reads and the write-combining buffers stay busy together.
inline constexpr size_t kStreamChunkBytes = 1024;

/// Streams `bytes` (whole lines) from the aligned `src` to the line-aligned `dst`.
HWY_INLINE void StreamLines(uint8_t* HWY_RESTRICT dst, const uint8_t* HWY_RESTRICT src,
                            size_t bytes) {
  const hn::ScalableTag<uint8_t> d;
  const size_t n = hn::Lanes(d);  // divides the line size on every target
  for (size_t i = 0; i < bytes; i += n) hn::Stream(hn::Load(d, src + i), d, dst + i);
}

/// Copies `bytes` from src to dst: the whole cache lines of dst with streaming stores, the
/// partial lines at either end with ordinary ones. The caller issues hwy::FlushStream()
/// before another thread reads dst.
HWY_INLINE void StreamCopy(uint8_t* HWY_RESTRICT dst, const uint8_t* HWY_RESTRICT src,
                           size_t bytes) {
  const hn::ScalableTag<uint8_t> d;
  const size_t n = hn::Lanes(d);  // divides the line size on every target
  size_t i =
      (kStreamLineBytes - reinterpret_cast<uintptr_t>(dst) % kStreamLineBytes) % kStreamLineBytes;
  if (i > bytes) i = bytes;
  std::memcpy(dst, src, i);
  size_t const lines = i + (bytes - i) / kStreamLineBytes * kStreamLineBytes;
  for (; i < lines; i += n) hn::Stream(hn::LoadU(d, src + i), d, dst + i);
  std::memcpy(dst + i, src + i, bytes - i);
}

/// Writes `count` items of `itemBytes` bytes each at dst, where compute(first, n, out)
/// stores items [first, first + n) at out; `unit` items always go to one call together (a
/// compute working on pairs passes 2). Without `stream`, one call computes straight into
/// dst. With it, a head up to the first line boundary of dst and the partial last chunk
/// are computed in place with ordinary stores, and everything between goes through a small
/// cached staging area in whole, aligned lines written with streaming stores: a line
/// written partly by streaming and partly by ordinary stores costs a flush of the
/// write-combining buffer and a read of the line. The caller issues hwy::FlushStream()
/// before the target is read by another thread.
template <class F>
HWY_INLINE void WriteRow(uint8_t* dst, size_t count, size_t itemBytes, bool stream, F&& compute,
                         size_t unit = 1) {
  if (!stream) {
    compute(size_t{0}, count, dst);
    return;
  }
  constexpr size_t kLine = kStreamLineBytes;
  alignas(64) uint8_t staging[4 * kStreamChunkBytes];
  // Items per chunk: whole lines, a multiple of `unit`, about kStreamChunkBytes.
  size_t granule = unit;
  while (granule * itemBytes % kLine != 0 && granule * itemBytes <= sizeof(staging)) granule *= 2;
  size_t const chunk =
      granule *
      (granule * itemBytes < kStreamChunkBytes ? kStreamChunkBytes / (granule * itemBytes) : 1);
  // Head: the fewest whole units that end on a line boundary of dst, if any do.
  auto const address = reinterpret_cast<uintptr_t>(dst);
  size_t head = count;
  for (size_t n = 0; n < kLine * unit && n < count; n += unit) {
    if ((address + n * itemBytes) % kLine == 0) {
      head = n;
      break;
    }
  }
  if (chunk * itemBytes > sizeof(staging) || head + chunk > count) {
    compute(size_t{0}, count, dst);
    return;
  }
  if (head != 0) compute(size_t{0}, head, dst);
  size_t first = head;
  for (; first + chunk <= count; first += chunk) {
    compute(first, chunk, staging);
    StreamLines(dst + first * itemBytes, staging, chunk * itemBytes);
  }
  if (first < count) compute(first, count - first, dst + first * itemBytes);
}

/// Writes `count` items in blocks of `blockItems` that each span whole cache lines:
/// block(first, n, out, streamed) stores items [first, first + n) at out, n = blockItems
/// except in the partial last block. When `stream` is set and dst starts on a cache line,
/// full blocks are told to store with streaming stores straight from their registers,
/// which measured faster than staging them; otherwise the row goes through WriteRow.
template <class F>
HWY_INLINE void WriteBlocks(uint8_t* dst, size_t count, size_t itemBytes, size_t blockItems,
                            bool stream, F&& block) {
  if (stream && reinterpret_cast<uintptr_t>(dst) % kStreamLineBytes == 0) {
    size_t i = 0;
    for (; i + blockItems <= count; i += blockItems) {
      block(i, blockItems, dst + i * itemBytes, std::true_type{});
    }
    if (i < count) block(i, count - i, dst + i * itemBytes, std::false_type{});
    return;
  }
  WriteRow(dst, count, itemBytes, stream, [&](size_t first, size_t n, uint8_t* out) {
    size_t i = 0;
    for (; i + blockItems <= n; i += blockItems) {
      block(first + i, blockItems, out + i * itemBytes, std::false_type{});
    }
    if (i < n) block(first + i, n - i, out + i * itemBytes, std::false_type{});
  });
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // QUORVEL_SIMD_STREAM_STORE_INL_H_
