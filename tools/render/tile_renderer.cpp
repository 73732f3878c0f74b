#include "tile_renderer.hpp"

#include <algorithm>
#include <cmath>

namespace quorvel::tool {
namespace {

using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

// The inverse wavelet doubles the filtered axis: n band elements give 2n samples, of which
// the host keeps what it asks for through the right or bottom clip.
Filter waveletFilter(char const* name, bool vertical) {
  return Filter(name, 0, 0, 0, 0, 0, 1, 0, 1, vertical ? 1 : 2, 1, vertical ? 2 : 1, 1, 2, 16, 16,
                1, 1, 1, 1, 1, 1, {true, true}, true, 16, Filtering::kLinear);
}

// The 5 x 5 sharpening window: two pixels of input around every output pixel.
Filter sharpenFilter() {
  return Filter("FilterSharpness8", 2, 2, 2, 2, 0, 1, 0, 1, 1, 1, 1, 1, 1, 32, 32, 4, 4, 1, 1, 1, 1,
                {false}, false, 8, Filtering::kLinear);
}

Filter instantiated(Filter filter, std::shared_ptr<RenderBackendInstance> const& instance) {
  filter.instantiate(instance);
  return filter;
}

FilterSource at(size_t target, size_t x, size_t y) { return {target, x, y, false}; }

}  // namespace

std::array<int32_t, 9> matrixQ10(std::array<double, 9> const& m) {
  std::array<int32_t, 9> q{};
  for (size_t i = 0; i < 9; ++i) q[i] = static_cast<int32_t>(std::lround(m[i] * 1024.0));
  return q;
}

TileRenderer::TileRenderer(std::shared_ptr<RenderBackendInstance> instance,
                           WaveletLayout const& layout, DisplayOptions const& display, size_t slots,
                           size_t stripWidth)
    : instance_(std::move(instance)),
      layout_(layout),
      display_(display),
      atlas_(layout),
      tile_(layout.tile()),
      blit16_(instantiated(pointFilter("BlitFilter1x16", 1, 16, 16, 1, 1, 16), instance_)),
      blit8_(instantiated(pointFilter("BlitFilter4x8"), instance_)),
      vertical_(instantiated(waveletFilter("FilterFirIV53LeGall16", true), instance_)),
      horizontal_(instantiated(waveletFilter("FilterFirIH53LeGall16", false), instance_)),
      interleave_(instantiated(pointFilter("FilterInterleave16", 3, 16, 48, 1, 3, 16), instance_)),
      toRgba_(instantiated(pointFilter("FilterYCoCg16ToRGBA8", 1, 48, 32, 3, 4, 8), instance_)),
      toRgb16_(instantiated(pointFilter("FilterYCoCg16ToRGB16", 1, 48, 48, 3, 3, 8), instance_)),
      linearGamma_(
          instantiated(pointFilter("FilterLinear16TosRGB8", 1, 48, 32, 3, 4, 8), instance_)),
      srgbGamma_(instantiated(pointFilter("FilterBlackWhiteGamma8"), instance_)),
      matrix_(instantiated(pointFilter("Filter3x3Matrix8"), instance_)),
      sharpen_(instantiated(sharpenFilter(), instance_)),
      clahe_(instantiated(pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 8), instance_)),
      mask_(instantiated(pointFilter("MaskFilter4x8"), instance_)) {
  linearGammaParams_.gamma = srgbGammaParams_.gamma = display.gammaValue;
  linearGammaParams_.blackPoint = srgbGammaParams_.blackPoint = display.black;
  linearGammaParams_.whitePoint = srgbGammaParams_.whitePoint = display.white;
  if (display.matrix) matrixParams_.matrix = matrixQ10(*display.matrix);
  matrixParams_.scale = display.matrixScale;
  sharpenParams_.gain = display.sharpenGain.value_or(0.0);
  claheParams_.clipLimit = display.claheLimit.value_or(1.0);
  if (display.mask) {
    EnvelopeData data(1);
    for (MaskRect const& r : *display.mask)
      data[0].second.push_back({r.xmin, r.xmax, r.ymin, r.ymax});
    instance_->dataEnvelopes(envelopesId_, data);
    instance_->lockDataEnvelopes(envelopesId_);
  }

  // The vertical passes of a level cover the low (or high) squares of all three channels
  // at once; the horizontal passes run per channel.
  for (size_t l = 1; l <= layout_.levels(); ++l) {
    columnsW_ = std::max(columnsW_, 3 * layout_.bandSize(l));
    columnsH_ = std::max(columnsH_, layout_.delivered(l));
  }
  for (size_t i = 0; i < slots; ++i) {
    Slot s{};
    s.bandsLow = target({atlas_.width(), atlas_.height()}, 16, true);
    s.bandsHigh = target({atlas_.width(), atlas_.height()}, 16, true);
    s.columnsLow = target({columnsW_, columnsH_}, 16, true);
    s.columnsHigh = target({columnsW_, columnsH_}, 16, true);
    s.planes = target({tile_, 3 * tile_}, 16, true);
    s.ycocg = target({tile_, tile_}, 48, true);
    s.rgbaA = target({tile_, tile_}, 32, false);
    s.rgbaB = target({tile_, tile_}, 32, false);
    if (display_.claheLimit) s.ycocgEqualised = target({tile_, tile_}, 48, true);
    if (display_.gamma && display_.gammaMode == DisplayOptions::GammaMode::kLinear16) {
      s.rgb16 = target({tile_, tile_}, 48, true);
    }
    if (display_.sharpenGain) s.padded = target({tile_ + 4, tile_ + 4}, 32, false);
    if (display_.mask) s.masked = target({tile_, tile_}, 32, false);
    s.fence = target({1, 1}, 8, false);
    slots_.push_back(s);
  }
  // Every target gets its storage now, once, rather than in the first tile that writes it.
  // This matters for the strips: tiles of one row go to the same strip from batches that
  // may run in any order, so no batch may depend on another one's allocation.
  for (size_t& strip : strips_) strip = target({stripWidth, tile_}, 32, false);
  for (size_t t : targets_) instance_->clear(t, {0, 0, 0, 255});
  instance_->finalizeDrawSequence();
  for (size_t t : targets_) instance_->waitForTarget(t);
}

