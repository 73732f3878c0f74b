#include "quorvel/kernels/reconstruction/ycocg.hpp"

#include <algorithm>
#include <array>

#include "kernels/reconstruction/pixel_rows.hpp"

namespace quorvel {
namespace {

using Ycc16 = std::array<int16_t, 3>;
using Rgb16 = std::array<int16_t, 3>;
using Rgba8 = std::array<uint8_t, 4>;
static_assert(sizeof(Ycc16) == 3 * sizeof(int16_t) && sizeof(Rgba8) == 4,
              "pixels are read as packed channel arrays");

uint8_t clamp8(int32_t v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); }

}  // namespace

namespace reference {

void yCoCgToRgb16(int16_t const* src, int16_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, src += 3, dst += 3) {
    auto const t = static_cast<int16_t>(src[0] - (src[2] >> 1));
    auto const g = static_cast<int16_t>(t + src[2]);
    auto const b = static_cast<int16_t>(t - (src[1] >> 1));
    auto const r = static_cast<int16_t>(b + src[1]);
    dst[0] = r, dst[1] = g, dst[2] = b;
  }
}

void yCoCgToRgba8(int16_t const* src, uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, src += 3, dst += 4) {
    int32_t const t = src[0] - (src[2] >> 1);
    int32_t const b = t - (src[1] >> 1);
    dst[0] = clamp8(b + src[1]), dst[1] = clamp8(t + src[2]), dst[2] = clamp8(b), dst[3] = 255;
  }
}

void rgba8ToYCoCg(uint8_t const* src, int16_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, src += 4, dst += 3) {
    int32_t const co = src[0] - src[2];
    int32_t const t = src[2] + (co >> 1);
    int32_t const cg = src[1] - t;
    // With 8-bit inputs all three fit in 16 bits; no clamp can act.
    dst[0] = static_cast<int16_t>(t + (cg >> 1));
    dst[1] = static_cast<int16_t>(co);
    dst[2] = static_cast<int16_t>(cg);
  }
}

}  // namespace reference

template <class In, class Out>
void SoftwareFilterYCoCgToRGB<In, Out>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                              std::vector<std::vector<int>> const& inputRects,
                                              std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                              std::vector<std::vector<int>> const& outputRects,
                                              SingleFilterParameters const& /*params*/) {
  kernel::runRows<Ycc16, Rgb16>(inputs, inputRects, outputs, outputRects,
                                [](Ycc16 const* in, Rgb16* out, size_t n, bool stream) {
                                  kernel::yCoCgToRgb16Vector(in->data(), out->data(), n, stream);
                                });
}

template <class In, class Out>
void SoftwareFilterYCoCgToRGBA<In, Out>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  kernel::runRows<Ycc16, Rgba8>(inputs, inputRects, outputs, outputRects,
                                [](Ycc16 const* in, Rgba8* out, size_t n, bool stream) {
                                  kernel::yCoCgToRgba8Vector(in->data(), out->data(), n, stream);
                                });
}

template <class In, class Out>
void SoftwareFilterRGBAToYCoCg<In, Out>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  kernel::runRows<Rgba8, Ycc16>(inputs, inputRects, outputs, outputRects,
                                [](Rgba8 const* in, Ycc16* out, size_t n, bool stream) {
                                  kernel::rgba8ToYCoCgVector(in->data(), out->data(), n, stream);
                                });
}

template class SoftwareFilterYCoCgToRGB<int16_t, int16_t>;
template class SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>;
template class SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>;

}  // namespace quorvel
