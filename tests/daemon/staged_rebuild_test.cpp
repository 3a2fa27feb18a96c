// The full rebuild through a staging database, over real SQLite files: every step made to fail or to be
// cancelled while the rebuild waits there, with the clean-up it must run and what it must leave behind.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>

#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker_reindex.h"
#include "brenloc/utils/logging.h"
#include "daemon/fake_worker.h"
#include "utils/tree_fixtures.h"
#include "support/log_capture.h"

namespace brenloc::testing {
namespace {

storage::SymbolRow symbol(std::string name, std::string kind, int line) {
  return storage::SymbolRow{std::move(name), std::move(kind), line, 1, line, 10, ""};
}

storage::FileEntry file_entry(std::string path, std::vector<storage::SymbolRow> symbols) {
  return storage::FileEntry{storage::FileRow{path, "python", 10, 1, "hash-" + path}, std::move(symbols)};
}

// Events from the loop and from lane threads, in order.
struct EventLog {
  void add(std::string e) {
    std::lock_guard l(mu);
    events.push_back(std::move(e));
  }
  std::vector<std::string> all() {
    std::lock_guard l(mu);
    return events;
  }
  bool has(const std::string& e) { return std::ranges::count(all(), e) > 0; }
  std::mutex mu;
  std::vector<std::string> events;
};

// Blocks a thread until the test opens it.
struct ThreadGate {
  std::atomic<bool> entered{false}, opened{false};
  void wait() {
    entered = true;
    opened.wait(false);
  }
  void open() {
    opened = true;
    opened.notify_all();
  }
};

enum class Step { none, open, repository, indexer, pass, pass_errors, swap, report, release, discard };
enum class Mode { fail, cancel };

struct Injection {
  Step step = Step::none;
  Mode mode = Mode::fail;
};

// The live store, with a swap that can be made to fail or wait.
class LiveRepository : public storage::Repository {
 public:
  LiveRepository(std::shared_ptr<storage::Database> db, const Injection& inj, EventLog& log, ThreadGate& gate)
      : storage::Repository(std::move(db)), inj_(inj), log_(log), gate_(gate) {}
  json swap_index_from(const fs::path& staging_path) override {
    log_.add("swap");
    if (inj_.step == Step::swap && inj_.mode == Mode::cancel) gate_.wait();
    if (inj_.step == Step::swap && inj_.mode == Mode::fail) throw std::runtime_error("swap failed");
    json counts = storage::Repository::swap_index_from(staging_path);
    log_.add("swap done");
    return counts;
  }

 private:
  const Injection& inj_;
  EventLog& log_;
  ThreadGate& gate_;
};

// A staging pass that stores one real file with one symbol into the staging store.
class StagingIndexer : public workers::Indexer {
 public:
  StagingIndexer(workers::IndexerOptions o, const Injection& inj, EventLog& log, aio::Future<void> gate)
      : workers::Indexer(std::move(o)), inj_(inj), log_(log), gate_(std::move(gate)) {}
  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>>) override {
    log_.add("pass");
    auto repo = options().repository;
    co_await aio::to_thread([repo] { repo->store_files({file_entry("new.py", {symbol("new_fn", "function", 1)})}); });
    if (inj_.step == Step::pass && inj_.mode == Mode::cancel) co_await gate_;
    if (inj_.step == Step::pass && inj_.mode == Mode::fail) throw std::runtime_error("pass failed");
    co_return make_stats(1, 1, inj_.step == Step::pass_errors ? 3 : 0);
  }
  aio::Task<void> settle() override {
    log_.add("settle");
    co_return;
  }

 private:
  const Injection& inj_;
  EventLog& log_;
  aio::Future<void> gate_;
};

class StagingWorker : public FakeWorker {
 public:
  StagingWorker(const fs::path& root, const fs::path& data, Injection inj) : FakeWorker(root, data), inj(inj) {
    auto db = std::make_shared<storage::Database>(data / "index.db");
    db->connect();
    db->create_schema();
    _database = db;
    _repository = std::make_shared<LiveRepository>(db, this->inj, log, thread_gate);
    _repository->store_files({file_entry("old.py", {symbol("old_fn", "function", 1)})});
  }
  ~StagingWorker() override {
    thread_gate.open();
    _passes_lane.join();
    _maintenance.join();
    _database->close();
  }

  Injection inj;
  EventLog log;
  ThreadGate thread_gate;        // parks the open, the swap or the report on their threads
  aio::Future<void> loop_gate = make_gate();  // parks the pass or the release on the loop
  int releases_running = 0;

