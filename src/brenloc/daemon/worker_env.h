// What a repository worker makes and writes through: the database objects over its files, the stores over
// them, its indexers and the report. The standard environment makes the real ones; a test hands a worker
// an environment of its own, to see faults where they can happen in production (a database that will not
// open, a pass that fails or is left waiting, a swap or a report that fails).
#pragma once

#include <filesystem>
#include <memory>

#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/indexer.h"

namespace brenloc::daemon {

class WorkerEnv {
 public:
  virtual ~WorkerEnv() = default;

  // A database object over a file, not yet connected. `live`: the worker's index.db, whose writes are
  // synced; any other database of a worker is a staging database, deleted unread after a crash, so its
  // writes are not.
  virtual std::shared_ptr<storage::Database> new_database(const std::filesystem::path& path, bool live);
  virtual std::shared_ptr<storage::Repository> new_repository(std::shared_ptr<storage::Database> database);
  virtual std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions options);
  // Writes the repository's report (workers/report_generator.h). Blocking.
  virtual void write_report(const std::shared_ptr<storage::Repository>& repository,
                            const std::filesystem::path& repo_root, bool force);

  // The real things, shared by every worker.
  static WorkerEnv& standard();
};

}  // namespace brenloc::daemon
