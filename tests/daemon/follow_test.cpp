// The worker follows its working tree, with a real tree, the real watcher and the real store: files and
// directories created, changed, moved and removed; ignore rules that change; a directory moved in with
// its files; a burst of files ending in few passes; an edit during a full rebuild, indexed after it; the
// fall-back to polling when the watches run out; the pass at start, and what search says meanwhile.
#include <sqlite3.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

using namespace std::chrono_literals;
using Paths = std::vector<std::string>;

std::string py(const std::string& function) { return "def " + function + "(a):\n    return a\n"; }

// Waits until `done()` holds, for at most 20 s (a loaded machine is slow, and a pass that never comes fails).
aio::Task<void> until(const std::function<bool()>& done, const std::string& what) {
  for (auto deadline = std::chrono::steady_clock::now() + 20s; !done();) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "timed out waiting until " << what;
      co_return;
    }
    co_await aio::sleep_for(5ms);
  }
}

// The files defining `name`, per the worker's search.
aio::Task<Paths> defined_in(daemon::RepoWorker& w, const std::string& name) {
  auto answer = co_await w.search({.query = name, .limit = 100});
  Paths out;
  for (const auto& hit : answer.found.hits) {
    if (hit.name == name) out.push_back(hit.path);
  }
  std::sort(out.begin(), out.end());
  co_return out;
}

// Waits until `name` is defined in exactly `paths`.
aio::Task<void> expect_defined(daemon::RepoWorker& w, const std::string& name, Paths paths) {
  for (auto deadline = std::chrono::steady_clock::now() + 20s;;) {
    Paths got = co_await defined_in(w, name);
    if (got == paths) co_return;
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << name << " is defined in " << ::testing::PrintToString(got) << ", not "
                    << ::testing::PrintToString(paths);
      co_return;
    }
    co_await aio::sleep_for(5ms);
  }
}

daemon::FollowOptions watching() {
  daemon::FollowOptions o{.catch_up = true, .watch = true};
  o.timing.quiet = 10ms;
  return o;
}

struct Follow {
  explicit Follow(daemon::FollowOptions o = watching()) : w(root.path(), data.path(), o) {}
  fs::path at(const std::string& rel) const { return root.path() / rel; }
  // Runs `body` with the worker started and its first pass done, then stops the worker.
  void run(const std::function<aio::Task<void>(daemon::RepoWorker&)>& body) {
    aio::run_until_complete(loop, [](Follow* self, auto body) -> aio::Task<void> {
      co_await self->w.start();
      co_await until([self] { return !self->w.follower()->first_pass_pending(); }, "the first pass has ended");
      co_await body(self->w);
      co_await self->w.stop();
    }(this, body));
  }
  TempDir root, data, outside;
  aio::EventLoop loop;
  daemon::RepoWorker w;
};

// A directory mounted a second time inside the tree is indexed and followed under the path the walk meets
// first: rows under the other path go at the next whole pass, and changes made through either path, or
// a reindex given a path under the other one, reach the index under the first only.
TEST(Follow, ADirectoryReachedTwiceIsFollowedUnderOnePath) {
  Follow f;
  write_file(f.at("a/x.py"), py("alpha"));
  write_file(f.at("b/x.py"), py("old"));
  struct Unmount {
    std::optional<fs::path> at;
    ~Unmount() { if (at) ::umount2(at->c_str(), MNT_DETACH); }
  } mounted;
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    co_await expect_defined(w, "old", {"b/x.py"});
    if (::mount(f.at("a").c_str(), f.at("b").c_str(), nullptr, MS_BIND, nullptr) != 0) co_return;
    mounted.at = f.at("b");
    auto reindex = [&](json args) -> aio::Task<void> {
      while ((co_await w.force_reindex(args))["status"] == "in_progress") co_await aio::sleep_for(5ms);
      co_await aio::wait_all({w.last_run()->base()});
    };
    co_await reindex(json::object());  // a mount sends no event: a whole pass sees it
    co_await expect_defined(w, "alpha", {"a/x.py"});
    co_await expect_defined(w, "old", {});
    write_file(f.at("b/y.py"), py("beta"));
    co_await expect_defined(w, "beta", {"a/y.py"});
    co_await reindex({{"paths", {"b/y.py"}}});
    co_await expect_defined(w, "beta", {"a/y.py"});
    fs::remove(f.at("a/x.py"));
    co_await expect_defined(w, "alpha", {});
    EXPECT_EQ((co_await w.status()).left_out.first.at(0).error, "same directory as a");
  });
  if (!mounted.at) GTEST_SKIP() << "cannot bind-mount (needs root)";
}

