#pragma once
// Unsharp-mask sharpening for display, in exact fixed-point integer arithmetic.
//
// 8-bit RGBA images are sharpened in one pass with a 5 x 5 blur (weights 44 / 15 / 5 / 1,
// sum 128). 16-bit three-channel images take two passes of the separable 1-13-36-13-1 blur:
// a horizontal pass that stores the blur sum (scale 64) and a vertical pass that finishes
// the blur (scale 4096) and mixes it with the unfiltered image. The two blurs are different
// kernels on purpose; both give c + s/32 * (c - blur), rounded half up.
//
// Geometry: the input rectangle starts at the top-left corner of the window of the first
// output pixel, so output pixel (i, j) is centred on input pixel (x + 2 + i, y + 2 + j) for
// the 8-bit filter, (x + 2 + i, y + j) for the horizontal pass and (x + i, y + 2 + j) for the
// vertical pass. The output rectangle is clipped to the target, the input origin moves with
// what the output lost on the left and top, and the output shrinks further until every
// window lies inside its source buffer. Only the origin of an input rectangle is used (an
// empty one stands for the origin 0, 0).

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// "FilterSharpness8": one-pass 5 x 5 unsharp mask of Channels x Channel pixels, every
/// channel (alpha included) on its own. Only <uint8_t, 4> is instantiated.
template <class Channel, size_t Channels>
class QUORVEL_API SoftwareFilterSharpness : public SoftwareFilter {
  static_assert(sizeof(Channel) == 1, "the one-pass sharpness filter works on 8-bit channels");

 public:
  explicit SoftwareFilterSharpness(Filter const& description) : SoftwareFilter(description) {}

  /// Sharpens inputRects[0] of inputs[0] into outputRects[0] of outputs[0] with the gain of
  /// FilterSharpness8Params and the level of the base parameters. Stateless, thread-safe.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

/// "FilterSharpnessH16": horizontal 1-13-36-13-1 blur sum of Channels x int16 pixels, each
/// sample clamped to [0, 1023] first, stored as Channels x uint16. Reads no parameters.
template <size_t Channels>
class QUORVEL_API SoftwareFilterSharpnessH16 : public SoftwareFilter {
 public:
  explicit SoftwareFilterSharpnessH16(Filter const& description) : SoftwareFilter(description) {}

  /// Blurs inputRects[0] of inputs[0] into outputRects[0] of outputs[0]. Thread-safe.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

/// "FilterSharpnessV16": vertical pass of the 16-bit pair. Source 0 is the unfiltered
/// Channels x int16 image, source 1 the Channels x uint16 output of the horizontal pass;
/// the output is Channels x int16.
template <size_t Channels>
class QUORVEL_API SoftwareFilterSharpnessV16 : public SoftwareFilter {
 public:
  explicit SoftwareFilterSharpnessV16(Filter const& description) : SoftwareFilter(description) {}

  /// Sharpens with the gain of FilterSharpness16Params and the level of the base parameters.
  /// Each source is read from the origin of its own input rectangle (inputRects[1] falls
  /// back to inputRects[0] when the job holds only one). Thread-safe.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareFilterSharpness<uint8_t, 4>;
extern template class SoftwareFilterSharpnessH16<3>;
extern template class SoftwareFilterSharpnessV16<3>;

}  // namespace quorvel
