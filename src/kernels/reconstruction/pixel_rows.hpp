#pragma once
// Row functions of the per-pixel reconstruction kernels (colour transforms, narrowing,
// interleaving, quantisation) and the row walk they share. Each *Vector function runs on
// the best SIMD target of this processor and equals its scalar reference exactly; `stream`
// asks for non-temporal stores (set for outputs larger than the caches).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "filters/kernel_frame.hpp"

namespace quorvel::kernel {

/// Whether a row from `in` to `out` of a large output is written with streaming stores:
/// only when both start on a cache line. Loads that split cache lines starve the
/// streaming pass, which then ran slower than ordinary stores; aligned, it ran about 1.4x
/// faster, as it skips reading each target line before writing it.
inline bool streamRow(bool large, void const* in, void const* out) {
  return large && (reinterpret_cast<uintptr_t>(in) | reinterpret_cast<uintptr_t>(out)) % 64 == 0;
}

void yCoCgToRgb16Vector(int16_t const* src, int16_t* dst, size_t pixels, bool stream);
void yCoCgToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream);
void rgba8ToYCoCgVector(uint8_t const* src, int16_t* dst, size_t pixels, bool stream);
void rgb16ToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream);
void gray16To8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream);
void gray16ToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream);
void interleave3Vector(int16_t const* c0, int16_t const* c1, int16_t const* c2, int16_t* dst,
                       size_t pixels, bool stream);
void removeAlphaVector(uint8_t const* src, uint8_t* dst, size_t pixels, bool stream);
/// Quantises with `bits` < 16 cleared (see SoftwareFilterTruncate).
void truncateVector(int16_t const* src, int16_t* dst, size_t count, unsigned bits, bool midpoint);

/// Calls row(sourceRow, targetRow, width, stream) for each row of the span, with rows
/// stepped by each buffer's width. Row functions are per pixel, so a span whose rows are
/// contiguous in both buffers (full-width rows) goes to one call as a single long row:
/// the same pixels in the same order, without a dispatch and a tail per row.
template <class In, class Out, class Row>
void forEachRow(Buffer2DVector<In> const& source, Buffer2DVector<Out>& target, Span const& s,
                Row&& row) {
  if (s.empty()) return;
  auto const sw = static_cast<int64_t>(source.width());
  auto const tw = static_cast<int64_t>(target.width());
  bool const stream = streamTarget(static_cast<size_t>(s.width * s.height) * sizeof(Out));
  In const* in = source.data() + s.inY * sw + s.inX;
  Out* out = target.data() + s.outY * tw + s.outX;
  if (s.width == sw && s.width == tw) {
    row(in, out, static_cast<size_t>(s.width * s.height), streamRow(stream, in, out));
    return;
  }
  for (int64_t j = 0; j < s.height; ++j, in += sw, out += tw) {
    row(in, out, static_cast<size_t>(s.width), streamRow(stream, in, out));
  }
}

/// The frame of a single-source per-pixel kernel: the job's buffers as In and Out pixels,
/// the validated span, then forEachRow.
template <class In, class Out, class Row>
void runRows(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects, Row&& row) {
  auto& source = typed<In>(inputs, 0);
  auto& target = typed<Out>(outputs, 0);
  Span const span = validSpan(rectAt(inputRects, 0), source, rectAt(outputRects, 0), target);
  forEachRow(source, target, span, row);
}

}  // namespace quorvel::kernel
