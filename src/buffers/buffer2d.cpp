#include "quorvel/buffers/buffer2d.hpp"

#include <algorithm>
#include <cstring>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include <tbb/scalable_allocator.h>

#include "buffers/buffer_texts.hpp"
#include "buffers/stream_copy.hpp"

namespace quorvel {

using namespace buffer_detail;

#if !defined(QUORVEL_PLAIN_ALLOCATOR)
namespace {
constexpr size_t kHugePageAlignment = size_t{2} << 20;
}  // namespace

void* allocatePixelBytes(size_t bytes) {
  if (bytes < kHugePageBytes) {
    void* p = scalable_malloc(bytes);
    if (!p) throw std::bad_alloc();
    return p;
  }
  void* p = scalable_aligned_malloc(bytes, kHugePageAlignment);
  if (!p) throw std::bad_alloc();
#if defined(MADV_HUGEPAGE)
  // Advice only: where transparent huge pages are off or unsupported, the call fails or
  // does nothing and the block keeps ordinary pages. It must come before the first touch,
  // which the container's zero-fill makes right after this returns.
  (void)madvise(p, bytes, MADV_HUGEPAGE);
#endif
  return p;
}

void freePixelBytes(void* p, size_t bytes) noexcept {
  if (bytes < kHugePageBytes) {
    scalable_free(p);
  } else {
    scalable_aligned_free(p);
  }
}
#endif

template <class P>
void Buffer2DVector<P>::setPixels(void const* buffer, size_t bufferSize, size_t byteOffset) {
  // Compares a byte count with a pixel count, as the format always has; the copy below is
  // bounded by the storage, and a short source is refused before anything is written.
  size_t const count = width_ * height_;
  if (bufferSize < byteOffset || bufferSize - byteOffset < count) {
    throw QuorvelException(kOutOfBounds, kSetPixels);
  }
  resize(width_, height_);
  size_t const bytes = count * sizeof(P);
  if (bytes == 0) return;
  // For multi-byte pixels the test above lets a source through that is shorter than the
  // copy. Only the bytes the caller owns are read; the rest of the storage is zeroed.
  size_t const available = std::min(bytes, bufferSize - byteOffset);
  auto* dst = reinterpret_cast<unsigned char*>(storage_->data());
  std::memmove(dst, static_cast<unsigned char const*>(buffer) + byteOffset, available);
  std::memset(dst + available, 0, bytes - available);
}

template <class P>
void Buffer2DVector<P>::getPixels(void* buffer, size_t bufferSize, size_t x, size_t y, size_t width,
                                  size_t height) const {
  if (x + width < x || x + width > width_ || y + height < y || y + height > height_) {
    throw QuorvelException(kOutOfBounds, kGetPixels);
  }
  if (width != 0 && height > SIZE_MAX / sizeof(P) / width) {
    throw QuorvelException("not enough memory allocated in input buffer", kGetPixels);
  }
  size_t const rowBytes = width * sizeof(P);
  if (rowBytes * height > bufferSize) {
    throw QuorvelException("not enough memory allocated in input buffer", kGetPixels);
  }
  if (rowBytes * height == 0) return;
  if (!storage_) throw QuorvelException(kNoData, kGetPixels);
  auto* dst = static_cast<unsigned char*>(buffer);
  if (rowBytes * height >= buffer_detail::kStreamReadBackBytes) {
    buffer_detail::copyRowsStreaming(
        dst, rowBytes, reinterpret_cast<uint8_t const*>(storage_->data() + y * width_ + x),
        width_ * sizeof(P), rowBytes, height);
    return;
  }
  for (size_t r = y; r < y + height; ++r) {
    std::memcpy(dst, storage_->data() + r * width_ + x, rowBytes);
    dst += rowBytes;
  }
}

template <class P>
void Buffer2DVector<P>::clear(P const& color) {
  if (!storage_) throw QuorvelException(kNoData, kClear);
  std::fill(storage_->begin(), storage_->end(), color);
}

template <class P>
void Buffer2DVector<P>::clearRect(P const& color, size_t x, size_t y, size_t width, size_t height) {
  // Signed 32-bit intersection with inclusive right and bottom edges; the edges are formed
  // in 64 bits so that a huge rectangle cannot wrap around onto the buffer.
  int64_t const x1 = static_cast<int32_t>(x), y1 = static_cast<int32_t>(y);
  int64_t const w1 = static_cast<int32_t>(width), h1 = static_cast<int32_t>(height);
  int64_t const w2 = static_cast<int32_t>(width_), h2 = static_cast<int32_t>(height_);
  int64_t const left = std::max<int64_t>(x1, 0), top = std::max<int64_t>(y1, 0);
  int64_t const right = std::min(x1 + w1 - 1, w2 - 1);
  int64_t const bottom = std::min(y1 + h1 - 1, h2 - 1);
  int64_t const cw = right - left + 1, ch = bottom - top + 1;
  if (cw < 1 || ch < 1) throw QuorvelException("invalid coordinates", kClearRect);
  if (static_cast<size_t>(left + cw) > width_ || static_cast<size_t>(top + ch) > height_) {
    throw QuorvelException(kOutOfBounds, kClearRect);
  }
  if (!storage_) throw QuorvelException(kNoData, kClear);
  for (int64_t r = top; r < top + ch; ++r) {
    P* row = storage_->data() + static_cast<size_t>(r) * width_ + static_cast<size_t>(left);
    std::fill(row, row + cw, color);
  }
}

template <class P>
std::shared_ptr<Buffer2DVector<P>> Buffer2DVector<P>::cast(
    std::shared_ptr<Buffer2D> const& buffer) {
  if (!buffer || buffer->pixelType().hash_code() != typeid(P).hash_code()) {
    throw QuorvelException("Invalid Buffer Cast, PixelType is not the same", kCast);
  }
  return std::static_pointer_cast<Buffer2DVector<P>>(buffer);
}

#define QUORVEL_DEFINE_BUFFER(T) template class Buffer2DVector<T>;
QUORVEL_FOR_EACH_PIXEL_TYPE(QUORVEL_DEFINE_BUFFER)
#undef QUORVEL_DEFINE_BUFFER

}  // namespace quorvel
