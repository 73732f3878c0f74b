// Lane operations shared by the vector kernels (per-target include guard: this header is
// included once per SIMD target from the *_hwy.cpp files).
//
// This is the one place that asks which instruction set a target has. Kernel bodies are
// written once: they test the constants below where a target has a faster form, walk their
// rows with ForEachVector / WritePixels / StoreRow, and load and store partial vectors with
// LoadN / StoreN. The whole-vector permutes and packs that Highway 1.0.3 does not offer
// are wrapped here, so no raw intrinsic appears in a kernel.

// Permute tables, shared by every target.
#ifndef QUORVEL_SIMD_LANE_OPS_TABLES_
#define QUORVEL_SIMD_LANE_OPS_TABLES_

#include <cstddef>
#include <cstdint>

/// Marks the per-vector steps given to the row walks below. A step is called in two places
/// (whole vectors and the tail), and GCC kept some out of line, broadcasting their constants
/// again at every call: the 3x3 matrix on 16-bit samples ran 15% slower.
#define QUORVEL_STEP __attribute__((always_inline))

namespace quorvel::lane_tables {

/// One 32-lane word permute index, aligned for a vector load.
struct WordIndex {
  alignas(64) uint16_t words[32];
};

// Channel c of 32 pixels of 3 x 16 bits held in three vectors: lane p takes sample 3p + c.
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

}  // namespace quorvel::lane_tables
#endif  // QUORVEL_SIMD_LANE_OPS_TABLES_

#if defined(QUORVEL_SIMD_LANE_OPS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef QUORVEL_SIMD_LANE_OPS_INL_H_
#undef QUORVEL_SIMD_LANE_OPS_INL_H_
#else
#define QUORVEL_SIMD_LANE_OPS_INL_H_
#endif

#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "simd/stream_store-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// ------------------------------------------------------------------------------------
// What the target has
// ------------------------------------------------------------------------------------

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
/// AVX-512BW: masked loads and stores of every lane size, which neither read, write nor
/// fault on the lanes outside the mask, so a row's last partial vector is one masked step.
inline constexpr bool kHaveMaskedMemory = true;
/// AVX-512BW: permutes of 16-bit lanes across the whole vector (two tables at once).
inline constexpr bool kHaveWordLanePermute = true;
/// AVX-512 VBMI (Highway's opt-in AVX3_DL target): the same for 8-bit lanes.
inline constexpr bool kHaveByteLanePermute = HWY_TARGET == HWY_AVX3_DL;
#else
inline constexpr bool kHaveMaskedMemory = false;
inline constexpr bool kHaveWordLanePermute = false;
inline constexpr bool kHaveByteLanePermute = false;
#endif
/// Gathers fast enough to beat scalar table lookups.
inline constexpr bool kHaveFastGather =
    HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL;

// ------------------------------------------------------------------------------------
// Whole-vector permutes and packs (512-bit vectors, and 256-bit ones where said)
// ------------------------------------------------------------------------------------

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
/// Lane j: word index[j] % 64 of the 64 words of lo (0..31) and hi (32..63).
template <typename T>
HWY_INLINE hn::Vec512<T> TwoTableWords(hn::Vec512<T> lo, hn::Vec512<uint16_t> index,
                                       hn::Vec512<T> hi) {
  static_assert(sizeof(T) == 2, "16-bit lanes");
  return hn::Vec512<T>{_mm512_permutex2var_epi16(lo.raw, index.raw, hi.raw)};
}

/// Lane j: table[index[j] % Lanes] where bit j of laneBits is set, else no[j]; on 512- or
/// 256-bit vectors.
template <class V, class VI>
HWY_INLINE V MaskedTableWords(V no, uint32_t laneBits, VI index, V table) {
  static_assert(sizeof(hn::TFromV<V>) == 2, "16-bit lanes");
  if constexpr (hn::MaxLanes(hn::DFromV<V>()) == 32) {
    return V{_mm512_mask_permutexvar_epi16(no.raw, static_cast<__mmask32>(laneBits), index.raw,
                                           table.raw)};
  } else {
    static_assert(hn::MaxLanes(hn::DFromV<V>()) == 16, "256 or 512 bits");
    return V{_mm256_mask_permutexvar_epi16(no.raw, static_cast<__mmask16>(laneBits), index.raw,
                                           table.raw)};
  }
}

