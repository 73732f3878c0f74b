#include "quorvel/filters/software_filter.hpp"

#include <algorithm>

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

bool SoftwareFilter::intersect(std::vector<int> const& a, std::vector<int> const& b,
                               std::vector<int>& result) {
  // Edges in 64 bits: the 32-bit sums of a huge rectangle would otherwise wrap.
  int64_t const ax = field(a, 0), ay = field(a, 1), aw = field(a, 2), ah = field(a, 3);
  int64_t const bx = field(b, 0), by = field(b, 1), bw = field(b, 2), bh = field(b, 3);
  int64_t const left = std::max(ax, bx), top = std::max(ay, by);
  int64_t const right = std::min(bx + bw - 1, ax + aw - 1);
  int64_t const bottom = std::min(by + bh - 1, ay + ah - 1);
  int64_t const w = std::clamp<int64_t>(right - left + 1, INT32_MIN, INT32_MAX);
  int64_t const h = std::clamp<int64_t>(bottom - top + 1, INT32_MIN, INT32_MAX);
  result = {static_cast<int>(left), static_cast<int>(top), static_cast<int>(w),
            static_cast<int>(h)};
  return w >= 1 && h >= 1;
}

void SoftwareFilter::getValidRects(std::vector<int>& inputRect,
                                   std::vector<int> const& inputBufferRect,
                                   std::vector<int>& outputRect,
                                   std::vector<int> const& outputBufferRect) {
  std::vector<int> clipped;
  if (!intersect(outputRect, outputBufferRect, clipped)) {
    throw QuorvelException("output rectangle does not intersect output buffer", kGetValidRects);
  }
  std::vector<int> in = inputRect.empty() ? inputBufferRect : inputRect;
  in.resize(4, 0);
  int64_t const dx = int64_t{clipped[0]} - field(outputRect, 0);
  int64_t const dy = int64_t{clipped[1]} - field(outputRect, 1);
  in[0] = static_cast<int>(std::max<int64_t>(in[0], dx));
  in[1] = static_cast<int>(std::max<int64_t>(in[1], dy));
  in[2] = std::min(in[2], clipped[2]);
  in[3] = std::min(in[3], clipped[3]);
  inputRect = std::move(in);
  if (&outputRect != &outputBufferRect) outputRect = clipped;
}

}  // namespace quorvel