TEST(Follow, ChangesOfTheTreeReachTheIndex) {
  struct Step {
    const char* name;
    std::function<void(Follow&)> change;
    std::string symbol;
    Paths defined_in;
    std::optional<int> more_watches = std::nullopt;  // the change in the number of watches, when it matters
  };
  const std::vector<Step> steps = {
      {"a file created", [](Follow& f) { write_file(f.at("a.py"), py("alpha")); }, "alpha", {"a.py"}},
      {"a file changed", [](Follow& f) { write_file(f.at("a.py"), py("beta")); }, "alpha", {}},
      {"... its new content", [](Follow&) {}, "beta", {"a.py"}},
      {"a file renamed", [](Follow& f) { fs::rename(f.at("a.py"), f.at("b.py")); }, "beta", {"b.py"}},
      {"a file removed", [](Follow& f) { fs::remove(f.at("b.py")); }, "beta", {}},
      {"a directory created, then a file in it", [](Follow& f) { write_file(f.at("d/e/c.py"), py("gamma")); }, "gamma",
       {"d/e/c.py"}},
      {"a directory moved in with its files",
       [](Follow& f) {
         write_file(f.outside.path() / "m/n/x.py", py("delta"));
         fs::rename(f.outside.path() / "m", f.at("moved"));
       },
       "delta", {"moved/n/x.py"}},
      {"... a file written in it afterwards", [](Follow& f) { write_file(f.at("moved/n/y.py"), py("delta")); }, "delta",
       {"moved/n/x.py", "moved/n/y.py"}},
      {"a directory renamed", [](Follow& f) { fs::rename(f.at("moved"), f.at("kept")); }, "delta",
       {"kept/n/x.py", "kept/n/y.py"}},
      {"... and written in under its new name", [](Follow& f) { write_file(f.at("kept/n/z.py"), py("epsilon")); },
       "epsilon", {"kept/n/z.py"}},
      {"a directory removed", [](Follow& f) { fs::remove_all(f.at("kept")); }, "delta", {}},
      {"a .gitignore that leaves a directory out", [](Follow& f) { write_file(f.at("d/.gitignore"), "e/\nlater/\n"); },
       "gamma", {}, -1},
      {"a file in a directory that is ignored", [](Follow& f) { write_file(f.at("d/later/q.py"), py("zeta")); },
       "zeta", {}},
      {"the .gitignore removed", [](Follow& f) { fs::remove(f.at("d/.gitignore")); }, "gamma", {"d/e/c.py"}, 2},
      {"... the directory ignored until then is indexed", [](Follow&) {}, "zeta", {"d/later/q.py"}},
      {"... and watched", [](Follow& f) { write_file(f.at("d/later/r.py"), py("zeta")); }, "zeta",
       {"d/later/q.py", "d/later/r.py"}},
      {"info/exclude leaves a file out", [](Follow& f) { write_file(f.at(".git/info/exclude"), "r.py\n"); }, "zeta",
       {"d/later/q.py"}},
  };
  Follow f;
  fs::create_directories(f.at(".git/info"));  // a repository's, before the worker starts
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    for (const auto& s : steps) {
      SCOPED_TRACE(s.name);
      const std::size_t watches = w.follower()->watches();
      s.change(f);
      co_await expect_defined(w, s.symbol, s.defined_in);
      if (s.more_watches) {
        const std::size_t want = watches + *s.more_watches;
        co_await until([&] { return w.follower()->watches() == want; }, fmt::format("{} watches", want));
      }
    }
    auto status = co_await w.status();
    EXPECT_EQ(status.watch, daemon::TreeFollower::Mode::inotify);
    EXPECT_GE(status.watches, 4u);  // ., d, d/later, .git/info
  });
}

