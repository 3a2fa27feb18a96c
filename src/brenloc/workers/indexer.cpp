#include "brenloc/workers/indexer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <exception>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include <boost/asio/thread_pool.hpp>
#include <fmt/format.h>

#include "brenloc/aio/priority.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/wait_any.h"
#include "brenloc/engines/symbols.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/pass_files.h"
#include "brenloc/workers/report_generator.h"
#include "brenloc/workers/walker.h"

namespace brenloc::workers {

namespace {

using StateMap = std::unordered_map<std::string, storage::StoredFile>;

// Files per parse job: small enough to spread a small pass over every thread and to bound the work
// that still runs after a cancellation, large enough that a trip through the loop is noise.
constexpr std::size_t kParseBatch = 16;
// A store transaction also starts once this many symbols wait.
constexpr std::size_t kStoreSymbols = 8000;
// The most files whose uses a live pass leaves apart for an idle moment to move (their keys cost readers
// 16 bytes each in memory meanwhile, about 1.5 MB per thousand files).
constexpr std::int64_t kMaxFreshFiles = 4096;

struct Outcome {
  // refreshed: unchanged content, whose row's status is brought up to date so that later passes skip it.
  enum class Kind { indexed, unchanged, refreshed, gone, skipped, failed };
  Kind kind = Kind::failed;
  std::string rel;
  storage::FileEntry entry;  // indexed, refreshed (no symbols)
  LeftOut error;             // failed, skipped (why)
};
using Outcomes = std::shared_ptr<std::vector<Outcome>>;

struct ParseLimits {
  std::int64_t max_size;
  std::chrono::milliseconds time_limit;
  std::int64_t racy_margin_ns;
};

Outcome parse_one(const std::filesystem::path& root, const Candidate& c, const StateMap& existing,
                  const ParseLimits& limits) {
  Outcome out;
  out.rel = c.rel;
  SourceFile src = read_source(utils::path_under(root, c.rel), limits.max_size);
  switch (src.status) {
    case SourceFile::Status::gone:
      out.kind = Outcome::Kind::gone;
      return out;
    case SourceFile::Status::skipped:
      out.kind = Outcome::Kind::skipped;
      out.error = {c.rel, "read", src.error, false};
      return out;
    case SourceFile::Status::failed:
      out.error = {c.rel, "read", src.error};
      return out;
    case SourceFile::Status::ok:
      break;
  }
  std::string hash = content_hash(src.content);
  storage::FileRow row{c.rel, c.language, src.size, src.mtime_ns, std::move(hash), src.inode, src.ctime_ns, src.read_ns};
  if (auto it = existing.find(c.rel); it != existing.end() && it->second.content_hash == row.content_hash) {
    // The row is refreshed when its status would not let the next pass skip the file and the new one will.
    const FileStatus now{true, row.size, row.mtime_ns, row.inode, row.ctime_ns};
    const storage::StoredFile fresh{row.content_hash, row.size, row.mtime_ns, row.inode, row.ctime_ns, row.read_ns};
    const bool refresh = !unchanged_since_read(it->second, now, limits.racy_margin_ns) &&
                         unchanged_since_read(fresh, now, limits.racy_margin_ns);
    out.kind = refresh ? Outcome::Kind::refreshed : Outcome::Kind::unchanged;
    if (refresh) out.entry.file = std::move(row);
    return out;
  }
  engines::ParseResult parsed;
  try {
    parsed = engines::extract_symbols(c.language, src.content, limits.time_limit);
  } catch (const std::exception& e) {
    parsed.ok = false;
    parsed.error = e.what();
  }
  if (!parsed.ok) {
    out.error = {c.rel, "parse", parsed.error.empty() ? "the parser failed" : parsed.error};
    return out;
  }
  out.kind = Outcome::Kind::indexed;
  if (!parsed.language.empty()) row.language = std::move(parsed.language);  // a C header may hold C++
  out.entry.file = std::move(row);
  out.entry.symbols = std::move(parsed.symbols);
  out.entry.uses = std::move(parsed.uses);
  out.entry.imports = std::move(parsed.imports);
  return out;
}

// Stops early once the pass has ended (its outcomes are then never read).
Outcomes parse_batch(const std::filesystem::path& root, const std::vector<Candidate>& batch,
                     const StateMap& existing, const ParseLimits& limits, const std::atomic<bool>& stop) {
  auto out = std::make_shared<std::vector<Outcome>>();
  out->reserve(batch.size());
  for (const Candidate& c : batch) {
    if (stop.load(std::memory_order_relaxed)) break;
    out->push_back(parse_one(root, c, existing, limits));
  }
  return out;
}

struct Stored {
  std::int64_t files = 0;
  std::int64_t symbols = 0;
  std::vector<LeftOut> failed;
};

// Stores the entries in one transaction; when that fails, each file on its own, so that only the files
// whose rows cannot be stored are left out.
Stored store_batch(storage::Repository& repo, const std::vector<storage::FileEntry>& entries) {
  Stored out;
  auto count = [&](const storage::FileEntry& e) {
    ++out.files;
    out.symbols += static_cast<std::int64_t>(e.symbols.size());
  };
  try {
    repo.store_files(entries);
    for (const auto& e : entries) count(e);
    return out;
  } catch (const std::exception&) {
  }
  for (const auto& e : entries) {
    try {
      repo.store_files({e});
      count(e);
    } catch (const std::exception& err) {
      out.failed.push_back({e.file.path, "store", err.what()});
    }
  }
  return out;
}

std::vector<LeftOut> remove_rows(storage::Repository& repo, const std::vector<std::string>& paths) {
  std::vector<LeftOut> failed;
  try {
    repo.remove_files(paths);
    return failed;
  } catch (const std::exception&) {
  }
  for (const auto& p : paths) {
    try {
      repo.remove_files({p});
    } catch (const std::exception& err) {
      failed.push_back({p, "store", err.what()});
    }
  }
  return failed;
}

// Sets the stop flag of the walk and the parse jobs when the pass ends, however it ends.
struct StopOnExit {
  std::shared_ptr<std::atomic<bool>> flag;
  ~StopOnExit() { flag->store(true); }
};

}  // namespace

struct Indexer::Impl {
  // Thread work started by passes and not yet known to have ended; settle() waits for it.
  std::vector<std::shared_ptr<aio::FutureBase>> inflight;
  // The parse threads: the indexer's own, so that a pass keeps them busy with queued jobs without
  // running more parses at once than it was given threads, and without making searches and other
  // work on the loop's pool wait behind its jobs. Made by the first pass.
  std::unique_ptr<boost::asio::thread_pool> parse_pool;

