#pragma once
// Per-pixel channel conversions: 16-bit to 8-bit narrowing (a clamp to 0..255, never a
// shift), planar-to-interleaved merging, alpha removal and coefficient quantisation.
// Rectangles are clipped with getValidRects, except for alpha removal, which uses them as
// given and only keeps them inside the buffers.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

#define QUORVEL_KERNEL_APPLY                                        \
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,  \
             std::vector<std::vector<int>> const& inputRects,       \
             std::vector<std::shared_ptr<Buffer2D>> const& outputs, \
             std::vector<std::vector<int>> const& outputRects,      \
             SingleFilterParameters const& params) override;

/// "Filter3x16To4x8": {R, G, B} x int16 to {R, G, B, 255} x uint8, each channel clamped.
template <class In, class Out>
class QUORVEL_API SoftwareFilter3x16To4x8 : public SoftwareFilter {
 public:
  explicit SoftwareFilter3x16To4x8(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  QUORVEL_KERNEL_APPLY
};

/// "Filter1x16To1x8": int16 to uint8, clamped to 0..255.
template <class In, class Out>
class QUORVEL_API SoftwareFilter1x16To1x8 : public SoftwareFilter {
 public:
  explicit SoftwareFilter1x16To1x8(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  QUORVEL_KERNEL_APPLY
};

/// "Filter1x16ToRGB8": int16 v to {v, v, v, 255} x uint8 with v clamped to 0..255 (the
/// target pixel is std::array<uint8_t, 4>).
template <class In, class Out>
class QUORVEL_API SoftwareFilterSingleChannelToRGB : public SoftwareFilter {
 public:
  explicit SoftwareFilterSingleChannelToRGB(Filter const& description)
      : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  QUORVEL_KERNEL_APPLY
};

/// "FilterInterleave16": N planes of T into std::array<T, N> pixels; source c is read in
/// its own rectangle inputRects[c]. Only <int16_t, 3> is instantiated.
template <class T, size_t N>
class QUORVEL_API SoftwareInterleaveFilter : public SoftwareFilter {
 public:
  explicit SoftwareInterleaveFilter(Filter const& description) : SoftwareFilter(description) {}
  /// Writes the part of outputRects[0] that every source's validated rectangle covers.
  QUORVEL_KERNEL_APPLY
};

/// "FilterRemoveAlpha8": std::array<T, 4> to std::array<T, 3>, dropping channel 3. The
/// rectangles are used without validation, only shrunk to stay inside both buffers.
template <class T>
class QUORVEL_API SoftwareFilterRemoveAlpha : public SoftwareFilter {
 public:
  explicit SoftwareFilterRemoveAlpha(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  QUORVEL_KERNEL_APPLY
};

/// "FilterTruncate16": clears the `bits` low-order bits of each magnitude (params is a
/// FilterTruncate16Params), optionally reconstructing non-zero values at the middle of
/// their interval; bits >= 16 zeroes a run of width x height elements from the output
/// origin, clamped to the buffer's end.
template <class T>
class QUORVEL_API SoftwareFilterTruncate : public SoftwareFilter {
 public:
  explicit SoftwareFilterTruncate(Filter const& description) : SoftwareFilter(description) {}
  /// Fails with "Filter parameters cast failed" for another parameter class.
  QUORVEL_KERNEL_APPLY
};

#undef QUORVEL_KERNEL_APPLY

extern template class SoftwareFilter3x16To4x8<int16_t, uint8_t>;
extern template class SoftwareFilter1x16To1x8<int16_t, uint8_t>;
extern template class SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>;
extern template class SoftwareInterleaveFilter<int16_t, 3>;
extern template class SoftwareFilterRemoveAlpha<uint8_t>;
extern template class SoftwareFilterTruncate<int16_t>;

namespace reference {

/// Scalar rows (benchmark baselines) of `pixels` pixels, channels interleaved.
/// {R, G, B} x int16 -> {R, G, B, 255} x uint8, clamped.
QUORVEL_API void rgb16ToRgba8(int16_t const* src, uint8_t* dst, size_t pixels);
/// int16 -> uint8, clamped.
QUORVEL_API void gray16To8(int16_t const* src, uint8_t* dst, size_t pixels);
/// int16 v -> {v, v, v, 255} x uint8, clamped.
QUORVEL_API void gray16ToRgba8(int16_t const* src, uint8_t* dst, size_t pixels);
/// Three planes -> {c0, c1, c2} x int16.
QUORVEL_API void interleave3(int16_t const* c0, int16_t const* c1, int16_t const* c2, int16_t* dst,
                             size_t pixels);
/// {R, G, B, A} x uint8 -> {R, G, B} x uint8.
QUORVEL_API void removeAlpha(uint8_t const* src, uint8_t* dst, size_t pixels);
/// Quantises `count` values with `bits` (< 16) low-order magnitude bits cleared; midpoint
/// adds (2^bits - 1) >> 1 to non-zero magnitudes. -32768 keeps its 16-bit magnitude.
QUORVEL_API void truncate16(int16_t const* src, int16_t* dst, size_t count, unsigned bits,
                            bool midpoint);

}  // namespace reference
}  // namespace quorvel
