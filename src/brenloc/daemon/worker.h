// The repository worker: one repository, its live index and the tools that clients call on it.
//
// start() takes the data directory's owner lock (so that no other process writes there while this worker
// lives), then opens (or creates) data_dir/index.db and builds the live store, the worker's own indexer
// and its pass scheduler. stop() refuses new tools, cancels a background run and lets its clean-up
// finish, drains the passes, waits for the lanes' threads, closes the live database and only then lets
// the lock go. With FollowOptions (tree_follower.h) the worker also keeps its index in step with the
// working tree: a catch-up pass at start, and watching. Everything here runs on the event loop.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "brenloc/daemon/run_record.h"
#include "brenloc/daemon/tree_follower.h"
#include "brenloc/daemon/worker_face.h"
#include "brenloc/daemon/worker_reindex.h"
#include "brenloc/utils/owner_lock.h"

namespace brenloc::daemon {

class RepoWorker : public WorkerReindex {
 public:
  using StatusSink = std::function<void(const json& message)>;

  // The lock file that marks the data directory's owner.
  static constexpr const char* kOwnerLockFile = "brenloc.lock";

  // `repo_root` is resolved here (symbolic links followed); `data_dir` is created by start(). `env` makes
  // the worker's databases, stores and indexers (tests hand one that injects faults).
  RepoWorker(const std::filesystem::path& repo_root, std::filesystem::path data_dir, FollowOptions follow = {},
             WorkerEnv& env = WorkerEnv::standard());
  ~RepoWorker() override;

  // Throws utils::LockBusy, having written nothing, when another process owns the data directory.
  aio::Task<void> start();
  // A line that start() leaves in the data directory's lock file for the processes it refuses (the
  // daemon says there how to reach it).
  void set_owner_note(std::string note) { owner_note_ = std::move(note); }
  aio::Task<void> stop();
  bool stopping() const { return stopping_; }

  // --- what clients ask (each tool of tools/ over one of these) ---
  // The force_reindex request: its response dictionary at once; an accepted run goes on in the
  // background. An accepted run is recorded in the data directory (run_record.h) until its outcome is sent.
  aio::Task<json> force_reindex(json arguments);
  // The state of the index: counts, indexing under way and how far, outcomes of reindexing, files left
  // out, how the tree is followed. "last_index" is the completion this worker recorded, else the last
  // pass's record in the data directory (a pass of an earlier process), else null.
  aio::Task<IndexStatus> status();
  // The page of hits, with a note while the index is empty or its first pass runs (so that no result
  // is not taken for "no such symbol").
  aio::Task<SearchAnswer> search(SearchArgs args);
  // The rows of a file, or a refusal for a path that force_reindex would refuse (with the same text) or a
  // file not in the index.
  aio::Task<OutlineAnswer> outline(std::string path);
  // A definition and its lines, or a refusal as for outline or when no definition is found.
  aio::Task<SourceAnswer> source(SourceArgs args);
  // A page of the uses of a name in code (worker_uses.cpp), or a refusal as for source.
  aio::Task<ReferencesAnswer> references(ReferencesArgs args);
  // The files that include or import a file or a module, or a refusal for a path as for outline.
  aio::Task<ImportersAnswer> importers(ImportersArgs args);

  // The background run of the last accepted force_reindex, absent before the first; done once it ended.
  std::optional<aio::Future<void>> last_run() const { return _indexer_task; }
  // True while a reindex runs, an index pass is under way or a staging database is being released.
  bool busy() const;
  // Full rebuilds swapped in since start(): a run cancelled after its swap still changed the index.
  std::uint64_t swaps_committed() const { return _repository ? _repository->last_swap_timing().swaps : 0; }
  // Staging databases whose release is still running.
  int releases_in_flight() const { return releases_in_flight_; }
  const TreeFollower* follower() const { return follower_.get(); }

  // Status messages (broadcasts and progress) go to every subscribed sink, on the loop thread.
  int subscribe(StatusSink sink);
  void unsubscribe(int id);

 protected:
  // --- worker operations ---
  json _check_repository(std::string_view tool) override;
  aio::Task<void> _start_indexing() override;
  aio::Task<void> _finish_indexing() override;
  std::unique_ptr<PassScope> _reporting_pass(workers::Indexer& indexer) override;
  aio::Task<void> broadcast_status(json message) override;
  // Counts the releases still running: a rebuild cancelled while it waits for its release ends before
  // the release does, and nothing may open a new staging database until the old one is discarded.
  aio::Task<void> _release_staging(std::optional<aio::Future<storage::Counts>> swap,
                                   std::shared_ptr<storage::Database> staging_db,
                                   Paths sidecars, std::shared_ptr<workers::Indexer> staging_indexer) override;

 private:
  class ReportingPass;

  // Sends {"type": "reindex_progress", "files_done", "files_total"}, at most twice a second (and always
  // when the last file is done), and keeps the figures for status; with `send` false, only keeps them.
  void notify_progress(std::int64_t done, std::int64_t total, bool send = true);
  // The follower's live passes: after any force_reindex run, in the reporting scope, recorded.
  LivePasses live_passes();
  aio::Task<void> start_live_pass();
  aio::Task<workers::IndexStats> run_live_pass(workers::Indexer& indexer,
                                               std::optional<std::vector<std::filesystem::path>> paths);
  // Writes the run record on the maintenance lane (in order, best effort).
  void save_run_record();
  void send(const json& message);
  // The note of a search answer, or empty.
  std::string search_note(std::int64_t files) const;
  static aio::Task<void> stop_once(RepoWorker* self);
  // Completes once no staging release is running.
  aio::Task<void> wait_for_releases();

  bool stopping_ = false;
  std::optional<aio::Future<void>> stopped_;
  int releases_in_flight_ = 0;
  std::shared_ptr<aio::FutureState<void>> releases_done_;  // completed when the last one ends
  bool started_ = false;
  std::map<int, StatusSink> sinks_;
  int next_sink_ = 1;
  std::chrono::steady_clock::time_point last_progress_{};
  // What the indexing under way is doing, for status; absent when none runs.
  std::optional<IndexStatus::Progress> progress_;
  std::chrono::system_clock::time_point started_at_;
  FollowOptions follow_;
  std::unique_ptr<TreeFollower> follower_;
  utils::OwnerLock owner_lock_;
  std::string owner_note_;
  std::optional<RunRecord> last_run_;  // the last accepted force_reindex, of this process or an earlier one
};

}  // namespace brenloc::daemon
