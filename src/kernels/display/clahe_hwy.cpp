// Vector row kernels of the CLAHE interpolation, compiled once per instruction set and
// picked at run time. Whole vectors first, the rest of the row in the scalar form, so both
// give identical samples.

// With AVX-512 VBMI the mapping tables are looked up by byte permutes instead of gathers, a
// target that is opt-in in this Highway.
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
#include "quorvel/kernels/display/clahe.hpp"

#ifndef QUORVEL_CLAHE_HWY_SHARED
#define QUORVEL_CLAHE_HWY_SHARED
namespace quorvel::clahe_detail {

/// One 32-lane word permute index, aligned for a vector load.
struct WordIndex {
  alignas(64) uint16_t lanes[32];
};

// Channel 0 of 32 three-channel pixels held in three vectors (96 samples): pixel p is
// sample 3p. The first permute takes pixels 0..21 from vectors 0 and 1 (index bit 5 picks
// the second table), the second fills pixels 22..31 from vector 2.
constexpr WordIndex channel0Index(bool fromThird) {
  WordIndex w{};
  for (int p = 0; p < 32; ++p) {
    w.lanes[p] =
        static_cast<uint16_t>(fromThird ? (p >= 22 ? 3 * p - 64 : 0) : (p < 22 ? 3 * p : 0));
  }
  return w;
}

// Lane of pixel p after packing two vectors of 16 int32 (pixels 0..15, 16..31) to words:
// each 128-bit block holds four pixels of the first vector, then four of the second.
constexpr int packedLane(int p) {
  int const half = p / 16, q = p % 16;
  return (q / 4) * 8 + half * 4 + q % 4;
}

// Output vector k of the 96 samples with channel 0 taken from the packed results: lane q
// (sample 32k + q) reads packed lane packedLane((32k + q) / 3) where that sample is a
// channel-0 sample; the mask keeps every other lane.
constexpr WordIndex reinsertIndex(int k) {
  WordIndex w{};
  for (int q = 0; q < 32; ++q) {
    int const s = 32 * k + q;
    w.lanes[q] = static_cast<uint16_t>(s % 3 == 0 ? packedLane(s / 3) : 0);
  }
  return w;
}
constexpr uint32_t reinsertMask(int k) {
  uint32_t m = 0;
  for (int q = 0; q < 32; ++q) m |= (32 * k + q) % 3 == 0 ? uint32_t{1} << q : 0;
  return m;
}

// Output vector k of 96 samples with channel 0 taken from 32 results in pixel order.
constexpr WordIndex reinsertNaturalIndex(int k) {
  WordIndex w{};
  for (int q = 0; q < 32; ++q) {
    int const s = 32 * k + q;
    w.lanes[q] = static_cast<uint16_t>(s % 3 == 0 ? s / 3 : 0);
  }
  return w;
}

inline constexpr WordIndex kChannel0Index[2] = {channel0Index(false), channel0Index(true)};
inline constexpr uint32_t kChannel0ThirdMask = 0xFFC00000u;  // pixels 22..31
inline constexpr WordIndex kReinsertIndex[3] = {reinsertIndex(0), reinsertIndex(1),
                                                reinsertIndex(2)};
inline constexpr WordIndex kReinsertNaturalIndex[3] = {
    reinsertNaturalIndex(0), reinsertNaturalIndex(1), reinsertNaturalIndex(2)};
inline constexpr uint32_t kReinsertMask[3] = {reinsertMask(0), reinsertMask(1), reinsertMask(2)};

}  // namespace quorvel::clahe_detail
#endif

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// GCC 12 reports the deliberately undefined pass-through operands inside the AVX-512
// intrinsics as (maybe) uninitialised once they are inlined here.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

// Channel 0 of 32 pixels (three vectors of samples) as 32 words in pixel order.
HWY_INLINE __m512i Channel0(__m512i v0, __m512i v1, __m512i v2, __m512i first, __m512i third) {
  __m512i const c = _mm512_permutex2var_epi16(v0, first, v1);
  return _mm512_mask_permutexvar_epi16(c, clahe_detail::kChannel0ThirdMask, third, v2);
}

