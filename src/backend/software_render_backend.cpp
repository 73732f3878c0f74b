#include "quorvel/backend/software_render_backend.hpp"

#include <algorithm>
#include <limits>

#include "backend/renderer.hpp"
#include "backend/shared_caches.hpp"
#include "backend/staging_buffer.hpp"
#include "kernels/builtin_filters.hpp"
#include "quorvel/context/render_context.hpp"
#include "quorvel/kernels/registry.hpp"

namespace quorvel {
namespace {

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
constexpr char kCreateShader[] =
    "std::string SoftwareRenderBackend::Instance::createShaderInstance(Filter const& filter)";
constexpr char kDestroyFilter[] =
    "void SoftwareRenderBackend::Instance::destroyFilterInstance(Filter& filter)";
constexpr char kExecuteFilter[] =
    "void SoftwareRenderBackend::Instance::executeFilter(Filter const& filter, "
    "std::vector<FilterSource> const& sources, size_t inputW, size_t inputH, size_t "
    "destination, size_t clipLeft, size_t clipRight, size_t clipTop, size_t clipBottom, "
    "std::vector<size_t> const& offset)";
constexpr char kDrawTiles[] =
    "void SoftwareRenderBackend::Instance::drawTiles(size_t target, Filter const& tileShader, "
    "std::vector<size_t> const& range, std::vector<size_t> const& canvasRange, "
    "std::vector<size_t> const& tileSize, std::vector<std::vector<size_t>> const& blockCoords, "
    "std::vector<size_t> const& blocks, std::vector<size_t> const& offsets)";
constexpr char kMaskRange[] =
    "void SoftwareRenderBackend::Instance::maskRange(size_t source, size_t target, Filter const& "
    "maskFilter, std::vector<unsigned char> const& envelopesId, std::vector<size_t> const& "
    "range)";
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

// Signed 32-bit arithmetic with two's-complement wrap, as the drawing geometry is defined.
int32_t wrap32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

size_t saturatingMul(size_t a, size_t b) {
  if (a != 0 && b > std::numeric_limits<size_t>::max() / a)
    return std::numeric_limits<size_t>::max();
  return a * b;
}

std::string notAvailable(Filter const& filter) {
  return "Instance for Filter <" + filter.name() + "> not available";
}

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
// Instance: filter instances and execution
// ---------------------------------------------------------------------------------------

std::shared_ptr<SoftwareFilter> SoftwareRenderBackendInstance::findFilter(
    Filter const& filter) const {
  auto const& handle = filter.implementation();
  if (!handle) return nullptr;
  std::lock_guard<std::mutex> lock(filterInstances_->mutex);
  auto it = filterInstances_->map.find(*handle);
  return it == filterInstances_->map.end() ? nullptr : it->second;
}

void SoftwareRenderBackendInstance::createFilterInstance(Filter& filter) {
  if (filter.implementation()) return;
  std::lock_guard<std::mutex> lock(filterInstances_->mutex);
  auto& map = filterInstances_->map;
  size_t id = 0;
  for (auto const& entry : map) {
    if (entry.first != id) break;
    ++id;
  }
  std::unique_ptr<SoftwareFilter> kernel;
  if (extraFactory_ && extraFactory_->contains(filter.name())) {
    kernel = extraFactory_->get(filter.name()).create(filter);
  } else if (builtinFactory_->contains(filter.name())) {
    kernel = builtinFactory_->get(filter.name()).create(filter);
  } else {
    throw QuorvelException("Filter <" + filter.name() + "> not available", kCreateShader);
  }
  if (!kernel) throw QuorvelException("Failed to create shader instance", kCreateShader);
  auto handle = std::make_shared<size_t>(id);
  kernel->setImplementation(handle);
  map.emplace(id, std::shared_ptr<SoftwareFilter>(std::move(kernel)));
  filter.setImplementation(std::move(handle));
}

void SoftwareRenderBackendInstance::destroyFilterInstance(Filter& filter) {
  auto const& handle = filter.implementation();
  if (!handle) return;
  std::shared_ptr<SoftwareFilter> kernel;
  {
    std::lock_guard<std::mutex> lock(filterInstances_->mutex);
    auto it = filterInstances_->map.find(*handle);
    if (it == filterInstances_->map.end()) {
      throw QuorvelException(notAvailable(filter), kDestroyFilter);
    }
    // Keep the kernel alive until the lock is released; queued jobs may hold it longer.
    kernel = std::move(it->second);
    filterInstances_->map.erase(it);
  }
}

void SoftwareRenderBackendInstance::executeFilter(
    Filter const& filter, std::vector<FilterSource> const& sources, size_t inputW, size_t inputH,
    size_t destination, size_t clipLeft, size_t clipRight, size_t clipTop, size_t clipBottom,
    SingleFilterParameters const& params, std::vector<size_t> const& offset) {
  auto kernel = findFilter(filter);
  if (!kernel) throw QuorvelException(notAvailable(filter), kExecuteFilter);
  auto target = requireTarget(destination, kExecuteFilter);

  uint64_t const outW =
      uint64_t{inputW} * kernel->scaleXNum() / std::max<size_t>(kernel->scaleXDen(), 1);
  uint64_t const outH =
      uint64_t{inputH} * kernel->scaleYNum() / std::max<size_t>(kernel->scaleYDen(), 1);
  uint64_t const left = kernel->invalidLeft(), right = kernel->invalidRight();
  uint64_t const top = kernel->invalidTop(), bottom = kernel->invalidBottom();
  uint64_t const offX = offset.size() > 0 ? offset[0] : 0, offY = offset.size() > 1 ? offset[1] : 0;
  // A recycled job keeps the storage of its lists; the rectangles are written into it.
  RenderJob job = renderer_->newJob();
  job.kind = RenderJob::kFilter;
  job.filter = std::move(kernel);
  job.inputRects.resize(sources.size());
  job.sources.reserve(sources.size());
  for (size_t i = 0; i < sources.size(); ++i) {
    FilterSource const& source = sources[i];
    auto proxy = requireTarget(source.target, kExecuteFilter);
    if (source.whole) {
      std::vector<int> const whole = proxy->buffer()->rect();
      job.inputRects[i].assign(whole.begin(), whole.end());
    } else {
      job.inputRects[i].assign(
          {wrap32(source.x), wrap32(source.y), wrap32(inputW), wrap32(inputH)});
    }
    job.sources.push_back(std::move(proxy));
  }
  // The left and top clips move the origin but do not shorten the rectangle; only the right
  // and bottom clips do. Hosts rely on this pairing.
  job.outputRects.resize(1);
  job.outputRects[0].assign({wrap32(offX - left - clipLeft), wrap32(offY - top - clipTop),
                             wrap32(outW - left - right - clipRight),
                             wrap32(outH - top - bottom - clipBottom)});
  job.targets.push_back(std::move(target));
  // The shared empty set lives for the whole program; anything else is copied so that the
  // caller's object may go away before a worker runs the job.
  if (&params != &FilterEmptyParams::instance()) job.params = params.clone();
  renderer_->submit(std::move(job));
}

// ---------------------------------------------------------------------------------------
// Instance: drawing and batching
// ---------------------------------------------------------------------------------------

void SoftwareRenderBackendInstance::drawTiles(size_t target, Filter const& tileShader,
                                              std::vector<size_t> const& range,
                                              std::vector<size_t> const& canvasRange,
                                              std::vector<size_t> const& tileSize,
                                              std::vector<std::vector<size_t>> const& blockCoords,
                                              std::vector<size_t> const& blocks,
                                              std::vector<size_t> const& offsets) {
  auto proxy = requireTarget(target, kDrawTiles);
  auto kernel = findFilter(tileShader);
  if (!kernel) throw QuorvelException(notAvailable(tileShader), kDrawTiles);
  if (range.size() < 3 || canvasRange.size() < 3)
    throw QuorvelException("Invalid range", kDrawTiles);
  if (tileSize.size() < 2) throw QuorvelException("Invalid tile size", kDrawTiles);
  if (blockCoords.size() < blocks.size() ||
      std::any_of(blockCoords.begin(), blockCoords.begin() + static_cast<long>(blocks.size()),
                  [](auto const& c) { return c.size() < 2; })) {
    throw QuorvelException("Invalid block coordinates", kDrawTiles);
  }

  uint64_t const offX = offsets.empty() ? 0 : offsets[0];
  uint64_t const offY = offsets.size() < 2 ? 0 : offsets[1];
  uint64_t const baseX = offX - range[0] + canvasRange[0];
  uint64_t const baseY = offY - range[2] + canvasRange[2];
  int32_t const tileW = wrap32(tileSize[0]), tileH = wrap32(tileSize[1]);

  // Every job is built first, so a failure leaves nothing half queued.
  std::vector<RenderJob> jobs;
  jobs.reserve(blocks.size());
  {
    std::lock_guard<std::mutex> lock(tileCache_->mutex);
    for (size_t i = 0; i < blocks.size(); ++i) {
      int32_t const x = wrap32(blockCoords[i][0] * tileSize[0] + baseX);
      int32_t const y = wrap32(blockCoords[i][1] * tileSize[1] + baseY);
      RenderJob job = renderer_->newJob();
      job.targets.push_back(proxy);
      auto const* tile = tileCache_->map.touch({id_, blocks[i]});
      if (tile == nullptr || !*tile) {
        // A missing tile blanks its square instead of failing the draw.
        job.kind = RenderJob::kClear;
        job.color = {0};
        job.rect[0] = x, job.rect[1] = y, job.rect[2] = tileW, job.rect[3] = tileH;
        job.inputRects.clear();
        job.outputRects.clear();
      } else {
        job.kind = RenderJob::kFilter;
        job.filter = kernel;
        std::shared_ptr<Buffer2D> const& buffer = *tile;
        std::vector<int> const whole = buffer->rect();
        job.inputRects.resize(1);
        job.inputRects[0].assign(whole.begin(), whole.end());
        job.sources.push_back(std::make_shared<BufferProxy>(buffer, blocks[i], true));
        job.outputRects.resize(1);
        job.outputRects[0].assign({x, y, tileW, tileH});
      }
      jobs.push_back(std::move(job));
    }
  }
  for (auto& job : jobs) renderer_->submit(std::move(job));
}

void SoftwareRenderBackendInstance::finalizeDrawSequence() { renderer_->flush(); }

void SoftwareRenderBackendInstance::maskRange(size_t source, size_t target,
                                              Filter const& maskFilter,
                                              std::vector<unsigned char> const& envelopesId,
                                              std::vector<size_t> const& range) {
  auto sourceProxy = requireTarget(source, kMaskRange);
  auto targetProxy = requireTarget(target, kMaskRange);
  auto kernel = findFilter(maskFilter);
  if (!kernel) throw QuorvelException(notAvailable(maskFilter), kMaskRange);
  if (!isMaskFilter(maskFilter.name())) {
    throw QuorvelException("Filter <" + maskFilter.name() + "> not supported", kMaskRange);
  }
  if (range.size() != 4 || range[0] > range[1] || range[2] > range[3]) {
    throw QuorvelException("Invalid range", kMaskRange);
  }
  auto params = std::make_shared<MaskFilterParams>();
  {
    std::lock_guard<std::mutex> lock(envelopeCache_->mutex);
    auto const* envelopes = envelopeCache_->map.touch({id_, envelopesId});
    if (envelopes == nullptr || !*envelopes) {
      throw QuorvelException("Requested DataEnvelopes doesn't exist", kMaskRange);
    }
    params->envelopes = *envelopes;
  }
  // The region travels as the kernel's rectangle, in {xmin, xmax, ymin, ymax} order.
  std::vector<int> const region = {wrap32(range[0]), wrap32(range[1]), wrap32(range[2]),
                                   wrap32(range[3])};
  RenderJob job;
  job.kind = RenderJob::kFilter;
  job.filter = std::move(kernel);
  job.inputRects.push_back(region);
  job.sources.push_back(std::move(sourceProxy));
  job.outputRects.push_back(region);
  job.targets.push_back(std::move(targetProxy));
  job.params = std::move(params);
  renderer_->submit(std::move(job));
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
