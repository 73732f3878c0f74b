#pragma once
// Typed two-dimensional pixel storage.
//
// A buffer is a block of width x height pixels in row-major order with packed rows
// (stride = width), so kernels walk it with plain pointer arithmetic. Element memory comes
// from oneTBB's scalable allocator because many worker threads allocate and free buffers at
// the same time. A buffer has no lock: a writer must be its only user while it writes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <typeinfo>
#include <vector>

#include "quorvel/buffers/pixel_types.hpp"
#include "quorvel/errors/exception.hpp"
#include "quorvel/export.hpp"

namespace quorvel {

/// An abstract drawing surface.
class QUORVEL_API Canvas {
 public:
  virtual ~Canvas() = default;
  virtual size_t width() const = 0;
  virtual size_t height() const = 0;
};

/// The untyped pixel buffer that the backend passes around by shared_ptr.
class QUORVEL_API Buffer2D : public Canvas {
 public:
  ~Buffer2D() override = default;
  /// {width, height}.
  virtual std::vector<size_t> dimensions() const = 0;
  /// sizeof(PixelType).
  virtual size_t bytesPerPixel() const = 0;
  /// pixelCount() * bytesPerPixel(): 0 while the buffer has no storage.
  virtual size_t byteSize() const = 0;
  /// {0, 0, width, height} narrowed to 32 bits.
  virtual std::vector<int> rect() const = 0;
  /// Creates storage at the buffer's own size (resize(width(), height())).
  virtual void allocate() = 0;
  /// Sets the size; keeps existing pixels, zero-fills new ones, frees storage at size 0.
  virtual void resize(size_t width, size_t height) = 0;
  /// Replaces the whole content from buffer + byteOffset; creates storage if missing.
  /// Checks bufferSize - byteOffset against the pixel count (not bytes) as the format
  /// has always done.
  virtual void setPixels(void const* buffer, size_t bufferSize, size_t byteOffset) = 0;
  /// Copies the rectangle (x, y, width, height) into a packed destination.
  virtual void getPixels(void* buffer, size_t bufferSize, size_t x, size_t y, size_t width,
                         size_t height) const = 0;
  /// Pixels held by the storage: width * height once allocated, 0 without storage.
  virtual size_t pixelCount() const = 0;

  /// The run-time identity of the pixel type, used by cast() and by type switches.
  std::type_info const& pixelType() const noexcept { return *pixelType_; }

 protected:
  explicit Buffer2D(std::type_info const& pixelType) : pixelType_(&pixelType) {}

 private:
  std::type_info const* pixelType_;
};

// Sanitizer builds of the project store pixels through the standard allocator: the scalable
// allocator's pools are invisible to AddressSanitizer (no red zones around buffers) and to
// ThreadSanitizer (memory reused across threads looks like a race). Set only by the
// project's own sanitizer configurations, never in an installed build.
#if defined(QUORVEL_PLAIN_ALLOCATOR)
template <class T>
using PixelAllocator = std::allocator<T>;
#else
// Exported: a host's own Buffer2DVector storage comes from the library's pools as well.
/// Scalable-allocator storage of `bytes`; blocks of a few MiB and more start on a 2 MiB
/// boundary and are offered for transparent huge pages. Throws std::bad_alloc when there
/// is no memory.
QUORVEL_API void* allocatePixelBytes(size_t bytes);
/// Frees what allocatePixelBytes(bytes) returned, given the same byte count.
QUORVEL_API void freePixelBytes(void* p, size_t bytes) noexcept;

/// The scalable allocator's pools, with huge-page backing for large blocks.
template <class T>
struct PixelAllocator {
  using value_type = T;
  PixelAllocator() noexcept = default;
  template <class U>
  PixelAllocator(PixelAllocator<U> const&) noexcept {}
  T* allocate(size_t n) {
    if (n > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
    return static_cast<T*>(allocatePixelBytes(n * sizeof(T)));
  }
  void deallocate(T* p, size_t n) noexcept { freePixelBytes(p, n * sizeof(T)); }
  template <class U>
  bool operator==(PixelAllocator<U> const&) const noexcept {
    return true;
  }
  template <class U>
  bool operator!=(PixelAllocator<U> const&) const noexcept {
    return false;
  }
};
#endif

/// The concrete buffer of one of the ten pixel types.
template <class PixelType>
class QUORVEL_API Buffer2DVector final : public Buffer2D {
 public:
  using Storage = std::vector<PixelType, PixelAllocator<PixelType>>;

