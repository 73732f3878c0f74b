#include "quorvel/kernels/display/matrix.hpp"

#include <climits>
#include <cmath>
#include <type_traits>

#include "filters/kernel_frame.hpp"
#include "kernels/display/matrix_rows.hpp"

namespace quorvel {
namespace matrix_detail {
namespace {

// Truncation of a double to int32 as the x86 conversion does it: NaN and values outside
// the int32 range give INT32_MIN (the "integer indefinite") instead of undefined behaviour.
int32_t truncateToInt32(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

}  // namespace

std::array<int32_t, 9> scaledCoefficients(std::array<int32_t, 9> const& matrix, double scale) {
  uint32_t const k = static_cast<uint32_t>(truncateToInt32(std::round(scale * 1024.0)));
  std::array<int32_t, 9> scaled{};
  for (size_t i = 0; i < 9; ++i) {
    // m * k + 512 wraps in 32 bits (done unsigned to keep it defined); the shift is
    // arithmetic.
    uint32_t const product = static_cast<uint32_t>(matrix[i]) * k + 512u;
    scaled[i] = static_cast<int32_t>(product) >> 10;
  }
  return scaled;
}

}  // namespace matrix_detail

template <class IC, class OC, size_t N>
void SoftwareFilter3x3Matrix<IC, OC, N>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& params) {
  static_assert(sizeof(InputPixel) == sizeof(IC) * N && sizeof(OutputPixel) == sizeof(OC) * N,
                "pixels are packed channel arrays");
  auto const& p = params.as<Filter3x3MatrixParams>();
  auto& source = kernel::typed<InputPixel>(inputs, 0);
  auto& target = kernel::typed<OutputPixel>(outputs, 0);
  kernel::Span const span = kernel::validSpan(kernel::rectAt(inputRects, 0), source,
                                              kernel::rectAt(outputRects, 0), target);
  if (span.empty()) return;
  std::array<int32_t, 9> const coefficients = matrix_detail::scaledCoefficients(p.matrix, p.scale);

  auto const sourceWidth = static_cast<int64_t>(source.width());
  auto const targetWidth = static_cast<int64_t>(target.width());
  InputPixel const* in = source.data() + span.inY * sourceWidth + span.inX;
  OutputPixel* out = target.data() + span.outY * targetWidth + span.outX;
  auto width = static_cast<size_t>(span.width);
  int64_t height = span.height;
  // Full-width rows in both buffers are one contiguous run: a single row call (the kernel
  // is per pixel), without a dispatch and a scalar tail per row.
  if (span.width == sourceWidth && span.width == targetWidth) {
    width *= static_cast<size_t>(height);
    height = 1;
  }
  for (int64_t row = 0; row < height; ++row, in += sourceWidth, out += targetWidth) {
    if constexpr (std::is_same_v<IC, uint8_t>) {
      matrix_detail::applyMatrixRgba8(coefficients.data(), in->data(), out->data(), width);
    } else {
      matrix_detail::applyMatrixRgbS16(coefficients.data(), in->data(), out->data(), width);
    }
  }
}

template class SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4>;
template class SoftwareFilter3x3Matrix<int16_t, int16_t, 3>;

}  // namespace quorvel
