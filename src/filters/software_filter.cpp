#include "quorvel/filters/software_filter.hpp"

#include <algorithm>

#include "filters/kernel_frame.hpp"

namespace quorvel {
namespace {

constexpr char kGetValidRects[] =
    "void SoftwareFilter::getValidRects(vector<int>& inputRect, const vector<int>& "
    "inputBufferRect,vector<int>& outputRect, const vector<int>& outputBufferRect)";

// Rectangles from callers may be short; missing fields read as 0 (an empty rectangle).
int field(std::vector<int> const& r, size_t i) { return i < r.size() ? r[i] : 0; }

}  // namespace

SoftwareFilter::SoftwareFilter(Filter const& description) : Filter(description) {
  forgetOwningInstance();
}

namespace kernel {

bool intersectRects(Rect4 const& a, Rect4 const& b, Rect4& result) {
  // Edges in 64 bits: the 32-bit sums of a huge rectangle would otherwise wrap.
  int64_t const left = std::max<int64_t>(a[0], b[0]), top = std::max<int64_t>(a[1], b[1]);
  int64_t const right = std::min(int64_t{b[0]} + b[2] - 1, int64_t{a[0]} + a[2] - 1);
  int64_t const bottom = std::min(int64_t{b[1]} + b[3] - 1, int64_t{a[1]} + a[3] - 1);
  int64_t const w = std::clamp<int64_t>(right - left + 1, INT32_MIN, INT32_MAX);
  int64_t const h = std::clamp<int64_t>(bottom - top + 1, INT32_MIN, INT32_MAX);
  result = {static_cast<int>(left), static_cast<int>(top), static_cast<int>(w),
            static_cast<int>(h)};
  return w >= 1 && h >= 1;
}

void validRects(Rect4& in, Rect4 const& inputBuffer, Rect4& out, Rect4 const& outputBuffer,
                bool inputGiven) {
  Rect4 clipped{};
  if (!intersectRects(out, outputBuffer, clipped)) {
    throw QuorvelException("output rectangle does not intersect output buffer", kGetValidRects);
  }
  if (!inputGiven) in = inputBuffer;
  int64_t const dx = int64_t{clipped[0]} - out[0];
  int64_t const dy = int64_t{clipped[1]} - out[1];
  in[0] = static_cast<int>(std::max<int64_t>(in[0], dx));
  in[1] = static_cast<int>(std::max<int64_t>(in[1], dy));
  in[2] = std::min(in[2], clipped[2]);
  in[3] = std::min(in[3], clipped[3]);
  out = clipped;
}

Rect4 rect4(std::vector<int> const& r) {
  return {field(r, 0), field(r, 1), field(r, 2), field(r, 3)};
}

}  // namespace kernel

bool SoftwareFilter::intersect(std::vector<int> const& a, std::vector<int> const& b,
                               std::vector<int>& result) {
  kernel::Rect4 r{};
  bool const overlap = kernel::intersectRects(kernel::rect4(a), kernel::rect4(b), r);
  result.assign(r.begin(), r.end());
  return overlap;
}

void SoftwareFilter::getValidRects(std::vector<int>& inputRect,
                                   std::vector<int> const& inputBufferRect,
                                   std::vector<int>& outputRect,
                                   std::vector<int> const& outputBufferRect) {
  kernel::Rect4 in = kernel::rect4(inputRect), out = kernel::rect4(outputRect);
  kernel::validRects(in, kernel::rect4(inputBufferRect), out, kernel::rect4(outputBufferRect),
                     !inputRect.empty());
  inputRect.assign(in.begin(), in.end());
  if (&outputRect != &outputBufferRect) outputRect.assign(out.begin(), out.end());
}

}  // namespace quorvel