// 32 pixels of the interpolation at a time, in 16-bit lanes where the values allow: the
// packed mapping bytes times the column weights (bytes: wl, wr, wl, wr) sum pairwise to the
// top and bottom mixes (at most 255 * 40), which times the row weights (wu, wd) sum
// pairwise to the 32-bit numerator; dividing by 25 is a high-half multiply. The results go
// back into channel 0 by masked permutes, channels 1 and 2 untouched. Returns the number of
// pixels done.
HWY_INLINE size_t InterpolateBlocks32(int16_t* samples, size_t count, int32_t maxIndex,
                                      uint32_t const* tables, int32_t const* colBase,
                                      int32_t const* weightLeft, int32_t const* weightRight,
                                      int32_t weightUp, int32_t weightDown) {
  using namespace clahe_detail;
  __m512i const first = _mm512_load_si512(kChannel0Index[0].lanes);
  __m512i const third = _mm512_load_si512(kChannel0Index[1].lanes);
  __m512i insert[3];
  for (int k = 0; k < 3; ++k) insert[k] = _mm512_load_si512(kReinsertIndex[k].lanes);
  __m512i const top = _mm512_set1_epi16(static_cast<int16_t>(maxIndex));
  __m512i const zero = _mm512_setzero_si512();
  __m512i const rowWeights = _mm512_set1_epi32(weightUp | weightDown << 16);
  __m512i const half = _mm512_set1_epi32(800);
  __m512i const by25 = _mm512_set1_epi16(5243);
  auto const columnWeights = [&](size_t i) {
    __m512i const w = _mm512_or_si512(_mm512_loadu_si512(weightLeft + i),
                                      _mm512_slli_epi32(_mm512_loadu_si512(weightRight + i), 8));
    return _mm512_or_si512(w, _mm512_slli_epi32(w, 16));
  };
  auto const mix = [&](__m512i index, size_t i) {
    __m512i const t =
        _mm512_i32gather_epi32(_mm512_add_epi32(index, _mm512_loadu_si512(colBase + i)), tables, 4);
    __m512i const num = _mm512_madd_epi16(_mm512_maddubs_epi16(t, columnWeights(i)), rowWeights);
    return _mm512_srli_epi32(_mm512_add_epi32(num, half), 6);
  };
  size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    int16_t* p = samples + 3 * i;
    __m512i const v0 = _mm512_loadu_si512(p), v1 = _mm512_loadu_si512(p + 32),
                  v2 = _mm512_loadu_si512(p + 64);
    __m512i const c =
        _mm512_min_epi16(_mm512_max_epi16(Channel0(v0, v1, v2, first, third), zero), top);
    __m512i const lo = mix(_mm512_cvtepi16_epi32(_mm512_castsi512_si256(c)), i);
    __m512i const hi = mix(_mm512_cvtepi16_epi32(_mm512_extracti64x4_epi64(c, 1)), i + 16);
    // (num + 800) >> 6 is at most 6387: packing and the unsigned high-half multiply are exact.
    __m512i const value =
        _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_packus_epi32(lo, hi), by25), 1);
    _mm512_storeu_si512(p, _mm512_mask_permutexvar_epi16(v0, kReinsertMask[0], insert[0], value));
    _mm512_storeu_si512(p + 32,
                        _mm512_mask_permutexvar_epi16(v1, kReinsertMask[1], insert[1], value));
    _mm512_storeu_si512(p + 64,
                        _mm512_mask_permutexvar_epi16(v2, kReinsertMask[2], insert[2], value));
  }
  return i;
}
#endif

