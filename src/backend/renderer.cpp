#include "backend/renderer.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "quorvel/context/render_context.hpp"

namespace quorvel {
namespace {

constexpr char kExecuteJob[] = "void JobRenderer::executeJob(RenderJob& job)";
constexpr char kWait[] = "void BufferProxy::wait()";

// A buffer that should have pixels but has no storage (a source that was never written, a
// target released under a job) would send the kernel through a null pointer.
void requireStorage(std::shared_ptr<Buffer2D> const& buffer) {
  // The sides are tested one by one: their product can wrap to 0 for a huge buffer.
  if (!buffer || (buffer->pixelCount() == 0 && buffer->width() != 0 && buffer->height() != 0)) {
    throw QuorvelException("buffer data does not exist", kExecuteJob);
  }
}

// One pixel of the target's type from the clear colour: component i from color[i], narrowed
// to the component type; components the colour does not give are 0.
template <class P>
P pixelFromColor(std::vector<size_t> const& color) {
  using C = typename PixelTraits<P>::Channel;
  if constexpr (PixelTraits<P>::kChannels == 1) {
    return static_cast<C>(color.empty() ? 0 : color[0]);
  } else {
    P pixel{};
    for (size_t i = 0; i < pixel.size() && i < color.size(); ++i) {
      pixel[i] = static_cast<C>(color[i]);
    }
    return pixel;
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------
// BufferProxy
// ---------------------------------------------------------------------------------------

BufferProxy::BufferProxy(std::shared_ptr<Buffer2D> buffer, size_t id, bool allocated)
    : buffer_(std::move(buffer)), allocated_(allocated), id_(id) {}

void BufferProxy::wait() {
  std::exception_ptr error;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    condition_.wait(lock, [this] { return pendingJobs_ <= 0; });
    error = error_;
  }
  if (!error) return;
  try {
    std::rethrow_exception(error);
  } catch (...) {
    std::throw_with_nested(QuorvelException("in error state", kWait));
  }
}

bool BufferProxy::ready() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pendingJobs_ == 0;
}

int32_t BufferProxy::pendingJobs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pendingJobs_;
}

int32_t BufferProxy::activeUses() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return activeUses_;
}

void BufferProxy::addPending() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++pendingJobs_;
}

void BufferProxy::addUse() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++activeUses_;
}

void BufferProxy::finishJob(std::exception_ptr const& failure) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (failure) error_ = failure;
  if (pendingJobs_ > 0 && --pendingJobs_ == 0) condition_.notify_all();
  releaseIfIdleLocked();
}

void BufferProxy::finishUse() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (activeUses_ > 0) --activeUses_;
  releaseIfIdleLocked();
}

void BufferProxy::fail(std::exception_ptr const& failure) {
  std::lock_guard<std::mutex> lock(mutex_);
  error_ = failure;
}

void BufferProxy::release() {
  std::lock_guard<std::mutex> lock(mutex_);
  releaseRequested_ = true;
  releaseIfIdleLocked();
}

void BufferProxy::releaseIfIdleLocked() {
  // The storage goes only when no queued job writes or reads it any more; the last job to
  // finish frees it. This never blocks a worker on jobs of another batch.
  if (!releaseRequested_ || pendingJobs_ != 0 || activeUses_ != 0) return;
  releaseRequested_ = false;
  buffer_->resize(0, 0);
  allocated_.store(false);
}

void BufferProxy::allocate() {
  if (!allocated_.exchange(true)) buffer_->resize(buffer_->width(), buffer_->height());
}

// ---------------------------------------------------------------------------------------
// JobRenderer
// ---------------------------------------------------------------------------------------

void JobRenderer::executeJob(RenderJob& job) {
  switch (job.kind) {
    case RenderJob::kFilter: {
      std::vector<std::shared_ptr<Buffer2D>> inputs, outputs;
      inputs.reserve(job.sources.size());
      outputs.reserve(job.targets.size());
      for (auto const& source : job.sources) {
        requireStorage(source->buffer());
        inputs.push_back(source->buffer());
      }
      for (auto const& target : job.targets) {
        requireStorage(target->buffer());
        outputs.push_back(target->buffer());
      }
      kernel::applyOnWorker(*job.filter, scratch_, inputs, job.inputRects, outputs, job.outputRects,
                            job.params ? *job.params : FilterEmptyParams::instance());
      return;
    }
    case RenderJob::kAllocate:
      for (auto const& target : job.targets) target->allocate();
      return;
    case RenderJob::kRelease:
      for (auto const& target : job.targets) target->release();
      return;
    case RenderJob::kClear: {
      for (auto const& target : job.targets) {
        Buffer2D& buffer = *target->buffer();
        bool const known = visitBuffer(buffer, [&job](auto& typed) {
          using P = std::remove_reference_t<decltype(*typed.data())>;
          P const pixel = pixelFromColor<P>(job.color);
          if (job.rect[2] < 1 || job.rect[3] < 1) {
            typed.clear(pixel);
          } else {
            typed.clearRect(pixel, static_cast<size_t>(job.rect[0]),
                            static_cast<size_t>(job.rect[1]), static_cast<size_t>(job.rect[2]),
                            static_cast<size_t>(job.rect[3]));
          }
        });
        if (!known) throw QuorvelException("Invalid pixel type for buffer", kExecuteJob);
      }
      return;
    }
    default:
      return;
  }
}

