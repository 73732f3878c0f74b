#include "quorvel/kernels/reconstruction/wavelet.hpp"

#include <algorithm>
#include <limits>

#include "filters/kernel_frame.hpp"
#include "kernels/reconstruction/wavelet_passes.hpp"

namespace quorvel {
namespace {

using kernel::WaveletPlan;

// Rectangles from callers may be short; missing fields read as 0.
int64_t field(std::vector<int> const& r, size_t i) { return i < r.size() ? r[i] : 0; }

// Integer forms of floor(a / b) and ceil(a / b) for b > 0 (the halving of the bounds).
int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }
int64_t ceilDiv(int64_t a, int64_t b) { return -floorDiv(-a, b); }

// A closed interval of indices; empty when lo > hi.
struct Range {
  int64_t lo = std::numeric_limits<int32_t>::min() * int64_t{4};
  int64_t hi = std::numeric_limits<int32_t>::max() * int64_t{4};
  // Narrows to indices k for which k + offset lies in `other`.
  Range& shifted(Range const& other, int64_t offset) {
    lo = std::max(lo, other.lo - offset);
    hi = std::min(hi, other.hi - offset);
    return *this;
  }
};

// The half-open pass [begin, end) narrowed to `valid`.
void clipPass(int64_t& begin, int64_t& end, Range const& valid) {
  begin = std::max(begin, valid.lo);
  end = std::min(end, valid.hi + 1);
  if (end < begin) end = begin;
}

// The band and target buffers of a call, typed and checked for storage.
struct Buffers {
  Buffer2DVector<int16_t>& low;
  Buffer2DVector<int16_t>& high;
  Buffer2DVector<int16_t>& target;
  bool empty() const {
    return low.pixelCount() == 0 || high.pixelCount() == 0 || target.pixelCount() == 0;
  }
};

Buffers buffersOf(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                  std::vector<std::shared_ptr<Buffer2D>> const& outputs) {
  return {kernel::typed<int16_t>(inputs, 0), kernel::typed<int16_t>(inputs, 1),
          kernel::typed<int16_t>(outputs, 0)};
}

// Band rows q (relative to input.y) whose whole row lies inside the band's storage under
// the band addressing: row q starts at input.y * (own width) + q * (width of source 0).
Range bandRows(Buffer2DVector<int16_t> const& band, int64_t inputY, int64_t stride) {
  auto const width = static_cast<int64_t>(band.width());
  auto const size = static_cast<int64_t>(band.pixelCount());
  int64_t const start = inputY * width;
  return {ceilDiv(-start, stride), floorDiv(size - width - start, stride)};
}

// Band indices k (relative to input.x) inside both bands' rows.
Range bandColumns(Buffers const& b, int64_t inputX) {
  auto const width = std::min(b.low.width(), b.high.width());
  return {-inputX, static_cast<int64_t>(width) - 1 - inputX};
}

// The pass bounds a, b, m, t of one direction, from the output origin and length along it
// (already clamped to the target) and the band length.
struct Passes {
  int64_t a, b, m, t;
};
Passes passesOf(int64_t origin, int64_t length, int64_t mLimit, int64_t tLimit) {
  return {floorDiv(-origin, 2), ceilDiv(-origin, 2), std::min(floorDiv(length, 2), mLimit),
          std::min(ceilDiv(length, 2), tLimit)};
}

// Clips the three passes: `low`, `high` are the valid band indices, `even`/`odd` the k
// whose even/odd target sample lies inside the target.
void clipPasses(WaveletPlan& plan, Passes const& p, Range const& low, Range const& high,
                Range const& even, Range const& odd) {
  // o(k) reads L(k..k+1), H(k..k+2); e(k) reads L(k), H(k..k+1).
  Range oddReads = Range{}.shifted(low, 0).shifted(low, 1);
  oddReads.shifted(high, 0).shifted(high, 2);
  Range evenReads = Range{}.shifted(low, 0).shifted(high, 0).shifted(high, 1);
  Range oddOnly = oddReads, pairs = oddReads, evenOnly = evenReads;
  oddOnly.shifted(odd, 0);
  pairs.shifted(odd, 0).shifted(even, 0);
  evenOnly.shifted(even, 0);
  plan.oddBegin = p.a, plan.oddEnd = p.b;
  plan.pairBegin = p.b, plan.pairEnd = p.m;
  plan.evenBegin = p.m, plan.evenEnd = p.t;
  clipPass(plan.oddBegin, plan.oddEnd, oddOnly);
  clipPass(plan.pairBegin, plan.pairEnd, pairs);
  clipPass(plan.evenBegin, plan.evenEnd, evenOnly);
}

// Target samples s (relative to the output origin) inside [0, size) for even s = 2k and
// odd s = 2k + 1, as k ranges.
Range evenSamples(int64_t origin, int64_t size) {
  return {ceilDiv(-origin, 2), floorDiv(size - 1 - origin, 2)};
}
Range oddSamples(int64_t origin, int64_t size) {
  return {ceilDiv(-origin - 1, 2), floorDiv(size - 2 - origin, 2)};
}

// Builds the clipped plan of the vertical filter; false when there is nothing to do.
bool verticalPlan(Buffers const& b, std::vector<int> const& in, std::vector<int> const& out,
                  WaveletPlan& plan) {
  if (b.empty()) return false;
  int64_t const inX = field(in, 0), inY = field(in, 1), inW = field(in, 2), inH = field(in, 3);
  int64_t const outX = field(out, 0), outY = field(out, 1);
  int64_t outH = field(out, 3);
  auto const targetW = static_cast<int64_t>(b.target.width());
  auto const targetH = static_cast<int64_t>(b.target.height());
  if (outY + outH > targetH) outH = targetH - outY;
  Passes const p = passesOf(outY, outH, inH - 2, inH - 1);

  // Columns: inside both bands and the target.
  Range columns{0, inW - 1};
  columns.shifted(bandColumns(b, inX), 0).shifted(Range{-outX, targetW - 1 - outX}, 0);
  if (columns.hi < columns.lo) return false;

  auto const stride = static_cast<int64_t>(b.low.width());
  clipPasses(plan, p, bandRows(b.low, inY, stride), bandRows(b.high, inY, stride),
             evenSamples(outY, targetH), oddSamples(outY, targetH));
  plan.low = b.low.data();
  plan.high = b.high.data();
  plan.out = b.target.data();
  plan.lowBase = inY * static_cast<int64_t>(b.low.width()) + inX + columns.lo;
  plan.highBase = inY * static_cast<int64_t>(b.high.width()) + inX + columns.lo;
  plan.outBase = outY * targetW + outX + columns.lo;
  plan.bandStride = stride;
  plan.outStride = targetW;
  plan.count = columns.hi - columns.lo + 1;
  return true;
}

// Builds the clipped plan of the horizontal filter; false when there is nothing to do.
bool horizontalPlan(Buffers const& b, std::vector<int> const& in, std::vector<int> const& out,
                    WaveletPlan& plan) {
  if (b.empty()) return false;
  int64_t const inX = field(in, 0), inY = field(in, 1), inW = field(in, 2), inH = field(in, 3);
  int64_t const outX = field(out, 0), outY = field(out, 1);
  int64_t outW = field(out, 2);
  auto const targetW = static_cast<int64_t>(b.target.width());
  auto const targetH = static_cast<int64_t>(b.target.height());
  if (outX + outW > targetW) outW = targetW - outX;
  Passes const p = passesOf(outX, outW, inW - 2, inW - 2);

  // Rows: every band row and target row of the call inside its buffer.
  auto const stride = static_cast<int64_t>(b.low.width());
  Range rows{0, inH - 1};
  rows.shifted(bandRows(b.low, inY, stride), 0).shifted(bandRows(b.high, inY, stride), 0);
  rows.shifted(Range{-outY, targetH - 1 - outY}, 0);
  if (rows.hi < rows.lo) return false;

  Range const columns = bandColumns(b, inX);
  clipPasses(plan, p, columns, columns, evenSamples(outX, targetW), oddSamples(outX, targetW));
  plan.low = b.low.data();
  plan.high = b.high.data();
  plan.out = b.target.data();
  plan.lowBase = inY * static_cast<int64_t>(b.low.width()) + inX + rows.lo * stride;
  plan.highBase = inY * static_cast<int64_t>(b.high.width()) + inX + rows.lo * stride;
  plan.outBase = (outY + rows.lo) * targetW + outX;
  plan.bandStride = stride;
  plan.outStride = targetW;
  plan.count = rows.hi - rows.lo + 1;
  return true;
}

}  // namespace

