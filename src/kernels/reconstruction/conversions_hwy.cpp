// Vector bodies of the channel conversions, compiled once per SIMD target. Each kernel is
// one per-vector step walked over the row by WritePixels. With AVX-512 VBMI the narrowing
// and repacking steps use byte permutes across the whole vector, which roughly halves the
// instructions per pixel; elsewhere they use Highway's interleaving loads and stores,
// capped at 256 bits (those shuffle within 128-bit blocks).

// The byte permutes need AVX-512 VBMI, a target that is opt-in in this Highway.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/reconstruction/conversions_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <type_traits>

#include "kernels/reconstruction/pixel_rows.hpp"
#include "quorvel/kernels/reconstruction/conversions.hpp"
#include "simd/lane_ops-inl.h"

#ifndef QUORVEL_CONVERSIONS_HWY_SHARED
#define QUORVEL_CONVERSIONS_HWY_SHARED
namespace quorvel::conversions_detail {

/// One 64-byte permute index, aligned for a vector load.
struct PermuteIndex {
  alignas(64) uint8_t bytes[64];
};

// Output vector k (pixels 16k..16k+15 as RGBA) of 32 pixels of 3 x int16 narrowed by two
// saturating packs. pack(v0, v1) holds sample e < 64 at byte 16 * lane + 8 * (e / 32) + e % 8
// with lane = (e % 32) / 8; pack(v2, v2) holds sample 64 + e at 16 * lane + e % 8, which
// the two-table permute addresses as 64 + that. Alpha bytes pick byte 0 and are ORed later.
constexpr PermuteIndex rgb16ToRgba8Index(int k) {
  PermuteIndex r{};
  for (int j = 0; j < 64; ++j) {
    int const c = j % 4;
    if (c == 3) continue;
    int const e = 3 * (16 * k + j / 4) + c;
    int const v = e / 32, lane = (e % 32) / 8, pos = e % 8;
    r.bytes[j] = static_cast<uint8_t>(v < 2 ? 16 * lane + 8 * v + pos : 64 + 16 * lane + pos);
  }
  return r;
}

// Output vector k (bytes 64k..64k+63 of 64 RGB pixels) from input vectors k and k + 1 of
// 64 RGBA pixels: byte 4p + c of the input pair for output byte 3p + c.
constexpr PermuteIndex removeAlphaIndex(int k) {
  PermuteIndex r{};
  for (int o = 0; o < 64; ++o) {
    int const g = 64 * k + o;
    r.bytes[o] = static_cast<uint8_t>(4 * (g / 3) + g % 3 - 64 * k);
  }
  return r;
}

inline constexpr PermuteIndex kRgb16ToRgba8Index[2] = {rgb16ToRgba8Index(0), rgb16ToRgba8Index(1)};
inline constexpr PermuteIndex kRemoveAlphaIndex[3] = {removeAlphaIndex(0), removeAlphaIndex(1),
                                                      removeAlphaIndex(2)};

}  // namespace quorvel::conversions_detail
#endif

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// 32 pixels from three vectors of samples: two saturating packs (exactly the clamp to
// 0..255), one byte permute per 16 output pixels, alpha ORed in.
template <bool kStream, class D16>
HWY_INLINE void Rgb16ToRgba8Permuted(D16 d16, const int16_t* in, size_t n, uint8_t* out) {
  using conversions_detail::kRgb16ToRgba8Index;
  static_assert(hn::MaxLanes(D16()) == 32, "32 pixels a step");
  const hn::Repartition<uint8_t, D16> d8;
  const hn::Repartition<uint32_t, D16> d32;
  size_t const samples = 3 * n, bytes = 4 * n;
  auto const v0 = LoadN(d16, in, samples);
  auto const v1 = LoadN(d16, in + 32, LanesFrom(samples, 32));
  auto const v2 = LoadN(d16, in + 64, LanesFrom(samples, 64));
  auto const p01 = PackU8(v0, v1), p2 = PackU8(v2, v2);
  auto const alpha = hn::BitCast(d8, hn::Set(d32, 0xFF000000u));
  auto const o0 = TableBytes(p01, hn::Load(d8, kRgb16ToRgba8Index[0].bytes));
  auto const o1 = TwoTableBytes(p01, hn::Load(d8, kRgb16ToRgba8Index[1].bytes), p2);
  StoreN<kStream>(hn::Or(o0, alpha), d8, out, bytes);
  StoreN<kStream>(hn::Or(o1, alpha), d8, out + 64, LanesFrom(bytes, 64));
}

