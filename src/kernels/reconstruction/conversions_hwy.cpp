// Vector bodies of the channel conversions, compiled once per SIMD target. The generic
// bodies are capped at 256 bits (Highway's interleaving shuffles work within 128-bit
// blocks); with AVX-512 VBMI the narrowing and repacking rows use full-width byte permutes
// across the whole vector instead, which roughly halves the instructions per pixel.

// The byte permutes need AVX-512 VBMI, a target that is opt-in in this Highway.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/reconstruction/conversions_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "kernels/reconstruction/pixel_rows.hpp"
#include "quorvel/kernels/reconstruction/conversions.hpp"
#include "simd/stream_store-inl.h"

#ifndef QUORVEL_CONVERSIONS_HWY_SHARED
#define QUORVEL_CONVERSIONS_HWY_SHARED
namespace quorvel::conversions_detail {

/// One 64-lane permute index (bytes, or the low half as 32 words), aligned for a vector load.
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

// Output vector k (words 32k..32k+31 of 32 pixels of 3 x int16) from three planes of 32
// samples: word lanes of channel 0 and 1 index plane 0 / plane 1 (as 32 + p) of a two-table
// word permute; channel 2 lanes index plane 2 in a second, masked permute (see
// interleaveChannel2Mask).
constexpr PermuteIndex interleave3Index(int k) {
  PermuteIndex r{};
  for (int o = 0; o < 32; ++o) {
    int const g = 32 * k + o, p = g / 3, c = g % 3;
    int const word = c == 1 ? 32 + p : p;
    r.bytes[2 * o] = static_cast<uint8_t>(word);
  }
  return r;
}

constexpr uint32_t interleaveChannel2Mask(int k) {
  uint32_t m = 0;
  for (int o = 0; o < 32; ++o) {
    if ((32 * k + o) % 3 == 2) m |= uint32_t{1} << o;
  }
  return m;
}

inline constexpr PermuteIndex kRgb16ToRgba8Index[2] = {rgb16ToRgba8Index(0), rgb16ToRgba8Index(1)};
inline constexpr PermuteIndex kRemoveAlphaIndex[3] = {removeAlphaIndex(0), removeAlphaIndex(1),
                                                      removeAlphaIndex(2)};
inline constexpr PermuteIndex kInterleave3Index[3] = {interleave3Index(0), interleave3Index(1),
                                                      interleave3Index(2)};
inline constexpr uint32_t kInterleaveChannel2Mask[3] = {
    interleaveChannel2Mask(0), interleaveChannel2Mask(1), interleaveChannel2Mask(2)};

// Mask of the first `n` (<= 64) lanes.
inline uint64_t firstLanes(size_t n) { return n >= 64 ? ~uint64_t{0} : (uint64_t{1} << n) - 1; }

}  // namespace quorvel::conversions_detail
#endif

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// Stores one whole vector of a full block: streamed (the block then starts on a cache
// line, see WriteBlocks) or ordinary.
template <bool kStream>
HWY_INLINE void StoreVector(void* out, __m512i v) {
  if constexpr (kStream) {
    _mm512_stream_si512(static_cast<__m512i*>(out), v);
  } else {
    _mm512_storeu_si512(out, v);
  }
}
#endif

