#pragma once
// The host toolkit's abstract render-backend interfaces. A host talks to any backend (this
// CPU one, or a graphics-card one) only through these classes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include "quorvel/export.hpp"
#include "quorvel/host/render_types.hpp"

namespace quorvel {

class RenderContext;
class Filter;
class SingleFilterParameters;
class DataEnvelopes;
class RenderBackendInstance;

/// Per-group envelope data: 16-bit keys and a list of {xmin, xmax, ymin, ymax} rectangles.
using EnvelopeData =
    std::vector<std::pair<std::vector<uint16_t>, std::vector<std::vector<uint32_t>>>>;

/// A backend: creates instances for render contexts.
class QUORVEL_API RenderBackend {
 public:
  /// How the host stores its image data. The backend stores and forwards it.
  enum class ImageFormatType : int32_t {
    kUnknown = 0,
    kRgb8 = 1,
    kRgba8 = 2,
    kYCoCg16 = 3,
    kWavelet16 = 4,
  };
  /// Sampling of a render target (declared beside FilterSource, for filter descriptions).
  using ImageFiltering = quorvel::ImageFiltering;
  /// Kind of buffer a staging buffer stands for.
  enum class BufferType : int32_t {
    kTile = 0,
    kTarget = 1,
  };

  virtual ~RenderBackend() = default;
  /// A new instance for `context`.
  virtual std::shared_ptr<RenderBackendInstance> createInstance(RenderContext const& context) = 0;
};

/// A tile's pixels filled on any thread and handed to the backend in one step.
class QUORVEL_API ConcurrentStagingBuffer {
 public:
  explicit ConcurrentStagingBuffer(size_t targetOrTileId) : targetOrTileId_(targetOrTileId) {}
  virtual ~ConcurrentStagingBuffer() = default;
  /// Replaces the staged pixels from `pixels` starting at `byteOffset`.
  virtual void setPixels(std::vector<unsigned char> const& pixels, size_t byteOffset) = 0;
  virtual bool isReady() const = 0;
  /// Whether the staged pixels live in mapped device memory.
  virtual bool isMapped() const = 0;
  virtual std::vector<unsigned char> mappedData() = 0;
  /// The target or tile the buffer was created for.
  virtual size_t targetOrTileId() const { return targetOrTileId_; }

 private:
  size_t targetOrTileId_;
};

/// The operations a host calls on a backend instance. Rectangles are [x, width, y, height],
/// sizes [width, height]. Drawing calls only queue work; finalizeDrawSequence() sends it to
/// the workers, and reads wait for it.
class QUORVEL_API RenderBackendInstance {
 public:
  virtual ~RenderBackendInstance() = default;

  virtual std::type_info const& pixelTypeid() const = 0;
  virtual size_t pixelSize() const = 0;
  virtual size_t numComponents() const = 0;
  virtual size_t createTarget(std::vector<size_t> const& size, size_t bits, bool isSigned,
                              RenderBackend::ImageFiltering filter,
                              RenderBackend::ImageFormatType format) = 0;
  virtual void eraseTarget(size_t target) = 0;
  virtual bool targetReady(size_t target) const = 0;
  virtual std::vector<size_t> targetSize(size_t target) const = 0;
  virtual std::vector<size_t> targetAlignment(size_t target) const = 0;
  virtual RenderBackend::ImageFiltering targetFiltering(size_t target) const = 0;
  virtual void waitForTarget(size_t target) = 0;
  virtual void clearTargets() = 0;
  virtual void clear(size_t target, std::vector<size_t> const& color) = 0;
  virtual void clearRect(size_t target, std::vector<size_t> const& color,
                         std::vector<size_t> const& rect) = 0;
  virtual size_t getPixelsBufferSize(size_t target, std::vector<size_t> const& rect) const = 0;
  virtual size_t getPixels(void* buffer, size_t n, size_t target,
                           std::vector<size_t> const& rect) const = 0;
  virtual std::vector<unsigned char> getPixels(size_t target,
                                               std::vector<size_t> const& rect) const = 0;
  virtual void setTile(size_t tile, std::vector<unsigned char> const& pixels,
                       std::vector<size_t> const& size, size_t offset) = 0;
  virtual bool tileSet(size_t tile) const = 0;
  virtual void lockTile(size_t tile) = 0;
  virtual void unlockTile(size_t tile) = 0;
  virtual size_t eraseTile(size_t tile) = 0;
  virtual size_t eraseTiles(size_t first, size_t last) = 0;
  virtual size_t clearTiles() = 0;
  virtual size_t freeSlots() const = 0;
  virtual void createFilterInstance(Filter& filter) = 0;
  virtual void destroyFilterInstance(Filter& filter) = 0;
  virtual void executeFilter(Filter const& filter, std::vector<FilterSource> const& sources,
                             size_t inputW, size_t inputH, size_t destination, size_t clipLeft,
                             size_t clipRight, size_t clipTop, size_t clipBottom,
                             SingleFilterParameters const& params,
                             std::vector<size_t> const& offset) = 0;
  virtual void drawTiles(size_t target, Filter const& tileShader, std::vector<size_t> const& range,
                         std::vector<size_t> const& canvasRange,
                         std::vector<size_t> const& tileSize,
                         std::vector<std::vector<size_t>> const& blockCoords,
                         std::vector<size_t> const& blocks, std::vector<size_t> const& offsets) = 0;
  virtual void finalizeDrawSequence() = 0;
  virtual void maskRange(size_t source, size_t target, Filter const& maskFilter,
                         std::vector<unsigned char> const& envelopesId,
                         std::vector<size_t> const& range) = 0;
  virtual std::shared_ptr<DataEnvelopes const> dataEnvelopes(
      std::vector<unsigned char> const& id) const = 0;
  virtual void dataEnvelopes(std::vector<unsigned char> const& id, EnvelopeData const& data) = 0;
  virtual bool dataEnvelopesSet(std::vector<unsigned char> const& id) const = 0;
  virtual void lockDataEnvelopes(std::vector<unsigned char> const& id) = 0;
  virtual void unlockDataEnvelopes(std::vector<unsigned char> const& id) = 0;
  virtual std::unique_ptr<ConcurrentStagingBuffer> concurrentStagingBuffer(
      size_t targetOrTileId, RenderBackend::BufferType type, std::vector<size_t> const& size) = 0;
  virtual bool synchronizeConcurrentStagingBuffer(
      std::unique_ptr<ConcurrentStagingBuffer>&& buffer) = 0;
};

}  // namespace quorvel
