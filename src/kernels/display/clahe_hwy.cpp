// The vector steps of CLAHE (see clahe_rows.hpp), compiled once per instruction set and
// picked at run time. Each works on whole vectors of pixels and finishes a row with the same
// code on a one-lane vector, so every pixel takes the same arithmetic.

// AVX-512 with VBMI looks the mappings up by byte permutes (clahe_avx3-inl.h), a target that
// is opt-in in this Highway.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/clahe_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <algorithm>

#include "kernels/display/clahe_rows.hpp"
#include "kernels/prefetch_ahead.hpp"
#include "simd/lane_ops-inl.h"

#ifndef QUORVEL_CLAHE_HWY_ONCE
#define QUORVEL_CLAHE_HWY_ONCE
namespace quorvel::clahe_detail {

// The mix divides by 1600 as ((num + 800) >> 6) * 5243 >> 17: floor(floor(n / 64) / 25) is
// floor(n / 1600), and the multiply divides by 25 exactly for every m = (num + 800) >> 6 the
// mix can reach (num is at most 255 * 1600).
constexpr bool divisionIsExact() {
  for (uint32_t m = 0; m <= (255 * 1600 + 800) >> 6; ++m) {
    if ((m * 5243) >> 17 != m / 25) return false;
  }
  return true;
}
static_assert(divisionIsExact());

}  // namespace quorvel::clahe_detail
#endif

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Calls f(s, e, left, right) for each column block of a row: pixels [s, e) of the row, whose
// mappings are those of tile columns left and right (at left * 256 and right * 256 of a tile
// row's bytes).
template <class F>
HWY_INLINE void ForEachColumnBlock(size_t count, size_t firstColumn, size_t tileCols, F f) {
  for (size_t s = 0; s < count;) {
    size_t const block = (firstColumn + s + 20) / 40;
    size_t const e = std::min(count, block * 40 + 20 - firstColumn);
    size_t const right = std::min(block, tileCols - 1);
    f(s, e, (block == 0 ? 0 : std::min(block - 1, tileCols - 1)) * 256, right * 256);
    s = e;
  }
}

// Channel 0 of Lanes(d) three-channel pixels.
template <class D>
HWY_INLINE hn::Vec<D> LoadChannel0(D d, int16_t const* samples) {
  hn::Vec<D> s0, s1, s2;
  hn::LoadInterleaved3(d, samples, s0, s1, s2);
  return s0;
}

// Replaces channel 0 of Lanes(d) pixels by `value`, channels 1 and 2 kept, and writes the
// pixels to `copy` too where it is set: with streaming stores if `stream` (whole vectors,
// aligned).
template <class D>
HWY_INLINE void StoreChannel0(D d, hn::Vec<D> value, int16_t* samples, int16_t* copy, bool stream) {
  hn::Vec<D> s0, s1, s2;
  hn::LoadInterleaved3(d, samples, s0, s1, s2);
  hn::StoreInterleaved3(value, s1, s2, d, samples);
  if (copy == nullptr) return;
  for (size_t k = 0; k < 3 * hn::Lanes(d); k += hn::Lanes(d)) {
    if (stream) {
      hn::Stream(hn::LoadU(d, samples + k), d, copy + k);
    } else {
      hn::StoreU(hn::LoadU(d, samples + k), d, copy + k);
    }
  }
}

#include "kernels/display/clahe_avx3-inl.h"

// Lanes(d) pixels: the saturating narrowing of channel 0 is the clamp.
template <class D>
HWY_INLINE void ExtractPixels(D d, int16_t const* samples, uint8_t* bins) {
  const hn::Rebind<uint8_t, D> d8;
  hn::StoreU(hn::DemoteTo(d8, LoadChannel0(d, samples)), d8, bins);
}

void ExtractBins(int16_t const* samples, uint8_t* bins, size_t count) {
  ForEachVector<false>(hn::Rebind<int16_t, hn::ScalableTag<int32_t>>(), 0, count,
                       [=](auto d, size_t i, auto)
                           QUORVEL_STEP { ExtractPixels(d, samples + 3 * i, bins + i); });
}

