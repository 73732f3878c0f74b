// Vector bodies of the inverse 5/3 wavelet passes, compiled once per SIMD target.
//
// Vertical: vectors across the columns, one pair of target rows per step.
// Horizontal: vectors over k; H(k+1), H(k+2) and L(k+1) are unaligned loads at +1 and +2,
// and the e and o lanes are interleaved on store. Each pass is one per-vector step walked
// over the row, the tail included (lane_ops-inl.h). The arithmetic is the 16-bit
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
#include "simd/lane_ops-inl.h"

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
  ForEachVector(hn::ScalableTag<int16_t>(), 0, count, [=](auto d, size_t c, auto n) QUORVEL_STEP {
    StoreN(Even(d, LoadN(d, l + c, n), LoadN(d, h0 + c, n), LoadN(d, h1 + c, n)), d, out + c, n);
  });
}

// Rows of e(k) and o(k) (vertical) from band rows L(k), L(k + 1), H(k), H(k + 1), H(k + 2);
// either output row may be null. With kStream (both rows given, line-aligned, of a target
// larger than the caches) whole vectors are written with streaming stores, which skips
// reading each target line before it is written.
template <bool kStream = false>
HWY_INLINE void PairRows(const int16_t* l0, const int16_t* l1, const int16_t* h0, const int16_t* h1,
                         const int16_t* h2, size_t count, int16_t* evenOut, int16_t* oddOut) {
  ForEachVector(hn::ScalableTag<int16_t>(), 0, count, [=](auto d, size_t c, auto n) QUORVEL_STEP {
    auto const vh1 = LoadN(d, h1 + c, n);
    auto const e0 = Even(d, LoadN(d, l0 + c, n), LoadN(d, h0 + c, n), vh1);
    auto const e1 = Even(d, LoadN(d, l1 + c, n), vh1, LoadN(d, h2 + c, n));
    if (kStream || evenOut != nullptr) StoreN<kStream>(e0, d, evenOut + c, n);
    if (kStream || oddOut != nullptr) StoreN<kStream>(Odd(vh1, e0, e1), d, oddOut + c, n);
  });
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
                     // Pairs from pairBegin + first / 2 on, 2 * lanes target samples a step.
                     int16_t const* l = plan.low + li + plan.pairBegin + first / 2;
                     int16_t const* h = plan.high + hi + plan.pairBegin + first / 2;
                     ForEachVector<false>(d, 0, n / 2, [=](auto dv, size_t j, auto) QUORVEL_STEP {
                       auto const h1 = hn::LoadU(dv, h + j + 1);
                       auto const e0 = Even(dv, hn::LoadU(dv, l + j), hn::LoadU(dv, h + j), h1);
                       auto const e1 =
                           Even(dv, hn::LoadU(dv, l + j + 1), h1, hn::LoadU(dv, h + j + 2));
                       hn::StoreInterleaved2(e0, Odd(h1, e0, e1), dv, out + 2 * j);
                     });
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
