// The full rebuild through a staging database, over real SQLite files: every step made to fail or to be
// cancelled while the rebuild waits there, with the clean-up it must run and what it must leave behind.
#include <atomic>
#include <gtest/gtest.h>

#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker_reindex.h"
#include "brenloc/utils/logging.h"
#include "daemon/fake_worker.h"
#include "storage/storage_fixture.h"
#include "utils/tree_fixtures.h"
#include "support/log_capture.h"

namespace brenloc::testing {
namespace {

// One file with one function.
storage::FileEntry file_entry(const std::string& path, const std::string& function) {
  return {storage::FileRow{path, "python", 10, 1, "hash-" + path}, {storage::SymbolRow{function, "function", 1, 1, 1, 10, ""}}};
}

enum class Step { none, open, repository, indexer, pass, pass_errors, swap, report, release, discard };
const char* const kSteps[] = {"none", "open", "repository", "indexer", "pass", "pass_errors", "swap", "report",
                              "release", "discard"};
enum class Mode { fail, cancel };

// The fault to inject, and a gate that parks a thread until the test opens it (`entered`: something is
// parked at the fault's step).
struct Faults {
  Step step = Step::none;
  Mode mode = Mode::fail;
  std::atomic<bool> entered{false}, opened{false};
  std::atomic<bool> settling{false};  // the release has begun

  // Reached `at` on a thread: fails there, or waits at the gate when the rebuild is to be cancelled there.
  void reach(Step at) {
    if (step != at) return;
    if (mode == Mode::fail) throw std::runtime_error(std::string(kSteps[static_cast<int>(at)]) + " failed");
    entered = true;
    opened.wait(false);
  }
  void open() {
    opened = true;
    opened.notify_all();
  }
};

// The live store, with a swap that can be made to fail or wait.
class LiveRepository : public storage::Repository {
 public:
  LiveRepository(std::shared_ptr<storage::Database> db, Faults& f) : storage::Repository(std::move(db)), f_(f) {}
  storage::Counts swap_index_from(const fs::path& staging_path) override {
    f_.reach(Step::swap);
    return storage::Repository::swap_index_from(staging_path);
  }

 private:
  Faults& f_;
};

// A staging database whose close (the discard) can be made to fail.
class StagingDatabase : public storage::Database {
 public:
  StagingDatabase(const fs::path& p, Faults& f) : storage::Database(p), f_(f) {}
  void close() override {
    f_.reach(Step::discard);
    storage::Database::close();
  }

 private:
  Faults& f_;
};

// A staging pass that stores one real file with one symbol into the staging store; its settling (the
// first step of the release) can be made to fail or wait.
class StagingIndexer : public workers::Indexer {
 public:
  StagingIndexer(workers::IndexerOptions o, Faults& f, aio::Future<void> gate)
      : workers::Indexer(std::move(o)), f_(f), gate_(std::move(gate)) {}
  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>>) override {
    auto repo = options().repository;
    co_await aio::to_thread([repo] { repo->store_files({file_entry("new.py", "new_fn")}); });
    if (f_.step == Step::pass && f_.mode == Mode::cancel) {
      f_.entered = true;
      co_await gate_;
    }
    f_.reach(Step::pass);
    co_return make_stats(1, 1, f_.step == Step::pass_errors ? 3 : 0);
  }
  aio::Task<void> settle() override {
    f_.settling = true;
    if (f_.step == Step::release && f_.mode == Mode::cancel) {
      f_.entered = true;
      co_await gate_;
    }
    f_.reach(Step::release);
  }

 private:
  Faults& f_;
  aio::Future<void> gate_;
};

// Makes the worker's stores and the rebuild's staging database, store, indexer and report, each of which
// can be made to fail, or (on a thread, or at the gate on the loop) wait until the test lets it go.
class FaultEnv : public daemon::WorkerEnv {
 public:
  FaultEnv(Step step, Mode mode) { f.step = step, f.mode = mode; }

  Faults f;
  aio::Future<void> loop_gate = make_gate();  // parks the pass or the release on the loop

  std::shared_ptr<storage::Database> new_database(const fs::path& path, bool live) override {
    if (live) return WorkerEnv::new_database(path, live);
    f.reach(Step::open);
    return std::make_shared<StagingDatabase>(path, f);
  }
  std::shared_ptr<storage::Repository> new_repository(std::shared_ptr<storage::Database> db) override {
    if (!live_) return live_ = std::make_shared<LiveRepository>(std::move(db), f);
    f.reach(Step::repository);
    return WorkerEnv::new_repository(std::move(db));
  }
  std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions o) override {
    f.reach(Step::indexer);
    return std::make_shared<StagingIndexer>(std::move(o), f, loop_gate);
  }
  void write_report(const std::shared_ptr<storage::Repository>&, const fs::path&, bool) override {
    f.reach(Step::report);
  }

 private:
  std::shared_ptr<storage::Repository> live_;
};

struct MatrixCase {
  Step step;
  Mode mode;
  std::string outcome;  // "ok", "cancelled", or the error text
  bool files_left;
  std::string live;  // the live files after the rebuild
};

