#include "brenloc/storage/search_results.h"

#include <algorithm>
#include <limits>
#include <tuple>

#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage::detail {

SearchResults::SearchResults(int limit, std::int64_t cap, Referrers referrers)
    : limit_(limit), cap_(limit < 0 ? std::numeric_limits<std::int64_t>::max() - 1 : cap), referrers_(std::move(referrers)) {}

bool SearchResults::before(const SymbolHit& a, const SymbolHit& b) const {
  return ranks_before(a, b, referrers_);
}

bool SearchResults::page_takes(int rank, int importance, int kind_class_of, std::size_t name_size) const {
  if (limit_ < 0 || page_.size() < static_cast<std::size_t>(limit_)) return true;
  if (limit_ == 0) return false;
  const SymbolHit& worst = page_.front();
  // Equal in the rest, importance, path and line decide.
  return rank_head(rank, importance, kind_class_of, name_size) <=
         rank_head(worst.tier, worst.importance, kind_class(worst.kind), worst.name.size());
}

void SearchResults::offer(SymbolHit hit) {
  auto by_rank = [this](const SymbolHit& a, const SymbolHit& b) { return before(a, b); };
  if (limit_ < 0) {
    page_.push_back(std::move(hit));
    return;
  }
  if (limit_ == 0) return;
  if (page_.size() == static_cast<std::size_t>(limit_)) {
    if (!before(hit, page_.front())) return;
    std::pop_heap(page_.begin(), page_.end(), by_rank);
    page_.back() = std::move(hit);
  } else {
    page_.push_back(std::move(hit));
  }
  std::push_heap(page_.begin(), page_.end(), by_rank);
}

SymbolSearch SearchResults::finish() && {
  std::sort(page_.begin(), page_.end(), [this](const SymbolHit& a, const SymbolHit& b) { return before(a, b); });
  SymbolSearch out;
  out.hits = std::move(page_);
  out.more = counted_ > cap_;
  out.total = std::min(counted_, cap_);
  return out;
}

}  // namespace brenloc::storage::detail
