#pragma once
// The texts of buffer failures, shared by the buffers and the backend's read-back, and the
// size from which pixel storage is backed by huge pages.

#include <cstddef>

namespace quorvel::buffer_detail {

/// Pixel storage of at least this many bytes starts on a 2 MiB boundary and is offered to
/// the kernel for transparent huge pages: render targets and whole-image buffers are
/// streamed through end to end, and with 4 KiB pages such a walk misses the TLB at every
/// page (a 100 MB copy ran about 15% faster on huge pages). Smaller buffers, tiles among
/// them, stay in the allocator's pools, where rounding to 2 MiB would waste memory.
inline constexpr size_t kHugePageBytes = size_t{4} << 20;

// Location texts of buffer failures; the same for every pixel type.
inline constexpr char kSetPixels[] =
    "void Buffer2D<PixelType>::setPixels(void* buffer, size_t bufferSize,byteOffset)";
inline constexpr char kGetPixels[] =
    "void Buffer2D<PixelType>::getPixels(void* buffer, size_t bufferSize,size_t x, size_t y, "
    "size_t width, size_t height)";
inline constexpr char kClear[] = "void Buffer2D<PixelType>::clear(PixelType const& color)";
inline constexpr char kClearRect[] =
    "void Buffer2D<PixelType>::clearRect(PixelType const& color,size_t x, size_t y, size_t "
    "width, size_t height)";
inline constexpr char kCast[] = "void Buffer2D<PixelType>::cast(shared_ptr<IBuffer2D> buffer)";
inline constexpr char kOutOfBounds[] = "out of bounds check failed";
inline constexpr char kNoData[] = "buffer data does not exist";

}  // namespace quorvel::buffer_detail