  std::shared_ptr<storage::Database> _open_staging_db(const fs::path& p, const Paths& s) override {
    log.add("open");
    if (inj.step == Step::open && inj.mode == Mode::cancel) thread_gate.wait();
    if (inj.step == Step::open && inj.mode == Mode::fail) throw std::runtime_error("open failed");
    return WorkerReindex::_open_staging_db(p, s);
  }
  std::shared_ptr<storage::Repository> _new_repository(std::shared_ptr<storage::Database> db) override {
    if (inj.step == Step::repository) throw std::runtime_error("repository failed");
    return WorkerReindex::_new_repository(std::move(db));
  }
  std::shared_ptr<workers::Indexer> _new_indexer(workers::IndexerOptions o) override {
    if (inj.step == Step::indexer) throw std::runtime_error("indexer failed");
    return std::make_shared<StagingIndexer>(std::move(o), inj, log, loop_gate);
  }
  void _write_report(std::shared_ptr<storage::Repository>, fs::path, bool force) override {
    log.add(force ? "report forced" : "report");
    if (inj.step == Step::report && inj.mode == Mode::cancel) thread_gate.wait();
    if (inj.step == Step::report && inj.mode == Mode::fail) throw std::runtime_error("report failed");
  }
  aio::Task<void> _release_staging(std::optional<aio::Future<json>> swap, std::shared_ptr<storage::Database> db,
                                   Paths sidecars, std::shared_ptr<workers::Indexer> indexer) override {
    struct Running {
      int& n;
      explicit Running(int& count) : n(count) { ++n; }
      ~Running() { --n; }
    } running(releases_running);
    log.add(std::string("release") + (swap ? " swap" : "") + (indexer ? " indexer" : ""));
    if (inj.step == Step::release && inj.mode == Mode::cancel) co_await loop_gate;
    if (inj.step == Step::release && inj.mode == Mode::fail) throw std::runtime_error("release failed");
    co_await WorkerReindex::_release_staging(std::move(swap), std::move(db), std::move(sidecars), std::move(indexer));
  }
  void _discard_staging(const std::shared_ptr<storage::Database>& db, const Paths& sidecars) override {
    log.add("discard");
    if (inj.step == Step::discard) throw std::runtime_error("discard failed");
    WorkerReindex::_discard_staging(db, sidecars);
  }

  std::string live_symbols() {
    std::string out;
    for (const auto& f : _repository->list_files()) out += f.path + ";";
    return out;
  }
};

struct MatrixCase {
  Injection inj;
  std::string outcome;  // "ok", "cancelled", or the error text
  std::vector<std::string> events;
  bool files_left;
  std::string live;  // the live files after the rebuild
};

std::string name_of(const MatrixCase& c) {
  static const char* steps[] = {"none", "open",   "repository", "indexer", "pass",
                                "pass_errors", "swap", "report", "release", "discard"};
  return std::string(steps[static_cast<int>(c.inj.step)]) + (c.inj.mode == Mode::fail ? " fails" : " cancelled");
}

// Waits on the loop until `cond` holds (work on threads finishing), or fails after a few seconds.
aio::Task<void> until(std::function<bool()> cond) {
  for (int i = 0; i < 5000 && !cond(); ++i) co_await aio::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(cond());
}

TEST(StagedRebuild, FaultMatrix) {
  const std::string incomplete =
      "Rebuild incomplete: 3 files or directories could not be indexed; the live index was kept. errors.jsonl names "
      "them: fix each, or leave it out of the index with a .gitignore rule, then rebuild again";
  const std::vector<std::string> full = {"open", "pass", "swap", "swap done", "report forced", "release swap indexer",
                                         "settle", "discard"};
  const std::vector<MatrixCase> cases = {
      {{Step::none}, "ok", full, false, "new.py;"},
      {{Step::open, Mode::fail}, "open failed", {"open"}, false, "old.py;"},
      {{Step::open, Mode::cancel}, "cancelled", {"open", "release", "discard"}, false, "old.py;"},
      {{Step::repository}, "repository failed", {"open", "release", "discard"}, false, "old.py;"},
      {{Step::indexer}, "indexer failed", {"open", "release", "discard"}, false, "old.py;"},
      {{Step::pass, Mode::fail}, "pass failed", {"open", "pass", "release indexer", "settle", "discard"}, false,
       "old.py;"},
      {{Step::pass, Mode::cancel}, "cancelled", {"open", "pass", "release indexer", "settle", "discard"}, false,
       "old.py;"},
      {{Step::pass_errors}, incomplete, {"open", "pass", "release indexer", "settle", "discard"}, false, "old.py;"},
      {{Step::swap, Mode::fail}, "swap failed", {"open", "pass", "swap", "release swap indexer", "settle", "discard"},
       false, "old.py;"},
      // The swap runs on to its end on the lane; the release waits for it before it discards anything.
      {{Step::swap, Mode::cancel}, "cancelled",
       {"open", "pass", "swap", "release swap indexer", "settle", "swap done", "discard"}, false, "new.py;"},
      {{Step::report, Mode::fail}, "report failed", full, false, "new.py;"},
      {{Step::report, Mode::cancel}, "cancelled", full, false, "new.py;"},
      {{Step::release, Mode::fail}, "release failed",
       {"open", "pass", "swap", "swap done", "report forced", "release swap indexer"}, true, "new.py;"},
      // Cancelled while it waits for the release: the release runs on regardless.
      {{Step::release, Mode::cancel}, "cancelled", full, false, "new.py;"},
      {{Step::discard}, "discard failed", full, true, "new.py;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(name_of(c));
    TempDir root, data;
    LogCapture logs;
    StagingWorker w(root.path(), data.path(), c.inj);
    std::string outcome;
    aio::EventLoop loop(2);
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      // A query cached before the rebuild must not be served after a swap.
      storage::SymbolQuery q{.text = "old_fn", .match = storage::SymbolQuery::Match::exact};
      EXPECT_EQ(w._repository->search_symbols(q).size(), 1u);
      auto rebuild = aio::spawn(w._full_reindex_via_staging());
      if (c.inj.mode == Mode::cancel) {
        if (c.inj.step == Step::pass || c.inj.step == Step::release) {
          co_await until([&] { return w.log.has(c.inj.step == Step::pass ? "pass" : "release swap indexer"); });
          co_await aio::sleep_for(std::chrono::milliseconds(5));
        } else {
          co_await until([&] { return w.thread_gate.entered.load(); });
        }
        rebuild.cancel();
        co_await aio::sleep_for(std::chrono::milliseconds(5));
        w.thread_gate.open();
        open_gate(w.loop_gate);
      }
      co_await aio::wait_all({rebuild.base()});
      if (rebuild.cancelled()) {
        outcome = "cancelled";
      } else if (auto e = rebuild.exception()) {
        outcome = utils::error_text(e);
      } else {
        outcome = "ok";
        EXPECT_EQ(rebuild.result().files_processed, 1);
      }
      // Work that outlives the rebuild (a released release) must still finish.
      co_await until([&] { return w.releases_running == 0; });
      EXPECT_EQ(w._repository->search_symbols(q).size(), c.live == "old.py;" ? 1u : 0u);
    }());
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(w.log.all(), c.events);
    EXPECT_EQ(staging_files_left(w.data_dir), c.files_left);
    EXPECT_EQ(w.live_symbols(), c.live);
    bool swap_logged = false;
    for (const auto& r : logs.of("brenloc.daemon.worker")) {
      if (r.first_line() == R"(Force-reindex swap committed (rows: {"files":1,"symbols":1}))") swap_logged = true;
    }
    EXPECT_EQ(swap_logged, w.log.has("swap done") && c.inj.step != Step::swap);
    if (c.inj.step == Step::open && c.inj.mode == Mode::fail) {
      auto records = logs.of("brenloc.daemon.worker");
      ASSERT_EQ(records.size(), 1u);
      EXPECT_EQ(records[0].first_line(), "Suppressed failure while opening the staging database");
    }
  }
}