/// Each 128-bit block: the block of a, then the block of b, saturated to 0..255.
HWY_INLINE hn::Vec512<uint8_t> PackU8(hn::Vec512<int16_t> a, hn::Vec512<int16_t> b) {
  return hn::Vec512<uint8_t>{_mm512_packus_epi16(a.raw, b.raw)};
}

#if HWY_TARGET == HWY_AVX3_DL
/// Byte j: table[index[j] % 64].
HWY_INLINE hn::Vec512<uint8_t> TableBytes(hn::Vec512<uint8_t> table, hn::Vec512<uint8_t> index) {
  // The zero-masking form with every lane kept: GCC 12 reports the undefined pass-through
  // operand of the plain form as maybe uninitialised once it is inlined.
  return hn::Vec512<uint8_t>{_mm512_maskz_permutexvar_epi8(~__mmask64{0}, index.raw, table.raw)};
}

/// Byte j: byte index[j] % 128 of the 128 bytes of lo (0..63) and hi (64..127).
HWY_INLINE hn::Vec512<uint8_t> TwoTableBytes(hn::Vec512<uint8_t> lo, hn::Vec512<uint8_t> index,
                                             hn::Vec512<uint8_t> hi) {
  return hn::Vec512<uint8_t>{_mm512_permutex2var_epi8(lo.raw, index.raw, hi.raw)};
}
#endif
#endif

// Declared only where the instructions are missing: every call sits behind the constants
// above, so none of these is ever instantiated there.
#if HWY_TARGET != HWY_AVX3 && HWY_TARGET != HWY_AVX3_DL
template <class V, class VI>
V TwoTableWords(V lo, VI index, V hi);
template <class V, class VI>
V MaskedTableWords(V no, uint32_t laneBits, VI index, V table);
template <class V>
hn::Vec<hn::Repartition<uint8_t, hn::DFromV<V>>> PackU8(V a, V b);
#endif
#if HWY_TARGET != HWY_AVX3_DL
template <class V>
V TableBytes(V table, V index);
template <class V>
V TwoTableBytes(V lo, V index, V hi);
#endif

// ------------------------------------------------------------------------------------
// Partial vectors
// ------------------------------------------------------------------------------------

/// How many of the lanes from `first` on are below `count`.
HWY_INLINE size_t LanesFrom(size_t count, size_t first) {
  return count > first ? count - first : 0;
}

/// The first n lanes at p (all of them for n >= Lanes(d)), the others zero; memory past
/// the n lanes is not read. Partial loads need kHaveMaskedMemory.
template <class D>
HWY_INLINE hn::Vec<D> LoadN(D d, const hn::TFromD<D>* HWY_RESTRICT p, size_t n) {
  if constexpr (kHaveMaskedMemory) {
    if (n < hn::Lanes(d)) return hn::MaskedLoad(hn::FirstN(d, n), d, p);
  }
  HWY_DASSERT(n >= hn::Lanes(d));
  return hn::LoadU(d, p);
}

/// Stores the first n lanes of v at p (all of them for n >= Lanes(d)) and leaves the
/// memory after them alone. With kStream, whole vectors of at least 16 bytes are streamed
/// (p then starts on one); smaller ones would write past their lanes.
template <bool kStream = false, class D>
HWY_INLINE void StoreN(hn::Vec<D> v, D d, hn::TFromD<D>* HWY_RESTRICT p, size_t n) {
  if (n >= hn::Lanes(d)) {
    if constexpr (kStream && hn::MaxLanes(d) * sizeof(hn::TFromD<D>) >= 16) {
      hn::Stream(v, d, p);
    } else {
      hn::StoreU(v, d, p);
    }
    return;
  }
  if constexpr (kHaveMaskedMemory) {
    hn::BlendedStore(v, hn::FirstN(d, n), d, p);
  } else {
    HWY_DASSERT(false);
  }
}

// ------------------------------------------------------------------------------------
// Widening by halves (vectors of two lanes or more)
// ------------------------------------------------------------------------------------

#if HWY_TARGET != HWY_SCALAR
/// The lanes of v widened to the lanes of dw (half as many): the lower half in lo, the
/// upper half in hi.
template <class DW, class V>
HWY_INLINE void PromoteHalves(DW dw, V v, hn::Vec<DW>& lo, hn::Vec<DW>& hi) {
  const hn::Half<hn::DFromV<V>> dh;
  lo = hn::PromoteTo(dw, hn::LowerHalf(dh, v));
  hi = hn::PromoteTo(dw, hn::UpperHalf(dh, v));
}