// Repacks pixels of inPerPixel source lanes into outBytes bytes each: with byte permutes
// across the whole vector, permuted(d, in, n, out, streamed) for n <= Lanes(d) pixels, else
// interleaved(d, in, out) for a whole vector of at most 256 bits (the tail one lane at a time).
template <class T, size_t kCapped, class In, class Permuted, class Interleaved>
void Repack(const In* src, size_t inPerPixel, uint8_t* dst, size_t pixels, size_t outBytes,
            bool stream, Permuted permuted, Interleaved interleaved) {
  using Tag =
      std::conditional_t<kHaveByteLanePermute, hn::ScalableTag<T>, hn::CappedTag<T, kCapped>>;
  WritePixels<kHaveByteLanePermute>(Tag(), dst, pixels, outBytes, stream,
                                    [=](auto d, size_t first, auto n, uint8_t* out, auto streamed)
                                        QUORVEL_STEP {
                                          if constexpr (kHaveByteLanePermute) {
                                            permuted(d, src + inPerPixel * first, n, out, streamed);
                                          } else {
                                            interleaved(d, src + inPerPixel * first, out);
                                          }
                                        });
  if (stream) hwy::FlushStream();
}

void Rgb16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
  Repack<int16_t, 16>(
      src, 3, dst, pixels, 4, stream,
      [](auto d16, const int16_t* in, size_t n, uint8_t* out, auto streamed)
          QUORVEL_STEP { Rgb16ToRgba8Permuted<decltype(streamed)::value>(d16, in, n, out); },
      [](auto d16, const int16_t* in, uint8_t* out) QUORVEL_STEP {
        // DemoteTo from signed 16 bits saturates to 0..255: exactly the clamp.
        const hn::Rebind<uint8_t, decltype(d16)> d8;
        hn::Vec<decltype(d16)> r, g, b;
        hn::LoadInterleaved3(d16, in, r, g, b);
        hn::StoreInterleaved4(hn::DemoteTo(d8, r), hn::DemoteTo(d8, g), hn::DemoteTo(d8, b),
                              hn::Set(d8, uint8_t{255}), d8, out);
      });
}

void Gray16To8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
  // DemoteTo from signed 16 bits saturates to 0..255: exactly the clamp.
  WritePixels<true>(hn::ScalableTag<int16_t>(), dst, pixels, 1, stream,
                    [=](auto d16, size_t first, auto n, uint8_t* out, auto streamed) QUORVEL_STEP {
                      const hn::Rebind<uint8_t, decltype(d16)> d8;
                      auto const v = hn::DemoteTo(d8, LoadN(d16, src + first, n));
                      StoreN<decltype(streamed)::value>(v, d8, out, n);
                    });
  if (stream) hwy::FlushStream();
}

void Gray16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
  // One pixel per 32-bit lane: the sample clamped to a byte b becomes b | b << 8 | b << 16
  // with alpha 255 on top.
  WritePixels<true>(hn::ScalableTag<uint32_t>(), dst, pixels, 4, stream,
                    [=](auto d32, size_t first, auto n, uint8_t* out, auto streamed) QUORVEL_STEP {
                      const hn::Rebind<int16_t, decltype(d32)> d16;
                      const hn::Rebind<uint8_t, decltype(d32)> d8;
                      auto const v = LoadN(d16, src + first, n);
                      auto const g = hn::PromoteTo(d32, hn::DemoteTo(d8, v));
                      auto const rgba = hn::Or3(hn::Or(g, hn::Set(d32, 0xFF000000u)),
                                                hn::ShiftLeft<8>(g), hn::ShiftLeft<16>(g));
                      StoreN<decltype(streamed)::value>(rgba, d32, reinterpret_cast<uint32_t*>(out),
                                                        n);
                    });
  if (stream) hwy::FlushStream();
}

