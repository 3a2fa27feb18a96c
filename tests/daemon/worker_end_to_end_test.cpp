// The real worker, indexer and store end to end. A staging database that runs out of room (before its
// schema is in, while the pass stores its rows, or while the name index is built after them) fails or
// refuses the rebuild and leaves the live index exactly as it was and no staging file behind; only the
// live index syncs; a rebuild waits for the release of one cancelled before it; requests that try to
// reach outside the repository are refused or contained.
#include <sys/inotify.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker.h"
#include "daemon/fake_worker.h"
#include "storage/storage_fixture.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

// A repository big enough that its index takes some room: `files` modules of 40 functions each.
void make_repository(const fs::path& root, int files) {
  for (int i = 0; i < files; ++i) {
    std::string text;
    for (int j = 0; j < 40; ++j) text += "def function_" + std::to_string(i) + "_" + std::to_string(j) + "(a, b):\n    return a + b\n\n";
    write_file(root / ("pkg" + std::to_string(i % 7)) / ("mod" + std::to_string(i) + ".py"), text);
  }
}

// A worker whose live store the test reads.
class Worker : public daemon::RepoWorker {
 public:
  using RepoWorker::RepoWorker;
  using RepoWorker::_repository;
};

// Every row of the live index, for before/after comparisons.
std::string fingerprint(Worker& w) {
  std::string out;
  for (const auto& f : w._repository->list_files()) out += f.path + ":" + f.content_hash + ";";
  storage::SymbolQuery all{.text = "", .match = storage::SymbolQuery::Match::prefix, .limit = -1};
  out += std::to_string(w._repository->search_symbols(all).size());
  return out;
}

aio::Task<void> reindex(daemon::RepoWorker& w, json params) {
  json response = co_await w.force_reindex(std::move(params));
  EXPECT_EQ(response["status"], "accepted") << response.dump();
  co_await aio::wait_all({w.last_run()->base()});
}

// A staging database that cannot grow past a few pages.
class SmallStagingDatabase : public storage::Database {
 public:
  SmallStagingDatabase(const fs::path& p, int pages) : storage::Database(p), pages_(pages) {}
  void create_schema() override {
    execute(fmt::format("PRAGMA max_page_count = {}", pages_));
    storage::Database::create_schema();
  }

 private:
  int pages_;
};

class SmallStagingEnv : public daemon::WorkerEnv {
 public:
  int staging_pages = 0;  // 0: no limit
  std::shared_ptr<storage::Database> new_database(const fs::path& p, bool live) override {
    if (staging_pages > 0 && !live) return std::make_shared<SmallStagingDatabase>(p, staging_pages);
    return WorkerEnv::new_database(p, live);
  }
};

TEST(RebuildEndToEnd, AStagingDatabaseWithoutRoomKeepsTheLiveIndex) {
  struct Case {
    int staging_pages;
    std::string error;   // in the last reindex error
    std::string detail;  // in errors.jsonl, when the pass ran
  };
  const std::vector<Case> cases = {
      {2, "creating the schema: database or disk is full", ""},
      {19, "Rebuild incomplete", "database or disk is full"},
      {44, "building the indexes: database or disk is full", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.staging_pages);
    TempDir root, data;
    make_repository(root.path(), 30);
    aio::EventLoop loop;
    SmallStagingEnv env;
    Worker w(root.path(), data.path(), {}, env);
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      co_await w.start();
      co_await reindex(w, {{"clear_existing", true}});
      const std::string before = fingerprint(w);
      write_file(root.path() / "extra.py", "def added():\n    pass\n");
      env.staging_pages = c.staging_pages;
      co_await reindex(w, {{"clear_existing", true}});
      env.staging_pages = 0;
      EXPECT_EQ(fingerprint(w), before);
      EXPECT_FALSE(staging_files_left(data.path()));
      auto status = co_await w.status();
      EXPECT_NE(status.last_reindex_error.value_or("").find(c.error), std::string::npos)
          << status.last_reindex_error.value_or("(none)");
      if (!c.detail.empty()) {
        std::ifstream errors(data.path() / "errors.jsonl");
        std::string line;
        std::getline(errors, line);
        EXPECT_NE(line.find(c.detail), std::string::npos) << line;
      }
      // Only a rebuild that left files out is refused, and a live reindex keeps reporting the refusal.
      EXPECT_EQ(status.rebuild_refusal.has_value(), c.error == "Rebuild incomplete");
      co_await reindex(w, {{"paths", {"extra.py"}}});
      status = co_await w.status();
      EXPECT_EQ(status.last_reindex_error, status.rebuild_refusal);
      co_await reindex(w, {{"clear_existing", true}});  // room again: the rebuild goes through
      status = co_await w.status();
      EXPECT_FALSE(status.last_reindex_error.has_value()) << status.last_reindex_error.value_or("");
      EXPECT_FALSE(status.rebuild_refusal.has_value());
      EXPECT_NE(fingerprint(w), before);
      co_await w.stop();
    }());
  }
}

