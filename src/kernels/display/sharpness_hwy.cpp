// Vector row kernels of the sharpness filters, compiled once per instruction set and picked
// at run time. The generic bodies handle whole vectors and leave the rest of the row to the
// scalar form; the AVX-512 bodies of the 16-bit passes mask their first and last blocks.
// Every form gives the samples of the scalar one.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/sharpness_hwy.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "kernels/prefetch_ahead.hpp"
#include "quorvel/kernels/display/sharpness.hpp"

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using kernel::prefetchAhead;

// 16-bit samples before the first 64-byte line boundary at `out` (rows of the 16-bit
// passes start on even addresses).
HWY_INLINE size_t StreamHead(void const* out) {
  return (64 - reinterpret_cast<uintptr_t>(out) % 64) % 64 / 2;
}

// =====================================================================================
// Sharpness 8-bit - one 5 x 5 pass over interleaved samples
// =====================================================================================

// The whole computation runs in int16 lanes. The blur sum B fits (at most 128 * 255), and
// so does d = 128 c - B. The product d * s needs 32 bits; it is taken apart as
// hi * 65536 + lo (MulHigh and the wrapping Mul), which gives
//   (c * 4096 + 2048 + d * s) >> 12 = c + 16 hi + ((lo >> 11) + 1) >> 1   (lo unsigned),
// exact as long as no 32-bit step overflows, i.e. for any s that fits int16. hi is clamped
// to [-1024, 1023] first: outside that range the result saturates to 0 or 255 either way,
// and inside it 16 hi cannot overflow int16.
void SharpenRow8(uint8_t const* const rows[5], uint8_t* out, size_t count, size_t step,
                 int32_t strength) {
  if (strength < -32768 || strength > 32767) {
    // Only absurd gains get here; their 32-bit wrap-around is left to the scalar form.
    sharpness_detail::sharpenRow8Scalar(rows, out, count, step, strength);
    return;
  }
  const hn::ScalableTag<int16_t> d;
  const hn::Rebind<uint8_t, decltype(d)> d8;
  const hn::RebindToUnsigned<decltype(d)> du;
  size_t const lanes = hn::Lanes(d);
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  auto const s = hn::Set(d, static_cast<int16_t>(strength));
  auto const three = hn::Set(d, 3), five = hn::Set(d, 5), c44 = hn::Set(d, 44);
  auto const hiMin = hn::Set(d, -1024), hiMax = hn::Set(d, 1023);
  auto const oneU = hn::Set(du, 1);

  size_t k = 0;
  // Blocks of whole vectors; every load stays inside the windows of this block's pixels.
  for (; k + lanes <= count; k += lanes) {
    auto p = [&](int r, ptrdiff_t off) {
      return hn::PromoteTo(d, hn::LoadU(d8, rows[r] + static_cast<ptrdiff_t>(k) + off));
    };
    auto const c = p(2, 0);
    auto const axis = hn::Add(hn::Add(p(1, 0), p(3, 0)), hn::Add(p(2, -d1), p(2, d1)));
    auto const diagonal = hn::Add(hn::Add(p(1, -d1), p(1, d1)), hn::Add(p(3, -d1), p(3, d1)));
    auto const far = hn::Add(hn::Add(p(0, 0), p(4, 0)), hn::Add(p(2, -d2), p(2, d2)));
    auto const blur = hn::Add(hn::Add(hn::Mul(hn::Add(hn::Mul(axis, three), diagonal), five), far),
                              hn::Mul(c, c44));
    auto const diff = hn::Sub(hn::ShiftLeft<7>(c), blur);
    auto const hi = hn::Min(hn::Max(hn::MulHigh(diff, s), hiMin), hiMax);
    auto const lo = hn::BitCast(du, hn::Mul(diff, s));
    // (lo + 2048) >> 12 without leaving 16 bits: round the 5 bits above bit 11 half up.
    auto const loRounded = hn::ShiftRight<1>(hn::Add(hn::ShiftRight<11>(lo), oneU));
    auto const r = hn::Add(hn::Add(c, hn::ShiftLeft<4>(hi)), hn::BitCast(d, loRounded));
    // The signed-to-unsigned narrowing saturates: the clamp to [0, 255].
    hn::StoreU(hn::DemoteTo(d8, r), d8, out + k);
  }
  // Tail: fewer samples than one vector.
  if (k < count) {
    uint8_t const* tail[5];
    for (int r = 0; r < 5; ++r) tail[r] = rows[r] + k;
    sharpness_detail::sharpenRow8Scalar(tail, out + k, count - k, step, strength);
  }
}

