#pragma once
// The job side of the backend: render targets (BufferProxy), render jobs and their batches,
// the per-worker job runner, and the Renderer that owns the targets and the worker pool.
//
// Who runs what: instance operations build jobs and submit them on the caller's thread;
// finalizeDrawSequence pushes the caller's batch to the work queue as one item; a worker
// runs the jobs of one batch in order. Different batches may run on different workers at
// the same time, so a host that chains work across batches waits for the targets between.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "kernels/worker_scratch.hpp"
#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/filters/software_filter.hpp"
#include "quorvel/jobs/parallel_work_queue.hpp"

namespace quorvel {

class SoftwareRenderContext;

/// A render target (or a tile read by a job): a buffer with its pending-job count, the
/// allocation flag and the error of the last failed job. Thread-safe.
class BufferProxy {
 public:
  BufferProxy(std::shared_ptr<Buffer2D> buffer, size_t id, bool allocated);

  /// Waits until no job is pending, then throws "in error state" (nesting the job's
  /// failure) if a job on this target failed.
  void wait();
  /// True when no job is pending. Does not wait.
  bool ready() const;

  /// Called at submission: one more job writes (pending) or reads (active use) the buffer.
  void addPending();
  void addUse();
  /// Called by the batch runner after a job: lowers the count, keeps `failure` (if any)
  /// and wakes waiters when nothing is pending any more.
  void finishJob(std::exception_ptr const& failure);
  void finishUse();
  /// Stores a failure without touching the counts (jobs that were not counted).
  void fail(std::exception_ptr const& failure);

  /// Frees the storage now if no job uses the buffer, else once the last one finishes.
  void release();
  /// Creates the storage at the buffer's own size unless that was done already.
  void allocate();
  /// Marks the target as having its allocation job queued; true for the first caller only.
  bool claimAllocation() { return (allocationQueued_.fetch_or(1u) & 1u) == 0; }

  std::shared_ptr<Buffer2D> const& buffer() const { return buffer_; }
  size_t id() const { return id_; }
  bool allocated() const { return allocated_.load(); }
  int32_t pendingJobs() const;
  int32_t activeUses() const;

 private:
  void releaseIfIdleLocked();

  std::shared_ptr<Buffer2D> buffer_;
  std::atomic<bool> allocated_;
  size_t id_;
  std::atomic<uint32_t> allocationQueued_{0};
  mutable std::mutex mutex_;
  std::condition_variable condition_;
  int32_t pendingJobs_ = 0;
  int32_t activeUses_ = 0;
  std::exception_ptr error_;
  bool releaseRequested_ = false;
};

/// One unit of work.
struct RenderJob {
  enum Kind : int32_t { kAllocate = 0, kRelease = 1, kFilter = 2, kClear = 3 };

  int32_t kind = kFilter;
  std::vector<size_t> color;
  int32_t rect[4] = {0, 0, 0, 0};
  std::shared_ptr<SoftwareFilter> filter;
  std::vector<std::vector<int>> inputRects;
  std::vector<std::shared_ptr<BufferProxy>> sources;
  std::vector<std::vector<int>> outputRects;
  std::vector<std::shared_ptr<BufferProxy>> targets;
  /// The parameters passed to the kernel; the job owns a copy so that the caller's object
  /// may go away before a worker runs the job.
  std::shared_ptr<SingleFilterParameters const> params;
};

using RenderJobList = std::vector<RenderJob>;

/// Finished jobs and batches kept for the storage of their lists. Jobs and batches are built
/// on the host's thread and finished on a worker; destroyed there, each of their small
/// allocations would be freed on another thread than the one that made it, which the
/// default heap serves slowly and under a lock. Recycled, they stay allocated. Thread-safe.
class JobPool {
 public:
  /// A job that refers to nothing, its lists empty but with their capacity (the rectangle
  /// lists may still hold rectangles of an earlier use), or a new job when none is spare.
  RenderJob take();
  /// An empty batch, with the capacity of a finished one where one is spare.
  RenderJobList takeList();
  /// Drops the references a finished job holds (kernel, buffers, parameters), keeping the
  /// storage of its lists.
  static void strip(RenderJob& job);
  /// Keeps the stripped jobs of a finished batch and the batch's own storage for take() and
  /// takeList(), up to a bound; `batch` is left empty.
  void give(RenderJobList& batch);

 private:
  static constexpr size_t kMaxSpareJobs = 1024;
  static constexpr size_t kMaxSpareLists = 64;
  std::mutex mutex_;
  std::vector<RenderJob> spare_;
  std::vector<RenderJobList> spareLists_;
};

/// Runs jobs on one worker thread; one per worker.
class JobRenderer {
 public:
  /// Runs one job; throws what the job throws.
  void executeJob(RenderJob& job);
  /// Runs a whole batch in order, recording each job's failure in its targets, and leaves it
  /// empty; with a pool, the finished jobs and the batch's storage go back to it.
  static void runBatch(RenderJobList& batch, JobRenderer& renderer, JobPool* pool = nullptr);

 private:
  // What the kernels keep between this worker's jobs.
  kernel::WorkerScratch scratch_;
};

/// Owns the render targets and the worker pool shared by all instances of one backend.
/// Thread-safe: the target map and the per-thread batches are guarded.
class Renderer {
 public:
  Renderer(SoftwareRenderContext const& context, size_t threads);
  ~Renderer();

  /// Registers a new target under the smallest free id (see createTarget) and returns it.
  size_t addTarget(std::shared_ptr<Buffer2D> buffer);
  /// Reserves the id a new target will get, then stores the buffer under it.
  size_t reserveTargetId();
  void setTarget(size_t id, std::shared_ptr<BufferProxy> proxy);
  /// The proxy under `id`; an unknown id yields null and leaves an empty entry.
  std::shared_ptr<BufferProxy> getTarget(size_t id);
  /// Removes the id (giving it to the free set) and frees the storage once unused.
  void eraseTarget(size_t id);

  /// Appends the job to the calling thread's batch, counting it on its buffers and queueing
  /// the allocation of targets that were never written.
  void submit(RenderJob&& job);
  /// Pushes the calling thread's batch to the work queue; nothing when it is empty.
  void flush();
  /// An empty job for submit(), reusing the storage of a finished one (see JobPool).
  RenderJob newJob() { return jobs_.take(); }
  size_t freeSlots() const { return queue_.freeSlots(); }

 private:
  mutable std::mutex targetsMutex_;
  std::map<size_t, std::shared_ptr<BufferProxy>> targets_;
  std::set<size_t> freeIds_;
  std::mutex batchMutex_;
  std::map<std::thread::id, RenderJobList> batches_;
  JobPool jobs_;
  // Declared last so it is destroyed first: its destructor drains the queued batches while
  // everything they refer to is still alive.
  ParallelWorkQueue<RenderJobList, JobRenderer, 16> queue_;
};

}  // namespace quorvel
