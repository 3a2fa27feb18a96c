// Index passes over temporary repositories with the real store and parser: what the walk leaves out,
// what counts as left out and how errors.jsonl names it, whole passes over a changing tree, the forms of
// a paths pass, and cancellation.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <latch>
#include <set>

#include <gtest/gtest.h>

#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/offload.h"
#include "indexer_harness.h"

namespace brenloc::workers {
namespace {

using testing::c_source;
using testing::Harness;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Paths = std::vector<std::string>;

const std::string kOk = "int ok(void) { return 1; }\n";

// ---------------------------------------------------------------------------------------------------
// What the walk leaves out by policy: never indexed, never an error, in a whole pass and when listed.

struct SkipCase {
  const char* name;
  const char* data_rel;  // the data directory under the root
  std::function<void(Harness&)> make;
  Paths listed;      // paths to list in a paths pass
  Paths indexed;     // besides ok.c
  std::int64_t max_file_size = 1 << 20;
};

TEST(IndexerWalk, LeavesOutByPolicyWithoutErrors) {
  const SkipCase cases[] = {
      {"symbolic link to a file", ".brenloc",
       [](Harness& h) { fs::create_symlink(h.root() / "ok.c", h.root() / "link.c"); }, {"link.c"}, {}},
      {"symbolic link to a directory", ".brenloc",
       [](Harness& h) {
         h.write("dir/inner.c", kOk);
         fs::create_directory_symlink(h.root() / "dir", h.root() / "linkdir");
       },
       {"linkdir/inner.c", "linkdir"}, {"dir/inner.c"}},
      {"FIFO", ".brenloc", [](Harness& h) { ASSERT_EQ(::mkfifo((h.root() / "pipe.c").c_str(), 0644), 0); },
       {"pipe.c"}, {}},
      {"binary file", ".brenloc", [](Harness& h) { h.write("bin.c", std::string("int x;\0\1\2", 10)); },
       {"bin.c"}, {}},
      {"over the size limit", ".brenloc", [](Harness& h) { h.write("big.c", c_source("big", 200)); },
       {"big.c"}, {}, 4096},
      {".git directories", ".brenloc",
       [](Harness& h) {
         testing::git_init(h.root());
         h.write(".git/hooks/hook.c", kOk);
         h.write("sub/.git/inner.c", kOk);
         h.write("sub/real.c", kOk);
       },
       {".git/hooks/hook.c", "sub/.git/inner.c"}, {"sub/real.c"}},
      {"data directory, nested", "cache/index",
       [](Harness& h) {
         h.write("cache/index/stray.c", kOk);
         h.write("cache/kept.c", kOk);
       },
       {"cache/index/stray.c", "cache/index"}, {"cache/kept.c"}},
      {"ignore rules", ".brenloc",
       [](Harness& h) {
         h.write(".gitignore", "gen/\n*.gen.c\n");
         h.write("gen/a.c", kOk);
         h.write("x.gen.c", kOk);
         h.write("sub/.gitignore", "local.c\n");
         h.write("sub/local.c", kOk);
       },
       {"gen/a.c", "x.gen.c", "sub/local.c", "gen"}, {}},
  };
  for (const auto& c : cases) {
    for (bool listed : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (listed ? ", listed" : ", whole pass"));
      Harness h(c.data_rel);
      h.write("ok.c", kOk);
      c.make(h);
      IndexerOptions o = h.options();
      o.max_file_size = c.max_file_size;
      Indexer ix(o);
      std::optional<std::vector<fs::path>> paths;
      if (listed) {
        paths.emplace();
        paths->push_back(h.root() / "ok.c");
        for (const auto& p : c.listed) paths->push_back(h.root() / p);
      }
      IndexStats stats = h.index(ix, paths);
      Paths expected = c.indexed;
      expected.push_back("ok.c");
      std::sort(expected.begin(), expected.end());
      if (listed) expected = {"ok.c"};
      EXPECT_EQ(h.indexed_paths(), expected);
      EXPECT_EQ(stats.errors, 0);
      EXPECT_GE(stats.files_skipped, 1);
      EXPECT_EQ(h.errors_file(), std::vector<nlohmann::json>{});
    }
  }
}

// ---------------------------------------------------------------------------------------------------
// Left out: counted, named in errors.jsonl, and the index keeps what it had for them.

std::set<std::pair<std::string, std::string>> named(const std::vector<nlohmann::json>& lines) {
  std::set<std::pair<std::string, std::string>> out;
  for (const auto& l : lines) {
    EXPECT_TRUE(l.contains("error") && l["error"].is_string() && !l["error"].get<std::string>().empty()) << l;
    out.emplace(l["path"].get<std::string>(), l["stage"].get<std::string>());
  }
  return out;
}

// Root reads everything: run as an unprivileged user, re-executing this test under setpriv.
bool rerun_unprivileged(const char* test) {
  if (::geteuid() != 0) return false;
  if (std::getenv("BRENLOC_TEST_UNPRIVILEGED") != nullptr) {
    ADD_FAILURE() << "still root after setpriv";
    return true;
  }
  // A copy of this binary where the unprivileged user may run it (the build tree may be private).
  testing::TempDir copy;
  ::chmod(copy.path().c_str(), 0755);
  fs::path self = copy.path() / "self";
  fs::copy_file("/proc/self/exe", self);
  ::chmod(self.c_str(), 0755);
  std::string cmd = "cd /tmp && env BRENLOC_TEST_UNPRIVILEGED=1 TMPDIR=/tmp setpriv --reuid=65534 --regid=65534 "
                    "--clear-groups " +
                    testing::shell_quote(self.string()) + " --gtest_filter=" + test + " 2>&1";
  std::string out = testing::run_command(cmd + "; echo \"exit=$?\"");
  EXPECT_NE(out.find("exit=0"), std::string::npos) << out;
  EXPECT_NE(out.find("[  PASSED  ] 1 test"), std::string::npos) << out;
  return true;
}

TEST(IndexerLeftOut, UnreadableFileAndDirectoryAreCountedAndKeepTheirRows) {
  if (rerun_unprivileged("IndexerLeftOut.UnreadableFileAndDirectoryAreCountedAndKeepTheirRows")) return;
  Harness h;
  h.write("ok.c", kOk);
  h.write("secret.c", "int secret(void) { return 2; }\n");
  h.write("locked/inner.c", "int inner(void) { return 3; }\n");
  ASSERT_EQ(h.index().errors, 0);
  ASSERT_EQ(h.indexed_paths(), (Paths{"locked/inner.c", "ok.c", "secret.c"}));

  h.write("ok.c", "int ok2(void) { return 1; }\n");
  ::chmod((h.root() / "secret.c").c_str(), 0);
  ::chmod((h.root() / "locked").c_str(), 0);
  IndexStats stats = h.index();
  EXPECT_EQ(stats.errors, 2);
  auto lines = h.errors_file();
  ASSERT_TRUE(lines);
  EXPECT_EQ(named(*lines), (std::set<std::pair<std::string, std::string>>{{"secret.c", "read"}, {"locked", "walk"}}));
  // Neither vanished: both keep what the index had.
  EXPECT_EQ(h.indexed_paths(), (Paths{"locked/inner.c", "ok.c", "secret.c"}));
  EXPECT_EQ(h.defined_in("secret"), Paths{"secret.c"});
  EXPECT_EQ(h.defined_in("ok2"), Paths{"ok.c"});

  // Listed on their own, the same.
  stats = h.index(std::vector<fs::path>{h.root() / "secret.c", h.root() / "locked/inner.c"});
  EXPECT_EQ(stats.errors, 2);
  EXPECT_EQ(h.indexed_paths(), (Paths{"locked/inner.c", "ok.c", "secret.c"}));
}

TEST(IndexerLeftOut, RootThatIsGoneKeepsTheIndex) {
  Harness h("");  // data directory outside the root
  h.write("ok.c", kOk);
  ASSERT_EQ(h.index().files_processed, 1);
  fs::rename(h.root(), h.root().string() + ".moved");
  IndexStats stats = h.index();
  EXPECT_EQ(stats.errors, 1);
  EXPECT_EQ(stats.files_removed, 0);
  EXPECT_EQ(h.indexed_paths(), Paths{"ok.c"});
  auto lines = h.errors_file();
  ASSERT_TRUE(lines);
  EXPECT_EQ(named(*lines), (std::set<std::pair<std::string, std::string>>{{".", "walk"}}));
}

TEST(IndexerLeftOut, ParserAndStoreFailuresAreLeftOutButSyntaxErrorsAreNot) {
  struct Case {
    const char* name;
    std::function<void(Harness&, IndexerOptions&)> make;
    std::set<std::pair<std::string, std::string>> left_out;
    Paths indexed;
  };
  const Case cases[] = {
      {"syntax error",
       [](Harness& h, IndexerOptions&) { h.write("broken.c", "int good(void) { return 1; }\nint bad( {\n"); },
       {}, {"broken.c", "ok.c"}},
      {"parse over the time limit",
       [](Harness& h, IndexerOptions& o) {
         // Alone: with so short a limit, even a small file might miss it on a busy machine.
         fs::remove(h.root() / "ok.c");
         h.write("huge.c", c_source("huge", 6000));
         o.parse_time_limit = 1ms;
       },
       {{"huge.c", "parse"}}, {}},
      {"rows refused by the store",
       [](Harness& h, IndexerOptions&) {
         h.write("refused.c", kOk);
         h.db()->execute(
             "CREATE TRIGGER refuse BEFORE INSERT ON files WHEN NEW.path = 'refused.c' "
             "BEGIN SELECT RAISE(ABORT, 'refused by a trigger'); END;");
       },
       {{"refused.c", "store"}}, {"ok.c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    h.write("ok.c", kOk);
    IndexerOptions o = h.options();
    c.make(h, o);
    Indexer ix(o);
    IndexStats stats = h.index(ix);
    EXPECT_EQ(stats.errors, static_cast<std::int64_t>(c.left_out.size()));
    auto lines = h.errors_file();
    ASSERT_TRUE(lines);
    EXPECT_EQ(named(*lines), c.left_out);
    EXPECT_EQ(h.indexed_paths(), c.indexed);
    EXPECT_EQ(stats.files_processed, static_cast<std::int64_t>(c.indexed.size()));
  }
}

// ---------------------------------------------------------------------------------------------------
// Whole passes and paths passes over a changing tree.

TEST(IndexerPasses, WholePassAddsChangedNewAndRemovesVanished) {
  Harness h;
  h.write("a.c", "int alpha(void) { return 1; }\n");
  h.write("b.py", "def beta():\n    return 2\n");
  h.write("d/keep.c", "int kept(void) { return 3; }\n");
  std::vector<std::pair<std::int64_t, std::int64_t>> progress;
  Indexer ix(h.options());
  ix.set_progress([&](std::int64_t done, std::int64_t total) { progress.emplace_back(done, total); });
  IndexStats first = h.index(ix);
  EXPECT_EQ(first.files_processed, 3);
  EXPECT_EQ(first.errors, 0);
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back(), std::make_pair(std::int64_t{3}, std::int64_t{3}));
  for (std::size_t i = 1; i < progress.size(); ++i) EXPECT_LE(progress[i - 1].first, progress[i].first);
  auto before = h.indexed();

  h.write("a.c", "int alpha2(void) { return 1; }\n");
  fs::remove(h.root() / "b.py");
  h.write("new.py", "def gamma():\n    return 4\n");
  IndexStats second = h.index(ix);

  EXPECT_EQ(h.indexed_paths(), (Paths{"a.c", "d/keep.c", "new.py"}));
  EXPECT_EQ(second.files_processed, 3);
  EXPECT_EQ(second.files_unchanged, 1);
  EXPECT_EQ(second.files_removed, 1);
  EXPECT_EQ(second.symbols_added, 2);
  EXPECT_EQ(second.errors, 0);
  EXPECT_NE(h.indexed()["a.c"], before["a.c"]);
  EXPECT_EQ(h.indexed()["d/keep.c"], before["d/keep.c"]);
  EXPECT_TRUE(h.defined_in("alpha").empty());
  EXPECT_EQ(h.defined_in("alpha2"), Paths{"a.c"});
  EXPECT_TRUE(h.defined_in("beta").empty());
  EXPECT_EQ(h.defined_in("gamma"), Paths{"new.py"});
  EXPECT_EQ(h.defined_in("kept"), Paths{"d/keep.c"});

  nlohmann::ordered_json info = second.get_last_index_info();
  ASSERT_TRUE(info.is_object());
  std::vector<std::string> keys;
  for (const auto& [k, v] : info.items()) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<std::string>{"type", "duration_seconds", "files_processed", "errors"}));
  EXPECT_EQ(info["type"], "full");
  EXPECT_EQ(info["files_processed"], 3);
  EXPECT_EQ(info["errors"], 0);
  EXPECT_GE(info["duration_seconds"].get<double>(), 0.0);
  EXPECT_EQ(ix.stats.get_last_index_info(), info);