// =====================================================================================
// Sharpness 16-bit - horizontal blur sum
// =====================================================================================

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// GCC 12 reports the deliberately undefined pass-through operands inside the AVX-512
// intrinsics as maybe uninitialised once they are inlined here.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

// The whole row with only aligned loads and, for the whole blocks, aligned stores. Each
// input vector (32 samples on a 64-byte line of `in`) is loaded and clamped once, and the
// four shifted windows come from two-table word permutes of the previous, current and next
// vectors; five unaligned loads per output vector (most of them split across two cache
// lines) measured about 1.6x slower on a row streaming in from memory. The results, 32 per
// input vector, are realigned onto the 64-byte lines of `out` by one more permute of two
// consecutive results, so a large target can be written with streaming stores whatever the
// two rows' offsets. Loads are masked to the samples a row may read, [-2 step,
// count + 2 step), and the stores of the first and last blocks to [0, count).
HWY_INLINE void BlurRowH16Aligned(int16_t const* in, uint16_t* out, size_t count, size_t step,
                                  bool stream) {
  __m512i const lane = _mm512_set_epi16(31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17,
                                        16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  auto const word = [](ptrdiff_t v) { return _mm512_set1_epi16(static_cast<int16_t>(v)); };
  auto const st = static_cast<ptrdiff_t>(step);
  // Windows at -2 step and -step read (previous | current), +step and +2 step read
  // (current | next).
  __m512i const m2 = _mm512_add_epi16(lane, word(32 - 2 * st));
  __m512i const m1 = _mm512_add_epi16(lane, word(32 - st));
  __m512i const p1 = _mm512_add_epi16(lane, word(st));
  __m512i const p2 = _mm512_add_epi16(lane, word(2 * st));
  __m512i const zero = _mm512_setzero_si512(), top = _mm512_set1_epi16(1023);
  __m512i const c13 = _mm512_set1_epi16(13), c36 = _mm512_set1_epi16(36);
  auto const n = static_cast<ptrdiff_t>(count), d2 = 2 * st;
  // Lanes j of a block at `from` with lo <= from + j < hi.
  auto const lanesIn = [](ptrdiff_t from, ptrdiff_t lo, ptrdiff_t hi) {
    auto const first = static_cast<uint64_t>(std::clamp<ptrdiff_t>(lo - from, 0, 32));
    auto const last = static_cast<uint64_t>(std::clamp<ptrdiff_t>(hi - from, 0, 32));
    return first >= last
               ? 0u
               : static_cast<uint32_t>(((uint64_t{1} << last) - 1) & ~((uint64_t{1} << first) - 1));
  };
  // Samples [from, from + 32) of the row, clamped.
  auto const load = [&](ptrdiff_t from) {
    __m512i const v = from >= -d2 && from + 32 <= n + d2
                          ? _mm512_load_si512(in + from)
                          : _mm512_maskz_loadu_epi16(lanesIn(from, -d2, n + d2), in + from);
    return _mm512_min_epi16(_mm512_max_epi16(v, zero), top);
  };
  // Offsets, in samples, of the rows from the lines before them, and of the output blocks
  // from the input blocks.
  auto const inPhase = static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(in) % 64 / 2);
  auto const outPhase = static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(out) % 64 / 2);
  ptrdiff_t const shift = ((inPhase - outPhase) % 32 + 32) % 32;
  __m512i const realign = _mm512_add_epi16(lane, word(shift));
  // The first output block holds sample 0; the first input block is `shift` before it.
  ptrdiff_t k = -outPhase - shift;
  __m512i previous = load(k - 32), current = load(k);
  auto const blur = [&]() {
    __m512i const next = load(k + 32);
    __m512i const outer = _mm512_add_epi16(_mm512_permutex2var_epi16(previous, m2, current),
                                           _mm512_permutex2var_epi16(current, p2, next));
    __m512i const inner = _mm512_add_epi16(_mm512_permutex2var_epi16(previous, m1, current),
                                           _mm512_permutex2var_epi16(current, p1, next));
    previous = current;
    current = next;
    return _mm512_add_epi16(_mm512_add_epi16(outer, _mm512_mullo_epi16(inner, c13)),
                            _mm512_mullo_epi16(previous, c36));
  };
  __m512i result = blur();  // samples [k, k + 32)
  for (ptrdiff_t t = k + shift; t < n; t += 32) {
    k += 32;
    __m512i const following = blur();
    __m512i const h = _mm512_permutex2var_epi16(result, realign, following);  // [t, t + 32)
    if (t < 0 || t + 32 > n) {
      _mm512_mask_storeu_epi16(out + t, lanesIn(t, 0, n), h);
    } else if (stream) {
      _mm512_stream_si512(reinterpret_cast<__m512i*>(out + t), h);
    } else {
      _mm512_store_si512(out + t, h);
    }
    result = following;
  }
  if (stream) hwy::FlushStream();
}
#endif

