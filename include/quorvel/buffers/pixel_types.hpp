#pragma once
// The ten pixel types a buffer can hold, kept in one list so that every switch over
// them (clear jobs, target creation, typed tests) is generated from the same place.

#include <array>
#include <cstdint>

namespace quorvel {

using PixelRgb8 = std::array<uint8_t, 3>;
using PixelRgba8 = std::array<uint8_t, 4>;
using PixelRgbS8 = std::array<int8_t, 3>;
using PixelRgbaS8 = std::array<int8_t, 4>;
using PixelRgb16 = std::array<uint16_t, 3>;
using PixelRgbS16 = std::array<int16_t, 3>;

/// X(type) for each supported pixel type, in the order of the type table.
// (One type per line by hand: clang-format does not settle on a layout for this list.)
// clang-format off
#define QUORVEL_FOR_EACH_PIXEL_TYPE(X) \
  X(uint8_t)                           \
  X(int8_t)                            \
  X(uint16_t)                          \
  X(int16_t)                           \
  X(::quorvel::PixelRgb8)              \
  X(::quorvel::PixelRgba8)             \
  X(::quorvel::PixelRgbS8)             \
  X(::quorvel::PixelRgbaS8)            \
  X(::quorvel::PixelRgb16)             \
  X(::quorvel::PixelRgbS16)
// clang-format on

/// Channel count and channel type of a pixel type.
template <class P>
struct PixelTraits {
  using Channel = P;
  static constexpr size_t kChannels = 1;
};
template <class C, size_t N>
struct PixelTraits<std::array<C, N>> {
  using Channel = C;
  static constexpr size_t kChannels = N;
};

}  // namespace quorvel
