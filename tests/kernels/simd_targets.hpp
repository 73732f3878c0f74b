#pragma once
// Runs a test body once for every SIMD target that is both compiled in and supported by
// this processor, so the dispatched kernels are checked on each instruction set.

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstdint>

namespace quorvel::testing {

/// Calls body() with dynamic dispatch forced to each available target in turn, then
/// restores the normal choice.
template <class F>
void forEachSimdTarget(F&& body) {
  for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    SCOPED_TRACE(hwy::TargetName(target));
    body();
  }
  hwy::SetSupportedTargetsForTest(0);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace quorvel::testing
