#include "brenloc/daemon/worker.h"

#include <malloc.h>

#include <algorithm>

#include <fmt/format.h>

#include <system_error>
#include <variant>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/thread.h"
#include "brenloc/daemon/reindex_paths.h"
#include "brenloc/storage/definition_source.h"
#include "brenloc/storage/source_text.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/pass_files.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;

namespace {

fs::path resolve_root(const fs::path& root) {
  std::error_code ec;
  fs::path resolved = fs::weakly_canonical(fs::absolute(root), ec);
  return ec ? fs::absolute(root).lexically_normal() : resolved;
}

// A pass over fewer files than this, run by the follower, sends clients no progress (it ends in moments: a
// save, a small tree).
constexpr std::int64_t kQuietPassFiles = 500;

}  // namespace

// Logs an index pass and carries its progress to the worker's clients.
class RepoWorker::ReportingPass final : public PassScope {
 public:
  ReportingPass(RepoWorker& worker, workers::Indexer& indexer) : worker_(worker), indexer_(indexer) {}
  void enter() override {
    indexer_.set_progress([w = &worker_](std::int64_t done, std::int64_t total) { w->notify_progress(done, total); });
    if (worker_.progress_) worker_.progress_->phase = "walking";
    worker_logger()->debug("Index pass started");
  }
  bool exit(const aio::ScopeExit& how) override {
    indexer_.set_progress(nullptr);
    // A pass that does not refresh the report is a rebuild's staging pass: the swap comes next.
    if (worker_.progress_ && how.kind == aio::ScopeExit::normal && !indexer_.options().refresh_report) {
      worker_.progress_->phase = "swapping";
    }
    static const char* names[] = {"finished", "failed", "cancelled"};
    worker_logger()->debug("Index pass {}", names[how.kind]);
    return false;
  }

 private:
  RepoWorker& worker_;
  workers::Indexer& indexer_;
};

RepoWorker::RepoWorker(const fs::path& root, fs::path data, FollowOptions follow, WorkerEnv& env)
    : WorkerReindex(resolve_root(root), std::move(data), env), follow_(follow) {}

RepoWorker::~RepoWorker() = default;

aio::Task<void> RepoWorker::start() {
  fs::create_directories(data_dir);
  owner_lock_ = utils::OwnerLock::acquire(data_dir / kOwnerLockFile, "the data directory " + data_dir.string(),
                                          owner_note_);
  _database = _env.new_database(data_dir / "index.db", true);
  auto [interrupted, last_run] =
      co_await aio::to_thread([db = _database, dir = data_dir, staging = _staging_db_paths(data_dir / "index.db").second] {
        // With the lock held, staging files here belong to no live process: they are what a rebuild that a
        // crash cut short left behind, and a run recorded as running is one that its process never finished.
        _remove_files(staging);
        db->connect();
        db->create_schema();
        std::optional<std::string> interrupted;
        try {
          interrupted = settle_interrupted_run(dir);
        } catch (const std::exception& e) {
          worker_logger()->warn("Could not record the interrupted reindex: {}", e.what());
        }
        return std::make_pair(interrupted, read_run_record(dir));
      });
  if (interrupted) {
    worker_logger()->warn("{}", *interrupted);
    _last_reindex_error = *interrupted;
  }
  last_run_ = std::move(last_run);
  _repository = _env.new_repository(_database);
  _indexer = _env.new_indexer({.repository = _repository, .repo_root = repo_root, .offload = _passes_lane.run});
  std::vector<PassScheduler::Pass> passes = {
      {"report", [env = &_env, repo = _repository, root = repo_root] { env->write_report(repo, root, false); }},
      {"checkpoint", [db = _database] { db->execute("PRAGMA wal_checkpoint(PASSIVE)"); }},
      {"optimize", [db = _database] { db->execute("PRAGMA optimize"); }},
      // A rebuild frees hundreds of megabytes across the allocator's per-thread arenas; without a trim they
      // stay with the process, and a long-lived daemon's footprint climbs rebuild after rebuild. The
      // connections' page caches, full of the pages that the pass and the report read, go first.
      {"trim", [repo = _repository] {
         repo->release_memory();
         ::malloc_trim(0);
       }},
  };
  _passes = std::make_unique<PassScheduler>(_passes_lane.run, std::move(passes));
  started_ = true;
  started_at_ = std::chrono::system_clock::now();
  if (follow_.catch_up || follow_.watch) {
    auto indexer = _env.new_indexer(
        {.repository = _repository, .repo_root = repo_root, .offload = _passes_lane.run, .refresh_report = false});
    follower_ = std::make_unique<TreeFollower>(repo_root, data_dir, std::move(indexer), live_passes(), follow_);
    follower_->start();
  }
}