// The files that decide the exclude rules are followed also when they, or their directories, come later:
// a repository made in the tree, an excludes file named in its configuration, its info directory made anew.
// The calls of a name, as "path:line in definition", per the worker's references.
aio::Task<Paths> calls_of(daemon::RepoWorker& w, const std::string& name) {
  auto answer = co_await w.references({.name = name, .roles = 1u << static_cast<int>(storage::UseRole::call)});
  Paths out;
  for (const auto& file : std::get<daemon::References>(answer).files) {
    for (const auto& r : file.hits) out.push_back(fmt::format("{}:{} in {}", file.path, r.line, r.within ? r.within->name : "-"));
  }
  co_return out;
}

// How many files' uses live passes have left apart, not yet moved into place.
std::int64_t uses_apart(const fs::path& data_dir) {
  sqlite3* c = nullptr;
  std::int64_t n = -1;
  if (sqlite3_open_v2((data_dir / "index.db").c_str(), &c, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(c, "SELECT count(*) FROM uses_fresh", -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      n = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close_v2(c);
  return n;
}

// A call written, its function renamed, its file deleted: find_references follows each as a search does,
// and reads the same once the tree is quiet and the uses of the passes are moved into place.
TEST(Follow, ReferencesFollowTheTree) {
  Follow f;
  write_file(f.at("lib.py"), py("parse_config"));
  write_file(f.at("app.py"), "def main():\n    return 1\n");
  struct Step {
    const char* name;
    std::function<void(Follow&)> change;
    std::string called;
    Paths calls;
    bool quiet = false;  // the uses of the passes moved into place first
  };
  const std::vector<Step> steps = {
      {"no call yet", [](Follow&) {}, "parse_config", {}},
      {"a call added", [](Follow& f) { write_file(f.at("app.py"), "def main():\n    return parse_config(1)\n"); },
       "parse_config", {"app.py:2 in main"}},
      {"the function renamed at its definition and its call",
       [](Follow& f) {
         write_file(f.at("lib.py"), py("load_config"));
         write_file(f.at("app.py"), "def main():\n    x = 0\n    return load_config(x)\n");
       },
       "load_config", {"app.py:3 in main"}},
      {"... its old name called nowhere", [](Follow&) {}, "parse_config", {}},
      {"the tree quiet: the uses moved", [](Follow&) {}, "load_config", {"app.py:3 in main"}, true},
      {"the calling file deleted", [](Follow& f) { fs::remove(f.at("app.py")); }, "load_config", {}},
  };
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    for (const Step& step : steps) {
      SCOPED_TRACE(step.name);
      step.change(f);
      if (step.quiet) co_await until([&] { return uses_apart(f.data.path()) == 0; }, "the uses are moved into place");
      Paths got;
      for (auto deadline = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < deadline;) {
        got = co_await calls_of(w, step.called);
        if (got == step.calls) break;
        co_await aio::sleep_for(5ms);
      }
      EXPECT_EQ(got, step.calls);
    }
  });
}

TEST(Follow, TheExcludeRulesAreFollowedAsTheirFilesComeAndGo) {
  struct Step {
    const char* name;
    std::function<void(Follow&)> change;
    Paths xray, yankee;  // where each is defined afterwards
  };
  const std::vector<Step> steps = {
      {"a repository made with an exclude file", [](Follow& f) { write_file(f.at(".git/info/exclude"), "x.py\n"); },
       {}, {"y.py"}},
      {"an excludes file named in its configuration",
       [](Follow& f) {
         write_file(f.outside.path() / "ignore", "y.py\n");
         write_file(f.at(".git/config"), "[core]\n\texcludesFile = " + (f.outside.path() / "ignore").string() + "\n");
       },
       {}, {}},
      {"that excludes file changed", [](Follow& f) { write_file(f.outside.path() / "ignore", "z.py\n"); }, {},
       {"y.py"}},
      {"the info directory removed", [](Follow& f) { fs::remove_all(f.at(".git/info")); }, {"x.py"}, {"y.py"}},
      {"... and made again", [](Follow& f) { write_file(f.at(".git/info/exclude"), "*.py\n"); }, {}, {}},
  };
  Follow f;
  write_file(f.at("x.py"), py("xray"));
  write_file(f.at("y.py"), py("yankee"));
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    co_await expect_defined(w, "xray", {"x.py"});
    for (const auto& s : steps) {
      SCOPED_TRACE(s.name);
      s.change(f);
      co_await expect_defined(w, "xray", s.xray);
      co_await expect_defined(w, "yankee", s.yankee);
    }
  });
}

