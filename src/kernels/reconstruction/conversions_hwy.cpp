// Vector bodies of the channel conversions, compiled once per SIMD target. Vectors are
// capped at 256 bits: the interleaving shuffles work within 128-bit blocks and these rows
// are memory-bound, so wider vectors do not pay.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "kernels/reconstruction/conversions_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "kernels/reconstruction/pixel_rows.hpp"
#include "kernels/reconstruction/stream_store-inl.h"
#include "quorvel/kernels/reconstruction/conversions.hpp"

HWY_BEFORE_NAMESPACE();
namespace quorvel::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// int16 lanes and the uint8 lanes they narrow to. DemoteTo from signed 16 bits saturates
// to 0..255, which is exactly the documented clamp.
using D16 = hn::CappedTag<int16_t, 16>;
using D8 = hn::Rebind<uint8_t, D16>;

void Rgb16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
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
  if (stream) hwy::FlushStream();
}

void Gray16To8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
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
  if (stream) hwy::FlushStream();
}

void Gray16ToRgba8(const int16_t* src, uint8_t* dst, size_t pixels, bool stream) {
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
  if (stream) hwy::FlushStream();
}

void Interleave3(const int16_t* c0, const int16_t* c1, const int16_t* c2, int16_t* dst,
                 size_t pixels, bool stream) {
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
  if (stream) hwy::FlushStream();
}

void RemoveAlpha(const uint8_t* src, uint8_t* dst, size_t pixels, bool stream) {
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