TEST(StagingFiles, RemoveFilesGoesOnPastOneThatCannotBeDeleted) {
  TempDir dir;
  fs::create_directories(dir.path() / "busy");
  std::ofstream(dir.path() / "busy" / "inside");  // a non-empty directory cannot be removed as a file
  std::ofstream(dir.path() / "a");
  std::ofstream(dir.path() / "c");
  daemon::WorkerReindex::_remove_files({dir.path() / "a", dir.path() / "busy", dir.path() / "missing", dir.path() / "c"});
  EXPECT_FALSE(fs::exists(dir.path() / "a"));
  EXPECT_TRUE(fs::exists(dir.path() / "busy"));
  EXPECT_FALSE(fs::exists(dir.path() / "c"));
}

TEST(StagingFiles, LeftoversOfAKilledRebuildAreDeletedBeforeTheNewDatabaseOpens) {
  TempDir data;
  FakeWorker w(data.path(), data.path());
  auto [staging, sidecars] = w._staging_db_paths(data.path() / "index.db");
  const fs::path s = data.path() / "index.db.reindex-staging";  // beside the live database
  ASSERT_EQ(sidecars, (std::vector<fs::path>{s, s.string() + "-wal", s.string() + "-shm"}));
  ASSERT_EQ(staging, s);
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A rebuild in another process: rows written into the staging database's log, never checkpointed.
    auto db = std::make_shared<storage::Database>(staging);
    db->connect();
    db->create_schema();
    storage::Repository repo(db);
    repo.store_files({file_entry("leftover.py", {symbol("stale", "function", 1)})});
    char c = 1;
    (void)::write(ready[1], &c, 1);
    ::pause();
    ::_exit(0);
  }
  char c;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ASSERT_TRUE(fs::exists(sidecars[1]));  // the killed process left its log behind

  auto db = w._open_staging_db(staging, sidecars);
  storage::Repository fresh(db);
  EXPECT_EQ(fresh.counts().files, 0);
  EXPECT_TRUE(fresh.list_files().empty());
  w._discard_staging(db, sidecars);
  EXPECT_FALSE(staging_files_left(data.path()));
}

}  // namespace
}  // namespace brenloc::testing