namespace {

// The last spare item, or a new one when none is spare.
template <class T>
T popOrNew(std::vector<T>& spare) {
  if (spare.empty()) return T{};
  T item = std::move(spare.back());
  spare.pop_back();
  return item;
}

}  // namespace

RenderJob JobPool::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  return popOrNew(spare_);
}

RenderJobList JobPool::takeList() {
  std::lock_guard<std::mutex> lock(mutex_);
  return popOrNew(spareLists_);
}

void JobPool::strip(RenderJob& job) {
  job.kind = RenderJob::kFilter;
  job.color.clear();
  std::fill(std::begin(job.rect), std::end(job.rect), 0);
  job.filter.reset();
  job.sources.clear();
  job.targets.clear();
  job.params.reset();
}

void JobPool::give(RenderJobList& batch) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (RenderJob& job : batch) {
    if (spare_.size() >= kMaxSpareJobs) break;
    spare_.push_back(std::move(job));
  }
  batch.clear();
  if (spareLists_.size() < kMaxSpareLists) spareLists_.push_back(std::move(batch));
  batch.clear();  // a moved-from vector is left valid but unspecified
}

void JobRenderer::runBatch(RenderJobList& batch, JobRenderer& renderer, JobPool* pool) {
  // In order, one job after the other; a job's references are dropped as soon as it is done.
  for (RenderJob& job : batch) {
    std::exception_ptr failure;
    try {
      renderer.executeJob(job);
    } catch (...) {
      failure = std::current_exception();
    }
    // Only filter and clear jobs were counted on their buffers at submission.
    if (job.kind == RenderJob::kFilter || job.kind == RenderJob::kClear) {
      for (auto const& source : job.sources) source->finishUse();
      for (auto const& target : job.targets) target->finishJob(failure);
    } else if (failure) {
      for (auto const& target : job.targets) target->fail(failure);
    }
    JobPool::strip(job);
  }
  if (pool != nullptr) {
    pool->give(batch);
  } else {
    batch.clear();
  }
}

// ---------------------------------------------------------------------------------------
// Renderer
// ---------------------------------------------------------------------------------------

Renderer::Renderer(SoftwareRenderContext const& context, size_t threads) : queue_(threads) {
  size_t const id = reserveTargetId();
  setTarget(id, std::make_shared<BufferProxy>(context.outputBuffer(), 0, false));
}

Renderer::~Renderer() = default;

size_t Renderer::reserveTargetId() {
  std::lock_guard<std::mutex> lock(targetsMutex_);
  size_t id = 0;
  if (!freeIds_.empty()) {
    id = *freeIds_.begin();
    freeIds_.erase(freeIds_.begin());
  } else if (!targets_.empty()) {
    id = targets_.rbegin()->first + 1;
  }
  targets_[id];
  return id;
}

void Renderer::setTarget(size_t id, std::shared_ptr<BufferProxy> proxy) {
  std::lock_guard<std::mutex> lock(targetsMutex_);
  targets_[id] = std::move(proxy);
}

size_t Renderer::addTarget(std::shared_ptr<Buffer2D> buffer) {
  size_t const id = reserveTargetId();
  setTarget(id, std::make_shared<BufferProxy>(std::move(buffer), id, false));
  return id;
}

std::shared_ptr<BufferProxy> Renderer::getTarget(size_t id) {
  std::lock_guard<std::mutex> lock(targetsMutex_);
  return targets_[id];
}

void Renderer::eraseTarget(size_t id) {
  std::shared_ptr<BufferProxy> proxy;
  {
    std::lock_guard<std::mutex> lock(targetsMutex_);
    auto it = targets_.find(id);
    if (it == targets_.end() || !it->second) return;
    proxy = std::move(it->second);
    targets_.erase(it);
    freeIds_.insert(id);
  }
  if (proxy->pendingJobs() == 0 && proxy->activeUses() == 0) {
    proxy->release();
    return;
  }
  RenderJob job;
  job.kind = RenderJob::kRelease;
  job.targets.push_back(std::move(proxy));
  submit(std::move(job));
}

void Renderer::submit(RenderJob&& job) {
  // A target's storage is created lazily, on a worker, by an allocation job queued in front
  // of the first job that writes it.
  std::vector<RenderJob> allocations;
  if (job.kind == RenderJob::kFilter || job.kind == RenderJob::kClear) {
    for (auto const& source : job.sources) source->addUse();
    for (auto const& target : job.targets) {
      target->addPending();
      if (target->claimAllocation()) {
        RenderJob allocation;
        allocation.kind = RenderJob::kAllocate;
        allocation.targets.push_back(target);
        allocations.push_back(std::move(allocation));
      }
    }
  }
  std::lock_guard<std::mutex> lock(batchMutex_);
  auto it = batches_.find(std::this_thread::get_id());
  if (it == batches_.end())
    it = batches_.emplace(std::this_thread::get_id(), jobs_.takeList()).first;
  RenderJobList& batch = it->second;
  for (auto& allocation : allocations) batch.push_back(std::move(allocation));
  batch.push_back(std::move(job));
}

void Renderer::flush() {
  RenderJobList batch;
  {
    std::lock_guard<std::mutex> lock(batchMutex_);
    auto it = batches_.find(std::this_thread::get_id());
    if (it == batches_.end()) return;
    batch = std::move(it->second);
    batches_.erase(it);
  }
  if (batch.empty()) return;
  queue_(std::move(batch), [this](RenderJobList& jobs, JobRenderer& renderer) {
    JobRenderer::runBatch(jobs, renderer, &jobs_);
  });
}

}  // namespace quorvel
