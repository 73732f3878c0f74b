#pragma once
// What the kernels keep from one job to the next on one worker thread, and the entry through
// which a worker runs a filter job with it.

#include <cstddef>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {
class CLAHE;
}

namespace quorvel::kernel {

/// Working storage owned by one worker and lent to the kernels it runs, so that a stream of
/// jobs does not allocate, fault in and zero the same memory again for every job. Not
/// thread-safe: one per worker.
class WorkerScratch {
 public:
  WorkerScratch();
  ~WorkerScratch();
  WorkerScratch(WorkerScratch const&) = delete;
  WorkerScratch& operator=(WorkerScratch const&) = delete;

  /// The worker's equaliser for a source `width` pixels wide, or null for a wider source,
  /// which gets one of its own for the call. The kept one holds about 170 bytes per pixel of
  /// width (the bins and mappings of two tile rows, the tables and weights of one block
  /// row): 0.7 MiB at the bound.
  CLAHE* clahe(size_t width);
  static constexpr size_t kClaheWidth = 4096;

 private:
  std::unique_ptr<CLAHE> clahe_;
};

/// filter.apply(inputs, inputRects, outputs, outputRects, params), run with the worker's
/// scratch where the filter is exactly a kernel that uses it (a subclass keeps its own apply).
void applyOnWorker(SoftwareFilter& filter, WorkerScratch& scratch,
                   std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                   std::vector<std::vector<int>> const& inputRects,
                   std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                   std::vector<std::vector<int>> const& outputRects,
                   SingleFilterParameters const& params);

}  // namespace quorvel::kernel
