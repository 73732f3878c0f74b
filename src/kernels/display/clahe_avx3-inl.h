// The steps of the CLAHE row kernels that take the whole-vector permutes of AVX-512 VBMI
// (simd/lane_ops-inl.h), each next to the form every other target uses. Included by clahe_hwy.cpp
// inside its target namespace, once per target, hence no include guard.

#if HWY_TARGET == HWY_AVX3_DL

// Word permutes over the 48 samples of 16 pixels, held in a 512-bit and a 256-bit vector:
// channel 0 gathered into pixel order, and put back into the lanes of channel 0 (mask bit q
// set where lane q holds a channel-0 sample).
constexpr lane_tables::WordIndex Channel0Index() {
  lane_tables::WordIndex w{};
  for (int p = 0; p < 16; ++p) w.words[p] = static_cast<uint16_t>(3 * p);
  return w;
}
constexpr lane_tables::WordIndex InsertIndex(int first, int count) {
  lane_tables::WordIndex w{};
  for (int q = 0; q < count; ++q) {
    int const s = first + q;
    w.words[q] = static_cast<uint16_t>(s % 3 == 0 ? s / 3 : 0);
  }
  return w;
}
constexpr uint32_t InsertMask(int first, int count) {
  uint32_t m = 0;
  for (int q = 0; q < count; ++q) m |= (first + q) % 3 == 0 ? uint32_t{1} << q : 0;
  return m;
}
inline constexpr lane_tables::WordIndex kChannel0 = Channel0Index();
inline constexpr lane_tables::WordIndex kInsertLow = InsertIndex(0, 32),
                                        kInsertHigh = InsertIndex(32, 16);
inline constexpr uint32_t kInsertLowMask = InsertMask(0, 32), kInsertHighMask = InsertMask(32, 16);

HWY_INLINE hn::Vec256<int16_t> LoadChannel0(hn::Simd<int16_t, 16, 0> d, int16_t const* samples) {
  const hn::Full512<int16_t> dw;
  const hn::Full512<uint16_t> du;
  auto const low = hn::LoadU(dw, samples);
  auto const high = hn::ZeroExtendVector(dw, hn::LoadU(d, samples + 32));
  return hn::LowerHalf(TwoTableWords(low, hn::Load(du, kChannel0.words), high));
}

HWY_INLINE void StoreChannel0(hn::Simd<int16_t, 16, 0> d, hn::Vec256<int16_t> value,
                              int16_t* samples, int16_t* copy, bool stream) {
  const hn::Full512<int16_t> dw;
  const hn::Full512<uint16_t> du;
  const hn::Simd<uint16_t, 16, 0> duh;
  auto const low =
      MaskedTableWords(hn::LoadU(dw, samples), kInsertLowMask, hn::Load(du, kInsertLow.words),
                       hn::ZeroExtendVector(dw, value));
  auto const high = MaskedTableWords(hn::LoadU(d, samples + 32), kInsertHighMask,
                                     hn::Load(duh, kInsertHigh.words), value);
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
      return TwoTableBytes(hn::LoadU(d, table), index, hn::LoadU(d, table + 64));
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
