#include <algorithm>

#include "engine_impl.hpp"

namespace quorvel::zoom {
namespace {

using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

// The inverse wavelet doubles the filtered axis: n band elements give 2n samples, of which
// the host keeps what it asks for through the clips.
Filter waveletFilter(char const* name, bool vertical) {
  return Filter(name, 0, 0, 0, 0, 0, 1, 0, 1, vertical ? 1 : 2, 1, vertical ? 2 : 1, 1, 2, 16, 16,
                1, 1, 1, 1, 1, 1, {true, true}, true, 16, Filtering::kLinear);
}

// The 5 x 5 sharpening window: two pixels of input around every output pixel.
Filter sharpenFilter() {
  return Filter("FilterSharpness8", 2, 2, 2, 2, 0, 1, 0, 1, 1, 1, 1, 1, 1, 32, 32, 4, 4, 1, 1, 1, 1,
                {false}, false, 8, Filtering::kLinear);
}

// Scratch tiles of the colour conversion live far above every image's tile ids.
constexpr size_t kScratchTileBase = size_t{1} << 62;

}  // namespace

Engine::Impl::Impl(EngineOptions const& options)
    : context(1, 1, std::max<size_t>(1, options.workers)),
      // int16 tiles cost the cache their sample count, half their bytes.
      backend(Format::kWavelet16, std::max<size_t>(1, options.cacheBytes / 2)),
      instance(backend.createInstance(context)),
      cacheCapacityBytes(options.cacheBytes),
      blit16(pointFilter("BlitFilter1x16", 1, 16, 16, 1, 1, 16)),
      blit8(pointFilter("BlitFilter4x8")),
      vertical(waveletFilter("FilterFirIV53LeGall16", true)),
      horizontal(waveletFilter("FilterFirIH53LeGall16", false)),
      interleave(pointFilter("FilterInterleave16", 3, 16, 48, 1, 3, 16)),
      toRgba(pointFilter("FilterYCoCg16ToRGBA8", 1, 48, 32, 3, 4, 8)),
      toRgb16(pointFilter("FilterYCoCg16ToRGB16", 1, 48, 48, 3, 3, 8)),
      linearGamma(pointFilter("FilterLinear16TosRGB8", 1, 48, 32, 3, 4, 8)),
      srgbGamma(pointFilter("FilterBlackWhiteGamma8")),
      matrix(pointFilter("Filter3x3Matrix8")),
      sharpen(sharpenFilter()),
      clahe(pointFilter("FilterCLAHE", 1, 48, 48, 3, 3, 8)),
      mask(pointFilter("MaskFilter4x8")),
      toYCoCg(pointFilter("FilterRGBA8ToYCoCg16", 1, 32, 48, 4, 3, 8)) {
  for (Filter* f : {&blit16, &blit8, &vertical, &horizontal, &interleave, &toRgba, &toRgb16,
                    &linearGamma, &srgbGamma, &matrix, &sharpen, &clahe, &mask, &toYCoCg}) {
    f->instantiate(instance);
  }
  softInstance = dynamic_cast<SoftwareRenderBackendInstance*>(instance.get());
}

Engine::Impl::~Impl() {
  std::lock_guard<std::mutex> lock(workspaceMutex);
  for (auto& w : idle) w->erase(*instance);
  for (auto const& t : convertTargets) instance->eraseTarget(t.id);
  instance->finalizeDrawSequence();
}

size_t Engine::Impl::reserveTileIds(size_t count) {
  std::lock_guard<std::mutex> lock(storeMutex);
  size_t const base = nextTileId;
  nextTileId += count;
  if (nextTileId >= kScratchTileBase) throw std::length_error("tile ids exhausted");
  return base;
}

void Engine::Impl::convert(uint8_t const* rgba, size_t w, size_t h, int16_t* ycocg) {
  size_t const id = kScratchTileBase + scratchCounter.fetch_add(1);
  auto staging = instance->concurrentStagingBuffer(id, RenderBackend::BufferType::kTile, {w, h, 4});
  staging->setPixels(std::vector<unsigned char>(rgba, rgba + w * h * 4), 0);
  {
    // Locked at once: another thread's upload may evict unlocked tiles at any time.
    std::lock_guard<std::mutex> lock(storeMutex);
    instance->synchronizeConcurrentStagingBuffer(std::move(staging));
    instance->lockTile(id);
  }
  ConvertTarget target{SIZE_MAX, 0, 0};
  {
    std::lock_guard<std::mutex> lock(convertMutex);
    for (auto it = convertTargets.begin(); it != convertTargets.end(); ++it) {
      if (it->w >= w && it->h >= h) {
        target = *it;
        convertTargets.erase(it);
        break;
      }
    }
  }
  if (target.id == SIZE_MAX) {
    target = {instance->createTarget({w, h}, 48, true, Filtering::kNone, Format::kYCoCg16), w, h};
  }
  instance->drawTiles(target.id, toYCoCg, {0, w, 0, h}, {0, w, 0, h}, {w, h}, {{0, 0}}, {id}, {});
  instance->finalizeDrawSequence();
  {
    std::lock_guard<std::mutex> lock(storeMutex);
    instance->eraseTile(id);  // the queued job holds the pixels
  }
  bool failed = true;
  struct Done {
    Impl& impl;
    ConvertTarget target;
    bool const& failed;
    ~Done() {
      std::lock_guard<std::mutex> lock(impl.convertMutex);
      // A target whose job failed keeps its error; a spare beyond a few per worker goes.
      if (failed || impl.convertTargets.size() > impl.context.numberOfWorkerThreads() + 2) {
        impl.instance->eraseTarget(target.id);
        impl.instance->finalizeDrawSequence();
      } else {
        impl.convertTargets.push_back(target);
      }
    }
  } done{*this, target, failed};
  instance->getPixels(ycocg, w * h * 6, target.id, {0, w, 0, h});
  failed = false;
}

// ---------------------------------------------------------------------------------------
// Tile store

Engine::Impl::Lease::~Lease() {
  if (impl != nullptr) impl->release(units);
}

void Engine::Impl::acquire(WaveletEncoder const& encoder, size_t tileBase,
                           std::vector<Unit> const& wanted, Lease& lease) {
  lease.impl = this;
  // Group the wanted depths by block: one encoder run serves every missing depth of it.
  std::vector<Unit> units = wanted;
  std::sort(units.begin(), units.end());
  Pyramid const& p = encoder.pyramid();
  for (size_t i = 0; i < units.size();) {
    size_t j = i;
    while (j < units.size() && units[j].sameBlock(units[i])) ++j;
    std::vector<Unit> missing;
    {
      std::unique_lock<std::mutex> lock(storeMutex);
      for (size_t k = i; k < j; ++k) {
        Unit u = units[k];
        if (u.depth == 0) {
          u.firstTile = tileBase + p.pixelTileId(u.anchor, u.bx, u.by);
          u.tiles = 1;
        } else {
          bool const top = u.depth == p.depthOf(u.anchor);
          u.firstTile = tileBase + p.tileId(u.anchor, u.depth, u.bx, u.by,
                                            top ? Band::kLowLow : Band::kHighLow, 0);
          u.tiles = 3 * (top ? 4 : 3);
        }
        for (;;) {
          auto& state = states[u.firstTile];
          if (state.refs > 0) {
            ++state.refs;
            ++hits;
            lease.units.push_back(u);
            break;
          }
          if (state.encoding) {
            encoded.wait(lock);
            continue;
          }
          bool resident = true;
          for (size_t t = 0; t < u.tiles && resident; ++t) {
            resident = instance->tileSet(u.firstTile + t);
          }
          if (resident) {
            for (size_t t = 0; t < u.tiles; ++t) instance->lockTile(u.firstTile + t);
            state.refs = 1;
            ++hits;
            lease.units.push_back(u);
          } else {
            state.encoding = true;
            if (state.uploaded) ++evictions;
            missing.push_back(u);
          }
          break;
        }
      }
    }
    if (!missing.empty()) upload(encoder, missing, lease);
    i = j;
  }
}

void Engine::Impl::upload(WaveletEncoder const& encoder, std::vector<Unit> const& missing,
                          Lease& lease) {
  // One block: its pixel tile read as it stands, and its coefficient tiles of every missing
  // depth from one encoder run.
  Unit const& first = missing.front();
  Pyramid const& p = encoder.pyramid();
  size_t minDepth = SIZE_MAX;
  bool wantPixels = false;
  for (Unit const& u : missing) {
    if (u.depth > 0) minDepth = std::min(minDepth, u.depth);
    wantPixels |= u.depth == 0;
  }
  std::vector<DepthTiles> tiles;
  std::vector<unsigned char> pixels;
  size_t const t0 = p.tile();
  size_t const blockW = std::min(t0, p.width(first.anchor) - first.bx * t0);
  size_t const blockH = std::min(t0, p.height(first.anchor) - first.by * t0);
  std::exception_ptr failure;
  try {
    if (wantPixels) {
      pixels.resize(blockW * blockH * 4);
      encoder.source().read(first.anchor, {first.bx * t0, first.by * t0, blockW, blockH},
                            pixels.data());
      // Opaque, as the transform's colour channels render it.
      for (size_t i = 3; i < pixels.size(); i += 4) pixels[i] = 255;
    }
    if (minDepth != SIZE_MAX)
      tiles = encoder.encodeBlock(first.anchor, first.bx, first.by, minDepth);
  } catch (...) {
    failure = std::current_exception();
  }
  std::lock_guard<std::mutex> lock(storeMutex);
  if (minDepth != SIZE_MAX) ++blocksEncoded;
  for (Unit const& u : missing) {
    auto& state = states[u.firstTile];
    state.encoding = false;
    if (failure) {
      if (!state.uploaded && state.refs == 0) states.erase(u.firstTile);
      continue;
    }
    // Each tile is locked at once, or the next upload could evict it.
    if (u.depth == 0) {
      instance->setTile(u.firstTile, pixels, {blockW, blockH, 4}, 0);
      instance->lockTile(u.firstTile);
    } else {
      DepthTiles const& d = tiles.at(u.depth - minDepth);
      size_t t = u.firstTile;
      size_t const firstBand = u.tiles == 12 ? 0 : 1;
      for (size_t band = firstBand; band < 4; ++band) {
        for (size_t c = 0; c < 3; ++c, ++t) {
          Plane16 const& plane = d.planes[band][c];
          auto const* bytes = reinterpret_cast<unsigned char const*>(plane.samples.data());
          instance->setTile(t, std::vector<unsigned char>(bytes, bytes + plane.samples.size() * 2),
                            {plane.width, plane.height, 1}, 0);
          instance->lockTile(t);
        }
      }
    }
    state.refs = 1;
    state.uploaded = true;
    ++misses;
    lease.units.push_back(u);
  }
  encoded.notify_all();
  if (failure) std::rethrow_exception(failure);
}

void Engine::Impl::release(std::vector<Unit> const& units) {
  std::lock_guard<std::mutex> lock(storeMutex);
  for (Unit const& u : units) {
    auto it = states.find(u.firstTile);
    if (it == states.end() || it->second.refs == 0) continue;
    if (--it->second.refs == 0) {
      for (size_t t = 0; t < u.tiles; ++t) instance->unlockTile(u.firstTile + t);
    }
  }
}

// ---------------------------------------------------------------------------------------
// Workspaces

size_t Engine::Impl::Workspace::target(RenderBackendInstance& instance, std::vector<size_t> size,
                                       size_t bits, bool isSigned) {
  size_t const id = instance.createTarget(size, bits, isSigned, Filtering::kNone,
                                          bits == 32   ? Format::kRgba8
                                          : bits == 48 ? Format::kYCoCg16
                                                       : Format::kWavelet16);
  targets.push_back(id);
  return id;
}

Engine::Impl::Workspace::Workspace(RenderBackendInstance& instance, size_t region, size_t output)
    : region(region), output(output) {
  for (size_t& t : ll) t = target(instance, {region, region}, 16, true);
  hl = target(instance, {region, region}, 16, true);
  lh = target(instance, {region, region}, 16, true);
  hh = target(instance, {region, region}, 16, true);
  columnsLow = target(instance, {region, region}, 16, true);
  columnsHigh = target(instance, {region, region}, 16, true);
  ycocg = target(instance, {region, region}, 48, true);
  rgb16 = target(instance, {region, region}, 48, true);
  rgbaA = target(instance, {region, region}, 32, false);
  rgbaB = target(instance, {region, region}, 32, false);
  padded = target(instance, {output + 4, output + 4}, 32, false);
  out = target(instance, {output, output}, 32, false);
}

void Engine::Impl::Workspace::erase(RenderBackendInstance& instance) {
  for (size_t t : targets) instance.eraseTarget(t);
  targets.clear();
}

std::unique_ptr<Engine::Impl::Workspace> Engine::Impl::takeWorkspace(size_t region, size_t output) {
  {
    std::lock_guard<std::mutex> lock(workspaceMutex);
    for (auto it = idle.begin(); it != idle.end(); ++it) {
      if ((*it)->region >= region && (*it)->output >= output) {
        auto w = std::move(*it);
        idle.erase(it);
        return w;
      }
    }
  }
  return std::make_unique<Workspace>(*instance, region, output);
}

void Engine::Impl::giveWorkspace(std::unique_ptr<Workspace> w) {
  std::lock_guard<std::mutex> lock(workspaceMutex);
  // Kept for reuse up to a few per worker; a spare beyond that gives its storage back.
  if (idle.size() < 2 * context.numberOfWorkerThreads() + 2) {
    idle.push_back(std::move(w));
  } else {
    w->erase(*instance);
    instance->finalizeDrawSequence();
  }
}

// ---------------------------------------------------------------------------------------

Engine::Engine(EngineOptions const& options) : impl_(std::make_unique<Impl>(options)) {}
Engine::~Engine() = default;

size_t Engine::workers() const { return impl_->context.numberOfWorkerThreads(); }

EngineStats Engine::stats() const {
  EngineStats s;
  {
    std::lock_guard<std::mutex> lock(impl_->storeMutex);
    s.blocksEncoded = impl_->blocksEncoded;
    s.tileHits = impl_->hits;
    s.tileMisses = impl_->misses;
    s.tileEvictions = impl_->evictions;
  }
  s.tilesRendered = impl_->tilesRendered.load();
  s.rendersInFlight = impl_->rendersInFlight.load();
  if (impl_->softInstance != nullptr) {
    // Costs count int16 samples: two bytes each.
    s.cacheBytes = impl_->softInstance->tileCacheStats().totalCost * 2;
  }
  s.cacheCapacity = impl_->cacheCapacityBytes;
  return s;
}

}  // namespace quorvel::zoom