  /// Storage of zero pixels is created only when `allocate` is set and the size is not 0.
  /// A size whose byte count does not fit in size_t fails with std::bad_array_new_length
  /// when storage is requested (here or by resize/allocate).
  Buffer2DVector(size_t width, size_t height, bool allocate)
      : Buffer2D(typeid(PixelType)), width_(width), height_(height) {
    if (allocate && checkedCount(width, height) != 0) {
      storage_ = std::make_unique<Storage>(width * height);
      pixelCount_ = width * height;
    }
  }

  size_t width() const override { return width_; }
  size_t height() const override { return height_; }
  std::vector<size_t> dimensions() const override { return {width_, height_}; }
  size_t bytesPerPixel() const override { return sizeof(PixelType); }
  size_t byteSize() const override { return pixelCount_ * sizeof(PixelType); }
  std::vector<int> rect() const override {
    return {0, 0, static_cast<int>(width_), static_cast<int>(height_)};
  }
  size_t pixelCount() const override { return pixelCount_; }
  void allocate() override { resize(width_, height_); }

  void resize(size_t width, size_t height) override {
    size_t const count = checkedCount(width, height);
    if (count == 0) {
      storage_.reset();
    } else if (storage_) {
      storage_->resize(count);
    } else {
      storage_ = std::make_unique<Storage>(count);
    }
    width_ = width;
    height_ = height;
    pixelCount_ = count;
  }

  void setPixels(void const* buffer, size_t bufferSize, size_t byteOffset) override;
  void getPixels(void* buffer, size_t bufferSize, size_t x, size_t y, size_t width,
                 size_t height) const override;

  /// Sets every pixel to `color`; fails with "buffer data does not exist" without storage.
  void clear(PixelType const& color);
  /// Sets the part of the rectangle that overlaps the buffer; a rectangle that misses the
  /// buffer fails with "invalid coordinates".
  void clearRect(PixelType const& color, size_t x, size_t y, size_t width, size_t height);

  /// The first pixel, or null while the buffer has no storage.
  PixelType* data() { return storage_ ? storage_->data() : nullptr; }
  PixelType const* data() const { return storage_ ? storage_->data() : nullptr; }

  /// The typed view of `buffer`, sharing its ownership. Fails with
  /// "Invalid Buffer Cast, PixelType is not the same" for another pixel type.
  static std::shared_ptr<Buffer2DVector> cast(std::shared_ptr<Buffer2D> const& buffer);

 private:
  // width * height, refusing sizes whose product (in bytes) wraps around: a wrapped count
  // would give a huge buffer a few pixels of storage.
  static size_t checkedCount(size_t width, size_t height) {
    if (width != 0 && height > SIZE_MAX / sizeof(PixelType) / width) {
      throw std::bad_array_new_length();
    }
    return width * height;
  }

  size_t width_;
  size_t height_;
  std::unique_ptr<Storage> storage_;
  size_t pixelCount_ = 0;
};

// The typed operations are defined once in buffer2d.cpp and instantiated there for the ten
// pixel types.
#define QUORVEL_DECLARE_BUFFER(T) extern template class Buffer2DVector<T>;
QUORVEL_FOR_EACH_PIXEL_TYPE(QUORVEL_DECLARE_BUFFER)
#undef QUORVEL_DECLARE_BUFFER

/// Calls f(Buffer2DVector<P>&) with the typed buffer; returns false for a foreign type.
template <class F>
bool visitBuffer(Buffer2D& buffer, F&& f) {
#define QUORVEL_VISIT_BUFFER(T)                 \
  if (buffer.pixelType() == typeid(T)) {        \
    f(static_cast<Buffer2DVector<T>&>(buffer)); \
    return true;                                \
  }
  QUORVEL_FOR_EACH_PIXEL_TYPE(QUORVEL_VISIT_BUFFER)
#undef QUORVEL_VISIT_BUFFER
  return false;
}

}  // namespace quorvel
