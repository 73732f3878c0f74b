// Row kernels of the lookup-table filters, compiled once per SIMD target and chosen at run
// time. Where a target has the instructions that make a vector form pay (byte permutes,
// fast gathers), one per-vector step covers the row, the tail included (lane_ops-inl.h);
// elsewhere the row is the scalar form. Every form gives exactly the scalar results.

// The 256-entry byte permutes need AVX-512 VBMI, a target that is opt-in in this Highway.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/lut_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <algorithm>

#include "kernels/display/lut_rows.hpp"
#include "quorvel/kernels/display/lut.hpp"
#include "simd/lane_ops-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// ================================================================================
// 4 x uint8 -> 4 x uint8
// ================================================================================

void applyLutRgba8(uint8_t const* table256, uint8_t const* in, uint8_t* out, size_t width) {
  if constexpr (!kHaveByteLanePermute) {
    lut_detail::applyLutRgba8Scalar(table256, in, out, width);
  } else {
    // 16 pixels a vector: two 128-entry permutes over the table halves (each reads the low
    // 7 bits of the level), bit 7 of the level picks the half, and alpha bytes keep the
    // input.
    const hn::ScalableTag<uint8_t> d;
    const hn::RebindToSigned<decltype(d)> di;
    auto const t0 = hn::LoadU(d, table256), t1 = hn::LoadU(d, table256 + 64);
    auto const t2 = hn::LoadU(d, table256 + 128), t3 = hn::LoadU(d, table256 + 192);
    auto const alpha = hn::MaskFromVec(
        hn::BitCast(d, hn::Set(hn::Repartition<uint32_t, decltype(d)>(), 0xFF000000u)));
    ForEachVector(d, 0, 4 * width, [=](auto dv, size_t i, auto n) QUORVEL_STEP {
      auto const v = LoadN(dv, in + i, n);
      auto const low = hn::BitCast(di, TwoTableBytes(t0, v, t1));
      auto const high = hn::BitCast(di, TwoTableBytes(t2, v, t3));
      auto const mapped = hn::BitCast(dv, hn::IfNegativeThenElse(hn::BitCast(di, v), high, low));
      StoreN(hn::IfThenElse(alpha, v, mapped), dv, out + i, n);
    });
  }
}

// ================================================================================
// 3 x int16 -> 4 x uint8
// ================================================================================

// GatherOffset of 32-bit entries. Highway gathers every lane of the 128-bit register, also
// the ones outside a partial vector (a tail's one lane), whose offsets are not defined: a
// partial vector goes through a whole one with its other lanes at offset 0.
template <class D>
HWY_INLINE hn::Vec<D> GatherEntries(D d, int32_t const* base, hn::Vec<D> offsets) {
  if constexpr (hn::MaxLanes(D()) * sizeof(int32_t) >= 16) {
    return hn::GatherOffset(d, base, offsets);
  } else {
    const hn::Full128<hn::TFromD<D>> dw;
    alignas(16) hn::TFromD<D> lanes[4] = {};
    hn::StoreU(offsets, d, lanes);
    hn::Store(hn::GatherOffset(dw, base, hn::Load(dw, lanes)), dw, lanes);
    return hn::LoadU(d, lanes);
  }
}

void applyLutRgbS16(uint8_t const* lut, int32_t maxIndex, int16_t const* in, uint8_t* out,
                    size_t width) {
  if constexpr (!kHaveFastGather) {
    lut_detail::applyLutRgbS16Scalar(lut, maxIndex, in, out, width);
  } else {
    // Deinterleave, clamp the levels to [0, maxIndex] in 16 bits, widen, and gather 4 bytes
    // at each level (the table is padded for this); the low byte of each gathered word is
    // the entry. Pixels are then packed as RGBA words.
    auto const* const base = reinterpret_cast<int32_t const*>(lut);
    auto* const dst = reinterpret_cast<int32_t*>(out);
    auto const top = static_cast<int16_t>(maxIndex);
    ForEachVector(
        hn::ScalableTag<int16_t>(), 0, width, [=](auto d16, size_t i, auto n) QUORVEL_STEP {
          using D16 = decltype(d16);
          // Pixels [first, first + count) of the step from the widened levels of tag d32.
          auto const pack = [&](auto d32, auto r, auto g, auto b, size_t first,
                                size_t count) QUORVEL_STEP {
            auto const entry = [&](auto level) {
              return hn::And(GatherEntries(d32, base, level), hn::Set(d32, 0xFF));
            };
            auto const pixel = hn::Or(hn::Or(entry(r), hn::ShiftLeft<8>(entry(g))),
                                      hn::Or(hn::ShiftLeft<16>(entry(b)),
                                             hn::Set(d32, static_cast<int32_t>(0xFF000000u))));
            StoreN(pixel, d32, dst + i + first, count);
          };
          hn::Vec<D16> x[3];
          LoadInterleaved3N(d16, in + 3 * i, n, x[0], x[1], x[2]);
          for (auto& level : x) level = hn::Min(hn::Max(level, hn::Zero(d16)), hn::Set(d16, top));
          if constexpr (hn::MaxLanes(D16()) == 1) {
            const hn::Rebind<int32_t, D16> d32;
            pack(d32, hn::PromoteTo(d32, x[0]), hn::PromoteTo(d32, x[1]), hn::PromoteTo(d32, x[2]),
                 0, n);
          } else {
            const hn::Repartition<int32_t, D16> d32;
            constexpr size_t kHalf = hn::MaxLanes(decltype(d32)());
            hn::Vec<decltype(d32)> lo[3], hi[3];
            for (int c = 0; c < 3; ++c) PromoteHalves(d32, x[c], lo[c], hi[c]);
            pack(d32, lo[0], lo[1], lo[2], 0, std::min<size_t>(n, kHalf));
            pack(d32, hi[0], hi[1], hi[2], kHalf, LanesFrom(n, kHalf));
          }
        });
  }
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
