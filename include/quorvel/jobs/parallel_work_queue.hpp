#pragma once
// A fixed-capacity job queue served by a fixed set of worker threads.
//
// The design is lock-light: producers claim one of N slots with an atomic test-and-set,
// workers take jobs with another test-and-set, lowest slot first. The two mutexes exist only
// so that a producer (all slots busy) or an idle worker (no job) can sleep on a condition;
// signals are sent without holding them, and the timed waits (100 ms for producers, 1 s for
// workers) bound any wake-up that is missed that way.
//
// Thread safety: operator() may be called from any number of threads at once. The
// destructor must run on a thread that is not one of the workers.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "quorvel/errors/exception.hpp"

namespace quorvel {

template <class T, class W, size_t N>
class ParallelWorkQueue {
 public:
  using Function = std::function<void(T&, W&)>;

  /// Starts `threads` workers; fails with std::invalid_argument for 0.
  explicit ParallelWorkQueue(size_t threads) {
    if (threads == 0) throw std::invalid_argument("Number of threads must be non-zero");
    for (auto& flag : jobAbsent_) flag.test_and_set();
    running_.test_and_set();
    noError_.test_and_set();
    alive_.resize(threads);
    running_jobs_.reserve(threads);
    for (size_t i = 0; i < threads; ++i) {
      alive_[i] = std::make_unique<std::atomic_flag>();
      alive_[i]->clear();
      alive_[i]->test_and_set();
      running_jobs_.emplace_back(std::make_unique<RunningJob>());
      workers_.emplace_back([this, i] { work(i); });
    }
    idleWorkers_.store(threads);
  }

  ParallelWorkQueue(ParallelWorkQueue const&) = delete;
  ParallelWorkQueue& operator=(ParallelWorkQueue const&) = delete;

  /// Stops accepting work, lets the workers drain every queued job, and joins them.
  ~ParallelWorkQueue() { close(); }

  /// Queues one job and returns {slot, ticket}. Blocks while all N slots are busy. Reports a
  /// worker failure that happened since the last push (once) before queueing.
  std::pair<size_t, size_t> operator()(T&& item, Function&& function) {
    if (workers_.empty()) {
      throw QuorvelException("Attempting to add job to closed queue",
                             std::string("std::pair<size_t, size_t> ParallelWorkQueue<T,W,N>") +
                                 "::operator()(T&& item, std::function<void(T&, W&)>&& function)");
    }
    rethrowAnyException();
    size_t slot = claimSlot();
    Slot& s = slots_[slot];
    s.item = std::move(item);
    s.function = std::move(function);
    uint64_t const ticket = jobCounter_.fetch_add(1);
    tickets_[slot].store(ticket);
    jobAbsent_[slot].clear();
    freeSlots_.fetch_sub(1);
    wakeOne(workerMutex_, jobAvailable_, sleepingWorkers_);
    return {slot, static_cast<size_t>(ticket)};
  }

  /// Throws "in error state" around a worker failure recorded since the last report.
  void rethrowAnyException() {
    if (noError_.test_and_set()) return;
    std::exception_ptr failure;
    {
      std::lock_guard<std::mutex> lock(failureMutex_);
      failure = failure_;
    }
    try {
      std::rethrow_exception(failure);
    } catch (...) {
      std::throw_with_nested(QuorvelException(
          "in error state", std::string("std::pair<size_t, size_t> ParalllelWorkQueue<") +
                                typeid(T).name() + typeid(W).name() +
                                ",size_t>::rethrowAnyException()"));
    }
  }

  /// Slots not holding a job or being filled. Thread-safe; a snapshot.
  size_t freeSlots() const { return static_cast<size_t>(freeSlots_.load()); }
  /// Workers not running a job. Thread-safe; a snapshot.
  size_t idleWorkers() const { return static_cast<size_t>(idleWorkers_.load()); }
  size_t workerCount() const { return workers_.size(); }

 private:
  struct Slot {
    T item{};
    Function function;
  };
  // The job a worker runs, {slot, ticket}; {SIZE_MAX, SIZE_MAX} while it runs none.
  struct RunningJob {
    std::atomic<uint64_t> slot{SIZE_MAX};
    std::atomic<uint64_t> ticket{SIZE_MAX};
  };

  // Signals one sleeper of `condition`. The flag the sleeper waits for was set (seq_cst)
  // before `sleepers` is read, and a sleeper counts itself before its last scan, so either
  // that scan sees the flag or this call sees the sleeper; passing through the mutex then
  // delays the signal until the sleeper is inside its wait. No lock when nobody sleeps.
  static void wakeOne(std::mutex& mutex, std::condition_variable& condition,
                      std::atomic<uint64_t>& sleepers) {
    if (sleepers.load() != 0) {
      std::lock_guard<std::mutex> lock(mutex);
    }
    condition.notify_one();
  }

  // The first index whose flag test-and-set finds clear, or N.
  static size_t claimFirst(std::atomic_flag (&flags)[N]) {
    for (size_t i = 0; i < N; ++i) {
      if (!flags[i].test_and_set()) return i;
    }
    return N;
  }