#if HWY_TARGET == HWY_AVX3_DL
// 32 pixels of 3 x int16 to RGBA8 with `count` (<= 32) of them valid: two saturating packs
// narrow the three sample vectors (packus of int16 is exactly the clamp to 0..255), one
// byte permute per 16 output pixels puts the samples in place and an OR sets alpha. Masked
// loads and stores never touch memory past the valid pixels (they do not fault there).
template <bool kStream>
HWY_INLINE void Rgb16ToRgba8Block(const int16_t* in, uint8_t* out, size_t count, __m512i idx0,
                                  __m512i idx1, __m512i alpha) {
  using conversions_detail::firstLanes;
  __m512i v0, v1, v2;
  if (count == 32) {
    v0 = _mm512_loadu_si512(in);
    v1 = _mm512_loadu_si512(in + 32);
    v2 = _mm512_loadu_si512(in + 64);
  } else {
    size_t const samples = 3 * count;
    v0 = _mm512_maskz_loadu_epi16(static_cast<__mmask32>(firstLanes(samples)), in);
    v1 = _mm512_maskz_loadu_epi16(
        static_cast<__mmask32>(firstLanes(samples > 32 ? samples - 32 : 0)), in + 32);
    v2 = _mm512_maskz_loadu_epi16(
        static_cast<__mmask32>(firstLanes(samples > 64 ? samples - 64 : 0)), in + 64);
  }
  __m512i const p01 = _mm512_packus_epi16(v0, v1);
  __m512i const p2 = _mm512_packus_epi16(v2, v2);
  __m512i const o0 =
      _mm512_or_si512(_mm512_maskz_permutexvar_epi8(~__mmask64{0}, idx0, p01), alpha);
  __m512i const o1 = _mm512_or_si512(_mm512_permutex2var_epi8(p01, idx1, p2), alpha);
  if (count == 32) {
    StoreVector<kStream>(out, o0);
    StoreVector<kStream>(out + 64, o1);
  } else {
    size_t const bytes = 4 * count;
    _mm512_mask_storeu_epi8(out, firstLanes(bytes), o0);
    _mm512_mask_storeu_epi8(out + 64, firstLanes(bytes > 64 ? bytes - 64 : 0), o1);
  }
}

// 64 pixels of RGBA8 to RGB8 with `count` (<= 64) valid: three two-table byte permutes.
template <bool kStream>
HWY_INLINE void RemoveAlphaBlock(const uint8_t* in, uint8_t* out, size_t count, __m512i idx0,
                                 __m512i idx1, __m512i idx2) {
  using conversions_detail::firstLanes;
  __m512i v[4];
  if (count == 64) {
    for (int k = 0; k < 4; ++k) v[k] = _mm512_loadu_si512(in + 64 * k);
  } else {
    for (size_t k = 0; k < 4; ++k) {
      size_t const bytes = 4 * count > 64 * k ? 4 * count - 64 * k : 0;
      v[k] = _mm512_maskz_loadu_epi8(firstLanes(bytes), in + 64 * k);
    }
  }
  __m512i const o0 = _mm512_permutex2var_epi8(v[0], idx0, v[1]);
  __m512i const o1 = _mm512_permutex2var_epi8(v[1], idx1, v[2]);
  __m512i const o2 = _mm512_permutex2var_epi8(v[2], idx2, v[3]);
  if (count == 64) {
    StoreVector<kStream>(out, o0);
    StoreVector<kStream>(out + 64, o1);
    StoreVector<kStream>(out + 128, o2);
  } else {
    size_t const bytes = 3 * count;
    _mm512_mask_storeu_epi8(out, firstLanes(bytes), o0);
    _mm512_mask_storeu_epi8(out + 64, firstLanes(bytes > 64 ? bytes - 64 : 0), o1);
    _mm512_mask_storeu_epi8(out + 128, firstLanes(bytes > 128 ? bytes - 128 : 0), o2);
  }
}
#endif  // HWY_TARGET == HWY_AVX3_DL

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// 32 pixels from three planes of int16 with `count` (<= 32) valid: per output vector one
// two-table word permute of planes 0 and 1 and one masked permute that fills in plane 2.
template <bool kStream>
HWY_INLINE void Interleave3Block(const int16_t* c0, const int16_t* c1, const int16_t* c2,
                                 int16_t* out, size_t count, const __m512i* idx) {
  using conversions_detail::firstLanes;
  using conversions_detail::kInterleaveChannel2Mask;
  __m512i a, b, c;
  if (count == 32) {
    a = _mm512_loadu_si512(c0), b = _mm512_loadu_si512(c1), c = _mm512_loadu_si512(c2);
  } else {
    auto const m = static_cast<__mmask32>(firstLanes(count));
    a = _mm512_maskz_loadu_epi16(m, c0);
    b = _mm512_maskz_loadu_epi16(m, c1);
    c = _mm512_maskz_loadu_epi16(m, c2);
  }
  for (size_t k = 0; k < 3; ++k) {
    __m512i const ab = _mm512_permutex2var_epi16(a, idx[k], b);
    __m512i const o = _mm512_mask_permutexvar_epi16(ab, kInterleaveChannel2Mask[k], idx[k], c);
    if (count == 32) {
      StoreVector<kStream>(out + 32 * k, o);
    } else {
      size_t const words = 3 * count > 32 * k ? 3 * count - 32 * k : 0;
      _mm512_mask_storeu_epi16(out + 32 * k, static_cast<__mmask32>(firstLanes(words)), o);
    }
  }
}
#endif