namespace kernel {

void waveletVerticalScalar(WaveletPlan const& plan) {
  using reference::waveletEven;
  using reference::waveletOdd;
  int16_t const* low = plan.low;
  int16_t const* high = plan.high;
  int64_t const bs = plan.bandStride, os = plan.outStride;
  // Element c of band row k and of target sample row s.
  auto l = [&](int64_t k, int64_t c) { return low[plan.lowBase + k * bs + c]; };
  auto h = [&](int64_t k, int64_t c) { return high[plan.highBase + k * bs + c]; };
  auto o = [&](int64_t s, int64_t c) -> int16_t& { return plan.out[plan.outBase + s * os + c]; };
  auto even = [&](int64_t k, int64_t c) { return waveletEven(l(k, c), h(k, c), h(k + 1, c)); };
  auto odd = [&](int64_t k, int64_t c) {
    return waveletOdd(h(k + 1, c), even(k, c), even(k + 1, c));
  };
  for (int64_t k = plan.oddBegin; k < plan.oddEnd; ++k) {
    for (int64_t c = 0; c < plan.count; ++c) o(2 * k + 1, c) = odd(k, c);
  }
  for (int64_t k = plan.pairBegin; k < plan.pairEnd; ++k) {
    for (int64_t c = 0; c < plan.count; ++c) {
      o(2 * k, c) = even(k, c);
      o(2 * k + 1, c) = odd(k, c);
    }
  }
  for (int64_t k = plan.evenBegin; k < plan.evenEnd; ++k) {
    for (int64_t c = 0; c < plan.count; ++c) o(2 * k, c) = even(k, c);
  }
}

void waveletHorizontalScalar(WaveletPlan const& plan) {
  using reference::waveletEven;
  using reference::waveletOdd;
  for (int64_t r = 0; r < plan.count; ++r) {
    int64_t const li = plan.lowBase + r * plan.bandStride;
    int64_t const hi = plan.highBase + r * plan.bandStride;
    int64_t const oi = plan.outBase + r * plan.outStride;
    auto even = [&](int64_t k) {
      return waveletEven(plan.low[li + k], plan.high[hi + k], plan.high[hi + k + 1]);
    };
    auto odd = [&](int64_t k) { return waveletOdd(plan.high[hi + k + 1], even(k), even(k + 1)); };
    for (int64_t k = plan.oddBegin; k < plan.oddEnd; ++k) plan.out[oi + 2 * k + 1] = odd(k);
    for (int64_t k = plan.pairBegin; k < plan.pairEnd; ++k) {
      plan.out[oi + 2 * k] = even(k);
      plan.out[oi + 2 * k + 1] = odd(k);
    }
    for (int64_t k = plan.evenBegin; k < plan.evenEnd; ++k) plan.out[oi + 2 * k] = even(k);
  }
}

}  // namespace kernel

