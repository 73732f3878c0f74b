#include "quorvel/kernels/display/sharpness.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "filters/kernel_frame.hpp"
#include "kernels/display/sharpness_rows.hpp"

namespace quorvel {
namespace sharpness_detail {

int32_t strength(double gain, int32_t level) {
  // The float-to-int conversion is undefined outside int32: saturate it instead.
  double const scaled = gain * 32.0;
  int32_t s = 0;
  if (scaled >= 2147483647.0) {
    s = std::numeric_limits<int32_t>::max();
  } else if (scaled <= -2147483648.0) {
    s = std::numeric_limits<int32_t>::min();
  } else if (!std::isnan(scaled)) {
    s = static_cast<int32_t>(scaled);
  }
  // level mod 32 as a shift count must not be negative: take the non-negative residue.
  int const shift = static_cast<int>(static_cast<uint32_t>(level) & 31u);
  return s >> shift;
}

namespace {

// The 32-bit signed steps wrap on overflow (absurd gains), which unsigned arithmetic makes
// well defined; the final shift is arithmetic.
inline int32_t wrap32(uint32_t v) { return static_cast<int32_t>(v); }

inline int32_t clampSample16(int32_t v) { return std::clamp(v, 0, 1023); }

}  // namespace

void sharpenRow8Scalar(uint8_t const* const rows[5], uint8_t* out, size_t count, size_t step,
                       int32_t strength) {
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  for (size_t k = 0; k < count; ++k) {
    auto p = [&](int r, ptrdiff_t d) -> int32_t { return rows[r][static_cast<ptrdiff_t>(k) + d]; };
    int32_t const c = p(2, 0);
    int32_t const axis = p(1, 0) + p(2, -d1) + p(2, d1) + p(3, 0);
    int32_t const diagonal = p(1, -d1) + p(1, d1) + p(3, -d1) + p(3, d1);
    int32_t const far = p(0, 0) + p(2, -d2) + p(2, d2) + p(4, 0);
    int32_t const blur = (axis * 3 + diagonal) * 5 + far + 44 * c;
    // (c * 4096 + 2048 + (128 c - B) * s) >> 12: c + s/32 * (c - B/128), rounded half up.
    int32_t const r =
        wrap32(static_cast<uint32_t>(c) * 4096u + 2048u +
               static_cast<uint32_t>(128 * c - blur) * static_cast<uint32_t>(strength)) >>
        12;
    out[k] = static_cast<uint8_t>(std::clamp(r, 0, 255));
  }
}

void blurRowH16Scalar(int16_t const* in, uint16_t* out, size_t count, size_t step) {
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  for (size_t k = 0; k < count; ++k) {
    int16_t const* p = in + k;
    int32_t const h = clampSample16(p[-d2]) + 13 * (clampSample16(p[-d1]) + clampSample16(p[d1])) +
                      36 * clampSample16(p[0]) + clampSample16(p[d2]);
    out[k] = static_cast<uint16_t>(std::clamp(h, 0, 65535));
  }
}

void sharpenRowV16Scalar(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                         size_t count, int32_t strength) {
  for (size_t k = 0; k < count; ++k) {
    int32_t const blur = blurRows[0][k] + 13 * (blurRows[1][k] + blurRows[3][k]) +
                         36 * blurRows[2][k] + blurRows[4][k];
    int32_t const c = clampSample16(centre[k]);
    // (c * 131072 + 65536 + (c * 4096 - B) * s) >> 17, the blur being at scale 4096.
    int32_t const r =
        wrap32(static_cast<uint32_t>(c) * 131072u + 65536u +
               static_cast<uint32_t>(c * 4096 - blur) * static_cast<uint32_t>(strength)) >>
        17;
    out[k] = static_cast<int16_t>(std::clamp(r, -32768, 32767));
  }
}

}  // namespace sharpness_detail

namespace {

// Where the kernel runs: the output origin and size, and per source the input pixel at the
// top-left corner of the first output pixel's window.
struct WindowSpan {
  int64_t outX = 0, outY = 0, width = 0, height = 0;
  int64_t inX[2] = {0, 0}, inY[2] = {0, 0};
  bool empty() const { return width <= 0 || height <= 0; }
};

int64_t field(std::vector<int> const& r, size_t i) { return i < r.size() ? r[i] : 0; }

// Clips the output to the target (failing like getValidRects when they do not meet), moves
// every input origin by what the output lost on the left and top, then shrinks the output
// until each source's windowW x windowH window stays inside that source for every pixel.
WindowSpan windowSpan(std::vector<std::vector<int>> const& inRects, Buffer2D const* const* sources,
                      size_t sourceCount, std::vector<int> const& outRect, Buffer2D const& target,
                      int64_t windowW, int64_t windowH) {
  std::vector<int> in = inRects.empty() ? std::vector<int>{} : inRects[0];
  std::vector<int> clipped = outRect;
  SoftwareFilter::getValidRects(in, sources[0]->rect(), clipped, target.rect());

  WindowSpan s{clipped[0], clipped[1], clipped[2], clipped[3]};
  int64_t const lostX = s.outX - field(outRect, 0), lostY = s.outY - field(outRect, 1);
  int64_t skipX = 0, skipY = 0;
  for (size_t k = 0; k < sourceCount; ++k) {
    static std::vector<int> const kOrigin;
    std::vector<int> const& r = k < inRects.size() ? inRects[k]
                                : inRects.empty()  ? kOrigin
                                                   : inRects[0];
    s.inX[k] = field(r, 0) + lostX;
    s.inY[k] = field(r, 1) + lostY;
    skipX = std::max(skipX, -s.inX[k]);
    skipY = std::max(skipY, -s.inY[k]);
  }
  // Windows that start left of or above a source are dropped from the front ...
  s.outX += skipX, s.width -= skipX;
  s.outY += skipY, s.height -= skipY;
  for (size_t k = 0; k < sourceCount; ++k) {
    s.inX[k] += skipX, s.inY[k] += skipY;
    // ... and windows that end right of or below it from the back.
    s.width = std::min(s.width, static_cast<int64_t>(sources[k]->width()) - windowW + 1 - s.inX[k]);
    s.height =
        std::min(s.height, static_cast<int64_t>(sources[k]->height()) - windowH + 1 - s.inY[k]);
  }
  if (s.empty()) s.width = s.height = 0;
  return s;
}

}  // namespace

template <class Channel, size_t Channels>
void SoftwareFilterSharpness<Channel, Channels>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& params) {
  using Pixel = std::array<Channel, Channels>;
  auto const& typedParams = params.as<FilterSharpness8Params>();
  auto& source = kernel::typed<Pixel>(inputs, 0);
  auto& target = kernel::typed<Pixel>(outputs, 0);
  Buffer2D const* sources[] = {&source};
  WindowSpan const span =
      windowSpan(inputRects, sources, 1, kernel::rectAt(outputRects, 0), target, 5, 5);
  if (span.empty()) return;

  int32_t const s = sharpness_detail::strength(typedParams.gain, params.level);
  auto const* in = reinterpret_cast<uint8_t const*>(source.data());
  auto* out = reinterpret_cast<uint8_t*>(target.data());
  size_t const inRow = source.width() * Channels, outRow = target.width() * Channels;
  size_t const count = static_cast<size_t>(span.width) * Channels;
  // Row pointers address the centre sample of the first output pixel in rows y-2 .. y+2.
  uint8_t const* rows[5];
  uint8_t const* first = in + static_cast<size_t>(span.inY[0]) * inRow +
                         static_cast<size_t>(span.inX[0] + 2) * Channels;
  for (int r = 0; r < 5; ++r) rows[r] = first + r * inRow;
  uint8_t* dst =
      out + static_cast<size_t>(span.outY) * outRow + static_cast<size_t>(span.outX) * Channels;
  for (int64_t j = 0; j < span.height; ++j, dst += outRow) {
    sharpness_detail::sharpenRow8(rows, dst, count, Channels, s);
    for (auto& row : rows) row += inRow;
  }
}