// int16 lanes and the uint8 lanes they narrow to. DemoteTo from signed 16 bits saturates
// to 0..255, which is exactly the documented clamp.
using D16 = hn::CappedTag<int16_t, 16>;
using D8 = hn::Rebind<uint8_t, D16>;

void Rgb16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
#if HWY_TARGET == HWY_AVX3_DL
  __m512i const idx0 = _mm512_load_si512(conversions_detail::kRgb16ToRgba8Index[0].bytes);
  __m512i const idx1 = _mm512_load_si512(conversions_detail::kRgb16ToRgba8Index[1].bytes);
  __m512i const alpha = _mm512_set1_epi32(static_cast<int32_t>(0xFF000000u));
  // Blocks of 32 pixels, the tail one masked block.
  WriteBlocks(dst, pixels, 4, 32, stream, [&](size_t first, size_t n, uint8_t* out, auto streamed) {
    Rgb16ToRgba8Block<decltype(streamed)::value>(src + 3 * first, out, n, idx0, idx1, alpha);
  });
#else
  WriteRow(dst, pixels, 4, stream, [&](size_t first, size_t n, uint8_t* out) {
    const D16 d16;
    const D8 d8;
    const size_t lanes = hn::Lanes(d16);
    const int16_t* in = src + 3 * first;
    auto const alpha = hn::Set(d8, uint8_t{255});
    size_t i = 0;
    // Blocks of whole vectors, then the tail in scalar code.
    for (; i + lanes <= n; i += lanes, in += 3 * lanes, out += 4 * lanes) {
      hn::Vec<D16> r, g, b;
      hn::LoadInterleaved3(d16, in, r, g, b);
      hn::StoreInterleaved4(hn::DemoteTo(d8, r), hn::DemoteTo(d8, g), hn::DemoteTo(d8, b), alpha,
                            d8, out);
    }
    reference::rgb16ToRgba8(in, out, n - i);
  });
#endif
  if (stream) hwy::FlushStream();
}

void Gray16To8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  // Blocks of 64 samples: one saturating pack of two vectors (exactly the clamp to 0..255)
  // and a qword permute undoing its per-128-bit interleave; the tail is one masked block.
  __m512i const order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
  WriteBlocks(dst, pixels, 1, 64, stream, [&](size_t first, size_t n, uint8_t* out, auto streamed) {
    using conversions_detail::firstLanes;
    const int16_t* in = src + first;
    if (n == 64) {
      __m512i const packed =
          _mm512_packus_epi16(_mm512_loadu_si512(in), _mm512_loadu_si512(in + 32));
      StoreVector<decltype(streamed)::value>(out,
                                             _mm512_maskz_permutexvar_epi64(0xFF, order, packed));
      return;
    }
    __m512i const a = _mm512_maskz_loadu_epi16(static_cast<__mmask32>(firstLanes(n)), in);
    __m512i const b =
        _mm512_maskz_loadu_epi16(static_cast<__mmask32>(firstLanes(n > 32 ? n - 32 : 0)), in + 32);
    _mm512_mask_storeu_epi8(out, firstLanes(n),
                            _mm512_maskz_permutexvar_epi64(0xFF, order, _mm512_packus_epi16(a, b)));
  });
