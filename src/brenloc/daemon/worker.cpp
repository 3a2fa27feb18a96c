#include "brenloc/daemon/worker.h"

#include <malloc.h>

#include <algorithm>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <system_error>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/thread.h"
#include "brenloc/daemon/reindex_paths.h"
#include "brenloc/storage/definition_source.h"
#include "brenloc/storage/errors.h"
#include "brenloc/storage/search_answer.h"
#include "brenloc/tool_binding.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/pass_files.h"
#include "brenloc/workers/report_generator.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

namespace {

fs::path resolve_root(const fs::path& root) {
  std::error_code ec;
  fs::path resolved = fs::weakly_canonical(fs::absolute(root), ec);
  return ec ? fs::absolute(root).lexically_normal() : resolved;
}

// Logs an index pass and carries its progress to the worker's clients.
class ReportingPass final : public PassScope {
 public:
  ReportingPass(RepoWorker& worker, workers::Indexer& indexer) : worker_(worker), indexer_(indexer) {}
  void enter() override {
    indexer_.set_progress([w = &worker_](std::int64_t done, std::int64_t total) { w->notify_progress(done, total); });
    worker_.pass_started();
    worker_logger()->debug("Index pass started");
  }
  bool exit(const aio::ScopeExit& how) override {
    indexer_.set_progress(nullptr);
    worker_.pass_ended(indexer_, how.kind == aio::ScopeExit::normal);
    static const char* names[] = {"finished", "failed", "cancelled"};
    worker_logger()->debug("Index pass {}", names[how.kind]);
    return false;
  }

 private:
  RepoWorker& worker_;
  workers::Indexer& indexer_;
};

}  // namespace

RepoWorker::RepoWorker(const fs::path& root, fs::path data, FollowOptions follow)
    : WorkerReindex(resolve_root(root), std::move(data)), follow_(follow) {}

RepoWorker::~RepoWorker() = default;

