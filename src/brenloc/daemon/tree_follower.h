// Keeps a worker's live index in step with its working tree.
//
// At start, a live pass over the whole tree catches up with what changed while nothing watched (on an
// empty index, the first indexing); then, with watching on, inotify watches (watcher.h) report changes,
// which are gathered (change_set.h) and indexed by live passes over the changed paths. When the watch
// limit is reached, or inotify cannot be had, the follower falls back to whole live passes at an interval
// ("polling") and says so in a warning. Every pass is an ordinary live pass of the worker: it raises the
// worker's count of passes under way (so force_reindex answers "in_progress" meanwhile), runs inside the
// worker's reporting scope, and never runs beside a force_reindex run: changes seen during one (a full
// rebuild) are indexed right after it ends, whatever its outcome. When the tree has been quiet for a few
// seconds after a pass, the uses that passes keep apart are moved into place. stop() cancels what runs, cleanly.
// The follower asks its worker through the operations of LivePasses and knows nothing else of it.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/change_set.h"
#include "brenloc/daemon/watcher.h"
#include "brenloc/workers/indexer.h"

namespace brenloc::daemon {

struct FollowOptions {
  bool catch_up = false;  // a live whole pass at start
  bool watch = false;     // follow changes with inotify
  std::size_t max_watches = 0;  // the follower's own limit on watches (0: the system's only)
  ChangeSet::Timing timing;
  // Polling: the interval between whole passes, at least this and 50 times the last pass's duration.
  std::chrono::milliseconds poll_interval{10000};
};

// What the follower asks of its worker for each live pass.
struct LivePasses {
  // Waits until no force_reindex run is under way, then counts a pass in, so that none is accepted
  // before the pass has been counted out.
  std::function<aio::Task<void>()> start;
  // Runs the pass of `indexer` over `paths` (absent: the whole tree) in the worker's reporting scope, and
  // records it as the worker's last completed pass.
  std::function<aio::Task<workers::IndexStats>(workers::Indexer& indexer, std::optional<std::vector<std::filesystem::path>> paths)>
      run;
  // Counts the pass out.
  std::function<aio::Task<void>()> finish;
};

class TreeFollower {
 public:
  enum class Mode { off, inotify, polling };

  // `indexer` indexes the live passes (over the worker's live store); `data_dir` is left out of watching.
  TreeFollower(std::filesystem::path repo_root, std::filesystem::path data_dir,
               std::shared_ptr<workers::Indexer> indexer, LivePasses passes, FollowOptions options);
  ~TreeFollower();
  TreeFollower(const TreeFollower&) = delete;
  TreeFollower& operator=(const TreeFollower&) = delete;

  // Starts following (on the event loop); returns at once.
  void start();
  // Cancels the passes and the watching and waits until they have ended.
  aio::Task<void> stop();

  Mode mode() const { return mode_; }
  static const char* mode_name(Mode m);
  std::size_t watches() const { return watcher_ ? watcher_->count() : 0; }
  // True until the pass at start has ended (false when there is none).
  bool first_pass_pending() const { return first_pass_pending_; }
  // Live passes run so far (the pass at start included).
  int passes() const { return passes_; }

 private:
  static aio::Task<void> pass_loop(TreeFollower* self);
  static aio::Task<void> event_loop(TreeFollower* self);
  // Watches set up on a thread, then on the loop; false: fell back to polling.
  // Watches exactly the directories that a walk of `rel` enters (watches of what it now leaves out go).
  aio::Task<bool> watch_tree(std::string rel);
  // Follows the files of the exclude rules anew and watches the whole tree.
  aio::Task<bool> watch_all();
  void fall_back_to_polling(const std::string& why);
  aio::Task<void> take_changes(std::vector<TreeWatcher::Change> changes);
  // Until changes wait; meanwhile, once the tree has been quiet for a moment after a pass, the uses that
  // passes left apart are moved into place (Indexer::tidy_uses), batch by batch while nothing else waits.
  aio::Task<void> wait_for_changes();
  aio::Task<void> tidy();
  // One live pass over the changes gathered (or the whole tree), after any force_reindex run has ended.
  // `first`: the pass at start, over the whole tree.
  aio::Task<void> live_pass(bool first);
  aio::Task<void> indexing(std::optional<std::vector<std::string>> batch);
  void wake();

  std::filesystem::path repo_root_, data_dir_;
  LivePasses host_;
  FollowOptions options_;
  Mode mode_ = Mode::off;
  std::shared_ptr<workers::Indexer> indexer_;
  std::unique_ptr<TreeWatcher> watcher_;
  ChangeSet changes_;
  std::shared_ptr<aio::FutureState<void>> woken_;  // set when changes arrive for a waiting pass loop
  std::optional<aio::Future<void>> passes_task_, events_task_;
  bool first_pass_pending_ = false;
  bool tidy_due_ = false;  // a pass ran since the last move of uses
  int passes_ = 0;
  std::chrono::steady_clock::duration last_pass_{};
};

}  // namespace brenloc::daemon
