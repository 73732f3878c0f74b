#include "server_cache.hpp"

namespace quorvel::serve {

std::shared_ptr<CachedResponse const> ResponseCache::find(std::string const& key) {
  std::lock_guard lock(mutex_);
  auto const it = entries_.find(key);
  if (it == entries_.end()) {
    ++misses_;
    return nullptr;
  }
  ++hits_;
  order_.splice(order_.begin(), order_, it->second.position);
  return it->second.response;
}

void ResponseCache::insert(std::string const& key, std::shared_ptr<CachedResponse const> response) {
  size_t const size = response->body.size() + key.size();
  if (size > capacity_ / 8) return;
  std::lock_guard lock(mutex_);
  if (entries_.count(key)) return;  // another thread made the same response meanwhile
  while (bytes_ + size > capacity_ && !order_.empty()) {
    auto const victim = entries_.find(order_.back());
    bytes_ -= victim->second.response->body.size() + victim->first.size();
    entries_.erase(victim);
    order_.pop_back();
    ++evictions_;
  }
  order_.push_front(key);
  entries_.emplace(key, Entry{std::move(response), order_.begin()});
  bytes_ += size;
}

ResponseCacheStats ResponseCache::stats() const {
  std::lock_guard lock(mutex_);
  return {hits_, misses_, evictions_, bytes_, capacity_, entries_.size()};
}

}  // namespace quorvel::serve
