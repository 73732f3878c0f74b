#pragma once
// Encoded responses kept by their entity tag. A viewer asks for the same tiles again and
// again (every pan back, every other client on the same image), and a tile that is already
// encoded costs a memcpy to serve instead of a render and an encode. Entries are immutable
// and shared: a response being sent holds its own reference, so eviction never waits for a
// slow client.

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "server_metrics.hpp"

namespace quorvel::serve {

/// One encoded response body with what its headers need.
struct CachedResponse {
  std::string body;
  char const* mediaType = "";
  double renderMs = 0;  // the time it took to make, reported again on every hit
};

/// A least-recently-used map from entity tag to response, bounded in bytes. Thread-safe.
class ResponseCache {
 public:
  /// A cache of at most `capacity` bytes of bodies (0 turns it off).
  explicit ResponseCache(size_t capacity) : capacity_(capacity) {}

  /// The response stored under `key`, or null (counted as a hit or a miss).
  std::shared_ptr<CachedResponse const> find(std::string const& key);
  /// Stores `response` under `key`, evicting the least recently used entries to make room.
  /// A body larger than an eighth of the capacity is not kept: one huge IIIF region must not
  /// flush the tiles every viewer is using.
  void insert(std::string const& key, std::shared_ptr<CachedResponse const> response);

  ResponseCacheStats stats() const;

 private:
  using Order = std::list<std::string>;
  struct Entry {
    std::shared_ptr<CachedResponse const> response;
    Order::iterator position;
  };

  size_t const capacity_;
  mutable std::mutex mutex_;
  Order order_;  // most recently used first
  std::unordered_map<std::string, Entry> entries_;
  size_t bytes_ = 0, hits_ = 0, misses_ = 0, evictions_ = 0;
};

}  // namespace quorvel::serve
