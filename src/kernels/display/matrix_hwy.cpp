// Row kernels of the 3x3 matrix filters, compiled once per SIMD target and chosen at run
// time. Every vector loop is followed by the scalar form for the remaining pixels, and the
// vector forms give exactly the scalar results.
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

#include <cstdlib>

#include "quorvel/kernels/display/matrix.hpp"

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

/// One 32-lane word permute index, aligned for a vector load.
struct WordIndex {
  alignas(64) uint16_t words[32];
};

// Channel c of 32 pixels of 3 x int16 held in three vectors: lane p takes sample 3p + c.
// Samples below 64 come from a two-table permute of the first two vectors (index 3p + c);
// the others from a masked permute of the third (index 3p + c - 64, the same low 5 bits).
constexpr WordIndex deinterleave3Index(int c) {
  WordIndex r{};
  for (int p = 0; p < 32; ++p) r.words[p] = static_cast<uint16_t>((3 * p + c) % 64);
  return r;
}
constexpr uint32_t deinterleave3ThirdMask(int c) {
  uint32_t m = 0;
  for (int p = 0; p < 32; ++p) {
    if (3 * p + c >= 64) m |= uint32_t{1} << p;
  }
  return m;
}

// Output vector k (samples 32k..32k+31) of three channel vectors: channel 0 and 1 lanes
// index a two-table permute of channels 0 and 1 (channel 1 as 32 + p); channel 2 lanes
// (interleave3ThirdMask) a masked permute of channel 2.
constexpr WordIndex interleave3Index(int k) {
  WordIndex r{};
  for (int o = 0; o < 32; ++o) {
    int const g = 32 * k + o, p = g / 3, c = g % 3;
    r.words[o] = static_cast<uint16_t>(c == 1 ? 32 + p : p);
  }
  return r;
}
constexpr uint32_t interleave3ThirdMask(int k) {
  uint32_t m = 0;
  for (int o = 0; o < 32; ++o) {
    if ((32 * k + o) % 3 == 2) m |= uint32_t{1} << o;
  }
  return m;
}

inline constexpr WordIndex kDeinterleave3Index[3] = {deinterleave3Index(0), deinterleave3Index(1),
                                                     deinterleave3Index(2)};
inline constexpr uint32_t kDeinterleave3ThirdMask[3] = {
    deinterleave3ThirdMask(0), deinterleave3ThirdMask(1), deinterleave3ThirdMask(2)};
inline constexpr WordIndex kInterleave3Index[3] = {interleave3Index(0), interleave3Index(1),
                                                   interleave3Index(2)};
inline constexpr uint32_t kInterleave3ThirdMask[3] = {
    interleave3ThirdMask(0), interleave3ThirdMask(1), interleave3ThirdMask(2)};

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

// ================================================================================
// 4 x uint8 -> 4 x uint8
// ================================================================================

#if HWY_TARGET != HWY_SCALAR
// Blocks of Lanes(d) pixels, each one 32-bit lane: split the samples with shifts and masks,
// form the three sums, clamp to [0, 255 * 1024], round, and put alpha back.
template <bool kWrap>
size_t matrixRgba8Blocks(int32_t const* c, uint8_t const* in, uint8_t* out, size_t width) {
  hn::ScalableTag<int32_t> const d;
  hn::Repartition<uint8_t, decltype(d)> const d8;
  size_t const n = hn::Lanes(d);
  hn::Vec<decltype(d)> m[9];
  for (int i = 0; i < 9; ++i) m[i] = coefficientVector<kWrap>(d, c[i]);
  auto const low = hn::Set(d, 0xFF);
  auto const alpha = hn::Set(d, static_cast<int32_t>(0xFF000000u));
  auto const lo = hn::Set(d, matrix_detail::kMin8);
  auto const hi = hn::Set(d, matrix_detail::kMax8);
  size_t i = 0;
  for (; i + n <= width; i += n) {
    auto const v = hn::BitCast(d, hn::LoadU(d8, in + 4 * i));
    auto const x0 = hn::And(v, low);
    auto const x1 = hn::And(hn::ShiftRight<8>(v), low);
    auto const x2 = hn::And(hn::ShiftRight<16>(v), low);
    hn::Vec<decltype(d)> o[3];
    for (int j = 0; j < 3; ++j) {
      auto const s =
          hn::Add(hn::Add(productTerm<kWrap>(m[j], x0), productTerm<kWrap>(m[3 + j], x1)),
                  productTerm<kWrap>(m[6 + j], x2));
      o[j] = roundQ10(hn::Min(hn::Max(s, lo), hi));
    }
    auto const pixel = hn::Or(hn::Or(o[0], hn::ShiftLeft<8>(o[1])),
                              hn::Or(hn::ShiftLeft<16>(o[2]), hn::And(v, alpha)));
    hn::StoreU(hn::BitCast(d8, pixel), d8, out + 4 * i);
  }
  return i;
}

#endif  // HWY_TARGET != HWY_SCALAR

void applyMatrixRgba8(int32_t const* c, uint8_t const* in, uint8_t* out, size_t width) {
  size_t done = 0;
#if HWY_TARGET != HWY_SCALAR
  done = matrix_detail::productsMayWrap(c, 255) ? matrixRgba8Blocks<true>(c, in, out, width)
                                                : matrixRgba8Blocks<false>(c, in, out, width);
#endif
  // Remaining pixels (all of them on the one-lane target).
  matrix_detail::applyMatrixRgba8Scalar(c, in + 4 * done, out + 4 * done, width - done);
}

