#pragma once
// One level of the inverse reversible LeGall 5/3 wavelet, one direction per filter.
//
// Source 0 is the low band L, source 1 the high band H; the high band carries one leading
// detail coefficient, so low-band element k pairs with high-band element k + 1:
//   e(k) = L(k) - ((H(k) + H(k+1) + 2) >> 2)      reconstructed sample 2k
//   o(k) = H(k+1) + ((e(k) + e(k+1)) >> 1)        reconstructed sample 2k + 1
// Sample c lands at output.x + c (horizontal) or output.y + c (vertical); the output origin
// may be negative. Both bands are read through the first input rectangle; each band's origin
// uses its own width, the step between band rows uses the width of source 0.
//
// Sums are formed in 16-bit wrap-around arithmetic on every path (scalar and vector), so
// both give identical results for every input; for coefficients whose sums fit in 16 bits
// (the working range) these are the exact lifting values. Nothing saturates.
//
// Inconsistent rectangles never reach outside a buffer: the pass bounds are shrunk so that
// every band element read (neighbours included) and every target element written lies in
// its buffer. Consistent calls run the documented passes unchanged.

#include <cstdint>
#include <memory>
#include <vector>

#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/export.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"

namespace quorvel {

/// "FilterFirIV53LeGall16": merges a low and a high band of rows into twice as many rows.
/// Only <int16_t, int16_t> is instantiated.
template <class In, class Out>
class QUORVEL_API SoftwareFilterFirIV53LeGall16 : public SoftwareFilter {
 public:
  explicit SoftwareFilterFirIV53LeGall16(Filter const& description) : SoftwareFilter(description) {}

  /// Reconstructs target rows output.y + c from inputs[0] (L) and inputs[1] (H) inside
  /// inputRects[0]; fails with "buffer data does not exist" for a missing buffer.
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

/// "FilterFirIH53LeGall16": merges a low and a high band of columns into twice as many
/// columns. Only <int16_t, int16_t> is instantiated.
template <class In, class Out>
class QUORVEL_API SoftwareFilterFirIH53LeGall16 : public SoftwareFilter {
 public:
  explicit SoftwareFilterFirIH53LeGall16(Filter const& description) : SoftwareFilter(description) {}

  /// Reconstructs target columns output.x + c of input.height rows from inputs[0] (L) and
  /// inputs[1] (H) inside inputRects[0]; fails with "buffer data does not exist".
  void apply(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
             std::vector<std::vector<int>> const& inputRects,
             std::vector<std::shared_ptr<Buffer2D>> const& outputs,
             std::vector<std::vector<int>> const& outputRects,
             SingleFilterParameters const& params) override;
};

extern template class SoftwareFilterFirIV53LeGall16<int16_t, int16_t>;
extern template class SoftwareFilterFirIH53LeGall16<int16_t, int16_t>;

namespace reference {

/// The even lifting step in 16-bit wrap-around arithmetic: l - ((h0 + h1 + 2) >> 2).
inline int16_t waveletEven(int16_t l, int16_t h0, int16_t h1) {
  auto const sum = static_cast<int16_t>(h0 + h1 + 2);
  return static_cast<int16_t>(l - (sum >> 2));
}

/// The odd lifting step in 16-bit wrap-around arithmetic: h1 + ((e0 + e1) >> 1).
inline int16_t waveletOdd(int16_t h1, int16_t e0, int16_t e1) {
  auto const sum = static_cast<int16_t>(e0 + e1);
  return static_cast<int16_t>(h1 + (sum >> 1));
}

/// The vertical filter's kernel run entirely in scalar code: same arguments, rectangle
/// handling and results as SoftwareFilterFirIV53LeGall16::apply (benchmark baseline).
QUORVEL_API void firIV53LeGall16(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                 std::vector<std::vector<int>> const& inputRects,
                                 std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                 std::vector<std::vector<int>> const& outputRects);

/// The horizontal filter's kernel run entirely in scalar code: same arguments, rectangle
/// handling and results as SoftwareFilterFirIH53LeGall16::apply (benchmark baseline).
QUORVEL_API void firIH53LeGall16(std::vector<std::shared_ptr<Buffer2D>> const& inputs,
                                 std::vector<std::vector<int>> const& inputRects,
                                 std::vector<std::shared_ptr<Buffer2D>> const& outputs,
                                 std::vector<std::vector<int>> const& outputRects);

}  // namespace reference
}  // namespace quorvel
