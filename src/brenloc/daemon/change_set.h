// The changes a worker has seen in its tree and not yet indexed, and when they are due for a live pass.
//
// Changes are relative paths (files or directories) or "everything" (a whole pass: after a lost event
// queue or a change of the ignore rules that apply everywhere). A batch is due once no change has come
// for the quiet period, and at the latest the longest delay after its first change, so that a burst of
// writes (a build, a branch switch) ends in one or a few passes while a single save is indexed at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace brenloc::daemon {

class ChangeSet {
 public:
  using Clock = std::chrono::steady_clock;
  struct Timing {
    std::chrono::milliseconds quiet{30};
    std::chrono::milliseconds max_delay{1000};
  };
  // A batch with more paths than this is taken as a whole pass (cheaper than listing them).
  static constexpr std::size_t kWholePassPaths = 20000;

  void add(std::string rel, Clock::time_point now);
  void add_everything(Clock::time_point now);
  bool empty() const { return !everything_ && paths_.empty(); }
  // When the batch is due; meaningless when empty.
  Clock::time_point due(const Timing& timing) const;
  // Takes the batch and empties the set: absent for a whole pass, else the paths, none of them under
  // another.
  std::optional<std::vector<std::string>> take();

 private:
  void touch(Clock::time_point now);

  std::set<std::string> paths_;
  bool everything_ = false;
  Clock::time_point first_{}, last_{};
};

}  // namespace brenloc::daemon
