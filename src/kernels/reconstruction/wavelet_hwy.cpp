// Vector bodies of the inverse 5/3 wavelet passes, compiled once per SIMD target.
//
// Vertical: full vectors across the columns, one pair of target rows per step.
// Horizontal: full vectors over k; H(k+1), H(k+2) and L(k+1) are unaligned loads at
// +1 and +2, and the e and o lanes are interleaved on store. The arithmetic is the 16-bit
// wrap-around form of the scalar passes, so every lane equals the scalar result.

#include <hwy/cache_control.h>

#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/reconstruction/wavelet_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "filters/kernel_frame.hpp"
#include "kernels/reconstruction/wavelet_passes.hpp"
#include "quorvel/kernels/reconstruction/wavelet.hpp"
#include "simd/stream_store-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using kernel::WaveletPlan;
using reference::waveletEven;
using reference::waveletOdd;

// e = l - ((h0 + h1 + 2) >> 2), lane-wise in 16-bit wrap-around arithmetic.
template <class D, class V>
HWY_INLINE V Even(D d, V l, V h0, V h1) {
  return hn::Sub(l, hn::ShiftRight<2>(hn::Add(hn::Add(h0, h1), hn::Set(d, int16_t{2}))));
}

// o = h1 + ((e0 + e1) >> 1), lane-wise in 16-bit wrap-around arithmetic.
template <class V>
HWY_INLINE V Odd(V h1, V e0, V e1) {
  return hn::Add(h1, hn::ShiftRight<1>(hn::Add(e0, e1)));
}

// Row of e(k) (vertical) from band rows l = L(k), h0 = H(k), h1 = H(k + 1).
HWY_INLINE void EvenRow(const int16_t* l, const int16_t* h0, const int16_t* h1, size_t count,
                        int16_t* out) {
  const hn::ScalableTag<int16_t> d;
  const size_t lanes = hn::Lanes(d);
  size_t c = 0;
  // Blocks of whole vectors, then the remaining columns one by one.
  for (; c + lanes <= count; c += lanes) {
    hn::StoreU(Even(d, hn::LoadU(d, l + c), hn::LoadU(d, h0 + c), hn::LoadU(d, h1 + c)), d,
               out + c);
  }
  for (; c < count; ++c) out[c] = waveletEven(l[c], h0[c], h1[c]);
}

// Rows of e(k) and o(k) (vertical) from band rows L(k), L(k + 1), H(k), H(k + 1), H(k + 2);
// either output row may be null. With kStream (both rows given, line-aligned, of a target
// larger than the caches) whole vectors are written with streaming stores, which skips
// reading each target line before it is written.
template <bool kStream = false>
HWY_INLINE void PairRows(const int16_t* l0, const int16_t* l1, const int16_t* h0, const int16_t* h1,
                         const int16_t* h2, size_t count, int16_t* evenOut, int16_t* oddOut) {
  const hn::ScalableTag<int16_t> d;
  const size_t lanes = hn::Lanes(d);
  auto const store = [&](auto v, int16_t* out) {
    if constexpr (kStream) {
      hn::Stream(v, d, out);
    } else if (out != nullptr) {
      hn::StoreU(v, d, out);
    }
  };
  size_t c = 0;
  for (; c + lanes <= count; c += lanes) {
    auto const vh1 = hn::LoadU(d, h1 + c);
    auto const e0 = Even(d, hn::LoadU(d, l0 + c), hn::LoadU(d, h0 + c), vh1);
    auto const e1 = Even(d, hn::LoadU(d, l1 + c), vh1, hn::LoadU(d, h2 + c));
    store(e0, evenOut == nullptr ? nullptr : evenOut + c);
    store(Odd(vh1, e0, e1), oddOut == nullptr ? nullptr : oddOut + c);
  }
  for (; c < count; ++c) {
    int16_t const e0 = waveletEven(l0[c], h0[c], h1[c]);
    if (evenOut != nullptr) evenOut[c] = e0;
    if (oddOut != nullptr) oddOut[c] = waveletOdd(h1[c], e0, waveletEven(l1[c], h1[c], h2[c]));
  }
}

// Writes `count` 16-bit target values at `row` from compute(first, n, out).
template <class F>
HWY_INLINE void WriteSamples(int16_t* row, size_t count, bool stream, F&& compute) {
  WriteRow(
      reinterpret_cast<uint8_t*>(row), count, sizeof(int16_t), stream,
      [&](size_t first, size_t n, uint8_t* out) {
        compute(first, n, reinterpret_cast<int16_t*>(out));
      },
      /*unit=*/2);
}

