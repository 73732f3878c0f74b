// Vector row kernels of the sharpness filters, compiled once per instruction set and picked
// at run time. Each pass is one per-vector step walked over the row, the tail included
// (lane_ops-inl.h); every form gives the samples of the scalar one.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/display/sharpness_hwy.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <array>

#include "kernels/display/sharpness_rows.hpp"
#include "kernels/prefetch_ahead.hpp"
#include "quorvel/kernels/display/sharpness.hpp"
#include "simd/lane_ops-inl.h"

HWY_BEFORE_NAMESPACE();
namespace quorvel {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

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
  std::array<uint8_t const*, 5> const row = {rows[0], rows[1], rows[2], rows[3], rows[4]};
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  auto const s16 = static_cast<int16_t>(strength);
  // Every load stays inside the windows of the step's n pixels.
  ForEachVector(hn::ScalableTag<int16_t>(), 0, count, [=](auto d, size_t k, auto n) QUORVEL_STEP {
    const hn::Rebind<uint8_t, decltype(d)> d8;
    const hn::RebindToUnsigned<decltype(d)> du;
    auto p = [&](int r, ptrdiff_t off) {
      return hn::PromoteTo(d, LoadN(d8, row[r] + static_cast<ptrdiff_t>(k) + off, n));
    };
    auto const s = hn::Set(d, s16);
    auto const c = p(2, 0);
    auto const axis = hn::Add(hn::Add(p(1, 0), p(3, 0)), hn::Add(p(2, -d1), p(2, d1)));
    auto const diagonal = hn::Add(hn::Add(p(1, -d1), p(1, d1)), hn::Add(p(3, -d1), p(3, d1)));
    auto const far = hn::Add(hn::Add(p(0, 0), p(4, 0)), hn::Add(p(2, -d2), p(2, d2)));
    auto const blur = hn::Add(
        hn::Add(hn::Mul(hn::Add(hn::Mul(axis, hn::Set(d, 3)), diagonal), hn::Set(d, 5)), far),
        hn::Mul(c, hn::Set(d, 44)));
    auto const diff = hn::Sub(hn::ShiftLeft<7>(c), blur);
    auto const hi = hn::Min(hn::Max(hn::MulHigh(diff, s), hn::Set(d, -1024)), hn::Set(d, 1023));
    auto const lo = hn::BitCast(du, hn::Mul(diff, s));
    // (lo + 2048) >> 12 without leaving 16 bits: round the 5 bits above bit 11 half up.
    auto const loRounded = hn::ShiftRight<1>(hn::Add(hn::ShiftRight<11>(lo), hn::Set(du, 1)));
    auto const r = hn::Add(hn::Add(c, hn::ShiftLeft<4>(hi)), hn::BitCast(d, loRounded));
    // The signed-to-unsigned narrowing saturates: the clamp to [0, 255].
    StoreN(hn::DemoteTo(d8, r), d8, out + k, n);
  });
}

// =====================================================================================
// Sharpness 16-bit - horizontal blur sum
// =====================================================================================

