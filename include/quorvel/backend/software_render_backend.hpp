#pragma once
// The CPU render backend and its instances.
//
// All instances created by one backend share the tile cache, the envelope cache, the map of
// filter instances and the renderer (render targets and worker pool). The backend keeps them
// only weakly: they live as long as some instance does, and the next createInstance after
// the last instance died starts a fresh generation.
//
// Thread safety: create instances from one thread. An instance's operations are meant for
// one host thread at a time; instances of one backend may be used from different threads
// (the shared caches, target map and filter map carry their own locks, and every host
// thread collects its own batch of jobs).

#include <cstddef>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/software_filter.hpp"
#include "quorvel/host/data_envelopes.hpp"
#include "quorvel/host/render_backend.hpp"

namespace quorvel {

class Renderer;
class BufferProxy;
class SoftwareRenderBackendInstance;

/// A snapshot of one of the shared caches.
struct CacheStats {
  size_t entries = 0;
  size_t totalCost = 0;
  size_t lockedCost = 0;
  size_t capacity = 0;
};

/// The CPU backend: owns the filter registry and hands out instances.
class QUORVEL_API SoftwareRenderBackend : public RenderBackend {
 public:
  /// A backend with the 28 built-in filters; `cacheCapacity` bounds each of the two caches
  /// (tile samples, envelope bytes) over their unlocked entries.
  SoftwareRenderBackend(ImageFormatType format, size_t cacheCapacity);
  /// As above, and `factory` is asked first for every filter name, so a caller can override
  /// built-in filters or add its own.
  SoftwareRenderBackend(SoftwareFilterFactory const& factory, ImageFormatType format,
                        size_t cacheCapacity);
  SoftwareRenderBackend(SoftwareRenderBackend&&) noexcept;
  SoftwareRenderBackend& operator=(SoftwareRenderBackend&&) noexcept;
  ~SoftwareRenderBackend() override;

  /// A new instance for `context`, which must be a SoftwareRenderContext (std::bad_cast
  /// otherwise). Instance ids count up from 0 and are never reused.
  std::shared_ptr<RenderBackendInstance> createInstance(RenderContext const& context) override;

  SoftwareFilterFactory const& builtinFactory() const { return *builtinFactory_; }

 private:
  friend class SoftwareRenderBackendInstance;
  // The state shared by the instances of one generation, each with the lock that guards
  // it: the tile cache, the envelope cache and the filter-instance map.
  struct TileCache;
  struct EnvelopeCache;
  struct FilterInstances;

  size_t nextInstanceId_ = 0;
  std::weak_ptr<TileCache> tileCacheRef_;
  std::weak_ptr<EnvelopeCache> envelopeCacheRef_;
  std::weak_ptr<FilterInstances> filterInstancesRef_;
  std::shared_ptr<SoftwareFilterFactory> builtinFactory_;
  std::shared_ptr<SoftwareFilterFactory> extraFactory_;
  std::weak_ptr<Renderer> rendererRef_;
  size_t cacheCapacity_;
};

/// One host's view of a backend.
class QUORVEL_API SoftwareRenderBackendInstance : public RenderBackendInstance {
 public:
  SoftwareRenderBackendInstance(size_t id, RenderContext const& context,
                                SoftwareRenderBackend& backend);
  ~SoftwareRenderBackendInstance() override;

  /// Always typeid(unsigned char), 1 and 3: the instance reports 8-bit RGB whatever the
  /// backend's image format.
  std::type_info const& pixelTypeid() const override;
  size_t pixelSize() const override;
  size_t numComponents() const override;

  size_t createTarget(std::vector<size_t> const& size, size_t bits, bool isSigned,
                      RenderBackend::ImageFiltering filter,
                      RenderBackend::ImageFormatType format) override;
  void eraseTarget(size_t target) override;
  bool targetReady(size_t target) const override;
  std::vector<size_t> targetSize(size_t target) const override;
  std::vector<size_t> targetAlignment(size_t target) const override;
  RenderBackend::ImageFiltering targetFiltering(size_t target) const override;
  /// Flushes the calling thread's batch, then waits for the target's jobs.
  void waitForTarget(size_t target) override;
  void clearTargets() override;
  void clear(size_t target, std::vector<size_t> const& color) override;
  void clearRect(size_t target, std::vector<size_t> const& color,
                 std::vector<size_t> const& rect) override;
  size_t getPixelsBufferSize(size_t target, std::vector<size_t> const& rect) const override;
  /// Flushes the calling thread's batch, waits for the target and copies `rect` out.
  size_t getPixels(void* buffer, size_t n, size_t target,
                   std::vector<size_t> const& rect) const override;
  std::vector<unsigned char> getPixels(size_t target,
                                       std::vector<size_t> const& rect) const override;