#else
  WriteRow(dst, pixels, 1, stream, [&](size_t first, size_t n, uint8_t* out) {
    const D16 d16;
    const D8 d8;
    const size_t lanes = hn::Lanes(d16);
    const int16_t* in = src + first;
    size_t i = 0;
    for (; i + lanes <= n; i += lanes)
      hn::StoreU(hn::DemoteTo(d8, hn::LoadU(d16, in + i)), d8, out + i);
    reference::gray16To8(in + i, out + i, n - i);
  });
#endif
  if (stream) hwy::FlushStream();
}

void Gray16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  // Blocks of 32 pixels: negatives to 0 and the unsigned saturating narrowing clamp the
  // samples to bytes; each byte widened to a 32-bit lane becomes v | v << 8 | v << 16 with
  // alpha 255 on top. The tail is one masked block.
  WriteBlocks(dst, pixels, 4, 32, stream, [&](size_t first, size_t n, uint8_t* out, auto streamed) {
    using conversions_detail::firstLanes;
    auto const mask = static_cast<__mmask32>(firstLanes(n));
    __m512i const v =
        _mm512_max_epi16(_mm512_maskz_loadu_epi16(mask, src + first), _mm512_setzero_si512());
    __m256i const bytes = _mm512_maskz_cvtusepi16_epi8(~__mmask32{0}, v);
    __m512i const alpha = _mm512_set1_epi32(static_cast<int32_t>(0xFF000000u));
    for (int half = 0; half < 2; ++half) {
      __m512i const g = _mm512_maskz_cvtepu8_epi32(
          0xFFFF, half == 0 ? _mm256_castsi256_si128(bytes) : _mm256_extracti128_si256(bytes, 1));
      // 0xFE: a | b | c of the three operands.
      __m512i const rgba = _mm512_ternarylogic_epi32(_mm512_or_si512(g, alpha),
                                                     _mm512_maskz_slli_epi32(0xFFFF, g, 8),
                                                     _mm512_maskz_slli_epi32(0xFFFF, g, 16), 0xFE);
      uint8_t* p = out + 64 * half;
      if (n == 32) {
        StoreVector<decltype(streamed)::value>(p, rgba);
      } else {
        size_t const done = 16 * static_cast<size_t>(half);
        size_t const rest = n > done ? n - done : 0;
        _mm512_mask_storeu_epi32(p, static_cast<__mmask16>(firstLanes(rest < 16 ? rest : 16)),
                                 rgba);
      }
    }
  });
#else
  WriteRow(dst, pixels, 4, stream, [&](size_t first, size_t n, uint8_t* out) {
    const D16 d16;
    const D8 d8;
    const size_t lanes = hn::Lanes(d16);
    const int16_t* in = src + first;
    auto const alpha = hn::Set(d8, uint8_t{255});
    size_t i = 0;
    for (; i + lanes <= n; i += lanes, out += 4 * lanes) {
      auto const v = hn::DemoteTo(d8, hn::LoadU(d16, in + i));
      hn::StoreInterleaved4(v, v, v, alpha, d8, out);
    }
    reference::gray16ToRgba8(in + i, out, n - i);
  });
#endif
  if (stream) hwy::FlushStream();
}

