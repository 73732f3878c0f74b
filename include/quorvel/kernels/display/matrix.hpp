#pragma once
// 3x3 colour matrix filters in Q10 fixed point: "Filter3x3Matrix8" on 4 x uint8 pixels
// (alpha copied) and "Filter3x3Matrix16" on 3 x int16 pixels.
//
// Per call the coefficients are scaled once: k = round(scale * 1024), m' = (m * k + 512)
// >> 10. Per pixel each output channel is S_j = sum_i ((m'[3i + j] * x_i * 1024 + 512) >>
// 10), every product rounded on its own and all of it in wrapping 32-bit arithmetic; S_j is
// clamped to the output range in Q10 and rounded half away from zero to the output sample.

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

/// Multiplies the three colour samples of every pixel by a scaled Q10 matrix. Instantiated
/// for <uint8_t, uint8_t, 4> and <int16_t, int16_t, 3>.
template <class InputChannel, class OutputChannel, size_t Channels>
class QUORVEL_API SoftwareFilter3x3Matrix : public SoftwareFilter {
 public:
  using InputPixel = std::array<InputChannel, Channels>;
  using OutputPixel = std::array<OutputChannel, Channels>;

  explicit SoftwareFilter3x3Matrix(Filter const& description) : SoftwareFilter(description) {}

  /// Maps every pixel of outputRects[0] from the pixel at the same place of inputRects[0].
  /// Parameters other than Filter3x3MatrixParams fail with "Filter parameters cast failed".
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4>;
extern template class SoftwareFilter3x3Matrix<int16_t, int16_t, 3>;

}  // namespace quorvel