// Waits on the loop until `cond` holds (work on threads finishing), or fails after a few seconds.
aio::Task<void> until(std::function<bool()> cond) {
  for (int i = 0; i < 5000 && !cond(); ++i) co_await aio::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(cond());
}

TEST(StagedRebuild, FaultMatrix) {
  const std::string incomplete =
      "Rebuild incomplete: 3 files or directories could not be indexed; the live index was kept. errors.jsonl names "
      "them: fix each, or leave it out of the index with a .gitignore rule, then rebuild again";
  const std::vector<MatrixCase> cases = {
      {Step::none, Mode::fail, "ok", false, "new.py;"},
      {Step::open, Mode::fail, "open failed", false, "old.py;"},
      {Step::open, Mode::cancel, "cancelled", false, "old.py;"},
      {Step::repository, Mode::fail, "repository failed", false, "old.py;"},
      {Step::indexer, Mode::fail, "indexer failed", false, "old.py;"},
      {Step::pass, Mode::fail, "pass failed", false, "old.py;"},
      {Step::pass, Mode::cancel, "cancelled", false, "old.py;"},
      {Step::pass_errors, Mode::fail, incomplete, false, "old.py;"},
      {Step::swap, Mode::fail, "swap failed", false, "old.py;"},
      // The swap runs on to its end on the lane; the release waits for it before it discards anything.
      {Step::swap, Mode::cancel, "cancelled", false, "new.py;"},
      {Step::report, Mode::fail, "report failed", false, "new.py;"},
      {Step::report, Mode::cancel, "cancelled", false, "new.py;"},
      {Step::release, Mode::fail, "release failed", true, "new.py;"},
      // Cancelled while it waits for the release: the release runs on regardless.
      {Step::release, Mode::cancel, "cancelled", false, "new.py;"},
      {Step::discard, Mode::fail, "discard failed", true, "new.py;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(kSteps[static_cast<int>(c.step)]) + (c.mode == Mode::fail ? " fails" : " cancelled"));
    LogCapture logs;
    FaultEnv env(c.step, c.mode);
    FakeWorker w(env);
    w._repository->store_files({file_entry("old.py", "old_fn")});
    std::string outcome;
    aio::EventLoop loop(2);
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      // A query cached before the rebuild must not be served after a swap.
      storage::SymbolQuery q{.text = "old_fn", .match = storage::SymbolQuery::Match::exact};
      EXPECT_EQ(w._repository->search_symbols(q).size(), 1u);
      auto rebuild = aio::spawn(w._full_reindex_via_staging());
      if (c.mode == Mode::cancel) {
        co_await until([&] { return env.f.entered.load(); });
        rebuild.cancel();
        // A cancelled swap is let go only once the release waits for it.
        if (c.step == Step::swap) co_await until([&] { return env.f.settling.load(); });
        env.f.open();
        open_gate(env.loop_gate);
      }
      co_await aio::wait_all({rebuild.base()});
      outcome = ending_of(rebuild);
      if (outcome == "ok") EXPECT_EQ(rebuild.result().files_processed, 1);
      // Work that outlives the rebuild (a release let go on its own) must still finish.
      co_await until([&] { return w.releases_running == 0; });
      EXPECT_EQ(w._repository->search_symbols(q).size(), c.live == "old.py;" ? 1u : 0u);
    }());
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(staging_files_left(w.data_dir), c.files_left);
    EXPECT_EQ(w.live_files(), c.live);
    bool swap_logged = false;
    for (const auto& r : logs.of("brenloc.daemon.worker")) {
      if (r.first_line() == R"(Force-reindex swap committed (rows: {"files":1,"symbols":1}))") swap_logged = true;
    }
    EXPECT_EQ(swap_logged, c.live == "new.py;" && c.step != Step::swap);
    if (c.step == Step::open && c.mode == Mode::fail) {
      auto records = logs.of("brenloc.daemon.worker");
      ASSERT_EQ(records.size(), 1u);
      EXPECT_EQ(records[0].first_line(), "Suppressed failure while opening the staging database");
    }
  }
}

TEST(StagingFiles, RemoveFilesGoesOnPastOneThatCannotBeDeleted) {
  TempDir dir;
  const fs::path d = dir.path();
  for (const char* f : {"a", "busy/inside", "c"}) write_file(d / f);  // a non-empty directory is no file to remove
  FakeWorker::_remove_files({d / "a", d / "busy", d / "missing", d / "c"});
  EXPECT_EQ((std::vector<bool>{fs::exists(d / "a"), fs::exists(d / "busy"), fs::exists(d / "c")}),
            (std::vector<bool>{false, true, false}));
}