// The whole row with only aligned loads and, for the whole blocks, aligned stores. Each
// input vector (32 samples on a 64-byte line of `in`) is loaded and clamped once, and the
// four shifted windows come from two-table word permutes of the previous, current and next
// vectors; five unaligned loads per output vector (most of them split across two cache
// lines) measured about 1.6x slower on a row streaming in from memory. The results, 32 per
// input vector, are realigned onto the 64-byte lines of `out` by one more permute of two
// consecutive results, so a large target can be written with streaming stores whatever the
// two rows' offsets. Loads are masked to the samples a row may read, [-2 step,
// count + 2 step), and the stores of the first and last blocks to [0, count).
template <class D>
HWY_INLINE void BlurRowH16Aligned(D d, int16_t const* in, uint16_t* out, size_t count, size_t step,
                                  bool stream) {
  static_assert(hn::MaxLanes(D()) == 32, "one 512-bit vector of int16");
  const hn::RebindToUnsigned<D> du;
  auto const lane = hn::Iota(du, 0);
  auto const word = [&](ptrdiff_t v) { return hn::Set(du, static_cast<uint16_t>(v)); };
  auto const st = static_cast<ptrdiff_t>(step);
  // Windows at -2 step and -step read (previous | current), +step and +2 step read
  // (current | next).
  auto const m2 = hn::Add(lane, word(32 - 2 * st)), m1 = hn::Add(lane, word(32 - st));
  auto const p1 = hn::Add(lane, word(st)), p2 = hn::Add(lane, word(2 * st));
  auto const zero = hn::Zero(d), top = hn::Set(d, 1023);
  auto const c13 = hn::Set(d, 13), c36 = hn::Set(d, 36);
  auto const n = static_cast<ptrdiff_t>(count), d2 = 2 * st;
  // Lanes j of a block at `from` with lo <= from + j < hi.
  auto const lanesIn = [&](ptrdiff_t from, ptrdiff_t lo, ptrdiff_t hi) {
    auto const first = static_cast<size_t>(std::clamp<ptrdiff_t>(lo - from, 0, 32));
    auto const last = static_cast<size_t>(std::clamp<ptrdiff_t>(hi - from, 0, 32));
    return hn::AndNot(hn::FirstN(d, first), hn::FirstN(d, last));
  };
  // Samples [from, from + 32) of the row, clamped.
  auto const load = [&](ptrdiff_t from) {
    auto const v = from >= -d2 && from + 32 <= n + d2
                       ? hn::Load(d, in + from)
                       : hn::MaskedLoad(lanesIn(from, -d2, n + d2), d, in + from);
    return hn::Min(hn::Max(v, zero), top);
  };
  // Offsets, in samples, of the rows from the lines before them, and of the output blocks
  // from the input blocks.
  auto const inPhase = static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(in) % 64 / 2);
  auto const outPhase = static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(out) % 64 / 2);
  ptrdiff_t const shift = ((inPhase - outPhase) % 32 + 32) % 32;
  auto const realign = hn::Add(lane, word(shift));
  // The first output block holds sample 0; the first input block is `shift` before it.
  ptrdiff_t k = -outPhase - shift;
  auto previous = load(k - 32), current = load(k);
  auto const blur = [&]() {
    auto const next = load(k + 32);
    auto const outer =
        hn::Add(TwoTableWords(previous, m2, current), TwoTableWords(current, p2, next));
    auto const inner =
        hn::Add(TwoTableWords(previous, m1, current), TwoTableWords(current, p1, next));
    previous = current;
    current = next;
    return hn::Add(hn::Add(outer, hn::Mul(inner, c13)), hn::Mul(previous, c36));
  };
  auto result = blur();  // samples [k, k + 32)
  for (ptrdiff_t t = k + shift; t < n; t += 32) {
    k += 32;
    auto const following = blur();
    auto const h = hn::BitCast(du, TwoTableWords(result, realign, following));  // [t, t + 32)
    if (t < 0 || t + 32 > n) {
      hn::BlendedStore(h, hn::RebindMask(du, lanesIn(t, 0, n)), du, out + t);
    } else if (stream) {
      hn::Stream(h, du, out + t);
    } else {
      hn::Store(h, du, out + t);
    }
    result = following;
  }
}

// Samples are clamped to [0, 1023], so the sum is at most 64 * 1023 = 65472: the wrapping
// int16 arithmetic holds it exactly as an unsigned 16-bit value.
void BlurRowH16(int16_t const* in, uint16_t* out, size_t count, size_t step, bool stream) {
  if constexpr (kHaveWordLanePermute) {
    if (step <= 16 && count >= 32) {
      BlurRowH16Aligned(hn::ScalableTag<int16_t>(), in, out, count, step, stream);
      if (stream) hwy::FlushStream();
      return;
    }
  }
  ptrdiff_t const d1 = static_cast<ptrdiff_t>(step), d2 = 2 * d1;
  StoreRow(
      hn::ScalableTag<uint16_t>(), out, count, stream, [=](auto du, size_t k, auto n) QUORVEL_STEP {
        const hn::RebindToSigned<decltype(du)> d;
        int16_t const* p = in + k;
        auto q = [&](ptrdiff_t off) {
          return hn::Min(hn::Max(LoadN(d, p + off, n), hn::Zero(d)), hn::Set(d, 1023));
        };
        return hn::BitCast(du, hn::Add(hn::Add(hn::Add(q(-d2), q(d2)),
                                               hn::Mul(hn::Add(q(-d1), q(d1)), hn::Set(d, 13))),
                                       hn::Mul(q(0), hn::Set(d, 36))));
      });
  if (stream) hwy::FlushStream();
}

// =====================================================================================
// Sharpness 16-bit - vertical blur and mix
// =====================================================================================

