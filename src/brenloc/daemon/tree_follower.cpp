#include "brenloc/daemon/tree_follower.h"

#include <algorithm>
#include <atomic>
#include <system_error>

#include <fmt/format.h>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/aio/wait_any.h"
#include "brenloc/daemon/worker_log.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/gitignore.h"
#include "brenloc/workers/walker.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// How long the tree stays quiet after a live pass before the uses it left apart are moved into place.
constexpr Clock::duration kQuietBeforeTidy = std::chrono::seconds(3);

TreeFollower::TreeFollower(fs::path repo_root, fs::path data_dir, std::shared_ptr<workers::Indexer> indexer,
                           LivePasses passes, FollowOptions options)
    : repo_root_(std::move(repo_root)),
      data_dir_(std::move(data_dir)),
      host_(std::move(passes)),
      options_(options),
      indexer_(std::move(indexer)) {}

TreeFollower::~TreeFollower() = default;

const char* TreeFollower::mode_name(Mode m) {
  switch (m) {
    case Mode::inotify:
      return "inotify";
    case Mode::polling:
      return "polling";
    case Mode::off:
      break;
  }
  return "off";
}

void TreeFollower::start() {
  first_pass_pending_ = options_.catch_up;
  passes_task_ = aio::spawn(pass_loop(this));
}

aio::Task<void> TreeFollower::stop() {
  std::vector<std::shared_ptr<aio::FutureBase>> tasks;
  for (auto* t : {&passes_task_, &events_task_}) {
    if (*t && !(*t)->done()) {
      (*t)->cancel();
      tasks.push_back((*t)->base());
    }
  }
  co_await aio::wait_all(std::move(tasks));
  if (watcher_) watcher_->close();
  if (indexer_) co_await indexer_->settle();
}

void TreeFollower::wake() {
  if (woken_) std::exchange(woken_, nullptr)->set_result();
}

void TreeFollower::fall_back_to_polling(const std::string& why) {
  const std::size_t had = watches();
  if (watcher_) watcher_->close();
  watcher_.reset();
  mode_ = Mode::polling;
  worker_logger()->warn("Watching {} for changes stopped ({}; {} watches): following it by whole live passes "
                        "every {} s or more instead",
                        repo_root_.string(), why, had, options_.poll_interval.count() / 1000.0);
  changes_.add_everything(Clock::now());
  wake();
}

aio::Task<bool> TreeFollower::watch_tree(std::string rel) {
  std::error_code ec;
  fs::path data_dir = fs::weakly_canonical(data_dir_, ec);
  workers::WalkPolicy policy{repo_root_, ec ? data_dir_ : data_dir};
  auto dirs = co_await aio::to_thread([policy, rel] {
    std::atomic<bool> stop{false};
    return workers::collect_dirs(policy, rel, stop);
  });
  if (!watcher_) co_return false;
  watcher_->retain(rel, dirs);  // trees that the rules now leave out are no longer watched
  if (!watcher_->add(dirs)) {
    fall_back_to_polling("the limit on watches was reached");
    co_return false;
  }
  co_return true;
}

aio::Task<bool> TreeFollower::watch_all() {
  auto sources = co_await aio::to_thread([root = repo_root_] { return workers::exclude_sources(root); });
  if (!watcher_) co_return false;
  watcher_->watch_files(sources);
  co_return co_await watch_tree("");
}

aio::Task<void> TreeFollower::take_changes(std::vector<TreeWatcher::Change> changes) {
  using Kind = TreeWatcher::Change::Kind;
  // Rules that apply everywhere, or events lost: the whole tree again, once for all these changes.
  if (std::ranges::any_of(changes, [](const auto& c) { return c.kind == Kind::all_rules || c.kind == Kind::overflow; })) {
    if (!co_await watch_all()) co_return;
    changes_.add_everything(Clock::now());
    wake();
    co_return;
  }
  for (const auto& c : changes) {
    if (!watcher_) co_return;
    switch (c.kind) {
      case Kind::file:
        break;
      case Kind::dir_added:
      case Kind::rules:  // a directory no longer ignored is watched from now on, one now ignored no longer
        if (!co_await watch_tree(c.rel)) co_return;
        break;
      case Kind::dir_removed:
        watcher_->forget(c.rel);
        break;
      case Kind::all_rules:
      case Kind::overflow:
        break;  // none here: taken above
    }
    changes_.add(c.rel, Clock::now());
  }
  if (!changes_.empty()) wake();
}