  // A rule added later takes its files out of the index.
  h.write(".gitignore", "d/\n");
  h.index(ix);
  EXPECT_EQ(h.indexed_paths(), (Paths{"a.c", "new.py"}));
}

TEST(IndexerPasses, PathsPassIndexesExactlyTheListedFiles) {
  struct Case {
    const char* name;
    Paths listed;
    std::int64_t files_processed;
    Paths updated;  // files whose new content is indexed afterwards
    Paths indexed;  // every indexed file afterwards
  };
  const Case cases[] = {
      {"one changed file", {"a.c"}, 1, {"a.c"}, {"a.c", "b.c", "sub/c.c"}},
      {"a vanished file drops its rows", {"sub/c.c"}, 0, {}, {"a.c", "b.c"}},
      {"an empty list indexes nothing", {}, 0, {}, {"a.c", "b.c", "sub/c.c"}},
      {"a file the rules now ignore drops its rows", {"b.c", "ignored.c"}, 1, {"b.c"}, {"a.c", "b.c", "sub/c.c"}},
      {"a directory stands for its files", {"sub"}, 0, {}, {"a.c", "b.c"}},
      {"the same file twice, and a new one", {"a.c", "a.c", "n.c"}, 2, {"a.c", "n.c"},
       {"a.c", "b.c", "n.c", "sub/c.c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    h.write("a.c", "int a_old(void) { return 1; }\n");
    h.write("b.c", "int b_old(void) { return 1; }\n");
    h.write("sub/c.c", "int c_old(void) { return 1; }\n");
    h.write("ignored.c", "int i_old(void) { return 1; }\n");
    ASSERT_EQ(h.index().files_processed, 4);
    h.write("a.c", "int a_new(void) { return 1; }\n");
    h.write("b.c", "int b_new(void) { return 1; }\n");
    h.write("n.c", "int n_new(void) { return 1; }\n");
    h.write(".gitignore", "ignored.c\n");
    fs::remove(h.root() / "sub/c.c");

    std::vector<fs::path> listed;
    for (const auto& p : c.listed) listed.push_back(h.root() / p);
    Indexer ix(h.options());
    IndexStats stats = h.index(ix, listed);
    EXPECT_EQ(stats.files_processed, c.files_processed);
    EXPECT_EQ(stats.errors, 0);
    EXPECT_EQ(stats.get_last_index_info()["type"], "paths");
    EXPECT_EQ(h.errors_file(), std::vector<nlohmann::json>{});
    Paths expected_indexed = c.indexed;
    if (std::find(c.listed.begin(), c.listed.end(), "ignored.c") == c.listed.end()) {
      expected_indexed.push_back("ignored.c");  // not listed: untouched although now ignored
      std::sort(expected_indexed.begin(), expected_indexed.end());
    }
    EXPECT_EQ(h.indexed_paths(), expected_indexed);
    for (const char* name : {"a", "b", "n"}) {
      std::string file = std::string(name) + ".c";
      bool updated = std::find(c.updated.begin(), c.updated.end(), file) != c.updated.end();
      EXPECT_EQ(h.defined_in(std::string(name) + "_new").size(), updated ? 1u : 0u) << file;
    }
  }
}

TEST(IndexerPasses, StorageGoesThroughTheGivenOffload) {
  Harness h;
  h.write("a.c", kOk);
  daemon::Offloader lane("passes", 1);
  lane.join();  // refuses work from now on
  IndexerOptions o = h.options();
  o.offload = lane.run;
  Indexer ix(o);
  EXPECT_THROW(h.index(ix), std::runtime_error);
  EXPECT_TRUE(h.indexed().empty());
}

// ---------------------------------------------------------------------------------------------------
// Cancellation.

struct CancelOutcome {
  bool cancelled = false;
  std::int64_t done_at_cancel = 0;
  std::int64_t total = 0;
  int progress_after_cancel = 0;
};

aio::Task<CancelOutcome> cancel_midway(Indexer& ix, std::int64_t after) {
  CancelOutcome out;
  int calls = 0;
  std::int64_t done = 0;
  ix.set_progress([&](std::int64_t d, std::int64_t t) {
    ++calls;
    done = d;
    out.total = t;
  });
  aio::Future<IndexStats> pass = aio::spawn(ix.full_index());
  while (done < after && !pass.done()) co_await aio::sleep_for(1ms);
  out.done_at_cancel = done;
  int calls_at_cancel = calls;
  pass.cancel();
  co_await aio::wait_all({pass.base()});
  out.cancelled = pass.cancelled();
  co_await ix.settle();
  out.progress_after_cancel = calls - calls_at_cancel;
  ix.set_progress(nullptr);
  co_return out;
}

TEST(IndexerCancel, CancelledPassStopsStartingWorkAndLetsTheCancellationGoOn) {
  Harness h;
  constexpr int kFiles = 160;
  for (int i = 0; i < kFiles; ++i) h.write(fmt::format("src/f{:03}.c", i), c_source(fmt::format("f{}", i), 100));
  IndexerOptions o = h.options();
  o.parse_threads = 1;
  o.store_batch_files = 8;
  Indexer ix(o);
  CancelOutcome out = aio::run_until_complete(h.loop(), cancel_midway(ix, 32));
  EXPECT_TRUE(out.cancelled);
  EXPECT_EQ(out.total, kFiles);
  ASSERT_LT(out.done_at_cancel, kFiles) << "the pass ended before it could be cancelled";
  EXPECT_EQ(out.progress_after_cancel, 0);
  // Stored: at most what was parsed by then; nothing parsed later is stored.
  auto stored = static_cast<std::int64_t>(h.indexed().size());
  EXPECT_LE(stored, out.done_at_cancel);

  // The next pass finishes the work.
  IndexStats next = h.index(ix);
  EXPECT_EQ(next.files_processed, kFiles);
  EXPECT_EQ(h.indexed().size(), static_cast<std::size_t>(kFiles));
}

struct SettleOutcome {
  bool cancelled = false;
  bool settled_while_blocked = false;
  bool settled = false;
};

aio::Task<void> settle_task(Indexer& ix) { co_await ix.settle(); }

aio::Task<SettleOutcome> settle_waits_for_threads(Indexer& ix, const daemon::Offloader& lane,
                                                  std::shared_ptr<std::latch> gate) {
  SettleOutcome out;
  // The lane's one thread is held, so the pass's first database read waits behind it.
  aio::Future<void> blocker = lane.run([gate] { gate->wait(); });
  aio::Future<IndexStats> pass = aio::spawn(ix.full_index());
  co_await aio::sleep_for(20ms);
  pass.cancel();
  co_await aio::wait_all({pass.base()});
  out.cancelled = pass.cancelled();
  aio::Future<void> settled = aio::spawn(settle_task(ix));
  co_await aio::sleep_for(50ms);
  out.settled_while_blocked = settled.done();
  gate->count_down();
  co_await aio::wait_all({settled.base(), blocker.base()});
  out.settled = settled.done() && !settled.cancelled();
  co_return out;
}

TEST(IndexerCancel, SettleWaitsForWorkStillOnThreads) {
  Harness h;
  h.write("a.c", kOk);
  daemon::Offloader lane("passes", 1);
  IndexerOptions o = h.options();
  o.offload = lane.run;
  Indexer ix(o);
  auto gate = std::make_shared<std::latch>(1);
  SettleOutcome out = aio::run_until_complete(h.loop(), settle_waits_for_threads(ix, lane, gate));
  EXPECT_TRUE(out.cancelled);
  EXPECT_FALSE(out.settled_while_blocked);
  EXPECT_TRUE(out.settled);
  // After settle() the database may go: nothing of the cancelled pass touches it any more.
  h.db()->close();
  lane.join();
}

}  // namespace
}  // namespace brenloc::workers