// Samples are clamped to [0, 1023], so the sum is at most 64 * 1023 = 65472: the wrapping
// int16 arithmetic holds it exactly as an unsigned 16-bit value.
void BlurRowH16(int16_t const* in, uint16_t* out, size_t count, size_t step, bool stream) {
  const hn::ScalableTag<int16_t> d;
  const hn::RebindToUnsigned<decltype(d)> du;
  size_t const lanes = hn::Lanes(d);
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  auto const zero = hn::Zero(d), top = hn::Set(d, 1023);
  auto const c13 = hn::Set(d, 13), c36 = hn::Set(d, 36);

  auto const blur = [&](size_t k) {
    int16_t const* p = in + k;
    auto q = [&](ptrdiff_t off) { return hn::Min(hn::Max(hn::LoadU(d, p + off), zero), top); };
    return hn::BitCast(
        du, hn::Add(hn::Add(hn::Add(q(-d2), q(d2)), hn::Mul(hn::Add(q(-d1), q(d1)), c13)),
                    hn::Mul(q(0), c36)));
  };
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  if (step <= 16 && count >= 32) {
    BlurRowH16Aligned(in, out, count, step, stream);
    return;
  }
#endif
  size_t k = 0;
  if (stream) {
    // Ordinary stores up to the first cache line of the row, then whole vectors streamed.
    k = std::min(count, StreamHead(out));
    sharpness_detail::blurRowH16Scalar(in, out, k, step);
    for (; k + lanes <= count; k += lanes) hn::Stream(blur(k), du, out + k);
    hwy::FlushStream();
  }
  // Blocks of whole vectors.
  for (; k + lanes <= count; k += lanes) hn::StoreU(blur(k), du, out + k);
  // Tail: fewer samples than one vector.
  if (k < count) sharpness_detail::blurRowH16Scalar(in + k, out + k, count - k, step);
}

// =====================================================================================
// Sharpness 16-bit - vertical blur and mix
// =====================================================================================

