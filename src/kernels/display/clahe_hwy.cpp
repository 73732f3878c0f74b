// Vector row kernel of the CLAHE interpolation, compiled once per instruction set and picked
// at run time. Whole vectors first, the rest of the row in the scalar form, so both give
// identical samples.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/clahe_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "quorvel/kernels/display/clahe.hpp"

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// =====================================================================================
// CLAHE - bilinear mix of the packed tile mappings
// =====================================================================================

// int32 lanes: the pixels are loaded deinterleaved (three int16 channels), the first channel
// is widened and its packed mapping word fetched with an index gather; the mix is at most
// 255 * 1600, and the division by 1600 is the same shift-multiply-shift as the scalar form.
// The pixels are stored back interleaved, channels 2 and 3 unchanged.
void InterpolateRow40(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                      uint32_t const* tables, int32_t const* colBase, int32_t const* weightLeft,
                      int32_t const* weightRight, int32_t weightUp, int32_t weightDown) {
  const hn::ScalableTag<int32_t> d;
  const hn::Rebind<int16_t, decltype(d)> d16;
  size_t const lanes = hn::Lanes(d);
  auto const zero = hn::Zero(d16), top = hn::Set(d16, static_cast<int16_t>(maxIndex));
  auto const byte = hn::Set(d, 255);
  auto const up = hn::Set(d, weightUp), down = hn::Set(d, weightDown);
  auto const half = hn::Set(d, 800), by25 = hn::Set(d, 5243);
  auto const* table = reinterpret_cast<int32_t const*>(tables);

  size_t i = 0;
  // Blocks of whole vectors (three-channel pixels only; the index range fits int16).
  if (channels == 3 && maxIndex >= 0 && maxIndex <= 32767) {
    for (; i + lanes <= count; i += lanes) {
      int16_t* first = samples + i * 3;
      hn::Vec<decltype(d16)> s0, s1, s2;
      hn::LoadInterleaved3(d16, first, s0, s1, s2);
      auto const index =
          hn::Add(hn::PromoteTo(d, hn::Min(hn::Max(s0, zero), top)), hn::LoadU(d, colBase + i));
      auto const t = hn::GatherIndex(d, table, index);
      auto const wl = hn::LoadU(d, weightLeft + i), wr = hn::LoadU(d, weightRight + i);
      auto const upper =
          hn::Add(hn::Mul(hn::And(t, byte), wl), hn::Mul(hn::And(hn::ShiftRight<8>(t), byte), wr));
      auto const lower = hn::Add(
          hn::Mul(hn::And(hn::ShiftRight<16>(t), byte), wl),
          hn::Mul(hn::BitCast(
                      d, hn::ShiftRight<24>(hn::BitCast(hn::RebindToUnsigned<decltype(d)>(), t))),
                  wr));
      auto const num = hn::Add(hn::Mul(upper, up), hn::Mul(lower, down));
      auto const value = hn::ShiftRight<17>(hn::Mul(hn::ShiftRight<6>(hn::Add(num, half)), by25));
      hn::StoreInterleaved3(hn::DemoteTo(d16, value), s1, s2, d16, first);
    }
  }
  // Tail: fewer pixels than one vector.
  if (i < count) {
    clahe_detail::interpolateRow40Scalar(samples + i * channels, count - i, channels, maxIndex,
                                         tables, colBase + i, weightLeft + i, weightRight + i,
                                         weightUp, weightDown);
  }
}

// int16 lanes: deinterleave, then the saturating narrowing to bytes is the clamp.
void ExtractBins(int16_t const* samples, uint8_t* bins, size_t count) {
  const hn::ScalableTag<int16_t> d;
  const hn::Rebind<uint8_t, decltype(d)> d8;
  size_t const lanes = hn::Lanes(d);
  size_t i = 0;
  for (; i + lanes <= count; i += lanes) {
    hn::Vec<decltype(d)> s0, s1, s2;
    hn::LoadInterleaved3(d, samples + 3 * i, s0, s1, s2);
    hn::StoreU(hn::DemoteTo(d8, s0), d8, bins + i);
  }
  if (i < count) clahe_detail::extractBinsScalar(samples + 3 * i, bins + i, count - i);
}

}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
namespace clahe_detail {

HWY_EXPORT(InterpolateRow40);
HWY_EXPORT(ExtractBins);

void extractBins(int16_t const* samples, uint8_t* bins, size_t count) {
  HWY_DYNAMIC_DISPATCH(ExtractBins)(samples, bins, count);
}

void interpolateRow40(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                      uint32_t const* tables, int32_t const* colBase, int32_t const* weightLeft,
                      int32_t const* weightRight, int32_t weightUp, int32_t weightDown) {
  HWY_DYNAMIC_DISPATCH(InterpolateRow40)
  (samples, count, channels, maxIndex, tables, colBase, weightLeft, weightRight, weightUp,
   weightDown);
}

}  // namespace clahe_detail
}  // namespace quorvel
#endif  // HWY_ONCE