#if HWY_TARGET == HWY_AVX3_DL
// Looks up the four byte planes of every column in three permutes per plane and 64 samples:
// two two-table permutes over the halves of the 256 entries and a blend on the index's top
// bit. One column block (at most 40 columns) at a time, its tables taken from memory.
HWY_INLINE void LookUpBlocks(uint8_t const* bins, size_t count, size_t firstColumn,
                             uint8_t const* tables, uint8_t* planes) {
  size_t const firstBlock = (firstColumn + 20) / 40;
  for (size_t s = 0; s < count;) {
    size_t const block = (firstColumn + s + 20) / 40;
    size_t const e = std::min(count, block * 40 + 20 - firstColumn);
    __mmask64 const m = _bzhi_u64(~uint64_t{0}, static_cast<uint32_t>(e - s));
    __m512i const index = _mm512_maskz_loadu_epi8(m, bins + s);
    __mmask64 const upper = _mm512_movepi8_mask(index);
    uint8_t const* t = tables + (block - firstBlock) * 1024;
    for (size_t p = 0; p < 4; ++p, t += 256) {
      __m512i const low =
          _mm512_permutex2var_epi8(_mm512_loadu_si512(t), index, _mm512_loadu_si512(t + 64));
      __m512i const high =
          _mm512_permutex2var_epi8(_mm512_loadu_si512(t + 128), index, _mm512_loadu_si512(t + 192));
      _mm512_mask_storeu_epi8(planes + p * count + s, m, _mm512_mask_blend_epi8(upper, low, high));
    }
    s = e;
  }
}

// 32 pixels at a time from the looked-up planes: the column mixes in 16-bit lanes (at most
// 255 * 40), the row mix by pairwise multiply-add of interleaved top and bottom words, and
// the packing undoes the interleave, so the results come out in pixel order. The finished
// pixels are also stored to `copy` when it is set, straight from the registers.
template <bool kCopy>
HWY_INLINE size_t MixPlanes32(int16_t* samples, size_t count, uint8_t const* planes,
                              uint16_t const* weightLeft, uint16_t const* weightRight,
                              int32_t weightUp, int32_t weightDown, int16_t* copy, bool stream) {
  using namespace clahe_detail;
  __m512i insert[3];
  for (int k = 0; k < 3; ++k) insert[k] = _mm512_load_si512(kReinsertNaturalIndex[k].lanes);
  __m512i const rowWeights = _mm512_set1_epi32(weightUp | weightDown << 16);
  __m512i const half = _mm512_set1_epi32(800);
  __m512i const by25 = _mm512_set1_epi16(5243);
  auto const plane = [&](size_t p, size_t i) {
    return _mm512_cvtepu8_epi16(
        _mm256_loadu_si256(reinterpret_cast<__m256i const*>(planes + p * count + i)));
  };
  // Streaming stores take whole lines: a target row that starts on one.
  bool const streamed = kCopy && stream && reinterpret_cast<uintptr_t>(copy) % 64 == 0;
  size_t i = 0;
  for (; i + 32 <= count; i += 32) {
    __m512i const wl = _mm512_loadu_si512(weightLeft + i), wr = _mm512_loadu_si512(weightRight + i);
    __m512i const top =
        _mm512_add_epi16(_mm512_mullo_epi16(plane(0, i), wl), _mm512_mullo_epi16(plane(1, i), wr));
    __m512i const bottom =
        _mm512_add_epi16(_mm512_mullo_epi16(plane(2, i), wl), _mm512_mullo_epi16(plane(3, i), wr));
    __m512i const lo = _mm512_madd_epi16(_mm512_unpacklo_epi16(top, bottom), rowWeights);
    __m512i const hi = _mm512_madd_epi16(_mm512_unpackhi_epi16(top, bottom), rowWeights);
    // (num + 800) >> 6 is at most 6387: packing and the unsigned high-half multiply are exact.
    __m512i const packed = _mm512_packus_epi32(_mm512_srli_epi32(_mm512_add_epi32(lo, half), 6),
                                               _mm512_srli_epi32(_mm512_add_epi32(hi, half), 6));
    __m512i const value = _mm512_srli_epi16(_mm512_mulhi_epu16(packed, by25), 1);
    int16_t* p = samples + 3 * i;
    for (int k = 0; k < 3; ++k) {
      // The source line was read when its row was counted, some tens of rows ago, and the
      // target line not at all: fetching both ahead keeps the stores from waiting on them
      // (streamed target lines are not read at all).
      kernel::prefetchAhead(p + 32 * k);
      if constexpr (kCopy) {
        if (!streamed) kernel::prefetchAhead(copy + 3 * i + 32 * k);
      }
      __m512i const v = _mm512_mask_permutexvar_epi16(_mm512_loadu_si512(p + 32 * k),
                                                      kReinsertMask[k], insert[k], value);
      _mm512_storeu_si512(p + 32 * k, v);
      if constexpr (kCopy) {
        if (streamed) {
          _mm512_stream_si512(reinterpret_cast<__m512i*>(copy + 3 * i + 32 * k), v);
        } else {
          _mm512_storeu_si512(copy + 3 * i + 32 * k, v);
        }
      }
    }
  }
  if (streamed) hwy::FlushStream();
  return i;
}
#endif