// 2,000 files written at once (a branch switch) are indexed by a few passes, not one per file.
TEST(Follow, ABurstOfChangesEndsInFewPasses) {
  Follow f;
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    const int before = w.follower()->passes();
    for (int i = 0; i < 2000; ++i) write_file(f.at(fmt::format("s{}/f{}.py", i % 20, i)), py(fmt::format("burst_{}", i)));
    co_await expect_defined(w, "burst_1999", {"s19/f1999.py"});
    co_await until([&] { return !w.busy(); }, "the passes have ended");
    EXPECT_EQ((co_await w.status()).files, 2000);
    EXPECT_LE(w.follower()->passes() - before, 6);
  });
}

// More changes than the kernel's event queue holds, made while the loop cannot read it: the queue
// overflows, events are lost, and a whole pass finds what they would have told.
TEST(Follow, AQueueOverflowIsAnsweredByAWholePass) {
  std::ifstream limit_file("/proc/sys/fs/inotify/max_queued_events");
  long limit = 0;
  limit_file >> limit;
  if (limit <= 0 || limit > 200000) GTEST_SKIP() << "inotify queue limit " << limit;
  const long files = limit / 2 + 500;  // each new file is at least two events (created, closed)
  Follow f;
  write_file(f.at("o/seed.py"), py("seed"));
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    for (long i = 0; i < files; ++i) write_file(f.at(fmt::format("o/f{}.py", i)), py(fmt::format("flood_{}", i)));
    co_await expect_defined(w, fmt::format("flood_{}", files - 1), {fmt::format("o/f{}.py", files - 1)});
    co_await until([&] { return !w.busy(); }, "the passes have ended");
    EXPECT_EQ((co_await w.status()).files, files + 1);
  });
}

// Out of watches, the worker says so and follows the tree by whole passes.
TEST(Follow, OutOfWatchesTheWorkerPolls) {
  auto o = watching();
  o.max_watches = 3;
  o.poll_interval = 100ms;
  Follow f(o);
  for (int i = 0; i < 5; ++i) write_file(f.at(fmt::format("d{}/f.py", i)), py(fmt::format("polled_{}", i)));
  f.run([&](daemon::RepoWorker& w) -> aio::Task<void> {
    auto status = co_await w.status();
    EXPECT_EQ(status.watch, daemon::TreeFollower::Mode::polling);
    EXPECT_EQ(status.watches, 0u);
    co_await expect_defined(w, "polled_4", {"d4/f.py"});
    write_file(f.at("d4/g.py"), py("polled_4"));
    co_await expect_defined(w, "polled_4", {"d4/f.py", "d4/g.py"});
  });
}

// A full rebuild that lets the test change the tree after the staging pass has read it.
class EditDuringRebuild : public daemon::WorkerEnv {
 public:
  std::function<void()> after_staging_pass;

