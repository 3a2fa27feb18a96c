// The indexer: index passes over a repository into one Repository.
//
// full_index(paths): with paths absent, the whole repository (new files added, changed ones re-indexed
// by content hash, vanished ones removed); with a list, exactly those files (a listed file that no
// longer exists drops its stale rows; an empty list indexes nothing); full_index is the name of every
// pass, whole or not. A file whose status is the one stored when it was last read is not read again (see
// file_status.h); a pass into an empty index, as a full rebuild's, reads every file. Parsing runs on pool
// threads, storage on one writer through the `offload` it was given (the loop's default pool when absent).
// Files that cannot be looked at, read, parsed or stored are left out and counted in IndexStats::errors,
// and every pass writes errors.jsonl into the data directory (the directory of the repository's database).
//
// A cancelled pass stops starting new work within about 100 ms; settle() completes once its work still
// running on threads has ended. Virtual so that tests can stand in for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "brenloc/aio/lane.h"
#include "brenloc/aio/task.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/file_status.h"
#include "brenloc/workers/index_stats.h"

namespace brenloc::workers {

struct IndexerOptions {
  std::shared_ptr<storage::Repository> repository;
  std::filesystem::path repo_root;  // absolute, resolved
  // Where the database work goes (the worker hands its passes' lane); empty: the loop's default pool.
  aio::Lane::Run offload;
  bool refresh_report = true;  // write the report (not forced) after each pass
  // Parse threads, the indexer's own (0: one per core).
  std::size_t parse_threads = 0;
  // The parse threads run below normal priority (a rebuild's: searches meanwhile come first).
  bool background = false;
  // Larger files are left out by policy.
  std::int64_t max_file_size = 1 << 20;
  // A store transaction starts once the writer is free and this many parsed files wait (or fewer at the
  // end of the parsing); what parses while it runs goes into the next one.
  std::size_t store_batch_files = 64;
  // A file whose parse takes more CPU time than this (on its thread) is left out (the parser failed).
  std::chrono::milliseconds parse_time_limit{5000};
  // A file read this close after its last change is read again by the next pass (see file_status.h).
  std::int64_t racy_margin_ns = kRacyMarginNs;
};

// Told files done / files total while a pass runs (on the event loop).
using ProgressFn = std::function<void(std::int64_t done, std::int64_t total)>;

class Indexer {
 public:
  explicit Indexer(IndexerOptions options);
  virtual ~Indexer();
  Indexer(const Indexer&) = delete;
  Indexer& operator=(const Indexer&) = delete;

  virtual aio::Task<IndexStats> full_index(std::optional<std::vector<std::filesystem::path>> paths = std::nullopt);
  virtual aio::Task<void> settle();
  // Moves one batch of the uses that live passes left apart into place (Repository::move_fresh_uses), for
  // an idle moment; true while some are left.
  virtual aio::Task<bool> tidy_uses();

  void set_progress(ProgressFn fn) { progress_ = std::move(fn); }
  const IndexerOptions& options() const { return options_; }

  // Completed passes, recorded for status.
  IndexStats stats;

 protected:
  void report_progress(std::int64_t done, std::int64_t total) {
    if (progress_) progress_(done, total);
  }

 private:
  IndexerOptions options_;
  ProgressFn progress_;
  struct Impl;
  struct Pass;
  std::shared_ptr<Impl> impl_;
};

}  // namespace brenloc::workers
