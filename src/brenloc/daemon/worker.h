// The repository worker: one repository, its live index and the tools that clients call on it.
//
// start() opens (or creates) data_dir/index.db and builds the live store, the worker's own indexer and its
// pass scheduler. stop() refuses new tools, cancels a background run and lets its clean-up finish, drains
// the passes, waits for the lanes' threads, and only then closes the live database.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>

#include "brenloc/daemon/worker_reindex.h"

namespace brenloc::daemon {

class RepoWorker : public WorkerReindex {
 public:
  using StatusSink = std::function<void(const json& message)>;

  // `repo_root` is resolved here (symbolic links followed); `data_dir` is created by start().
  RepoWorker(const std::filesystem::path& repo_root, std::filesystem::path data_dir);
  ~RepoWorker() override;

  aio::Task<void> start();
  aio::Task<void> stop();
  bool stopping() const { return stopping_; }

  // --- tools ---
  // {"repo_root", "data_dir", "indexing", "last_reindex_error", "rebuild_refusal", "files", "symbols",
  //  "last_index"}; "last_index" is the completion this worker recorded, else the last pass's record in the
  //  data directory (a pass of an earlier process), else null.
  aio::Task<json> index_status();
  // Arguments bound with the "search" schema; {"query", "count", "results": [...]}.
  aio::Task<json> search_symbols(json params);

  // Status messages (broadcasts and progress) go to every subscribed sink, on the loop thread.
  int subscribe(StatusSink sink);
  void unsubscribe(int id);

  // --- worker operations ---
  json _check_repository(std::string_view tool) override;
  aio::Task<void> _start_indexing() override;
  aio::Task<void> _finish_indexing() override;
  std::unique_ptr<PassScope> _reporting_pass(workers::Indexer& indexer) override;
  aio::Task<void> broadcast_status(json message) override;
  // Counts the releases still running: a rebuild cancelled while it waits for its release ends before
  // the release does, and nothing may open a new staging database until the old one is discarded.
  aio::Task<void> _release_staging(std::optional<aio::Future<json>> swap, std::shared_ptr<storage::Database> staging_db,
                                   Paths sidecars, std::shared_ptr<workers::Indexer> staging_indexer) override;
  int releases_in_flight() const { return releases_in_flight_; }

  // Sends {"type": "reindex_progress", "files_done", "files_total"}, at most twice a second.
  void notify_progress(std::int64_t done, std::int64_t total);

 private:
  void send(const json& message);
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
};

}  // namespace brenloc::daemon