// int32 lanes throughout: the vertical blur of unsigned 16-bit sums reaches 64 * 65535, and
// the 32-bit signed steps of the formula wrap exactly like the scalar form (Mul wraps).
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// 32 samples at a time in 16-bit lanes as far as the products allow. With q' = q - 32768
// (the blur sums as signed words) and X = 4096 c - blur = -(q'0 + q'4) - 13 (q'1 + q'3)
// - 36 q'2 + 4096 c - 2^21, each pair of terms is one word multiply-add of interleaved
// rows; the rest is exact modulo 2^32, like the scalar form: r = (c << 17) + 2^16 + X s.
// (c << 17) + 2^16 - 2^21 s has nothing in its low half: it is the word 2c + 1 - 32 s,
// formed once for all 32 samples and moved into the high halves by the interleave.
// Packing the two halves back with signed saturation restores the order the interleave
// took apart and is the clamp to [-32768, 32767]. The last partial block is masked.
HWY_INLINE void SharpenRowV16Avx3(uint16_t const* const blurRows[5], int16_t const* centre,
                                  int16_t* out, size_t count, int32_t strength, bool stream) {
  auto const pair = [](int lowWeight, int highWeight) {
    return _mm512_set1_epi32(static_cast<int32_t>(static_cast<uint16_t>(lowWeight) |
                                                  static_cast<uint32_t>(highWeight) << 16));
  };
  __m512i const w04 = pair(-1, -1), w13 = pair(-13, -13), w2c = pair(-36, 4096);
  __m512i const bias = _mm512_set1_epi16(static_cast<int16_t>(0x8000));
  __m512i const zero = _mm512_setzero_si512(), top = _mm512_set1_epi16(1023);
  __m512i const s = _mm512_set1_epi32(strength);
  // 1 - 32 s, modulo 2^16: the rounding term and the bias of the blur sums, in high halves.
  __m512i const constant =
      _mm512_set1_epi16(static_cast<int16_t>(1u - (static_cast<uint32_t>(strength) << 5)));
  // a + the pairwise products of b and c.
  auto const multiplyAdd = [](__m512i a, __m512i b, __m512i c) {
    return _mm512_add_epi32(a, _mm512_madd_epi16(b, c));
  };
  auto const block = [&](size_t k, __mmask32 mask) {
    auto const row = [&](int r) {
      return _mm512_xor_si512(_mm512_maskz_loadu_epi16(mask, blurRows[r] + k), bias);
    };
    __m512i const q0 = row(0), q1 = row(1), q2 = row(2), q3 = row(3), q4 = row(4);
    __m512i const c =
        _mm512_min_epi16(_mm512_max_epi16(_mm512_maskz_loadu_epi16(mask, centre + k), zero), top);
    __m512i const high = _mm512_add_epi16(_mm512_add_epi16(c, c), constant);
    auto const half = [&](auto unpack) {
      __m512i const x =
          multiplyAdd(multiplyAdd(_mm512_madd_epi16(unpack(q0, q4), w04), unpack(q1, q3), w13),
                      unpack(q2, c), w2c);
      return _mm512_srai_epi32(_mm512_add_epi32(unpack(zero, high), _mm512_mullo_epi32(x, s)), 17);
    };
    return _mm512_packs_epi32(
        half([](__m512i a, __m512i b) { return _mm512_unpacklo_epi16(a, b); }),
        half([](__m512i a, __m512i b) { return _mm512_unpackhi_epi16(a, b); }));
  };
  bool const streamed = stream && reinterpret_cast<uintptr_t>(out) % 64 == 0;
  size_t k = 0;
  for (; k + 32 <= count; k += 32) {
    prefetchAhead(blurRows[4] + k), prefetchAhead(centre + k);
    __m512i const r = block(k, ~__mmask32{0});
    if (streamed) {
      _mm512_stream_si512(reinterpret_cast<__m512i*>(out + k), r);
    } else {
      _mm512_storeu_si512(out + k, r);
    }
  }
  if (k < count) {
    auto const mask = static_cast<__mmask32>((uint64_t{1} << (count - k)) - 1);
    _mm512_mask_storeu_epi16(out + k, mask, block(k, mask));
  }
  if (streamed) hwy::FlushStream();
}
#endif

