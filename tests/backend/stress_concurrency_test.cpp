// Stress tests of the backend: many host threads, many batches, failures mixed in, targets
// and instances going away while work is queued, and a long tile stream through a bounded
// cache. Each test runs for a time budget: short by default (a few seconds in total, also
// under ThreadSanitizer), and QUORVEL_STRESS_SECONDS (the soak) spread over the tests.
// Every wait is bounded by the library itself (reads wait for their targets); a deadlock
// shows up as the test's timeout.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quorvel/render.hpp"
#include "support/test_util.hpp"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace quorvel {
namespace {

using Clock = std::chrono::steady_clock;
using Filtering = RenderBackend::ImageFiltering;
using Format = RenderBackend::ImageFormatType;

constexpr size_t kStressTests = 6;  // the tests below that share the soak budget
constexpr char kInErrorState[] = "in error state";

// This test's share of the run: QUORVEL_STRESS_SECONDS over the stress tests, else `fallback`.
Clock::duration budget(std::chrono::milliseconds fallback) {
  if (char const* env = std::getenv("QUORVEL_STRESS_SECONDS")) {
    double const seconds = std::atof(env) / kStressTests;
    if (seconds > 0) {
      return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    }
  }
  return fallback;
}

std::vector<unsigned char> rgbaTile(size_t side, unsigned char value) {
  std::vector<unsigned char> pixels(side * side * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(value + i % 4);
  return pixels;
}

size_t createRgbaTarget(RenderBackendInstance& instance, size_t side) {
  return instance.createTarget({side, side}, 32, false, Filtering::kLinear, Format::kRgba8);
}

// Bytes the process holds: the sanitizer's count of live allocations when there is one
// (its quarantine would otherwise look like growth), else the resident set.
size_t heapBytes() {
  if (__sanitizer_get_current_allocated_bytes != nullptr) {
    return __sanitizer_get_current_allocated_bytes();
  }
  std::ifstream statm("/proc/self/statm");
  size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * 4096;
}

// The text of the failure a read reports, or "" when it succeeds.
std::string readFailure(RenderBackendInstance& instance, size_t target, size_t side) {
  try {
    (void)instance.getPixels(target, {0, side, 0, side});
  } catch (QuorvelException const& e) {
    return e.what();
  }
  return "";
}

// One host round on its own instance, with filter instances that any instance of the
// backend may have created: draw an RGBA tile onto a fresh target; or (every third round,
// from the second) a 2 x 2 grid of 16-bit single-channel tiles of which only the first is
// set, so the other three squares must come out blank; or (every third round, from the
// third) run a filter from a source that was never written, which must fail the target and
// nothing else. Tile values depend on the host, so a tile read from another instance's
// cache shows. Returns whether the outcome was the expected one.
bool hostRound(RenderBackendInstance& instance, Filter const& blit, Filter const& blit16,
               size_t host, size_t round) {
  constexpr size_t kSide = 16;
  auto const value = static_cast<unsigned char>(host * 61 + round * 7);
  bool ok = true;
  if (round % 3 == 1) {
    constexpr size_t kTile = kSide / 2;
    size_t const target =
        instance.createTarget({kSide, kSide}, 16, true, Filtering::kNone, Format::kRgb8);
    size_t const tileId = 10 + round % 3;  // apart from the RGBA tiles: a tile keeps its size
    std::vector<int16_t> const samples(kTile * kTile, static_cast<int16_t>(value * 100 - 9000));
    std::vector<unsigned char> bytes(samples.size() * 2);
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    instance.setTile(tileId, bytes, {kTile, kTile, 1}, 0);
    instance.drawTiles(target, blit16, {0, kSide, 0, kSide}, {0, kSide, 0, kSide}, {kTile, kTile},
                       {{0, 0}, {1, 0}, {0, 1}, {1, 1}}, {tileId, 7, 7, 7}, {});
    instance.finalizeDrawSequence();
    std::vector<unsigned char> const pixels = instance.getPixels(target, {0, kSide, 0, kSide});
    for (size_t y = 0; y < kSide && ok; ++y) {
      for (size_t x = 0; x < kSide && ok; ++x) {
        int16_t v;
        std::memcpy(&v, pixels.data() + (y * kSide + x) * 2, 2);
        ok = v == (x < kTile && y < kTile ? samples[0] : 0);
      }
    }
    instance.eraseTarget(target);
    return ok;
  }
  size_t const target = createRgbaTarget(instance, kSide);
  if (round % 3 == 2) {
    size_t const unwritten = createRgbaTarget(instance, kSide);
    instance.executeFilter(blit, {{unwritten, 0, 0, true}}, kSide, kSide, target, 0, 0, 0, 0,
                           FilterEmptyParams::instance(), {0, 0});
    instance.finalizeDrawSequence();
    ok = readFailure(instance, target, kSide).find(kInErrorState) != std::string::npos;
    instance.eraseTarget(unwritten);
  } else {
    size_t const tileId = round % 5;
    instance.setTile(tileId, rgbaTile(kSide, value), {kSide, kSide, 4}, 0);
    instance.drawTiles(target, blit, {0, kSide, 0, kSide}, {0, kSide, 0, kSide}, {kSide, kSide},
                       {{0, 0}}, {tileId}, {});
    instance.finalizeDrawSequence();
    std::vector<unsigned char> const pixels = instance.getPixels(target, {0, kSide, 0, kSide});
    ok = pixels == rgbaTile(kSide, value);
  }
  instance.eraseTarget(target);
  return ok;
}

TEST(Stress, HostThreadsWithSeparateInstancesOfOneBackend) {
  constexpr size_t kThreads = 4;
  SoftwareRenderContext context(8, 8, 2);
  SoftwareRenderBackend backend(Format::kRgba8, 1 << 20);
  std::vector<std::shared_ptr<RenderBackendInstance>> instances;
  std::vector<Filter> blits, blits16;
  // Filter instances live in one map of the backend: create them before the threads start.
  // Each host runs filters created by every instance in turn, its own and the others'.
  for (size_t t = 0; t < kThreads; ++t) {
    instances.push_back(backend.createInstance(context));
    blits.push_back(pointFilter("BlitFilter4x8"));
    instances.back()->createFilterInstance(blits.back());
    blits16.push_back(pointFilter("BlitFilter1x16"));
    instances.back()->createFilterInstance(blits16.back());
  }
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(600));
  std::atomic<size_t> rounds{0}, wrong{0};
  std::vector<std::thread> hosts;
  for (size_t t = 0; t < kThreads; ++t) {
    hosts.emplace_back([&, t] {
      for (size_t round = 0; round < 12 || Clock::now() < deadline; ++round) {
        size_t const owner = (t + round) % kThreads;
        if (!hostRound(*instances[t], blits[owner], blits16[owner], t, round)) ++wrong;
        ++rounds;
      }
      (void)instances[t]->clearTiles();
    });
  }
  for (auto& host : hosts) host.join();
  EXPECT_EQ(wrong.load(), 0u) << "of " << rounds.load() << " rounds";
  auto const& software = static_cast<SoftwareRenderBackendInstance&>(*instances[0]);
  CacheStats const tiles = software.tileCacheStats();
  EXPECT_EQ(tiles.entries, 0u);
  EXPECT_EQ(tiles.totalCost, 0u);
  EXPECT_EQ(tiles.lockedCost, 0u);
}

TEST(Stress, ThreadsFillStagingBuffersOfOneInstance) {
  constexpr size_t kThreads = 4, kSide = 8;
  SoftwareRenderContext context(8, 8, 2);
  SoftwareRenderBackend backend(Format::kRgba8, 1 << 24);
  auto instance = backend.createInstance(context);
  Filter blit = pointFilter("BlitFilter4x8");
  instance->createFilterInstance(blit);
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(400));
  for (size_t pass = 0; pass < 2 || Clock::now() < deadline; ++pass) {
    // Every thread stages and hands over its own tiles; the tile store is the only shared
    // state they touch.
    constexpr size_t kPerThread = 16;
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (size_t i = 0; i < kPerThread; ++i) {
          size_t const tile = t * kPerThread + i;
          auto staging = instance->concurrentStagingBuffer(tile, RenderBackend::BufferType::kTile,
                                                           {kSide, kSide, 4});
          staging->setPixels(rgbaTile(kSide, static_cast<unsigned char>(tile + pass)), 0);
          EXPECT_TRUE(instance->synchronizeConcurrentStagingBuffer(std::move(staging)));
        }
      });
    }
    for (auto& thread : threads) thread.join();
    // The host thread draws them all and checks each square.
    size_t const tiles = kThreads * kPerThread;
    size_t const target = instance->createTarget({kSide * tiles, kSide}, 32, false,
                                                 Filtering::kLinear, Format::kRgba8);
    std::vector<std::vector<size_t>> coords;
    std::vector<size_t> blocks;
    for (size_t i = 0; i < tiles; ++i) coords.push_back({i, 0}), blocks.push_back(i);
    instance->drawTiles(target, blit, {0, kSide * tiles, 0, kSide}, {0, kSide * tiles, 0, kSide},
                        {kSide, kSide}, coords, blocks, {});
    instance->finalizeDrawSequence();
    for (size_t i = 0; i < tiles; ++i) {
      ASSERT_EQ(instance->getPixels(target, {i * kSide, kSide, 0, kSide}),
                rgbaTile(kSide, static_cast<unsigned char>(i + pass)))
          << "tile " << i << " pass " << pass;
    }
    instance->eraseTarget(target);
  }
  EXPECT_EQ(instance->clearTiles(), kThreads * 16 * kSide * kSide * 4);
}