void WaveletVertical(WaveletPlan const& plan) {
  auto const count = static_cast<size_t>(plan.count);
  auto lowRow = [&](int64_t k) { return plan.low + plan.lowBase + k * plan.bandStride; };
  auto highRow = [&](int64_t k) { return plan.high + plan.highBase + k * plan.bandStride; };
  auto outRow = [&](int64_t s) { return plan.out + plan.outBase + s * plan.outStride; };
  // Head: the odd-only row of an odd output origin.
  for (int64_t k = plan.oddBegin; k < plan.oddEnd; ++k) {
    PairRows(lowRow(k), lowRow(k + 1), highRow(k), highRow(k + 1), highRow(k + 2), count, nullptr,
             outRow(2 * k + 1));
  }
  // Pairs, row by row down the bands. e(k + 1) is recomputed from rows that the previous
  // step left in the first-level cache: this measured faster than carrying it in a scratch
  // row, whose extra store stream costs more than the three vector operations it saves.
  // A large target streams its row pairs when every row starts on a cache line.
  auto const pairs = static_cast<size_t>(plan.pairEnd - plan.pairBegin);
  bool const stream = kernel::streamTarget(count * pairs * 2 * sizeof(int16_t));
  for (int64_t k = plan.pairBegin; k < plan.pairEnd; ++k) {
    int16_t const* const rows[5] = {lowRow(k), lowRow(k + 1), highRow(k), highRow(k + 1),
                                    highRow(k + 2)};
    int16_t* const even = outRow(2 * k);
    int16_t* const odd = outRow(2 * k + 1);
    uintptr_t misaligned = reinterpret_cast<uintptr_t>(even) | reinterpret_cast<uintptr_t>(odd);
    for (int16_t const* row : rows) misaligned |= reinterpret_cast<uintptr_t>(row);
    if (stream && misaligned % kStreamLineBytes == 0) {
      PairRows<true>(rows[0], rows[1], rows[2], rows[3], rows[4], count, even, odd);
    } else {
      PairRows(rows[0], rows[1], rows[2], rows[3], rows[4], count, even, odd);
    }
  }
  if (stream) hwy::FlushStream();
  // Tail: the even-only row.
  for (int64_t k = plan.evenBegin; k < plan.evenEnd; ++k) {
    EvenRow(lowRow(k), highRow(k), highRow(k + 1), count, outRow(2 * k));
  }
}

void WaveletHorizontal(WaveletPlan const& plan) {
  // At most 256-bit vectors: with 512-bit ones the unaligned loads at +1 and +2 split a
  // cache line on every load, which measured markedly slower.
  const hn::CappedTag<int16_t, 16> d;
  const auto lanes = static_cast<int64_t>(hn::Lanes(d));
  auto const pairs = static_cast<size_t>(plan.pairEnd - plan.pairBegin);
  bool const stream =
      kernel::streamTarget(static_cast<size_t>(plan.count) * pairs * 2 * sizeof(int16_t));
  for (int64_t r = 0; r < plan.count; ++r) {
    int64_t const li = plan.lowBase + r * plan.bandStride;
    int64_t const hi = plan.highBase + r * plan.bandStride;
    int64_t const oi = plan.outBase + r * plan.outStride;
    auto even = [&](int64_t k) {
      return waveletEven(plan.low[li + k], plan.high[hi + k], plan.high[hi + k + 1]);
    };
    auto odd = [&](int64_t k) { return waveletOdd(plan.high[hi + k + 1], even(k), even(k + 1)); };

    // Head: the odd-only sample of an odd output origin.
    for (int64_t k = plan.oddBegin; k < plan.oddEnd; ++k) plan.out[oi + 2 * k + 1] = odd(k);
    if (pairs != 0) {
      WriteSamples(plan.out + oi + 2 * plan.pairBegin, 2 * pairs, stream,
                   [&](size_t first, size_t n, int16_t* out) {
                     // Blocks of whole vectors over k, 2 * lanes target samples each.
                     int64_t k = plan.pairBegin + static_cast<int64_t>(first / 2);
                     int64_t const end = k + static_cast<int64_t>(n / 2);
                     int16_t const* l = plan.low + li + k;
                     int16_t const* h = plan.high + hi + k;
                     for (; k + lanes <= end;
                          k += lanes, l += lanes, h += lanes, out += 2 * lanes) {
                       auto const h1 = hn::LoadU(d, h + 1);
                       auto const e0 = Even(d, hn::LoadU(d, l), hn::LoadU(d, h), h1);
                       auto const e1 = Even(d, hn::LoadU(d, l + 1), h1, hn::LoadU(d, h + 2));
                       hn::StoreInterleaved2(e0, Odd(h1, e0, e1), d, out);
                     }
                     // Remaining pairs one by one.
                     for (; k < end; ++k, out += 2) out[0] = even(k), out[1] = odd(k);
                   });
    }
    // Tail: the even-only sample.
    for (int64_t k = plan.evenBegin; k < plan.evenEnd; ++k) plan.out[oi + 2 * k] = even(k);
  }
  if (stream) hwy::FlushStream();
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel::kernel {

HWY_EXPORT(WaveletVertical);
HWY_EXPORT(WaveletHorizontal);

void waveletVerticalVector(WaveletPlan const& plan) { HWY_DYNAMIC_DISPATCH(WaveletVertical)(plan); }
void waveletHorizontalVector(WaveletPlan const& plan) {
  HWY_DYNAMIC_DISPATCH(WaveletHorizontal)(plan);
}

}  // namespace quorvel::kernel
#endif
