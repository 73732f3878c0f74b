#pragma once
// The built-in filters. They are registered beside the kernels that implement them, so the
// filter layer below needs none of the kernel headers.

#include "quorvel/export.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// Fills `factory` with the 28 built-in filters, in their registration order.
QUORVEL_API void registerBuiltinFilters(SoftwareFilterFactory& factory);

}  // namespace quorvel
