#pragma once
// Mask filters: copy from the source only the pixels inside the data envelopes that
// intersect the region being rendered; everything else in the target is left as it was.

#include "quorvel/export.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// "MaskFilter3x8", "MaskFilter4x8", "MaskFilter3x16". Source and target hold the region
/// {xmin, xmax, ymin, ymax} (inclusive) of the image, their pixel (0, 0) being the region's
/// top-left corner; the region arrives as outputRects[0] in that bound order, and the
/// envelopes in MaskFilterParams.
template <class P>
class QUORVEL_API SoftwareMaskFilter : public SoftwareFilter {
 public:
  explicit SoftwareMaskFilter(Filter const& description) : SoftwareFilter(description) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareMaskFilter<PixelRgb8>;
extern template class SoftwareMaskFilter<PixelRgba8>;
extern template class SoftwareMaskFilter<PixelRgbS16>;

}  // namespace quorvel
