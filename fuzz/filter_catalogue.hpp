#pragma once
// What the fuzz targets know about the 28 built-in filters: the pixel type of every source
// and of the target, the description a host would give, and a parameter set of the right
// class with fuzzed fields.

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "quorvel/render.hpp"

namespace quorvel::fuzz {

/// Index of a pixel type in the library's type list.
enum PixelKind : uint8_t { kU8, kS8, kU16, kS16, kRgb8, kRgba8, kRgbS8, kRgbaS8, kRgb16, kRgbS16 };
inline constexpr size_t kPixelKinds = 10;

/// Which parameter class a filter reads.
enum class ParamsKind {
  kNone,
  kTruncate,
  kLinear16,
  kBlackWhite,
  kMatrix,
  kClahe,
  kSharp8,
  kSharp16,
  kMask
};

struct FilterInfo {
  char const* name;
  std::vector<PixelKind> inputs;
  PixelKind output;
  size_t bitsIn, bitsOut, componentsIn, componentsOut, bitDepthIn;
  ParamsKind params;
};

// clang-format off
inline std::vector<FilterInfo> const& catalogue() {
  static std::vector<FilterInfo> const kFilters = {
    {"FilterFirIH53LeGall16",  {kS16, kS16},       kS16,    16, 16, 1, 1, 16, ParamsKind::kNone},
    {"FilterFirIV53LeGall16",  {kS16, kS16},       kS16,    16, 16, 1, 1, 16, ParamsKind::kNone},
    {"BlitFilter1x16",         {kS16},             kS16,    16, 16, 1, 1, 16, ParamsKind::kNone},
    {"BlitFilter3x16",         {kRgbS16},          kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kNone},
    {"BlitFilter3x8",          {kRgb8},            kRgb8,   24, 24, 3, 3, 8,  ParamsKind::kNone},
    {"BlitFilter4x8",          {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kNone},
    {"Filter1x16ToRGB8",       {kS16},             kRgba8,  16, 32, 1, 4, 16, ParamsKind::kNone},
    {"FilterInterleave16",     {kS16, kS16, kS16}, kRgbS16, 16, 48, 1, 3, 16, ParamsKind::kNone},
    {"FilterRGBA8ToYCoCg16",   {kRgba8},           kRgbS16, 32, 48, 4, 3, 8,  ParamsKind::kNone},
    {"FilterYCoCg16ToRGBA8",   {kRgbS16},          kRgba8,  48, 32, 3, 4, 16, ParamsKind::kNone},
    {"FilterYCoCg16ToRGB16",   {kRgbS16},          kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kNone},
    {"Filter3x3Matrix8",       {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kMatrix},
    {"Filter3x3Matrix16",      {kRgbS16},          kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kMatrix},
    {"Filter3x16To4x8",        {kRgbS16},          kRgba8,  48, 32, 3, 4, 16, ParamsKind::kNone},
    {"Filter1x16To1x8",        {kS16},             kU8,     16, 8,  1, 1, 16, ParamsKind::kNone},
    {"FilterCLAHE",            {kRgbS16},          kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kClahe},
    {"FilterSharpness8",       {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kSharp8},
    {"FilterSharpnessH16",     {kRgbS16},          kRgb16,  48, 48, 3, 3, 16, ParamsKind::kNone},
    {"FilterSharpnessV16",     {kRgbS16, kRgb16},  kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kSharp16},
    {"FilterLinear8ToSRGB8",   {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kNone},
    {"FilterLinear16ToSRGB8",  {kRgbS16},          kRgba8,  48, 32, 3, 4, 16, ParamsKind::kNone},
    {"MaskFilter3x8",          {kRgb8},            kRgb8,   24, 24, 3, 3, 8,  ParamsKind::kMask},
    {"MaskFilter4x8",          {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kMask},
    {"MaskFilter3x16",         {kRgbS16},          kRgbS16, 48, 48, 3, 3, 16, ParamsKind::kMask},
    {"FilterLinear16TosRGB8",  {kRgbS16},          kRgba8,  48, 32, 3, 4, 16, ParamsKind::kLinear16},
    {"FilterBlackWhiteGamma8", {kRgba8},           kRgba8,  32, 32, 4, 4, 8,  ParamsKind::kBlackWhite},
    {"FilterTruncate16",       {kS16},             kS16,    16, 16, 1, 1, 16, ParamsKind::kTruncate},
    {"FilterRemoveAlpha8",     {kRgba8},           kRgb8,   32, 24, 4, 3, 8,  ParamsKind::kNone},
  };
  return kFilters;
}
// clang-format on

/// The description a host would pass for `info`.
inline Filter describe(FilterInfo const& info) {
  return pointFilter(info.name, info.inputs.size(), info.bitsIn, info.bitsOut, info.componentsIn,
                     info.componentsOut, info.bitDepthIn);
}

/// An envelope set of up to a few groups of rectangles near the origin (or anywhere).
inline EnvelopeData envelopeData(FuzzInput& in, size_t maxGroups, size_t maxRects) {
  EnvelopeData data(in.upTo(maxGroups));
  for (auto& group : data) {
    group.first.resize(in.upTo(3));
    for (auto& key : group.first) key = in.u16();
    group.second.resize(in.upTo(maxRects));
    for (auto& r : group.second) {
      // Mostly a valid rectangle; sometimes any four (or another number of) values.
      uint8_t const shape = in.byte();
      if (shape < 224) {
        uint32_t const x = shape < 200 ? in.byte() : in.u32();
        uint32_t const y = shape < 200 ? in.byte() : in.u32();
        r = {x, x + in.byte(), y, y + in.byte()};
        if (r[1] < r[0]) r[1] = r[0];
        if (r[3] < r[2]) r[3] = r[2];
      } else {
        r.resize(in.upTo(5));
        for (auto& v : r) v = in.u32();
      }
    }
  }
  return data;
}

/// A parameter set for `kind`; with a small chance one of another class, to check that a
/// wrong set fails cleanly.
inline std::unique_ptr<SingleFilterParameters> parameters(FuzzInput& in, ParamsKind kind,
                                                          std::shared_ptr<DataEnvelopes> mask) {
  std::unique_ptr<SingleFilterParameters> p;
  uint8_t const selector = in.byte();
  if (selector >= 248) kind = static_cast<ParamsKind>(selector % 9);
  switch (kind) {
    case ParamsKind::kNone:
      p = std::make_unique<FilterEmptyParams>();
      break;
    case ParamsKind::kTruncate: {
      auto t = std::make_unique<FilterTruncate16Params>();
      t->bits = in.size(20);
      t->reconstructAtMidpoint = in.flag();
      p = std::move(t);
      break;
    }
    case ParamsKind::kLinear16: {
      auto t = std::make_unique<FilterLinear16TosRGB8Params>();
      t->gamma = in.real();
      t->blackPoint = in.size(70000);
      t->whitePoint = in.flag() ? 65535 : in.size(70000);
      p = std::move(t);
      break;
    }
    case ParamsKind::kBlackWhite: {
      auto t = std::make_unique<FilterBlackWhiteGamma8Params>();
      t->gamma = in.real();
      t->blackPoint = in.size(5000);
      t->whitePoint = in.flag() ? 4095 : in.size(5000);
      p = std::move(t);
      break;
    }
    case ParamsKind::kMatrix: {
      auto t = std::make_unique<Filter3x3MatrixParams>();
      if (in.flag()) {
        for (auto& m : t->matrix) m = static_cast<int32_t>(in.u16()) - 32768;
      }
      t->scale = in.flag() ? 1.0 : in.real();
      p = std::move(t);
      break;
    }
    case ParamsKind::kClahe: {
      auto t = std::make_unique<FilterClaheParams>();
      t->clipLimit = in.real();
      p = std::move(t);
      break;
    }
    case ParamsKind::kSharp8: {
      auto t = std::make_unique<FilterSharpness8Params>();
      t->gain = in.real();
      p = std::move(t);
      break;
    }
    case ParamsKind::kSharp16: {
      auto t = std::make_unique<FilterSharpness16Params>();
      t->gain = in.real();
      p = std::move(t);
      break;
    }
    case ParamsKind::kMask: {
      auto t = std::make_unique<MaskFilterParams>();
      t->envelopes = std::move(mask);
      p = std::move(t);
      break;
    }
  }
  p->level = static_cast<int32_t>(in.byte() < 240 ? in.upTo(8) : in.u32());
  return p;
}

}  // namespace quorvel::fuzz
