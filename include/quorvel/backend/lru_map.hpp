#pragma once
// A cost-bounded least-recently-used map whose entries can be locked against eviction.
//
// The capacity bounds the summed cost of the unlocked entries only: locked entries come on
// top of it, so pinning tiles that are in use never forces out more than the budget allows.
// Eviction walks from the least recently used end and skips locked entries; when only
// locked entries remain the map stays over budget and nothing fails.
//
// Thread safety: none of its own. The backend guards each shared map with a mutex.

#include <cstddef>
#include <iterator>
#include <list>
#include <map>
#include <stdexcept>
#include <utility>

namespace quorvel {

template <class Key, class Value>
class LruMap {
 public:
  explicit LruMap(size_t capacity) : capacity_(capacity) {}

  /// The value slot of `key`, made most recently used. An absent key is first made room for
  /// (evicting while over budget) and then inserted with an empty value and cost 1.
  Value& access(Key const& key) {
    auto it = index_.find(key);
    if (it != index_.end()) {
      order_.splice(order_.end(), order_, it->second.second);
      return it->second.first;
    }
    evict(nullptr);
    if (order_.size() >= order_.max_size()) throw std::length_error("list<T> too long");
    order_.push_back(Entry{false, 1, key});
    auto position = std::prev(order_.end());
    try {
      it = index_.emplace(key, std::make_pair(Value{}, position)).first;
    } catch (...) {
      order_.pop_back();
      throw;
    }
    totalCost_ += 1;
    return it->second.first;
  }

  /// The value of `key` made most recently used, or null when absent (nothing inserted).
  Value* touch(Key const& key) {
    auto it = index_.find(key);
    if (it == index_.end()) return nullptr;
    order_.splice(order_.end(), order_, it->second.second);
    return &it->second.first;
  }

  /// The value of `key` without changing the order, or null.
  Value const* peek(Key const& key) const {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &it->second.first;
  }

  /// Sets the cost of `key` and returns the previous one (0 and no change when absent).
  /// A grown cost evicts other unlocked entries until the budget holds again.
  size_t setCost(Key const& key, size_t cost) {
    auto it = index_.find(key);
    if (it == index_.end()) return 0;
    Entry& entry = *it->second.second;
    size_t const previous = entry.cost;
    totalCost_ = totalCost_ - previous + cost;
    if (entry.locked) lockedCost_ = lockedCost_ - previous + cost;
    entry.cost = cost;
    if (cost > previous) evict(&key);
    return previous;
  }

  bool contains(Key const& key) const { return index_.count(key) != 0; }

  /// Pins `key` against eviction; its cost moves into the locked total. Idempotent.
  void lock(Key const& key) {
    auto it = index_.find(key);
    if (it == index_.end() || it->second.second->locked) return;
    it->second.second->locked = true;
    lockedCost_ += it->second.second->cost;
  }

  /// Releases the pin; one unlock undoes any number of locks.
  void unlock(Key const& key) {
    auto it = index_.find(key);
    if (it == index_.end() || !it->second.second->locked) return;
    it->second.second->locked = false;
    lockedCost_ -= it->second.second->cost;
  }

  bool locked(Key const& key) const {
    auto it = index_.find(key);
    return it != index_.end() && it->second.second->locked;
  }

  /// Removes `key`, locked or not, and returns its cost (0 when absent).
  size_t erase(Key const& key) {
    auto it = index_.find(key);
    return it == index_.end() ? 0 : eraseAt(it);
  }

  /// Removes every key in [low, high) and returns the summed cost.
  size_t eraseRange(Key const& low, Key const& high) {
    size_t released = 0;
    if (!(low < high)) return 0;
    auto it = index_.lower_bound(low);
    while (it != index_.end() && it->first < high) {
      auto next = std::next(it);
      released += eraseAt(it);
      it = next;
    }
    return released;
  }

  size_t size() const { return index_.size(); }
  size_t totalCost() const { return totalCost_; }
  size_t lockedCost() const { return lockedCost_; }
  size_t capacity() const { return capacity_; }

 private:
  struct Entry {
    bool locked;
    size_t cost;
    Key key;
  };
  using Order = std::list<Entry>;
  using Index = std::map<Key, std::pair<Value, typename Order::iterator>>;

  bool overBudget() const { return totalCost_ > capacity_ + lockedCost_; }

  // Walks from the least recently used end, erasing unlocked entries other than `keep`,
  // until the budget holds or the walk reaches the end.
  void evict(Key const* keep) {
    for (auto it = order_.begin(); it != order_.end() && overBudget();) {
      auto next = std::next(it);
      if (!it->locked && !(keep != nullptr && !(it->key < *keep) && !(*keep < it->key))) {
        eraseAt(index_.find(it->key));
      }
      it = next;
    }
  }

  size_t eraseAt(typename Index::iterator it) {
    Entry const& entry = *it->second.second;
    size_t const cost = entry.cost;
    totalCost_ -= cost;
    if (entry.locked) lockedCost_ -= cost;
    order_.erase(it->second.second);
    index_.erase(it);
    return cost;
  }

  Order order_;
  Index index_;
  size_t capacity_;
  size_t totalCost_ = 0;
  size_t lockedCost_ = 0;
};

}  // namespace quorvel