/// The halves lo and hi narrowed (saturating) to the lanes of d and joined.
template <class D, class VW>
HWY_INLINE hn::Vec<D> DemoteHalves(D d, VW lo, VW hi) {
  const hn::Half<D> dh;
  return hn::Combine(d, hn::DemoteTo(dh, hi), hn::DemoteTo(dh, lo));
}
#else
// Declared only: the one-lane target has no halves, and its callers never get here.
template <class DW, class V>
void PromoteHalves(DW dw, V v, hn::Vec<DW>& lo, hn::Vec<DW>& hi);
template <class D, class VW>
hn::Vec<D> DemoteHalves(D d, VW lo, VW hi);
#endif

// ------------------------------------------------------------------------------------
// Row walks: one per-vector step for the whole vectors and the tail
// ------------------------------------------------------------------------------------

/// The lane count of a whole vector of d, as a type: a step given it is compiled without
/// the checks for a partial vector.
template <class D>
using WholeVector = std::integral_constant<size_t, hn::MaxLanes(D())>;

// The walks take their steps by value and kernels capture by value: a step's pointers and
// constants then stay in registers. Captured by reference they were reloaded after every
// store (a byte store may alias anything), which cost up to a third of a narrowing row
// held in the cache.

/// Calls step(d, i, WholeVector<D>()) for the whole vectors of [begin, end), then covers
/// the rest with the same step: with kMasked (a step that loads and stores with LoadN /
/// StoreN) on a target with masked memory, one partial vector step(d, i, end - i);
/// otherwise one lane at a time, step(d1, i, WholeVector<D1>()) with a one-lane tag d1.
template <bool kMasked = true, class D, class Step>
HWY_INLINE void ForEachVector(D d, size_t begin, size_t end, Step step) {
  constexpr size_t kLanes = WholeVector<D>::value;
  size_t i = begin;
  for (; i + kLanes <= end; i += kLanes) step(d, i, WholeVector<D>());
  if (i == end) return;
  if constexpr (kMasked && kHaveMaskedMemory) {
    step(d, i, end - i);
  } else {
    const hn::CappedTag<hn::TFromD<D>, 1> d1;
    for (; i < end; ++i) step(d1, i, WholeVector<decltype(d1)>());
  }
}

/// Writes `count` items of `itemBytes` bytes at dst; step(d, first, n, out, streamed)
/// stores items [first, first + n) at out (n as in ForEachVector), with streaming stores
/// if `streamed` holds. With kMasked (a step built on LoadN / StoreN) on a target with
/// masked memory, a streamed row that starts on a cache line streams its whole vectors
/// straight from the registers, which measured faster than staging them. Otherwise the row
/// goes through WriteRow. The caller issues hwy::FlushStream() after a streamed row.
template <bool kMasked, class D, class Step>
HWY_INLINE void WritePixels(D d, uint8_t* dst, size_t count, size_t itemBytes, bool stream,
                            Step step) {
  // Items [first, first + n) at out; whole vectors streamed with kStream.
  auto const run = [d, itemBytes, step](size_t first, size_t n, uint8_t* out,
                                        auto streamed) QUORVEL_STEP {
    ForEachVector<kMasked>(d, 0, n, [=](auto dv, size_t i, auto lanes) QUORVEL_STEP {
      // Only whole vectors are streamed.
      constexpr bool kStream =
          decltype(streamed)::value && !std::is_same_v<decltype(lanes), size_t>;
      step(dv, first + i, lanes, out + i * itemBytes, std::bool_constant<kStream>());
    });
  };
  if constexpr (kMasked && kHaveMaskedMemory) {
    if (stream && reinterpret_cast<uintptr_t>(dst) % kStreamLineBytes == 0) {
      run(0, count, dst, std::true_type());
      return;
    }
  }
  WriteRow(dst, count, itemBytes, stream,
           [&run](size_t first, size_t n, uint8_t* out) { run(first, n, out, std::false_type()); });
}

