// Test doubles for the reindex facility: a worker environment whose indexers run scripted passes, and a
// host worker over a real live index in a temporary directory, whose own operations (the repository
// check, the start and finish of indexing, the broadcast) can be made to fail or wait. Tests read the
// worker's state through FakeWorker, which makes it public, and judge outcomes: answers, fields, broadcasts,
// log lines, the live index and the files left on disk.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker_reindex.h"
#include "brenloc/utils/logging.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {

namespace fs = std::filesystem;

// A future that the test completes by hand, for parking a coroutine at a known await.
inline aio::Future<void> make_gate() { return aio::Future<void>(std::make_shared<aio::FutureState<void>>()); }
inline void open_gate(aio::Future<void>& g) { g.state()->set_result(); }

// What a scripted index pass does.
struct PassScript {
  workers::IndexStats stats;
  std::exception_ptr failure;             // thrown instead of returning stats
  std::optional<aio::Future<void>> gate;  // awaited first (cancellation reaches the pass here)
};

class FakeIndexer : public workers::Indexer {
 public:
  FakeIndexer(workers::IndexerOptions o, PassScript script) : workers::Indexer(std::move(o)), script_(std::move(script)) {}

  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>> paths) override {
    given.push_back(paths);
    if (script_.gate) co_await *script_.gate;
    if (script_.failure) std::rethrow_exception(script_.failure);
    co_return script_.stats;
  }
  aio::Task<void> settle() override { co_return; }

  // The paths each pass was given (absent: the whole repository).
  std::vector<std::optional<std::vector<fs::path>>> given;

 private:
  PassScript script_;
};

// Every indexer it makes runs `pass`; reports are counted, not written.
class ScriptedEnv : public daemon::WorkerEnv {
 public:
  PassScript pass;
  std::vector<std::shared_ptr<FakeIndexer>> indexers;  // in the order they were made
  int forced_reports = 0;

  std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions options) override {
    indexers.push_back(std::make_shared<FakeIndexer>(std::move(options), pass));
    return indexers.back();
  }
  void write_report(const std::shared_ptr<storage::Repository>&, const fs::path&, bool force) override {
    forced_reports += force;
  }
};

// The temporary directories of a FakeWorker, made before the worker that lives in them.
struct FakeWorkerDirs {
  TempDir own_root_, data_;
};

class FakeWorker : private FakeWorkerDirs, public daemon::WorkerReindex {
 public:
  // Over a fresh live index in a data directory of its own; the repository root is `root`, or a
  // directory of its own.
  explicit FakeWorker(daemon::WorkerEnv& env, std::optional<fs::path> root = std::nullopt)
      : WorkerReindex(root.value_or(own_root_.path()), data_.path(), env) {
    _database = env.new_database(data_dir / "index.db", true);
    _database->connect();
    _database->create_schema();
    _repository = env.new_repository(_database);
    _passes = std::make_unique<daemon::PassScheduler>(_passes_lane.run, std::vector<daemon::PassScheduler::Pass>{});
  }
  ~FakeWorker() override {
    _passes_lane.join();
    _maintenance.join();
    _rebuild_lane.join();
    _database->close();
  }

  // --- the worker's state, for the tests to read and set ---
  using WorkerReindex::_discard_staging;
  using WorkerReindex::_full_reindex_via_staging;
  using WorkerReindex::_handle_force_reindex;
  using WorkerReindex::_open_staging_db;
  using WorkerReindex::_rebuild_refusal;
  using WorkerReindex::_remove_files;
  using WorkerReindex::_staging_db_paths;
  using WorkerReindex::_swap_in_staged_index;
  using WorkerState::_indexer;
  using WorkerState::_indexer_lock;
  using WorkerState::_indexer_task;
  using WorkerState::_indexing_in_progress;
  using WorkerState::_indexing_lock;
  using WorkerState::_last_reindex_error;
  using WorkerState::_maintenance;
  using WorkerState::_passes;
  using WorkerState::_passes_lane;
  using WorkerState::_repository;

  // --- the host's operations, as the test wants them ---
  json check_result = json::object();
  std::exception_ptr start_failure, finish_failure, failure_broadcast_failure;
  std::optional<aio::Future<void>> start_gate;  // the worker's start waits for it
  std::vector<json> broadcasts;
  int releases_running = 0;  // releases of staging databases begun and not yet ended

  // The paths of the live files, joined by ";".
  std::string live_files() {
    std::string out;
    for (const auto& row : _repository->list_files()) out += row.path + ";";
    return out;
  }

 protected:
  json _check_repository(std::string_view) override { return check_result; }
  aio::Task<void> _start_indexing() override {
    if (start_gate) co_await *start_gate;
    if (start_failure) std::rethrow_exception(start_failure);
    auto g = co_await _indexing_lock.scoped();
    ++_indexing_in_progress;
  }
  aio::Task<void> _finish_indexing() override {
    {
      auto g = co_await _indexing_lock.scoped();
      --_indexing_in_progress;
    }
    if (finish_failure) std::rethrow_exception(finish_failure);
  }
  struct Scope : daemon::PassScope {
    void enter() override {}
    bool exit(const aio::ScopeExit&) override { return false; }
  };
  std::unique_ptr<daemon::PassScope> _reporting_pass(workers::Indexer&) override { return std::make_unique<Scope>(); }
  aio::Task<void> broadcast_status(json message) override {
    broadcasts.push_back(message);
    if (failure_broadcast_failure && message.value("type", "") == "reindex_failed") {
      std::rethrow_exception(failure_broadcast_failure);
    }
    co_return;
  }
  aio::Task<void> _release_staging(std::optional<aio::Future<storage::Counts>> swap,
                                   std::shared_ptr<storage::Database> staging_db, Paths sidecars,
                                   std::shared_ptr<workers::Indexer> staging_indexer) override {
    ++releases_running;
    auto ended = co_await aio::outcome_of(WorkerReindex::_release_staging(std::move(swap), std::move(staging_db),
                                                                          std::move(sidecars), std::move(staging_indexer)));
    --releases_running;
    std::move(ended).get();
  }
};

// Whether a rebuild left any of its staging files in `data_dir`.
inline bool staging_files_left(const fs::path& data_dir) {
  for (const auto& p : FakeWorker::_staging_db_paths(data_dir / "index.db").second) {
    if (fs::exists(p)) return true;
  }
  return false;
}

// How a finished task ended: "cancelled", the text of its error, or "ok".
template <class T>
std::string ending_of(const aio::Future<T>& f) {
  if (f.cancelled()) return "cancelled";
  return f.exception() ? utils::error_text(f.exception()) : "ok";
}

inline workers::IndexStats make_stats(std::int64_t files, std::int64_t symbols, std::int64_t errors,
                                      std::optional<workers::PassRecord> last_pass = std::nullopt) {
  return {.files_processed = files, .symbols_added = symbols, .errors = errors, .last_pass = last_pass};
}

}  // namespace brenloc::testing