TEST(Stress, ThousandsOfBatchesWithFailingJobsKeepTheQueueFull) {
  SoftwareRenderContext context(8, 8, 1);
  SoftwareRenderBackend backend(Format::kRgba8, 1 << 20);
  auto instance = backend.createInstance(context);
  Filter blit = pointFilter("BlitFilter4x8");
  instance->createFilterInstance(blit);
  constexpr size_t kSide = 32, kTargets = 24;
  instance->setTile(1, rgbaTile(kSide, 9), {kSide, kSide, 4}, 0);
  size_t const unwritten = createRgbaTarget(*instance, kSide);
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(800));
  size_t batches = 0;
  for (size_t round = 0; round < 2 || Clock::now() < deadline; ++round) {
    std::vector<size_t> targets;
    for (size_t i = 0; i < kTargets; ++i) targets.push_back(createRgbaTarget(*instance, kSide));
    // One batch per target, many more than the queue's 16 slots, so pushes wait for slots.
    for (size_t i = 0; i < kTargets; ++i) {
      if (i % 4 == 3) {
        instance->executeFilter(blit, {{unwritten, 0, 0, true}}, kSide, kSide, targets[i], 0, 0, 0,
                                0, FilterEmptyParams::instance(), {0, 0});
      } else {
        for (int repeat = 0; repeat < 4; ++repeat) {
          instance->drawTiles(targets[i], blit, {0, kSide, 0, kSide}, {0, kSide, 0, kSide},
                              {kSide, kSide}, {{0, 0}}, {1}, {});
        }
      }
      instance->finalizeDrawSequence();
      ++batches;
    }
    for (size_t i = 0; i < kTargets; ++i) {
      std::string const failure = readFailure(*instance, targets[i], kSide);
      if (i % 4 == 3) {
        EXPECT_NE(failure.find(kInErrorState), std::string::npos) << "target " << i;
      } else {
        EXPECT_EQ(failure, "") << "target " << i;
        EXPECT_EQ(instance->getPixels(targets[i], {0, kSide, 0, kSide}), rgbaTile(kSide, 9));
      }
      EXPECT_TRUE(instance->targetReady(targets[i]));
      instance->eraseTarget(targets[i]);
    }
  }
  EXPECT_GE(batches, 2 * kTargets);
  EXPECT_EQ(instance->freeSlots(), 16u) << "every slot is free again once all reads are done";
}

