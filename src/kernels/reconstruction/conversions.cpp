#include "quorvel/kernels/reconstruction/conversions.hpp"

#include <algorithm>
#include <array>

#include "kernels/reconstruction/pixel_rows.hpp"

namespace quorvel {
namespace {

using Rgb16 = std::array<int16_t, 3>;
using Rgba8 = std::array<uint8_t, 4>;

uint8_t clamp8(int16_t v) { return static_cast<uint8_t>(std::clamp<int16_t>(v, 0, 255)); }

}  // namespace

namespace reference {

void rgb16ToRgba8(int16_t const* src, uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, src += 3, dst += 4) {
    dst[0] = clamp8(src[0]), dst[1] = clamp8(src[1]), dst[2] = clamp8(src[2]), dst[3] = 255;
  }
}

void gray16To8(int16_t const* src, uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i) dst[i] = clamp8(src[i]);
}

void gray16ToRgba8(int16_t const* src, uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, dst += 4) {
    dst[0] = dst[1] = dst[2] = clamp8(src[i]);
    dst[3] = 255;
  }
}

void interleave3(int16_t const* c0, int16_t const* c1, int16_t const* c2, int16_t* dst,
                 size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, dst += 3) dst[0] = c0[i], dst[1] = c1[i], dst[2] = c2[i];
}

void removeAlpha(uint8_t const* src, uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, src += 4, dst += 3) {
    dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
  }
}

void truncate16(int16_t const* src, int16_t* dst, size_t count, unsigned bits, bool midpoint) {
  auto const keep = static_cast<int16_t>(~((1 << bits) - 1));
  auto const half = static_cast<int16_t>(((1 << bits) - 1) >> 1);
  for (size_t i = 0; i < count; ++i) {
    int16_t const v = src[i];
    // 16-bit magnitude: -32768 stays -32768, and so maps to itself below.
    auto const magnitude = static_cast<int16_t>(v < 0 ? -v : v);
    auto q = static_cast<int16_t>(magnitude & keep);
    if (midpoint && q != 0) q = static_cast<int16_t>(q + half);
    dst[i] = v < 0 ? static_cast<int16_t>(-q) : q;
  }
}

}  // namespace reference

template <class In, class Out>
void SoftwareFilter3x16To4x8<In, Out>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                             std::vector<std::vector<int>> const& inputRects,
                                             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                             std::vector<std::vector<int>> const& outputRects,
                                             SingleFilterParameters const& /*params*/) {
  kernel::runRows<Rgb16, Rgba8>(inputs, inputRects, outputs, outputRects,
                                [](Rgb16 const* in, Rgba8* out, size_t n, bool stream) {
                                  kernel::rgb16ToRgba8Vector(in->data(), out->data(), n, stream);
                                });
}

template <class In, class Out>
void SoftwareFilter1x16To1x8<In, Out>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                             std::vector<std::vector<int>> const& inputRects,
                                             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                             std::vector<std::vector<int>> const& outputRects,
                                             SingleFilterParameters const& /*params*/) {
  kernel::runRows<int16_t, uint8_t>(inputs, inputRects, outputs, outputRects,
                                    [](int16_t const* in, uint8_t* out, size_t n, bool stream) {
                                      kernel::gray16To8Vector(in, out, n, stream);
                                    });
}

template <class In, class Out>
void SoftwareFilterSingleChannelToRGB<In, Out>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  kernel::runRows<int16_t, Rgba8>(inputs, inputRects, outputs, outputRects,
                                  [](int16_t const* in, Rgba8* out, size_t n, bool stream) {
                                    kernel::gray16ToRgba8Vector(in, out->data(), n, stream);
                                  });
}