TileRenderer::~TileRenderer() {
  try {
    for (size_t i = 0; i < slots_.size(); ++i) waitSlot(i);
  } catch (...) {
    // A failed tile has been reported to the caller already; the targets go regardless.
  }
  for (size_t t : targets_) instance_->eraseTarget(t);
  instance_->finalizeDrawSequence();
  if (display_.mask) instance_->unlockDataEnvelopes(envelopesId_);
}

size_t TileRenderer::target(std::vector<size_t> const& size, size_t bits, bool isSigned) {
  size_t const id = instance_->createTarget(size, bits, isSigned, Filtering::kNone,
                                            bits == 32 ? Format::kRgba8 : Format::kWavelet16);
  targets_.push_back(id);
  return id;
}

void TileRenderer::submit(size_t slot, size_t tile, size_t x0, size_t y0, size_t strip) {
  Slot& s = slots_.at(slot);
  size_t const w = atlas_.width(), h = atlas_.height();
  instance_->drawTiles(s.bandsLow, blit16_, {0, w, 0, h}, {0, w, 0, h}, {w, h}, {{0, 0}},
                       {atlasTileId(tile, 0)}, {});
  instance_->drawTiles(s.bandsHigh, blit16_, {0, w, 0, h}, {0, w, 0, h}, {w, h}, {{0, 0}},
                       {atlasTileId(tile, 1)}, {});
  inverseWavelet(s);
  auto const t = tile_;
  instance_->executeFilter(interleave_,
                           {at(s.planes, 0, 0), at(s.planes, 0, t), at(s.planes, 0, 2 * t)}, t, t,
                           s.ycocg, 0, 0, 0, 0, FilterEmptyParams::instance(), {0, 0});
  display(s, x0, y0, strip);
  instance_->clear(s.fence, {1});
  s.used = true;
  // One batch per tile: the whole sequence runs on one worker, while the next tile's batch
  // can start on another.
  instance_->finalizeDrawSequence();
}

void TileRenderer::waitSlot(size_t slot) {
  if (slots_.at(slot).used) instance_->waitForTarget(slots_[slot].fence);
}

void TileRenderer::inverseWavelet(Slot const& s) {
  auto const& none = FilterEmptyParams::instance();
  for (size_t l = layout_.levels(); l >= 1; --l) {
    size_t const nb = layout_.bandSize(l), need = layout_.delivered(l);
    BandAtlas::Position const lo = atlas_.low(l, 0), hi = atlas_.high(l, 0);
    // Columns of all three channels at once: approximations over LH give the low-pass
    // columns, HL over HH the high-pass columns; the bottom clip keeps the `need` rows the
    // rows step reads.
    instance_->executeFilter(vertical_, {at(s.bandsLow, lo.x, lo.y), at(s.bandsHigh, lo.x, lo.y)},
                             3 * nb, nb, s.columnsLow, 0, 0, 0, 2 * nb - need, none, {0, 0});
    instance_->executeFilter(vertical_, {at(s.bandsLow, hi.x, hi.y), at(s.bandsHigh, hi.x, hi.y)},
                             3 * nb, nb, s.columnsHigh, 0, 0, 0, 2 * nb - need, none, {0, 0});
    // Rows, per channel: the result is the approximation of the next finer level, written
    // where that level reads it, or the channel's plane after the last level. A channel's
    // pass also fills columns left of its square from its neighbours' columns, so the
    // channels run right to left and each rewrites what the one before spilled over it.
    for (size_t c = 3; c-- > 0;) {
      size_t destination = s.planes;
      std::vector<size_t> offset{0, c * tile_};
      if (l > 1) {
        BandAtlas::Position const next = atlas_.low(l - 1, c);
        destination = s.bandsLow;
        offset = {next.x, next.y};
      }
      instance_->executeFilter(horizontal_,
                               {at(s.columnsLow, c * nb, 0), at(s.columnsHigh, c * nb, 0)}, nb,
                               need, destination, 0, 2 * nb - need, 0, 0, none, offset);
    }
  }
}