aio::Task<void> RepoWorker::stop() {
  // Every caller waits for the one stop; a caller cancelled while waiting does not cut it short.
  if (!stopped_) stopped_ = aio::spawn(stop_once(this));
  co_await aio::shield(*stopped_);
}

aio::Task<void> RepoWorker::stop_once(RepoWorker* self) {
  self->stopping_ = true;
  if (self->follower_) co_await self->follower_->stop();
  if (self->_indexer_task && !self->_indexer_task->done()) {
    // Cancelled once: a run already cancelled is finishing its clean-up, which a second cancellation
    // could cut short (leaving staging files for the next rebuild to clear).
    if (self->_indexer_task->cancelling() == 0) self->_indexer_task->cancel();
    co_await aio::wait_all({self->_indexer_task->base()});
  }
  co_await self->wait_for_releases();
  if (self->_passes) co_await self->_passes->drain();
  co_await self->_passes_lane.shutdown();
  co_await self->_maintenance.shutdown();
  co_await self->_rebuild_lane.shutdown();
  if (self->_database) co_await aio::to_thread([db = self->_database] { db->close(); });
  self->owner_lock_.release();
}

bool RepoWorker::busy() const {
  return (_indexer_task && !_indexer_task->done()) || _indexing_in_progress > 0 || releases_in_flight_ > 0;
}

aio::Task<json> RepoWorker::force_reindex(json arguments) {
  json answer = co_await _handle_force_reindex(std::move(arguments));
  if (answer.value("status", "") == "accepted") {
    last_run_ = run_started(answer.value("clear_existing", false));
    save_run_record();
  }
  co_return answer;
}

void RepoWorker::save_run_record() {
  if (!last_run_) return;
  try {
    (void)_maintenance.run([dir = data_dir, record = *last_run_] {
      try {
        write_run_record(dir, record);
      } catch (const std::exception& e) {
        worker_logger()->warn("Could not record the reindex in {}: {}", dir.string(), e.what());
      }
    });
  } catch (const std::runtime_error&) {
    // The lane is shut down: the worker is stopping, and the record stays as it was.
  }
}

json RepoWorker::_check_repository(std::string_view tool) {
  const std::string root = utils::path_text(repo_root.native());
  if (stopping_ || !started_) {
    return json{{"error", fmt::format("The worker for {} is not running", root)}, {"status", "failed"}};
  }
  std::error_code ec;
  auto st = fs::status(repo_root, ec);
  if (!fs::exists(st)) {
    return json{{"error", fmt::format("Repository root no longer exists: {}", root)},
                {"status", "failed"}};
  }
  if (!fs::is_directory(st)) {
    return json{{"error", fmt::format("Repository root is not a directory: {}", root)},
                {"status", "failed"}};
  }
  return json::object();
}

aio::Task<void> RepoWorker::_start_indexing() {
  co_await wait_for_releases();  // before the count goes up: a cancelled wait leaves it as it was
  auto guard = co_await _indexing_lock.scoped();
  if (_indexing_in_progress++ == 0) progress_ = IndexStatus::Progress{.started = std::chrono::system_clock::now()};
}

aio::Task<void> RepoWorker::_release_staging(std::optional<aio::Future<storage::Counts>> swap,
                                             std::shared_ptr<storage::Database> staging_db, Paths sidecars,
                                             std::shared_ptr<workers::Indexer> staging_indexer) {
  ++releases_in_flight_;
  auto ended = co_await aio::outcome_of(WorkerReindex::_release_staging(std::move(swap), std::move(staging_db),
                                                                        std::move(sidecars),
                                                                        std::move(staging_indexer)));
  if (--releases_in_flight_ == 0 && releases_done_) std::exchange(releases_done_, nullptr)->set_result();
  std::move(ended).get();
}

aio::Task<void> RepoWorker::wait_for_releases() {
  while (releases_in_flight_ > 0) {
    if (!releases_done_) releases_done_ = std::make_shared<aio::FutureState<void>>();
    co_await aio::shield(aio::Future<void>(releases_done_));
  }
}

aio::Task<void> RepoWorker::_finish_indexing() {
  auto guard = co_await _indexing_lock.scoped();
  if (--_indexing_in_progress == 0) progress_.reset();
}

LivePasses RepoWorker::live_passes() {
  return LivePasses{.start = [this] { return start_live_pass(); },
                    .run = [this](workers::Indexer& indexer, std::optional<std::vector<fs::path>> paths) {
                      return run_live_pass(indexer, std::move(paths));
                    },
                    .finish = [this] { return _finish_indexing(); }};
}

