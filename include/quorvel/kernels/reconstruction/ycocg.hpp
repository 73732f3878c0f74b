#pragma once
// Lossless YCoCg-R colour transforms between interleaved {Y, Co, Cg} 16-bit pixels and RGB.
//
//   to RGB:   t = Y - (Cg >> 1), G = t + Cg, B = t - (Co >> 1), R = B + Co
//   to YCoCg: Co = R - B, t = B + (Co >> 1), Cg = G - t, Y = t + (Cg >> 1)
// with >> an arithmetic shift (rounding towards minus infinity), so an 8-bit RGB colour
// survives the round trip exactly. Rectangles are clipped with getValidRects.

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

/// "FilterYCoCg16ToRGB16": {Y, Co, Cg} to {R, G, B}, all in 16-bit wrap-around arithmetic.
/// Only <int16_t, int16_t> is instantiated.
template <class In, class Out>
class QUORVEL_API SoftwareFilterYCoCgToRGB : public SoftwareFilter {
 public:
  explicit SoftwareFilterYCoCgToRGB(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

/// "FilterYCoCg16ToRGBA8": {Y, Co, Cg} to {R, G, B, 255}, computed in 32 bits and clamped
/// to 0..255. Only <int16_t, uint8_t> is instantiated.
template <class In, class Out>
class QUORVEL_API SoftwareFilterYCoCgToRGBA : public SoftwareFilter {
 public:
  explicit SoftwareFilterYCoCgToRGBA(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

/// "FilterRGBA8ToYCoCg16": {R, G, B, A} to {Y, Co, Cg}; alpha is ignored.
/// Only <uint8_t, int16_t> is instantiated.
template <class In, class Out>
class QUORVEL_API SoftwareFilterRGBAToYCoCg : public SoftwareFilter {
 public:
  explicit SoftwareFilterRGBAToYCoCg(Filter const& description) : SoftwareFilter(description) {}
  /// Converts inputRects[0] of inputs[0] into outputRects[0] of outputs[0].
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareFilterYCoCgToRGB<int16_t, int16_t>;
extern template class SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>;
extern template class SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>;

namespace reference {

/// Scalar rows (benchmark baselines): `pixels` interleaved pixels from src to dst.
/// {Y, Co, Cg} x int16 -> {R, G, B} x int16, 16-bit wrap-around.
QUORVEL_API void yCoCgToRgb16(int16_t const* src, int16_t* dst, size_t pixels);
/// {Y, Co, Cg} x int16 -> {R, G, B, 255} x uint8, clamped.
QUORVEL_API void yCoCgToRgba8(int16_t const* src, uint8_t* dst, size_t pixels);
/// {R, G, B, A} x uint8 -> {Y, Co, Cg} x int16.
QUORVEL_API void rgba8ToYCoCg(uint8_t const* src, int16_t* dst, size_t pixels);

}  // namespace reference
}  // namespace quorvel