void TileRenderer::display(Slot& s, size_t x0, size_t y0, size_t strip) {
  auto const& none = FilterEmptyParams::instance();
  auto const t = tile_;
  size_t source48 = s.ycocg;
  if (display_.claheLimit) {
    // CLAHE equalises the luma in place in its source and copies the result out.
    instance_->executeFilter(clahe_, {at(source48, 0, 0)}, t, t, s.ycocgEqualised, 0, 0, 0, 0,
                             claheParams_, {0, 0});
    source48 = s.ycocgEqualised;
  }
  // The 8-bit steps alternate between the slot's two RGBA targets; the last one writes
  // straight into the strip (the mask needs its own target first).
  bool const srgbGamma = display_.gamma && display_.gammaMode == DisplayOptions::GammaMode::kSrgb8;
  size_t remaining = 1 + srgbGamma + display_.matrix.has_value() +
                     display_.sharpenGain.has_value() + display_.mask.has_value();
  size_t current = 0;
  auto run = [&](Filter const& f, std::vector<FilterSource> const& sources, size_t inputW,
                 size_t inputH, SingleFilterParameters const& params, size_t ox, size_t oy) {
    size_t destination = current == s.rgbaA ? s.rgbaB : s.rgbaA;
    std::vector<size_t> offset{ox, oy};
    if (--remaining == 0) destination = strips_.at(strip), offset = {x0 + ox, oy};
    instance_->executeFilter(f, sources, inputW, inputH, destination, 0, 0, 0, 0, params, offset);
    current = destination;
  };
  if (display_.gamma && !srgbGamma) {
    instance_->executeFilter(toRgb16_, {at(source48, 0, 0)}, t, t, s.rgb16, 0, 0, 0, 0, none,
                             {0, 0});
    run(linearGamma_, {at(s.rgb16, 0, 0)}, t, t, linearGammaParams_, 0, 0);
  } else {
    run(toRgba_, {at(source48, 0, 0)}, t, t, none, 0, 0);
  }
  if (srgbGamma) run(srgbGamma_, {at(current, 0, 0)}, t, t, srgbGammaParams_, 0, 0);
  if (display_.matrix) run(matrix_, {at(current, 0, 0)}, t, t, matrixParams_, 0, 0);
  if (display_.sharpenGain) {
    // The 5 x 5 window needs two pixels around the tile: the tile's own edge pixels are
    // repeated, so every tile is sharpened on its own (no reads of neighbouring tiles).
    size_t const p = s.padded;
    instance_->executeFilter(blit8_, {at(current, 0, 0)}, t, t, p, 0, 0, 0, 0, none, {2, 2});
    for (size_t r : {0, 1}) {
      instance_->executeFilter(blit8_, {at(p, 2, 2)}, t, 1, p, 0, 0, 0, 0, none, {2, r});
      instance_->executeFilter(blit8_, {at(p, 2, t + 1)}, t, 1, p, 0, 0, 0, 0, none,
                               {2, t + 2 + r});
    }
    for (size_t c : {0, 1}) {
      instance_->executeFilter(blit8_, {at(p, 2, 0)}, 1, t + 4, p, 0, 0, 0, 0, none, {c, 0});
      instance_->executeFilter(blit8_, {at(p, t + 1, 0)}, 1, t + 4, p, 0, 0, 0, 0, none,
                               {t + 2 + c, 0});
    }
    // The description's two-pixel margins place the output window two pixels in.
    run(sharpen_, {at(p, 0, 0)}, t + 4, t + 4, sharpenParams_, 2, 2);
  }
  if (display_.mask) {
    instance_->clear(s.masked, {0, 0, 0, 255});
    instance_->maskRange(current, s.masked, mask_, envelopesId_, {x0, x0 + t - 1, y0, y0 + t - 1});
    current = s.masked;
    run(blit8_, {at(current, 0, 0)}, t, t, none, 0, 0);
  }
}

void TileRenderer::readStrip(size_t strip, size_t width, size_t height, uint8_t* rgba) {
  instance_->getPixels(rgba, width * height * 4, strips_.at(strip), {0, width, 0, height});
}

}  // namespace quorvel::tool
