#pragma once
// Display parameters: what a viewer applies to the reconstructed pixels, given with every
// render call. The command-line tool and the server read them with the same names, ranges
// and meaning.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quorvel::zoom {

/// A refused display parameter, with a one-line reason naming it.
class DisplayError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// One mask rectangle in level-0 image coordinates, bounds inclusive.
struct MaskRect {
  uint32_t xmin, xmax, ymin, ymax;
};

/// Filters applied after reconstruction, in this order: CLAHE on the luma, the colour
/// transform (through the 16-bit sRGB table in linear gamma mode), black/white/gamma on 8-bit
/// sRGB, the colour matrix, sharpening, the mask. Every one of them gives the same pixels
/// however the image is cut into tiles.
struct Display {
  enum class GammaMode { kSrgb, kLinear };

  /// Black/white/gamma: "FilterBlackWhiteGamma8" on sRGB pixels (levels on the 12-bit
  /// linear scale, 0 .. 4095) or "FilterLinear16TosRGB8" (levels on the 8-bit input scale,
  /// 0 .. 255).
  bool gamma = false;
  GammaMode gammaMode = GammaMode::kSrgb;
  double gammaValue = 1.0;
  size_t black = 0;
  size_t white = 4095;
  /// Unsharp-mask gain, -4 .. 4.
  std::optional<double> sharpen;
  /// CLAHE clip limit on the luma, 1 .. 100, on 40-pixel cells of the level shown.
  std::optional<double> clahe;
  /// Matrix coefficients as real numbers (1 = identity), m[3i + j] from input channel i to
  /// output channel j, each in [-1000, 1000], and the global scale.
  std::optional<std::array<double, 9>> matrix;
  double matrixScale = 1.0;
  /// Mask rectangles; pixels outside all of them become opaque black.
  std::optional<std::vector<MaskRect>> mask;

  /// True when any filter changes the reconstructed pixels.
  bool any() const { return gamma || sharpen || clahe || matrix || mask.has_value(); }
  /// The largest black or white level of the gamma mode.
  size_t maxLevel() const { return gammaMode == GammaMode::kLinear ? 255 : 4095; }
  /// Black/white/gamma as a caller names them: on when any of the three is given, the
  /// others at their neutral values (white at maxLevel() of the mode already chosen).
  void setLevels(std::optional<double> gammaValue, std::optional<size_t> blackLevel,
                 std::optional<size_t> whiteLevel);
  /// Throws DisplayError unless every parameter lies in its range.
  void validate() const;
  /// A canonical text of every parameter that changes pixels (for cache keys and ETags).
  std::string key() const;
  /// The part of key() that names the mask rectangles alone.
  std::string maskKey() const;
};

/// Parses "m0,...,m8" or "m0,...,m8:scale" into `display` (DisplayError when malformed).
void parseMatrix(std::string const& text, Display& display);

/// The Q10 coefficients of Display::matrix, as "Filter3x3Matrix8" takes them.
std::array<int32_t, 9> matrixQ10(std::array<double, 9> const& m);

}  // namespace quorvel::zoom
