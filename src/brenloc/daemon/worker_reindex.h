// Forced reindexing of a repository worker: the force_reindex tool.
//
// A request is refused by the worker's repository check, answered "in_progress" while any indexing is
// under way, or accepted at once while its indexing runs as a background task: a pass of the live index
// over the requested paths or the whole repository, or, for clear_existing without paths, a full rebuild
// into a staging database beside index.db that is swapped onto the live connection only when every file
// was indexed. A failed, partial, cancelled or crashed rebuild never loses the live index; a rebuild
// that left files out is refused with IncompleteRebuildError, whose text stays on the worker until a
// rebuild succeeds.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>


#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker_state.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/index_stats.h"
#include "brenloc/workers/indexer.h"

namespace brenloc::daemon {

// A full rebuild whose staging pass left files or directories out; the live index was kept.
class IncompleteRebuildError : public std::runtime_error {
 public:
  explicit IncompleteRebuildError(std::int64_t failed);
};

class WorkerReindex : public WorkerState {
 public:
  using WorkerState::WorkerState;

  using Paths = std::vector<std::filesystem::path>;
  using PathResolution = std::pair<Paths, std::optional<std::string>>;

 protected:
  // The text of the last full rebuild refused for leaving files out; absent once a rebuild succeeds.
  std::optional<std::string> _rebuild_refusal = std::nullopt;

  // The force_reindex tool: returns the response dictionary at once.
  aio::Task<json> _handle_force_reindex(json params);

  // Turns requested path strings into the files to index, or a refusal reason. Blocking; runs on the
  // maintenance lane.
  PathResolution _resolve_reindex_paths(const std::vector<std::string>& paths_param) const;

  // --- the staging database's files ---
  static std::pair<std::filesystem::path, Paths> _staging_db_paths(const std::filesystem::path& db_path);
  // Opens a fresh staging database (over any leftovers) with its schema. Blocking.
  std::shared_ptr<storage::Database> _open_staging_db(const std::filesystem::path& staging_path, const Paths& sidecars);
  // Closes the staging database and deletes its files. Blocking.
  void _discard_staging(const std::shared_ptr<storage::Database>& staging_db, const Paths& sidecars);
  // Deletes those of `paths` that exist; file-system errors are swallowed path by path. Blocking.
  static void _remove_files(const Paths& paths);

  // --- the full rebuild ---
  aio::Task<workers::IndexStats> _full_reindex_via_staging();
  // Makes the staged index the live one. Blocking; runs on the passes' lane.
  static storage::Counts _swap_in_staged_index(const std::shared_ptr<storage::Repository>& repository,
                                               const std::shared_ptr<storage::Database>& staging_db,
                                               const std::filesystem::path& staging_path);
  // Discards the staging database once the staging indexer has settled and a started swap has ended.
  virtual aio::Task<void> _release_staging(std::optional<aio::Future<storage::Counts>> swap,
                                           std::shared_ptr<storage::Database> staging_db, Paths sidecars,
                                           std::shared_ptr<workers::Indexer> staging_indexer = nullptr);

 private:
  // The background run of an accepted request, in three layers: run_indexing brackets the run with the
  // worker's start and finish; settled_run logs, keeps and broadcasts an ordinary error of the run;
  // index_and_record indexes and records the outcome.
  static aio::Task<void> run_indexing(WorkerReindex* self, bool rebuild, std::shared_ptr<workers::Indexer> indexer,
                                      std::optional<Paths> index_paths);
  static aio::Task<void> settled_run(WorkerReindex* self, bool rebuild, std::shared_ptr<workers::Indexer> indexer,
                                     std::optional<Paths> index_paths);
  static aio::Task<void> index_and_record(WorkerReindex* self, bool rebuild, std::shared_ptr<workers::Indexer> indexer,
                                          std::optional<Paths> index_paths);

  // What a full rebuild holds of its staging database, for its clean-up: each absent until the rebuild got
  // that far.
  struct StagingRebuild {
    std::shared_ptr<storage::Database> db;
    std::shared_ptr<workers::Indexer> indexer;
    std::optional<aio::Future<storage::Counts>> swap;
  };
  // The full rebuild up to its clean-up: the staging pass, the swap and the report.
  aio::Task<workers::IndexStats> stage_and_swap(StagingRebuild& staging,
                                                std::shared_ptr<storage::Repository> repository,
                                                std::filesystem::path staging_path,
                                                aio::Future<std::shared_ptr<storage::Database>> opening);
};

}  // namespace brenloc::daemon