void Interleave3(const int16_t* c0, const int16_t* c1, const int16_t* c2, int16_t* dst,
                 size_t pixels, bool stream) {
  WritePixels<kHaveWordLanePermute>(
      hn::ScalableTag<int16_t>(), reinterpret_cast<uint8_t*>(dst), pixels, 6, stream,
      [=](auto d, size_t p, auto n, uint8_t* out, auto streamed) QUORVEL_STEP {
        StoreInterleaved3N<decltype(streamed)::value>(LoadN(d, c0 + p, n), LoadN(d, c1 + p, n),
                                                      LoadN(d, c2 + p, n), d,
                                                      reinterpret_cast<int16_t*>(out), n);
      });
  if (stream) hwy::FlushStream();
}

// 64 pixels: output vector k is one two-table byte permute of inputs k and k + 1.
template <bool kStream, class D>
HWY_INLINE void RemoveAlphaPermuted(D d, const uint8_t* in, size_t n, uint8_t* out) {
  using conversions_detail::kRemoveAlphaIndex;
  static_assert(hn::MaxLanes(D()) == 64, "64 pixels a step");
  hn::Vec<D> v[4];
  for (size_t k = 0; k < 4; ++k) v[k] = LoadN(d, in + 64 * k, LanesFrom(4 * n, 64 * k));
  for (size_t k = 0; k < 3; ++k) {
    auto const o = TwoTableBytes(v[k], hn::Load(d, kRemoveAlphaIndex[k].bytes), v[k + 1]);
    StoreN<kStream>(o, d, out + 64 * k, LanesFrom(3 * n, 64 * k));
  }
}

void RemoveAlpha(const uint8_t* src, uint8_t* dst, size_t pixels, bool stream) {
  Repack<uint8_t, 32>(
      src, 4, dst, pixels, 3, stream,
      [](auto d, const uint8_t* in, size_t n, uint8_t* out, auto streamed)
          QUORVEL_STEP { RemoveAlphaPermuted<decltype(streamed)::value>(d, in, n, out); },
      [](auto d, const uint8_t* in, uint8_t* out) QUORVEL_STEP {
        hn::Vec<decltype(d)> r, g, b, a;
        hn::LoadInterleaved4(d, in, r, g, b, a);
        hn::StoreInterleaved3(r, g, b, d, out);
      });
}

void Truncate(const int16_t* src, int16_t* dst, size_t count, unsigned bits, bool midpoint) {
  const hn::ScalableTag<int16_t> d;
  auto const keepBits = static_cast<int16_t>(~((1 << bits) - 1));
  auto const halfStep = static_cast<int16_t>(midpoint ? ((1 << bits) - 1) >> 1 : 0);
  // Abs and Neg wrap at -32768, matching the 16-bit magnitude of the scalar form.
  ForEachVector(d, 0, count, [=](auto dv, size_t i, auto n) QUORVEL_STEP {
    auto const zero = hn::Zero(dv);
    auto const v = LoadN(dv, src + i, n);
    auto q = hn::And(hn::Abs(v), hn::Set(dv, keepBits));
    q = hn::Add(q, hn::IfThenZeroElse(hn::Eq(q, zero), hn::Set(dv, halfStep)));
    StoreN(hn::IfThenElse(hn::Lt(v, zero), hn::Neg(q), q), dv, dst + i, n);
  });
}

}  // namespace quorvel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel::kernel {

HWY_EXPORT(Rgb16ToRgba8);
HWY_EXPORT(Gray16To8);
HWY_EXPORT(Gray16ToRgba8);
HWY_EXPORT(Interleave3);
HWY_EXPORT(RemoveAlpha);
HWY_EXPORT(Truncate);

void rgb16ToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(Rgb16ToRgba8)(src, dst, pixels, stream);
}
void gray16To8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(Gray16To8)(src, dst, pixels, stream);
}
void gray16ToRgba8Vector(int16_t const* src, uint8_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(Gray16ToRgba8)(src, dst, pixels, stream);
}
void interleave3Vector(int16_t const* c0, int16_t const* c1, int16_t const* c2, int16_t* dst,
                       size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(Interleave3)(c0, c1, c2, dst, pixels, stream);
}
void removeAlphaVector(uint8_t const* src, uint8_t* dst, size_t pixels, bool stream) {
  HWY_DYNAMIC_DISPATCH(RemoveAlpha)(src, dst, pixels, stream);
}
void truncateVector(int16_t const* src, int16_t* dst, size_t count, unsigned bits, bool midpoint) {
  HWY_DYNAMIC_DISPATCH(Truncate)(src, dst, count, bits, midpoint);
}

}  // namespace quorvel::kernel
#endif
