// The one table of built-in filters: every name the backend accepts, in registration
// order, with the kernel class that implements it.

#include "quorvel/filters/software_filter.hpp"
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

void registerBuiltinFilters(SoftwareFilterFactory& f) {
  // clang-format off
  f.registerFactory<SoftwareFilterFirIH53LeGall16<int16_t, int16_t>>        ("FilterFirIH53LeGall16");
  f.registerFactory<SoftwareFilterFirIV53LeGall16<int16_t, int16_t>>        ("FilterFirIV53LeGall16");
  f.registerFactory<SoftwareBlitFilter<int16_t, int16_t>>                   ("BlitFilter1x16");
  f.registerFactory<SoftwareBlitFilter<PixelRgbS16, PixelRgbS16>>           ("BlitFilter3x16");
  f.registerFactory<SoftwareBlitFilter<PixelRgb8, PixelRgb8>>               ("BlitFilter3x8");
  f.registerFactory<SoftwareBlitFilter<PixelRgba8, PixelRgba8>>             ("BlitFilter4x8");
  f.registerFactory<SoftwareFilterSingleChannelToRGB<int16_t, uint8_t>>     ("Filter1x16ToRGB8");
  f.registerFactory<SoftwareInterleaveFilter<int16_t, 3>>                   ("FilterInterleave16");
  f.registerFactory<SoftwareFilterRGBAToYCoCg<uint8_t, int16_t>>            ("FilterRGBA8ToYCoCg16");
  f.registerFactory<SoftwareFilterYCoCgToRGBA<int16_t, uint8_t>>            ("FilterYCoCg16ToRGBA8");
  f.registerFactory<SoftwareFilterYCoCgToRGB<int16_t, int16_t>>             ("FilterYCoCg16ToRGB16");
  f.registerFactory<SoftwareFilter3x3Matrix<uint8_t, uint8_t, 4>>           ("Filter3x3Matrix8");
  f.registerFactory<SoftwareFilter3x3Matrix<int16_t, int16_t, 3>>           ("Filter3x3Matrix16");
  f.registerFactory<SoftwareFilter3x16To4x8<int16_t, uint8_t>>              ("Filter3x16To4x8");
  f.registerFactory<SoftwareFilter1x16To1x8<int16_t, uint8_t>>              ("Filter1x16To1x8");
  f.registerFactory<SoftwareFilterCLAHE>                                    ("FilterCLAHE");
  f.registerFactory<SoftwareFilterSharpness<uint8_t, 4>>                    ("FilterSharpness8");
  f.registerFactory<SoftwareFilterSharpnessH16<3>>                          ("FilterSharpnessH16");
  f.registerFactory<SoftwareFilterSharpnessV16<3>>                          ("FilterSharpnessV16");
  f.registerFactory<SoftwareFilterLinearTo8bitSRGB<uint8_t, 4, uint8_t, 4>> ("FilterLinear8ToSRGB8");
  f.registerFactory<SoftwareFilterLinearTo8bitSRGB<int16_t, 3, uint8_t, 4>> ("FilterLinear16ToSRGB8");
  f.registerFactory<SoftwareMaskFilter<PixelRgb8>>                          ("MaskFilter3x8");
  f.registerFactory<SoftwareMaskFilter<PixelRgba8>>                         ("MaskFilter4x8");
  f.registerFactory<SoftwareMaskFilter<PixelRgbS16>>                        ("MaskFilter3x16");
  f.registerFactory<SoftwareFilterLinear16TosRGB8<int16_t, 3, uint8_t, 4>>  ("FilterLinear16TosRGB8");
  f.registerFactory<SoftwareFilterBlackWhiteGamma8>                         ("FilterBlackWhiteGamma8");
  f.registerFactory<SoftwareFilterTruncate<int16_t>>                        ("FilterTruncate16");
  f.registerFactory<SoftwareFilterRemoveAlpha<uint8_t>>                     ("FilterRemoveAlpha8");
  // clang-format on
}

}  // namespace quorvel
