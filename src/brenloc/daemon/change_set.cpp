#include "brenloc/daemon/change_set.h"

#include <algorithm>

#include "brenloc/workers/walker.h"

namespace brenloc::daemon {

void ChangeSet::touch(Clock::time_point now) {
  if (empty()) first_ = now;
  last_ = now;
}

void ChangeSet::add(std::string rel, Clock::time_point now) {
  touch(now);
  if (everything_) return;
  paths_.insert(std::move(rel));
  if (paths_.size() > kWholePassPaths) {
    paths_.clear();
    everything_ = true;
  }
}

void ChangeSet::add_everything(Clock::time_point now) {
  touch(now);
  paths_.clear();
  everything_ = true;
}

ChangeSet::Clock::time_point ChangeSet::due(const Timing& timing) const {
  return std::min(last_ + timing.quiet, first_ + timing.max_delay);
}

std::optional<std::vector<std::string>> ChangeSet::take() {
  std::optional<std::vector<std::string>> out;
  if (!everything_) {
    out.emplace();
    // In sorted order a directory comes right before what lies under it.
    for (const std::string& p : paths_) {
      if (p.empty()) {
        out.reset();
        break;
      }
      if (!out->empty() && workers::is_under(p, out->back())) continue;
      out->push_back(p);
    }
  }
  paths_.clear();
  everything_ = false;
  return out;
}

}  // namespace brenloc::daemon
