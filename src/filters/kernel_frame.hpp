#pragma once
// Shared plumbing of the kernels: typed access to the job's buffers and the clipped
// pixel-to-pixel mapping between a source and the target. Kernels write only their loops.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel::kernel {

inline constexpr char kApplyLocation[] =
    "void SoftwareFilter::apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs, "
    "std::vector<std::vector<int>> const& inputRects, std::vector<std::shared_ptr<Buffer2D>> "
    "const& outputs, std::vector<std::vector<int>> const& outputRects, SingleFilterParameters "
    "const& params)";
inline constexpr char kNoData[] = "buffer data does not exist";

/// Buffer i of `list` as a typed buffer with storage. A missing buffer, or one without
/// storage, fails with "buffer data does not exist"; a foreign pixel type fails in cast().
template <class P>
Buffer2DVector<P>& typed(std::vector<std::shared_ptr<Buffer2D>> const& list, size_t i) {
  if (i >= list.size() || !list[i]) throw QuorvelException(kNoData, kApplyLocation);
  auto& buffer = *Buffer2DVector<P>::cast(list[i]);
  // Not width * height != 0: that product can wrap to 0 for a huge, storage-less buffer.
  if (buffer.data() == nullptr && buffer.width() != 0 && buffer.height() != 0) {
    throw QuorvelException(kNoData, kApplyLocation);
  }
  return buffer;
}

/// Rectangle i of `list`, or an empty rectangle when the job holds none.
inline std::vector<int> rectAt(std::vector<std::vector<int>> const& list, size_t i) {
  return i < list.size() ? list[i] : std::vector<int>{};
}

/// One source rectangle mapped onto one target rectangle, one pixel to one pixel. Every
/// pixel (inX + i, inY + j) and (outX + i, outY + j) for i < width, j < height lies inside
/// its buffer.
struct Span {
  int64_t inX = 0, inY = 0, outX = 0, outY = 0, width = 0, height = 0;
  bool empty() const { return width <= 0 || height <= 0; }
};

/// Shrinks a rectangle pair so that both stay inside their buffers; used after the
/// rectangles were validated (or on rectangles used as given).
inline Span fitSpan(std::vector<int> const& in, Buffer2D const& source, std::vector<int> const& out,
                    Buffer2D const& target) {
  auto f = [](std::vector<int> const& r, size_t i) -> int64_t { return i < r.size() ? r[i] : 0; };
  Span s{f(in, 0),
         f(in, 1),
         f(out, 0),
         f(out, 1),
         std::min(f(in, 2), f(out, 2)),
         std::min(f(in, 3), f(out, 3))};
  // Move both origins right/down past any negative coordinate of either rectangle.
  int64_t const skipX = std::max<int64_t>({0, -s.inX, -s.outX});
  int64_t const skipY = std::max<int64_t>({0, -s.inY, -s.outY});
  s.inX += skipX, s.outX += skipX, s.width -= skipX;
  s.inY += skipY, s.outY += skipY, s.height -= skipY;
  s.width = std::min({s.width, static_cast<int64_t>(source.width()) - s.inX,
                      static_cast<int64_t>(target.width()) - s.outX});
  s.height = std::min({s.height, static_cast<int64_t>(source.height()) - s.inY,
                       static_cast<int64_t>(target.height()) - s.outY});
  if (s.empty()) s.width = s.height = 0;
  return s;
}

/// The validated span of a single-source kernel: getValidRects on the job's rectangles,
/// then fitted to both buffers.
inline Span validSpan(std::vector<int> in, Buffer2D const& source, std::vector<int> out,
                      Buffer2D const& target) {
  SoftwareFilter::getValidRects(in, source.rect(), out, target.rect());
  return fitSpan(in, source, out, target);
}

}  // namespace quorvel::kernel