TEST(Stress, TargetsErasedWhileTheirJobsArePending) {
  SoftwareRenderContext context(8, 8, 2);
  SoftwareRenderBackend backend(Format::kRgba8, 1 << 20);
  auto instance = backend.createInstance(context);
  Filter blit = pointFilter("BlitFilter4x8");
  instance->createFilterInstance(blit);
  constexpr size_t kSide = 32;
  instance->setTile(3, rgbaTile(kSide, 40), {kSide, kSide, 4}, 0);
  size_t const keeper = createRgbaTarget(*instance, kSide);
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(500));
  for (size_t round = 0; round < 4 || Clock::now() < deadline; ++round) {
    size_t const doomed = createRgbaTarget(*instance, kSide);
    for (int i = 0; i < 8; ++i) {
      instance->drawTiles(doomed, blit, {0, kSide, 0, kSide}, {0, kSide, 0, kSide}, {kSide, kSide},
                          {{0, 0}}, {3}, {});
    }
    // Erase before the batch is sent, or right after while the worker is busy with it.
    if (round % 2 == 0) instance->finalizeDrawSequence();
    instance->eraseTarget(doomed);
    instance->drawTiles(keeper, blit, {0, kSide, 0, kSide}, {0, kSide, 0, kSide}, {kSide, kSide},
                        {{0, 0}}, {3}, {});
    instance->finalizeDrawSequence();
    // The erased id comes back at once; the other target is untouched by the erasure.
    size_t const reused = createRgbaTarget(*instance, 4);
    EXPECT_EQ(reused, doomed);
    ASSERT_EQ(instance->getPixels(keeper, {0, kSide, 0, kSide}), rgbaTile(kSide, 40));
    instance->eraseTarget(reused);
  }
}

