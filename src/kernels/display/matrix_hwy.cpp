// Row kernels of the 3x3 matrix filters, compiled once per SIMD target and chosen at run
// time. Each is one per-vector step walked over the row, the tail included
// (lane_ops-inl.h), and gives exactly the results of the scalar form.
//
// Why the per-product rounding reduces to a multiply: with X = x * 1024 the product
// m' * X has ten zero low bits, so adding 512 and shifting right by 10 returns m' * x when
// nothing wraps. When m' * x * 1024 does wrap in 32 bits, the wrapped value is
// (m' * x mod 2^22) * 1024 read as signed, the +512 cannot carry out of it, and the shift
// returns the low 22 bits of m' * x sign-extended: shift left by 10, then arithmetically
// right by 10. Each term is therefore in [-2^21, 2^21) and the sum of three never wraps.
// The shift pair is only needed when some |m'| * max|x| reaches 2^21; the kernels check
// that once per row.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/matrix_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <type_traits>

#include "kernels/display/matrix_rows.hpp"
#include "quorvel/kernels/display/matrix.hpp"
#include "simd/lane_ops-inl.h"

#ifndef QUORVEL_MATRIX_HWY_SHARED
#define QUORVEL_MATRIX_HWY_SHARED
namespace quorvel::matrix_detail {

// Q10 bounds of the two output ranges.
inline constexpr int32_t kMin8 = 0, kMax8 = 255 * 1024;
inline constexpr int32_t kMin16 = -32768 * 1024, kMax16 = 32767 * 1024;

// Whether some coefficient times a sample of magnitude up to `maxSample` leaves 22 signed
// bits, so the products must be wrapped as the 32-bit formula does.
inline bool productsMayWrap(int32_t const* m, int64_t maxSample) {
  for (int i = 0; i < 9; ++i) {
    if (std::llabs(static_cast<int64_t>(m[i])) * maxSample >= (int64_t{1} << 21)) return true;
  }
  return false;
}

}  // namespace quorvel::matrix_detail
#endif

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// The Q10 product term m' * x of one sample. With kWrap the coefficient vector holds
// m' << 10 (coefficientVector), so the product is the wrapped m' * x * 1024 itself and one
// arithmetic shift leaves the low 22 bits of m' * x sign-extended.
template <bool kWrap, class V>
HWY_INLINE V productTerm(V m, V x) {
  V const p = hn::Mul(m, x);
  if constexpr (kWrap) return hn::ShiftRight<10>(p);
  return p;
}

// Coefficient m' as productTerm<kWrap> expects it (shifted left by 10 in wrapping 32-bit
// arithmetic for kWrap).
template <bool kWrap, class D>
HWY_INLINE hn::Vec<D> coefficientVector(D d, int32_t m) {
  if constexpr (kWrap) return hn::Set(d, static_cast<int32_t>(static_cast<uint32_t>(m) << 10));
  return hn::Set(d, m);
}

// round(s / 1024) half away from zero: (s + 512) >> 10 for s >= 0, (s + 511) >> 10 below.
// s is clamped, so the sum cannot wrap.
template <class V>
HWY_INLINE V roundQ10(V s) {
  return hn::ShiftRight<10>(
      hn::Add(hn::Add(s, hn::Set(hn::DFromV<V>(), 512)), hn::ShiftRight<31>(s)));
}

// The Q10 sum of output channel j from the samples x0, x1, x2, all in 32-bit lanes.
template <bool kWrap, class V>
HWY_INLINE V sumQ10(std::array<int32_t, 9> const& m, int j, V x0, V x1, V x2) {
  const hn::DFromV<V> d;
  auto const term = [&](int i, V x) {
    return productTerm<kWrap>(coefficientVector<kWrap>(d, m[i]), x);
  };
  return hn::Add(hn::Add(term(j, x0), term(3 + j, x1)), term(6 + j, x2));
}

// ================================================================================
// 4 x uint8 -> 4 x uint8
// ================================================================================

// One pixel per 32-bit lane: split the samples with shifts and masks, form the three sums,
// clamp to [0, 255 * 1024], round, and put alpha back.
template <bool kWrap>
void matrixRgba8(std::array<int32_t, 9> const& m, uint8_t const* in, uint8_t* out, size_t width) {
  auto const* src = reinterpret_cast<int32_t const*>(in);
  auto* dst = reinterpret_cast<int32_t*>(out);
  ForEachVector(hn::ScalableTag<int32_t>(), 0, width, [=](auto d, size_t i, auto n) QUORVEL_STEP {
    auto const low = hn::Set(d, 0xFF);
    auto const v = LoadN(d, src + i, n);
    auto const x0 = hn::And(v, low);
    auto const x1 = hn::And(hn::ShiftRight<8>(v), low);
    auto const x2 = hn::And(hn::ShiftRight<16>(v), low);
    hn::Vec<decltype(d)> o[3];
    for (int j = 0; j < 3; ++j) {
      auto const sum = sumQ10<kWrap>(m, j, x0, x1, x2);
      o[j] = roundQ10(hn::Min(hn::Max(sum, hn::Set(d, matrix_detail::kMin8)),
                              hn::Set(d, matrix_detail::kMax8)));
    }
    auto const alpha = hn::And(v, hn::Set(d, static_cast<int32_t>(0xFF000000u)));
    StoreN(hn::Or(hn::Or(o[0], hn::ShiftLeft<8>(o[1])), hn::Or(hn::ShiftLeft<16>(o[2]), alpha)), d,
           dst + i, n);
  });
}

