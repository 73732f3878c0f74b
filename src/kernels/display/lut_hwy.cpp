// Row kernels of the lookup-table filters, compiled once per SIMD target and chosen at run
// time. Every vector loop is followed by the scalar form for the remaining pixels, and the
// vector forms give exactly the scalar results.

// The 256-entry byte permutes need AVX-512 VBMI, a target that is opt-in in this Highway.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/lut_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "quorvel/kernels/display/lut.hpp"

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// ================================================================================
// 4 x uint8 -> 4 x uint8
// ================================================================================

void applyLutRgba8(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width) {
  size_t i = 0;
#if HWY_TARGET == HWY_AVX3_DL
  // Blocks of 16 pixels: two 128-entry permutes over the table halves (each reads the low
  // 7 bits of the level), bit 7 of the level picks the half, and alpha bytes keep the
  // input.
  hn::Full512<uint8_t> const d;
  __m512i const t0 = hn::LoadU(d, table256).raw;
  __m512i const t1 = hn::LoadU(d, table256 + 64).raw;
  __m512i const t2 = hn::LoadU(d, table256 + 128).raw;
  __m512i const t3 = hn::LoadU(d, table256 + 192).raw;
  __mmask64 const alpha = 0x8888888888888888ull;
  for (; i + 16 <= width; i += 16) {
    __m512i const v = hn::LoadU(d, in + 4 * i).raw;
    __m512i const low = _mm512_permutex2var_epi8(t0, v, t1);
    __m512i const high = _mm512_permutex2var_epi8(t2, v, t3);
    __m512i mapped = _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), low, high);
    mapped = _mm512_mask_blend_epi8(alpha, mapped, v);
    hn::StoreU(hn::Vec512<uint8_t>{mapped}, d, out + 4 * i);
  }
#endif
  // Remaining pixels (all of them on targets without byte permutes).
  lut_detail::applyLutRgba8Scalar(table256, in + 4 * i, out + 4 * i, width - i);
}

// ================================================================================
// 3 x int16 -> 4 x uint8
// ================================================================================

void applyLutRgbS16(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                    size_t width) {
  size_t i = 0;
#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  // Blocks of Lanes(d16) pixels: deinterleave, clamp the levels to [0, maxIndex] in 16
  // bits, widen, and gather 4 bytes at each level (the table is padded for this); the low
  // byte of each gathered word is the entry. Pixels are then packed as RGBA words.
  hn::ScalableTag<int16_t> const d16;
  hn::Half<decltype(d16)> const dh16;
  hn::Repartition<int32_t, decltype(d16)> const d32;
  hn::Repartition<uint8_t, decltype(d16)> const d8;
  size_t const n16 = hn::Lanes(d16);
  size_t const n32 = hn::Lanes(d32);
  auto const zero = hn::Zero(d16);
  auto const top = hn::Set(d16, static_cast<int16_t>(maxIndex));
  auto const byteMask = hn::Set(d32, 0xFF);
  auto const opaque = hn::Set(d32, static_cast<int32_t>(0xFF000000u));
  auto const* const base = reinterpret_cast<int32_t const*>(lut);
  auto const pack = [&](auto r, auto g, auto b, uint8_t* dst) {
    auto const vr = hn::And(hn::GatherOffset(d32, base, r), byteMask);
    auto const vg = hn::And(hn::GatherOffset(d32, base, g), byteMask);
    auto const vb = hn::And(hn::GatherOffset(d32, base, b), byteMask);
    auto const pixel =
        hn::Or(hn::Or(vr, hn::ShiftLeft<8>(vg)), hn::Or(hn::ShiftLeft<16>(vb), opaque));
    hn::StoreU(hn::BitCast(d8, pixel), d8, dst);
  };
  for (; i + n16 <= width; i += n16) {
    hn::Vec<decltype(d16)> r, g, b;
    hn::LoadInterleaved3(d16, in + 3 * i, r, g, b);
    r = hn::Min(hn::Max(r, zero), top);
    g = hn::Min(hn::Max(g, zero), top);
    b = hn::Min(hn::Max(b, zero), top);
    pack(hn::PromoteTo(d32, hn::LowerHalf(dh16, r)), hn::PromoteTo(d32, hn::LowerHalf(dh16, g)),
         hn::PromoteTo(d32, hn::LowerHalf(dh16, b)), out + 4 * i);
    pack(hn::PromoteTo(d32, hn::UpperHalf(dh16, r)), hn::PromoteTo(d32, hn::UpperHalf(dh16, g)),
         hn::PromoteTo(d32, hn::UpperHalf(dh16, b)), out + 4 * (i + n32));
  }
#endif
  // Remaining pixels (all of them on targets without fast gathers).
  lut_detail::applyLutRgbS16Scalar(lut, maxIndex, in + 3 * i, out + 4 * i, width - i);
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
HWY_EXPORT(applyLutRgba8);
HWY_EXPORT(applyLutRgbS16);

namespace lut_detail {

void applyLutRgba8Scalar(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width) {
  for (size_t i = 0; i < width; ++i, in += 4, out += 4) {
    out[0] = table256[in[0]];
    out[1] = table256[in[1]];
    out[2] = table256[in[2]];
    out[3] = in[3];
  }
}

void applyLutRgbS16Scalar(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                          size_t width) {
  auto const index = [maxIndex](int16_t c) -> int32_t {
    return c < 0 ? 0 : (c > maxIndex ? maxIndex : c);
  };
  for (size_t i = 0; i < width; ++i, in += 3, out += 4) {
    out[0] = lut[index(in[0])];
    out[1] = lut[index(in[1])];
    out[2] = lut[index(in[2])];
    out[3] = 255;
  }
}

void applyLutRgba8(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width) {
  HWY_DYNAMIC_DISPATCH(applyLutRgba8)(table256, in, out, width);
}

void applyLutRgbS16(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                    size_t width) {
  HWY_DYNAMIC_DISPATCH(applyLutRgbS16)(lut, maxIndex, in, out, width);
}

}  // namespace lut_detail
}  // namespace quorvel
#endif  // HWY_ONCE
