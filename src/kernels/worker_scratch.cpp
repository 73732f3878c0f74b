#include "kernels/worker_scratch.hpp"

#include <typeinfo>

#include "kernels/display/clahe_rows.hpp"
#include "quorvel/kernels/display/clahe.hpp"

namespace quorvel::kernel {

WorkerScratch::WorkerScratch() = default;
WorkerScratch::~WorkerScratch() = default;

CLAHE* WorkerScratch::clahe(size_t width) {
  if (width > kClaheWidth) return nullptr;
  if (!clahe_) clahe_ = std::make_unique<CLAHE>();
  return clahe_.get();
}

void applyOnWorker(SoftwareFilter& filter, WorkerScratch& scratch,
                   std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                   std::vector<std::vector<int>> const& inputRects,
                   std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                   std::vector<std::vector<int>> const& outputRects,
                   SingleFilterParameters const& params) {
  if (typeid(filter) == typeid(SoftwareFilterCLAHE) && !inputs.empty() && inputs[0]) {
    if (CLAHE* kept = scratch.clahe(inputs[0]->width())) {
      clahe_detail::applyClahe(*kept, inputs, inputRects, outputs, outputRects, params);
      return;
    }
  }
  filter.apply(inputs, inputRects, outputs, outputRects, params);
}

}  // namespace quorvel::kernel
