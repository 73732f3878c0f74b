#include "quorvel/backend/software_render_backend.hpp"

#include <algorithm>
#include <limits>

#include "backend/backend_support.hpp"
#include "backend/renderer.hpp"
#include "backend/shared_caches.hpp"
#include "backend/staging_buffer.hpp"
#include "buffers/buffer_texts.hpp"
#include "quorvel/context/render_context.hpp"
#include "quorvel/kernels/registry.hpp"

namespace quorvel {
namespace {

using backend_support::wrap32;

// a * b, or the largest size_t where the product would wrap: a size that cannot exist
// then fails the allocation instead of becoming a small one.
size_t saturatingMul(size_t a, size_t b) {
  if (a != 0 && b > std::numeric_limits<size_t>::max() / a) {
    return std::numeric_limits<size_t>::max();
  }
  return a * b;
}

// Location texts. They are part of the interface and kept as they have always read,
// including the ones that name another operation or drop an argument.
constexpr char kCreateTarget[] =
    "size_t SoftwareRenderBackendInstance::createTarget(std::vector<size_t> const& size, size_t "
    "bits, ImageFiltering filter, ImageFormatType format)";
constexpr char kClear[] =
    "void SoftwareRenderBackend::Instance::clear(size_t target, std::vector<size_t> const& "
    "color)";
constexpr char kClearRect[] =
    "void SoftwareRenderBackend::Instance::clearRect(size_t target, std::vector<size_t> const& "
    "color,std::vector<size_t> const& rect)";
constexpr char kGetPixels[] =
    "size_t SoftwareRenderBackend::Instance::getPixels(void* buffer, size_t n, size_t target, "
    "std::vector<size_t> const& rect) const";
constexpr char kTargetQuery[] =
    "std::shared_ptr<BufferProxy> SoftwareRenderBackend::Instance::getTarget(size_t target) "
    "const";
constexpr char kSetTile[] =
    "void SoftwareRenderBackendInstance::setTile(size_t tile, std::vector<unsigned char> const& "
    "pixels, std::vector<size_t> const& size, size_t offset)";
constexpr char kGetEnvelopes[] =
    "DataEnvelopes SoftwareRenderBackendInstance::dataEnvelopes(  std::string const& id)";
constexpr char kSetEnvelopes[] =
    "void SoftwareRenderBackendInstance::dataEnvelopes(std::vector<unsigned char> const& id, "
    "std::vector<std::pair<std::vector<uint16_t>, std::vector<std::vector<uint32_t>>>> const& "
    "data)";
constexpr char kSynchronize[] =
    "bool SoftwareRenderBackendInstance::synchronizeConcurrentStagingBuffer(std::unique_ptr<"
    "ConcurrentStagingBuffer>&& buffer)";
constexpr char kNoTarget[] = "Target does not exist";

// Bytes each envelope costs the envelope cache: a fixed estimate of one index entry.
constexpr size_t kEnvelopeEntryCost = 112;

std::shared_ptr<Buffer2D> makeTargetBuffer(size_t bits, bool isSigned, size_t w, size_t h) {
  switch (bits) {
    case 8:
      if (isSigned) return std::make_shared<Buffer2DVector<int8_t>>(w, h, false);
      return std::make_shared<Buffer2DVector<uint8_t>>(w, h, false);
    case 16:
      if (isSigned) return std::make_shared<Buffer2DVector<int16_t>>(w, h, false);
      return std::make_shared<Buffer2DVector<uint16_t>>(w, h, false);
    case 24:
      if (isSigned) return std::make_shared<Buffer2DVector<PixelRgbS8>>(w, h, false);
      return std::make_shared<Buffer2DVector<PixelRgb8>>(w, h, false);
    case 32:
      if (isSigned) return std::make_shared<Buffer2DVector<PixelRgbaS8>>(w, h, false);
      return std::make_shared<Buffer2DVector<PixelRgba8>>(w, h, false);
    case 48:
      if (isSigned) return std::make_shared<Buffer2DVector<PixelRgbS16>>(w, h, false);
      return std::make_shared<Buffer2DVector<PixelRgb16>>(w, h, false);
    default:
      return nullptr;
  }
}

// A tile of size {width, height, components}: one component is signed 16-bit data
// (coefficients), three and four are 8-bit pixels.
std::shared_ptr<Buffer2D> makeTileBuffer(std::vector<size_t> const& size) {
  if (size.size() < 3) return nullptr;
  // A size with more bytes than memory can address is refused like a bad component count.
  if (saturatingMul(saturatingMul(size[0], size[1]), 4) == std::numeric_limits<size_t>::max()) {
    return nullptr;
  }
  switch (size[2]) {
    case 1:
      return std::make_shared<Buffer2DVector<int16_t>>(size[0], size[1], true);
    case 3:
      return std::make_shared<Buffer2DVector<PixelRgb8>>(size[0], size[1], true);
    case 4:
      return std::make_shared<Buffer2DVector<PixelRgba8>>(size[0], size[1], true);
    default:
      return nullptr;
  }
}

// A new, storage-less buffer of the same type and size as `buffer`.
std::shared_ptr<Buffer2D> sameKind(Buffer2D& buffer) {
  std::shared_ptr<Buffer2D> copy;
  visitBuffer(buffer, [&copy](auto& typed) {
    using B = std::remove_reference_t<decltype(typed)>;
    copy = std::make_shared<B>(typed.width(), typed.height(), false);
  });
  return copy;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// SoftwareRenderBackend
// ---------------------------------------------------------------------------------------

// The image format is the host's business: the backend stores and forwards pixels as they
// come, so it keeps nothing of it.
SoftwareRenderBackend::SoftwareRenderBackend(ImageFormatType /*format*/, size_t cacheCapacity)
    : builtinFactory_(std::make_shared<SoftwareFilterFactory>()), cacheCapacity_(cacheCapacity) {
  registerBuiltinFilters(*builtinFactory_);
}

SoftwareRenderBackend::SoftwareRenderBackend(SoftwareFilterFactory const& factory,
                                             ImageFormatType format, size_t cacheCapacity)
    : SoftwareRenderBackend(format, cacheCapacity) {
  extraFactory_ = std::make_shared<SoftwareFilterFactory>(factory);
}

SoftwareRenderBackend::SoftwareRenderBackend(SoftwareRenderBackend&&) noexcept = default;
SoftwareRenderBackend& SoftwareRenderBackend::operator=(SoftwareRenderBackend&&) noexcept = default;
SoftwareRenderBackend::~SoftwareRenderBackend() = default;

std::shared_ptr<RenderBackendInstance> SoftwareRenderBackend::createInstance(
    RenderContext const& context) {
  auto tileCache = tileCacheRef_.lock();
  if (!tileCache) {
    tileCache = std::make_shared<TileCache>(cacheCapacity_);
    tileCacheRef_ = tileCache;
  }
  auto envelopeCache = envelopeCacheRef_.lock();
  if (!envelopeCache) {
    envelopeCache = std::make_shared<EnvelopeCache>(cacheCapacity_);
    envelopeCacheRef_ = envelopeCache;
  }
  auto filterInstances = filterInstancesRef_.lock();
  if (!filterInstances) {
    filterInstances = std::make_shared<FilterInstances>();
    filterInstancesRef_ = filterInstances;
  }
  auto renderer = rendererRef_.lock();
  if (!renderer) {
    auto const& software = dynamic_cast<SoftwareRenderContext const&>(context);
    renderer = std::make_shared<Renderer>(software, software.numberOfWorkerThreads());
    rendererRef_ = renderer;
  }
  size_t const id = nextInstanceId_++;
  return std::make_shared<SoftwareRenderBackendInstance>(id, context, *this);
}

// ---------------------------------------------------------------------------------------
// Instance: lifecycle and format
// ---------------------------------------------------------------------------------------

SoftwareRenderBackendInstance::SoftwareRenderBackendInstance(size_t id,
                                                             RenderContext const& /*context*/,
                                                             SoftwareRenderBackend& backend)
    : id_(id),
      tileCache_(backend.tileCacheRef_.lock()),
      filterInstances_(backend.filterInstancesRef_.lock()),
      envelopeCache_(backend.envelopeCacheRef_.lock()),
      builtinFactory_(backend.builtinFactory_),
      extraFactory_(backend.extraFactory_),
      renderer_(backend.rendererRef_) {}

SoftwareRenderBackendInstance::~SoftwareRenderBackendInstance() = default;

std::type_info const& SoftwareRenderBackendInstance::pixelTypeid() const {
  return typeid(unsigned char);
}
size_t SoftwareRenderBackendInstance::pixelSize() const { return 1; }
size_t SoftwareRenderBackendInstance::numComponents() const { return 3; }

// ---------------------------------------------------------------------------------------
// Instance: render targets and read-back
// ---------------------------------------------------------------------------------------

std::shared_ptr<BufferProxy> SoftwareRenderBackendInstance::requireTarget(
    size_t target, char const* location) const {
  auto proxy = renderer_->getTarget(target);
  if (!proxy) throw QuorvelException(kNoTarget, location);
  return proxy;
}

size_t SoftwareRenderBackendInstance::createTarget(std::vector<size_t> const& size, size_t bits,
                                                   bool isSigned, RenderBackend::ImageFiltering,
                                                   RenderBackend::ImageFormatType) {
  size_t const id = renderer_->reserveTargetId();
  size_t const width = size.size() > 0 ? size[0] : 0, height = size.size() > 1 ? size[1] : 0;
  auto buffer = makeTargetBuffer(bits, isSigned, width, height);
  if (!buffer) {
    throw QuorvelException("cannot instantiate a buffer with the required bit depth", kCreateTarget,
                           "requested bits=[" + std::to_string(bits) + "]");
  }
  renderer_->setTarget(id, std::make_shared<BufferProxy>(std::move(buffer), id, false));
  return id;
}

void SoftwareRenderBackendInstance::eraseTarget(size_t target) { renderer_->eraseTarget(target); }

bool SoftwareRenderBackendInstance::targetReady(size_t target) const {
  return requireTarget(target, kTargetQuery)->ready();
}

std::vector<size_t> SoftwareRenderBackendInstance::targetSize(size_t target) const {
  return requireTarget(target, kTargetQuery)->buffer()->dimensions();
}

std::type_info const& SoftwareRenderBackendInstance::targetPixelType(size_t target) const {
  return requireTarget(target, kTargetQuery)->buffer()->pixelType();
}

std::vector<size_t> SoftwareRenderBackendInstance::targetAlignment(size_t) const {
  return {1, 1, 1};
}

RenderBackend::ImageFiltering SoftwareRenderBackendInstance::targetFiltering(size_t) const {
  return static_cast<RenderBackend::ImageFiltering>(4);
}

void SoftwareRenderBackendInstance::waitForTarget(size_t target) {
  auto proxy = requireTarget(target, kTargetQuery);
  // Work this thread queued but did not flush could never finish; send it first.
  renderer_->flush();
  proxy->wait();
}

void SoftwareRenderBackendInstance::clearTargets() {}

void SoftwareRenderBackendInstance::clear(size_t target, std::vector<size_t> const& color) {
  auto proxy = requireTarget(target, kClear);
  if (color.size() != 1 && color.size() != 3 && color.size() != 4) {
    throw QuorvelException("Invalid color", kClear);
  }
  RenderJob job;
  job.kind = RenderJob::kClear;
  job.color = color;
  job.targets.push_back(std::move(proxy));
  renderer_->submit(std::move(job));
}

void SoftwareRenderBackendInstance::clearRect(size_t target, std::vector<size_t> const& color,
                                              std::vector<size_t> const& rect) {
  auto proxy = requireTarget(target, kClearRect);
  if (color.size() != 4) throw QuorvelException("Invalid color", kClear);
  if (rect.size() != 4) throw QuorvelException("Invalid rectangle", kClear);
  RenderJob job;
  job.kind = RenderJob::kClear;
  job.color = color;
  for (size_t i = 0; i < 4; ++i) job.rect[i] = wrap32(rect[i]);
  job.targets.push_back(std::move(proxy));
  renderer_->submit(std::move(job));
}

size_t SoftwareRenderBackendInstance::getPixelsBufferSize(size_t target,
                                                          std::vector<size_t> const& rect) const {
  auto proxy = requireTarget(target, kTargetQuery);
  size_t pixels = 1;
  for (size_t i = 1; i < rect.size(); i += 2) pixels = saturatingMul(pixels, rect[i]);
  return saturatingMul(pixels, proxy->buffer()->bytesPerPixel());
}

size_t SoftwareRenderBackendInstance::awaitReadBack(size_t target, std::vector<size_t> const& rect,
                                                    size_t capacity,
                                                    std::shared_ptr<BufferProxy>& proxy) const {
  size_t const required = getPixelsBufferSize(target, rect);
  if (capacity < required) throw QuorvelException("buffer too small", kGetPixels);
  if (rect.size() != 4) throw QuorvelException("Invalid rectangle", kGetPixels);
  proxy = requireTarget(target, kGetPixels);
  renderer_->flush();
  proxy->wait();
  return required;
}

size_t SoftwareRenderBackendInstance::getPixels(void* buffer, size_t n, size_t target,
                                                std::vector<size_t> const& rect) const {
  std::shared_ptr<BufferProxy> proxy;
  size_t const required = awaitReadBack(target, rect, n, proxy);
  proxy->buffer()->getPixels(buffer, n, rect[0], rect[2], rect[1], rect[3]);
  return required;
}

std::vector<unsigned char> SoftwareRenderBackendInstance::getPixels(
    size_t target, std::vector<size_t> const& rect) const {
  std::shared_ptr<BufferProxy> proxy;
  size_t const required = awaitReadBack(target, rect, std::numeric_limits<size_t>::max(), proxy);
  // The buffer checks the rectangle before the vector is made, so a huge rectangle fails
  // with its own message instead of an allocation failure.
  std::vector<size_t> const dims = proxy->buffer()->dimensions();
  if (rect[0] + rect[1] < rect[0] || rect[0] + rect[1] > dims[0] || rect[2] + rect[3] < rect[2] ||
      rect[2] + rect[3] > dims[1]) {
    proxy->buffer()->getPixels(nullptr, 0, rect[0], rect[2], rect[1], rect[3]);
  }
  // Inside the buffer but more than its storage holds: a target that never got storage,
  // possibly one too large to have any. Answer as the buffer would, without the vector.
  if (required > proxy->buffer()->byteSize()) {
    throw QuorvelException(buffer_detail::kNoData, buffer_detail::kGetPixels);
  }
  std::vector<unsigned char> pixels(required);
  proxy->buffer()->getPixels(pixels.data(), pixels.size(), rect[0], rect[2], rect[1], rect[3]);
  return pixels;
}

// ---------------------------------------------------------------------------------------
// Instance: tiles
// ---------------------------------------------------------------------------------------

void SoftwareRenderBackendInstance::setTile(size_t tile, std::vector<unsigned char> const& pixels,
                                            std::vector<size_t> const& size, size_t offset) {
  backend_detail::TileKey const key{id_, tile};
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  auto& slot = tileCache_->map.access(key);
  if (!slot) {
    slot = makeTileBuffer(size);
    if (!slot) throw QuorvelException("Can't set tile pixels with the required size", kSetTile);
  } else if (slot.use_count() > 1) {
    // Queued jobs still read the old pixels: give them their own copy of the tile instead of
    // writing under their feet. The tile keeps its dimensions either way.
    slot = sameKind(*slot);
  }
  slot->setPixels(pixels.data(), pixels.size(), offset);
  size_t const cost =
      size.size() >= 3 ? saturatingMul(saturatingMul(size[0], size[1]), size[2]) : 1;
  tileCache_->map.setCost(key, cost);
}

bool SoftwareRenderBackendInstance::tileSet(size_t tile) const {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  return tileCache_->map.contains({id_, tile});
}

void SoftwareRenderBackendInstance::lockTile(size_t tile) {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  tileCache_->map.lock({id_, tile});
}

void SoftwareRenderBackendInstance::unlockTile(size_t tile) {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  tileCache_->map.unlock({id_, tile});
}

size_t SoftwareRenderBackendInstance::eraseTile(size_t tile) {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  return tileCache_->map.erase({id_, tile});
}

size_t SoftwareRenderBackendInstance::eraseTiles(size_t first, size_t last) {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  return tileCache_->map.eraseRange({id_, first}, {id_, last});
}

size_t SoftwareRenderBackendInstance::clearTiles() {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  return tileCache_->map.eraseRange({id_, 0}, {id_, std::numeric_limits<size_t>::max()});
}

size_t SoftwareRenderBackendInstance::freeSlots() const { return renderer_->freeSlots(); }

CacheStats SoftwareRenderBackendInstance::tileCacheStats() const {
  std::lock_guard<std::mutex> lock(tileCache_->mutex);
  auto const& m = tileCache_->map;
  return {m.size(), m.totalCost(), m.lockedCost(), m.capacity()};
}

CacheStats SoftwareRenderBackendInstance::envelopeCacheStats() const {
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  auto const& m = envelopeCache_->map;
  return {m.size(), m.totalCost(), m.lockedCost(), m.capacity()};
}

// ---------------------------------------------------------------------------------------
// Instance: data envelopes and staging buffers
// ---------------------------------------------------------------------------------------

std::shared_ptr<DataEnvelopes const> SoftwareRenderBackendInstance::dataEnvelopes(
    std::vector<unsigned char> const& id) const {
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  auto const* envelopes = envelopeCache_->map.touch({id_, id});
  if (envelopes == nullptr || !*envelopes) {
    throw QuorvelException("Requested DataEnvelopes doesn't exist", kGetEnvelopes);
  }
  return *envelopes;
}

void SoftwareRenderBackendInstance::dataEnvelopes(std::vector<unsigned char> const& id,
                                                  EnvelopeData const& data) {
  // Refused data leaves the set stored under the id as it was: check and build first.
  DataEnvelopes::validate(data, kSetEnvelopes);
  auto envelopes = std::make_shared<DataEnvelopes>();
  envelopes->set(id, data);
  backend_detail::EnvelopeKey key{id_, id};
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  envelopeCache_->map.access(key) = std::move(envelopes);
  auto const* stored = envelopeCache_->map.peek(key);
  envelopeCache_->map.setCost(key, saturatingMul(kEnvelopeEntryCost, (*stored)->indexSize()));
}

bool SoftwareRenderBackendInstance::dataEnvelopesSet(std::vector<unsigned char> const& id) const {
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  return envelopeCache_->map.contains({id_, id});
}

void SoftwareRenderBackendInstance::lockDataEnvelopes(std::vector<unsigned char> const& id) {
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  envelopeCache_->map.lock({id_, id});
}

void SoftwareRenderBackendInstance::unlockDataEnvelopes(std::vector<unsigned char> const& id) {
  std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
  envelopeCache_->map.unlock({id_, id});
}

std::unique_ptr<ConcurrentStagingBuffer> SoftwareRenderBackendInstance::concurrentStagingBuffer(
    size_t targetOrTileId, RenderBackend::BufferType type, std::vector<size_t> const& size) {
  return std::make_unique<SoftwareConcurrentStagingBuffer>(targetOrTileId, type, size);
}

bool SoftwareRenderBackendInstance::synchronizeConcurrentStagingBuffer(
    std::unique_ptr<ConcurrentStagingBuffer>&& buffer) {
  auto* staging = dynamic_cast<SoftwareConcurrentStagingBuffer*>(buffer.get());
  if (staging == nullptr) {
    throw QuorvelException("could cast ConcurrentStagingBuffer to this backend", kSynchronize);
  }
  backend_detail::TileKey const key{id_, staging->targetOrTileId()};
  {
    std::lock_guard<std::mutex> lock(tileCache_->mutex);
    tileCache_->map.access(key) = staging->buffer();
    tileCache_->map.setCost(key, staging->buffer()->byteSize());
  }
  buffer.reset();
  return true;
}

}  // namespace quorvel
