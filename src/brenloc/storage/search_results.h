// What a search gathers: the best hits so far (a page of at most `limit`, by the ranking of
// symbol_match.h) and how many matched, counted up to a cap.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "brenloc/storage/records.h"

namespace brenloc::storage::detail {

class SearchResults {
 public:
  // A negative limit keeps every hit and counts without a cap. `referrers` counts a hit's referrers (see
  // ranks_before), asked only where they decide.
  using Referrers = std::function<std::int64_t(const SymbolHit&)>;
  SearchResults(int limit, std::int64_t cap, Referrers referrers);

  // Whether a hit of this tier rank, importance (or a worse one), kind class and name length, and any
  // path and line, could still make the page.
  bool page_takes(int rank, int importance, int kind_class, std::size_t name_size) const;
  // Whether the count has not yet passed the cap.
  bool counting() const { return counted_ <= cap_; }

  void count(std::int64_t matches) { counted_ += matches; }
  void offer(SymbolHit hit);

  // The page, best first; `total` the count (the cap, with `more`, when it passed it).
  SymbolSearch finish() &&;

 private:
  bool before(const SymbolHit& a, const SymbolHit& b) const;

  int limit_;
  std::int64_t cap_;
  std::int64_t counted_ = 0;
  Referrers referrers_;
  std::vector<SymbolHit> page_;  // a heap, its worst hit first, when the limit bounds it
};

}  // namespace brenloc::storage::detail
