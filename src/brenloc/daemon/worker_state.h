// The state of a repository worker and the operations its mixins call.
//
// One worker serves one repository: its resolved root, its data directory (with the live index.db), the
// live repository store, its own indexer, the pass scheduler and three lanes (the passes' lane, where the
// swap, the report and the live indexer's storage work run; the maintenance lane, for path resolution;
// the rebuild lane, for a full rebuild's work on its staging database).
// Everything here is touched on the event loop only. The state is the mixin chain's own (WorkerState,
// WorkerReindex, RepoWorker): others go through RepoWorker's public operations.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "brenloc/aio/lock.h"
#include "brenloc/aio/scope.h"
#include "brenloc/aio/task.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/daemon/passes.h"
#include "brenloc/daemon/worker_env.h"
#include "brenloc/daemon/worker_log.h"
#include "brenloc/json.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/indexer.h"

namespace brenloc::daemon {

// The scope of one index pass (see _reporting_pass).
class PassScope {
 public:
  virtual ~PassScope() = default;
  virtual void enter() = 0;
  // Told how the pass ended; returns true only to declare a failure handled.
  virtual bool exit(const aio::ScopeExit& how) = 0;
};

class WorkerState {
 public:
  // `env` makes the worker's databases, stores and indexers and writes its report; it outlives the worker.
  WorkerState(std::filesystem::path repo_root, std::filesystem::path data_dir,
              WorkerEnv& env = WorkerEnv::standard());
  virtual ~WorkerState();
  WorkerState(const WorkerState&) = delete;
  WorkerState& operator=(const WorkerState&) = delete;

  std::filesystem::path repo_root;  // absolute, resolved
  std::filesystem::path data_dir;   // holds index.db

 protected:
  // --- operations used by the force-reindex facility ---
  // A non-empty response dictionary when the worker refuses `tool`; empty (or null) when it may run.
  virtual json _check_repository(std::string_view tool) = 0;
  // Raise and lower the count of indexing passes under way.
  virtual aio::Task<void> _start_indexing() = 0;
  virtual aio::Task<void> _finish_indexing() = 0;
  // A scope entered around an index pass of `indexer`; never declares a failure handled.
  virtual std::unique_ptr<PassScope> _reporting_pass(workers::Indexer& indexer) = 0;
  // Sends a status message to the daemon's clients.
  virtual aio::Task<void> broadcast_status(json message) = 0;

  // --- fields (changed on the event loop only) ---
  WorkerEnv& _env;
  aio::Lock _indexer_lock;    // serialises force-reindex requests
  aio::Lock _indexing_lock;   // guards _indexing_in_progress
  std::optional<aio::Future<void>> _indexer_task;  // the last accepted request's background run
  std::int64_t _indexing_in_progress = 0;
  std::optional<std::string> _last_reindex_error;

  std::shared_ptr<storage::Database> _database;      // the live index.db
  std::shared_ptr<storage::Repository> _repository;  // the live store
  std::shared_ptr<workers::Indexer> _indexer;        // the worker's own indexer; may be absent
  Offloader _passes_lane{"passes", 1};  // the live database's blocking work: passes, swap, report
  Offloader _maintenance{"maintenance", 1};  // blocking work that leaves the index alone: path resolution
  // A full rebuild's storage work, on the staging database. Below normal priority, as are the rebuild's parse
  // threads, so that searches meanwhile get a core; the swap stays on the passes' lane, at normal priority,
  // since it holds the live database's write lock.
  Offloader _rebuild_lane{"rebuild", 1, Offloader::Priority::background};
  std::unique_ptr<PassScheduler> _passes;  // the follow-up passes (report, checkpoint, optimize)
};

}  // namespace brenloc::daemon
