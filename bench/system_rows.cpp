// Whole-path and throughput rows: a draw sequence of coefficient tiles through the backend
// with one and with two workers (timed side by side), what handing a tile's working set
// between two threads costs on this machine, and Google Benchmark runs of the work queue
// alone, the LRU map at a million entries and envelope queries at growing counts.

#include "system_rows.hpp"

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "backend/renderer.hpp"
#include "backend/shared_caches.hpp"
#include "fixtures.hpp"
#include "quorvel/render.hpp"

namespace quorvel::bench {
namespace {

// ---------------------------------------------------------------------------------------
// Whole path
// ---------------------------------------------------------------------------------------

constexpr size_t kTileSide = 256;            // reconstructed tile
constexpr size_t kLevels = 3;                // wavelet levels, coarsest band 32 x 32
constexpr size_t kCoarsest = 32;             // band side at the coarsest level
constexpr size_t kTilesPerRun = 64;          // tiles of one timed draw sequence
constexpr size_t kPlanes = 1 + 3 * kLevels;  // LL, then three detail bands per level

using Format = RenderBackend::ImageFormatType;
using Filtering = RenderBackend::ImageFiltering;

/// Band side (with the two extra samples every band carries) of plane p of a channel.
size_t planeSide(size_t p) { return (p == 0 ? kCoarsest : kCoarsest << ((p - 1) / 3)) + 2; }

/// A backend instance that reconstructs 256 x 256 RGBA tiles from three channels of 16-bit
/// coefficients: upload, three levels of vertical then horizontal inverse wavelet per
/// channel, interleave, YCoCg to RGBA, sRGB, read back. Two slots of targets let two tiles be
/// in flight at once.
class WholePath {
 public:
  explicit WholePath(size_t workers)
      : context_(64, 64, workers),
        backend_(Format::kWavelet16, size_t{1} << 26),
        instance_(backend_.createInstance(context_)),
        blit_(pointFilter("BlitFilter1x16", 1, 16, 16, 1, 1, 16)),
        vertical_("FilterFirIV53LeGall16", 0, 0, 0, 0, 0, 1, 0, 1, 1, 1, 2, 1, 2, 16, 16, 1, 1, 1,
                  1, 1, 1, {true, true}, true, 16, Filtering::kNone),
        horizontal_("FilterFirIH53LeGall16", 0, 0, 0, 0, 0, 1, 0, 1, 2, 1, 1, 1, 2, 16, 16, 1, 1, 1,
                    1, 1, 1, {true, true}, true, 16, Filtering::kNone),
        interleave_(pointFilter("FilterInterleave16", 3, 16, 48, 1, 3, 16)),
        toRgba_(pointFilter("FilterYCoCg16ToRGBA8", 1, 48, 32, 3, 4, 16)),
        srgb_(pointFilter("FilterLinear8ToSRGB8")),
        pixels_(kTileSide * kTileSide * 4) {
    for (Filter* f : {&blit_, &vertical_, &horizontal_, &interleave_, &toRgba_, &srgb_}) {
      f->instantiate(instance_);
    }
    // Random small coefficients: the low band around mid-grey, details near zero.
    FastRandom random(42);
    for (size_t c = 0; c < 3; ++c) {
      for (size_t p = 0; p < kPlanes; ++p) {
        size_t const side = planeSide(p);
        std::vector<int16_t> values(side * side);
        for (auto& v : values) {
          v = static_cast<int16_t>(p == 0 ? random.range(c == 0 ? 0 : -64, c == 0 ? 255 : 64)
                                          : random.range(-12, 12));
        }
        auto& bytes = coefficients_[c][p];
        bytes.resize(values.size() * sizeof(int16_t));
        std::memcpy(bytes.data(), values.data(), bytes.size());
      }
    }
    for (Slot& slot : slots_) createTargets(slot);
  }

  /// True when the last tile read back is complete: every pixel written (alpha 255, which
  /// only the colour transform sets) and not all of one colour. Guards the geometry.
  bool lastTileLooksRendered() const {
    bool varied = false;
    for (size_t i = 0; i < pixels_.size(); i += 4) {
      if (pixels_[i + 3] != 255) return false;
      varied = varied || pixels_[i] != pixels_[0];
    }
    return varied;
  }