// Lanes(d) pixels of the mix, in int32 lanes, from their looked-up planes (`planeStep` bytes
// apart): the column mixes are at most 255 * 40 and num at most 255 * 1600.
template <class D>
HWY_INLINE void MixPixels(D d, int16_t* samples, uint8_t const* planes, size_t planeStep,
                          int32_t const* weightRight, int32_t down, int16_t* copy, bool stream) {
  const hn::Rebind<uint8_t, D> d8;
  const hn::Rebind<int16_t, D> d16;
  auto const plane = [&](size_t p) {
    return hn::PromoteTo(d, hn::LoadU(d8, planes + p * planeStep));
  };
  auto const right = hn::LoadU(d, weightRight), left = hn::Sub(hn::Set(d, 40), right);
  auto const top = hn::Add(hn::Mul(plane(0), left), hn::Mul(plane(1), right));
  auto const bottom = hn::Add(hn::Mul(plane(2), left), hn::Mul(plane(3), right));
  auto const num = hn::Add(hn::Mul(top, hn::Set(d, 40 - down)), hn::Mul(bottom, hn::Set(d, down)));
  auto const value = hn::ShiftRight<17>(
      hn::Mul(hn::ShiftRight<6>(hn::Add(num, hn::Set(d, 800))), hn::Set(d, 5243)));
  StoreChannel0(d16, hn::DemoteTo(d16, value), samples, copy, stream);
}

void InterpolateRow(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                    size_t tileCols, uint8_t const* above, uint8_t const* below,
                    int32_t const* weightRight, int32_t weightDown, uint8_t* scratch, int16_t* copy,
                    bool stream) {
  if (bins == nullptr) {
    ExtractBins(samples, scratch, count);
    bins = scratch;
  }
  uint8_t* planes = scratch + count;
  LookUpPlanes(bins, count, firstColumn, tileCols, above, below, planes);
  auto const pixels = [&](auto d, size_t i, bool streamed) {
    MixPixels(d, samples + 3 * i, planes + i, count, weightRight + i, weightDown,
              copy == nullptr ? nullptr : copy + 3 * i, streamed);
  };
  const hn::ScalableTag<int32_t> d;
  size_t const n = hn::Lanes(d);
  // Streaming stores write 16 bytes or more, aligned: the copy of n pixels streams from a
  // target row that starts on a multiple of its n int16 (on 128-bit vectors, of 4 pixels,
  // no stream).
  bool const streamed =
      copy != nullptr && stream && 2 * n >= 16 && reinterpret_cast<uintptr_t>(copy) % (2 * n) == 0;
  size_t i = 0;
  for (; i + n <= count; i += n) {
    // The source line was read when its row was counted, some tens of rows ago, and the
    // target line not at all: fetching both ahead keeps the stores from waiting on them
    // (streamed target lines are not read at all).
    for (size_t k = 0; k < 3 * n; k += 32) {
      kernel::prefetchAhead(samples + 3 * i + k);
      if (copy != nullptr && !streamed) kernel::prefetchAhead(copy + 3 * i + k);
    }
    pixels(d, i, streamed);
  }
  if (streamed) hwy::FlushStream();
  for (; i < count; ++i) pixels(hn::CappedTag<int32_t, 1>(), i, false);
}

// The tile steps in 16-bit lanes, where the counts of a tile of fewer than 32768 pixels,
// its excess and what is handed out all fit: one pass folds the four interleaved count
// sets (zeroing them for the next tile) and sums the excess, and only a tile with an
// excess takes the second, which cuts and shares.
int32_t FoldAndClip(uint16_t* counts, uint32_t* histogram, int32_t limit) {
  const hn::ScalableTag<int16_t> d;
  const hn::RebindToUnsigned<decltype(d)> du;
  const hn::ScalableTag<int32_t> d32;
  const hn::Rebind<int16_t, decltype(d32)> d16;
  size_t const lanes = hn::Lanes(d);
  // A limit above every possible count leaves nothing to cut.
  auto const lim = hn::Set(d, static_cast<int16_t>(std::clamp(limit, 0, 32767)));
  auto const zero = hn::Zero(d);
  // The lanes of an accumulator, each at most the whole tile's count.
  auto const total = [&](hn::Vec<decltype(d)> v) {
    alignas(64) int16_t part[HWY_MAX_BYTES / 2];
    hn::Store(v, d, part);
    int32_t sum = 0;
    for (size_t i = 0; i < lanes; ++i) sum += part[i];
    return sum;
  };
  alignas(64) int16_t h[256];
  auto over = zero;
  for (size_t b = 0; b < 256; b += lanes) {
    auto v = hn::BitCast(d, hn::LoadU(du, counts + b));
    hn::StoreU(hn::Zero(du), du, counts + b);
    for (size_t set = 256; set < 1024; set += 256) {
      v = hn::Add(v, hn::BitCast(d, hn::LoadU(du, counts + set + b)));
      hn::StoreU(hn::Zero(du), du, counts + set + b);
    }
    hn::Store(v, d, h + b);
    over = hn::Add(over, hn::Max(hn::Sub(v, lim), zero));
  }
  int32_t const excess = total(over);
  int32_t left = 0;
  if (excess > 0) {
    int32_t const inc = excess / 256;
    auto const up = hn::Set(d, static_cast<int16_t>(limit - inc));
    auto const share = hn::Set(d, static_cast<int16_t>(inc));
    auto given = zero;
    for (size_t b = 0; b < 256; b += lanes) {
      auto const v = hn::Load(d, h + b);
      auto const near = hn::Gt(v, up);  // includes the bins over the limit
      given = hn::Add(
          given, hn::IfThenZeroElse(hn::Gt(v, lim), hn::IfThenElse(near, hn::Sub(lim, v), share)));
      hn::Store(hn::IfThenElse(near, lim, hn::Add(v, share)), d, h + b);
    }
    left = excess - total(given);
  }
  for (size_t b = 0; b < 256; b += hn::Lanes(d32)) {
    hn::StoreU(hn::PromoteTo(d32, hn::LoadU(d16, h + b)), d32,
               reinterpret_cast<int32_t*>(histogram + b));
  }
  return left;
}

