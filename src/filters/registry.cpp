// The one table of built-in filters: every name the backend accepts, in registration
// order, with the kernel class that implements it.

#include "quorvel/filters/software_filter.hpp"
#include "quorvel/kernels/display/mask.hpp"
#include "quorvel/kernels/reconstruction/blit.hpp"

namespace quorvel {

void registerBuiltinFilters(SoftwareFilterFactory& f) {
  // clang-format off
  f.registerFactory<SoftwareBlitFilter<int16_t, int16_t>>                 ("BlitFilter1x16");
  f.registerFactory<SoftwareBlitFilter<PixelRgbS16, PixelRgbS16>>         ("BlitFilter3x16");
  f.registerFactory<SoftwareBlitFilter<PixelRgb8, PixelRgb8>>             ("BlitFilter3x8");
  f.registerFactory<SoftwareBlitFilter<PixelRgba8, PixelRgba8>>           ("BlitFilter4x8");
  f.registerFactory<SoftwareMaskFilter<PixelRgb8>>                        ("MaskFilter3x8");
  f.registerFactory<SoftwareMaskFilter<PixelRgba8>>                       ("MaskFilter4x8");
  f.registerFactory<SoftwareMaskFilter<PixelRgbS16>>                      ("MaskFilter3x16");
  // clang-format on
}

}  // namespace quorvel
