#pragma once
// What the fuzz targets know about the built-in filters, taken from the library's table:
// the pixel kind of every source and of the target, the description a host would give, and
// a parameter set of the right class with fuzzed fields.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "fuzz_input.hpp"
#include "kernels/builtin_filters.hpp"
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

/// The pixel kind of a library pixel type.
inline PixelKind pixelKind(std::type_info const& type) {
  static std::type_info const* const kTypes[kPixelKinds] = {
      &typeid(uint8_t),    &typeid(int8_t),     &typeid(uint16_t),   &typeid(int16_t),
      &typeid(PixelRgb8),  &typeid(PixelRgba8), &typeid(PixelRgbS8), &typeid(PixelRgbaS8),
      &typeid(PixelRgb16), &typeid(PixelRgbS16)};
  for (size_t k = 0; k < kPixelKinds; ++k) {
    if (*kTypes[k] == type) return static_cast<PixelKind>(k);
  }
  std::abort();  // a pixel type the fuzz targets cannot build buffers of
}

/// The parameter class a kernel reads, as the fuzz targets build it.
inline ParamsKind paramsKind(std::type_info const* type) {
  if (type == nullptr) return ParamsKind::kNone;
  if (*type == typeid(FilterTruncate16Params)) return ParamsKind::kTruncate;
  if (*type == typeid(FilterLinear16TosRGB8Params)) return ParamsKind::kLinear16;
  if (*type == typeid(FilterBlackWhiteGamma8Params)) return ParamsKind::kBlackWhite;
  if (*type == typeid(Filter3x3MatrixParams)) return ParamsKind::kMatrix;
  if (*type == typeid(FilterClaheParams)) return ParamsKind::kClahe;
  if (*type == typeid(FilterSharpness8Params)) return ParamsKind::kSharp8;
  if (*type == typeid(FilterSharpness16Params)) return ParamsKind::kSharp16;
  if (*type == typeid(MaskFilterParams)) return ParamsKind::kMask;
  std::abort();  // a parameter class without a fuzzed builder below
}

/// Every built-in filter, in registration order, read from the library's own table.
inline std::vector<FilterInfo> const& catalogue() {
  static std::vector<FilterInfo> const kFilters = [] {
    std::vector<FilterInfo> list;
    for (BuiltinFilter const& f : builtinFilters()) {
      std::vector<PixelKind> inputs;
      for (std::type_info const* type : f.inputs) inputs.push_back(pixelKind(*type));
      list.push_back({f.name, std::move(inputs), pixelKind(*f.output), f.bitsIn, f.bitsOut,
                      f.componentsIn, f.componentsOut, f.bitDepthIn, paramsKind(f.params)});
    }
    return list;
  }();
  return kFilters;
}

/// The filters that maskRange runs, in registration order.
inline std::vector<FilterInfo const*> const& maskCatalogue() {
  static std::vector<FilterInfo const*> const kMasks = [] {
    std::vector<FilterInfo const*> list;
    for (FilterInfo const& info : catalogue()) {
      if (info.params == ParamsKind::kMask) list.push_back(&info);
    }
    return list;
  }();
  return kMasks;
}

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
