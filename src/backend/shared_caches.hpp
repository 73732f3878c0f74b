#pragma once
// The state that the instances of one backend share, each part with the lock that guards
// it. Kept out of the public header: hosts reach it only through the instances.

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "quorvel/backend/lru_map.hpp"
#include "quorvel/backend/software_render_backend.hpp"

namespace quorvel {
namespace backend_detail {
/// A tile is keyed by its instance's id and the host's tile id, an envelope set by its
/// instance's id and the host's byte string.
using TileKey = std::pair<size_t, size_t>;
using EnvelopeKey = std::pair<size_t, std::vector<unsigned char>>;
}  // namespace backend_detail

struct SoftwareRenderBackend::TileCache {
  explicit TileCache(size_t capacity) : map(capacity) {}
  mutable std::mutex mutex;
  LruMap<backend_detail::TileKey, std::shared_ptr<Buffer2D>> map;
};

struct SoftwareRenderBackend::EnvelopeCache {
  explicit EnvelopeCache(size_t capacity) : map(capacity) {}
  mutable std::mutex mutex;
  LruMap<backend_detail::EnvelopeKey, std::shared_ptr<DataEnvelopes>> map;
};

/// Filter-instance id -> kernel object.
struct SoftwareRenderBackend::FilterInstances {
  mutable std::mutex mutex;
  std::map<size_t, std::shared_ptr<SoftwareFilter>> map;
};

}  // namespace quorvel
