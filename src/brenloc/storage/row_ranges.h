// The symbol rows of the files a path filter selects, as ranges of ids: a file's rows are one range, and
// after a full rebuild a directory's files are one range too (files are stored in path order).
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace brenloc::storage::detail {

class RowRanges {
 public:
  // Adds the ids [first, end); ranges come in order of `first`, and ones that touch are merged.
  void add(std::int64_t first, std::int64_t end) {
    if (first >= end) return;
    rows_ += end - first;
    if (!ranges_.empty() && ranges_.back().second >= first) {
      ranges_.back().second = std::max(ranges_.back().second, end);
    } else {
      ranges_.emplace_back(first, end);
    }
  }

  std::int64_t rows() const { return rows_; }
  const std::vector<std::pair<std::int64_t, std::int64_t>>& ranges() const { return ranges_; }

  bool holds(std::int64_t id) const { return holds_all(id, id); }
  // Whether every id of [first, last] is selected (they are all in one range).
  bool holds_all(std::int64_t first, std::int64_t last) const {
    const auto* r = last_starting_at_or_before(first);
    return r != nullptr && last < r->second;
  }
  // Whether any id of [first, last] is selected.
  bool meets(std::int64_t first, std::int64_t last) const {
    const auto* r = last_starting_at_or_before(last);
    return r != nullptr && first < r->second;
  }

 private:
  const std::pair<std::int64_t, std::int64_t>* last_starting_at_or_before(std::int64_t id) const {
    auto it = std::upper_bound(ranges_.begin(), ranges_.end(), id, [](std::int64_t v, const auto& r) { return v < r.first; });
    return it == ranges_.begin() ? nullptr : &*std::prev(it);
  }

  std::vector<std::pair<std::int64_t, std::int64_t>> ranges_;
  std::int64_t rows_ = 0;
};

}  // namespace brenloc::storage::detail