// The live index syncs its writes (a crash of the machine must not corrupt it); a staging database, deleted
// unread after any crash, does not.
TEST(RebuildEndToEnd, OnlyTheLiveIndexIsSynced) {
  TempDir data;
  const std::pair<const char*, const char*> cases[] = {{"index.db", "1"}, {"index.db.reindex-staging", "0"}};
  for (const auto& [name, synchronous] : cases) {
    auto db = daemon::WorkerEnv::standard().new_database(data.path() / name, name == std::string("index.db"));
    db->connect();
    EXPECT_EQ(storage::testing::query_text(*db, "PRAGMA synchronous"), synchronous) << name;
    db->close();
  }
}

// Staging databases whose first discard (their close) waits until the test lets it go.
class SlowDiscardEnv : public daemon::WorkerEnv {
 public:
  std::latch discard_entered{1}, discard_may_go{1};
  std::atomic<int> discards{0}, openings{0};

  class Staging : public storage::Database {
   public:
    Staging(const fs::path& p, SlowDiscardEnv& env) : storage::Database(p), env_(env) {}
    void close() override {
      if (env_.discards++ == 0) {
        env_.discard_entered.count_down();
        env_.discard_may_go.wait();
      }
      storage::Database::close();
    }

   private:
    SlowDiscardEnv& env_;
  };
  std::shared_ptr<storage::Database> new_database(const fs::path& p, bool live) override {
    if (live) return WorkerEnv::new_database(p, live);
    ++openings;
    return std::make_shared<Staging>(p, *this);
  }
};

TEST(RebuildEndToEnd, ARebuildWaitsForTheReleaseOfOneCancelledBeforeIt) {
  TempDir root, data;
  write_file(root.path() / "app.py", "def alpha():\n    pass\n");
  aio::EventLoop loop;
  SlowDiscardEnv env;
  daemon::RepoWorker w(root.path(), data.path(), {}, env);
  std::vector<json> outcomes;
  w.subscribe([&](const json& m) {
    if (m["type"] != "reindex_progress") outcomes.push_back(m);
  });
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    EXPECT_EQ((co_await w.force_reindex({{"clear_existing", true}}))["status"], "accepted");
    auto first = *w.last_run();
    co_await aio::to_thread([&] { env.discard_entered.wait(); });
    first.cancel();  // it waits for its release: the run ends, the release goes on
    co_await aio::wait_all({first.base()});
    EXPECT_EQ(w.releases_in_flight(), 1);
    write_file(root.path() / "app.py", "def beta():\n    pass\n");
    EXPECT_EQ((co_await w.force_reindex({{"clear_existing", true}}))["status"], "accepted");
    // The second rebuild must not open its staging database while the first one's is being discarded:
    // had it done so, the discard would now delete the files under it.
    for (int i = 0; i < 200 && env.openings < 2; ++i) co_await aio::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(env.openings, 1);
    env.discard_may_go.count_down();
    co_await aio::wait_all({w.last_run()->base()});
    co_await w.stop();
  }());
  ASSERT_FALSE(outcomes.empty());
  EXPECT_EQ(outcomes.back()["type"], "reindex_complete") << outcomes.back().dump();
  EXPECT_FALSE(staging_files_left(data.path()));
}

