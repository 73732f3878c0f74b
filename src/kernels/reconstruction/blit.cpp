#include "quorvel/kernels/reconstruction/blit.hpp"

#include <cstring>

#include "filters/kernel_frame.hpp"

namespace quorvel {

template <class In, class Out>
void SoftwareBlitFilter<In, Out>::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                        std::vector<std::vector<int>> const& inputRects,
                                        std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                        std::vector<std::vector<int>> const& outputRects,
                                        SingleFilterParameters const&) {
  auto& source = kernel::typed<In>(inputs, 0);
  auto& target = kernel::typed<Out>(outputs, 0);
  kernel::Span const s = kernel::validSpan(kernel::rectAt(inputRects, 0), source,
                                           kernel::rectAt(outputRects, 0), target);
  if (s.empty()) return;
  size_t const rowBytes = static_cast<size_t>(s.width) * sizeof(Out);
  In const* src = source.data() + s.inY * static_cast<int64_t>(source.width()) + s.inX;
  Out* dst = target.data() + s.outY * static_cast<int64_t>(target.width()) + s.outX;
  for (int64_t row = 0; row < s.height; ++row) {
    // memmove: a blit within one buffer may overlap itself.
    std::memmove(dst, src, rowBytes);
    src += source.width();
    dst += target.width();
  }
}

template class SoftwareBlitFilter<int16_t, int16_t>;
template class SoftwareBlitFilter<PixelRgbS16, PixelRgbS16>;
template class SoftwareBlitFilter<PixelRgb8, PixelRgb8>;
template class SoftwareBlitFilter<PixelRgba8, PixelRgba8>;

}  // namespace quorvel
