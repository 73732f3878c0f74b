#pragma once
// The CPU staging buffer: a tile's pixels filled on any thread into a private buffer and
// handed to the tile store in one step by synchronizeConcurrentStagingBuffer.

#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/host/render_backend.hpp"

namespace quorvel {

class SoftwareConcurrentStagingBuffer final : public ConcurrentStagingBuffer {
 public:
  /// A buffer of size {width, height, components} without storage: 1 component is 8-bit
  /// grey, 3 is RGB8, 4 is RGBA8; anything else fails with
  /// "Can't set tile pixels with the required size".
  SoftwareConcurrentStagingBuffer(size_t targetOrTileId, RenderBackend::BufferType type,
                                  std::vector<size_t> const& size);

  /// Creates the storage, then replaces the pixels from `pixels` at `byteOffset`. Touches
  /// only this object: any thread may fill its own staging buffer.
  void setPixels(std::vector<unsigned char> const& pixels, size_t byteOffset) override;
  bool isReady() const override { return true; }
  bool isMapped() const override { return false; }
  std::vector<unsigned char> mappedData() override { return {}; }

  RenderBackend::BufferType type() const { return type_; }
  std::vector<size_t> const& size() const { return size_; }
  std::shared_ptr<Buffer2D> const& buffer() const { return buffer_; }

 private:
  RenderBackend::BufferType type_;
  std::vector<size_t> size_;
  std::shared_ptr<Buffer2D> buffer_;
};

}  // namespace quorvel