// run(kWrap, m): the kernel body instantiated for whether the coefficients `c` times samples
// of magnitude up to `maxSample` can wrap, given the coefficients as an array.
template <class Run>
void withWrap(int32_t const* c, int64_t maxSample, Run run) {
  std::array<int32_t, 9> m;
  std::copy(c, c + 9, m.begin());
  if (matrix_detail::productsMayWrap(c, maxSample)) {
    run(std::true_type(), m);
  } else {
    run(std::false_type(), m);
  }
}

void applyMatrixRgba8(int32_t const* c, uint8_t const* in, uint8_t* out, size_t width) {
  withWrap(c, 255, [=](auto wrap, auto const& m) { matrixRgba8<wrap()>(m, in, out, width); });
}

// ================================================================================
// 3 x int16 -> 3 x int16
// ================================================================================

// Deinterleave, widen to 32 bits (each half of a vector, or the one lane of a tail), form
// the sums, round, narrow and interleave again. The clamp to [-32768, 32767] * 1024 cannot
// bind: every term lies in [-2^21, 2^21) (wrapped, or small enough not to wrap), so
// |s| < 3 * 2^21 never reaches the bounds of +-2^25.
template <bool kWrap>
void matrixRgbS16(std::array<int32_t, 9> const& m, int16_t const* in, int16_t* out, size_t width) {
  ForEachVector(hn::ScalableTag<int16_t>(), 0, width, [=](auto d16, size_t i, auto n) QUORVEL_STEP {
    using D16 = decltype(d16);
    hn::Vec<D16> x[3], o[3];
    LoadInterleaved3N(d16, in + 3 * i, n, x[0], x[1], x[2]);
    if constexpr (hn::MaxLanes(D16()) == 1) {
      const hn::Rebind<int32_t, D16> d32;
      auto const r = hn::PromoteTo(d32, x[0]), g = hn::PromoteTo(d32, x[1]);
      auto const b = hn::PromoteTo(d32, x[2]);
      for (int j = 0; j < 3; ++j) {
        o[j] = hn::DemoteTo(d16, roundQ10(sumQ10<kWrap>(m, j, r, g, b)));
      }
    } else {
      const hn::Repartition<int32_t, D16> d32;
      hn::Vec<decltype(d32)> lo[3], hi[3];
      for (int c = 0; c < 3; ++c) PromoteHalves(d32, x[c], lo[c], hi[c]);
      for (int j = 0; j < 3; ++j) {
        o[j] = DemoteHalves(d16, roundQ10(sumQ10<kWrap>(m, j, lo[0], lo[1], lo[2])),
                            roundQ10(sumQ10<kWrap>(m, j, hi[0], hi[1], hi[2])));
      }
    }
    // Written after all reads of the step: the kernel may run in place.
    StoreInterleaved3N(o[0], o[1], o[2], d16, out + 3 * i, n);
  });
}

void applyMatrixRgbS16(int32_t const* c, int16_t const* in, int16_t* out, size_t width) {
  withWrap(c, 32768, [=](auto wrap, auto const& m) { matrixRgbS16<wrap()>(m, in, out, width); });
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
HWY_EXPORT(applyMatrixRgba8);
HWY_EXPORT(applyMatrixRgbS16);

namespace matrix_detail {
namespace {

// ((m' * x * 1024 + 512) >> 10) exactly as written, wrapping in 32 bits (computed unsigned
// so the wrap is defined); the shift is arithmetic.
inline int32_t productTerm(int32_t m, int32_t x) {
  uint32_t const product = static_cast<uint32_t>(m) * (static_cast<uint32_t>(x) * 1024u) + 512u;
  return static_cast<int32_t>(product) >> 10;
}

// The clamped Q10 sum of output channel j, rounded half away from zero.
inline int32_t outputSample(int32_t const* m, int j, int32_t x0, int32_t x1, int32_t x2, int32_t lo,
                            int32_t hi) {
  int32_t s = productTerm(m[j], x0) + productTerm(m[3 + j], x1) + productTerm(m[6 + j], x2);
  s = s < lo ? lo : (s > hi ? hi : s);
  return s >= 0 ? (s + 512) >> 10 : -((-s + 512) >> 10);
}

}  // namespace

void applyMatrixRgba8Scalar(int32_t const* c, uint8_t const* in, uint8_t* out, size_t width) {
  for (size_t i = 0; i < width; ++i, in += 4, out += 4) {
    int32_t const x0 = in[0], x1 = in[1], x2 = in[2];
    for (int j = 0; j < 3; ++j) {
      out[j] = static_cast<uint8_t>(outputSample(c, j, x0, x1, x2, kMin8, kMax8));
    }
    out[3] = in[3];
  }
}

void applyMatrixRgbS16Scalar(int32_t const* c, int16_t const* in, int16_t* out, size_t width) {
  for (size_t i = 0; i < width; ++i, in += 3, out += 3) {
    int32_t const x0 = in[0], x1 = in[1], x2 = in[2];
    int16_t result[3];
    for (int j = 0; j < 3; ++j) {
      result[j] = static_cast<int16_t>(outputSample(c, j, x0, x1, x2, kMin16, kMax16));
    }
    // Written after all reads: the kernel may run in place.
    out[0] = result[0], out[1] = result[1], out[2] = result[2];
  }
}

void applyMatrixRgba8(int32_t const* c, uint8_t const* in, uint8_t* out, size_t width) {
  HWY_DYNAMIC_DISPATCH(applyMatrixRgba8)(c, in, out, width);
}

void applyMatrixRgbS16(int32_t const* c, int16_t const* in, int16_t* out, size_t width) {
  HWY_DYNAMIC_DISPATCH(applyMatrixRgbS16)(c, in, out, width);
}

}  // namespace matrix_detail
}  // namespace quorvel
#endif  // HWY_ONCE