template <size_t Channels>
void SoftwareFilterSharpnessH16<Channels>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  auto& source = kernel::typed<std::array<int16_t, Channels>>(inputs, 0);
  auto& target = kernel::typed<std::array<uint16_t, Channels>>(outputs, 0);
  Buffer2D const* sources[] = {&source};
  WindowSpan const span =
      windowSpan(inputRects, sources, 1, kernel::rectAt(outputRects, 0), target, 5, 1);
  if (span.empty()) return;

  size_t const inRow = source.width() * Channels, outRow = target.width() * Channels;
  size_t const count = static_cast<size_t>(span.width) * Channels;
  int16_t const* src = source.data()->data() + static_cast<size_t>(span.inY[0]) * inRow +
                       static_cast<size_t>(span.inX[0] + 2) * Channels;
  uint16_t* dst = target.data()->data() + static_cast<size_t>(span.outY) * outRow +
                  static_cast<size_t>(span.outX) * Channels;
  bool const stream = kernel::streamTarget(count * static_cast<size_t>(span.height) * 2);
  for (int64_t j = 0; j < span.height; ++j, src += inRow, dst += outRow) {
    sharpness_detail::blurRowH16(src, dst, count, Channels, stream);
  }
}

template <size_t Channels>
void SoftwareFilterSharpnessV16<Channels>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& params) {
  auto const& typedParams = params.as<FilterSharpness16Params>();
  auto& image = kernel::typed<std::array<int16_t, Channels>>(inputs, 0);
  auto& blur = kernel::typed<std::array<uint16_t, Channels>>(inputs, 1);
  auto& target = kernel::typed<std::array<int16_t, Channels>>(outputs, 0);
  Buffer2D const* sources[] = {&image, &blur};
  WindowSpan const span =
      windowSpan(inputRects, sources, 2, kernel::rectAt(outputRects, 0), target, 1, 5);
  if (span.empty()) return;

  int32_t const s = sharpness_detail::strength(typedParams.gain, params.level);
  size_t const imageRow = image.width() * Channels, blurRow = blur.width() * Channels;
  size_t const outRow = target.width() * Channels;
  size_t const count = static_cast<size_t>(span.width) * Channels;
  // The centre of the first output pixel is row y+2 of the unfiltered image; the blur rows
  // y .. y+4 of the horizontal result surround it.
  int16_t const* centre = image.data()->data() + static_cast<size_t>(span.inY[0] + 2) * imageRow +
                          static_cast<size_t>(span.inX[0]) * Channels;
  uint16_t const* blurRows[5];
  uint16_t const* first = blur.data()->data() + static_cast<size_t>(span.inY[1]) * blurRow +
                          static_cast<size_t>(span.inX[1]) * Channels;
  for (int r = 0; r < 5; ++r) blurRows[r] = first + r * blurRow;
  int16_t* dst = target.data()->data() + static_cast<size_t>(span.outY) * outRow +
                 static_cast<size_t>(span.outX) * Channels;
  bool const stream = kernel::streamTarget(count * static_cast<size_t>(span.height) * 2);
  for (int64_t j = 0; j < span.height; ++j, centre += imageRow, dst += outRow) {
    sharpness_detail::sharpenRowV16(blurRows, centre, dst, count, s, stream);
    for (auto& row : blurRows) row += blurRow;
  }
}

template class SoftwareFilterSharpness<uint8_t, 4>;
template class SoftwareFilterSharpnessH16<3>;
template class SoftwareFilterSharpnessV16<3>;

}  // namespace quorvel
