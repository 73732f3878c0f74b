#pragma once
// Blits: whole-pixel row copies from a source rectangle to the target.

#include "quorvel/export.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// "BlitFilter1x16", "BlitFilter3x16", "BlitFilter3x8", "BlitFilter4x8": copies the source
/// rectangle to the output rectangle row by row after clipping both to their buffers.
template <class In, class Out>
class QUORVEL_API SoftwareBlitFilter : public SoftwareFilter {
  static_assert(sizeof(In) == sizeof(Out), "a blit copies pixels of one size");

 public:
  explicit SoftwareBlitFilter(Filter const& description) : SoftwareFilter(description) {}
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareBlitFilter<int16_t, int16_t>;
extern template class SoftwareBlitFilter<PixelRgbS16, PixelRgbS16>;
extern template class SoftwareBlitFilter<PixelRgb8, PixelRgb8>;
extern template class SoftwareBlitFilter<PixelRgba8, PixelRgba8>;

}  // namespace quorvel