aio::Task<void> RepoWorker::start_live_pass() {
  // Never beside a force_reindex run: wait for it, then count this pass in (under the lock that the
  // facility's busy test takes, so that no run is accepted in between).
  for (;;) {
    std::optional<aio::Future<void>> run;
    {
      auto guard = co_await _indexer_lock.scoped();
      if (!_indexer_task || _indexer_task->done()) {
        co_await _start_indexing();
        co_return;
      }
      run = _indexer_task;
    }
    co_await aio::wait_all({run->base()});
  }
}

aio::Task<workers::IndexStats> RepoWorker::run_live_pass(workers::Indexer& indexer,
                                                         std::optional<std::vector<fs::path>> paths) {
  const bool whole = !paths;
  // The reporting scope, with progress sent only for passes large enough to be worth following.
  struct QuietScope {
    RepoWorker& worker;
    workers::Indexer& indexer;
    std::unique_ptr<PassScope> inner;
    void enter() {
      inner->enter();
      indexer.set_progress([w = &worker](std::int64_t done, std::int64_t total) {
        w->notify_progress(done, total, total >= kQuietPassFiles);
      });
    }
    bool exit(const aio::ScopeExit& how) { return inner->exit(how); }
  } scope{*this, indexer, _reporting_pass(indexer)};
  auto stats = co_await aio::within(scope, indexer.full_index(std::move(paths)));
  if (stats && stats->last_pass && _indexer) _indexer->stats.record_completion(*stats->last_pass);
  if (whole && _passes) _passes->trigger(Trigger::REINDEX);
  co_return std::move(stats).value();
}

std::unique_ptr<PassScope> RepoWorker::_reporting_pass(workers::Indexer& indexer) {
  return std::make_unique<ReportingPass>(*this, indexer);
}

aio::Task<void> RepoWorker::broadcast_status(json message) {
  const std::string type = message.value("type", "");
  if (last_run_ && last_run_->state == "running" && (type == "reindex_complete" || type == "reindex_failed")) {
    last_run_->state = "ended";
    last_run_->outcome = message;
    save_run_record();
  }
  send(message);
  co_return;
}

void RepoWorker::notify_progress(std::int64_t done, std::int64_t total, bool send_it) {
  if (progress_) {
    progress_->phase = "indexing";
    progress_->done = done;
    progress_->total = total;
  }
  if (!send_it) return;
  auto now = std::chrono::steady_clock::now();
  if (done != total && now - last_progress_ < std::chrono::milliseconds(500)) return;
  last_progress_ = now;
  send(json{{"type", "reindex_progress"}, {"files_done", done}, {"files_total", total}});
}

void RepoWorker::send(const json& message) {
  auto sinks = sinks_;  // a sink may unsubscribe while we go through them
  for (auto& [id, sink] : sinks) {
    try {
      sink(message);
    } catch (const std::exception&) {
      utils::log_exception(*worker_logger(), fmt::format("Status sink {} failed", id), std::current_exception());
    }
  }
}

int RepoWorker::subscribe(StatusSink sink) {
  sinks_[next_sink_] = std::move(sink);
  return next_sink_++;
}

void RepoWorker::unsubscribe(int id) { sinks_.erase(id); }

aio::Task<IndexStatus> RepoWorker::status() {
  IndexStatus status;
  const auto counts = co_await aio::to_thread([repo = _repository] { return repo->counts(); });
  status.files = counts.files;
  status.symbols = counts.symbols;
  if (_indexer) {
    json info = _indexer->stats.get_last_index_info();
    if (!info.is_null() && !info.empty()) status.last_index = std::move(info);
  }
  if (status.last_index.is_null()) {
    // Nothing recorded by this process yet: what the last pass, of any process, left in the data directory.
    status.last_index = co_await aio::to_thread([dir = data_dir] { return workers::read_last_index(dir); });
  }
  constexpr std::size_t kLeftOutShown = 5;
  status.left_out = co_await aio::to_thread([dir = data_dir] { return workers::read_left_out(dir, kLeftOutShown); });
  // Before its first pass the worker walks the tree to set up its watches: the index is not yet what
  // that pass will make it, and a caller waiting for the index to settle must not stop there.
  const bool first_pass = follower_ && follower_->first_pass_pending();
  status.progress = progress_;
  if (!status.progress && first_pass) status.progress = IndexStatus::Progress{.started = started_at_};
  status.repo_root = utils::path_text(repo_root.native());
  status.data_dir = utils::path_text(data_dir.native());
  status.indexing = (_indexer_task && !_indexer_task->done()) || _indexing_in_progress > 0 || first_pass;
  status.last_reindex_error = _last_reindex_error;
  status.rebuild_refusal = _rebuild_refusal;
  status.last_reindex = last_run_;
  status.watch = follower_ ? follower_->mode() : TreeFollower::Mode::off;
  status.watches = follower_ ? follower_->watches() : 0;
  co_return status;
}