// Requests that try to reach outside the repository: each is refused or contained, and a canary file
// outside the root is never opened (watched with inotify) by the requests, a live pass or a rebuild.
class CanaryWatch {
 public:
  explicit CanaryWatch(const fs::path& dir) : fd_(::inotify_init1(IN_NONBLOCK)) {
    ::inotify_add_watch(fd_, dir.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~CanaryWatch() { ::close(fd_); }
  // The first of the watched directory's entries opened or read ("." for the directory), "" for none.
  std::string first_touched() const {
    alignas(inotify_event) char buf[4096];
    if (::read(fd_, buf, sizeof buf) <= 0) return "";
    const auto* e = reinterpret_cast<const inotify_event*>(buf);
    return e->len > 0 ? e->name : ".";
  }

 private:
  int fd_;
};

TEST(HostilePaths, EscapesAreRefusedOrContainedAndTheCanaryIsNeverRead) {
  TempDir root_dir, outside, data;
  const fs::path root = root_dir.path();
  write_file(root / "src" / "a.py", "def inside():\n    pass\n");
  write_file(root / std::string("caf\xe9.py"), "def latin1_name():\n    pass\n");  // not UTF-8
  write_file(outside.path() / "canary.py", "def canary():\n    pass\n");
  fs::create_directory_symlink(outside.path(), root / "out");
  fs::create_symlink(outside.path() / "canary.py", root / "src" / "canary_link.py");
  CanaryWatch watch(outside.path());

  const std::string outside_text = "Path outside repository", link_text = "Symlinks are not allowed in paths";
  struct Case {
    std::vector<std::string> paths;
    std::string expect;  // a refusal text, "accepted", or "error"
  };
  const std::vector<Case> cases = {
      {{".."}, outside_text},
      {{(outside.path() / "canary.py").string()}, outside_text},
      {{"src/../../" + root.filename().string() + "/src/a.py"}, "accepted"},
      {{"out/canary.py"}, link_text},
      {{"src/canary_link.py"}, link_text},
      {{std::string("caf\xe9.py")}, "accepted"},
      {{std::string(5000, 'a')}, "error"},  // a name longer than the file system allows
      {{[] {
         std::string deep;
         for (int i = 0; i < 19; ++i) deep += std::string(200, 'd') + "/";
         return deep + "x.py";
       }()},
       "accepted"},  // long, but only missing: nothing to index
  };

  aio::EventLoop loop;
  Worker w(root, data.path());
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    for (const auto& c : cases) {
      SCOPED_TRACE(c.paths.front().substr(0, 60));
      std::string got;
      try {
        json response = co_await w.force_reindex(json{{"paths", c.paths}});
        got = response.contains("error") ? response["error"].get<std::string>() : response["status"].get<std::string>();
      } catch (const std::exception&) {
        got = "error";
      }
      EXPECT_EQ(got, c.expect);
      if (w.last_run()) co_await aio::wait_all({w.last_run()->base()});
    }
    co_await reindex(w, json::object());
    co_await reindex(w, {{"clear_existing", true}});
    const auto last_error = (co_await w.status()).last_reindex_error;
    EXPECT_FALSE(last_error.has_value()) << last_error.value_or("");
    for (const auto& f : w._repository->list_files()) {
      EXPECT_EQ(f.path.find(".."), std::string::npos) << f.path;
      EXPECT_NE(f.path.front(), '/') << f.path;
    }
    storage::SymbolQuery q{.text = "canary", .match = storage::SymbolQuery::Match::substring};
    EXPECT_TRUE(w._repository->search_symbols(q).empty());
    q.text = "inside";
    EXPECT_EQ(w._repository->search_symbols(q).size(), 1u);
    co_await w.stop();
  }());
  EXPECT_EQ(watch.first_touched(), "");
}

}  // namespace
}  // namespace brenloc::testing