void Interleave3(const int16_t* c0, const int16_t* c1, const int16_t* c2, int16_t* dst,
                 size_t pixels, bool stream) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  __m512i idx[3];
  for (size_t k = 0; k < 3; ++k) {
    idx[k] = _mm512_load_si512(conversions_detail::kInterleave3Index[k].bytes);
  }
  // Blocks of 32 pixels, the tail one masked block.
  WriteBlocks(reinterpret_cast<uint8_t*>(dst), pixels, 6, 32, stream,
              [&](size_t p, size_t n, uint8_t* out, auto streamed) {
                Interleave3Block<decltype(streamed)::value>(
                    c0 + p, c1 + p, c2 + p, reinterpret_cast<int16_t*>(out), n, idx);
              });
#else
  WriteRow(reinterpret_cast<uint8_t*>(dst), pixels, 6, stream,
           [&](size_t first, size_t n, uint8_t* bytes) {
             const D16 d;
             const size_t lanes = hn::Lanes(d);
             auto* out = reinterpret_cast<int16_t*>(bytes);
             size_t i = 0;
             for (size_t p = first; i + lanes <= n; i += lanes, p += lanes, out += 3 * lanes) {
               hn::StoreInterleaved3(hn::LoadU(d, c0 + p), hn::LoadU(d, c1 + p),
                                     hn::LoadU(d, c2 + p), d, out);
             }
             reference::interleave3(c0 + first + i, c1 + first + i, c2 + first + i, out, n - i);
           });
#endif
  if (stream) hwy::FlushStream();
}

void RemoveAlpha(const uint8_t* src, uint8_t* dst, size_t pixels, bool stream) {
#if HWY_TARGET == HWY_AVX3_DL
  __m512i const idx0 = _mm512_load_si512(conversions_detail::kRemoveAlphaIndex[0].bytes);
  __m512i const idx1 = _mm512_load_si512(conversions_detail::kRemoveAlphaIndex[1].bytes);
  __m512i const idx2 = _mm512_load_si512(conversions_detail::kRemoveAlphaIndex[2].bytes);
  // Blocks of 64 pixels, the tail one masked block.
  WriteBlocks(dst, pixels, 3, 64, stream, [&](size_t first, size_t n, uint8_t* out, auto streamed) {
    RemoveAlphaBlock<decltype(streamed)::value>(src + 4 * first, out, n, idx0, idx1, idx2);
  });
#else
  WriteRow(dst, pixels, 3, stream, [&](size_t first, size_t n, uint8_t* out) {
    const hn::CappedTag<uint8_t, 32> d;
    const size_t lanes = hn::Lanes(d);
    const uint8_t* in = src + 4 * first;
    size_t i = 0;
    for (; i + lanes <= n; i += lanes, in += 4 * lanes, out += 3 * lanes) {
      hn::Vec<decltype(d)> r, g, b, a;
      hn::LoadInterleaved4(d, in, r, g, b, a);
      hn::StoreInterleaved3(r, g, b, d, out);
    }
    reference::removeAlpha(in, out, n - i);
  });
#endif
  if (stream) hwy::FlushStream();
}

void Truncate(const int16_t* src, int16_t* dst, size_t count, unsigned bits, bool midpoint) {
  const hn::ScalableTag<int16_t> d;
  const size_t lanes = hn::Lanes(d);
  auto const keep = hn::Set(d, static_cast<int16_t>(~((1 << bits) - 1)));
  auto const half = hn::Set(d, static_cast<int16_t>(midpoint ? ((1 << bits) - 1) >> 1 : 0));
  auto const zero = hn::Zero(d);
  size_t i = 0;
  // Abs and Neg wrap at -32768, matching the 16-bit magnitude of the scalar form.
  for (; i + lanes <= count; i += lanes) {
    auto const v = hn::LoadU(d, src + i);
    auto q = hn::And(hn::Abs(v), keep);
    q = hn::Add(q, hn::IfThenZeroElse(hn::Eq(q, zero), half));
    hn::StoreU(hn::IfThenElse(hn::Lt(v, zero), hn::Neg(q), q), d, dst + i);
  }
  reference::truncate16(src + i, dst + i, count - i, bits, midpoint);
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
