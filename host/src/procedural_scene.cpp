#include "procedural_scene.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace quorvel::zoom::scene {
namespace {

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

// The inks of the label, box-filtered over one sample's box.
class LabelInk {
 public:
  LabelInk(Layout const& s, SampleBox const& box) : s_(s), box_(box) {}

  // The label lies on the glass beside the tissue, and its inks on the paper beside each
  // other: each adds its own share of the box, so a box larger than any of them still gets the
  // right mean.
  void label(Rgb& c, Rgb base, double x, double y) const {
    Box const& p = s_.paper;
    float const cover = box_.span(x, p.x0, p.x1) * box_.span(y, p.y0, p.y1);
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
    float const ruleInk = box_.span(x, r.x0, r.x1) * box_.span(y, r.y0, r.y1);
    if (ruleInk > 0) add(s_.title.ink, paper, ruleInk);
    float const bars = barInk(x, y);
    if (bars > 0) add({20, 20, 25}, paper, bars);
  }

 private:
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
    if (x + box_.half <= t.x0 || x - box_.half >= t.x1() || y + box_.half <= t.y0 ||
        y - box_.half >= t.y1()) {
      return 0;
    }
    double const lx = x - t.x0, ly = y - t.y0, inv = 1 / t.pitch;
    if (box_.w <= t.pitch) {
      // The box meets at most 2 x 2 glyph pixels: weigh each by its overlap.
      double const u0 = (lx - box_.half) * inv, u1 = (lx + box_.half) * inv;
      double const v0 = (ly - box_.half) * inv, v1 = (ly + box_.half) * inv;
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
    float const inside = box_.span(x, t.x0, t.x1()) * box_.span(y, t.y0, t.y1());
    int64_t const line = floorIndex(ly * inv / 10);
    if (box_.w <= 7 * t.pitch) {
      // Glyphs smaller than the box: each character cell becomes its mean ink.
      int const g = glyphAt(t, floorIndex(lx * inv / 7), line);
      return g < 0 ? 0.0f : s_.glyphInk[g] * inside;
    }
    // Whole words within the box: each line's expected ink up to where the line ends, line by
    // line for a few lines, else over the lines' random lengths.
    float const perChar = s_.meanGlyphInk * (5.0f / 6.0f);  // one character in six is a space
    double const linePx = 10 * t.pitch;
    int64_t const first = std::max<int64_t>(0, floorIndex((ly - box_.half) / linePx));
    int64_t const last = std::min(t.lines - 1, floorIndex((ly + box_.half) / linePx));
    if (last - first > 4) return perChar * box_.span(y, t.y0, t.y1()) * expectedLineShare(t, x);
    float ink = 0;
    for (int64_t l = first; l <= last; ++l) {
      double const top = t.y0 + static_cast<double>(l) * linePx;
      double const end = t.x0 + static_cast<double>(lineLength(t, l)) * 7 * t.pitch;
      ink += box_.span(y, top, top + linePx) * box_.span(x, t.x0, end);
    }
    return perChar * ink;
  }

  // Mean over lines of the share of the box's columns that a line covers: line lengths are
  // a + b u px, u uniform in [0, 1) (lineLength).
  float expectedLineShare(TextBlock const& t, double x) const {
    double const full = static_cast<double>(t.cols) * 7 * t.pitch;
    double const a = 0.45 * full, b = 0.55 * full;
    double const start = std::max(t.x0, x - box_.half), room = x + box_.half - start;
    if (room <= 0 || b <= 0) return 0;
    // The covered length is clamp(z, 0, room) with z = t.x0 + length - start; F integrates it.
    auto integral = [room](double z) {
      if (z <= 0) return 0.0;
      return z <= room ? z * z / 2 : room * room / 2 + room * (z - room);
    };
    double const z0 = t.x0 + a - start;
    return static_cast<float>((integral(z0 + b) - integral(z0)) / b * box_.inv);
  }

  float barInk(double x, double y) const {
    Box const& b = s_.barcode;
    float const rows = box_.span(y, b.y0, b.y1);
    if (rows <= 0 || x + box_.half <= b.x0 || x - box_.half >= b.x1) return 0;
    double const m = s_.barModule;
    if (box_.w > m) return 0.5f * box_.span(x, b.x0, b.x1) * rows;
    auto bar = [&](int64_t q) {
      return q >= 0 && static_cast<double>(q) * m < b.x1 - b.x0 &&
             (hash(low32(q), 0, s_.seedBar) & 1) != 0;
    };
    double const u0 = (x - box_.half - b.x0) / m, u1 = (x + box_.half - b.x0) / m;
    int64_t const q0 = floorIndex(u0), q1 = std::min(floorIndex(u1), q0 + 1);
    float const w0 = q1 == q0 ? 1.0f : static_cast<float>((q1 - u0) / (u1 - u0));
    float ink = bar(q0) ? w0 : 0.0f;
    if (w0 < 1 && bar(q1)) ink += 1 - w0;
    return ink * rows;
  }

  Layout const& s_;
  SampleBox const& box_;
};

}  // namespace

float rampedRadius(float h) {
  if (h <= 0.8660254f) return std::sqrt(1 - h * h / 3);
  return std::cbrt(6 * h) - h;
}

double meanClampedSquare(double a, double b) {
  auto integral = [](double t) {  // of min(t^2, 1/4) from 0 to t, odd in t
    double const m = std::min(std::abs(t), 0.5);
    double const value = m * m * m / 3 + 0.25 * (std::abs(t) - m);
    return t < 0 ? -value : value;
  };
  return b > a ? (integral(b) - integral(a)) / (b - a) : std::min(a * a, 0.25);
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

void fillNucleusCell(Layout const& s, float halfW, int64_t i, int64_t j, float density,
                     NucleusCell& cell) {
  cell.i = i, cell.j = j;
  for (int slot = 0; slot < kNucleiPerCell; ++slot) {
    Nucleus& n = cell.nuclei[slot];
    uint32_t const h = hash(low32(i), low32(j), s.seedNuclei[slot]);
    n.present = unit(h) < density;
    if (!n.present) continue;
    uint32_t const g = remix(h), k = remix(g);
    float const r = kNucleusMinR + (kNucleusMaxR - kNucleusMinR) * byteUnit(g, 0);
    float const a = std::min(r * (1 + 0.45f * byteUnit(g, 8)), kNucleusMaxAxis);
    float const b = r * r / a;
    auto const size = static_cast<float>(kNucleusCell);
    n.cx = size * byteUnit(g, 16), n.cy = size * byteUnit(g, 24);
    int const angle = static_cast<int>(k & (kAngles - 1));
    n.cosA = s.cosA[angle], n.sinA = s.sinA[angle];
    n.reach = a + halfW;
    n.r = std::max(1e-3f, r * rampedRadius(halfW / r));
    n.invA = r / (a * n.r), n.invB = r / (b * n.r);
    n.darkness = 0.8f + 0.4f * byteUnit(k, 8);
    float const inside = std::max(0.0f, 1 - halfW / n.r), outside = 1 + halfW / n.r;
    n.inside2 = inside * inside * 0.999f, n.outside2 = outside * outside * 1.001f;
  }
}

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

void paintLabel(Layout const& s, SampleBox const& box, Rgb& c, Rgb base, double x, double y) {
  LabelInk(s, box).label(c, base, x, y);
}

}  // namespace quorvel::zoom::scene
