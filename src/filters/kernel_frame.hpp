#pragma once
// Shared plumbing of the kernels: typed access to the job's buffers and the clipped
// pixel-to-pixel mapping between a source and the target. Kernels write only their loops.

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <typeinfo>
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
  // The usual case without cast()'s shared_ptr copy (two atomic updates per buffer and call,
  // which showed on small images); cast() still decides, and words, any mismatch.
  Buffer2DVector<P>* typedBuffer = nullptr;
  if (list[i]->pixelType() == typeid(P)) {
    typedBuffer = static_cast<Buffer2DVector<P>*>(list[i].get());
  } else {
    typedBuffer = Buffer2DVector<P>::cast(list[i]).get();
  }
  auto& buffer = *typedBuffer;
  // Not width * height != 0: that product can wrap to 0 for a huge, storage-less buffer.
  if (buffer.data() == nullptr && buffer.width() != 0 && buffer.height() != 0) {
    throw QuorvelException(kNoData, kApplyLocation);
  }
  return buffer;
}

/// Rectangle i of `list`, or an empty rectangle when the job holds none (not a copy).
inline std::vector<int> const& rectAt(std::vector<std::vector<int>> const& list, size_t i) {
  static std::vector<int> const kNone;
  return i < list.size() ? list[i] : kNone;
}

/// Whether a kernel writing `bytes` of target streams them (non-temporal stores): from 8 MiB,
/// a quarter of a typical shared last-level cache. Smaller outputs stay cached for the next
/// filter of the chain, which reads them back at once.
inline constexpr bool streamTarget(size_t bytes) { return bytes >= (size_t{8} << 20); }

/// A rectangle as x, y, width, height, without a heap allocation.
using Rect4 = std::array<int, 4>;

/// The first four fields of a caller's rectangle, missing ones as 0.
Rect4 rect4(std::vector<int> const& r);

/// SoftwareFilter::intersect on fixed-size rectangles.
bool intersectRects(Rect4 const& a, Rect4 const& b, Rect4& result);

/// SoftwareFilter::getValidRects on fixed-size rectangles (the same arithmetic and
/// failure): `inputGiven` false means the job named no input rectangle, so the input
/// buffer's rectangle is used; `out` becomes the clipped output rectangle.
void validRects(Rect4& in, Rect4 const& inputBuffer, Rect4& out, Rect4 const& outputBuffer,
                bool inputGiven);

/// One source rectangle mapped onto one target rectangle, one pixel to one pixel. Every
/// pixel (inX + i, inY + j) and (outX + i, outY + j) for i < width, j < height lies inside
/// its buffer.
struct Span {
  int64_t inX = 0, inY = 0, outX = 0, outY = 0, width = 0, height = 0;
  bool empty() const { return width <= 0 || height <= 0; }
};

/// Shrinks a rectangle pair so that both stay inside their buffers; used after the
/// rectangles were validated (or on rectangles used as given).
inline Span fitSpan(Rect4 const& in, Buffer2D const& source, Rect4 const& out,
                    Buffer2D const& target) {
  Span s{in[0],
         in[1],
         out[0],
         out[1],
         std::min<int64_t>(in[2], out[2]),
         std::min<int64_t>(in[3], out[3])};
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

/// fitSpan on a caller's rectangles, missing fields as 0.
inline Span fitSpan(std::vector<int> const& in, Buffer2D const& source, std::vector<int> const& out,
                    Buffer2D const& target) {
  return fitSpan(rect4(in), source, rect4(out), target);
}

/// The whole rectangle of a buffer.
inline Rect4 bufferRect(Buffer2D const& b) {
  return {0, 0, static_cast<int>(b.width()), static_cast<int>(b.height())};
}

/// The validated span of a single-source kernel: getValidRects on the job's rectangles,
/// then fitted to both buffers.
inline Span validSpan(std::vector<int> const& inRect, Buffer2D const& source,
                      std::vector<int> const& outRect, Buffer2D const& target) {
  Rect4 in = rect4(inRect), out = rect4(outRect);
  validRects(in, bufferRect(source), out, bufferRect(target), !inRect.empty());
  return fitSpan(in, source, out, target);
}

}  // namespace quorvel::kernel
