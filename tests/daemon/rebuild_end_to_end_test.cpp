// Full rebuilds through the real worker, indexer and store: a rebuild that leaves a file out is refused
// and keeps the live index; an ignore rule for the file lets the next one through.
#include <sys/stat.h>

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

using json = nlohmann::ordered_json;

aio::Task<json> reindex(daemon::RepoWorker& w, json params) {
  json response = co_await w._handle_force_reindex(std::move(params));
  EXPECT_EQ(response["status"], "accepted") << response.dump();
  co_await aio::wait_all({w._indexer_task->base()});
  co_return response;
}

std::vector<std::string> names(daemon::RepoWorker& w, const std::string& q) {
  std::vector<std::string> out;
  for (const auto& h : w._repository->search_symbols({.text = q, .match = storage::SymbolQuery::Match::prefix})) {
    out.push_back(h.name);
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST(RebuildEndToEnd, AFileThatCannotBeReadRefusesTheRebuildUntilIgnored) {
  if (ran_as_unprivileged_child("RebuildEndToEnd.AFileThatCannotBeReadRefusesTheRebuildUntilIgnored")) return;
  TempDir root, data;
  write_file(root.path() / "app.py", "def alpha():\n    pass\n");
  aio::EventLoop loop;
  daemon::RepoWorker w(root.path(), data.path());
  std::vector<json> broadcasts;
  w.subscribe([&](const json& m) {
    if (m["type"] != "reindex_progress") broadcasts.push_back(m);
  });
  const std::string refusal = daemon::IncompleteRebuildError(1).what();
  EXPECT_TRUE(refusal.starts_with("Rebuild incomplete: 1 files or directories")) << refusal;

  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    co_await reindex(w, {{"clear_existing", true}});
    EXPECT_EQ(names(w, "alpha"), std::vector<std::string>{"alpha"});

    // A second symbol and a file the worker cannot read.
    write_file(root.path() / "app.py", "def alpha():\n    pass\n\ndef alpha_two():\n    pass\n");
    write_file(root.path() / "secret.py", "def hidden():\n    pass\n");
    ::chmod((root.path() / "secret.py").c_str(), 0);
    co_await reindex(w, {{"clear_existing", true}});
    EXPECT_EQ(w._rebuild_refusal, refusal);
    EXPECT_EQ(w._last_reindex_error, refusal);
    EXPECT_EQ(broadcasts.back(), (json{{"type", "reindex_failed"}, {"error", refusal}}));
    EXPECT_EQ(names(w, "alpha"), std::vector<std::string>{"alpha"});  // the live index was kept
    std::ifstream errors(data.path() / "errors.jsonl");
    std::string line;
    std::getline(errors, line);
    EXPECT_EQ(json::parse(line).value("path", ""), "secret.py") << line;

    // A live reindex keeps reporting the standing refusal.
    co_await reindex(w, {{"paths", {"app.py"}}});
    EXPECT_EQ(w._last_reindex_error, refusal);
    EXPECT_EQ(broadcasts.back()["type"], "reindex_complete");

    write_file(root.path() / ".gitignore", "secret.py\n");
    co_await reindex(w, {{"clear_existing", true}});
    EXPECT_FALSE(w._rebuild_refusal.has_value());
    EXPECT_FALSE(w._last_reindex_error.has_value());
    EXPECT_EQ(names(w, "alpha"), (std::vector<std::string>{"alpha", "alpha_two"}));
    EXPECT_TRUE(names(w, "hidden").empty());
    EXPECT_FALSE(staging_files_left(data.path()));
    co_await w.stop();
  }());
}

// The live index syncs its writes (a crash of the machine must not corrupt it); a staging database, deleted
// unread after any crash, does not.
TEST(RebuildEndToEnd, OnlyTheLiveIndexIsSynced) {
  TempDir root, data;
  daemon::RepoWorker w(root.path(), data.path());
  const std::pair<const char*, const char*> cases[] = {{"index.db", "1"}, {"index.db.reindex-staging", "0"}};
  for (const auto& [name, synchronous] : cases) {
    auto db = w._new_database(data.path() / name);
    db->connect();
    EXPECT_EQ(storage::testing::query_text(*db, "PRAGMA synchronous"), synchronous) << name;
    db->close();
  }
}

// A worker whose discard of a staging database waits until the test lets it go.
class SlowDiscardWorker : public daemon::RepoWorker {
 public:
  using RepoWorker::RepoWorker;
  std::latch discard_entered{1}, discard_may_go{1};
  std::atomic<int> discards{0}, openings{0};
  std::shared_ptr<storage::Database> _open_staging_db(const fs::path& p, const Paths& sidecars) override {
    auto db = RepoWorker::_open_staging_db(p, sidecars);
    ++openings;
    return db;
  }
  void _discard_staging(const std::shared_ptr<storage::Database>& db, const Paths& sidecars) override {
    if (discards++ == 0) {
      discard_entered.count_down();
      discard_may_go.wait();
    }
    RepoWorker::_discard_staging(db, sidecars);
  }
};

TEST(RebuildEndToEnd, ARebuildWaitsForTheReleaseOfOneCancelledBeforeIt) {
  TempDir root, data;
  write_file(root.path() / "app.py", "def alpha():\n    pass\n");
  aio::EventLoop loop;
  SlowDiscardWorker w(root.path(), data.path());
  std::vector<json> outcomes;
  w.subscribe([&](const json& m) {
    if (m["type"] != "reindex_progress") outcomes.push_back(m);
  });
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    EXPECT_EQ((co_await w._handle_force_reindex({{"clear_existing", true}}))["status"], "accepted");
    auto first = *w._indexer_task;
    co_await aio::to_thread([&] { w.discard_entered.wait(); });
    first.cancel();  // it waits for its release: the run ends, the release goes on
    co_await aio::wait_all({first.base()});
    EXPECT_EQ(w.releases_in_flight(), 1);
    write_file(root.path() / "app.py", "def beta():\n    pass\n");
    EXPECT_EQ((co_await w._handle_force_reindex({{"clear_existing", true}}))["status"], "accepted");
    // The second rebuild must not open its staging database while the first one's is being discarded:
    // had it done so, the discard would now delete the files under it.
    for (int i = 0; i < 200 && w.openings < 2; ++i) co_await aio::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(w.openings, 1);
    w.discard_may_go.count_down();
    co_await aio::wait_all({w._indexer_task->base()});
    co_await w.stop();
  }());
  ASSERT_FALSE(outcomes.empty());
  EXPECT_EQ(outcomes.back()["type"], "reindex_complete") << outcomes.back().dump();
  EXPECT_FALSE(staging_files_left(data.path()));
}

}  // namespace
}  // namespace brenloc::testing