  // Scans `flags` once more under `mutex` after counting itself as a sleeper, and sleeps
  // until signalled or `timeout` only when that scan finds nothing. Returns the claimed
  // index or N. The timeout stays as a backstop.
  static size_t claimOrSleep(std::atomic_flag (&flags)[N], std::mutex& mutex,
                             std::condition_variable& condition, std::atomic<uint64_t>& sleepers,
                             std::chrono::steady_clock::duration timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    sleepers.fetch_add(1);
    size_t const claimed = claimFirst(flags);
    if (claimed == N) condition.wait_until(lock, std::chrono::steady_clock::now() + timeout);
    sleepers.fetch_sub(1);
    return claimed;
  }

  size_t claimSlot() {
    for (;;) {
      size_t slot = claimFirst(slotBusy_);
      if (slot == N) {
        slot = claimOrSleep(slotBusy_, producerMutex_, slotFree_, sleepingProducers_,
                            std::chrono::milliseconds(100));
      }
      if (slot != N) return slot;
    }
  }

  void work(size_t index) {
    W renderer{};
    for (;;) {
      bool const running = running_.test_and_set();
      size_t taken = claimFirst(jobAbsent_);
      if (taken == N && running) {
        taken = claimOrSleep(jobAbsent_, workerMutex_, jobAvailable_, sleepingWorkers_,
                             std::chrono::seconds(1));
        if (taken == N) continue;
      }
      if (!running) {
        // Keep the stop visible to every other worker; drain until a scan finds nothing.
        running_.clear();
        if (taken == N) {
          alive_[index]->clear();
          return;
        }
      }
      runJob(index, taken, renderer);
    }
  }

  void runJob(size_t index, size_t slot, W& renderer) {
    Slot& s = slots_[slot];
    T item = std::move(s.item);
    s.item = T{};
    Function function = std::move(s.function);
    s.function = nullptr;
    uint64_t const ticket = tickets_[slot].load();
    running_jobs_[index]->slot.store(slot);
    running_jobs_[index]->ticket.store(ticket);
    idleWorkers_.fetch_sub(1);
    tickets_[slot].fetch_add(1);
    slotBusy_[slot].clear();
    freeSlots_.fetch_add(1);
    wakeOne(producerMutex_, slotFree_, sleepingProducers_);
    try {
      function(item, renderer);
    } catch (...) {
      recordFailure(index);
    }
    running_jobs_[index]->slot.store(SIZE_MAX);
    running_jobs_[index]->ticket.store(SIZE_MAX);
    idleWorkers_.fetch_add(1);
  }

  // Keeps the first failure until a push reports it. A failure that arrives while another
  // is pending is dropped, and its test-and-set re-arms the flag, so the pending one is not
  // reported either: callers learn of failures through the targets' error state.
  void recordFailure(size_t index) {
    running_jobs_[index]->slot.store(SIZE_MAX);
    running_jobs_[index]->ticket.store(SIZE_MAX);
    if (!noError_.test_and_set()) return;
    try {
      std::throw_with_nested(QuorvelException(
          "Worker thread failed", std::string("void ParallelWorkQueue<") + typeid(T).name() + "," +
                                      typeid(W).name() + ",size_t>::work(...)"));
    } catch (...) {
      // Two workers can both find the flag set; the lock keeps their stores apart.
      std::lock_guard<std::mutex> lock(failureMutex_);
      failure_ = std::current_exception();
    }
    noError_.clear();
  }

  void close() {
    running_.clear();
    jobAvailable_.notify_all();
    for (size_t i = 0; i < workers_.size(); ++i) {
      while (alive_[i]->test_and_set()) {
        jobAvailable_.notify_all();
        std::this_thread::yield();
      }
      workers_[i].join();
    }
  }

  std::atomic_flag running_ = ATOMIC_FLAG_INIT;
  std::atomic_flag noError_ = ATOMIC_FLAG_INIT;
  std::mutex failureMutex_;
  std::exception_ptr failure_;
  std::vector<std::thread> workers_;
  std::vector<std::unique_ptr<std::atomic_flag>> alive_;
  std::atomic_flag slotBusy_[N] = {};
  std::atomic_flag jobAbsent_[N] = {};
  Slot slots_[N];
  std::atomic<uint64_t> tickets_[N] = {};
  std::vector<std::unique_ptr<RunningJob>> running_jobs_;
  std::atomic<uint64_t> jobCounter_{0};
  std::atomic<uint64_t> freeSlots_{N};
  std::atomic<uint64_t> idleWorkers_{0};
  std::mutex producerMutex_;
  std::condition_variable slotFree_;
  std::mutex workerMutex_;
  std::condition_variable jobAvailable_;
  // Threads between their last scan and the end of their timed wait.
  std::atomic<uint64_t> sleepingProducers_{0};
  std::atomic<uint64_t> sleepingWorkers_{0};
};

}  // namespace quorvel
