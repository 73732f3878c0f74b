#pragma once
// What the server counts for /metrics, in the Prometheus text exposition format. Every member
// is thread-safe: the HTTP threads record into atomics and a scrape reads them without a lock
// (a scrape may see one request counted in the total but not yet in a bucket; Prometheus
// tolerates that).

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "quorvel/zoom/renderer.hpp"

namespace quorvel::serve {

/// The response cache's own counters, reported beside the tile cache's.
struct ResponseCacheStats {
  size_t hits = 0, misses = 0, evictions = 0, bytes = 0, capacity = 0, entries = 0;
};

class Metrics {
 public:
  /// Upper bounds of the latency histogram in seconds: a warm tile takes about a millisecond,
  /// a cold one of a huge file or a large IIIF region up to seconds.
  static constexpr std::array<double, 12> kBuckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                      0.05,   0.1,   0.25,   0.5,   1.0,  2.5};

  /// Counts one answered request with its status and its time from routing to the body.
  void record(int status, double seconds);
  /// Counts one image rendered (a tile or any IIIF region) rather than found in the cache.
  void rendered() { rendered_.fetch_add(1, std::memory_order_relaxed); }

  /// The exposition text, with the engine's and the response cache's figures.
  std::string text(zoom::EngineStats const& engine, ResponseCacheStats const& responses) const;

 private:
  // Status codes are counted in a fixed table; anything outside 100..599 lands in slot 0.
  std::array<std::atomic<uint64_t>, 600> byStatus_{};
  std::array<std::atomic<uint64_t>, kBuckets.size() + 1> buckets_{};  // last: +Inf only
  std::atomic<uint64_t> count_{0};
  std::atomic<uint64_t> sumMicros_{0};
  std::atomic<uint64_t> rendered_{0};
};

}  // namespace quorvel::serve