aio::Task<void> TreeFollower::event_loop(TreeFollower* self) {
  while (self->watcher_) {
    std::vector<TreeWatcher::Change> changes;
    try {
      changes = co_await self->watcher_->next();
    } catch (const std::system_error& e) {
      self->fall_back_to_polling(fmt::format("reading its events failed: {}", e.what()));
      co_return;
    }
    co_await self->take_changes(std::move(changes));
  }
}

aio::Task<void> TreeFollower::pass_loop(TreeFollower* self) {
  if (self->options_.watch) {
    try {
      self->watcher_ = std::make_unique<TreeWatcher>(self->repo_root_, self->options_.max_watches);
      self->mode_ = Mode::inotify;
      if (co_await self->watch_all()) self->events_task_ = aio::spawn(event_loop(self));
    } catch (const std::system_error& e) {
      self->fall_back_to_polling(e.what());
    }
  }
  if (self->options_.catch_up) {
    self->changes_.add_everything(Clock::now());
  } else {
    self->changes_.take();  // what the setting up of the watches saw
  }
  bool first = self->options_.catch_up;
  while (self->mode_ != Mode::off || first) {
    if (!first) {
      if (self->mode_ == Mode::polling && self->changes_.empty()) {
        co_await self->tidy();  // no change can be seen before the next pass
        co_await aio::sleep_for(std::max<Clock::duration>(self->options_.poll_interval, 50 * self->last_pass_));
        self->changes_.add_everything(Clock::now());
      }
      co_await self->wait_for_changes();
      // Quiet for a moment, or waiting for too long already.
      for (auto due = self->changes_.due(self->options_.timing); Clock::now() < due;
           due = self->changes_.due(self->options_.timing)) {
        co_await aio::sleep_for(due - Clock::now());
      }
    }
    co_await self->live_pass(first);
    if (first) self->first_pass_pending_ = first = false;
  }
}

aio::Task<void> TreeFollower::wait_for_changes() {
  while (changes_.empty()) {
    woken_ = std::make_shared<aio::FutureState<void>>();
    if (!tidy_due_) {
      co_await aio::Future<void>(woken_);
      continue;
    }
    auto quiet = aio::spawn([](Clock::duration d) -> aio::Task<void> { co_await aio::sleep_for(d); }(kQuietBeforeTidy));
    auto waited = co_await aio::outcome_of(
        [](auto woken, auto quiet) -> aio::Task<void> { co_await aio::wait_any({woken, quiet}); }(woken_, quiet.base()));
    quiet.cancel();
    if (waited.cancelled()) std::move(waited).get();
    co_await tidy();
  }
}

aio::Task<void> TreeFollower::tidy() {
  // Batch by batch, each short, while nothing waits to be indexed.
  while (tidy_due_ && changes_.empty()) {
    try {
      tidy_due_ = co_await indexer_->tidy_uses();
    } catch (const std::exception&) {
      utils::log_exception(*worker_logger(), "Moving the uses of live passes into place failed", std::current_exception());
      tidy_due_ = false;
    }
  }
}

aio::Task<void> TreeFollower::live_pass(bool first) {
  co_await host_.start();
  // Taken only now: what changed during a force_reindex run is indexed by this pass.
  std::optional<std::vector<std::string>> batch = changes_.take();
  if (first) batch.reset();
  auto ended = co_await aio::outcome_of(indexing(std::move(batch)));
  co_await host_.finish();
  if (ended.cancelled()) std::move(ended).get();
  if (ended.failed()) {
    utils::log_exception(*worker_logger(), fmt::format("A live pass over changes in {} failed", repo_root_.string()),
                         ended.error);
  }
}

aio::Task<void> TreeFollower::indexing(std::optional<std::vector<std::string>> batch) {
  std::optional<std::vector<fs::path>> paths;
  if (batch) {
    paths.emplace();
    for (const auto& rel : *batch) paths->push_back(utils::path_under(repo_root_, rel));
  }
  const auto started = Clock::now();
  co_await host_.run(*indexer_, std::move(paths));
  tidy_due_ = true;
  last_pass_ = Clock::now() - started;
  ++passes_;
}

}  // namespace brenloc::daemon
