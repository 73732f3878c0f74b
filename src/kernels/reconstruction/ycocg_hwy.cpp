// Vector bodies of the YCoCg colour transforms, compiled once per SIMD target: one
// per-vector step walked over the row, the tail one pixel at a time (lane_ops-inl.h).
// Vectors are capped at 256 bits: the interleaved loads and stores shuffle within 128-bit
// blocks, and wider vectors measured no faster on these memory-bound rows.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/reconstruction/ycocg_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "kernels/reconstruction/pixel_rows.hpp"
#include "quorvel/kernels/reconstruction/ycocg.hpp"
#include "simd/lane_ops-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Pixels16 = hn::CappedTag<int16_t, 16>;

void YCoCgToRgb16(const int16_t* src, int16_t* dst, size_t pixels, bool stream) {
  // All in 16-bit wrap-around arithmetic.
  WritePixels<false>(Pixels16(), reinterpret_cast<uint8_t*>(dst), pixels, 6, stream,
                     [=](auto d, size_t first, auto, uint8_t* out, auto) QUORVEL_STEP {
                       hn::Vec<decltype(d)> y, co, cg;
                       hn::LoadInterleaved3(d, src + 3 * first, y, co, cg);
                       auto const t = hn::Sub(y, hn::ShiftRight<1>(cg));
                       auto const b = hn::Sub(t, hn::ShiftRight<1>(co));
                       hn::StoreInterleaved3(hn::Add(b, co), hn::Add(t, cg), b, d,
                                             reinterpret_cast<int16_t*>(out));
                     });
  if (stream) hwy::FlushStream();
}

void YCoCgToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
  // Exact against the 32-bit form without widening: each channel is Y plus at most two
  // terms of magnitude <= 16384 (R = Y - (Cg >> 1) + ceil(Co / 2), G = Y + ceil(Cg / 2),
  // B = Y - (Cg >> 1) - (Co >> 1)), added with saturation. A first sum that saturates is
  // beyond 32767 or -32768, so after the second term it is still beyond 255 or 0 on the
  // same side, and the saturating 16 -> 8-bit demotion clamps to the same value.
  WritePixels<false>(Pixels16(), dst, pixels, 4, stream,
                     [=](auto d16, size_t first, auto, uint8_t* out, auto) QUORVEL_STEP {
                       const hn::Rebind<uint8_t, decltype(d16)> d8;
                       hn::Vec<decltype(d16)> y, co, cg;
                       hn::LoadInterleaved3(d16, src + 3 * first, y, co, cg);
                       auto const halfCo = hn::ShiftRight<1>(co), halfCg = hn::ShiftRight<1>(cg);
                       auto const t = hn::SaturatedSub(y, halfCg);
                       auto const r = hn::SaturatedAdd(t, hn::Sub(co, halfCo));
                       auto const g = hn::SaturatedAdd(y, hn::Sub(cg, halfCg));
                       auto const b = hn::SaturatedSub(t, halfCo);
                       hn::StoreInterleaved4(hn::DemoteTo(d8, r), hn::DemoteTo(d8, g),
                                             hn::DemoteTo(d8, b), hn::Set(d8, uint8_t{255}), d8,
                                             out);
                     });
  if (stream) hwy::FlushStream();
}

void Rgba8ToYCoCg(const uint8_t* src, int16_t* dst, size_t pixels, bool stream) {
  // 8-bit inputs keep every intermediate within 16 bits: no widening needed.
  WritePixels<false>(Pixels16(), reinterpret_cast<uint8_t*>(dst), pixels, 6, stream,
                     [=](auto d16, size_t first, auto, uint8_t* out, auto) QUORVEL_STEP {
                       const hn::Rebind<uint8_t, decltype(d16)> d8;
                       hn::Vec<decltype(d8)> r8, g8, b8, a8;
                       hn::LoadInterleaved4(d8, src + 4 * first, r8, g8, b8, a8);
                       auto const r = hn::PromoteTo(d16, r8), g = hn::PromoteTo(d16, g8);
                       auto const b = hn::PromoteTo(d16, b8);
                       auto const co = hn::Sub(r, b);
                       auto const t = hn::Add(b, hn::ShiftRight<1>(co));
                       auto const cg = hn::Sub(g, t);
                       hn::StoreInterleaved3(hn::Add(t, hn::ShiftRight<1>(cg)), co, cg, d16,
                                             reinterpret_cast<int16_t*>(out));
                     });
  if (stream) hwy::FlushStream();
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel::kernel {

HWY_EXPORT(YCoCgToRgb16);
HWY_EXPORT(YCoCgToRgba8);
HWY_EXPORT(Rgba8ToYCoCg);

void yCoCgToRgb16Vector(int16_t const* src, int16_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(YCoCgToRgb16)(src, dst, pixels, stream);
}
void yCoCgToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(YCoCgToRgba8)(src, dst, pixels, stream);
}
void rgba8ToYCoCgVector(uint8_t const* src, int16_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(Rgba8ToYCoCg)(src, dst, pixels, stream);
}

}  // namespace quorvel::kernel
#endif