// The running sums by a log-step scan within each vector (adding the lanes 1, 2, 4, ...
// below, moved up by TableLookupLanes) plus the last sum of the vector before; then the
// levels by the same double multiply and truncation as the general path, capped.
void CumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel) {
  auto* h = reinterpret_cast<int32_t*>(histogram);  // sums below 2^31
  {
    const hn::ScalableTag<int32_t> d;
    size_t const n = hn::Lanes(d);
    // below[k]: lane i reads lane i - 2^k (the lanes under 2^k are zeroed after); last: the
    // top lane.
    HWY_ALIGN int32_t below[4][hn::MaxLanes(d)];
    HWY_ALIGN int32_t last[hn::MaxLanes(d)];
    for (size_t i = 0; i < n; ++i) {
      for (size_t k = 0; k < 4; ++k) {
        below[k][i] = static_cast<int32_t>(i >= (size_t{1} << k) ? i - (size_t{1} << k) : 0);
      }
      last[i] = static_cast<int32_t>(n - 1);
    }
    auto carry = hn::Zero(d);
    for (size_t b = 0; b < 256; b += n) {
      auto sums = hn::LoadU(d, h + b);
      for (size_t k = 0; (size_t{1} << k) < n; ++k) {
        auto const moved = hn::TableLookupLanes(sums, hn::SetTableIndices(d, below[k]));
        sums = hn::Add(sums, hn::IfThenZeroElse(hn::FirstN(d, size_t{1} << k), moved));
      }
      sums = hn::Add(sums, carry);
      carry = hn::TableLookupLanes(sums, hn::SetTableIndices(d, last));
      hn::StoreU(sums, d, h + b);
    }
  }
  const hn::ScalableTag<double> d;
  const hn::Rebind<int32_t, decltype(d)> d32;
  auto const factor = hn::Set(d, scale);
  auto const top = hn::Set(d32, static_cast<int32_t>(maxLevel));
  for (size_t b = 0; b < 256; b += hn::Lanes(d)) {
    auto const level = hn::DemoteTo(d32, hn::Mul(hn::PromoteTo(d, hn::LoadU(d32, h + b)), factor));
    hn::StoreU(hn::Min(level, top), d32, h + b);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel::clahe_detail {

HWY_EXPORT(ExtractBins);
HWY_EXPORT(InterpolateRow);
HWY_EXPORT(FoldAndClip);
HWY_EXPORT(CumulativeLevels);

void extractBins(int16_t const* samples, uint8_t* bins, size_t count) {
  HWY_DYNAMIC_DISPATCH(ExtractBins)(samples, bins, count);
}

void interpolateRow(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                    size_t tileCols, uint8_t const* above, uint8_t const* below,
                    int32_t const* weightRight, int32_t weightDown, uint8_t* scratch, int16_t* copy,
                    bool stream) {
  HWY_DYNAMIC_DISPATCH(InterpolateRow)
  (samples, bins, count, firstColumn, tileCols, above, below, weightRight, weightDown, scratch,
   copy, stream);
}

int32_t foldAndClip(uint16_t* counts, uint32_t* histogram, int32_t limit) {
  return HWY_DYNAMIC_DISPATCH(FoldAndClip)(counts, histogram, limit);
}

void cumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel) {
  HWY_DYNAMIC_DISPATCH(CumulativeLevels)(histogram, scale, maxLevel);
}

}  // namespace quorvel::clahe_detail
#endif  // HWY_ONCE