  ~Impl() {
    if (parse_pool) parse_pool->join();  // runs what is queued: every future it holds completes
  }

  boost::asio::thread_pool& parsers(std::size_t threads) {
    if (!parse_pool) parse_pool = std::make_unique<boost::asio::thread_pool>(threads);
    return *parse_pool;
  }

  template <class T>
  aio::Future<T> track(aio::Future<T> f) {
    if (inflight.size() >= 32) std::erase_if(inflight, [](const auto& x) { return x->done(); });
    inflight.push_back(f.base());
    return f;
  }

  // Database work: on the offload when one was given, else on the loop's pool.
  template <class F>
  auto on_writer(const IndexerOptions& o, F fn) {
    if (o.offload) return track(o.offload(std::move(fn)));
    return track(aio::to_thread(std::move(fn)));
  }
};

// One index pass: what it was asked, what it has found so far, and its phases, in the order that
// full_index() runs them. Thread work is awaited shielded throughout: a cancellation ends the waiting,
// not the work, and the work's future stays pending until the thread is done with it, which is what
// settle() waits for.
struct Indexer::Pass {
  Pass(std::shared_ptr<Impl> impl_in, const IndexerOptions& options, bool whole_in, ProgressFn progress_in)
      : impl(std::move(impl_in)),
        o(options),
        repo(options.repository),
        root(options.repo_root),
        data_dir(repo->database()->path().parent_path()),
        whole(whole_in),
        limits{options.max_file_size, options.parse_time_limit, options.racy_margin_ns},
        threads(options.parse_threads != 0 ? options.parse_threads
                                           : std::max(1u, std::thread::hardware_concurrency())),
        progress(std::move(progress_in)) {}

