#pragma once
// The procedural slide's scene: the hashing and noise that every feature draws from, the layout
// a seed gives (tissue grid, label, glyphs, line kinds), and the features found from the few grid
// cells around a level-0 position. Private to the host layer; ProceduralSlide paints with it.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "quorvel/zoom/geometry.hpp"

namespace quorvel::zoom::scene {

constexpr size_t kMaxSide = size_t{1} << 31;  // longest side of a slide
constexpr int64_t kNoCell = std::numeric_limits<int64_t>::min();
constexpr double kNoRow = std::numeric_limits<double>::quiet_NaN();  // equal to no row
constexpr double kPi = 3.14159265358979323846;

// 32 well-mixed bits for a lattice point and a seed.
inline uint32_t hash(uint32_t x, uint32_t y, uint32_t seed) {
  uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ seed;
  h ^= h >> 15;
  h *= 0x2c1b3c6du;
  h ^= h >> 12;
  h *= 0x297a2d39u;
  h ^= h >> 15;
  return h;
}

// Further independent bits from one hash.
inline uint32_t remix(uint32_t h) {
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

// The top 24 bits of `h` as a fraction in [0, 1).
inline float unit(uint32_t h) { return static_cast<float>(h >> 8) * (1.0f / 16777216.0f); }
// The byte of `h` at bit `at` as a fraction in [0, 1).
inline float byteUnit(uint32_t h, int at) { return static_cast<float>((h >> at) & 255) / 256.0f; }
// `v` clamped to [0, 1].
inline float clamp01(float v) { return std::min(1.0f, std::max(0.0f, v)); }
// Smoothstep of t in [0, 1].
inline float smooth(float t) { return t * t * (3 - 2 * t); }
// The low 32 bits of a cell index, to hash.
inline uint32_t low32(int64_t v) { return static_cast<uint32_t>(v); }

// std::floor is a library call on plain x86-64; this is exact for |v| < 2^63.
inline int64_t floorIndex(double v) {
  auto const i = static_cast<int64_t>(v);
  return i - (v < static_cast<double>(i));
}

// A colour on the 0 .. 255 scale of each channel, before rounding.
struct Rgb {
  float r, g, b;
};

// a + (b - a) t, channel by channel.
inline Rgb lerp(Rgb a, Rgb b, float t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

// How much of a feature of size `cell` survives a box of `w` pixels: all of it at level 0, then
// its variation around the mean shrinks to nothing as the box grows to the feature, and the mean
// stays.
inline float fadeFor(float w, double cell) {
  return clamp01(1.0f - static_cast<float>((w - 1) / cell));
}
// `value` with its variation around `mean` scaled by `fade`.
inline float faded(float value, float mean, float fade) { return mean + (value - mean) * fade; }

// A disk drawn with a linear ramp from full to no coverage over radii [R - h, R + h] covers
// more than a sharp disk of radius R. Returns the R (in units of the sharp disk's radius) that
// keeps the area, for a half ramp h in the same units: pi R^2 + pi h^2 / 3 = pi while the ramp
// stays off the centre, pi (R + h)^3 / (6 h) = pi once the ramp covers the whole disk.
float rampedRadius(float h);

// The mean of min(t^2, 1/4) over t in [a, b], for the vignette over a box.
double meanClampedSquare(double a, double b);

// The value noise's lattice value at (ix, iy), in [0, 1).
inline float latticeValue(int64_t ix, int64_t iy, uint32_t seed) {
  return static_cast<float>(hash(low32(ix), low32(iy), seed) & 0xffff) * (1.0f / 65536.0f);
}

// One axis of a grid of cells [offset + i * size, offset + (i + 1) * size). Remembers the cell
// last found: successive samples mostly stay in it, and two comparisons replace a division.
// The cell of a coordinate is decided by those same edges wherever the search starts, so the
// answer never depends on what was looked up before.
class GridAxis {
 public:
  GridAxis() = default;
  GridAxis(double size, double offset) : size_(size), inv_(1 / size), offset_(offset) {}

  // Moves to the cell of `v`; true when that is another cell than before.
  bool locate(double v) {
    if (v >= lo_ && v < hi_) return false;
    int64_t i = floorIndex((v - offset_) * inv_);
    while (v < edge(i)) --i;
    while (v >= edge(i + 1)) ++i;
    i_ = i, lo_ = edge(i), hi_ = edge(i + 1);
    return true;
  }

  int64_t index() const { return i_; }
  double start() const { return lo_; }
  // Position of `v` inside the current cell, in cells.
  float fraction(double v) const { return static_cast<float>((v - lo_) * inv_); }

 private:
  double edge(int64_t i) const { return offset_ + static_cast<double>(i) * size_; }

  double size_ = 1, inv_ = 1, offset_ = 0;
  int64_t i_ = kNoCell;
  double lo_ = 1, hi_ = 0;  // no cell yet
};

// Smooth value noise in [0, 1), mean 1/2, on a square lattice. Along a row it is
// left + slope * smooth(tx) within a lattice square, with left and slope kept for the last square
// of the last row.
class Noise {
 public:
  Noise() = default;
  Noise(double cell, uint32_t seed) : cell_(cell), seed_(seed), gx_(cell, 0), gy_(cell, 0) {}

  double cell() const { return cell_; }

  float at(double x, double y) {
    bool const newRow = !(y == y_);
    if (newRow) {
      y_ = y;
      gy_.locate(y);
      ty_ = smooth(gy_.fraction(y));
    }
    if (gx_.locate(x) || newRow) {
      int64_t const ix = gx_.index(), iy = gy_.index();
      float const c00 = latticeValue(ix, iy, seed_), c01 = latticeValue(ix, iy + 1, seed_);
      float const c10 = latticeValue(ix + 1, iy, seed_);
      float const c11 = latticeValue(ix + 1, iy + 1, seed_);
      left_ = c00 + (c01 - c00) * ty_;
      slope_ = c10 + (c11 - c10) * ty_ - left_;
    }
    return left_ + slope_ * smooth(gx_.fraction(x));
  }

 private:
  double cell_ = 1;
  uint32_t seed_ = 0;
  GridAxis gx_, gy_;
  double y_ = kNoRow;
  float ty_ = 0, left_ = 0, slope_ = 0;
};

constexpr double kHoleCell = 90;  // fat-like holes in the tissue
constexpr float kHoleThreshold = 0.68f;
constexpr double kHoleFineScale = 0.41;  // the finer octave's cell, in coarse cells
// Steepest slope of the hole field along an axis, per pixel: smoothstep value noise moves by at
// most 1.5 per lattice cell, and the shears (HoleField) add up to 0.37 of the other axis.
constexpr float kHoleSlope =
    static_cast<float>(1.5 * 1.37 * (0.7 / kHoleCell + 0.3 / (kHoleFineScale * kHoleCell)));

// Two octaves of value noise on sheared lattices: a threshold of one alone has outlines that run
// along its lattice lines. Shearing along x keeps each row of samples on one lattice row.
class HoleField {
 public:
  HoleField(double cell, uint32_t seed)
      : coarse_(cell, seed), fine_(cell * kHoleFineScale, ~seed) {}
  float at(double x, double y) {
    return 0.7f * coarse_.at(x + 0.37 * y, y) + 0.3f * fine_.at(x - 0.29 * y, y);
  }

 private:
  Noise coarse_, fine_;
};

// A rectangle [x0, x1) x [y0, y1) in level-0 pixels.
struct Box {
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
};

// Rows of 5 x 7 glyphs in cells of 7 x 10 glyph pixels, each glyph pixel `pitch` level-0 pixels.
struct TextBlock {
  double x0 = 0, y0 = 0, pitch = 1;
  int64_t cols = 0, lines = 0;
  uint32_t seed = 0;
  Rgb ink{0, 0, 0};

  double x1() const { return x0 + static_cast<double>(cols) * 7 * pitch; }
  double y1() const { return y0 + static_cast<double>(lines) * 10 * pitch; }
};

constexpr int kAngles = 64;  // orientations over half a turn

// Tissue pieces: at most one main piece and two small ones per cell of the tissue grid.
constexpr int kBlobsPerCell = 3;
constexpr float kBoundaryAmp = 0.3f;  // noise on a piece's outline, in radii

// Nuclei: a grid of kNucleusCell px with up to kNucleiPerCell nuclei per cell, each centred
// anywhere in it. A nucleus and the sample's box reach at most half a cell beyond the nucleus's
// cell (kNucleusMaxAxis + w / 2 <= kNucleusCell / 2), so only the 2 x 2 cells nearest to a sample
// can touch it; wider boxes see nuclei as their expected coverage.
constexpr double kNucleusCell = 24;
constexpr int kNucleiPerCell = 2;
constexpr float kNucleusMinR = 4, kNucleusMaxR = 8, kNucleusMaxAxis = 8;
// Share of cells holding a nucleus: this plus the range times a smooth cluster noise.
constexpr float kNucleusMinDensity = 0.25f, kNucleusDensityRange = 0.75f;
// Mean nucleus area for radii uniform in [min, max): pi * E[r^2].
constexpr float kNucleusArea =
    static_cast<float>(kPi) *
    (kNucleusMaxR * kNucleusMaxR * kNucleusMaxR - kNucleusMinR * kNucleusMinR * kNucleusMinR) /
    (3 * (kNucleusMaxR - kNucleusMinR));
constexpr double kClusterCell = 110;

constexpr double kFibreCell = 160, kScratchCell = 2048;

constexpr double kTextureCell = 9;

// Straight segments in cells of `size` px: fibres and scratches.
struct LineKind {
  double size;
  uint32_t seed;
  float probability;
  int maxCount;
  float longest;  // longest half length, in cells
  // Segments keep this far from the cell's sides, so a box up to about twice as wide sees them
  // only from their own cell; wider boxes see them as their expected coverage.
  float margin;
};

// Everything a size and a seed decide: the grids, the seeds of each feature, the label and the
// glyphs, and the means that wide boxes take in place of the features.
struct Layout {
  size_t width, height;
  uint32_t seed;
  size_t levels;
  double tissueCell, tissueLeft, labelRight, driftCell;
  uint32_t seedDrift, seedTissue, seedMix, seedHole, seedTexture, seedCluster;
  std::array<uint32_t, kNucleiPerCell> seedNuclei;
  std::array<uint32_t, 2> seedFibre;
  uint32_t seedScratch, seedSensor, seedBar;
  std::array<LineKind, 2> fibres;
  LineKind scratches;
  float fibreMean = 0, scratchMean = 0;  // expected share of a cell that the lines cover
  Box paper, rule, barcode;
  double barModule;
  TextBlock title, subtitle, body;
  std::array<uint64_t, 256> glyphs;
  std::array<float, 256> glyphInk;  // inked share of the glyph's 7 x 10 cell
  float meanGlyphInk;
  float holeMean;           // share of tissue the holes remove, on average
  Rgb tissueMean{0, 0, 0};  // what the tissue adds to the glass, on average over its zone
  std::array<float, kAngles> cosA, sinA;

  // Throws std::invalid_argument unless each side is within 1 .. kMaxSide.
  Layout(size_t w, size_t h, uint32_t s);
};

// One tissue piece: an ellipse whose outline two octaves of noise move.
struct Blob {
  double cx, cy, reach;  // nothing of the piece lies beyond `reach` px of its centre on an axis
  double qa, qb, qc;     // squared normalized distance: qa u^2 + qb u v + qc v^2
  float cosA, sinA, invRx, invRy, radius;
  Rgb stain, counter;
  uint32_t seedA, seedB;
};

constexpr int kMaxBlobs = 4 * kBlobsPerCell;  // the pieces of 2 x 2 cells

// The pieces of one cell stay within the cell widened by half a cell on each side, less C / 8,
// so a sample whose box is up to C / 4 wide needs only the 2 x 2 cells nearest to it. Writes the
// pieces of cell (i, j) to `out` (room for kBlobsPerCell) and returns their count.
int fillTissueCell(Layout const& s, int64_t i, int64_t j, Blob* out);

// One nucleus: an ellipse, with the coverage ramp of the sample's box folded in.
struct Nucleus {
  bool present = false;
  float cx, cy;  // centre in its cell
  float bx, by;  // centre from the corner of the block holding it
  float reach, cosA, sinA, invA, invB, r, darkness;
  float inside2, outside2;  // squared normalized distances of full and of no coverage
};

// The nuclei of nucleus cell (i, j).
struct NucleusCell {
  int64_t i = kNoCell, j = kNoCell;
  std::array<Nucleus, kNucleiPerCell> nuclei;
};

// Fills `cell` with the nuclei of cell (i, j) for boxes of half width `halfW`, each present with
// probability `density`.
void fillNucleusCell(Layout const& s, float halfW, int64_t i, int64_t j, float density,
                     NucleusCell& cell);

// One straight stroke of a fibre or a scratch, in its cell's coordinates.
struct Segment {
  float ax, ay, dx, dy, invLen2, halfWidth;
  float x0, y0, x1, y1;  // where the segment can cover anything, with the sample's box
};

// The segments of one cell of a line grid, and the grid's cell last looked up.
struct LineCell {
  GridAxis gx, gy;
  int count = 0;
  std::array<Segment, 2> segments;
};

// Straight segments inside cell (i, j) of `kind`, in the cell's coordinates, for boxes of half
// width `halfW`: sets cell.count and cell.segments.
void fillLineCell(Layout const& s, LineKind const& kind, int64_t i, int64_t j, float halfW,
                  LineCell& cell);

// Expected share of a cell covered by its lines, from a fixed sample of cells.
float meanLineCover(Layout const& s, LineKind const& kind);

// The square of w = 2^level level-0 pixels on a side that one sample of a level stands for.
struct SampleBox {
  explicit SampleBox(size_t level)
      : w(std::ldexp(1.0f, static_cast<int>(level))), half(w / 2), inv(1 / w) {}

  float w, half, inv;

  // Share of the box centred on `v` inside [a, b) along one axis.
  float span(double v, double a, double b) const {
    double const overlap = std::min(v + half, b) - std::max(v - half, a);
    return overlap > 0 ? std::min(1.0f, static_cast<float>(overlap) * inv) : 0.0f;
  }
};

// Paints the label (paper, text, rule, bar code) in the box centred on (x, y) over `c`, where
// `base` is the glass beneath it.
void paintLabel(Layout const& s, SampleBox const& box, Rgb& c, Rgb base, double x, double y);

}  // namespace quorvel::zoom::scene