  class Staging : public workers::Indexer {
   public:
    Staging(workers::IndexerOptions o, EditDuringRebuild& w) : Indexer(std::move(o)), w_(w) {}
    aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>> paths) override {
      auto stats = co_await Indexer::full_index(std::move(paths));
      if (w_.after_staging_pass) std::exchange(w_.after_staging_pass, nullptr)();
      co_await aio::sleep_for(100ms);  // the watcher sees the edit while the rebuild goes on
      co_return stats;
    }

   private:
    EditDuringRebuild& w_;
  };
  std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions o) override {
    if (o.background) return std::make_shared<Staging>(std::move(o), *this);  // a rebuild's staging pass
    return WorkerEnv::new_indexer(std::move(o));
  }
};

TEST(Follow, AnEditDuringAFullRebuildIsIndexedAfterTheSwap) {
  TempDir root, data;
  write_file(root.path() / "a.py", py("before"));
  aio::EventLoop loop;
  EditDuringRebuild env;
  daemon::RepoWorker w(root.path(), data.path(), watching(), env);
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    co_await until([&] { return !w.follower()->first_pass_pending(); }, "the first pass has ended");
    env.after_staging_pass = [&] { write_file(root.path() / "a.py", py("after")); };
    json answer = co_await w.force_reindex({{"clear_existing", true}});
    EXPECT_EQ(answer["status"], "accepted");
    const int passes = w.follower()->passes();
    co_await aio::wait_all({w.last_run()->base()});
    EXPECT_EQ(w.follower()->passes(), passes) << "no watcher pass during the rebuild";
    co_await expect_defined(w, "after", {"a.py"});
    co_await expect_defined(w, "before", {});
    co_await w.stop();
  }());
}

// The pass at start indexes what changed while nothing watched; meanwhile force_reindex is answered
// "in_progress" and search says that indexing goes on; an index left empty says so.
TEST(Follow, ThePassAtStartCatchesUp) {
  TempDir root, data;
  for (int i = 0; i < 300; ++i) write_file(root.path() / fmt::format("p{}.py", i), py(fmt::format("start_{}", i)));
  aio::EventLoop loop;
  {
    daemon::RepoWorker w(root.path(), data.path());  // not following: nothing indexed
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      co_await w.start();
      EXPECT_EQ((co_await w.search({.query = "start_1"})).note, "the index is empty: call force_reindex");
      co_await w.stop();
    }());
  }
  for (bool second : {false, true}) {
    SCOPED_TRACE(second ? "after changes while nothing watched" : "an empty index");
    if (second) {
      fs::remove(root.path() / "p0.py");
      write_file(root.path() / "new.py", py("start_new"));
    }
    daemon::RepoWorker w(root.path(), data.path(), {.catch_up = true, .watch = second});
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      co_await w.start();
      // Said from the start, while the watches are set up before the pass: a caller that waits for
      // indexing to end must not stop before the pass has begun.
      EXPECT_TRUE((co_await w.status()).indexing);
      if (!second) {
        co_await until([&] { return w.busy(); }, "the first pass has begun");
        EXPECT_EQ((co_await w.force_reindex(json::object()))["status"], "in_progress");
        const std::string note = (co_await w.search({.query = "start_1"})).note;
        EXPECT_TRUE(note.starts_with("indexing: ")) << note;
      }
      co_await until([&] { return !w.follower()->first_pass_pending(); }, "the first pass has ended");
      EXPECT_FALSE((co_await w.status()).indexing);
      const std::string note = (co_await w.search({.query = "start_12"})).note;
      EXPECT_TRUE(note.empty()) << note;
      co_await expect_defined(w, "start_0", second ? Paths{} : Paths{"p0.py"});
      EXPECT_EQ(co_await defined_in(w, "start_new"), second ? Paths{"new.py"} : Paths{});
      EXPECT_EQ((co_await w.status()).watch,
                second ? daemon::TreeFollower::Mode::inotify : daemon::TreeFollower::Mode::off);
      co_await w.stop();
    }());
  }
}

}  // namespace
}  // namespace brenloc::testing
