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

// int32 lanes: the first channel of each pixel is fetched with a byte-offset gather (the
// low half of the 32-bit word at the pixel), its packed mapping word with an index gather;
// the mix is at most 255 * 1600, and the division by 1600 is the same shift-multiply-shift
// as the scalar form.
void InterpolateRow40(int16_t* samples, size_t count, size_t channels, int32_t maxIndex,
                      uint32_t const* tables, int32_t const* colBase, int32_t const* weightLeft,
                      int32_t const* weightRight, int32_t weightUp, int32_t weightDown) {
  const hn::ScalableTag<int32_t> d;
  const hn::Rebind<int16_t, decltype(d)> d16;
  size_t const lanes = hn::Lanes(d);
  auto const pixelOffsets = hn::Mul(hn::Iota(d, 0), hn::Set(d, static_cast<int32_t>(2 * channels)));
  auto const zero = hn::Zero(d), top = hn::Set(d, maxIndex), byte = hn::Set(d, 255);
  auto const up = hn::Set(d, weightUp), down = hn::Set(d, weightDown);
  auto const half = hn::Set(d, 800), by25 = hn::Set(d, 5243);
  auto const* table = reinterpret_cast<int32_t const*>(tables);
  HWY_ALIGN int16_t result[HWY_MAX_BYTES / sizeof(int32_t)];

  size_t i = 0;
  // Blocks of whole vectors.
  for (; i + lanes <= count; i += lanes) {
    int16_t* first = samples + i * channels;
    auto const words = hn::GatherOffset(d, reinterpret_cast<int32_t const*>(first), pixelOffsets);
    auto const sample = hn::ShiftRight<16>(hn::ShiftLeft<16>(words));
    auto const index = hn::Add(hn::Min(hn::Max(sample, zero), top), hn::LoadU(d, colBase + i));
    auto const t = hn::GatherIndex(d, table, index);
    auto const wl = hn::LoadU(d, weightLeft + i), wr = hn::LoadU(d, weightRight + i);
    auto const upper =
        hn::Add(hn::Mul(hn::And(t, byte), wl), hn::Mul(hn::And(hn::ShiftRight<8>(t), byte), wr));
    auto const lower = hn::Add(hn::Mul(hn::And(hn::ShiftRight<16>(t), byte), wl),
                               hn::Mul(hn::And(hn::ShiftRight<24>(t), byte), wr));
    auto const num = hn::Add(hn::Mul(upper, up), hn::Mul(lower, down));
    auto const value = hn::ShiftRight<17>(hn::Mul(hn::ShiftRight<6>(hn::Add(num, half)), by25));
    hn::Store(hn::DemoteTo(d16, value), d16, result);
    // Only the first channel is written back; the others stay as they are.
    for (size_t l = 0; l < lanes; ++l) first[l * channels] = result[l];
  }
  // Tail: fewer pixels than one vector.
  if (i < count) {
    clahe_detail::interpolateRow40Scalar(samples + i * channels, count - i, channels, maxIndex,
                                         tables, colBase + i, weightLeft + i, weightRight + i,
                                         weightUp, weightDown);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
namespace clahe_detail {

HWY_EXPORT(InterpolateRow40);

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