/// Stores compute(d, i, n), a vector whose first n lanes are samples [i, i + n), for the
/// `count` samples at out, tail as in ForEachVector. With `stream`, the samples before the
/// first cache line of out go first with ordinary stores, then whole vectors are streamed;
/// the caller issues hwy::FlushStream().
template <class D, class Compute>
HWY_INLINE void StoreRow(D d, hn::TFromD<D>* out, size_t count, bool stream, Compute compute) {
  using T = hn::TFromD<D>;
  auto const store = [out, compute](auto dv, size_t i, auto n)
                         QUORVEL_STEP { StoreN(compute(dv, i, n), dv, out + i, n); };
  size_t k = 0;
  // Streaming stores take whole vectors of 16 bytes or more.
  if constexpr (hn::MaxLanes(D()) * sizeof(T) >= 16) {
    if (stream) {
      constexpr size_t kLanes = WholeVector<D>::value;
      auto const address = reinterpret_cast<uintptr_t>(out);
      k = std::min(count,
                   (kStreamLineBytes - address % kStreamLineBytes) % kStreamLineBytes / sizeof(T));
      ForEachVector(d, 0, k, store);
      for (; k + kLanes <= count; k += kLanes) {
        StoreN<true>(compute(d, k, WholeVector<D>()), d, out + k, kLanes);
      }
    }
  }
  ForEachVector(d, k, count, store);
}

// ------------------------------------------------------------------------------------
// Three interleaved channels of 16-bit samples
// ------------------------------------------------------------------------------------

/// LoadInterleaved3 of the first n pixels at p (n < Lanes(d) needs kHaveMaskedMemory).
/// On full 512-bit vectors with word permutes, two permutes per channel across the whole
/// vector, cheaper than Highway's shuffles within 128-bit blocks.
template <class D>
HWY_INLINE void LoadInterleaved3N(D d, const hn::TFromD<D>* HWY_RESTRICT p, size_t n,
                                  hn::Vec<D>& c0, hn::Vec<D>& c1, hn::Vec<D>& c2) {
  if constexpr (kHaveWordLanePermute && hn::MaxLanes(D()) == 32) {
    using lane_tables::kDeinterleave3Index;
    using lane_tables::kDeinterleave3ThirdMask;
    const hn::RebindToUnsigned<D> du;
    size_t const samples = 3 * n;
    auto const v0 = LoadN(d, p, samples);
    auto const v1 = LoadN(d, p + 32, LanesFrom(samples, 32));
    auto const v2 = LoadN(d, p + 64, LanesFrom(samples, 64));
    hn::Vec<D>* const out[3] = {&c0, &c1, &c2};
    for (int c = 0; c < 3; ++c) {
      auto const index = hn::Load(du, kDeinterleave3Index[c].words);
      *out[c] =
          MaskedTableWords(TwoTableWords(v0, index, v1), kDeinterleave3ThirdMask[c], index, v2);
    }
  } else {
    HWY_DASSERT(n >= hn::Lanes(d));
    hn::LoadInterleaved3(d, p, c0, c1, c2);
  }
}

/// StoreInterleaved3 of the first n pixels at p (n < Lanes(d) needs kHaveMaskedMemory),
/// whole vectors streamed with kStream; the permutes as in LoadInterleaved3N.
template <bool kStream = false, class D>
HWY_INLINE void StoreInterleaved3N(hn::Vec<D> c0, hn::Vec<D> c1, hn::Vec<D> c2, D d,
                                   hn::TFromD<D>* HWY_RESTRICT p, size_t n) {
  if constexpr (kHaveWordLanePermute && hn::MaxLanes(D()) == 32) {
    using lane_tables::kInterleave3Index;
    using lane_tables::kInterleave3ThirdMask;
    const hn::RebindToUnsigned<D> du;
    size_t const samples = 3 * n;
    for (size_t k = 0; k < 3; ++k) {
      auto const index = hn::Load(du, kInterleave3Index[k].words);
      auto const v =
          MaskedTableWords(TwoTableWords(c0, index, c1), kInterleave3ThirdMask[k], index, c2);
      StoreN<kStream>(v, d, p + 32 * k, LanesFrom(samples, 32 * k));
    }
  } else {
    static_assert(!kStream, "Highway's interleaved stores are not streamed");
    HWY_DASSERT(n >= hn::Lanes(d));
    hn::StoreInterleaved3(c0, c1, c2, d, p);
  }
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // QUORVEL_SIMD_LANE_OPS_INL_H_
