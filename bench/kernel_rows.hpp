#pragma once
// Registration of the single-threaded kernel rows.

#include "side_by_side.hpp"

namespace quorvel::bench {

/// Adds one row per registered filter (and one for the 16-bit sharpness pair) at 256^2,
/// 1024^2 and 4096^2 output pixels, kernel by kernel.
void registerKernelRows(Registry& registry);

}  // namespace quorvel::bench
