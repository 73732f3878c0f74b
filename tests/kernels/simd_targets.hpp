#pragma once
// Runs a test body once for every SIMD target this processor supports, so the dispatched
// kernels are checked on each instruction set. Every supported bit is tried, not only the
// targets compiled into the test itself: some kernels also build opt-in targets (AVX-512
// with VBMI) that the test file does not.

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstdint>

namespace quorvel::testing {

/// Calls body() with dynamic dispatch forced to each available target in turn, then
/// restores the normal choice.
template <class F>
void forEachSimdTarget(F&& body) {
  auto const supported = static_cast<uint64_t>(hwy::SupportedTargets());
  for (uint64_t bit = 1; bit != 0 && bit <= supported; bit <<= 1) {
    if ((supported & bit) == 0) continue;
    hwy::SetSupportedTargetsForTest(static_cast<int64_t>(bit));
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    SCOPED_TRACE(hwy::TargetName(static_cast<int64_t>(bit)));
    body();
  }
  hwy::SetSupportedTargetsForTest(0);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace quorvel::testing
