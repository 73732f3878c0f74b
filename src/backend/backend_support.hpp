#pragma once
// Arithmetic shared by the files of the backend instance.

#include <cstdint>

namespace quorvel::backend_support {

/// Signed 32-bit arithmetic with two's-complement wrap, as the drawing geometry is defined.
inline int32_t wrap32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

}  // namespace quorvel::backend_support