TEST(StagingFiles, LeftoversOfAnUnfinishedRebuildAreDeletedBeforeTheNewDatabaseOpens) {
  daemon::WorkerEnv env;
  FakeWorker w(env);
  const fs::path data = w.data_dir;
  auto [staging, sidecars] = w._staging_db_paths(data / "index.db");
  const fs::path s = data / "index.db.reindex-staging";  // beside the live database
  ASSERT_EQ(sidecars, (std::vector<fs::path>{s, s.string() + "-wal", s.string() + "-shm"}));
  ASSERT_EQ(staging, s);
  // A rebuild that never ended (its connection still open, as a killed process's was): rows in the staging
  // database's log, never checkpointed.
  auto left = std::make_shared<storage::Database>(staging);
  left->connect();
  left->create_schema();
  storage::Repository(left).store_files({file_entry("leftover.py", "stale")});
  ASSERT_TRUE(fs::exists(sidecars[1]));

  auto db = w._open_staging_db(staging, sidecars);
  storage::Repository fresh(db);
  EXPECT_EQ(fresh.counts().files, 0);
  EXPECT_TRUE(fresh.list_files().empty());
  w._discard_staging(db, sidecars);
  EXPECT_FALSE(staging_files_left(data));
  left->close();
}

// A live store whose swap can be refused.
class RefusingRepository : public storage::Repository {
 public:
  using storage::Repository::Repository;
  storage::Counts swap_index_from(const fs::path&) override { throw std::runtime_error("swap refused"); }
};

class SwapEnv : public daemon::WorkerEnv {
 public:
  explicit SwapEnv(bool refuse) : refuse_(refuse) {}
  std::shared_ptr<storage::Repository> new_repository(std::shared_ptr<storage::Database> db) override {
    if (refuse_) return std::make_shared<RefusingRepository>(std::move(db));
    return WorkerEnv::new_repository(std::move(db));
  }

 private:
  bool refuse_;
};

// The swap settles the staging log into the staging file first; after a swap that went through, a query
// answered before it is answered from the new index, and after one that failed the live index is as it was.
TEST(Swap, CheckpointsTheStagingLogAndAnswersFromTheNewIndexAfterASwap) {
  for (bool refuse : {false, true}) {
    SCOPED_TRACE(refuse ? "refused" : "swapped");
    SwapEnv env(refuse);
    FakeWorker w(env);
    auto live = w._repository;
    live->store_files({file_entry("old.py", "old_fn")});
    const storage::SymbolQuery old_fn{.text = "old_fn", .match = storage::SymbolQuery::Match::exact};
    ASSERT_EQ(live->search_symbols(old_fn).size(), 1u);
    auto [staging, sidecars] = w._staging_db_paths(w.data_dir / "index.db");
    auto db = w._open_staging_db(staging, sidecars);
    storage::Repository(db).store_files({file_entry("new.py", "new_fn")});
    ASSERT_GT(fs::file_size(sidecars[1]), 0u);
    if (refuse) {
      EXPECT_THROW(w._swap_in_staged_index(live, db, staging), std::runtime_error);
    } else {
      EXPECT_EQ(storage::to_string(w._swap_in_staged_index(live, db, staging)), R"({"files":1,"symbols":1})");
    }
    EXPECT_EQ(fs::file_size(sidecars[1]), 0u);
    EXPECT_EQ(w.live_files(), refuse ? "old.py;" : "new.py;");
    EXPECT_EQ(live->search_symbols(old_fn).size(), refuse ? 1u : 0u);
    w._discard_staging(db, sidecars);
  }
}

// A database whose close fails (after closing), and whose schema may fail.
class CloseFailsDatabase : public storage::Database {
 public:
  CloseFailsDatabase(const fs::path& p, bool schema_fails) : storage::Database(p), schema_fails_(schema_fails) {}
  void create_schema() override {
    if (schema_fails_) throw std::runtime_error("schema failed");
    storage::Database::create_schema();
  }
  void close() override {
    storage::Database::close();
    throw std::runtime_error("close failed");
  }

 private:
  bool schema_fails_;
};

// Staging databases whose close fails.
class CloseFailsEnv : public daemon::WorkerEnv {
 public:
  explicit CloseFailsEnv(bool schema_fails) : schema_fails_(schema_fails) {}
  std::shared_ptr<storage::Database> new_database(const fs::path& p, bool live) override {
    if (live) return WorkerEnv::new_database(p, live);
    return std::make_shared<CloseFailsDatabase>(p, schema_fails_);
  }

 private:
  bool schema_fails_;
};

// A close that fails keeps the staging files and its error goes out: in the opening's clean-up after a
// failed schema (instead of the schema's error), and in a discard.
TEST(StagingFiles, ACloseThatFailsKeepsTheFiles) {
  for (bool opening : {true, false}) {
    SCOPED_TRACE(opening ? "opening" : "discard");
    CloseFailsEnv env(opening);
    FakeWorker w(env);
    auto [staging, sidecars] = w._staging_db_paths(w.data_dir / "index.db");
    try {
      auto db = w._open_staging_db(staging, sidecars);
      ASSERT_FALSE(opening);
      w._discard_staging(db, sidecars);
      ADD_FAILURE() << "the discard did not fail";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "close failed");
    }
    EXPECT_TRUE(fs::exists(staging));
  }
}

}  // namespace
}  // namespace brenloc::testing
