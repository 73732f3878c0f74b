#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "quorvel/zoom/image_source.hpp"

// The slide is a function of a level-0 position: every feature is found from the few grid cells
// around that position, so a sample costs the same on a 64 x 64 slide and on a 2^31 x 2^31 one.
//
// A pixel of level k stands for a box of w = 2^k level-0 pixels on a side, and is one sample at
// the box's centre of the scene filtered by that box: lines and disks give the share of the box
// they cover, glyphs and bars are summed over it, textures fade to their mean as the box grows
// past their scale, and nuclei, fibres and glyphs smaller than the box become their expected
// ink. A reduced level thus equals on average the reduction of level 0, with no aliasing of the
// thin features, at the cost of one sample per pixel at every level.
//
// Reads must give the same bytes for a pixel whatever rectangle or thread asked for it. The
// painter below keeps caches (the grid cell last seen, the row last seen), but each cached value
// is a pure function of its key and is always computed the same way, so caching never changes
// a result.

namespace quorvel::zoom {
namespace {

constexpr size_t kMaxSide = size_t{1} << 31;
constexpr int64_t kNoCell = std::numeric_limits<int64_t>::min();
constexpr double kNoRow = std::numeric_limits<double>::quiet_NaN();  // equal to no row
constexpr double kPi = 3.14159265358979323846;

uint32_t hash(uint32_t x, uint32_t y, uint32_t seed) {
  uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ seed;
  h ^= h >> 15;
  h *= 0x2c1b3c6du;
  h ^= h >> 12;
  h *= 0x297a2d39u;
  h ^= h >> 15;
  return h;
}

// Further independent bits from one hash.
uint32_t remix(uint32_t h) {
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

float unit(uint32_t h) { return static_cast<float>(h >> 8) * (1.0f / 16777216.0f); }
float byteUnit(uint32_t h, int at) { return static_cast<float>((h >> at) & 255) / 256.0f; }
float clamp01(float v) { return std::min(1.0f, std::max(0.0f, v)); }
float smooth(float t) { return t * t * (3 - 2 * t); }
uint32_t low32(int64_t v) { return static_cast<uint32_t>(v); }

// std::floor is a library call on plain x86-64; this is exact for |v| < 2^63.
int64_t floorIndex(double v) {
  auto const i = static_cast<int64_t>(v);
  return i - (v < static_cast<double>(i));
}

struct Rgb {
  float r, g, b;
};

Rgb lerp(Rgb a, Rgb b, float t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

// How much of a feature of size `cell` survives a box of `w` pixels: all of it at level 0, then
// its variation around the mean shrinks to nothing as the box grows to the feature, and the mean
// stays.
float fadeFor(float w, double cell) { return clamp01(1.0f - static_cast<float>((w - 1) / cell)); }
float faded(float value, float mean, float fade) { return mean + (value - mean) * fade; }

// A disk drawn with a linear ramp from full to no coverage over radii [R - h, R + h] covers
// more than a sharp disk of radius R. Returns the R (in units of the sharp disk's radius) that
// keeps the area, for a half ramp h in the same units: pi R^2 + pi h^2 / 3 = pi while the ramp
// stays off the centre, pi (R + h)^3 / (6 h) = pi once the ramp covers the whole disk.
float rampedRadius(float h) {
  if (h <= 0.8660254f) return std::sqrt(1 - h * h / 3);
  return std::cbrt(6 * h) - h;
}

// The mean of min(t^2, 1/4) over t in [a, b], for the vignette over a box.
double meanClampedSquare(double a, double b) {
  auto integral = [](double t) {  // of min(t^2, 1/4) from 0 to t, odd in t
    double const m = std::min(std::abs(t), 0.5);
    double const value = m * m * m / 3 + 0.25 * (std::abs(t) - m);
    return t < 0 ? -value : value;
  };
  return b > a ? (integral(b) - integral(a)) / (b - a) : std::min(a * a, 0.25);
}

float latticeValue(int64_t ix, int64_t iy, uint32_t seed) {
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

  Layout(size_t w, size_t h, uint32_t s);
};

int bitCount(uint64_t v) {
  int n = 0;
  for (; v != 0; v &= v - 1) ++n;
  return n;
}

uint64_t makeGlyph(uint32_t index, uint32_t seed) {
  uint32_t const bits = hash(index, 3, seed);
  uint64_t g = 0;
  auto set = [&](int gx, int gy) { g |= uint64_t{1} << ((gy - 1) * 5 + (gx - 1)); };
  for (int gy = 1; gy <= 7; ++gy) {
    for (int gx = 1; gx <= 5; ++gx) {
      bool const stem = (gx == 1 && (bits & 1)) || (gx == 5 && (bits & 2)) ||
                        (gx == 3 && (bits & 0x200) && gy > 3);
      bool const bar =
          (gy == 1 && (bits & 4)) || (gy == 4 && (bits & 8)) || (gy == 7 && (bits & 16));
      bool const dot = gx == 3 && gy == 2 + static_cast<int>((bits >> 5) % 4);
      bool const diagonal = (bits & 0x400) && gx == 1 + (gy - 1) * 4 / 6;
      if (stem || bar || dot || diagonal) set(gx, gy);
    }
  }
  if (bitCount(g) < 6) {
    for (int gy = 1; gy <= 7; ++gy) set(1, gy);
  }
  return g;
}

Layout::Layout(size_t w, size_t h, uint32_t s) : width(w), height(h), seed(s) {
  if (w == 0 || h == 0 || w > kMaxSide || h > kMaxSide) {
    throw std::invalid_argument("ProceduralSlide: size " + std::to_string(w) + " x " +
                                std::to_string(h) + " is not within 1 .. 2^31 on each side");
  }
  levels = levelCount(w, h);
  auto const W = static_cast<double>(w), H = static_cast<double>(h);
  double const maxSide = std::max(W, H);
  tissueCell = std::clamp(maxSide / 8, 256.0, 8192.0);
  driftCell = std::max(256.0, maxSide / 5);
  labelRight = W * 0.2;
  tissueLeft = labelRight + std::max(16.0, W * 0.02);

  uint32_t k = remix(s * 0x9e3779b9u + 0x632be5abu);
  auto next = [&] { return k = remix(k + 0x9e3779b9u); };
  seedDrift = next(), seedTissue = next(), seedMix = next(), seedHole = next();
  seedTexture = next(), seedCluster = next();
  for (uint32_t& n : seedNuclei) n = next();
  seedFibre = {next(), next()};
  seedScratch = next(), seedSensor = next(), seedBar = next();
  fibres[0] = {kFibreCell, seedFibre[0], 0.55f, 2, 0.45f, 10};
  fibres[1] = {kFibreCell, seedFibre[1], 0.55f, 2, 0.45f, 10};
  scratches = {kScratchCell, seedScratch, 0.15f, 1, 0.5f, 64};

  // The label: paper on the left end with a large title, a rule, a subtitle, small body text
  // and a bar code, so that text shows at every zoom. Whole-pixel edges keep level 0 crisp.
  paper = {std::floor(labelRight * 0.06), std::floor(H * 0.03), std::floor(labelRight * 0.94),
           std::floor(H * 0.97)};
  double const pw = paper.x1 - paper.x0, ph = paper.y1 - paper.y0;
  double const ix0 = paper.x0 + std::floor(pw * 0.07), iw = std::floor(pw * 0.86);
  // Text stays on the paper, however small the slide.
  auto block = [&](double y0, double pitch, double maxLines, Rgb ink) {
    TextBlock b;
    b.x0 = ix0, b.y0 = std::floor(y0), b.pitch = pitch;
    b.cols = static_cast<int64_t>(std::max(0.0, std::floor(iw / (7 * pitch))));
    double const room = std::floor((paper.y1 - b.y0) / (10 * pitch));
    b.lines = static_cast<int64_t>(std::max(0.0, std::min(maxLines, room)));
    b.seed = next();
    b.ink = ink;
    return b;
  };
  double const titlePitch = std::max(1.0, std::floor(iw / (7 * 12)));
  title = block(paper.y0 + ph * 0.04, titlePitch, 2, {35, 40, 90});
  double const ruleTop = std::floor(title.y1() + titlePitch * 1.5);
  rule = {ix0, ruleTop, ix0 + iw,
          std::min(paper.y1, ruleTop + std::max(1.0, std::floor(titlePitch * 0.3)))};
  double const subPitch = std::max(1.0, std::floor(titlePitch / 4));
  subtitle = block(rule.y1 + titlePitch * 1.5, subPitch, 3, {30, 30, 40});
  barcode = {ix0, std::floor(paper.y1 - ph * 0.14), ix0 + iw, std::floor(paper.y1 - ph * 0.04)};
  barModule = std::max(1.0, std::floor(iw / 140));
  double const bodyTop = subtitle.y1() + subPitch * 4;
  body = block(bodyTop, 3, std::floor((barcode.y0 - ph * 0.03 - bodyTop) / 30), {30, 30, 40});

  double inkSum = 0;
  for (uint32_t i = 0; i < glyphs.size(); ++i) {
    glyphs[i] = makeGlyph(i, s);
    glyphInk[i] = static_cast<float>(bitCount(glyphs[i])) / 70.0f;
    inkSum += glyphInk[i];
  }
  meanGlyphInk = static_cast<float>(inkSum / glyphs.size());

  // The holes are a threshold of noise, whose share has no closed form: estimate it once, the
  // same way for every slide.
  int holes = 0, samples = 0;
  HoleField field(1, 0x5eed);
  for (int yy = 0; yy < 128; ++yy) {
    for (int xx = 0; xx < 128; ++xx, ++samples) {
      holes += field.at(xx * 2.73 + 0.1, yy * 2.81 + 0.2) > kHoleThreshold;
    }
  }
  holeMean = static_cast<float>(holes) / static_cast<float>(samples);

  for (int i = 0; i < kAngles; ++i) {
    double const a = kPi * i / kAngles;
    cosA[i] = static_cast<float>(std::cos(a)), sinA[i] = static_cast<float>(std::sin(a));
  }
}

struct Blob {
  double cx, cy, reach;  // nothing of the piece lies beyond `reach` px of its centre on an axis
  double qa, qb, qc;     // squared normalized distance: qa u^2 + qb u v + qc v^2
  float cosA, sinA, invRx, invRy, radius;
  Rgb stain, counter;
  uint32_t seedA, seedB;
};

constexpr int kMaxBlobs = 4 * kBlobsPerCell;

// Where a piece meets the current row: 0 outside [out0, out1], 1 inside [in0, in1].
struct BlobRow {
  double out0, out1, in0, in1;
};

// A run [x0, x1) of a row: the sums over the pieces that cover it whole, and the pieces whose
// edge crosses it.
struct BlobRun {
  double x0, x1;
  float whole, weight;
  Rgb stain, counter;
  int edgeCount;
  std::array<uint8_t, kMaxBlobs> edges;
};

// The pieces of the 2 x 2 tissue cells nearest to a block of samples, and the runs of the row
// last seen.
struct TissueBlock {
  int64_t ci = kNoCell, cj = kNoCell;
  int blobCount = 0;
  std::array<Blob, kMaxBlobs> blobs;
  std::array<std::array<Noise, 2>, kMaxBlobs> outline;
  std::array<float, kMaxBlobs> outlineAt;  // the outline's normalized distance at this level
  double rowY = kNoRow;
  std::array<BlobRun, 4 * kMaxBlobs + 1> runs;
  int runCount = 0, runAt = 0;
};

// The pieces of one cell stay within the cell widened by half a cell on each side, less C / 8,
// so a sample whose box is up to C / 4 wide needs only the 2 x 2 cells nearest to it.
int fillTissueCell(Layout const& s, int64_t i, int64_t j, Blob* out) {
  int count = 0;
  double const C = s.tissueCell;
  // Tissue stays on the slide: right of the label and inside the image.
  double const zx0 = std::max((static_cast<double>(i) - 0.5) * C, s.tissueLeft);
  double const zx1 = std::min((static_cast<double>(i) + 1.5) * C, static_cast<double>(s.width));
  double const zy0 = std::max((static_cast<double>(j) - 0.5) * C, 0.0);
  double const zy1 = std::min((static_cast<double>(j) + 1.5) * C, static_cast<double>(s.height));
  uint32_t h = hash(low32(i), low32(j), s.seedTissue);
  if (unit(h) > 0.62f) return 0;
  auto rnd = [&] { return unit(h = remix(h)); };
  bool const pinkPiece = rnd() < 0.6f;
  Rgb const pink{228 + 10 * rnd(), 118 + 30 * rnd(), 172 + 20 * rnd()};
  Rgb const purple{150 + 25 * rnd(), 92 + 25 * rnd(), 188 + 20 * rnd()};
  auto add = [&](double cx, double cy, double rx, double ry) {
    // The margin lets boxes up to C / 4 wide find the piece from the 2 x 2 nearest cells.
    double const room = std::min({cx - zx0, zx1 - cx, cy - zy0, zy1 - cy}) - C / 8;
    double const extent = std::max(rx, ry) * (1 + kBoundaryAmp);
    if (extent > room) {
      double const scale = room / extent;
      rx *= scale, ry *= scale;
    }
    int const a = static_cast<int>(rnd() * kAngles) & (kAngles - 1);
    uint32_t const seedA = h = remix(h), seedB = h = remix(h);
    if (std::min(rx, ry) < 12) return;
    Blob& b = out[count++];
    b.cx = cx, b.cy = cy, b.reach = std::max(rx, ry) * (1 + kBoundaryAmp);
    b.cosA = s.cosA[a], b.sinA = s.sinA[a];
    b.invRx = static_cast<float>(1 / rx), b.invRy = static_cast<float>(1 / ry);
    double const c = b.cosA, sn = b.sinA, ix2 = 1 / (rx * rx), iy2 = 1 / (ry * ry);
    b.qa = c * c * ix2 + sn * sn * iy2;
    b.qb = 2 * c * sn * (ix2 - iy2);
    b.qc = sn * sn * ix2 + c * c * iy2;
    b.radius = static_cast<float>(std::min(rx, ry));
    b.stain = pinkPiece ? pink : purple;
    b.counter = pinkPiece ? purple : pink;
    b.seedA = seedA, b.seedB = seedB;
  };
  double const cx = (static_cast<double>(i) + 0.25 + 0.5 * rnd()) * C;
  double const cy = (static_cast<double>(j) + 0.25 + 0.5 * rnd()) * C;
  double const r = (0.22 + 0.33 * rnd()) * C, aspect = 0.55 + 0.45 * rnd();
  add(cx, cy, r, r * aspect);
  int const small = static_cast<int>(rnd() * 3);
  for (int n = 0; n < small; ++n) {
    int const turn = static_cast<int>(rnd() * 2 * kAngles) & (2 * kAngles - 1);
    double const sign = turn < kAngles ? 1 : -1, dist = r * (0.75 + 0.4 * rnd());
    double const sr = (0.06 + 0.12 * rnd()) * C, sAspect = 0.6 + 0.4 * rnd();
    add(cx + sign * dist * s.cosA[turn & (kAngles - 1)],
        cy + sign * dist * s.sinA[turn & (kAngles - 1)], sr, sr * sAspect);
  }
  return count;
}

struct Nucleus {
  bool present = false;
  float cx, cy;  // centre in its cell
  float bx, by;  // centre from the corner of the block holding it
  float reach, cosA, sinA, invA, invB, r, darkness;
  float inside2, outside2;  // squared normalized distances of full and of no coverage
};

struct NucleusCell {
  int64_t i = kNoCell, j = kNoCell;
  std::array<Nucleus, kNucleiPerCell> nuclei;
};
constexpr size_t kNucleusCacheColumns = 64, kNucleusCacheSize = 4 * kNucleusCacheColumns;

// The nuclei of the 2 x 2 cells nearest to the samples of a block: blocks are the cells of the
// grid offset by half a cell.
struct NucleusBlock {
  GridAxis gx, gy;
  // Cells (i, j), (i + 1, j), (i, j + 1), (i + 1, j + 1), kNucleiPerCell nuclei each.
  std::array<Nucleus, 4 * kNucleiPerCell> nuclei;
  double rowY = kNoRow;
  int activeCount = 0;  // the nuclei that reach the current row
  std::array<uint8_t, 4 * kNucleiPerCell> active;
};

struct Segment {
  float ax, ay, dx, dy, invLen2, halfWidth;
  float x0, y0, x1, y1;  // where the segment can cover anything, with the sample's box
};

struct LineCell {
  GridAxis gx, gy;
  int count = 0;
  std::array<Segment, 2> segments;
};

// Straight segments inside the cell, in the cell's coordinates.
void fillLineCell(Layout const& s, LineKind const& kind, int64_t i, int64_t j, float halfW,
                  LineCell& cell) {
  cell.count = 0;
  uint32_t h = hash(low32(i), low32(j), kind.seed);
  if (unit(h) >= kind.probability) return;
  auto rnd = [&] { return unit(h = remix(h)); };
  int const count = 1 + static_cast<int>(rnd() * static_cast<float>(kind.maxCount)) % kind.maxCount;
  float const lo = kind.margin, hi = static_cast<float>(kind.size) - kind.margin;
  for (int n = 0; n < count; ++n) {
    float const mx = lo + (hi - lo) * (0.15f + 0.7f * rnd());
    float const my = lo + (hi - lo) * (0.15f + 0.7f * rnd());
    int const a = static_cast<int>(rnd() * kAngles) & (kAngles - 1);
    float const ux = s.cosA[a], uy = s.sinA[a];
    float half = static_cast<float>(kind.size) * kind.longest * (0.4f + 0.6f * rnd());
    if (std::abs(ux) > 1e-6f) half = std::min(half, std::min(mx - lo, hi - mx) / std::abs(ux));
    if (std::abs(uy) > 1e-6f) half = std::min(half, std::min(my - lo, hi - my) / std::abs(uy));
    half = std::max(half, 1.0f);
    float const widths[4] = {1.0f, 1.5f, 2.0f, 3.0f};
    Segment& g = cell.segments[cell.count++];
    g.ax = mx - ux * half, g.ay = my - uy * half;
    g.dx = 2 * ux * half, g.dy = 2 * uy * half;
    g.invLen2 = 1.0f / (g.dx * g.dx + g.dy * g.dy);
    g.halfWidth = widths[static_cast<int>(rnd() * 4) & 3] * 0.5f;
    float const reach = g.halfWidth + halfW + 0.01f;
    g.x0 = std::min(g.ax, g.ax + g.dx) - reach, g.x1 = std::max(g.ax, g.ax + g.dx) + reach;
    g.y0 = std::min(g.ay, g.ay + g.dy) - reach, g.y1 = std::max(g.ay, g.ay + g.dy) + reach;
  }
}

// Expected share of a cell covered by its lines, from a fixed sample of cells.
float meanLineCover(Layout const& s, LineKind const& kind) {
  double area = 0;
  int const cells = 4096;
  LineCell cell;
  for (int n = 0; n < cells; ++n) {
    fillLineCell(s, kind, n, 0x2545, 0, cell);
    for (int k = 0; k < cell.count; ++k) {
      Segment const& g = cell.segments[k];
      double const length = std::sqrt(double{g.dx} * g.dx + double{g.dy} * g.dy);
      area += 2 * g.halfWidth * length + kPi * g.halfWidth * g.halfWidth;
    }
  }
  return static_cast<float>(area / cells / (kind.size * kind.size));
}

// Renders the samples of one level. One painter serves one read on one thread.
class Painter {
 public:
  Painter(Layout const& scene, size_t level)
      : s_(scene),
        drift_(scene.driftCell, scene.seedDrift),
        mix_(scene.tissueCell / 10, scene.seedMix),
        texture_(kTextureCell, scene.seedTexture),
        holeCentre_(kHoleCell, scene.seedHole),
        hole_(kHoleCell, scene.seedHole),
        holeLower_(kHoleCell, scene.seedHole),
        // One per parity of the cell row, so that each keeps its row.
        cluster_{Noise(kClusterCell, scene.seedCluster), Noise(kClusterCell, scene.seedCluster)},
        clusterHere_(kClusterCell, scene.seedCluster) {
    w_ = std::ldexp(1.0f, static_cast<int>(level));
    halfW_ = w_ / 2, invW_ = 1 / w_;
    ramp_ = std::max(1.5f, w_);
    individualNuclei_ = kNucleusMaxAxis + halfW_ <= kNucleusCell / 2;
    fadeDrift_ = fadeFor(w_, scene.driftCell);
    fadeMix_ = fadeFor(w_, scene.tissueCell / 10);
    // The holes' 2 x 2 taps resolve them until the box nears their size (holes()).
    fadeHole_ = fadeFor(w_, kHoleCell);
    fadeTexture_ = fadeFor(w_, kTextureCell);
    fadeCluster_ = fadeFor(w_, kClusterCell);
    grain_ = 1 / w_;  // white noise of level-0 pixels averaged over a w x w box
    blockX_ = blockY_ = GridAxis(scene.tissueCell, scene.tissueCell / 2);
    tissueStatistical_ = w_ > scene.tissueCell;
    if (!tissueStatistical_ && w_ > scene.tissueCell / 4) {
      fine_ = std::make_unique<Painter>(scene, level - 2);
    }
    if (individualNuclei_) nucleusCache_.resize(kNucleusCacheSize);
    invWidth_ = 1.0 / static_cast<double>(scene.width);
    invHeight_ = 1.0 / static_cast<double>(scene.height);
    // Lines much finer than the box become their expected coverage: the box would reach
    // beyond their cell.
    fibresStatistical_ = w_ / 2 + 1.5f > s_.fibres[0].margin;
    scratchesStatistical_ = w_ / 2 + 1.5f > s_.scratches.margin;
    for (int l = 0; l < 2; ++l) {
      double const fibreOff = l * kFibreCell / 2;
      fibres_[l].gx = fibres_[l].gy = GridAxis(kFibreCell, fibreOff);
    }
    scratch_.gx = scratch_.gy = GridAxis(kScratchCell, 0);
    nuclei_.gx = nuclei_.gy = GridAxis(kNucleusCell, kNucleusCell / 2);
  }

  // The colour of the box of w x w level-0 pixels centred on (x, y).
  Rgb shade(double x, double y) {
    Rgb const base = glass(x, y);
    Rgb c = base;
    // Sensor noise of one grey level and the tissue's grain: white noise of level-0 pixels.
    uint32_t const n =
        hash(low32(static_cast<int64_t>(x)), low32(static_cast<int64_t>(y)), s_.seedSensor);
    if (!tissueStatistical_ && x + halfW_ + ramp_ > s_.tissueLeft) {
      if (fine_ == nullptr) {
        tissue(c, x, y, byteUnit(n, 8));
      } else {
        // Boxes wider than a quarter of a tissue cell: 4 x 4 boxes of a finer level.
        double const q = w_ / 4;
        Rgb sum{0, 0, 0};
        for (int j = 0; j < 4; ++j) {
          for (int i = 0; i < 4; ++i) {
            Rgb const d = fine_->tissueDelta(x + (i - 1.5) * q, y + (j - 1.5) * q);
            sum.r += d.r, sum.g += d.g, sum.b += d.b;
          }
        }
        c.r += sum.r / 16, c.g += sum.g / 16, c.b += sum.b / 16;
      }
    }
    // Boxes wider than a tissue cell: the tissue's average, over the share of the box where
    // tissue lies.
    if (tissueStatistical_) {
      float const share = span(x, s_.tissueLeft, static_cast<double>(s_.width)) *
                          span(y, 0, static_cast<double>(s_.height));
      c.r += s_.tissueMean.r * share, c.g += s_.tissueMean.g * share;
      c.b += s_.tissueMean.b * share;
    }
    if (x - halfW_ < s_.labelRight) label(c, base, x, y);
    scratches(c, x, y);
    float const noise = (static_cast<float>(n & 3) * 0.5f - 0.75f) * grain_;
    return {c.r + noise, c.g + noise, c.b + noise};
  }

  // Only where the outline noise matters; inside and outside come from the row's intervals.
  float blobEdge(int k, double x, double y) {
    Blob const& b = block_->blobs[k];
    auto const u = static_cast<float>(x - b.cx), v = static_cast<float>(y - b.cy);
    float const ru = (u * b.cosA + v * b.sinA) * b.invRx;
    float const rv = (v * b.cosA - u * b.sinA) * b.invRy;
    float const d = std::sqrt(ru * ru + rv * rv);
    float const halfRamp = 0.5f * ramp_ / b.radius, outline = block_->outlineAt[k];
    float const band = kBoundaryAmp + halfRamp;
    if (d >= outline + band) return 0;
    if (d <= outline - band) return 1;
    // The coarse octave alone often settles it: the fine one moves the outline by at most
    // 0.35 * kBoundaryAmp (a little more here, against rounding).
    auto& noise = block_->outline[k];
    float const fadeA = fadeFor(w_, noise[0].cell()), fadeB = fadeFor(w_, noise[1].cell());
    float dEff = d;
    if (fadeA > 0) dEff += kBoundaryAmp * 1.3f * (noise[0].at(x, y) - 0.5f) * fadeA;
    float const fine = kBoundaryAmp * 0.36f * fadeB;
    if (dEff - fine >= outline + halfRamp) return 0;
    if (dEff + fine <= outline - halfRamp) return 1;
    if (fadeB > 0) dEff += kBoundaryAmp * 0.7f * (noise[1].at(x, y) - 0.5f) * fadeB;
    return clamp01((outline - dEff) / (2 * halfRamp) + 0.5f);
  }

  // The x range where b's squared normalized distance stays under t^2 on the current row.
  static bool rowSpan(Blob const& b, double v, double t, double& x0, double& x1) {
    double const p = b.qb * v, disc = p * p - 4 * b.qa * (b.qc * v * v - t * t);
    if (disc < 0) return false;
    double const root = std::sqrt(disc);
    x0 = b.cx + (-p - root) / (2 * b.qa), x1 = b.cx + (-p + root) / (2 * b.qa);
    return true;
  }

  // Cuts the current row into runs where every piece is either absent, whole or at its edge,
  // with the sums over the whole pieces done once per run.
  void tissueRow(double y) {
    block_->rowY = y;
    std::array<BlobRow, kMaxBlobs> rows;
    std::array<double, 4 * kMaxBlobs + 1> cuts;
    int cutCount = 0;
    for (int k = 0; k < block_->blobCount; ++k) {
      Blob const& b = block_->blobs[k];
      BlobRow& r = rows[k];
      r = {0, -1, 0, -1};  // empty
      double const v = y - b.cy, band = kBoundaryAmp + 0.5 * ramp_ / b.radius;
      double const outline = block_->outlineAt[k];
      // A margin keeps the spans conservative against blobEdge's float arithmetic: samples in
      // the margin take the exact path and get the same 0 or 1.
      if (!rowSpan(b, v, outline + band + 1e-3, r.out0, r.out1)) continue;
      r.out0 -= 0.01, r.out1 += 0.01;
      cuts[cutCount++] = r.out0, cuts[cutCount++] = r.out1;
      if (outline - band - 1e-3 > 0 && rowSpan(b, v, outline - band - 1e-3, r.in0, r.in1)) {
        r.in0 += 0.01, r.in1 -= 0.01;
        if (r.in0 < r.in1) cuts[cutCount++] = r.in0, cuts[cutCount++] = r.in1;
      }
    }
    std::sort(cuts.begin(), cuts.begin() + cutCount);
    cutCount = static_cast<int>(std::unique(cuts.begin(), cuts.begin() + cutCount) - cuts.begin());
    double const inf = std::numeric_limits<double>::infinity();
    block_->runCount = 0;
    for (int n = 0; n <= cutCount; ++n) {
      BlobRun& run = block_->runs[block_->runCount++];
      run.x0 = n == 0 ? -inf : cuts[n - 1];
      run.x1 = n == cutCount ? inf : cuts[n];
      run.whole = run.weight = 0;
      run.stain = run.counter = {0, 0, 0};
      run.edgeCount = 0;
      for (int k = 0; k < block_->blobCount; ++k) {
        BlobRow const& r = rows[k];
        if (run.x1 <= r.out0 || run.x0 >= r.out1) continue;
        if (run.x0 >= r.in0 && run.x1 <= r.in1) {
          Blob const& b = block_->blobs[k];
          run.whole = 1, run.weight += 1;
          run.stain.r += b.stain.r, run.stain.g += b.stain.g, run.stain.b += b.stain.b;
          run.counter.r += b.counter.r, run.counter.g += b.counter.g;
          run.counter.b += b.counter.b;
        } else {
          run.edges[run.edgeCount++] = static_cast<uint8_t>(k);
        }
      }
    }
    block_->runAt = 0;
  }

  // What the tissue adds to the glass at the sample, with average grain.
  Rgb tissueDelta(double x, double y) {
    Rgb const before = glass(x, y);
    Rgb after = before;
    tissue(after, x, y, 0.5f);
    return {after.r - before.r, after.g - before.g, after.b - before.b};
  }

 private:
  // Glass: a faint vignette, level beyond the image's edges, and a slow colour drift.
  Rgb glass(double x, double y) {
    double const nx = x * invWidth_ - 0.5, ny = y * invHeight_ - 0.5;
    double const bx = halfW_ * invWidth_, by = halfW_ * invHeight_;
    double square;  // mean of nx^2 + ny^2 over the box
    if (std::abs(nx) + bx <= 0.5 && std::abs(ny) + by <= 0.5) {
      square = nx * nx + ny * ny + (bx * bx + by * by) / 3;
    } else {
      square = meanClampedSquare(nx - bx, nx + bx) + meanClampedSquare(ny - by, ny + by);
    }
    auto const vignette = static_cast<float>(1.0 - 0.08 * square);
    float const drift = fadeDrift_ > 0 ? (drift_.at(x, y) - 0.5f) * fadeDrift_ : 0.0f;
    return {(238 + 10 * drift) * vignette, (234 + 6 * drift) * vignette,
            (240 - 8 * drift) * vignette};
  }

  void tissue(Rgb& c, double x, double y, float grain) {
    // Blocks of 2 x 2 cells, offset by half a cell: the cells nearest to the sample.
    if (blockX_.locate(x) | blockY_.locate(y)) {
      // Coarse levels cross blocks often along a row and come back on the next row: keep a few.
      int64_t const ci = blockX_.index(), cj = blockY_.index();
      if (blocks_.empty()) blocks_.resize(8);
      block_ = &blocks_[static_cast<size_t>(ci & 7)];
      if (block_->ci != ci || block_->cj != cj) {
        TissueBlock& t = *block_;
        t.ci = ci, t.cj = cj, t.blobCount = 0, t.rowY = kNoRow;
        for (int k = 0; k < 4; ++k) {
          t.blobCount += fillTissueCell(s_, ci + (k & 1), cj + (k >> 1), &t.blobs[t.blobCount]);
        }
        for (int k = 0; k < t.blobCount; ++k) {
          Blob const& b = t.blobs[k];
          t.outline[k] = {Noise(b.radius * 0.45, b.seedA), Noise(b.radius * 0.12, b.seedB)};
          t.outlineAt[k] = rampedRadius(0.5f * ramp_ / b.radius);
        }
      }
    }
    if (!(y == block_->rowY)) tissueRow(y);
    // Samples mostly move right along a row.
    while (x >= block_->runs[block_->runAt].x1) ++block_->runAt;
    while (x < block_->runs[block_->runAt].x0) --block_->runAt;
    BlobRun const& run = block_->runs[block_->runAt];
    if (run.whole == 0 && run.edgeCount == 0) return;
    float cover = run.whole, weight = run.weight;
    Rgb stain = run.stain, counter = run.counter;
    for (int e = 0; e < run.edgeCount; ++e) {
      int const k = run.edges[e];
      Blob const& b = block_->blobs[k];
      float const a = blobEdge(k, x, y);
      if (a <= 0) continue;
      cover += a - cover * a;
      weight += a;
      stain.r += b.stain.r * a, stain.g += b.stain.g * a, stain.b += b.stain.b * a;
      counter.r += b.counter.r * a, counter.g += b.counter.g * a, counter.b += b.counter.b * a;
    }
    if (cover <= 0) return;
    float const mix = fadeMix_ > 0 ? faded(mix_.at(x, y), 0.5f, fadeMix_) : 0.5f;
    float const inv = 1 / weight;
    stain = {stain.r * inv, stain.g * inv, stain.b * inv};
    counter = {counter.r * inv, counter.g * inv, counter.b * inv};
    // Patches where the counterstain dominates, then fine fibrous texture and grain.
    Rgb const tint = lerp(stain, counter, 0.8f * mix);
    float const t9 = fadeTexture_ > 0 ? faded(texture_.at(x, y), 0.5f, fadeTexture_) : 0.5f;
    float const texture = 0.65f * t9 + 0.35f * faded(grain, 0.5f, grain_);
    float const hole = holes(x, y);
    float const present = cover * (1 - hole);
    if (present <= 0) return;
    // The stained section with its fibres and nuclei, then its share of the box: a box that is
    // partly hole or glass averages the section with the glass, as a reduction would.
    Rgb section = lerp(c, tint, 0.55f + 0.45f * texture);
    fibres(section, x, y);
    nuclei(section, x, y, grain);
    c = lerp(c, section, present);
  }

  // Share of the box taken by holes. The holes' sharp outline is box-filtered by 2 x 2 taps
  // (one at level 0), whose local mean keeps a reduced level's holes where level 0 has them;
  // past that, the expected share.
  float holes(double x, double y) {
    if (fadeHole_ <= 0) return s_.holeMean;
    auto sharp = [](float n) { return clamp01((n - kHoleThreshold) * 150 + 0.5f); };
    float const centre = holeCentre_.at(x, y);
    float share = sharp(centre);
    if (w_ > 1) {
      // The taps can differ from the centre only near the threshold: the field moves by at most
      // kHoleSlope per pixel along each axis.
      float const q = w_ / 4;
      if (std::abs(centre - kHoleThreshold) < 2 * q * kHoleSlope + 0.004f) {
        share = 0.25f * (sharp(hole_.at(x - q, y - q)) + sharp(hole_.at(x + q, y - q)) +
                         sharp(holeLower_.at(x - q, y + q)) + sharp(holeLower_.at(x + q, y + q)));
      }
    }
    return faded(share, s_.holeMean, fadeHole_);
  }

  float segmentCoverage(Segment const& g, float lx, float ly) const {
    if (lx < g.x0 || lx > g.x1 || ly < g.y0 || ly > g.y1) return 0;
    float const px = lx - g.ax, py = ly - g.ay;
    float const t = clamp01((px * g.dx + py * g.dy) * g.invLen2);
    float const ex = px - t * g.dx, ey = py - t * g.dy;
    float const d2 = ex * ex + ey * ey, reach = g.halfWidth + halfW_;
    if (d2 >= reach * reach) return 0;
    float const d = std::sqrt(d2);
    // Exact box filter across the line: the share of [d - w/2, d + w/2] inside the stroke.
    float const overlap = std::min(d + halfW_, g.halfWidth) - std::max(d - halfW_, -g.halfWidth);
    return overlap > 0 ? std::min(1.0f, overlap * invW_) : 0.0f;
  }

  float lineCoverage(LineCell& cell, LineKind const& kind, double x, double y) {
    if (cell.gx.locate(x) | cell.gy.locate(y)) {
      fillLineCell(s_, kind, cell.gx.index(), cell.gy.index(), halfW_, cell);
    }
    if (cell.count == 0) return 0;
    auto const lx = static_cast<float>(x - cell.gx.start());
    auto const ly = static_cast<float>(y - cell.gy.start());
    float cov = 0;
    for (int n = 0; n < cell.count; ++n) {
      cov = std::max(cov, segmentCoverage(cell.segments[n], lx, ly));
    }
    return cov;
  }

  void fibres(Rgb& c, double x, double y) {
    float cov;
    if (fibresStatistical_) {
      cov = 1 - (1 - s_.fibreMean) * (1 - s_.fibreMean);
    } else {
      cov = std::max(lineCoverage(fibres_[0], s_.fibres[0], x, y),
                     lineCoverage(fibres_[1], s_.fibres[1], x, y));
    }
    if (cov > 0) c = lerp(c, {165, 62, 120}, cov * 0.8f);
  }

  void scratches(Rgb& c, double x, double y) {
    float const cov =
        scratchesStatistical_ ? s_.scratchMean : lineCoverage(scratch_, s_.scratches, x, y);
    if (cov > 0) c = lerp(c, {95, 95, 102}, cov * 0.6f);
  }

  // The nuclei of cell (i, j), whose centre is at (cx, cy) in level-0 pixels.
  void fillNuclei(int64_t i, int64_t j, double cx, double cy, NucleusCell& cell) {
    cell.i = i, cell.j = j;
    // Presence follows a smooth cluster density taken at the cell, never at the sample, so a
    // nucleus is whole or absent.
    float const density = kNucleusMinDensity + kNucleusDensityRange * cluster_[j & 1].at(cx, cy);
    for (int slot = 0; slot < kNucleiPerCell; ++slot) {
      Nucleus& n = cell.nuclei[slot];
      uint32_t const h = hash(low32(i), low32(j), s_.seedNuclei[slot]);
      n.present = unit(h) < density;
      if (!n.present) continue;
      uint32_t const g = remix(h), k = remix(g);
      float const r = kNucleusMinR + (kNucleusMaxR - kNucleusMinR) * byteUnit(g, 0);
      float const a = std::min(r * (1 + 0.45f * byteUnit(g, 8)), kNucleusMaxAxis);
      float const b = r * r / a;
      auto const size = static_cast<float>(kNucleusCell);
      n.cx = size * byteUnit(g, 16), n.cy = size * byteUnit(g, 24);
      int const angle = static_cast<int>(k & (kAngles - 1));
      n.cosA = s_.cosA[angle], n.sinA = s_.sinA[angle];
      n.reach = a + halfW_;
      n.r = std::max(1e-3f, r * rampedRadius(halfW_ / r));
      n.invA = r / (a * n.r), n.invB = r / (b * n.r);
      n.darkness = 0.8f + 0.4f * byteUnit(k, 8);
      float const inside = std::max(0.0f, 1 - halfW_ / n.r), outside = 1 + halfW_ / n.r;
      n.inside2 = inside * inside * 0.999f, n.outside2 = outside * outside * 1.001f;
    }
  }

  // Moves the block to the sample; a step right keeps the right column's nuclei.
  void locateNuclei(double x, double y) {
    NucleusBlock& block = nuclei_;
    int64_t const oldI = block.gx.index();
    bool const moved = block.gx.locate(x), newRow = block.gy.locate(y);
    if (!moved && !newRow) {
      if (!(y == block.rowY)) findActive(block, y);
      return;
    }
    int64_t const i = block.gx.index(), j = block.gy.index();
    bool const step = !newRow && i == oldI + 1;
    auto const size = static_cast<float>(kNucleusCell);
    for (int k = 0; k < 4; ++k) {
      int const dx = k & 1, dy = k >> 1;
      Nucleus* nuclei = &block.nuclei[static_cast<size_t>(k) * kNucleiPerCell];
      if (step && dx == 0) {
        std::copy_n(nuclei + kNucleiPerCell, kNucleiPerCell, nuclei);
      } else {
        // Rows of samples come back to the same cells: keep the last few rows of cells.
        int64_t const ci = i + dx, cj = j + dy;
        NucleusCell& cell = nucleusCache_[static_cast<size_t>(ci & (kNucleusCacheColumns - 1)) +
                                          kNucleusCacheColumns * static_cast<size_t>(cj & 3)];
        if (cell.i != ci || cell.j != cj) {
          // Cell (ci, cj) starts half a cell before the block's corner, plus dx cells.
          double const cx = block.gx.start() + (dx - 0.5) * kNucleusCell + kNucleusCell / 2;
          double const cy = block.gy.start() + (dy - 0.5) * kNucleusCell + kNucleusCell / 2;
          fillNuclei(ci, cj, cx, cy, cell);
        }
        std::copy_n(cell.nuclei.begin(), kNucleiPerCell, nuclei);
      }
      for (int slot = 0; slot < kNucleiPerCell; ++slot) {
        nuclei[slot].bx = nuclei[slot].cx + (static_cast<float>(dx) - 0.5f) * size;
        nuclei[slot].by = nuclei[slot].cy + (static_cast<float>(dy) - 0.5f) * size;
      }
    }
    findActive(block, y);
  }

  static void findActive(NucleusBlock& block, double y) {
    block.rowY = y;
    block.activeCount = 0;
    auto const ly = static_cast<float>(y - block.gy.start());
    for (size_t k = 0; k < block.nuclei.size(); ++k) {
      Nucleus const& n = block.nuclei[k];
      if (n.present && std::abs(ly - n.by) <= n.reach) {
        block.active[block.activeCount++] = static_cast<uint8_t>(k);
      }
    }
  }

  void nuclei(Rgb& c, double x, double y, float grain) {
    float cov = 0, darkness = 1;
    if (individualNuclei_) {
      locateNuclei(x, y);
      NucleusBlock const& block = nuclei_;
      auto const lx = static_cast<float>(x - block.gx.start());
      auto const ly = static_cast<float>(y - block.gy.start());
      for (int a = 0; a < block.activeCount; ++a) {
        Nucleus const& n = block.nuclei[block.active[a]];
        float const u = lx - n.bx, v = ly - n.by;
        if (std::abs(u) > n.reach) continue;
        float const ru = (u * n.cosA + v * n.sinA) * n.invA;
        float const rv = (v * n.cosA - u * n.sinA) * n.invB;
        float const d2 = ru * ru + rv * rv;
        if (d2 >= n.outside2) continue;
        float const cv =
            d2 <= n.inside2 ? 1.0f : clamp01((n.r - std::sqrt(d2) * n.r) * invW_ + 0.5f);
        if (cv > cov) cov = cv, darkness = n.darkness;
      }
    } else {
      float const cluster =
          fadeCluster_ > 0 ? faded(clusterHere_.at(x, y), 0.5f, fadeCluster_) : 0.5f;
      float const p = (kNucleusMinDensity + kNucleusDensityRange * cluster) * kNucleusArea /
                      static_cast<float>(kNucleusCell * kNucleusCell);
      // Neighbouring nuclei overlap, so the union covers less than independent layers would:
      // about midway between those and a Poisson scatter of the same density, as measured.
      cov = 1 - 0.5f * ((1 - p) * (1 - p) + std::exp(-2 * p));
    }
    if (cov <= 0) return;
    float const k = darkness * (0.9f + 0.2f * faded(grain, 0.5f, grain_));
    c = lerp(c, {72 * k, 42 * k, 122 * k}, cov * 0.9f);
  }

  // Share of the sample's box inside [a, b) along one axis.
  float span(double v, double a, double b) const {
    double const overlap = std::min(v + halfW_, b) - std::max(v - halfW_, a);
    return overlap > 0 ? std::min(1.0f, static_cast<float>(overlap) * invW_) : 0.0f;
  }

  static int64_t lineLength(TextBlock const& t, int64_t line) {
    return static_cast<int64_t>(static_cast<double>(t.cols) *
                                (0.45 + 0.55 * unit(hash(low32(line), 0x51, t.seed))));
  }

  int glyphAt(TextBlock const& t, int64_t col, int64_t line) const {
    if (col < 0 || line < 0 || col >= t.cols || line >= t.lines) return -1;
    if (col >= lineLength(t, line)) return -1;
    uint32_t const h = hash(low32(col), low32(line), t.seed);
    if (h % 6 == 0) return -1;  // a space between words
    return static_cast<int>(remix(h) & 255);
  }

  bool inked(TextBlock const& t, int64_t gx, int64_t gy) const {
    if (gx < 0 || gy < 0) return false;
    int const cx = static_cast<int>(gx % 7), cy = static_cast<int>(gy % 10);
    if (cx < 1 || cx > 5 || cy < 1 || cy > 7) return false;
    int const g = glyphAt(t, gx / 7, gy / 10);
    return g >= 0 && ((s_.glyphs[g] >> ((cy - 1) * 5 + (cx - 1))) & 1);
  }

  // Box-filtered ink of a text block at the sample.
  float textInk(TextBlock const& t, double x, double y) const {
    if (x + halfW_ <= t.x0 || x - halfW_ >= t.x1() || y + halfW_ <= t.y0 || y - halfW_ >= t.y1()) {
      return 0;
    }
    double const lx = x - t.x0, ly = y - t.y0, inv = 1 / t.pitch;
    if (w_ <= t.pitch) {
      // The box meets at most 2 x 2 glyph pixels: weigh each by its overlap.
      double const u0 = (lx - halfW_) * inv, u1 = (lx + halfW_) * inv;
      double const v0 = (ly - halfW_) * inv, v1 = (ly + halfW_) * inv;
      int64_t const gx0 = floorIndex(u0), gx1 = std::min(floorIndex(u1), gx0 + 1);
      int64_t const gy0 = floorIndex(v0), gy1 = std::min(floorIndex(v1), gy0 + 1);
      float const wx0 = gx1 == gx0 ? 1.0f : static_cast<float>((gx1 - u0) / (u1 - u0));
      float const wy0 = gy1 == gy0 ? 1.0f : static_cast<float>((gy1 - v0) / (v1 - v0));
      bool const twoX = wx0 < 1, twoY = wy0 < 1;
      float ink = 0;
      if (inked(t, gx0, gy0)) ink += wx0 * wy0;
      if (twoX && inked(t, gx1, gy0)) ink += (1 - wx0) * wy0;
      if (twoY && inked(t, gx0, gy1)) ink += wx0 * (1 - wy0);
      if (twoX && twoY && inked(t, gx1, gy1)) ink += (1 - wx0) * (1 - wy0);
      return ink;
    }
    float const inside = span(x, t.x0, t.x1()) * span(y, t.y0, t.y1());
    int64_t const line = floorIndex(ly * inv / 10);
    if (w_ <= 7 * t.pitch) {
      // Glyphs smaller than the box: each character cell becomes its mean ink.
      int const g = glyphAt(t, floorIndex(lx * inv / 7), line);
      return g < 0 ? 0.0f : s_.glyphInk[g] * inside;
    }
    // Whole words within the box: each line's expected ink up to where the line ends, line by
    // line for a few lines, else over the lines' random lengths.
    float const perChar = s_.meanGlyphInk * (5.0f / 6.0f);  // one character in six is a space
    double const linePx = 10 * t.pitch;
    int64_t const first = std::max<int64_t>(0, floorIndex((ly - halfW_) / linePx));
    int64_t const last = std::min(t.lines - 1, floorIndex((ly + halfW_) / linePx));
    if (last - first > 4) return perChar * span(y, t.y0, t.y1()) * expectedLineShare(t, x);
    float ink = 0;
    for (int64_t l = first; l <= last; ++l) {
      double const top = t.y0 + static_cast<double>(l) * linePx;
      double const end = t.x0 + static_cast<double>(lineLength(t, l)) * 7 * t.pitch;
      ink += span(y, top, top + linePx) * span(x, t.x0, end);
    }
    return perChar * ink;
  }

  // Mean over lines of the share of the box's columns that a line covers: line lengths are
  // a + b u px, u uniform in [0, 1) (lineLength).
  float expectedLineShare(TextBlock const& t, double x) const {
    double const full = static_cast<double>(t.cols) * 7 * t.pitch;
    double const a = 0.45 * full, b = 0.55 * full;
    double const start = std::max(t.x0, x - halfW_), room = x + halfW_ - start;
    if (room <= 0 || b <= 0) return 0;
    // The covered length is clamp(z, 0, room) with z = t.x0 + length - start; F integrates it.
    auto integral = [room](double z) {
      if (z <= 0) return 0.0;
      return z <= room ? z * z / 2 : room * room / 2 + room * (z - room);
    };
    double const z0 = t.x0 + a - start;
    return static_cast<float>((integral(z0 + b) - integral(z0)) / b * invW_);
  }

  float barInk(double x, double y) const {
    Box const& b = s_.barcode;
    float const rows = span(y, b.y0, b.y1);
    if (rows <= 0 || x + halfW_ <= b.x0 || x - halfW_ >= b.x1) return 0;
    double const m = s_.barModule;
    if (w_ > m) return 0.5f * span(x, b.x0, b.x1) * rows;
    auto bar = [&](int64_t q) {
      return q >= 0 && static_cast<double>(q) * m < b.x1 - b.x0 &&
             (hash(low32(q), 0, s_.seedBar) & 1) != 0;
    };
    double const u0 = (x - halfW_ - b.x0) / m, u1 = (x + halfW_ - b.x0) / m;
    int64_t const q0 = floorIndex(u0), q1 = std::min(floorIndex(u1), q0 + 1);
    float const w0 = q1 == q0 ? 1.0f : static_cast<float>((q1 - u0) / (u1 - u0));
    float ink = bar(q0) ? w0 : 0.0f;
    if (w0 < 1 && bar(q1)) ink += 1 - w0;
    return ink * rows;
  }

  // The label lies on the glass beside the tissue, and its inks on the paper beside each
  // other: each adds its own share of the box, so a box larger than any of them still gets the
  // right mean.
  void label(Rgb& c, Rgb base, double x, double y) const {
    Box const& p = s_.paper;
    float const cover = span(x, p.x0, p.x1) * span(y, p.y0, p.y1);
    if (cover <= 0) return;
    Rgb const paper{250, 249, 244};
    auto add = [&](Rgb over, Rgb under, float share) {
      c.r += (over.r - under.r) * share, c.g += (over.g - under.g) * share;
      c.b += (over.b - under.b) * share;
    };
    add(paper, base, cover);
    for (TextBlock const* t : {&s_.title, &s_.subtitle, &s_.body}) {
      float const ink = textInk(*t, x, y);
      if (ink > 0) add(t->ink, paper, ink);
    }
    Box const& r = s_.rule;
    float const ruleInk = span(x, r.x0, r.x1) * span(y, r.y0, r.y1);
    if (ruleInk > 0) add(s_.title.ink, paper, ruleInk);
    float const bars = barInk(x, y);
    if (bars > 0) add({20, 20, 25}, paper, bars);
  }

  Layout const& s_;
  std::unique_ptr<Painter> fine_;  // the level two below, for boxes of C / 4 .. C
  bool tissueStatistical_;
  float w_, halfW_, invW_, ramp_, grain_;
  bool individualNuclei_;
  float fadeDrift_, fadeMix_, fadeHole_, fadeTexture_, fadeCluster_;
  double invWidth_, invHeight_;
  Noise drift_, mix_, texture_;
  HoleField holeCentre_, hole_, holeLower_;
  std::array<Noise, 2> cluster_;
  Noise clusterHere_;
  GridAxis blockX_, blockY_;
  std::vector<TissueBlock> blocks_;
  TissueBlock* block_ = nullptr;
  NucleusBlock nuclei_;
  std::vector<NucleusCell> nucleusCache_;
  bool fibresStatistical_, scratchesStatistical_;
  std::array<LineCell, 2> fibres_;
  LineCell scratch_;
};

uint8_t toByte(float v) { return static_cast<uint8_t>(std::min(255.0f, std::max(0.0f, v)) + 0.5f); }

void store(uint8_t* p, Rgb c) {
  p[0] = toByte(c.r), p[1] = toByte(c.g), p[2] = toByte(c.b), p[3] = 255;
}

}  // namespace

struct ProceduralSlide::Scene : Layout {
  Scene(size_t width, size_t height, uint32_t seed) : Layout(width, height, seed) {
    fibreMean = meanLineCover(*this, fibres[0]);
    scratchMean = meanLineCover(*this, scratches);
    // The tissue's average over its zone, from 32 x 32 samples of a level whose boxes still
    // find the pieces themselves.
    auto const W = static_cast<double>(width), H = static_cast<double>(height);
    if (W <= tissueLeft) return;
    size_t level = 0;
    while (std::ldexp(1.0, static_cast<int>(level) + 1) <= tissueCell / 4) ++level;
    Painter painter(*this, level);
    int const n = 32;
    Rgb sum{0, 0, 0};
    for (int j = 0; j < n; ++j) {
      for (int i = 0; i < n; ++i) {
        Rgb const d =
            painter.tissueDelta(tissueLeft + (i + 0.5) * (W - tissueLeft) / n, (j + 0.5) * H / n);
        sum.r += d.r, sum.g += d.g, sum.b += d.b;
      }
    }
    tissueMean = {sum.r / (n * n), sum.g / (n * n), sum.b / (n * n)};
  }
};

ProceduralSlide::ProceduralSlide(size_t width, size_t height, uint32_t seed)
    : scene_(std::make_unique<Scene const>(width, height, seed)) {}

ProceduralSlide::~ProceduralSlide() = default;

size_t ProceduralSlide::width() const { return scene_->width; }
size_t ProceduralSlide::height() const { return scene_->height; }

std::vector<size_t> ProceduralSlide::nativeLevels() const {
  std::vector<size_t> levels(scene_->levels);
  for (size_t k = 0; k < levels.size(); ++k) levels[k] = k;
  return levels;
}

std::string ProceduralSlide::description() const {
  return "procedural slide " + std::to_string(scene_->width) + " x " +
         std::to_string(scene_->height) + " (seed " + std::to_string(scene_->seed) + ")";
}

void ProceduralSlide::read(size_t level, Rect const& rect, uint8_t* rgba) const {
  checkRead(level, rect);
  Painter painter(*scene_, level);
  // One sample at the centre of the pixel's area, box-filtered over that area. The last pixel
  // of a level whose size is not a multiple of 2^level also covers some of the scene beyond the
  // image's edge, where glass goes on.
  double const step = std::ldexp(1.0, static_cast<int>(level));
  for (size_t r = 0; r < rect.height; ++r) {
    uint8_t* out = rgba + r * rect.width * 4;
    double const y = (static_cast<double>(rect.y + r) + 0.5) * step;
    for (size_t c = 0; c < rect.width; ++c) {
      store(out + c * 4, painter.shade((static_cast<double>(rect.x + c) + 0.5) * step, y));
    }
  }
}

}  // namespace quorvel::zoom