void ExtractBins(int16_t const* samples, uint8_t* bins, size_t count);

// The row from byte planes: with byte permutes, the bins of the row, then the lookups of
// each column block, then the mix; elsewhere the scalar form (the gather form is preferred
// there).
void InterpolateRowBytes(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                         uint8_t const* tables, uint16_t const* weightLeft,
                         uint16_t const* weightRight, int32_t weightUp, int32_t weightDown,
                         uint8_t* scratch, int16_t* copy, bool stream) {
  size_t i = 0;
#if HWY_TARGET == HWY_AVX3_DL
  if (count >= 32) {
    uint8_t* planes = scratch + count;
    if (bins == nullptr) {
      ExtractBins(samples, scratch, count);
      bins = scratch;
    }
    LookUpBlocks(bins, count, firstColumn, tables, planes);
    i = copy != nullptr ? MixPlanes32<true>(samples, count, planes, weightLeft, weightRight,
                                            weightUp, weightDown, copy, stream)
                        : MixPlanes32<false>(samples, count, planes, weightLeft, weightRight,
                                             weightUp, weightDown, nullptr, false);
  }
#else
  (void)bins;
  (void)scratch;
  (void)stream;
#endif
  if (i < count) {
    size_t const blockOffset = ((firstColumn + i + 20) / 40 - (firstColumn + 20) / 40) * 1024;
    clahe_detail::interpolateRowBytesScalar(samples + 3 * i, count - i, firstColumn + i,
                                            tables + blockOffset, weightLeft + i, weightRight + i,
                                            weightUp, weightDown);
    if (copy != nullptr) std::copy_n(samples + 3 * i, 3 * (count - i), copy + 3 * i);
  }
}

bool ByteTablesPreferred() { return HWY_TARGET == HWY_AVX3_DL; }

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
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  if (channels == 3 && maxIndex >= 0 && maxIndex <= 32767) {
    i = InterpolateBlocks32(samples, count, maxIndex, tables, colBase, weightLeft, weightRight,
                            weightUp, weightDown);
  }
#endif
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
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  // 32 pixels: channel 0 by two permutes, negatives to 0, then the unsigned saturating
  // narrowing clamps the rest to 255.
  __m512i const first = _mm512_load_si512(clahe_detail::kChannel0Index[0].lanes);
  __m512i const third = _mm512_load_si512(clahe_detail::kChannel0Index[1].lanes);
  for (; i + 32 <= count; i += 32) {
    int16_t const* p = samples + 3 * i;
    __m512i const c = Channel0(_mm512_loadu_si512(p), _mm512_loadu_si512(p + 32),
                               _mm512_loadu_si512(p + 64), first, third);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(bins + i),
                        _mm512_cvtusepi16_epi8(_mm512_max_epi16(c, _mm512_setzero_si512())));
  }
#endif
  for (; i + lanes <= count; i += lanes) {
    hn::Vec<decltype(d)> s0, s1, s2;
    hn::LoadInterleaved3(d, samples + 3 * i, s0, s1, s2);
    hn::StoreU(hn::DemoteTo(d8, s0), d8, bins + i);
  }
  if (i < count) clahe_detail::extractBinsScalar(samples + 3 * i, bins + i, count - i);
}