  aio::Task<void> find_files(std::optional<std::vector<std::filesystem::path>> paths);
  aio::Task<void> parse_and_store();
  aio::Task<void> refresh_status();
  aio::Task<void> remove_gone_rows();
  aio::Task<void> finish_bulk_load();
  aio::Task<void> write_records();
  aio::Task<void> refresh_report();

  // Leaves out of the files to read those whose status shows them unchanged since their last reading.
  void skip_unchanged();
  // --- parse_and_store, one step at a time ---
  void start_parse_jobs();
  void start_store_if_due();
  void take_parsed(std::vector<Outcome>& outcomes);
  // Rows of files that are gone: listed and left out or vanished, or no longer found under a covered
  // directory (but not under one that could not be listed: those files keep their rows).
  void find_gone_rows();

  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::shared_ptr<Impl> impl;
  const IndexerOptions& o;
  std::shared_ptr<storage::Repository> repo;
  const std::filesystem::path root;
  const std::filesystem::path data_dir;
  const bool whole;  // the whole repository, not listed paths
  const ParseLimits limits;
  const std::size_t threads;
  const ProgressFn progress;
  std::shared_ptr<spdlog::logger> log = utils::get_logger("brenloc.workers.indexer");
  std::shared_ptr<std::atomic<bool>> stop = std::make_shared<std::atomic<bool>>(false);
  StopOnExit stop_on_exit{stop};

  IndexStats stats;
  std::vector<LeftOut> errors;
  std::vector<LeftOut> named;  // left out by policy
  std::optional<std::vector<std::string>> listed;  // the paths of a pass over listed paths (text form)
  std::shared_ptr<const StateMap> existing = std::make_shared<const StateMap>();  // the index's files
  bool bulk = false;  // a bulk load: the name index is built at the end
  std::shared_ptr<const Collected> collected;
  std::vector<Candidate> to_read;  // of collected->files, those that must be read
  std::vector<storage::FileRow> refreshed;  // rows whose status is brought up to date
  std::set<std::string> to_remove;

