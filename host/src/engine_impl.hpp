#pragma once
// The inside of an Engine: the backend and its one instance, the filters, the coefficient
// tile store and the pool of render workspaces.
//
// One instance serves every thread: tiles are keyed by instance, so a second instance could
// not draw the tiles the first uploaded. The backend keeps one batch per host thread and
// locks its shared caches and target map; what this layer adds is one mutex around every
// change to the tile cache (uploads, locks, residency checks), so that no upload can evict
// a tile between the check that found it and the lock that pins it.

#include <array>
#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <quorvel/render.hpp>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "quorvel/zoom/renderer.hpp"

namespace quorvel::zoom {

struct Engine::Impl {
  explicit Impl(EngineOptions const& options);
  ~Impl();

  SoftwareRenderContext context;
  SoftwareRenderBackend backend;
  std::shared_ptr<RenderBackendInstance> instance;
  SoftwareRenderBackendInstance* softInstance = nullptr;
  size_t cacheCapacityBytes;

  Filter blit16, blit8, vertical, horizontal, interleave, toRgba, toRgb16, linearGamma, srgbGamma,
      matrix, sharpen, clahe, mask, toYCoCg;

  /// RGBA8 to interleaved YCoCg16 through the backend's colour filter. Thread-safe.
  void convert(uint8_t const* rgba, size_t w, size_t h, int16_t* ycocg);

  /// YCoCg16 targets of the conversion, kept for reuse: encoder regions are nearly all the
  /// same size, and a new target each time cost an allocation and its page faults.
  struct ConvertTarget {
    size_t id, w, h;
  };
  std::mutex convertMutex;
  std::vector<ConvertTarget> convertTargets;

  // ---- tile store ---------------------------------------------------------------------
  /// The tiles of one depth of one block: bands x channels consecutive tile ids; depth 0
  /// is the block's RGBA8 pixel tile at a native anchor.
  struct Unit {
    size_t anchor = 0, depth = 0, bx = 0, by = 0;
    size_t firstTile = 0, tiles = 0;
    bool sameBlock(Unit const& o) const { return anchor == o.anchor && bx == o.bx && by == o.by; }
    friend bool operator<(Unit const& a, Unit const& b) {
      return std::tie(a.anchor, a.by, a.bx, a.depth) < std::tie(b.anchor, b.by, b.bx, b.depth);
    }
  };
  /// Units a render holds locked; released (unlocked for the LRU) when it goes.
  struct Lease {
    Impl* impl = nullptr;
    std::vector<Unit> units;
    Lease() = default;
    Lease(Lease const&) = delete;
    Lease& operator=(Lease const&) = delete;
    ~Lease();
  };
  struct UnitState {
    size_t refs = 0;        // leases holding the unit's tiles locked
    bool encoding = false;  // a thread is encoding it; others wait on `encoded`
    bool uploaded = false;  // was in the cache once (a later miss is an eviction)
  };

  /// Makes every wanted unit resident and locked in `lease`, encoding blocks on this thread
  /// where tiles are missing. Thread-safe.
  void acquire(WaveletEncoder const& encoder, size_t tileBase, std::vector<Unit> const& wanted,
               Lease& lease);
  size_t reserveTileIds(size_t count);

  mutable std::mutex storeMutex;
  std::condition_variable encoded;
  std::unordered_map<size_t, UnitState> states;  // by first tile id
  size_t nextTileId = 0;
  size_t blocksEncoded = 0, hits = 0, misses = 0, evictions = 0;
  std::atomic<size_t> scratchCounter{0};

  // ---- workspaces -----------------------------------------------------------------------
  /// The targets of one output tile's batch, for regions up to `region` pixels square and
  /// output tiles up to `output`, and the parameter objects its jobs point to (they must
  /// live until the batch has run).
  struct Workspace {
    Workspace(RenderBackendInstance& instance, size_t region, size_t output);
    void erase(RenderBackendInstance& instance);
    size_t target(RenderBackendInstance& instance, std::vector<size_t> size, size_t bits,
                  bool isSigned);

    size_t region, output;
    std::array<size_t, 3> ll{};
    size_t hl = 0, lh = 0, hh = 0, columnsLow = 0, columnsHigh = 0;
    size_t ycocg = 0, rgb16 = 0, rgbaA = 0, rgbaB = 0, padded = 0, out = 0;
    std::vector<size_t> targets;
    FilterLinear16TosRGB8Params linearGammaParams;
    FilterBlackWhiteGamma8Params srgbGammaParams;
    Filter3x3MatrixParams matrixParams;
    FilterSharpness8Params sharpenParams;
    FilterClaheParams claheParams;
  };
  std::unique_ptr<Workspace> takeWorkspace(size_t region, size_t output);
  void giveWorkspace(std::unique_ptr<Workspace> w);

  std::mutex workspaceMutex;
  std::vector<std::unique_ptr<Workspace>> idle;

  std::atomic<size_t> tilesRendered{0}, rendersInFlight{0};

 private:
  void upload(WaveletEncoder const& encoder, std::vector<Unit> const& missing, Lease& lease);
  void release(std::vector<Unit> const& units);
};

}  // namespace quorvel::zoom