// Mapping words to bytes, for mappings already known to fit (the narrowing saturates).
void NarrowToBytes(uint32_t const* words, uint8_t* bytes, size_t n) {
  const hn::ScalableTag<int32_t> d;
  const hn::Rebind<uint8_t, decltype(d)> d8;
  size_t const lanes = hn::Lanes(d);
  auto const* in = reinterpret_cast<int32_t const*>(words);
  size_t i = 0;
  for (; i + lanes <= n; i += lanes)
    hn::StoreU(hn::DemoteTo(d8, hn::LoadU(d, in + i)), d8, bytes + i);
  for (; i < n; ++i) bytes[i] = static_cast<uint8_t>(std::min<uint32_t>(words[i], 255));
}

uint32_t OrAll(uint32_t const* words, size_t n) {
  const hn::ScalableTag<uint32_t> d;
  size_t const lanes = hn::Lanes(d);
  auto bits = hn::Zero(d);
  size_t i = 0;
  for (; i + lanes <= n; i += lanes) bits = hn::Or(bits, hn::LoadU(d, words + i));
  uint32_t all = 0;
  for (; i < n; ++i) all |= words[i];
  // (No OR reduction in this Highway: the lanes are ORed through a store.)
  HWY_ALIGN uint32_t lanesOut[hn::MaxLanes(d)];
  hn::Store(bits, d, lanesOut);
  for (size_t k = 0; k < lanes; ++k) all |= lanesOut[k];
  return all;
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

// histogram[b] = min(maxLevel, trunc(running sum of bins 0..b * scale)): 16-lane prefix sums
// by lane shifts, and each level by the same double multiply and truncation as the scalar
// loop (a gather from a table of levels measured twice as slow); elsewhere the scalar loop.
void CumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel) {
  size_t b = 0;
  uint32_t carry = 0;
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  __m512i const zero = _mm512_setzero_si512();
  __m512i const last = _mm512_set1_epi32(15);
  __m512i const top = _mm512_set1_epi32(static_cast<int32_t>(maxLevel));
  __m512d const factor = _mm512_set1_pd(scale);
  // Levels beyond int32 convert to 0x80000000, which the unsigned minimum also caps.
  auto const level = [&](__m256i sums) {
    return _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_cvtepu32_pd(sums), factor));
  };
  __m512i total = zero;
  for (; b < 256; b += 16) {
    __m512i x = _mm512_loadu_si512(histogram + b);
    x = _mm512_add_epi32(x, _mm512_alignr_epi32(x, zero, 15));
    x = _mm512_add_epi32(x, _mm512_alignr_epi32(x, zero, 14));
    x = _mm512_add_epi32(x, _mm512_alignr_epi32(x, zero, 12));
    x = _mm512_add_epi32(x, _mm512_alignr_epi32(x, zero, 8));
    x = _mm512_add_epi32(x, total);
    total = _mm512_permutexvar_epi32(last, x);
    __m512i const levels =
        _mm512_inserti64x4(_mm512_castsi256_si512(level(_mm512_castsi512_si256(x))),
                           level(_mm512_extracti64x4_epi64(x, 1)), 1);
    _mm512_storeu_si512(histogram + b, _mm512_min_epu32(levels, top));
  }
#endif
  for (; b < 256; ++b) {
    carry += histogram[b];
    histogram[b] = clahe_detail::levelOfSum(carry, scale, maxLevel);
  }
}