  // The pipeline: parse jobs under way, the store transaction under way, and the parsed files waiting
  // for the next one.
  struct ParseJob {
    aio::Future<Outcomes> future;
    std::size_t count;
  };
  std::deque<ParseJob> parsing;
  std::size_t next = 0;  // the first file not yet handed to a parse job
  std::size_t batch_size = 1;
  std::int64_t done = 0;
  std::optional<aio::Future<std::shared_ptr<Stored>>> storing;
  std::shared_ptr<std::vector<storage::FileEntry>> buffer = std::make_shared<std::vector<storage::FileEntry>>();
  std::size_t buffer_symbols = 0;
};

// Finds the files, and reads the index's hashes meanwhile. A whole pass into an empty index is a bulk
// load: the name index is built once at its end. Any other pass first restores an index that a cancelled
// or failed bulk load left missing.
aio::Task<void> Indexer::Pass::find_files(std::optional<std::vector<std::filesystem::path>> paths) {
  const bool nothing = paths && paths->empty();
  // The index's rows of the listed paths only (a pass over a few files reads a few rows).
  std::optional<std::vector<std::string>> under;
  if (paths) {
    under.emplace();
    for (const auto& p : *paths) {
      std::filesystem::path abs = p.is_absolute() ? p : root / p;
      std::string rel = abs.lexically_normal().lexically_relative(root.lexically_normal()).generic_string();
      while (!rel.empty() && rel.back() == '/') rel.pop_back();
      if (rel == ".") rel.clear();
      if (!rel.starts_with("..")) under->push_back(utils::path_text(rel));
    }
    listed = under;
  }
  auto collected_f =
      impl->track(aio::to_thread([root = root, data_dir = data_dir, paths = std::move(paths), stop = stop] {
        std::error_code ec;
        std::filesystem::path dd = std::filesystem::weakly_canonical(data_dir, ec);
        WalkPolicy policy{root, ec ? data_dir : dd};
        if (paths) {
          // The second paths to directories that the last whole walk found, as errors.jsonl keeps them.
          LeftOutList earlier = read_left_out(data_dir, SIZE_MAX);
          for (LeftOut& l : earlier.first) {
            if (!l.failed && l.error.starts_with(kSameDirectoryAs)) policy.second_paths.push_back(std::move(l));
          }
        }
        return std::make_shared<const Collected>(collect_files(policy, paths, *stop));
      }));
  if (!nothing) {
    auto hashes_f = impl->on_writer(o, [repo = repo, whole = whole, under = std::move(under)] {
      auto hashes = std::make_shared<const StateMap>(repo->file_states(under));
      bool deferred = whole && hashes->empty() && repo->defer_name_index();
      if (!deferred && repo->restore_indexes()) {  // emptied: a bulk load that a killed process left
        hashes = std::make_shared<const StateMap>();
        deferred = whole && repo->defer_name_index();
      }
      return std::make_pair(hashes, deferred);
    });
    std::tie(existing, bulk) = co_await aio::shield(hashes_f);
  }
  collected = co_await aio::shield(collected_f);
  errors = collected->errors;
  named = collected->named;
  stats.files_skipped = collected->skipped;
  skip_unchanged();
}

void Indexer::Pass::skip_unchanged() {
  to_read.reserve(collected->files.size());
  for (const Candidate& c : collected->files) {
    auto it = existing->find(c.rel);
    if (it != existing->end() && unchanged_since_read(it->second, c.status, limits.racy_margin_ns)) {
      ++stats.files_processed;
      ++stats.files_unchanged;
      continue;
    }
    to_read.push_back(c);
  }
}

// Parses on the parse threads and stores on the writer: parse jobs keep every thread busy (one queued
// behind each running one, so that no thread waits for the loop to hand it the next) while one
// transaction at a time stores what they produced.
aio::Task<void> Indexer::Pass::parse_and_store() {
  const std::vector<Candidate>& files = to_read;
  // Progress counts the files skipped unread as done from the start.
  const auto total = static_cast<std::int64_t>(collected->files.size());
  done = total - static_cast<std::int64_t>(files.size());
  batch_size = std::clamp<std::size_t>(files.size() / (threads * 4), std::size_t{1}, kParseBatch);
  progress(done, total);
  while (true) {
    start_parse_jobs();
    if (storing && storing->done()) {
      std::shared_ptr<Stored> s = storing->result();
      stats.files_processed += s->files;
      stats.symbols_added += s->symbols;
      errors.insert(errors.end(), s->failed.begin(), s->failed.end());
      storing.reset();
    }
    start_store_if_due();
    if (parsing.empty() && !storing) break;

    std::vector<std::shared_ptr<aio::FutureBase>> waiting;
    for (const auto& job : parsing) waiting.push_back(job.future.base());
    if (storing) waiting.push_back(storing->base());
    co_await aio::wait_any(std::move(waiting));

    for (auto it = parsing.begin(); it != parsing.end();) {
      if (!it->future.done()) {
        ++it;
        continue;
      }
      take_parsed(*it->future.result());
      done += static_cast<std::int64_t>(it->count);
      it = parsing.erase(it);
      progress(done, total);
    }
  }
}

void Indexer::Pass::start_parse_jobs() {
  const std::vector<Candidate>& files = to_read;
  while (parsing.size() < 2 * threads && next < files.size()) {
    std::size_t end = std::min(files.size(), next + batch_size);
    std::vector<Candidate> batch(files.begin() + static_cast<std::ptrdiff_t>(next),
                                 files.begin() + static_cast<std::ptrdiff_t>(end));
    std::size_t count = end - next;
    next = end;
    auto f = impl->track(aio::run_on(impl->parsers(threads), *aio::EventLoop::current(),
                                     [root = root, batch = std::move(batch), existing = existing, limits = limits,
                                      stop = stop, background = o.background] {
                                       if (background) aio::lower_thread_priority();
                                       return parse_batch(root, batch, *existing, limits, *stop);
                                     }));
    parsing.push_back({std::move(f), count});
  }
}

// A store transaction starts once the writer is free and enough parsed files or symbols wait, or when
// nothing is left to parse.
void Indexer::Pass::start_store_if_due() {
  const bool parsing_done = parsing.empty() && next >= to_read.size();
  const bool enough =
      buffer->size() >= std::max<std::size_t>(1, o.store_batch_files) || buffer_symbols >= kStoreSymbols;
  if (storing || buffer->empty() || !(enough || parsing_done)) return;
  storing = impl->on_writer(o, [repo = repo, entries = std::move(buffer)] {
    return std::make_shared<Stored>(store_batch(*repo, *entries));
  });
  buffer = std::make_shared<std::vector<storage::FileEntry>>();
  buffer_symbols = 0;
}

void Indexer::Pass::take_parsed(std::vector<Outcome>& outcomes) {
  for (Outcome& out : outcomes) {
    switch (out.kind) {
      case Outcome::Kind::indexed:
        ++stats.files_read;
        buffer_symbols += out.entry.symbols.size();
        buffer->push_back(std::move(out.entry));
        break;
      case Outcome::Kind::refreshed:
        refreshed.push_back(std::move(out.entry.file));
        [[fallthrough]];
      case Outcome::Kind::unchanged:
        ++stats.files_read;
        ++stats.files_processed;
        ++stats.files_unchanged;
        break;
      case Outcome::Kind::skipped:
        ++stats.files_skipped;
        named.push_back(std::move(out.error));
        [[fallthrough]];
      case Outcome::Kind::gone:
        if (existing->contains(out.rel)) to_remove.insert(out.rel);
        break;
      case Outcome::Kind::failed:
        errors.push_back(std::move(out.error));
        break;
    }
  }
}

void Indexer::Pass::find_gone_rows() {
  for (const std::string& rel : collected->drop) {
    if (existing->contains(rel)) to_remove.insert(rel);
  }
  if (collected->covered.empty() || existing->empty()) return;
  std::unordered_set<std::string_view> seen;
  seen.reserve(collected->files.size());
  for (const Candidate& c : collected->files) seen.insert(c.rel);
  for (const auto& [rel, hash] : *existing) {
    if (seen.contains(rel)) continue;
    auto under = [&](const std::string& dir) { return is_under(rel, dir) || rel == dir; };
    if (std::none_of(collected->covered.begin(), collected->covered.end(), under)) continue;
    if (std::any_of(collected->failed_dirs.begin(), collected->failed_dirs.end(), under)) continue;
    to_remove.insert(rel);
  }
}

// Only spares later passes a reading: a failure is logged, and the files are read again next time.
aio::Task<void> Indexer::Pass::refresh_status() {
  if (refreshed.empty()) co_return;
  try {
    auto refreshed_f = impl->on_writer(o, [repo = repo, rows = std::move(refreshed)] { repo->update_file_status(rows); });
    co_await aio::shield(refreshed_f);
  } catch (const std::exception&) {
    utils::log_exception(*log, "Refreshing the status of unchanged files failed", std::current_exception());
  }
}

aio::Task<void> Indexer::Pass::remove_gone_rows() {
  find_gone_rows();
  if (to_remove.empty()) co_return;
  std::vector<std::string> removing(to_remove.begin(), to_remove.end());
  auto removed_f = impl->on_writer(o, [repo = repo, removing] { return remove_rows(*repo, removing); });
  std::vector<LeftOut> failed = co_await aio::shield(removed_f);
  stats.files_removed = static_cast<std::int64_t>(removing.size() - failed.size());
  errors.insert(errors.end(), failed.begin(), failed.end());
}

// A failure here fails a pass that had stored everything; after left-out files (often the same cause, a
// full disk) the pass's own outcome stands and the failure is logged. Either way the next pass builds the
// index again.
// After any other pass, the uses that its stores kept by file stay apart, where queries read them too,
// until the worker is idle (tidy_uses), unless too many files' have gathered: those are moved into place
// now. A failure there only leaves them where queries read them anyway, for a later move.
aio::Task<void> Indexer::Pass::finish_bulk_load() {
  if (!bulk) {
    try {
      auto moved_f = impl->on_writer(o, [repo = repo] {
        if (repo->fresh_uses_files() > kMaxFreshFiles) repo->move_fresh_uses();
      });
      co_await aio::shield(moved_f);
    } catch (const std::exception&) {
      utils::log_exception(*log, "Moving the uses of the pass into place failed", std::current_exception());
    }
    co_return;
  }
  try {
    auto restored_f = impl->on_writer(o, [repo = repo] { repo->restore_indexes(); });
    co_await aio::shield(restored_f);
  } catch (const std::exception&) {
    if (errors.empty()) throw;
    utils::log_exception(*log, "Building the indexes after the pass failed", std::current_exception());
  }
}

// The pass's outcome: the left-out files logged (the first few), errors.jsonl and the last index info
// written to the data directory, and a summary line.
aio::Task<void> Indexer::Pass::write_records() {
  stats.errors = static_cast<std::int64_t>(errors.size());
  constexpr std::size_t kLoggedLeftOut = 20;
  for (std::size_t i = 0; i < errors.size() && i < kLoggedLeftOut; ++i) {
    log->warn("Left out {} ({}): {}", errors[i].path, errors[i].stage, errors[i].error);
  }
  if (errors.size() > kLoggedLeftOut) {
    log->warn("... and {} more left out; errors.jsonl names them all", errors.size() - kLoggedLeftOut);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const PassType type = whole ? PassType::full : PassType::paths;
  stats.last_pass = PassRecord{type, seconds, stats.files_processed, stats.errors};
  std::vector<LeftOut> left_out = std::move(errors);
  left_out.insert(left_out.end(), std::make_move_iterator(named.begin()), std::make_move_iterator(named.end()));
  auto written_f = impl->on_writer(o, [data_dir = data_dir, left_out = std::move(left_out), record = *stats.last_pass,
                                       listed = listed] { write_pass_files(data_dir, left_out, record, listed); });
  co_await aio::shield(written_f);

  log->info("Index pass ({}) of {}: {} files processed ({} unchanged, {} read), {} symbols added, {} removed, "
            "{} left out, {} skipped, {:.2f} s",
            pass_type_name(type), root.string(), stats.files_processed, stats.files_unchanged, stats.files_read,
            stats.symbols_added, stats.files_removed, stats.errors, stats.files_skipped, seconds);
}

aio::Task<void> Indexer::Pass::refresh_report() {
  if (!o.refresh_report) co_return;
  try {
    auto report_f = impl->on_writer(o, [repo = repo, root = root] { write_report(repo, root, false); });
    co_await aio::shield(report_f);
  } catch (const std::exception&) {
    utils::log_exception(*log, "Writing the repository report failed", std::current_exception());
  }
}

Indexer::Indexer(IndexerOptions options) : options_(std::move(options)), impl_(std::make_shared<Impl>()) {}

Indexer::~Indexer() = default;

aio::Task<void> Indexer::settle() {
  std::shared_ptr<Impl> impl = impl_;
  std::erase_if(impl->inflight, [](const auto& f) { return f->done(); });
  if (impl->inflight.empty()) co_return;
  co_await aio::wait_all(impl->inflight);
}

aio::Task<bool> Indexer::tidy_uses() {
  auto repo = options_.repository;
  if (!repo) co_return false;
  co_await settle();
  co_return co_await aio::shield(impl_->on_writer(options_, [repo] { return repo->move_fresh_uses(1); }));
}

aio::Task<IndexStats> Indexer::full_index(std::optional<std::vector<std::filesystem::path>> paths) {
  // Work of an earlier, cancelled pass must not land after this pass's writes.
  co_await settle();
  Pass pass(impl_, options_, !paths.has_value(), [this](std::int64_t done, std::int64_t total) {
    report_progress(done, total);
  });
  co_await pass.find_files(std::move(paths));
  co_await pass.parse_and_store();
  co_await pass.refresh_status();
  co_await pass.remove_gone_rows();
  co_await pass.finish_bulk_load();
  co_await pass.write_records();
  co_await pass.refresh_report();
  stats = pass.stats;
  co_return pass.stats;
}

}  // namespace brenloc::workers
