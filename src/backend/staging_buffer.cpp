#include "backend/staging_buffer.hpp"

#include <cstdint>

namespace quorvel {
namespace {
constexpr char kCtor[] =
    "void SoftwareConcurrentStagingBuffer::SoftwareConcurrentStagingBuffer(size_t "
    "targetOrTileId, RenderBackend::BufferType type,SoftwareRenderBackendInstance& instance)";
}

SoftwareConcurrentStagingBuffer::SoftwareConcurrentStagingBuffer(size_t targetOrTileId,
                                                                 RenderBackend::BufferType type,
                                                                 std::vector<size_t> const& size)
    : ConcurrentStagingBuffer(targetOrTileId), type_(type), size_(size) {
  size_t const components = size.size() >= 3 ? size[2] : 0;
  size_t const width = size.size() >= 3 ? size[0] : 0, height = size.size() >= 3 ? size[1] : 0;
  // A size with more bytes than memory can address is refused like a bad component count.
  if (width != 0 && height > SIZE_MAX / 4 / width) {
    throw QuorvelException("Can't set tile pixels with the required size", kCtor);
  }
  switch (components) {
    case 1:
      buffer_ = std::make_shared<Buffer2DVector<uint8_t>>(width, height, false);
      break;
    case 3:
      buffer_ = std::make_shared<Buffer2DVector<PixelRgb8>>(width, height, false);
      break;
    case 4:
      buffer_ = std::make_shared<Buffer2DVector<PixelRgba8>>(width, height, false);
      break;
    default:
      throw QuorvelException("Can't set tile pixels with the required size", kCtor);
  }
}

void SoftwareConcurrentStagingBuffer::setPixels(std::vector<unsigned char> const& pixels,
                                                size_t byteOffset) {
  buffer_->allocate();
  buffer_->setPixels(pixels.data(), pixels.size(), byteOffset);
}

}  // namespace quorvel