aio::Task<void> RepoWorker::start() {
  fs::create_directories(data_dir);
  owner_lock_ = utils::OwnerLock::acquire(data_dir / kOwnerLockFile, "the data directory " + data_dir.string(),
                                          owner_note_);
  _database = _new_database(data_dir / "index.db");
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
  _repository = _new_repository(_database);
  _indexer = _new_indexer({.repository = _repository, .repo_root = repo_root, .offload = _passes_lane.run});
  std::vector<PassScheduler::Pass> passes = {
      {"report", [repo = _repository, root = repo_root] { workers::write_report(repo, root, false); }},
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
    follower_ = std::make_unique<TreeFollower>(*this, follow_);
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

aio::Task<json> RepoWorker::call_tool(std::string name, json arguments) {
  auto answer = co_await aio::outcome_of(dispatch_tool(name, std::move(arguments)));
  if (answer.failed() && !answer.cancelled()) {
    try {
      std::rethrow_exception(answer.error);
    } catch (const storage::StorageError& e) {
      // The client hears what failed, not the database's path on this machine: that goes to the log.
      utils::log_exception(*worker_logger(), fmt::format("Tool {} failed", name), answer.error);
      throw std::runtime_error(fmt::format("{} failed in the index database (SQLite code {}); the log of brenloc "
                                           "has the details",
                                           name, e.code()));
    } catch (...) {
    }
  }
  co_return std::move(answer).get();
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

aio::Task<json> RepoWorker::dispatch_tool(const std::string& name, json arguments) {
  if (name == "force_reindex") co_return co_await force_reindex(std::move(arguments));
  if (name == "index_status") {
    bind_arguments("none", arguments);
    co_return co_await index_status();
  }
  if (name == "search_symbols") co_return co_await search_symbols(std::move(arguments));
  if (name == "file_outline") co_return co_await file_outline(std::move(arguments));
  if (name == "symbol_source") co_return co_await symbol_source(std::move(arguments));
  throw UnknownTool(name);
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
  if (_indexing_in_progress++ == 0) progress_ = Progress{.started = std::chrono::system_clock::now()};
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

void RepoWorker::pass_started() {
  if (progress_) progress_->phase = "walking";
}

void RepoWorker::pass_ended(const workers::Indexer& indexer, bool normally) {
  // A pass that does not refresh the report is a rebuild's staging pass: the swap comes next.
  if (progress_ && normally && !indexer.options().refresh_report) progress_->phase = "swapping";
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

aio::Task<json> RepoWorker::index_status() {
  auto counts = co_await aio::to_thread([repo = _repository] { return repo->counts(); });
  const bool task_running = _indexer_task && !_indexer_task->done();
  auto opt = [](const std::optional<std::string>& s) { return s ? json(*s) : json(); };
  json last_index;
  if (_indexer) {
    json info = _indexer->stats.get_last_index_info();
    if (!info.is_null() && !info.empty()) last_index = info;
  }
  if (last_index.is_null()) {
    // Nothing recorded by this process yet: what the last pass, of any process, left in the data directory.
    last_index = co_await aio::to_thread([dir = data_dir] { return json(workers::read_last_index(dir)); });
  }
  constexpr std::size_t kLeftOutShown = 5;
  json left_out = co_await aio::to_thread(
      [dir = data_dir] { return workers::left_out_json(workers::read_left_out(dir, kLeftOutShown)); });
  // Before its first pass the worker walks the tree to set up its watches: the index is not yet what
  // that pass will make it, and a caller waiting for the index to settle must not stop there.
  const bool first_pass = follower_ && follower_->first_pass_pending();
  std::optional<Progress> shown = progress_;
  if (!shown && first_pass) shown = Progress{.started = started_at_};
  json progress;
  if (shown) {
    progress = json{{"phase", shown->phase},
                    {"files_done", shown->done},
                    {"files_total", shown->total},
                    {"started_at", fmt::format("{:%Y-%m-%dT%H:%M:%S}Z",
                                               fmt::gmtime(std::chrono::system_clock::to_time_t(shown->started)))}};
  }
  co_return json{{"repo_root", utils::path_text(repo_root.native())},
                 {"data_dir", utils::path_text(data_dir.native())},
                 {"indexing", task_running || _indexing_in_progress > 0 || first_pass},
                 {"progress", progress},
                 {"last_reindex_error", opt(_last_reindex_error)},
                 {"rebuild_refusal", opt(_rebuild_refusal)},
                 {"last_reindex", last_run_ ? last_run_->to_json() : json()},
                 {"files", counts.files},
                 {"symbols", counts.symbols},
                 {"last_index", last_index},
                 {"left_out", std::move(left_out)},
                 {"watch", TreeFollower::mode_name(follower_ ? follower_->mode() : TreeFollower::Mode::off)},
                 {"watches", follower_ ? follower_->watches() : 0}};
}

namespace {

constexpr std::size_t kOutlineBytes = 64 * 1024;

storage::SymbolQuery::Match match_mode(const std::string& name) {
  using M = storage::SymbolQuery::Match;
  if (name == "exact") return M::exact;
  if (name == "prefix") return M::prefix;
  if (name == "substring") return M::substring;
  if (name == "fuzzy") return M::fuzzy;
  return M::automatic;
}

std::optional<std::string> opt_string(const json& v) {
  return v.is_null() ? std::nullopt : std::optional<std::string>(v.get<std::string>());
}

json failed(std::string error) { return json{{"error", std::move(error)}, {"status", "failed"}}; }

// A requested path through the guards of force_reindex, as a path relative to the root (or a refusal).
std::pair<std::string, std::optional<json>> relative_path(const fs::path& root, const std::string& requested) {
  auto [resolved, refusal] = guard_requested_path(root, requested);
  if (refusal) return {"", failed(*refusal)};
  return {utils::path_text(resolved.lexically_relative(root).generic_string()), std::nullopt};
}

}  // namespace

aio::Task<json> RepoWorker::search_symbols(json params) {
  json bound = bind_arguments("search", params);
  storage::SymbolQuery query;
  query.text = bound["query"].get<std::string>();
  query.match = match_mode(bound["match"].get<std::string>());
  query.kind = opt_string(bound["kind"]);
  query.path_prefix = opt_string(bound["path"]);
  query.language = opt_string(bound["language"]);
  query.limit = bound["limit"].get<int>();
  const auto max_bytes = bound["max_bytes"].get<std::size_t>();
  json answer = co_await aio::to_thread([repo = _repository, root = repo_root, query, match = bound["match"], max_bytes] {
    storage::SourceFiles sources(root);
    return storage::search_answer(query.text, match.get<std::string>(), repo->find_symbols(query), sources, max_bytes);
  });
  const auto counts = co_await aio::to_thread([repo = _repository] { return repo->counts(); });
  if (std::string note = search_note(counts.files); !note.empty()) answer["note"] = note;
  co_return answer;
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

aio::Task<json> RepoWorker::file_outline(json params) {
  json bound = bind_arguments("outline", params);
  co_return co_await aio::to_thread([repo = _repository, root = repo_root, path = bound["path"].get<std::string>()] {
    auto [rel, refusal] = relative_path(root, path);
    if (refusal) return *refusal;
    auto file = repo->file_symbols(rel);
    if (!file) return failed(fmt::format("File not in the index: {}", rel));
    return storage::outline_answer(*file, kOutlineBytes);
  });
}

aio::Task<json> RepoWorker::symbol_source(json params) {
  json bound = bind_arguments("source", params);
  const auto name = opt_string(bound["name"]);
  const auto path = opt_string(bound["path"]);
  const int line = bound["line"].is_null() ? 0 : bound["line"].get<int>();
  if (!name && (!path || line == 0)) throw ArgumentError("name", "give a 'name', or a 'path' and a 'line'");
  const int max_lines = bound["max_lines"].get<int>();
  co_return co_await aio::to_thread([repo = _repository, root = repo_root, name, path, line, max_lines,
                                     kind = opt_string(bound["kind"])]() -> json {
    std::string rel;
    if (path) {
      auto [relative, refusal] = relative_path(root, *path);
      if (refusal) return *refusal;
      rel = relative;
    }
    storage::SourceFiles sources(root);
    if (!name) {
      auto file = repo->file_symbols(rel);
      if (!file) return failed(fmt::format("File not in the index: {}", rel));
      auto at = storage::definition_at(*file, line);
      if (!at) return failed(fmt::format("No definition at {}:{}", rel, line));
      return storage::source_answer(*at, sources, max_lines, 0);
    }
    // The best exact match that is not a declaration, where one ranks among the first hits (a header's
    // prototype may rank before the definition it declares).
    storage::SymbolQuery query{.text = *name, .match = storage::SymbolQuery::Match::exact, .kind = kind, .limit = 50};
    if (path) query.path_prefix = rel;
    auto found = repo->find_symbols(query);
    if (found.hits.empty()) return failed(fmt::format("No definition named '{}'", *name));
    auto best = std::ranges::find_if(found.hits, [](const storage::SymbolHit& h) { return !h.kind.ends_with("_declaration"); });
    if (best == found.hits.end()) best = found.hits.begin();
    return storage::source_answer(*best, sources, max_lines, found.total - 1);
  });
}

}  // namespace brenloc::daemon