  /// Draws `tiles` tiles with two in flight (one finalizeDrawSequence each) and reads every
  /// one back.
  void run(size_t tiles) {
    for (size_t i = 0; i < tiles; ++i) {
      if (i >= slots_.size()) readBack(slots_[i % slots_.size()]);
      draw(i % slots_.size());
    }
    for (size_t i = tiles > slots_.size() ? tiles - slots_.size() : 0; i < tiles; ++i) {
      readBack(slots_[i % slots_.size()]);
    }
  }

 private:
  struct Channel {
    std::array<size_t, kPlanes> bands;           // uploaded planes drawn into targets
    std::array<size_t, kLevels> low, high, out;  // vertical results and level outputs
  };
  struct Slot {
    std::array<Channel, 3> channels;
    size_t yCoCg, rgba, srgb;
    size_t firstTile;
  };

  size_t target(size_t width, size_t height, size_t bits, bool isSigned) {
    return instance_->createTarget({width, height}, bits, isSigned, Filtering::kNone,
                                   Format::kWavelet16);
  }

  void createTargets(Slot& slot) {
    slot.firstTile = 100 * static_cast<size_t>(&slot - slots_.data());
    for (Channel& ch : slot.channels) {
      for (size_t p = 0; p < kPlanes; ++p)
        ch.bands[p] = target(planeSide(p), planeSide(p), 16, true);
      for (size_t l = 0; l < kLevels; ++l) {
        size_t const s = kCoarsest << l;
        // Vertical results: s + 2 columns (the horizontal pass reads two past the last pair),
        // 2s rows written plus two spare; the level output is the next level's low band.
        ch.low[l] = target(s + 2, 2 * s + 2, 16, true);
        ch.high[l] = target(s + 2, 2 * s + 2, 16, true);
        ch.out[l] = target(2 * s + 2, 2 * s + 2, 16, true);
      }
    }
    slot.yCoCg = target(kTileSide, kTileSide, 48, true);
    slot.rgba = target(kTileSide, kTileSide, 32, false);
    slot.srgb = target(kTileSide, kTileSide, 32, false);
  }

  void draw(size_t slotIndex) {
    Slot const& slot = slots_[slotIndex];
    auto const& none = FilterEmptyParams::instance();
    for (size_t c = 0; c < 3; ++c) {
      Channel const& ch = slot.channels[c];
      // Upload: every band plane goes through the tile cache and is drawn into its target.
      for (size_t p = 0; p < kPlanes; ++p) {
        size_t const side = planeSide(p), tile = slot.firstTile + 10 * c + p;
        instance_->setTile(tile, coefficients_[c][p], {side, side, 1}, 0);
        instance_->drawTiles(ch.bands[p], blit_, {0, side, 0, side}, {0, side, 0, side},
                             {side, side}, {{0, 0}}, {tile}, {});
      }
      // Reconstruct: per level, two vertical merges (L with LH, HL with HH) and one
      // horizontal merge of their results; the clips trim the 2 * (s + 2) outputs to 2s.
      for (size_t l = 0; l < kLevels; ++l) {
        size_t const s = kCoarsest << l;
        size_t const low = l == 0 ? ch.bands[0] : ch.out[l - 1];
        size_t const hl = ch.bands[1 + 3 * l], lh = ch.bands[2 + 3 * l], hh = ch.bands[3 + 3 * l];
        instance_->executeFilter(vertical_, {{low, 0, 0, false}, {lh, 0, 0, false}}, s + 2, s + 2,
                                 ch.low[l], 0, 0, 0, 4, none, {0, 0});
        instance_->executeFilter(vertical_, {{hl, 0, 0, false}, {hh, 0, 0, false}}, s + 2, s + 2,
                                 ch.high[l], 0, 0, 0, 4, none, {0, 0});
        instance_->executeFilter(horizontal_, {{ch.low[l], 0, 0, false}, {ch.high[l], 0, 0, false}},
                                 s + 2, 2 * s + 2, ch.out[l], 0, 4, 0, 0, none, {0, 0});
      }
    }
    auto const& channels = slot.channels;
    instance_->executeFilter(interleave_,
                             {{channels[0].out[kLevels - 1], 0, 0, false},
                              {channels[1].out[kLevels - 1], 0, 0, false},
                              {channels[2].out[kLevels - 1], 0, 0, false}},
                             kTileSide, kTileSide, slot.yCoCg, 0, 0, 0, 0, none, {0, 0});
    instance_->executeFilter(toRgba_, {{slot.yCoCg, 0, 0, true}}, kTileSide, kTileSide, slot.rgba,
                             0, 0, 0, 0, none, {0, 0});
    instance_->executeFilter(srgb_, {{slot.rgba, 0, 0, true}}, kTileSide, kTileSide, slot.srgb, 0,
                             0, 0, 0, none, {0, 0});
    instance_->finalizeDrawSequence();
  }

