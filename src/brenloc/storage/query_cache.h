// A thread-safe LRU cache of query results that never keeps a result older than the last clear().
//
// A query reads generation() before it runs and hands it back to put(): a result computed while the
// index changed (the change's clear() came in between) is dropped instead of being cached, so a result
// read from the old index is never served once the change that replaced it has been made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace brenloc::storage::detail {

template <class V>
class QueryCache {
 public:
  explicit QueryCache(std::size_t capacity) : capacity_(capacity) {}

  std::optional<V> get(const std::string& key) {
    std::lock_guard lock(mu_);
    auto it = index_.find(key);
    if (it == index_.end()) return std::nullopt;
    order_.splice(order_.begin(), order_, it->second);
    return it->second->second;
  }

  std::uint64_t generation() const {
    std::lock_guard lock(mu_);
    return generation_;
  }

  // Stores `value` unless the cache was cleared since `generation` was read.
  void put(const std::string& key, V value, std::uint64_t generation) {
    std::lock_guard lock(mu_);
    if (generation != generation_ || capacity_ == 0) return;
    if (auto it = index_.find(key); it != index_.end()) {
      it->second->second = std::move(value);
      order_.splice(order_.begin(), order_, it->second);
      return;
    }
    order_.emplace_front(key, std::move(value));
    index_.emplace(key, order_.begin());
    if (order_.size() > capacity_) {
      index_.erase(order_.back().first);
      order_.pop_back();
    }
  }

  void clear() {
    std::lock_guard lock(mu_);
    ++generation_;
    index_.clear();
    order_.clear();
  }

  std::size_t size() const {
    std::lock_guard lock(mu_);
    return order_.size();
  }

 private:
  using Entry = std::pair<std::string, V>;
  const std::size_t capacity_;
  mutable std::mutex mu_;
  std::uint64_t generation_ = 0;
  std::list<Entry> order_;  // most recently used first
  std::unordered_map<std::string, typename std::list<Entry>::iterator> index_;
};

}  // namespace brenloc::storage::detail
