#include "quorvel/kernels/display/mask.hpp"

#include <cstring>

#include "filters/kernel_frame.hpp"
#include "quorvel/host/data_envelopes.hpp"

namespace quorvel {

template <class P>
void SoftwareMaskFilter<P>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                  std::vector<std::vector<int>> const&,
                                  std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                  std::vector<std::vector<int>> const& outputRects,
                                  SingleFilterParameters const& params) {
  std::vector<int> const regionRect = kernel::rectAt(outputRects, 0);
  if (regionRect.size() < 4) return;
  DataEnvelopes::Rect const region{regionRect[0], regionRect[1], regionRect[2], regionRect[3]};
  // The counted reference keeps the set alive even if its owner replaces it meanwhile.
  std::shared_ptr<DataEnvelopes const> const envelopes = params.as<MaskFilterParams>().envelopes;
  if (!envelopes) return;
  auto& source = kernel::typed<P>(inputs, 0);
  auto& target = kernel::typed<P>(outputs, 0);

  for (DataEnvelopes::Rect const& e : envelopes->intersecting(region)) {
    int64_t const x = e.xmin - region.xmin, y = e.ymin - region.ymin;
    int64_t const w = e.xmax - e.xmin + 1, h = e.ymax - e.ymin + 1;
    // Local rectangles beyond 32 bits cannot meet a buffer; clamp before narrowing.
    auto narrow = [](int64_t v) {
      return static_cast<int>(std::clamp<int64_t>(v, INT32_MIN / 2, INT32_MAX / 2));
    };
    // Source and target share the region's coordinates, so the envelope is clipped to the
    // target and the same rectangle is read from the source. (Moving the input by the
    // output's clip, as one-pixel-per-pixel kernels do, would shift envelopes that start
    // left of or above the region.)
    std::vector<int> local;
    if (!SoftwareFilter::intersect({narrow(x), narrow(y), narrow(w), narrow(h)}, target.rect(),
                                   local)) {
      continue;
    }
    kernel::Span const s = kernel::fitSpan(local, source, local, target);
    if (s.empty()) continue;
    size_t const rowBytes = static_cast<size_t>(s.width) * sizeof(P);
    P const* src = source.data() + s.inY * static_cast<int64_t>(source.width()) + s.inX;
    P* dst = target.data() + s.outY * static_cast<int64_t>(target.width()) + s.outX;
    for (int64_t row = 0; row < s.height; ++row) {
      std::memmove(dst, src, rowBytes);
      src += source.width();
      dst += target.width();
    }
  }
}

template class SoftwareMaskFilter<PixelRgb8>;
template class SoftwareMaskFilter<PixelRgba8>;
template class SoftwareMaskFilter<PixelRgbS16>;

}  // namespace quorvel