  void readBack(Slot const& slot) {
    instance_->getPixels(pixels_.data(), pixels_.size(), slot.srgb, {0, kTileSide, 0, kTileSide});
  }

  SoftwareRenderContext context_;
  SoftwareRenderBackend backend_;
  std::shared_ptr<RenderBackendInstance> instance_;
  // Declared after the instance: a filter asks its instance to drop the kernel when it dies.
  Filter blit_, vertical_, horizontal_, interleave_, toRgba_, srgb_;
  std::array<std::array<std::vector<unsigned char>, kPlanes>, 3> coefficients_;
  std::array<Slot, 2> slots_{};
  std::vector<unsigned char> pixels_;
};

std::string rateText(double perSecond, char const* unit) {
  char text[64];
  if (perSecond >= 1e6) {
    std::snprintf(text, sizeof text, "%.2f M %s/s", perSecond / 1e6, unit);
  } else if (perSecond >= 1e3) {
    std::snprintf(text, sizeof text, "%.1f k %s/s", perSecond / 1e3, unit);
  } else {
    std::snprintf(text, sizeof text, "%.0f %s/s", perSecond, unit);
  }
  return text;
}

std::vector<Row> wholePathRows(Settings const& settings) {
  WholePath one(1), two(2);
  // Warm-up: every target allocated, every kernel table built.
  one.run(4);
  two.run(4);
  if (!one.lastTileLooksRendered() || !two.lastTileLooksRendered()) {
    std::fprintf(stderr, "whole path: the read-back tile is incomplete; rows skipped\n");
    return {};
  }
  // The work runs on the workers: wall-clock time, and a longer row for the longer samples.
  Settings longer = settings;
  longer.rowSeconds = 3 * settings.rowSeconds;
  longer.timing = Timing::kWall;
  std::vector<double> const t = medianSecondsSideBySide(
      {[&] { one.run(kTilesPerRun); }, [&] { two.run(kTilesPerRun); }}, longer);

  std::vector<Row> rows;
  double const pixels = double(kTilesPerRun * kTileSide * kTileSide);
  for (size_t i = 0; i < 2; ++i) {
    Row row;
    row.operation = "Whole path: upload, wavelet x3, interleave, YCoCg→RGBA, sRGB, read back";
    row.size = std::to_string(kTilesPerRun) + " tiles of 256x256";
    row.threads = std::to_string(i + 1);
    row.mpixelPerSecond = pixels / t[i] / 1e6;
    row.note = rateText(double(kTilesPerRun) / t[i], "tiles");
    if (i == 1) {
      char scaling[64];
      std::snprintf(scaling, sizeof scaling, "; scaling %.2fx over 1 worker", t[0] / t[1]);
      row.note += scaling;
    }
    rows.push_back(row);
  }
  return rows;
}

// ---------------------------------------------------------------------------------------
// Working sets handed between threads
// ---------------------------------------------------------------------------------------

constexpr size_t kHandoffBytes = size_t{1} << 20;  // each of a set's two buffers
constexpr size_t kHandoffTiles = 600;

/// A set of targets as a tile of the demo's render uses them: 2 MiB written and read again.
struct WorkingSet {
  std::vector<uint8_t> a = std::vector<uint8_t>(kHandoffBytes), b = a;
  std::mutex busy;
  uint64_t tile(uint8_t value) {
    std::memset(a.data(), value, a.size());
    std::memcpy(b.data(), a.data(), a.size());
    std::memcpy(a.data(), b.data(), a.size());
    uint64_t sum = 0;
    for (size_t i = 0; i < a.size(); i += 64) sum += a[i];
    return sum;
  }
};

/// Runs kHandoffTiles tiles on `threads` threads, each tile on the next of three shared
/// working sets (as the render's slots are used by whichever worker takes a tile) or, with
/// `own`, on a set each thread keeps.
void handOff(std::array<WorkingSet, 3>& sets, size_t threads, bool own) {
  std::atomic<size_t> next{0};
  std::atomic<uint64_t> sink{0};
  std::vector<std::thread> pool;
  for (size_t t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      uint64_t sum = 0;
      for (size_t k; (k = next.fetch_add(1)) < kHandoffTiles;) {
        WorkingSet& set = sets[own ? t : k % sets.size()];
        std::lock_guard<std::mutex> lock(set.busy);
        sum += set.tile(static_cast<uint8_t>(k));
      }
      sink += sum;
    });
  }
  for (auto& thread : pool) thread.join();
  benchmark::DoNotOptimize(sink.load());
}

