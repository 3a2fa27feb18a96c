#include "brenloc/daemon/worker_reindex.h"

#include <fmt/printf.h>

#include <system_error>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/scope.h"
#include "brenloc/aio/thread.h"
#include "brenloc/daemon/reindex_paths.h"
#include "brenloc/tool_binding.h"
#include "brenloc/utils/best_effort.h"
#include "brenloc/utils/logging.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;

namespace {

void log_info(const std::string& text) { worker_logger()->log(spdlog::level::info, spdlog::string_view_t(text)); }

// The truth value of a dictionary value: absent, false, zero and empty count as false.
bool truthy(const json& v) {
  if (v.is_null()) return false;
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number()) return v.get<double>() != 0;
  if (v.is_string() || v.is_array() || v.is_object()) return !v.empty();
  return true;
}

json in_progress_response() {
  return json{{"status", "in_progress"}, {"message", "Indexing already in progress"}};
}

}  // namespace

IncompleteRebuildError::IncompleteRebuildError(std::int64_t failed)
    : std::runtime_error("Rebuild incomplete: " + std::to_string(failed) +
                         " files or directories could not be indexed; the live index was kept. errors.jsonl names "
                         "them: fix each, or leave it out of the index with a .gitignore rule, then rebuild again") {}

// ---------------------------------------------------------------------------------------------------
// The tool handler

aio::Task<json> WorkerReindex::_handle_force_reindex(json params) {
  json refusal = _check_repository("force_reindex");
  if (truthy(refusal)) co_return refusal;

  auto indexer_guard = co_await _indexer_lock.scoped();
  if (_indexer_task && !_indexer_task->done()) co_return in_progress_response();
  bool indexing_active = false;
  {
    auto indexing_guard = co_await _indexing_lock.scoped();
    indexing_active = _indexing_in_progress > 0;
  }
  if (indexing_active) co_return in_progress_response();

  json bound = bind_arguments("status", params);
  json paths_param = bound.contains("paths") ? bound["paths"] : json();
  const bool rebuild = truthy(bound.contains("clear_existing") ? bound["clear_existing"] : json()) &&
                       !truthy(paths_param);
  _last_reindex_error = _rebuild_refusal;

  auto indexer = _env.new_indexer({.repository = _repository, .repo_root = repo_root, .offload = _passes_lane.run});

  std::optional<Paths> index_paths;
  if (truthy(paths_param)) {
    auto strings = paths_param.get<std::vector<std::string>>();
    auto [resolved, problem] = co_await _maintenance.run(&WorkerReindex::_resolve_reindex_paths, this, strings);
    index_paths = std::move(resolved);
    if (problem) co_return json{{"error", *problem}, {"status", "failed"}};
  }

  _indexer_task = detached_task(run_indexing(this, rebuild, std::move(indexer), std::move(index_paths)));
  indexer_guard.unlock();

  std::string message = "Reindexing started in background";
  if (truthy(bound.contains("clear_existing") ? bound["clear_existing"] : json()) && !rebuild) {
    message += "; clear_existing rebuilds only the whole repository: paths are reindexed";
  }
  co_return json{{"status", "accepted"}, {"message", message}, {"clear_existing", rebuild}};
}

WorkerReindex::PathResolution WorkerReindex::_resolve_reindex_paths(const std::vector<std::string>& paths_param) const {
  return resolve_reindex_paths(repo_root, paths_param);
}

// ---------------------------------------------------------------------------------------------------
// The background run

aio::Task<void> WorkerReindex::run_indexing(WorkerReindex* self, bool rebuild, std::shared_ptr<workers::Indexer> indexer,
                                            std::optional<Paths> index_paths) {
  co_await self->_start_indexing();
  // An unsettled error or the cancellation is let out after the closing step.
  auto ended = co_await aio::outcome_of(settled_run(self, rebuild, std::move(indexer), std::move(index_paths)));
  co_await self->_finish_indexing();
  std::move(ended).get();
}

aio::Task<void> WorkerReindex::settled_run(WorkerReindex* self, bool rebuild, std::shared_ptr<workers::Indexer> indexer,
                                           std::optional<Paths> index_paths) {
  auto ran = co_await aio::outcome_of(index_and_record(self, rebuild, std::move(indexer), std::move(index_paths)));
  if (!ran.failed() || ran.cancelled()) {
    std::move(ran).get();
    co_return;
  }
  const std::string text = utils::error_text(ran.error);
  utils::log_exception(*worker_logger(), fmt::sprintf("Reindex failed: %s", text), ran.error);
  self->_last_reindex_error = text;
  co_await self->broadcast_status(json{{"type", "reindex_failed"}, {"error", text}});
}

aio::Task<void> WorkerReindex::index_and_record(WorkerReindex* self, bool rebuild,
                                                std::shared_ptr<workers::Indexer> indexer,
                                                std::optional<Paths> index_paths) {
  std::optional<workers::IndexStats> stats;
  if (rebuild) {
    try {
      stats = co_await self->_full_reindex_via_staging();
    } catch (const IncompleteRebuildError& refusal) {
      self->_rebuild_refusal = refusal.what();
      throw;
    }
    self->_rebuild_refusal = std::nullopt;
  } else {
    auto scope = self->_reporting_pass(*indexer);
    auto result = co_await aio::within(*scope, indexer->full_index(index_paths));
    if (result) stats = std::move(*result);
  }
  const workers::IndexStats& s = stats.value();  // absent only if a scope swallowed the pass's failure
  self->_last_reindex_error = self->_rebuild_refusal;
  log_info(fmt::sprintf("Reindex completed: %d files processed, %d symbols added", s.files_processed,
                        s.symbols_added));
  if (self->_indexer != nullptr && s.last_pass) self->_indexer->stats.record_completion(*s.last_pass);
  co_await self->broadcast_status(json{{"type", "reindex_complete"},
                                       {"files_processed", s.files_processed},
                                       {"symbols_added", s.symbols_added},
                                       {"errors", s.errors}});
  self->_passes->trigger(Trigger::REINDEX);
}

