// Test doubles for the worker's operations and the indexer, recording what the facility does with them.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker_reindex.h"
#include "brenloc/utils/logging.h"

namespace brenloc::testing {

namespace fs = std::filesystem;

// A future that the test completes by hand, for parking a coroutine at a known await.
inline aio::Future<void> make_gate() { return aio::Future<void>(std::make_shared<aio::FutureState<void>>()); }
inline void open_gate(aio::Future<void>& g) { g.state()->set_result(); }

// What a fake index pass does.
struct PassScript {
  workers::IndexStats stats;
  std::exception_ptr failure;           // thrown instead of returning stats
  std::optional<aio::Future<void>> gate;  // awaited first (cancellation reaches the pass here)
};

class FakeIndexer : public workers::Indexer {
 public:
  FakeIndexer(workers::IndexerOptions o, PassScript script, std::vector<std::string>& events)
      : workers::Indexer(std::move(o)), script_(std::move(script)), events_(events) {}

  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>> paths) override {
    calls.push_back(paths);
    events_.push_back("pass");
    if (script_.gate) co_await *script_.gate;
    if (script_.failure) std::rethrow_exception(script_.failure);
    co_return script_.stats;
  }
  aio::Task<void> settle() override {
    events_.push_back("settle");
    co_return;
  }

  std::vector<std::optional<std::vector<fs::path>>> calls;

 private:
  PassScript script_;
  std::vector<std::string>& events_;
};

// A worker whose operations record their calls and fail on demand.
class FakeWorker : public daemon::WorkerReindex {
 public:
  explicit FakeWorker(fs::path root = fs::temp_directory_path(), fs::path data = fs::temp_directory_path())
      : WorkerReindex(std::move(root), std::move(data)) {
    _passes = std::make_unique<daemon::PassScheduler>(_passes_lane.run, std::vector<daemon::PassScheduler::Pass>{});
  }

  json check_result = json::object();
  std::exception_ptr start_failure, finish_failure, failure_broadcast_failure;
  std::optional<aio::Future<void>> start_gate;  // the worker's start waits for it
  mutable std::thread::id resolved_on;          // the thread that resolved the requested paths
  PassScript live_pass;  // what the next live indexer's pass does
  std::vector<std::string> events;
  std::vector<json> broadcasts;
  std::vector<workers::IndexerOptions> indexer_options;
  std::shared_ptr<FakeIndexer> last_indexer;
  // The full rebuild, when a test stands in for it.
  std::function<aio::Task<workers::IndexStats>()> rebuild;

  PathResolution _resolve_reindex_paths(const std::vector<std::string>& paths) const override {
    resolved_on = std::this_thread::get_id();
    return WorkerReindex::_resolve_reindex_paths(paths);
  }
  json _check_repository(std::string_view tool) override {
    events.push_back("check " + std::string(tool));
    return check_result;
  }
  aio::Task<void> _start_indexing() override {
    events.push_back("start");
    if (start_gate) co_await *start_gate;
    if (start_failure) std::rethrow_exception(start_failure);
    auto g = co_await _indexing_lock.scoped();
    ++_indexing_in_progress;
  }
  aio::Task<void> _finish_indexing() override {
    events.push_back("finish");
    {
      auto g = co_await _indexing_lock.scoped();
      --_indexing_in_progress;
    }
    if (finish_failure) std::rethrow_exception(finish_failure);
  }

  struct Scope : daemon::PassScope {
    std::vector<std::string>& events;
    explicit Scope(std::vector<std::string>& e) : events(e) {}
    void enter() override { events.push_back("scope enter"); }
    bool exit(const aio::ScopeExit& how) override {
      events.push_back(std::string("scope exit ") + std::array{"normal", "failure", "cancelled"}[how.kind]);
      return false;
    }
  };
  std::unique_ptr<daemon::PassScope> _reporting_pass(workers::Indexer&) override {
    return std::make_unique<Scope>(events);
  }

  aio::Task<void> broadcast_status(json message) override {
    events.push_back("broadcast " + message.value("type", ""));
    broadcasts.push_back(message);
    if (failure_broadcast_failure && message.value("type", "") == "reindex_failed") {
      std::rethrow_exception(failure_broadcast_failure);
    }
    co_return;
  }

  std::shared_ptr<workers::Indexer> _new_indexer(workers::IndexerOptions options) override {
    indexer_options.push_back(options);
    last_indexer = std::make_shared<FakeIndexer>(std::move(options), live_pass, events);
    return last_indexer;
  }

  aio::Task<workers::IndexStats> _full_reindex_via_staging() override {
    events.push_back("rebuild");
    if (rebuild) return rebuild();
    return WorkerReindex::_full_reindex_via_staging();
  }
};

// Whether a rebuild left any of its staging files in `data_dir`.
inline bool staging_files_left(const fs::path& data_dir) {
  for (const auto& p : daemon::WorkerReindex::_staging_db_paths(data_dir / "index.db").second) {
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