std::vector<Row> handoffRows(Settings const& settings) {
  auto sets = std::make_unique<std::array<WorkingSet, 3>>();
  Settings wall = settings;
  wall.timing = Timing::kWall;
  std::vector<double> const t =
      medianSecondsSideBySide({[&] { handOff(*sets, 1, false); }, [&] { handOff(*sets, 2, false); },
                               [&] { handOff(*sets, 2, true); }},
                              wall);
  char const* const notes[] = {"three sets, round robin",
                               "each tile on the next of three shared sets",
                               "each thread on a set of its own"};
  std::vector<Row> rows;
  for (size_t i = 0; i < 3; ++i) {
    Row row;
    row.operation = "Tiles of 2 MiB working sets: write, copy twice, read";
    row.size = std::to_string(kHandoffTiles) + " tiles";
    row.threads = i == 0 ? "1" : "2";
    row.note = rateText(double(kHandoffTiles) / t[i], "tiles");
    row.note += std::string("; ") + notes[i];
    if (i > 0) {
      char scaling[64];
      std::snprintf(scaling, sizeof scaling, "; scaling %.2fx over 1 thread", t[0] / t[i]);
      row.note += scaling;
    }
    rows.push_back(row);
  }
  return rows;
}

// ---------------------------------------------------------------------------------------
// Throughput rows (Google Benchmark)
// ---------------------------------------------------------------------------------------

/// Empty batches pushed through the backend's work queue and run by its workers.
void workQueueBatches(benchmark::State& state, size_t workers) {
  ParallelWorkQueue<RenderJobList, JobRenderer, 16> queue(workers);
  std::atomic<size_t> done{0};
  size_t pushed = 0;
  for (auto _ : state) {
    queue(RenderJobList{}, [&done](RenderJobList& batch, JobRenderer& renderer) {
      JobRenderer::runBatch(batch, renderer);
      done.fetch_add(1, std::memory_order_relaxed);
    });
    ++pushed;
  }
  // At most the 16 queued batches are still outstanding; they are not timed.
  while (done.load() < pushed) std::this_thread::yield();
  state.SetItemsProcessed(static_cast<int64_t>(pushed));
}

using TileMap = LruMap<backend_detail::TileKey, std::shared_ptr<Buffer2D>>;
constexpr size_t kMapEntries = 1'000'000;

/// A map of a million unit-cost entries at exactly its capacity.
std::unique_ptr<TileMap> filledMap() {
  auto map = std::make_unique<TileMap>(kMapEntries);
  for (size_t i = 0; i < kMapEntries; ++i) map->access({0, i});
  return map;
}

/// Hits: random present keys, each moved to the most recently used end.
void lruAccess(benchmark::State& state) {
  static std::unique_ptr<TileMap> const map = filledMap();
  std::vector<size_t> keys(1 << 16);
  FastRandom random(7);
  for (auto& k : keys) k = random.next() % kMapEntries;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&map->access({0, keys[i++ & 0xFFFF]}));
  }
  state.SetItemsProcessed(state.iterations());
}

/// Misses at capacity: every new key evicts the least recently used entry.
void lruEvict(benchmark::State& state) {
  static std::unique_ptr<TileMap> const map = filledMap();
  static size_t next = kMapEntries;
  for (auto _ : state) {
    benchmark::DoNotOptimize(&map->access({0, next++}));
  }
  state.SetItemsProcessed(state.iterations());
}

