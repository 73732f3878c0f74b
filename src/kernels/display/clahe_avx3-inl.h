// The steps of the CLAHE row kernels that take AVX-512 instructions which Highway does not
// offer, each next to the form every other target uses. Included by clahe_hwy.cpp inside its
// target namespace, once per target, hence no include guard.

#if HWY_TARGET == HWY_AVX3_DL

// Word permutes over the 48 samples of 16 pixels, held in a 512-bit and a 256-bit vector:
// channel 0 gathered into pixel order, and put back into the lanes of channel 0 (mask bit q
// set where lane q holds a channel-0 sample).
struct alignas(64) WordIndex {
  int16_t lanes[32];
  uint32_t mask;
};
constexpr WordIndex Channel0Index() {
  WordIndex w{};
  for (int p = 0; p < 16; ++p) w.lanes[p] = static_cast<int16_t>(3 * p);
  return w;
}
constexpr WordIndex InsertIndex(int first, int count) {
  WordIndex w{};
  for (int q = 0; q < count; ++q) {
    int const s = first + q;
    w.lanes[q] = static_cast<int16_t>(s % 3 == 0 ? s / 3 : 0);
    w.mask |= s % 3 == 0 ? uint32_t{1} << q : 0;
  }
  return w;
}
inline constexpr WordIndex kChannel0 = Channel0Index();
inline constexpr WordIndex kInsertLow = InsertIndex(0, 32), kInsertHigh = InsertIndex(32, 16);

HWY_INLINE hn::Vec256<int16_t> LoadChannel0(hn::Simd<int16_t, 16, 0> d, int16_t const* samples) {
  const hn::Full512<int16_t> dw;
  auto const low = hn::LoadU(dw, samples);
  auto const high = hn::ZeroExtendVector(dw, hn::LoadU(d, samples + 32));
  return hn::LowerHalf(hn::Vec512<int16_t>{
      _mm512_permutex2var_epi16(low.raw, hn::Load(dw, kChannel0.lanes).raw, high.raw)});
}

HWY_INLINE void StoreChannel0(hn::Simd<int16_t, 16, 0> d, hn::Vec256<int16_t> value,
                              int16_t* samples, int16_t* copy, bool stream) {
  const hn::Full512<int16_t> dw;
  hn::Vec512<int16_t> const low{_mm512_mask_permutexvar_epi16(
      hn::LoadU(dw, samples).raw, kInsertLow.mask, hn::Load(dw, kInsertLow.lanes).raw,
      hn::ZeroExtendVector(dw, value).raw)};
  hn::Vec256<int16_t> const high{_mm256_mask_permutexvar_epi16(
      hn::LoadU(d, samples + 32).raw, static_cast<__mmask16>(kInsertHigh.mask),
      hn::Load(d, kInsertHigh.lanes).raw, value.raw)};
  hn::StoreU(low, dw, samples);
  hn::StoreU(high, d, samples + 32);
  if (copy == nullptr) return;
  hn::Vec256<int16_t> const parts[3] = {hn::LowerHalf(low), hn::UpperHalf(d, low), high};
  for (size_t k = 0; k < 3; ++k) {
    if (stream) {
      hn::Stream(parts[k], d, copy + 16 * k);
    } else {
      hn::StoreU(parts[k], d, copy + 16 * k);
    }
  }
}

// With VBMI, 64 bins at a time: per plane two permutes over 128 entries each and a blend on
// the index's top bit. Against the one-pixel form below this takes 4096 x 4096 pixels from
// 31 to 21 ms.
HWY_INLINE void LookUpPlanes(uint8_t const* bins, size_t count, size_t firstColumn, size_t tileCols,
                             uint8_t const* above, uint8_t const* below, uint8_t* planes) {
  const hn::Full512<uint8_t> d;
  const hn::RebindToSigned<decltype(d)> di;
  ForEachColumnBlock(count, firstColumn, tileCols, [&](size_t s, size_t e, size_t l, size_t r) {
    auto const m = hn::FirstN(d, e - s);
    auto const index = hn::MaskedLoad(m, d, bins + s);
    auto const upper = hn::RebindMask(d, hn::Lt(hn::BitCast(di, index), hn::Zero(di)));
    auto const lookUp128 = [&](uint8_t const* table) {
      return hn::Vec512<uint8_t>{_mm512_permutex2var_epi8(hn::LoadU(d, table).raw, index.raw,
                                                          hn::LoadU(d, table + 64).raw)};
    };
    uint8_t const* const tables[4] = {above + l, above + r, below + l, below + r};
    for (size_t p = 0; p < 4; ++p) {
      hn::BlendedStore(hn::IfThenElse(upper, lookUp128(tables[p] + 128), lookUp128(tables[p])), m,
                       d, planes + p * count + s);
    }
  });
}

#else

// One pixel at a time: a 256-entry byte table is no vector operation here.
HWY_INLINE void LookUpPlanes(uint8_t const* bins, size_t count, size_t firstColumn, size_t tileCols,
                             uint8_t const* above, uint8_t const* below, uint8_t* planes) {
  ForEachColumnBlock(count, firstColumn, tileCols, [&](size_t s, size_t e, size_t l, size_t r) {
    uint8_t const* const tables[4] = {above + l, above + r, below + l, below + r};
    for (size_t i = s; i < e; ++i) {
      size_t const bin = bins[i];  // read once: the stores may alias it
      for (size_t p = 0; p < 4; ++p) planes[p * count + i] = tables[p][bin];
    }
  });
}

#endif
