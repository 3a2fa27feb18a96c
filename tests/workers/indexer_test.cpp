// Index passes over temporary repositories with the real store and parser: what the walk leaves out,
// what counts as left out and how errors.jsonl names it, whole and paths passes over a changing tree,
// cancellation; and the repository report, its figures against the index and when it is rewritten.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <functional>
#include <latch>
#include <map>

#include <gtest/gtest.h>

#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/storage/source_text.h"
#include "brenloc/workers/report_generator.h"
#include "workers_fixtures.h"

namespace brenloc::workers {
namespace {

using testing::c_source;
using testing::Harness;
using testing::Paths;
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using LeftOut = std::set<std::pair<std::string, std::string>>;

const std::string kOk = "int ok(void) { return 1; }\n";

std::vector<fs::path> under(const fs::path& root, const Paths& rel) {
  std::vector<fs::path> out;
  for (const auto& p : rel) out.push_back(root / p);
  return out;
}

// Never indexed and never an error, in a whole pass and when listed; named in errors.jsonl (with the
// reason) unless the user or the layout of the tree asked for it to be left out.
TEST(IndexerWalk, LeavesOutByPolicyWithoutErrors) {
  using Named = std::set<std::pair<std::string, std::string>>;
  struct Case {
    const char* name;
    Paths files;                                  // written with a definition, besides ok.c
    std::function<void(Harness&)> make = nullptr;  // anything else
    Paths listed = {};                            // paths to list in a paths pass, besides ok.c
    Named named = {};                             // (path, reason) in errors.jsonl, whole or listed
    Paths indexed = {"ok.c"};                     // in a whole pass
    std::int64_t max_file_size = 1 << 20;
    const char* data_rel = ".brenloc";  // the data directory under the root
  };
  const Case cases[] = {
      {"symbolic link to a file", {}, [](Harness& h) { fs::create_symlink(h.root / "ok.c", h.root / "link.c"); },
       {"link.c"}, {{"link.c", "symbolic link"}}},
      {"symbolic link to a directory", {"dir/inner.c"},
       [](Harness& h) { fs::create_directory_symlink(h.root / "dir", h.root / "linkdir"); },
       {"linkdir/inner.c", "linkdir"}, {{"linkdir", "symbolic link"}}, {"dir/inner.c", "ok.c"}},
      {"FIFO", {}, [](Harness& h) { ASSERT_EQ(::mkfifo((h.root / "pipe.c").c_str(), 0644), 0); }, {"pipe.c"},
       {{"pipe.c", "FIFO"}}},
      {"socket", {},
       [](Harness& h) {
         const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
         sockaddr_un addr{.sun_family = AF_UNIX};
         const std::string where = (h.root / "sock.c").string();
         ASSERT_LT(where.size(), sizeof addr.sun_path);
         where.copy(addr.sun_path, where.size());
         ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
         ::close(fd);
       },
       {"sock.c"}, {{"sock.c", "socket"}}},
      {"FIFO that the rules ignore", {},
       [](Harness& h) {
         ASSERT_EQ(::mkfifo((h.root / "pipe.c").c_str(), 0644), 0);
         h.write(".gitignore", "pipe.c\n");
       },
       {"pipe.c"}},
      {"binary file", {}, [](Harness& h) { h.write("bin.c", std::string("int x;\0\1\2", 10)); }, {"bin.c"},
       {{"bin.c", "binary"}}},
      {"over the size limit", {}, [](Harness& h) { h.write("big.c", c_source("big", 200)); }, {"big.c"},
       {{"big.c", "larger than 4096 bytes"}}, {"ok.c"}, 4096},
      {".git directories", {".git/hooks/hook.c", "sub/.git/inner.c", "sub/real.c"}, nullptr,
       {".git/hooks/hook.c", "sub/.git/inner.c"}, {}, {"ok.c", "sub/real.c"}},
      {"data directory, nested", {"cache/index/stray.c", "cache/kept.c"}, nullptr,
       {"cache/index/stray.c", "cache/index"}, {}, {"cache/kept.c", "ok.c"}, 1 << 20, "cache/index"},
      {"ignore rules", {"gen/a.c", "x.gen.c", "sub/local.c"},
       [](Harness& h) {
         h.write(".gitignore", "gen/\n*.gen.c\n");
         h.write("sub/.gitignore", "local.c\n");
       },
       {"gen/a.c", "x.gen.c", "sub/local.c", "gen"}},
  };
  for (const auto& c : cases) {
    for (bool listed : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (listed ? ", listed" : ", whole pass"));
      Harness h(c.data_rel);
      for (const auto& f : c.files) h.write(f, kOk);
      h.write("ok.c", kOk);
      if (c.make) c.make(h);
      h.options.max_file_size = c.max_file_size;
      Paths paths = c.listed;
      paths.push_back("ok.c");
      const IndexStats stats = h.index(listed ? std::optional(under(h.root, paths)) : std::nullopt);
      EXPECT_EQ(h.indexed_paths(), listed ? Paths{"ok.c"} : c.indexed);
      EXPECT_EQ(stats.errors, 0);
      EXPECT_GE(stats.files_skipped, 1);
      EXPECT_EQ(h.left_out(), LeftOut{});
      EXPECT_EQ(h.skipped(), c.named);
    }
  }
}

// The language each file is recorded with: by its name's extension, by what a `.h` holds, or, for a name
// without an extension, by what its first lines name; a file whose first lines name nothing stays out
// unnamed. The same in a whole pass and when the files are listed.
TEST(IndexerLanguages, ByTheExtensionOrWhatTheFileSays) {
  const struct {
    const char* path;
    std::string content;
    const char* language;  // null: not indexed
    const char* symbol = nullptr;  // a definition it must yield
  } files[] = {
      {"lib/vector", "// <vector> -*- C++ -*-\n#pragma once\nnamespace std {\ntemplate <class T> class vector {};\n}\n",
       "cpp", "vector"},
      {"lib/memory", "// vim: set ft=cpp :\nclass unique_ptr {};\n", "cpp", "unique_ptr"},
      {"bin/tool", "#!/usr/bin/env python3\ndef tool_main():\n    pass\n", "python", "tool_main"},
      {"bin/serve", "#!/usr/bin/node\nfunction serve() {}\n", "javascript", "serve"},
      {"bin/run.sh.in", "#!/usr/bin/env python3\ndef skipped():\n    pass\n", nullptr},  // it has an extension
      {"Makefile", "all:\n\tcc -o x x.c\n", nullptr},
      {"notes", "plain words\n// -*- C++ -*- (a mode line counts on the first line only)\nclass NotCode {};\n", nullptr},
      {"bits/list.h", "namespace lib {\nclass List {};\n}\n", "cpp", "List"},
      {"bits/plain.h", "int plain_prototype(void);\n", "c", "plain_prototype"},
      {"bits/guarded.h", "#ifdef __cplusplus\ntemplate <class T> T pick(T);\n#endif\nint pick_c(int);\n", "c",
       "pick_c"},
      {"main.c", "int main(void) { return 0; }\n", "c", "main"},
  };
  for (bool listed : {false, true}) {
    SCOPED_TRACE(listed ? "listed" : "whole pass");
    Harness h;
    Paths paths;
    for (const auto& f : files) {
      h.write(f.path, f.content);
      paths.push_back(f.path);
    }
    const IndexStats stats = h.index(listed ? std::optional(under(h.root, paths)) : std::nullopt);
    EXPECT_EQ(stats.errors, 0);
    EXPECT_EQ(h.skipped(), LeftOut{});
    std::map<std::string, std::string> recorded;
    for (const auto& row : h.repo->list_files()) recorded[row.path] = row.language;
    for (const auto& f : files) {
      SCOPED_TRACE(f.path);
      const auto it = recorded.find(f.path);
      if (f.language == nullptr) {
        EXPECT_EQ(it, recorded.end());
        continue;
      }
      ASSERT_NE(it, recorded.end());
      EXPECT_EQ(it->second, f.language);
      if (f.symbol) EXPECT_EQ(h.defined_in(f.symbol), Paths{f.path});
    }
  }
}

// Left out: counted, named in errors.jsonl, and the index keeps what it had for them. Run as an
// unprivileged user, so that unreadable files are.
TEST(IndexerLeftOut, FailuresAreCountedNamedAndKeepTheirRowsButSyntaxErrorsAreNot) {
  const std::string test_name = "IndexerLeftOut.FailuresAreCountedNamedAndKeepTheirRowsButSyntaxErrorsAreNot";
  if (brenloc::testing::ran_as_unprivileged_child(test_name)) return;
  struct Case {
    const char* name;
    std::function<void(Harness&)> make;  // after ok.c was written
    LeftOut left_out;
    Paths indexed;
    std::int64_t processed;
    Paths symbols;                               // each defined in the index afterwards
    std::optional<Paths> listed = std::nullopt;  // a paths pass of these
  };
  const auto unreadable = [](Harness& h) {
    h.write("secret.c", "int secret(void) { return 2; }\n");
    h.write("locked/inner.c", "int inner(void) { return 3; }\n");
    ASSERT_EQ(h.index().errors, 0);
    h.write("ok.c", "int ok2(void) { return 1; }\n");
    ::chmod((h.root / "secret.c").c_str(), 0);
    ::chmod((h.root / "locked").c_str(), 0);
  };
  const Case cases[] = {
      {"syntax error", [](Harness& h) { h.write("broken.c", "int good(void) { return 1; }\nint bad( {\n"); },
       {}, {"broken.c", "ok.c"}, 2, {"good", "ok"}},
      {"parse over the time limit",
       [](Harness& h) {
         // Alone: with so short a limit, even a small file might miss it on a busy machine.
         fs::remove(h.root / "ok.c");
         h.write("huge.c", c_source("huge", 6000));
         h.options.parse_time_limit = 1ms;
       },
       {{"huge.c", "parse"}}, {}, 0, {}},
      {"rows refused by the store",
       [](Harness& h) {
         h.write("refused.c", kOk);
         h.db->execute("CREATE TRIGGER refuse BEFORE INSERT ON files WHEN NEW.path = 'refused.c' "
                         "BEGIN SELECT RAISE(ABORT, 'refused by a trigger'); END;");
       },
       {{"refused.c", "store"}}, {"ok.c"}, 1, {"ok"}},
      {"unreadable file and directory", unreadable, {{"secret.c", "read"}, {"locked", "walk"}},
       {"locked/inner.c", "ok.c", "secret.c"}, 1, {"ok2", "secret", "inner"}},
      {"unreadable file and directory, listed", unreadable, {{"secret.c", "read"}, {"locked/inner.c", "walk"}},
       {"locked/inner.c", "ok.c", "secret.c"}, 0, {"ok", "secret", "inner"}, Paths{"secret.c", "locked/inner.c"}},
      {"root that is gone",
       [](Harness& h) {
         ASSERT_EQ(h.index().files_processed, 1);
         fs::rename(h.root, h.root.string() + ".moved");
       },
       {{".", "walk"}}, {"ok.c"}, 0, {"ok"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h("");  // the data directory outside the root
    h.write("ok.c", kOk);
    c.make(h);
    const IndexStats stats = h.index(c.listed ? std::optional(under(h.root, *c.listed)) : std::nullopt);
    EXPECT_EQ(stats.errors, static_cast<std::int64_t>(c.left_out.size()));
    EXPECT_EQ(h.left_out(), c.left_out);
    EXPECT_EQ(h.indexed_paths(), c.indexed);
    EXPECT_EQ(stats.files_processed, c.processed);
    for (const auto& name : c.symbols) EXPECT_EQ(h.defined_in(name).size(), 1u) << name;
  }
}

// File names are bytes: those that are not UTF-8, or hold a backslash, are indexed, named and dropped under
// their text form (each stray byte \xHH, a backslash doubled where it would read as an escape), whether
// the pass walks them or is given them; their rows go when they do.
TEST(IndexerNames, AnyFileNameIsIndexedUnderItsTextForm) {
  Harness h;
  const std::pair<std::string, std::string> files[] = {
      {"b\xff.c", "b\\xff.c"},          {"d\xfe/in.c", "d\\xfe/in.c"}, {"back\\xff.c", "back\\\\xff.c"},
      {"a\\b.c", "a\\b.c"},             {"caf\xc3\xa9.c", "caf\xc3\xa9.c"},
  };
  Paths texts = {"ok.c"};
  for (std::size_t i = 0; i < std::size(files); ++i) {
    h.write(files[i].first, fmt::format("int f{}(void) {{ return 1; }}\n", i));
    texts.push_back(files[i].second);
  }
  h.write("ok.c", kOk);
  ASSERT_EQ(::mkfifo((h.root / "p\xff.c").c_str(), 0644), 0);
  std::ranges::sort(texts);
  ASSERT_EQ(h.index().errors, 0);
  EXPECT_EQ(h.indexed_paths(), texts);
  for (std::size_t i = 0; i < std::size(files); ++i) EXPECT_EQ(h.defined_in(fmt::format("f{}", i)), Paths{files[i].second});
  EXPECT_EQ(h.skipped(), (LeftOut{{"p\\xff.c", "FIFO"}}));

  // Given as paths (the file system's bytes): a changed file, and a directory that went.
  h.write("b\xff.c", "int changed(void) { return 2; }\n");
  fs::remove_all(h.root / "d\xfe");
  EXPECT_EQ(h.index(under(h.root, {"b\xff.c", "d\xfe", "p\xff.c"})).errors, 0);
  EXPECT_EQ(h.defined_in("changed"), Paths{"b\\xff.c"});
  EXPECT_EQ(h.defined_in("f1"), Paths{});
  EXPECT_EQ(h.skipped(), (LeftOut{{"p\\xff.c", "FIFO"}}));
  // Gone from the tree: a whole pass drops the rows.
  fs::remove(h.root / "back\\xff.c");
  fs::remove(h.root / "p\xff.c");
  h.index();
  EXPECT_EQ(h.defined_in("f2"), Paths{});
  EXPECT_EQ(h.skipped(), LeftOut{});
}

// errors.jsonl names what the index lacks now: a pass over some paths replaces what it says of those
// paths and keeps the rest.
TEST(IndexerLeftOut, APathsPassKeepsWhatEarlierPassesNamedElsewhere) {
  Harness h;
  h.write("ok.c", kOk);
  h.write("sub/big.c", c_source("big", 200));
  ASSERT_EQ(::mkfifo((h.root / "pipe.c").c_str(), 0644), 0);
  h.options.max_file_size = 4096;
  h.index();
  const LeftOut both = {{"pipe.c", "FIFO"}, {"sub/big.c", "larger than 4096 bytes"}};
  EXPECT_EQ(h.skipped(), both);
  h.index(under(h.root, {"ok.c"}));
  EXPECT_EQ(h.skipped(), both);
  fs::remove(h.root / "pipe.c");
  h.index(under(h.root, {"pipe.c"}));
  EXPECT_EQ(h.skipped(), (LeftOut{{"sub/big.c", "larger than 4096 bytes"}}));
  h.write("sub/big.c", kOk);
  h.index(under(h.root, {"sub"}));
  EXPECT_EQ(h.skipped(), LeftOut{});
  EXPECT_EQ(h.indexed_paths(), (Paths{"ok.c", "sub/big.c"}));
}

// After files changed, appeared, vanished and fell under a new rule, a whole pass takes in every change
// and a paths pass exactly the listed files; each file defines one function.
TEST(IndexerPasses, IndexExactlyWhatChanged) {
  struct Case {
    const char* name;
    std::optional<Paths> listed;  // none: a whole pass
    std::int64_t processed, unchanged, removed;
    Paths updated;  // files whose new content is indexed afterwards
    Paths indexed;  // every indexed file afterwards
  };
  const Case cases[] = {
      {"whole pass", std::nullopt, 4, 1, 2, {"a.c", "b.c", "n.c"}, {"a.c", "b.c", "keep.c", "n.c"}},
      {"one changed file", Paths{"a.c"}, 1, 0, 0, {"a.c"}, {"a.c", "b.c", "ignored.c", "keep.c", "sub/c.c"}},
      {"a vanished file drops its rows", Paths{"sub/c.c"}, 0, 0, 1, {}, {"a.c", "b.c", "ignored.c", "keep.c"}},
      {"an empty list indexes nothing", Paths{}, 0, 0, 0, {}, {"a.c", "b.c", "ignored.c", "keep.c", "sub/c.c"}},
      {"a file the rules now ignore drops its rows", Paths{"b.c", "ignored.c"}, 1, 0, 1, {"b.c"},
       {"a.c", "b.c", "keep.c", "sub/c.c"}},
      {"a directory stands for its files", Paths{"sub"}, 0, 0, 1, {}, {"a.c", "b.c", "ignored.c", "keep.c"}},
      {"the same file twice, and a new one", Paths{"a.c", "a.c", "n.c"}, 2, 0, 0, {"a.c", "n.c"},
       {"a.c", "b.c", "ignored.c", "keep.c", "n.c", "sub/c.c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    for (const char* name : {"a", "b", "sub/c", "ignored", "keep"}) h.write(std::string(name) + ".c", kOk);
    ASSERT_EQ(h.index().files_processed, 5);
    EXPECT_TRUE(h.has_name_index()) << "the first pass into an empty index must rebuild the name index it deferred";
    for (const char* name : {"a", "b", "n"}) {
      h.write(std::string(name) + ".c", fmt::format("int {}_new(void) {{ return 1; }}\n", name));
    }
    h.write(".gitignore", "ignored.c\n");
    fs::remove(h.root / "sub/c.c");

    Indexer ix(h.options);
    std::vector<std::pair<std::int64_t, std::int64_t>> progress;
    ix.set_progress([&](std::int64_t done, std::int64_t total) { progress.emplace_back(done, total); });
    const IndexStats stats = h.index(ix, c.listed ? std::optional(under(h.root, *c.listed)) : std::nullopt);
    EXPECT_EQ(std::tuple(stats.files_processed, stats.files_unchanged, stats.files_removed, stats.symbols_added),
              std::tuple(c.processed, c.unchanged, c.removed, c.processed - c.unchanged));
    EXPECT_EQ(h.left_out(), LeftOut{});
    EXPECT_EQ(h.indexed_paths(), c.indexed);
    EXPECT_EQ(h.defined_in("ok").size(), c.indexed.size() - c.updated.size()) << "rows of old contents are gone";
    for (const char* name : {"a", "b", "n"}) {
      const bool updated = std::find(c.updated.begin(), c.updated.end(), std::string(name) + ".c") != c.updated.end();
      EXPECT_EQ(h.defined_in(std::string(name) + "_new").size(), updated ? 1u : 0u) << name;
    }
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), std::pair(c.processed, c.processed));
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end(), [](auto& a, auto& b) { return a.first < b.first; }));
    const json info = stats.get_last_index_info(), expected_info = {
        {"type", c.listed ? "paths" : "full"}, {"duration_seconds", info["duration_seconds"]},
        {"files_processed", c.processed}, {"errors", 0}};
    EXPECT_EQ(info.dump(), expected_info.dump());
    EXPECT_EQ(ix.stats.get_last_index_info(), info);
  }
}

// A pass reads only the files whose status changed since their last reading, or whose reading came too
// close after their last change to vouch for them; a file found unchanged by content has its row
// refreshed, so that the next pass skips it.
TEST(IndexerPasses, ReadOnlyFilesWhoseStatusChanged) {
  auto same_size_edit_old_mtime = [](Harness& h) {
    const auto before = fs::last_write_time(h.root / "b.c");
    h.write("b.c", "int xx(void) { return 1; }\n");  // as long as kOk
    fs::last_write_time(h.root / "b.c", before);       // the change time still moves
  };
  struct Case {
    const char* name;
    std::function<void(Harness&)> change;
    std::int64_t margin_ns;  // the racy margin of the second pass
    std::int64_t read;
    Paths defining_xx;
  };
  const Case cases[] = {
      {"nothing changed", [](Harness&) {}, 0, 0, {}},
      {"touched: read once, then trusted", [](Harness& h) { fs::last_write_time(h.root / "a.c", fs::file_time_type::clock::now()); }, 0, 1, {}},
      {"same size and modification time, new content", same_size_edit_old_mtime, 0, 1, {"b.c"}},
      {"replaced by another file with the same content",
       [](Harness& h) {
         h.write("c.new", kOk);
         fs::rename(h.root / "c.new", h.root / "c.c");
       },
       0, 1, {}},
      {"read too soon after their change", [](Harness&) {}, std::int64_t{1} << 62, 3, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    h.options.racy_margin_ns = 0;
    for (const char* name : {"a.c", "b.c", "c.c"}) h.write(name, kOk);
    ASSERT_EQ(h.index().files_read, 3);
    c.change(h);
    h.options.racy_margin_ns = c.margin_ns;
    const IndexStats stats = h.index();
    EXPECT_EQ(std::tuple(stats.files_processed, stats.files_read), std::tuple(3, c.read));
    EXPECT_EQ(h.defined_in("xx"), c.defining_xx);
    h.options.racy_margin_ns = 0;
    EXPECT_EQ(h.index().files_read, 0) << "rows refreshed or rewritten by the second pass are trusted";
  }
}

// A first pass cut short, by a cancellation or by the death of its process (its writer connection gone
// with whatever it kept in memory or in temporary files), is completed by the next pass: definitions and
// uses alike.
TEST(IndexerCancel, CancelledPassStopsStartingWorkAndLetsTheCancellationGoOn) {
  for (const bool killed : {false, true}) {
    SCOPED_TRACE(killed ? "the process killed" : "cancelled");
    Harness h;
    constexpr int kFiles = 160;
    for (int i = 0; i < kFiles; ++i) h.write(fmt::format("src/f{:03}.c", i), c_source(fmt::format("f{}", i), 100));
    h.options.parse_threads = 1;
    h.options.store_batch_files = 8;
    Indexer ix(h.options);
    int calls = 0, calls_at_cancel = 0;
    std::int64_t done = 0, total = 0, done_at_cancel = 0;
    ix.set_progress([&](std::int64_t d, std::int64_t t) { ++calls, done = d, total = t; });
    aio::run_until_complete(h.loop, [&]() -> aio::Task<void> {
      aio::Future<IndexStats> pass = aio::spawn(ix.full_index());
      while (done < 32 && !pass.done()) co_await aio::sleep_for(1ms);
      done_at_cancel = done;
      calls_at_cancel = calls;
      pass.cancel();
      co_await aio::wait_all({pass.base()});
      EXPECT_TRUE(pass.cancelled());
      co_await ix.settle();
    }());
    ix.set_progress(nullptr);
    EXPECT_EQ(total, kFiles);
    ASSERT_LT(done_at_cancel, kFiles) << "the pass ended before it could be cancelled";
    EXPECT_EQ(calls, calls_at_cancel) << "progress after the cancellation";
    // Stored: at most what was parsed by then; nothing parsed later is stored.
    EXPECT_LE(static_cast<std::int64_t>(h.indexed_paths().size()), done_at_cancel);
    if (killed) {
      h.db->close();
      h.db->connect();
    }
    // The next pass finishes the work, and builds the name index the cancelled bulk load left out (a paths
    // pass does too, when it comes first).
    if (!h.indexed_paths().empty()) {
      h.index(ix, std::vector<fs::path>{h.root / "src/f000.c"});
      EXPECT_TRUE(h.has_name_index());
    }
    EXPECT_EQ(h.index(ix).files_processed, kFiles);
    EXPECT_EQ(h.indexed_paths().size(), static_cast<std::size_t>(kFiles));
    EXPECT_TRUE(h.has_name_index());
    EXPECT_EQ(h.defined_in("f7_3"), (Paths{"src/f007.c"}));
    storage::SourceFiles texts(h.root);
    for (int i = 0; i < kFiles; ++i) {
      ASSERT_EQ(h.repo->find_uses({.name = fmt::format("f{}_0", i)}, texts).total, 1) << "the uses of file " << i;
    }
  }
}

TEST(IndexerCancel, SettleWaitsForWorkStillOnThreads) {
  Harness h;
  h.write("a.c", kOk);
  daemon::Offloader lane("passes", 1);
  h.options.offload = lane.run;
  Indexer ix(h.options);
  std::latch gate(1);
  aio::run_until_complete(h.loop, [&]() -> aio::Task<void> {
    // The lane's one thread is held, so the pass's first database read waits behind it.
    aio::Future<void> blocker = lane.run([&] { gate.wait(); });
    aio::Future<IndexStats> pass = aio::spawn(ix.full_index());
    co_await aio::to_thread([] {});  // by now the pass's first step, queued before this, has queued its read
    pass.cancel();
    co_await aio::wait_all({pass.base()});
    EXPECT_TRUE(pass.cancelled());
    aio::Future<void> settled = aio::spawn(ix.settle());
    co_await aio::to_thread([] {});
    EXPECT_FALSE(settled.done()) << "settle() finished while the lane was held";
    gate.count_down();
    co_await aio::wait_all({settled.base(), blocker.base()});
    EXPECT_TRUE(settled.done() && !settled.cancelled());
  }());
  // After settle() the database may go: nothing of the cancelled pass touches it any more.
  h.db->close();
  lane.join();
  EXPECT_THROW(h.index(ix), std::runtime_error) << "the lane refuses work now, and so the pass fails";
}

void fill(Harness& h) {
  h.write("src/a.c", c_source("a", 3));
  h.write("src/b.c", c_source("b", 2));
  h.write("src/deep/c.c", c_source("c", 1));
  h.write("tools/run.py", "def main():\n    pass\n\n\nclass Runner:\n    def go(self):\n        pass\n");
}

TEST(Report, FiguresMatchTheIndex) {
  Harness h;
  fill(h);
  ASSERT_EQ(::mkfifo((h.root / "src/pipe.c").c_str(), 0644), 0);
  h.options.refresh_report = true;
  ASSERT_EQ(h.index().errors, 0);

  const auto r = nlohmann::json::parse(testing::read_file(h.data / "report.json"));
  const storage::Counts counts = h.repo->counts();
  EXPECT_EQ(r["repository"], h.root.string());
  EXPECT_EQ(r["totals"]["files"], 4);
  EXPECT_EQ(r["totals"]["symbols"], counts.symbols);
  // Languages, most files first, each with the symbols and bytes of its files; then directories likewise.
  const auto size = [&](const char* p) { return static_cast<std::int64_t>(fs::file_size(h.root / p)); };
  const std::int64_t src = size("src/a.c") + size("src/b.c"), c = src + size("src/deep/c.c"), py = size("tools/run.py");
  EXPECT_EQ(r["languages"], nlohmann::json::parse(fmt::format(R"([{{"language": "c", "files": 3, "symbols": 6,
      "bytes": {}}}, {{"language": "python", "files": 1, "symbols": {}, "bytes": {}}}])", c, counts.symbols - 6, py)));
  EXPECT_EQ(r["totals"]["bytes"], c + py);
  EXPECT_EQ(r["largest_directories"].size(), 3u);
  EXPECT_EQ(r["largest_directories"][0],
            nlohmann::json::parse(fmt::format(R"({{"path": "src", "files": 2, "symbols": 5, "bytes": {}}})", src)));
  // Every kind with the number of its symbols, as the rows of the index have them.
  nlohmann::json kinds = nlohmann::json::object();
  for (const char* p : {"src/a.c", "src/b.c", "src/deep/c.c", "tools/run.py"}) {
    const auto file = h.repo->file_symbols(p);
    ASSERT_TRUE(file) << p;
    for (const auto& s : file->symbols) kinds[s.kind] = kinds.value(s.kind, 0) + 1;
  }
  EXPECT_GE(kinds.size(), 2u);
  EXPECT_EQ(r["symbol_kinds"], kinds);
  EXPECT_EQ(r["last_index"]["type"], "full");
  EXPECT_EQ(r["last_index"]["files_processed"], 4);
  EXPECT_EQ(r["last_index"]["errors"], 0);
  EXPECT_TRUE(r["last_index"]["finished_at"].is_string());

  EXPECT_EQ(r["left_out"], nlohmann::json::parse(
                              R"({"count": 1, "first": [{"path": "src/pipe.c", "stage": "walk", "skipped": "FIFO"}]})"));

  const std::string md = testing::read_file(h.data / "report.md");
  for (const char* part : {"| c | 3 | 6 |", "| src | 2 | 5 |", "- Type: full", "| src/pipe.c | walk | skipped | FIFO |"}) {
    EXPECT_NE(md.find(part), std::string::npos) << part << " not in\n" << md;
  }
}

TEST(Report, RewrittenOnlyWhenForcedOrOutOfDate) {
  struct Case {
    const char* name;
    std::function<void(Harness&)> between;  // what happens after the first report
    bool force;
    bool rewritten;
  };
  const Case cases[] = {
      {"nothing changed", [](Harness&) {}, false, false},
      {"nothing changed, forced", [](Harness&) {}, true, true},
      {"a file changed and was indexed",
       [](Harness& h) {
         h.write("src/a.c", c_source("a", 4));
         h.index();
       },
       false, true},
      {"a file changed but is not indexed yet", [](Harness& h) { h.write("src/a.c", c_source("a", 4)); }, false,
       false},
      {"a pass that changed nothing", [](Harness& h) { h.index(); }, false, true},
      {"the markdown went missing", [](Harness& h) { fs::remove(h.data / "report.md"); }, false, true},
      {"the files left out changed",
       [](Harness& h) { testing::write_file(h.data / "errors.jsonl", R"({"path": "x.c", "stage": "read", "error": "EIO"})" "\n"); },
       false, true},
  };
  const auto old_time = fs::file_time_type::clock::now() - std::chrono::hours(48);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    fill(h);
    h.index();
    write_report(h.repo, h.root, false);
    ASSERT_TRUE(fs::exists(h.data / "report.json"));
    fs::last_write_time(h.data / "report.json", old_time);
    c.between(h);
    write_report(h.repo, h.root, c.force);
    EXPECT_EQ(fs::last_write_time(h.data / "report.json") != old_time, c.rewritten);
    EXPECT_TRUE(fs::exists(h.data / "report.md"));
  }
}

}  // namespace
}  // namespace brenloc::workers