TEST(Stress, InstancesDestroyedWithBatchesQueued) {
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(500));
  for (size_t round = 0; round < 4 || Clock::now() < deadline; ++round) {
    // Alternate rounds take the filter through its description, which then holds the
    // instance, and one or two workers, so that the first four rounds meet every pairing.
    bool const viaDescription = round % 2 == 0;
    SoftwareRenderContext context(8, 8, 1 + round / 2 % 2);
    auto backend = std::make_unique<SoftwareRenderBackend>(Format::kRgba8, 1 << 20);
    auto instance = backend->createInstance(context);
    auto second = backend->createInstance(context);
    auto blit = std::make_unique<Filter>(pointFilter("BlitFilter4x8"));
    if (viaDescription) {
      blit->instantiate(instance);
    } else {
      instance->createFilterInstance(*blit);
    }
    constexpr size_t kSide = 32;
    instance->setTile(0, rgbaTile(kSide, 1), {kSide, kSide, 4}, 0);
    for (int batch = 0; batch < 24; ++batch) {
      size_t const target = createRgbaTarget(*instance, kSide);
      instance->drawTiles(target, *blit, {0, kSide, 0, kSide}, {0, kSide, 0, kSide}, {kSide, kSide},
                          {{0, 0}, {0, 0}}, {0, 7}, {});
      instance->finalizeDrawSequence();
    }
    if (viaDescription) {
      // The description goes first, dropping the kernel it holds while batches still use
      // it; then the instances, the last one while the backend is still there.
      blit.reset();
      instance.reset();
      second.reset();
      backend.reset();
    } else {
      // The instance goes first, then the backend, then the last instance, whose
      // destruction drains the queue while its batches still hold their targets and kernel.
      instance.reset();
      backend.reset();
      second.reset();
      blit.reset();
    }
  }
}

TEST(Stress, TenThousandTilesThroughABoundedCacheKeepMemoryFlat) {
  constexpr size_t kSide = 64, kTiles = 10000, kPerDraw = 50, kWarmUp = 2000;
  constexpr size_t kCapacity = 64 * kSide * kSide * 4;  // 64 tiles' worth of samples
  SoftwareRenderContext context(8, 8, 2);
  SoftwareRenderBackend backend(Format::kRgba8, kCapacity);
  auto instance = backend.createInstance(context);
  auto& software = static_cast<SoftwareRenderBackendInstance&>(*instance);
  Filter blit = pointFilter("BlitFilter4x8");
  instance->createFilterInstance(blit);
  size_t const target = instance->createTarget({kSide * kPerDraw, kSide}, 32, false,
                                               Filtering::kLinear, Format::kRgba8);
  auto const deadline = Clock::now() + budget(std::chrono::milliseconds(0));
  size_t baseline = 0, peak = 0, tiles = 0;
  for (size_t pass = 0; pass == 0 || Clock::now() < deadline; ++pass) {
    for (size_t first = 0; first < kTiles; first += kPerDraw, tiles += kPerDraw) {
      std::vector<std::vector<size_t>> coords;
      std::vector<size_t> blocks;
      for (size_t i = 0; i < kPerDraw; ++i) {
        size_t const id = pass * kTiles + first + i;
        instance->setTile(id, rgbaTile(kSide, static_cast<unsigned char>(id)), {kSide, kSide, 4},
                          0);
        coords.push_back({i, 0});
        blocks.push_back(id);
      }
      instance->drawTiles(target, blit, {0, kSide * kPerDraw, 0, kSide},
                          {0, kSide * kPerDraw, 0, kSide}, {kSide, kSide}, coords, blocks, {});
      instance->finalizeDrawSequence();
      instance->waitForTarget(target);
      ASSERT_LE(software.tileCacheStats().totalCost, kCapacity + kSide * kSide * 4);
      if (tiles == kWarmUp) baseline = heapBytes();
      if (tiles > kWarmUp) peak = std::max(peak, heapBytes());
    }
  }
  // The last square drawn holds the last tile uploaded.
  size_t const last = tiles - 1;
  EXPECT_EQ(instance->getPixels(target, {(kPerDraw - 1) * kSide, kSide, 0, kSide}),
            rgbaTile(kSide, static_cast<unsigned char>(last)));
  // After warm-up the cache only recycles: growth stays well under the 16 MB it would take
  // to keep even a tenth of the tiles.
  EXPECT_LT(peak, baseline + (8u << 20)) << "baseline " << baseline << " peak " << peak;
}

}  // namespace
}  // namespace quorvel