template <class T, size_t N>
void SoftwareInterleaveFilter<T, N>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                           std::vector<std::vector<int>> const& inputRects,
                                           std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                           std::vector<std::vector<int>> const& outputRects,
                                           SingleFilterParameters const& /*params*/) {
  static_assert(N == 3, "only three planes are interleaved");
  auto& target = kernel::typed<std::array<T, N>>(outputs, 0);
  std::vector<int> const outRect = kernel::rectAt(outputRects, 0);
  // Each source is validated against the output with its own rectangle; the written part
  // is what all of them cover, each source shifted by what its own span lost.
  std::array<Buffer2DVector<T>*, N> sources{};
  std::array<kernel::Span, N> spans{};
  kernel::Span common;
  for (size_t c = 0; c < N; ++c) {
    sources[c] = &kernel::typed<T>(inputs, c);
    spans[c] = kernel::validSpan(kernel::rectAt(inputRects, c), *sources[c], outRect, target);
    if (spans[c].empty()) return;
    if (c == 0) {
      common = spans[0];
      continue;
    }
    int64_t const right = std::min(common.outX + common.width, spans[c].outX + spans[c].width);
    int64_t const bottom = std::min(common.outY + common.height, spans[c].outY + spans[c].height);
    common.outX = std::max(common.outX, spans[c].outX);
    common.outY = std::max(common.outY, spans[c].outY);
    common.width = right - common.outX;
    common.height = bottom - common.outY;
    if (common.empty()) return;
  }
  std::array<T const*, N> rows{};
  std::array<int64_t, N> strides{};
  for (size_t c = 0; c < N; ++c) {
    strides[c] = static_cast<int64_t>(sources[c]->width());
    rows[c] = sources[c]->data() + (spans[c].inY + common.outY - spans[c].outY) * strides[c] +
              spans[c].inX + common.outX - spans[c].outX;
  }
  auto const tw = static_cast<int64_t>(target.width());
  bool const stream =
      kernel::streamTarget(static_cast<size_t>(common.width * common.height) * sizeof(T) * N);
  std::array<T, N>* out = target.data() + common.outY * tw + common.outX;
  // Full-width rows in every buffer are one contiguous run: a single call.
  bool contiguous = common.width == tw;
  for (size_t c = 0; c < N; ++c) contiguous = contiguous && common.width == strides[c];
  auto const streamFrom = [&] {
    return kernel::streamRow(stream, rows[0], out) && kernel::streamRow(true, rows[1], rows[2]);
  };
  if (contiguous) {
    kernel::interleave3Vector(rows[0], rows[1], rows[2], out->data(),
                              static_cast<size_t>(common.width * common.height), streamFrom());
    return;
  }
  for (int64_t j = 0; j < common.height; ++j, out += tw) {
    kernel::interleave3Vector(rows[0], rows[1], rows[2], out->data(),
                              static_cast<size_t>(common.width), streamFrom());
    for (size_t c = 0; c < N; ++c) rows[c] += strides[c];
  }
}

template <class T>
void SoftwareFilterRemoveAlpha<T>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                         std::vector<std::vector<int>> const& inputRects,
                                         std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                         std::vector<std::vector<int>> const& outputRects,
                                         SingleFilterParameters const& /*params*/) {
  using In = std::array<T, 4>;
  using Out = std::array<T, 3>;
  auto& source = kernel::typed<In>(inputs, 0);
  auto& target = kernel::typed<Out>(outputs, 0);
  // Used as given (no validation), only kept inside both buffers.
  kernel::Span const span = kernel::fitSpan(kernel::rectAt(inputRects, 0), source,
                                            kernel::rectAt(outputRects, 0), target);
  kernel::forEachRow(source, target, span, [](In const* in, Out* out, size_t n, bool stream) {
    kernel::removeAlphaVector(in->data(), out->data(), n, stream);
  });
}

template <class T>
void SoftwareFilterTruncate<T>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                      std::vector<std::vector<int>> const& inputRects,
                                      std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                      std::vector<std::vector<int>> const& outputRects,
                                      SingleFilterParameters const& params) {
  auto const& p = params.as<FilterTruncate16Params>();
  auto& source = kernel::typed<T>(inputs, 0);
  auto& target = kernel::typed<T>(outputs, 0);
  std::vector<int> in = kernel::rectAt(inputRects, 0), out = kernel::rectAt(outputRects, 0);
  SoftwareFilter::getValidRects(in, source.rect(), out, target.rect());
  if (p.bits >= 16) {
    // One contiguous run from the output origin, row strides deliberately not applied;
    // clamped to the end of the buffer.
    auto const size = static_cast<int64_t>(target.pixelCount());
    int64_t const start = int64_t{out[1]} * static_cast<int64_t>(target.width()) + out[0];
    int64_t const run = std::min(int64_t{out[2]} * out[3], size - start);
    if (start >= 0 && run > 0) std::fill_n(target.data() + start, run, T{0});
    return;
  }
  kernel::forEachRow(source, target, kernel::fitSpan(in, source, out, target),
                     [&](T const* row, T* dst, size_t n, bool) {
                       kernel::truncateVector(row, dst, n, static_cast<unsigned>(p.bits),
                                              p.reconstructAtMidpoint);
                     });
}

template class SoftwareFilter3x16To4x8<int16_t, uint8_t>;
template class SoftwareFilter1x16To1x8<int16_t, uint8_t>;
template class SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>;
template class SoftwareInterleaveFilter<int16_t, 3>;
template class SoftwareFilterRemoveAlpha<uint8_t>;
template class SoftwareFilterTruncate<int16_t>;

}  // namespace quorvel