/// Envelopes of 50..150 pixels scattered with constant density, queried with 512 x 512
/// regions: the answer size stays the same while the count grows, so the time shows the
/// index's growth.
void envelopeQueries(benchmark::State& state, size_t count) {
  DataEnvelopes envelopes;
  EnvelopeData data(1);
  data[0].first = {1};
  auto const extent = static_cast<uint32_t>(std::sqrt(double(count)) * 200);
  FastRandom random(count);
  for (size_t i = 0; i < count; ++i) {
    auto const x = static_cast<uint32_t>(random.next() % extent);
    auto const y = static_cast<uint32_t>(random.next() % extent);
    auto const w = static_cast<uint32_t>(random.range(50, 150));
    auto const h = static_cast<uint32_t>(random.range(50, 150));
    data[0].second.push_back({x, x + w, y, y + h});
  }
  envelopes.set({'b'}, data);
  std::vector<DataEnvelopes::Rect> regions(1 << 12);
  for (auto& r : regions) {
    auto const x = static_cast<int64_t>(random.next() % extent);
    auto const y = static_cast<int64_t>(random.next() % extent);
    r = {x, x + 511, y, y + 511};
  }
  size_t i = 0, found = 0;
  for (auto _ : state) {
    auto const hits = envelopes.intersecting(regions[i++ & 0xFFF]);
    found += hits.size();
    benchmark::DoNotOptimize(hits.data());
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["hits"] = double(found) / double(state.iterations());
}

/// Collects the median aggregate of a Google Benchmark run.
class MedianCollector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(Context const&) override { return true; }
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs) {
      bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      // Without repetitions there is no aggregate: the single run is the answer.
      if (!median && run.run_type == Run::RT_Aggregate) continue;
      for (auto const& [name, counter] : run.counters) counters[name] = counter.value;
    }
  }
  std::map<std::string, double> counters;
};

/// Runs the Google Benchmark registered under exactly `name`; its counters, or none.
std::map<std::string, double> runGoogleBenchmark(std::string const& name) {
  MedianCollector collector;
  // Google Benchmark appends "/real_time" to rows timed by the wall clock.
  benchmark::RunSpecifiedBenchmarks(&collector, "^" + name + "(/real_time)?$");
  return collector.counters;
}

Row throughputRow(std::string const& benchmarkName, std::string operation, std::string size,
                  std::string threads, char const* unit) {
  auto counters = runGoogleBenchmark(benchmarkName);
  Row row;
  row.operation = std::move(operation);
  row.size = std::move(size);
  row.threads = std::move(threads);
  double const rate = counters["items_per_second"];
  row.note = rateText(rate, unit);
  if (counters.count("hits") != 0) {
    char text[96];
    std::snprintf(text, sizeof text, " (%.2f µs per query, %.1f hits)", 1e6 / rate,
                  counters["hits"]);
    row.note += text;
  }
  return row;
}

}  // namespace

void registerSystemRows(Registry& registry) {
  registry.addCustom("WholePath/64x256x256", wholePathRows);
  registry.addCustom("Handoff/2MiB", handoffRows);

  for (size_t workers : {size_t{1}, size_t{2}}) {
    std::string const name = "WorkQueue/emptyBatches/" + std::to_string(workers);
    benchmark::RegisterBenchmark(name.c_str(), [workers](benchmark::State& state) {
      workQueueBatches(state, workers);
    })->UseRealTime();
    registry.addCustom(name, [name, workers](Settings const&) {
      return std::vector<Row>{throughputRow(name, "Work queue: empty batches, push and run",
                                            "empty batch", std::to_string(workers), "batches")};
    });
  }

  benchmark::RegisterBenchmark("LruMap/access/1000000", lruAccess);
  registry.addCustom("LruMap/access/1000000", [](Settings const&) {
    return std::vector<Row>{
        throughputRow("LruMap/access/1000000", "LruMap access (hit)", "10^6 entries", "1", "ops")};
  });
  benchmark::RegisterBenchmark("LruMap/evict/1000000", lruEvict);
  registry.addCustom("LruMap/evict/1000000", [](Settings const&) {
    return std::vector<Row>{throughputRow("LruMap/evict/1000000",
                                          "LruMap access (miss: evict + insert)", "10^6 entries",
                                          "1", "ops")};
  });

  for (size_t count : {size_t{1000}, size_t{10000}, size_t{100000}}) {
    std::string const name = "Envelopes/query/" + std::to_string(count);
    benchmark::RegisterBenchmark(
        name.c_str(), [count](benchmark::State& state) { envelopeQueries(state, count); });
    int const exponent = static_cast<int>(std::lround(std::log10(double(count))));
    registry.addCustom(name, [name, exponent](Settings const&) {
      return std::vector<Row>{throughputRow(name, "Envelope query, 512x512 region",
                                            "10^" + std::to_string(exponent) + " envelopes", "1",
                                            "queries")};
    });
  }
}

}  // namespace quorvel::bench
