// The backend instance's filter side: filter instances, filter runs, tile drawing and masks.
// Each call checks its arguments on the caller's thread and queues jobs for the workers.

#include <algorithm>
#include <string>

#include "backend/backend_support.hpp"
#include "backend/renderer.hpp"
#include "backend/shared_caches.hpp"
#include "kernels/builtin_filters.hpp"
#include "quorvel/backend/software_render_backend.hpp"

namespace quorvel {
namespace {

using backend_support::wrap32;

// The message of a call that names a filter with no instance on this backend.
std::string notAvailable(Filter const& filter) {
  return "Instance for Filter <" + filter.name() + "> not available";
}

// Location texts, part of the interface: they name the operation as it has always read.
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

}  // namespace

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

}  // namespace quorvel