// ================================================================================
// 3 x int16 -> 3 x int16
// ================================================================================

#if HWY_TARGET != HWY_SCALAR
// Blocks of Lanes(d16) pixels: deinterleave, widen each half to 32 bits, form the sums,
// round (the clamp to [-32768, 32767] * 1024 cannot bind, see below), narrow and
// interleave again.
template <bool kWrap>
size_t matrixRgbS16Blocks(int32_t const* c, int16_t const* in, int16_t* out, size_t width) {
  hn::ScalableTag<int16_t> const d16;
  hn::Half<decltype(d16)> const dh16;
  hn::Repartition<int32_t, decltype(d16)> const d32;
  using V32 = hn::Vec<decltype(d32)>;
  size_t const n = hn::Lanes(d16);
  V32 m[9];
  for (int i = 0; i < 9; ++i) m[i] = coefficientVector<kWrap>(d32, c[i]);
  auto const channel = [&](int j, V32 x0, V32 x1, V32 x2) {
    auto const s = hn::Add(hn::Add(productTerm<kWrap>(m[j], x0), productTerm<kWrap>(m[3 + j], x1)),
                           productTerm<kWrap>(m[6 + j], x2));
    // No clamp: every term lies in [-2^21, 2^21) (wrapped, or small enough not to wrap),
    // so |s| < 3 * 2^21 never reaches the clamp bounds of +-2^25.
    return hn::DemoteTo(dh16, roundQ10(s));
  };
  size_t i = 0;
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  // 32 pixels per vector: the channels are separated and put back with two word permutes
  // per vector across all 512 bits, cheaper than the generic 128-bit-block shuffles.
  using matrix_detail::kDeinterleave3Index;
  using matrix_detail::kDeinterleave3ThirdMask;
  using matrix_detail::kInterleave3Index;
  using matrix_detail::kInterleave3ThirdMask;
  static_assert(hn::MaxLanes(d16) == 32, "one 512-bit vector of int16");
  __m512i split[3], join[3];
  for (int k = 0; k < 3; ++k) {
    split[k] = _mm512_load_si512(kDeinterleave3Index[k].words);
    join[k] = _mm512_load_si512(kInterleave3Index[k].words);
  }
  for (; i + 32 <= width; i += 32) {
    int16_t const* src = in + 3 * i;
    __m512i const v0 = _mm512_loadu_si512(src), v1 = _mm512_loadu_si512(src + 32);
    __m512i const v2 = _mm512_loadu_si512(src + 64);
    hn::Vec<decltype(d16)> x[3];
    for (int c = 0; c < 3; ++c) {
      __m512i const low = _mm512_permutex2var_epi16(v0, split[c], v1);
      x[c].raw = _mm512_mask_permutexvar_epi16(low, kDeinterleave3ThirdMask[c], split[c], v2);
    }
    hn::Vec<decltype(d16)> const r = x[0], g = x[1], b = x[2];
    V32 const r0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, r));
    V32 const g0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, g));
    V32 const b0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, b));
    V32 const r1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, r));
    V32 const g1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, g));
    V32 const b1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, b));
    __m512i const o0 = hn::Combine(d16, channel(0, r1, g1, b1), channel(0, r0, g0, b0)).raw;
    __m512i const o1 = hn::Combine(d16, channel(1, r1, g1, b1), channel(1, r0, g0, b0)).raw;
    __m512i const o2 = hn::Combine(d16, channel(2, r1, g1, b1), channel(2, r0, g0, b0)).raw;
    // Written after all reads of the block: the kernel may run in place.
    for (int k = 0; k < 3; ++k) {
      __m512i const low = _mm512_permutex2var_epi16(o0, join[k], o1);
      _mm512_storeu_si512(out + 3 * i + 32 * k, _mm512_mask_permutexvar_epi16(
                                                    low, kInterleave3ThirdMask[k], join[k], o2));
    }
  }
#endif
  for (; i + n <= width; i += n) {
    hn::Vec<decltype(d16)> r, g, b;
    hn::LoadInterleaved3(d16, in + 3 * i, r, g, b);
    V32 const r0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, r));
    V32 const g0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, g));
    V32 const b0 = hn::PromoteTo(d32, hn::LowerHalf(dh16, b));
    V32 const r1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, r));
    V32 const g1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, g));
    V32 const b1 = hn::PromoteTo(d32, hn::UpperHalf(dh16, b));
    auto const o0 = hn::Combine(d16, channel(0, r1, g1, b1), channel(0, r0, g0, b0));
    auto const o1 = hn::Combine(d16, channel(1, r1, g1, b1), channel(1, r0, g0, b0));
    auto const o2 = hn::Combine(d16, channel(2, r1, g1, b1), channel(2, r0, g0, b0));
    hn::StoreInterleaved3(o0, o1, o2, d16, out + 3 * i);
  }
  return i;
}

#endif  // HWY_TARGET != HWY_SCALAR

void applyMatrixRgbS16(int32_t const* c, int16_t const* in, int16_t* out, size_t width) {
  size_t done = 0;
#if HWY_TARGET != HWY_SCALAR
  done = matrix_detail::productsMayWrap(c, 32768) ? matrixRgbS16Blocks<true>(c, in, out, width)
                                                  : matrixRgbS16Blocks<false>(c, in, out, width);
#endif
  // Remaining pixels (all of them on the one-lane target, which cannot halve a vector).
  matrix_detail::applyMatrixRgbS16Scalar(c, in + 3 * done, out + 3 * done, width - done);
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
