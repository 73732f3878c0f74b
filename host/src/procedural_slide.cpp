#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "procedural_scene.hpp"
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

using namespace scene;

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

// Renders the samples of one level. One painter serves one read on one thread.
class Painter {
 public:
  Painter(Layout const& scene, size_t level)
      : s_(scene),
        box_(level),
        drift_(scene.driftCell, scene.seedDrift),
        mix_(scene.tissueCell / 10, scene.seedMix),
        texture_(kTextureCell, scene.seedTexture),
        holeCentre_(kHoleCell, scene.seedHole),
        hole_(kHoleCell, scene.seedHole),
        holeLower_(kHoleCell, scene.seedHole),
        // One per parity of the cell row, so that each keeps its row.
        cluster_{Noise(kClusterCell, scene.seedCluster), Noise(kClusterCell, scene.seedCluster)},
        clusterHere_(kClusterCell, scene.seedCluster) {
    ramp_ = std::max(1.5f, box_.w);
    individualNuclei_ = kNucleusMaxAxis + box_.half <= kNucleusCell / 2;
    fadeDrift_ = fadeFor(box_.w, scene.driftCell);
    fadeMix_ = fadeFor(box_.w, scene.tissueCell / 10);
    // The holes' 2 x 2 taps resolve them until the box nears their size (holes()).
    fadeHole_ = fadeFor(box_.w, kHoleCell);
    fadeTexture_ = fadeFor(box_.w, kTextureCell);
    fadeCluster_ = fadeFor(box_.w, kClusterCell);
    grain_ = 1 / box_.w;  // white noise of level-0 pixels averaged over a w x w box
    blockX_ = blockY_ = GridAxis(scene.tissueCell, scene.tissueCell / 2);
    tissueStatistical_ = box_.w > scene.tissueCell;
    if (!tissueStatistical_ && box_.w > scene.tissueCell / 4) {
      fine_ = std::make_unique<Painter>(scene, level - 2);
    }
    if (individualNuclei_) nucleusCache_.resize(kNucleusCacheSize);
    invWidth_ = 1.0 / static_cast<double>(scene.width);
    invHeight_ = 1.0 / static_cast<double>(scene.height);
    // Lines much finer than the box become their expected coverage: the box would reach
    // beyond their cell.
    fibresStatistical_ = box_.w / 2 + 1.5f > s_.fibres[0].margin;
    scratchesStatistical_ = box_.w / 2 + 1.5f > s_.scratches.margin;
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
    if (!tissueStatistical_ && x + box_.half + ramp_ > s_.tissueLeft) {
      if (fine_ == nullptr) {
        tissue(c, x, y, byteUnit(n, 8));
      } else {
        // Boxes wider than a quarter of a tissue cell: 4 x 4 boxes of a finer level.
        double const q = box_.w / 4;
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
      float const share = box_.span(x, s_.tissueLeft, static_cast<double>(s_.width)) *
                          box_.span(y, 0, static_cast<double>(s_.height));
      c.r += s_.tissueMean.r * share, c.g += s_.tissueMean.g * share;
      c.b += s_.tissueMean.b * share;
    }
    if (x - box_.half < s_.labelRight) paintLabel(s_, box_, c, base, x, y);
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
    float const fadeA = fadeFor(box_.w, noise[0].cell()), fadeB = fadeFor(box_.w, noise[1].cell());
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
    double const bx = box_.half * invWidth_, by = box_.half * invHeight_;
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
    // Blocks of 2 x 2 cells, offset by half a cell: the cells nearest to the sample. Both axes
    // must move, so neither lookup may be skipped.
    bool const newColumn = blockX_.locate(x), newRow = blockY_.locate(y);
    if (newColumn || newRow) {
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
    if (box_.w > 1) {
      // The taps can differ from the centre only near the threshold: the field moves by at most
      // kHoleSlope per pixel along each axis.
      float const q = box_.w / 4;
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
    float const d2 = ex * ex + ey * ey, reach = g.halfWidth + box_.half;
    if (d2 >= reach * reach) return 0;
    float const d = std::sqrt(d2);
    // Exact box filter across the line: the share of [d - w/2, d + w/2] inside the stroke.
    float const overlap =
        std::min(d + box_.half, g.halfWidth) - std::max(d - box_.half, -g.halfWidth);
    return overlap > 0 ? std::min(1.0f, overlap * box_.inv) : 0.0f;
  }

  float lineCoverage(LineCell& cell, LineKind const& kind, double x, double y) {
    bool const newColumn = cell.gx.locate(x), newRow = cell.gy.locate(y);
    if (newColumn || newRow) {
      fillLineCell(s_, kind, cell.gx.index(), cell.gy.index(), box_.half, cell);
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
          // Presence follows a smooth cluster density taken at the cell, never at the sample, so
          // a nucleus is whole or absent.
          float const density =
              kNucleusMinDensity + kNucleusDensityRange * cluster_[cj & 1].at(cx, cy);
          fillNucleusCell(s_, box_.half, ci, cj, density, cell);
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
            d2 <= n.inside2 ? 1.0f : clamp01((n.r - std::sqrt(d2) * n.r) * box_.inv + 0.5f);
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

  Layout const& s_;
  std::unique_ptr<Painter> fine_;  // the level two below, for boxes of C / 4 .. C
  bool tissueStatistical_;
  SampleBox box_;
  float ramp_, grain_;
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