void SharpenRowV16(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                   size_t count, int32_t strength, bool stream) {
#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
  SharpenRowV16Avx3(blurRows, centre, out, count, strength, stream);
  return;
#endif
  const hn::ScalableTag<int32_t> d;
  const hn::Rebind<uint16_t, decltype(d)> du16;
  const hn::Rebind<int16_t, decltype(d)> di16;
  size_t const lanes = hn::Lanes(d);
  auto const s = hn::Set(d, strength);
  auto const c13 = hn::Set(d, 13), c36 = hn::Set(d, 36);
  auto const zero = hn::Zero(d), top = hn::Set(d, 1023), half = hn::Set(d, 65536);

  auto const sharpen = [&](size_t k) {
    auto q = [&](int r) { return hn::PromoteTo(d, hn::LoadU(du16, blurRows[r] + k)); };
    auto const blur = hn::Add(hn::Add(hn::Add(q(0), q(4)), hn::Mul(hn::Add(q(1), q(3)), c13)),
                              hn::Mul(q(2), c36));
    auto const c = hn::Min(hn::Max(hn::PromoteTo(d, hn::LoadU(di16, centre + k)), zero), top);
    auto const diff = hn::Sub(hn::ShiftLeft<12>(c), blur);
    auto const r =
        hn::ShiftRight<17>(hn::Add(hn::Add(hn::ShiftLeft<17>(c), half), hn::Mul(diff, s)));
    // The signed narrowing saturates: the clamp to [-32768, 32767].
    return hn::DemoteTo(di16, r);
  };
  size_t k = 0;
  // Streaming stores take whole vectors: not the half vectors of 16-bit results that four
  // 32-bit lanes give.
  if (stream && lanes * sizeof(int16_t) >= 16) {
    // Ordinary stores up to the first cache line of the row, then whole vectors streamed.
    k = std::min(count, StreamHead(out));
    sharpness_detail::sharpenRowV16Scalar(blurRows, centre, out, k, strength);
    for (; k + lanes <= count; k += lanes) {
      prefetchAhead(blurRows[4] + k), prefetchAhead(centre + k);
      hn::Stream(sharpen(k), di16, out + k);
    }
    hwy::FlushStream();
  }
  // Blocks of whole vectors. Rows 0-3 of the blur were read for the rows above; row 4 and
  // the centre row are new.
  for (; k + lanes <= count; k += lanes) {
    prefetchAhead(blurRows[4] + k), prefetchAhead(centre + k);
    hn::StoreU(sharpen(k), di16, out + k);
  }
  // Tail: fewer samples than one vector.
  if (k < count) {
    uint16_t const* tail[5];
    for (int r = 0; r < 5; ++r) tail[r] = blurRows[r] + k;
    sharpness_detail::sharpenRowV16Scalar(tail, centre + k, out + k, count - k, strength);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace quorvel
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace quorvel {
namespace sharpness_detail {

HWY_EXPORT(SharpenRow8);
HWY_EXPORT(BlurRowH16);
HWY_EXPORT(SharpenRowV16);

void sharpenRow8(uint8_t const* const rows[5], uint8_t* out, size_t count, size_t step,
                 int32_t strength) {
  HWY_DYNAMIC_DISPATCH(SharpenRow8)(rows, out, count, step, strength);
}

void blurRowH16(int16_t const* in, uint16_t* out, size_t count, size_t step, bool stream) {
  HWY_DYNAMIC_DISPATCH(BlurRowH16)(in, out, count, step, stream);
}

void sharpenRowV16(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                   size_t count, int32_t strength, bool stream) {
  HWY_DYNAMIC_DISPATCH(SharpenRowV16)(blurRows, centre, out, count, strength, stream);
}

}  // namespace sharpness_detail
}  // namespace quorvel
#endif  // HWY_ONCE