// Clipping in int32 lanes (counts below 2^22, see CLAHE::clipHistogram): the excess over
// the limit, then the cut and the equal share, returning what the share handed out.
int32_t ExcessOver(int32_t const* h, size_t n, int32_t limit) {
  const hn::ScalableTag<int32_t> d;
  size_t const lanes = hn::Lanes(d);
  auto const lim = hn::Set(d, limit);
  auto sum = hn::Zero(d);
  size_t b = 0;
  for (; b + lanes <= n; b += lanes)
    sum = hn::Add(sum, hn::Max(hn::Sub(hn::LoadU(d, h + b), lim), hn::Zero(d)));
  int32_t excess = hn::GetLane(hn::SumOfLanes(d, sum));
  for (; b < n; ++b) excess += h[b] > limit ? h[b] - limit : 0;
  return excess;
}

int32_t CutAndShare(int32_t* h, size_t n, int32_t limit, int32_t inc) {
  const hn::ScalableTag<int32_t> d;
  size_t const lanes = hn::Lanes(d);
  int32_t const upper = limit - inc;
  auto const lim = hn::Set(d, limit), up = hn::Set(d, upper), share = hn::Set(d, inc);
  auto given = hn::Zero(d);
  size_t b = 0;
  for (; b + lanes <= n; b += lanes) {
    auto const v = hn::LoadU(d, h + b);
    auto const near = hn::Gt(v, up);  // includes the bins over the limit
    // Over the limit: cut, nothing given; near it: filled up to it; else: one share.
    given = hn::Add(
        given, hn::IfThenZeroElse(hn::Gt(v, lim), hn::IfThenElse(near, hn::Sub(lim, v), share)));
    hn::StoreU(hn::IfThenElse(near, lim, hn::Add(v, share)), d, h + b);
  }
  int32_t total = hn::GetLane(hn::SumOfLanes(d, given));
  for (; b < n; ++b) {
    int32_t const v = h[b];
    total += v > limit ? 0 : (v > upper ? limit - v : inc);
    h[b] = v > upper ? limit : v + inc;
  }
  return total;
}

}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
namespace clahe_detail {

HWY_EXPORT(InterpolateRow40);
HWY_EXPORT(ExtractBins);
HWY_EXPORT(InterpolateRowBytes);
HWY_EXPORT(ByteTablesPreferred);
HWY_EXPORT(NarrowToBytes);
HWY_EXPORT(OrAll);
HWY_EXPORT(ExcessOver);
HWY_EXPORT(CutAndShare);
HWY_EXPORT(FoldAndClip);
HWY_EXPORT(CumulativeLevels);

int32_t foldAndClip(uint16_t* counts, uint32_t* histogram, int32_t limit) {
  return HWY_DYNAMIC_DISPATCH(FoldAndClip)(counts, histogram, limit);
}

void cumulativeLevels(uint32_t* histogram, double scale, uint32_t maxLevel) {
  HWY_DYNAMIC_DISPATCH(CumulativeLevels)(histogram, scale, maxLevel);
}

void narrowToBytes(uint32_t const* words, uint8_t* bytes, size_t n) {
  HWY_DYNAMIC_DISPATCH(NarrowToBytes)(words, bytes, n);
}

uint32_t orAll(uint32_t const* words, size_t n) { return HWY_DYNAMIC_DISPATCH(OrAll)(words, n); }

int32_t excessOver(int32_t const* h, size_t n, int32_t limit) {
  return HWY_DYNAMIC_DISPATCH(ExcessOver)(h, n, limit);
}

int32_t cutAndShare(int32_t* h, size_t n, int32_t limit, int32_t inc) {
  return HWY_DYNAMIC_DISPATCH(CutAndShare)(h, n, limit, inc);
}

void interpolateRowBytes(int16_t* samples, uint8_t const* bins, size_t count, size_t firstColumn,
                         uint8_t const* tables, uint16_t const* weightLeft,
                         uint16_t const* weightRight, int32_t weightUp, int32_t weightDown,
                         uint8_t* scratch, int16_t* copy, bool stream) {
  HWY_DYNAMIC_DISPATCH(InterpolateRowBytes)
  (samples, bins, count, firstColumn, tables, weightLeft, weightRight, weightUp, weightDown,
   scratch, copy, stream);
}

bool byteTablesPreferred() { return HWY_DYNAMIC_DISPATCH(ByteTablesPreferred)(); }

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