namespace {

// A requested path through the guards of force_reindex, as a path relative to the root (or a refusal).
std::variant<std::string, Refusal> relative_path(const fs::path& root, const std::string& requested) {
  auto [resolved, refusal] = guard_requested_path(root, requested);
  if (refusal) return Refusal{*refusal};
  return utils::path_text(resolved.lexically_relative(root).generic_string());
}

}  // namespace

aio::Task<SearchAnswer> RepoWorker::search(SearchArgs args) {
  storage::SymbolQuery query{.text = std::move(args.query),
                             .match = args.match,
                             .kind = std::move(args.kind),
                             .path_prefix = std::move(args.path),
                             .limit = args.limit,
                             .language = std::move(args.language)};
  auto [found, files] = co_await aio::to_thread([repo = _repository, query] {
    auto found = repo->find_symbols(query);
    return std::make_pair(std::move(found), repo->file_count());
  });
  co_return SearchAnswer{.found = std::move(found), .note = search_note(files)};
}

std::string RepoWorker::search_note(std::int64_t files) const {
  const bool first_pass = follower_ && follower_->first_pass_pending();
  if (files > 0 && !first_pass) return {};
  if (_indexing_in_progress > 0 || (_indexer_task && !_indexer_task->done()) || first_pass) {
    if (!progress_ || progress_->total == 0) return "indexing: finding files";
    return fmt::format("indexing: {} of {} files", progress_->done, progress_->total);
  }
  return "the index is empty: call force_reindex";
}

aio::Task<OutlineAnswer> RepoWorker::outline(std::string path) {
  co_return co_await aio::to_thread([repo = _repository, root = repo_root, path = std::move(path)]() -> OutlineAnswer {
    auto rel = relative_path(root, path);
    if (auto* refusal = std::get_if<Refusal>(&rel)) return *refusal;
    const std::string& file = std::get<std::string>(rel);
    auto entry = repo->file_symbols(file);
    if (!entry) return Refusal{fmt::format("File not in the index: {}", file)};
    return std::move(*entry);
  });
}

namespace {

// The definition's lines from its first, at most `max_lines` of them.
DefinitionSource read_source(const storage::SymbolHit& d, storage::SourceFiles& sources, int max_lines,
                             std::int64_t other_matches) {
  DefinitionSource out{.definition = d, .other_matches = other_matches};
  out.first_line = d.start_line > 0 ? std::min(d.start_line, d.line) : d.line;
  const int last = std::min(std::max(d.end_line, d.line), out.first_line + max_lines - 1);
  out.text = sources.lines(d.path, out.first_line, last);
  if (out.text) out.signature = storage::signature_of(*out.text, d.line - out.first_line);
  out.truncated = d.end_line > last;
  return out;
}

}  // namespace

aio::Task<SourceAnswer> RepoWorker::source(SourceArgs args) {
  co_return co_await aio::to_thread([repo = _repository, root = repo_root, args = std::move(args)]() -> SourceAnswer {
    std::string rel;
    if (args.path) {
      auto relative = relative_path(root, *args.path);
      if (auto* refusal = std::get_if<Refusal>(&relative)) return *refusal;
      rel = std::get<std::string>(relative);
    }
    storage::SourceFiles sources(root);
    if (!args.name) {
      auto file = repo->file_symbols(rel);
      if (!file) return Refusal{fmt::format("File not in the index: {}", rel)};
      auto at = storage::definition_at(*file, args.line);
      if (!at) return Refusal{fmt::format("No definition at {}:{}", rel, args.line)};
      return read_source(*at, sources, args.max_lines, 0);
    }
    // The best exact match that is not a declaration, where one ranks among the first hits (a header's
    // prototype may rank before the definition it declares).
    storage::SymbolQuery query{.text = *args.name, .match = storage::SymbolQuery::Match::exact, .kind = args.kind, .limit = 50};
    if (args.path) query.path_prefix = rel;
    auto found = repo->find_symbols(query);
    if (found.hits.empty()) return Refusal{fmt::format("No definition named '{}'", *args.name)};
    auto best = std::ranges::find_if(found.hits, [](const storage::SymbolHit& h) { return !h.kind.ends_with("_declaration"); });
    if (best == found.hits.end()) best = found.hits.begin();
    return read_source(*best, sources, args.max_lines, found.total - 1);
  });
}

}  // namespace brenloc::daemon
