// The worker's follow-up passes: maintenance work (report refresh, checkpoint, statistics) that runs on
// the passes' lane after something changed the index (not index passes, which are the indexer's).
// trigger() returns at once; triggers that arrive while a run is queued or under way coalesce into one
// further run.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/offload.h"

namespace brenloc::daemon {

// Why the passes run; REINDEX, the one reason there is, follows a successful force_reindex.
enum class Trigger { REINDEX };

class PassScheduler {
 public:
  struct Pass {
    std::string name;
    std::function<void()> run;  // blocking; runs on the lane
  };

  PassScheduler(Offloader::Run lane, std::vector<Pass> passes);
  PassScheduler(const PassScheduler&) = delete;
  PassScheduler& operator=(const PassScheduler&) = delete;

  // Schedules a run of every pass (on the loop thread); does not wait.
  void trigger(Trigger reason);
  // Waits until no run is queued or under way (for shutdown); later triggers are refused.
  aio::Task<void> drain();

  int runs_completed() const { return runs_completed_; }
  int triggers() const { return triggers_; }

 private:
  static aio::Task<void> run_loop(PassScheduler* self);

  Offloader::Run lane_;
  std::vector<Pass> passes_;
  bool queued_ = false;
  bool closed_ = false;
  std::optional<aio::Future<void>> runner_;
  int runs_completed_ = 0;
  int triggers_ = 0;
};

}  // namespace brenloc::daemon