template <class In, class Out>
void SoftwareFilterFirIV53LeGall16<In, Out>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  WaveletPlan plan;
  if (verticalPlan(buffersOf(inputs, outputs), kernel::rectAt(inputRects, 0),
                   kernel::rectAt(outputRects, 0), plan)) {
    kernel::waveletVerticalVector(plan);
  }
}

template <class In, class Out>
void SoftwareFilterFirIH53LeGall16<In, Out>::apply(
    std::vector<std::shared_ptr<Buffer2D>> const& inputs,
    std::vector<std::vector<int>> const& inputRects,
    std::vector<std::shared_ptr<Buffer2D>> const& outputs,
    std::vector<std::vector<int>> const& outputRects, SingleFilterParameters const& /*params*/) {
  WaveletPlan plan;
  if (horizontalPlan(buffersOf(inputs, outputs), kernel::rectAt(inputRects, 0),
                     kernel::rectAt(outputRects, 0), plan)) {
    kernel::waveletHorizontalVector(plan);
  }
}

template class SoftwareFilterFirIV53LeGall16<int16_t, int16_t>;
template class SoftwareFilterFirIH53LeGall16<int16_t, int16_t>;

namespace reference {

void firIV53LeGall16(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                     std::vector<std::vector<int>> const& inputRects,
                     std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                     std::vector<std::vector<int>> const& outputRects) {
  WaveletPlan plan;
  if (verticalPlan(buffersOf(inputs, outputs), kernel::rectAt(inputRects, 0),
                   kernel::rectAt(outputRects, 0), plan)) {
    kernel::waveletVerticalScalar(plan);
  }
}

void firIH53LeGall16(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                     std::vector<std::vector<int>> const& inputRects,
                     std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                     std::vector<std::vector<int>> const& outputRects) {
  WaveletPlan plan;
  if (horizontalPlan(buffersOf(inputs, outputs), kernel::rectAt(inputRects, 0),
                     kernel::rectAt(outputRects, 0), plan)) {
    kernel::waveletHorizontalScalar(plan);
  }
}

}  // namespace reference
}  // namespace quorvel