// With masked memory (AVX-512): 32 samples at a time in 16-bit lanes as far as the
// products allow. With q' = q - 32768 (the blur sums as signed words) and
// X = 4096 c - blur = -(q'0 + q'4) - 13 (q'1 + q'3) - 36 q'2 + 4096 c - 2^21, each pair of
// terms is one word multiply-add of interleaved rows; the rest is exact modulo 2^32, like
// the scalar form: r = (c << 17) + 2^16 + X s. (c << 17) + 2^16 - 2^21 s has nothing in
// its low half: it is the word 2c + 1 - 32 s, formed once for all 32 samples and moved
// into the high halves by the interleave. Packing the two halves back with signed
// saturation restores the order the interleave took apart and is the clamp to
// [-32768, 32767]. The interleaves, multiply-adds and the pack are called unqualified
// (found with the vector types): the one-lane scalar target, which never instantiates this
// form, does not declare them.
template <class D, class N>
HWY_INLINE hn::Vec<D> SharpenV16Pairs(D d, std::array<uint16_t const*, 5> const& rows,
                                      int16_t const* centre, size_t k, N n, int32_t strength) {
  const hn::RebindToUnsigned<D> du;
  const hn::Repartition<int32_t, D> d32;
  auto const pair = [&](int lowWeight, int highWeight) {
    return hn::BitCast(d,
                       hn::Set(d32, static_cast<int32_t>(static_cast<uint16_t>(lowWeight) |
                                                         static_cast<uint32_t>(highWeight) << 16)));
  };
  // a + the pairwise products of b and c: one word multiply-add on x86.
  auto const multiplyAdd = [&](hn::Vec<decltype(d32)> a, hn::Vec<D> b, hn::Vec<D> c) {
    hn::Vec<decltype(d32)> unused;
    return ReorderWidenMulAccumulate(d32, b, c, a, unused);
  };
  auto const row = [&](int r) {
    return hn::BitCast(d, hn::Xor(LoadN(du, rows[r] + k, n), hn::Set(du, uint16_t{0x8000})));
  };
  auto const q0 = row(0), q1 = row(1), q2 = row(2), q3 = row(3), q4 = row(4);
  auto const c = hn::Min(hn::Max(LoadN(d, centre + k, n), hn::Zero(d)), hn::Set(d, 1023));
  // 1 - 32 s, modulo 2^16: the rounding term and the bias of the blur sums, in high halves.
  auto const constant =
      hn::Set(d, static_cast<int16_t>(1u - (static_cast<uint32_t>(strength) << 5)));
  auto const high = hn::Add(hn::Add(c, c), constant);
  auto const half = [&](auto interleave) QUORVEL_STEP {
    auto const x =
        multiplyAdd(multiplyAdd(multiplyAdd(hn::Zero(d32), interleave(q0, q4), pair(-1, -1)),
                                interleave(q1, q3), pair(-13, -13)),
                    interleave(q2, c), pair(-36, 4096));
    return hn::ShiftRight<17>(hn::Add(hn::BitCast(d32, interleave(hn::Zero(d), high)),
                                      hn::Mul(x, hn::Set(d32, strength))));
  };
  return ReorderDemote2To(
      d, half([&](hn::Vec<D> a, hn::Vec<D> b) { return InterleaveLower(d, a, b); }),
      half([&](hn::Vec<D> a, hn::Vec<D> b) { return InterleaveUpper(d, a, b); }));
}

// Elsewhere int32 lanes throughout: the vertical blur of unsigned 16-bit sums reaches
// 64 * 65535, and the 32-bit signed steps of the formula wrap exactly like the scalar form
// (Mul wraps).
template <class D16, class N>
HWY_INLINE hn::Vec<D16> SharpenV16Wide(D16 d16, std::array<uint16_t const*, 5> const& rows,
                                       int16_t const* centre, size_t k, N n, int32_t strength) {
  const hn::Rebind<int32_t, D16> d;
  const hn::Rebind<uint16_t, D16> du16;
  auto q = [&](int r) { return hn::PromoteTo(d, LoadN(du16, rows[r] + k, n)); };
  auto const blur =
      hn::Add(hn::Add(hn::Add(q(0), q(4)), hn::Mul(hn::Add(q(1), q(3)), hn::Set(d, 13))),
              hn::Mul(q(2), hn::Set(d, 36)));
  auto const c =
      hn::Min(hn::Max(hn::PromoteTo(d, LoadN(d16, centre + k, n)), hn::Zero(d)), hn::Set(d, 1023));
  auto const diff = hn::Sub(hn::ShiftLeft<12>(c), blur);
  auto const r = hn::ShiftRight<17>(hn::Add(hn::Add(hn::ShiftLeft<17>(c), hn::Set(d, 65536)),
                                            hn::Mul(diff, hn::Set(d, strength))));
  // The signed narrowing saturates: the clamp to [-32768, 32767].
  return hn::DemoteTo(d16, r);
}

void SharpenRowV16(uint16_t const* const blurRows[5], int16_t const* centre, int16_t* out,
                   size_t count, int32_t strength, bool stream) {
  std::array<uint16_t const*, 5> const rows = {blurRows[0], blurRows[1], blurRows[2], blurRows[3],
                                               blurRows[4]};
  // Rows 0-3 of the blur were read for the rows above; row 4 and the centre row are new.
  auto const sharpen = [=](auto d, size_t k, auto n) QUORVEL_STEP {
    kernel::prefetchAhead(rows[4] + k), kernel::prefetchAhead(centre + k);
    if constexpr (kHaveMaskedMemory) {
      return SharpenV16Pairs(d, rows, centre, k, n, strength);
    } else {
      return SharpenV16Wide(d, rows, centre, k, n, strength);
    }
  };
  using Tag = std::conditional_t<kHaveMaskedMemory, hn::ScalableTag<int16_t>,
                                 hn::Rebind<int16_t, hn::ScalableTag<int32_t>>>;
  StoreRow(Tag(), out, count, stream, sharpen);
  if (stream) hwy::FlushStream();
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
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