// ---------------------------------------------------------------------------------------------------
// Staging database files

std::pair<fs::path, WorkerReindex::Paths> WorkerReindex::_staging_db_paths(const fs::path& db_path) {
  fs::path staging_path = db_path.parent_path() / (db_path.filename().string() + ".reindex-staging");
  fs::path wal = staging_path.parent_path() / (staging_path.filename().string() + "-wal");
  fs::path shm = staging_path.parent_path() / (staging_path.filename().string() + "-shm");
  return {staging_path, Paths{staging_path, wal, shm}};
}

std::shared_ptr<storage::Database> WorkerReindex::_open_staging_db(const fs::path& staging_path, const Paths& sidecars) {
  _remove_files(sidecars);
  auto db = _env.new_database(staging_path, false);
  try {
    db->connect();
    db->create_schema();
  } catch (...) {
    db->close();  // a failure here goes out instead, and the files stay
    _remove_files(sidecars);
    throw;
  }
  return db;
}

void WorkerReindex::_discard_staging(const std::shared_ptr<storage::Database>& staging_db, const Paths& sidecars) {
  staging_db->close();
  _remove_files(sidecars);
}

void WorkerReindex::_remove_files(const Paths& paths) {
  for (const auto& p : paths) {
    std::error_code ec;
    if (fs::exists(p, ec) && !ec) fs::remove(p, ec);
  }
}

// ---------------------------------------------------------------------------------------------------
// The full rebuild

aio::Task<workers::IndexStats> WorkerReindex::_full_reindex_via_staging() {
  auto repository = _repository;
  const fs::path live_db_path = data_dir / "index.db";
  auto [staging_path, sidecars] = _staging_db_paths(live_db_path);
  auto opening = aio::to_thread([this, staging_path = staging_path, sidecars = sidecars] {
    return _open_staging_db(staging_path, sidecars);
  });

  StagingRebuild staging;
  auto ended = co_await aio::outcome_of(stage_and_swap(staging, repository, staging_path, opening));

  // Clean-up, on every way out: wait for an opening still under way to deliver the database, then
  // release it (shielded: a second cancellation stops only this wait, never the release).
  if (!staging.db) {
    auto suppress = utils::logged_suppress(worker_logger(), "opening the staging database");
    auto delivered = co_await aio::within(suppress, aio::await_shielded(opening));
    if (delivered) staging.db = *delivered;
  }
  if (staging.db) {
    auto release = aio::spawn(_release_staging(staging.swap, staging.db, sidecars, staging.indexer));
    co_await aio::shield(release);
  }
  co_return std::move(ended).get();
}

aio::Task<workers::IndexStats> WorkerReindex::stage_and_swap(StagingRebuild& staging,
                                                             std::shared_ptr<storage::Repository> repository,
                                                             fs::path staging_path,
                                                             aio::Future<std::shared_ptr<storage::Database>> opening) {
  staging.db = co_await aio::shield(opening);
  auto staging_repo = _env.new_repository(staging.db);
  staging.indexer = _env.new_indexer({.repository = staging_repo,
                                  .repo_root = repo_root,
                                  .offload = _rebuild_lane.run,
                                  .refresh_report = false,
                                  .background = true});
  std::optional<workers::IndexStats> stats;
  {
    auto scope = _reporting_pass(*staging.indexer);
    auto result = co_await aio::within(*scope, staging.indexer->full_index());
    if (result) stats = std::move(*result);
  }
  if (stats.value().errors != 0) throw IncompleteRebuildError(stats->errors);
  staging.swap = _passes_lane.run(&WorkerReindex::_swap_in_staged_index, repository, staging.db, staging_path);
  storage::Counts counts = co_await aio::shield(*staging.swap);
  log_info(fmt::sprintf("Force-reindex swap committed (rows: %s)", storage::to_string(counts)));
  co_await _passes_lane.run([env = &_env, repository, root = repo_root] { env->write_report(repository, root, true); });
  co_return *stats;
}

storage::Counts WorkerReindex::_swap_in_staged_index(const std::shared_ptr<storage::Repository>& repository,
                                          const std::shared_ptr<storage::Database>& staging_db,
                                          const fs::path& staging_path) {
  staging_db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  storage::Counts counts = repository->swap_index_from(staging_path);
  repository->clear_query_cache();
  return counts;
}

aio::Task<void> WorkerReindex::_release_staging(std::optional<aio::Future<storage::Counts>> swap,
                                                std::shared_ptr<storage::Database> staging_db, Paths sidecars,
                                                std::shared_ptr<workers::Indexer> staging_indexer) {
  if (staging_indexer) co_await staging_indexer->settle();
  if (swap) co_await aio::wait_all({swap->base()});
  if (swap && !swap->cancelled()) (void)swap->exception();  // the rebuild reports the swap's failure
  co_await aio::to_thread([this, staging_db, sidecars] { _discard_staging(staging_db, sidecars); });
}

}  // namespace brenloc::daemon