  void setTile(size_t tile, std::vector<unsigned char> const& pixels,
               std::vector<size_t> const& size, size_t offset) override;
  bool tileSet(size_t tile) const override;
  void lockTile(size_t tile) override;
  void unlockTile(size_t tile) override;
  size_t eraseTile(size_t tile) override;
  size_t eraseTiles(size_t first, size_t last) override;
  size_t clearTiles() override;
  size_t freeSlots() const override;

  void createFilterInstance(Filter& filter) override;
  void destroyFilterInstance(Filter& filter) override;
  void executeFilter(Filter const& filter, std::vector<FilterSource> const& sources, size_t inputW,
                     size_t inputH, size_t destination, size_t clipLeft, size_t clipRight,
                     size_t clipTop, size_t clipBottom, SingleFilterParameters const& params,
                     std::vector<size_t> const& offset) override;
  void drawTiles(size_t target, Filter const& tileShader, std::vector<size_t> const& range,
                 std::vector<size_t> const& canvasRange, std::vector<size_t> const& tileSize,
                 std::vector<std::vector<size_t>> const& blockCoords,
                 std::vector<size_t> const& blocks, std::vector<size_t> const& offsets) override;
  void finalizeDrawSequence() override;
  void maskRange(size_t source, size_t target, Filter const& maskFilter,
                 std::vector<unsigned char> const& envelopesId,
                 std::vector<size_t> const& range) override;

  std::shared_ptr<DataEnvelopes const> dataEnvelopes(
      std::vector<unsigned char> const& id) const override;
  void dataEnvelopes(std::vector<unsigned char> const& id, EnvelopeData const& data) override;
  bool dataEnvelopesSet(std::vector<unsigned char> const& id) const override;
  void lockDataEnvelopes(std::vector<unsigned char> const& id) override;
  void unlockDataEnvelopes(std::vector<unsigned char> const& id) override;
  std::unique_ptr<ConcurrentStagingBuffer> concurrentStagingBuffer(
      size_t targetOrTileId, RenderBackend::BufferType type,
      std::vector<size_t> const& size) override;
  bool synchronizeConcurrentStagingBuffer(
      std::unique_ptr<ConcurrentStagingBuffer>&& buffer) override;

  /// The pixel type of a target's buffer (for hosts that hand pixels on as typed arrays);
  /// fails with "Target does not exist" for an unknown id.
  std::type_info const& targetPixelType(size_t target) const;

  /// This instance's id: the first half of its tile and envelope keys.
  size_t id() const { return id_; }
  /// Snapshots of the shared caches (entries, costs, capacity).
  CacheStats tileCacheStats() const;
  CacheStats envelopeCacheStats() const;

 private:
  std::shared_ptr<SoftwareFilter> findFilter(Filter const& filter) const;
  std::shared_ptr<BufferProxy> requireTarget(size_t target, char const* location) const;
  /// What both getPixels do before copying: checks `rect` (and that `capacity` holds it),
  /// sends the calling thread's batch and waits for the target. Returns the byte count.
  size_t awaitReadBack(size_t target, std::vector<size_t> const& rect, size_t capacity,
                       std::shared_ptr<BufferProxy>& proxy) const;

  size_t id_;
  std::shared_ptr<SoftwareRenderBackend::TileCache> tileCache_;
  std::shared_ptr<SoftwareRenderBackend::FilterInstances> filterInstances_;
  std::shared_ptr<SoftwareRenderBackend::EnvelopeCache> envelopeCache_;
  std::shared_ptr<SoftwareFilterFactory> builtinFactory_;
  std::shared_ptr<SoftwareFilterFactory> extraFactory_;
  std::shared_ptr<Renderer> renderer_;
};

}  // namespace quorvel
