// The one table of built-in filters: every name the backend accepts, in registration
// order, with the kernel class that implements it and the description a host gives it.

#include "quorvel/kernels/registry.hpp"

#include <algorithm>
#include <cstdint>

#include "kernels/builtin_filters.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/kernels/display/clahe.hpp"
#include "quorvel/kernels/display/lut.hpp"
#include "quorvel/kernels/display/mask.hpp"
#include "quorvel/kernels/display/matrix.hpp"
#include "quorvel/kernels/display/sharpness.hpp"
#include "quorvel/kernels/reconstruction/blit.hpp"
#include "quorvel/kernels/reconstruction/conversions.hpp"
#include "quorvel/kernels/reconstruction/wavelet.hpp"
#include "quorvel/kernels/reconstruction/ycocg.hpp"

namespace quorvel {
namespace {

template <class Kernel>
void add(SoftwareFilterFactory& factory, std::string const& name) {
  factory.registerFactory<Kernel>(name);
}

template <class T>
constexpr std::type_info const* type() {
  return &typeid(T);
}

constexpr std::type_info const* kNoParams = nullptr;

}  // namespace

std::vector<BuiltinFilter> const& builtinFilters() {
  using S16 = int16_t;
  using U8 = uint8_t;
  // clang-format off
  static std::vector<BuiltinFilter> const kFilters = {
    {"FilterFirIH53LeGall16",  add<SoftwareFilterFirIH53LeGall16<S16, S16>>,
     {type<S16>(), type<S16>()}, type<S16>(),                       16, 16, 1, 1, 16, kNoParams},
    {"FilterFirIV53LeGall16",  add<SoftwareFilterFirIV53LeGall16<S16, S16>>,
     {type<S16>(), type<S16>()}, type<S16>(),                       16, 16, 1, 1, 16, kNoParams},
    {"BlitFilter1x16",         add<SoftwareBlitFilter<S16, S16>>,
     {type<S16>()}, type<S16>(),                                    16, 16, 1, 1, 16, kNoParams},
    {"BlitFilter3x16",         add<SoftwareBlitFilter<PixelRgbS16, PixelRgbS16>>,
     {type<PixelRgbS16>()}, type<PixelRgbS16>(),                    48, 48, 3, 3, 16, kNoParams},
    {"BlitFilter3x8",          add<SoftwareBlitFilter<PixelRgb8, PixelRgb8>>,
     {type<PixelRgb8>()}, type<PixelRgb8>(),                        24, 24, 3, 3, 8,  kNoParams},
    {"BlitFilter4x8",          add<SoftwareBlitFilter<PixelRgba8, PixelRgba8>>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,  kNoParams},
    {"Filter1x16ToRGB8",       add<SoftwareFilterSingleChannelToRGB<S16, U8>>,
     {type<S16>()}, type<PixelRgba8>(),                             16, 32, 1, 4, 16, kNoParams},
    {"FilterInterleave16",     add<SoftwareInterleaveFilter<S16, 3>>,
     {type<S16>(), type<S16>(), type<S16>()}, type<PixelRgbS16>(),  16, 48, 1, 3, 16, kNoParams},
    {"FilterRGBA8ToYCoCg16",   add<SoftwareFilterRGBAToYCoCg<U8, S16>>,
     {type<PixelRgba8>()}, type<PixelRgbS16>(),                     32, 48, 4, 3, 8,  kNoParams},
    {"FilterYCoCg16ToRGBA8",   add<SoftwareFilterYCoCgToRGBA<S16, U8>>,
     {type<PixelRgbS16>()}, type<PixelRgba8>(),                     48, 32, 3, 4, 16, kNoParams},
    {"FilterYCoCg16ToRGB16",   add<SoftwareFilterYCoCgToRGB<S16, S16>>,
     {type<PixelRgbS16>()}, type<PixelRgbS16>(),                    48, 48, 3, 3, 16, kNoParams},
    {"Filter3x3Matrix8",       add<SoftwareFilter3x3Matrix<U8, U8, 4>>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,
     type<Filter3x3MatrixParams>()},
    {"Filter3x3Matrix16",      add<SoftwareFilter3x3Matrix<S16, S16, 3>>,
     {type<PixelRgbS16>()}, type<PixelRgbS16>(),                    48, 48, 3, 3, 16,
     type<Filter3x3MatrixParams>()},
    {"Filter3x16To4x8",        add<SoftwareFilter3x16To4x8<S16, U8>>,
     {type<PixelRgbS16>()}, type<PixelRgba8>(),                     48, 32, 3, 4, 16, kNoParams},
    {"Filter1x16To1x8",        add<SoftwareFilter1x16To1x8<S16, U8>>,
     {type<S16>()}, type<U8>(),                                     16, 8,  1, 1, 16, kNoParams},
    {"FilterCLAHE",            add<SoftwareFilterCLAHE>,
     {type<PixelRgbS16>()}, type<PixelRgbS16>(),                    48, 48, 3, 3, 16,
     type<FilterClaheParams>()},
    {"FilterSharpness8",       add<SoftwareFilterSharpness<U8, 4>>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,
     type<FilterSharpness8Params>()},
    {"FilterSharpnessH16",     add<SoftwareFilterSharpnessH16<3>>,
     {type<PixelRgbS16>()}, type<PixelRgb16>(),                     48, 48, 3, 3, 16, kNoParams},
    {"FilterSharpnessV16",     add<SoftwareFilterSharpnessV16<3>>,
     {type<PixelRgbS16>(), type<PixelRgb16>()}, type<PixelRgbS16>(), 48, 48, 3, 3, 16,
     type<FilterSharpness16Params>()},
    {"FilterLinear8ToSRGB8",   add<SoftwareFilterLinearTo8bitSRGB<U8, 4, U8, 4>>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,  kNoParams},
    {"FilterLinear16ToSRGB8",  add<SoftwareFilterLinearTo8bitSRGB<S16, 3, U8, 4>>,
     {type<PixelRgbS16>()}, type<PixelRgba8>(),                     48, 32, 3, 4, 16, kNoParams},
    {"MaskFilter3x8",          add<SoftwareMaskFilter<PixelRgb8>>,
     {type<PixelRgb8>()}, type<PixelRgb8>(),                        24, 24, 3, 3, 8,
     type<MaskFilterParams>()},
    {"MaskFilter4x8",          add<SoftwareMaskFilter<PixelRgba8>>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,
     type<MaskFilterParams>()},
    {"MaskFilter3x16",         add<SoftwareMaskFilter<PixelRgbS16>>,
     {type<PixelRgbS16>()}, type<PixelRgbS16>(),                    48, 48, 3, 3, 16,
     type<MaskFilterParams>()},
    {"FilterLinear16TosRGB8",  add<SoftwareFilterLinear16TosRGB8<S16, 3, U8, 4>>,
     {type<PixelRgbS16>()}, type<PixelRgba8>(),                     48, 32, 3, 4, 16,
     type<FilterLinear16TosRGB8Params>()},
    {"FilterBlackWhiteGamma8", add<SoftwareFilterBlackWhiteGamma8>,
     {type<PixelRgba8>()}, type<PixelRgba8>(),                      32, 32, 4, 4, 8,
     type<FilterBlackWhiteGamma8Params>()},
    {"FilterTruncate16",       add<SoftwareFilterTruncate<S16>>,
     {type<S16>()}, type<S16>(),                                    16, 16, 1, 1, 16,
     type<FilterTruncate16Params>()},
    {"FilterRemoveAlpha8",     add<SoftwareFilterRemoveAlpha<U8>>,
     {type<PixelRgba8>()}, type<PixelRgb8>(),                       32, 24, 4, 3, 8,  kNoParams},
  };
  // clang-format on
  return kFilters;
}

bool isMaskFilter(std::string const& name) {
  auto const& filters = builtinFilters();
  return std::any_of(filters.begin(), filters.end(), [&name](BuiltinFilter const& f) {
    return f.params != nullptr && *f.params == typeid(MaskFilterParams) && name == f.name;
  });
}

void registerBuiltinFilters(SoftwareFilterFactory& factory) {
  for (BuiltinFilter const& f : builtinFilters()) f.registerIn(factory, f.name);
}

}  // namespace quorvel
