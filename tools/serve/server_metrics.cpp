#include "server_metrics.hpp"

#include <cstdio>

namespace quorvel::serve {
namespace {

void add(std::string& out, char const* name, char const* type, char const* help) {
  out += "# HELP ";
  out += name;
  out += ' ';
  out += help;
  out += "\n# TYPE ";
  out += name;
  out += ' ';
  out += type;
  out += '\n';
}

void sample(std::string& out, char const* name, uint64_t value, std::string const& labels = {}) {
  out += name;
  if (!labels.empty()) out += "{" + labels + "}";
  out += ' ';
  out += std::to_string(value);
  out += '\n';
}

std::string formatSeconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", seconds);
  return text;
}

}  // namespace

void Metrics::record(int status, double seconds) {
  size_t const slot = status >= 100 && status < 600 ? size_t(status) : 0;
  byStatus_[slot].fetch_add(1, std::memory_order_relaxed);
  size_t bucket = 0;
  while (bucket < kBuckets.size() && seconds > kBuckets[bucket]) ++bucket;
  buckets_[bucket].fetch_add(1, std::memory_order_relaxed);
  count_.fetch_add(1, std::memory_order_relaxed);
  sumMicros_.fetch_add(uint64_t(seconds * 1e6 + 0.5), std::memory_order_relaxed);
}

std::string Metrics::text(zoom::EngineStats const& engine,
                          ResponseCacheStats const& responses) const {
  std::string out;
  add(out, "quorvel_http_requests_total", "counter", "HTTP requests answered, by status.");
  for (size_t s = 0; s < byStatus_.size(); ++s) {
    uint64_t const n = byStatus_[s].load(std::memory_order_relaxed);
    if (n) {
      sample(out, "quorvel_http_requests_total", n,
             "code=\"" + (s ? std::to_string(s) : std::string("other")) + "\"");
    }
  }

  add(out, "quorvel_http_request_duration_seconds", "histogram",
      "Time from routing a request to having its body.");
  uint64_t cumulative = 0;
  for (size_t b = 0; b < buckets_.size(); ++b) {
    cumulative += buckets_[b].load(std::memory_order_relaxed);
    std::string const le = b < kBuckets.size() ? formatSeconds(kBuckets[b]) : "+Inf";
    sample(out, "quorvel_http_request_duration_seconds_bucket", cumulative, "le=\"" + le + "\"");
  }
  out += "quorvel_http_request_duration_seconds_sum " +
         formatSeconds(double(sumMicros_.load(std::memory_order_relaxed)) * 1e-6) + "\n";
  sample(out, "quorvel_http_request_duration_seconds_count",
         count_.load(std::memory_order_relaxed));

  // The single-valued series, one row each: name, type, help, value.
  struct Series {
    char const* name;
    char const* type;
    char const* help;
    uint64_t value;
  };
  Series const series[] = {
      {"quorvel_images_rendered_total", "counter",
       "Images rendered by the backend (tiles and IIIF regions), not answered from a cache.",
       rendered_.load(std::memory_order_relaxed)},
      {"quorvel_output_tiles_rendered_total", "counter", "Output tiles (backend batches) rendered.",
       engine.tilesRendered},
      {"quorvel_renders_in_flight", "gauge", "Render calls running now.", engine.rendersInFlight},
      {"quorvel_tile_cache_hits_total", "counter",
       "Coefficient tile groups found in the backend's tile cache.", engine.tileHits},
      {"quorvel_tile_cache_misses_total", "counter",
       "Coefficient tile groups that had to be encoded.", engine.tileMisses},
      {"quorvel_tile_cache_evictions_total", "counter",
       "Coefficient tile groups encoded again after the cache had dropped them.",
       engine.tileEvictions},
      {"quorvel_tile_cache_bytes", "gauge", "Bytes held by the tile cache.", engine.cacheBytes},
      {"quorvel_tile_cache_capacity_bytes", "gauge", "Capacity of the tile cache.",
       engine.cacheCapacity},
      {"quorvel_response_cache_hits_total", "counter", "Responses served from the cache.",
       responses.hits},
      {"quorvel_response_cache_misses_total", "counter", "Responses rendered and encoded.",
       responses.misses},
      {"quorvel_response_cache_evictions_total", "counter",
       "Encoded responses dropped to stay within capacity.", responses.evictions},
      {"quorvel_response_cache_bytes", "gauge", "Bytes of encoded responses held.",
       responses.bytes},
      {"quorvel_response_cache_capacity_bytes", "gauge", "Capacity of the response cache.",
       responses.capacity},
  };
  for (Series const& s : series) {
    add(out, s.name, s.type, s.help);
    sample(out, s.name, s.value);
  }
  return out;
}

}  // namespace quorvel::serve
