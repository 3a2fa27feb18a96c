#include "brenloc/storage/repository.h"

#include <algorithm>
#include <cctype>
#include <future>
#include <tuple>
#include <latch>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "brenloc/storage/query_cache.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using storage::testing::file_entry;
using storage::testing::open_database;
using storage::testing::symbol;
using storage::testing::TempDir;

class RepositoryTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::shared_ptr<Database> db = open_database(dir / "index.db");
  Repository repo{db};

  // "name@path:line" of each hit, in the order returned.
  std::vector<std::string> found(SymbolQuery q) {
    std::vector<std::string> out;
    for (const auto& h : repo.search_symbols(q)) out.push_back(fmt::format("{}@{}:{}", h.name, h.path, h.line));
    return out;
  }
  std::vector<std::string> symbol_names() {
    std::vector<std::string> out;
    for (const auto& h : repo.search_symbols({.text = "", .match = SymbolQuery::Match::prefix, .limit = -1}))
      out.push_back(h.name);
    return out;
  }
};

TEST_F(RepositoryTest, StoresReplacesAndRemovesFiles) {
  repo.store_files({file_entry("a.cpp", {symbol("one", "function", 1), symbol("two", "function", 5)}, "h1"),
                    file_entry("b.cpp", {symbol("three", "class", 1)}, "h2")});
  EXPECT_EQ(repo.file_hashes(), (std::unordered_map<std::string, std::string>{{"a.cpp", "h1"}, {"b.cpp", "h2"}}));
  EXPECT_EQ(repo.counts().symbols, 3);

  // Storing a file again replaces its row and all its symbols; the other file is untouched.
  repo.store_files({file_entry("a.cpp", {symbol("four", "function", 2)}, "h3")});
  EXPECT_EQ(repo.file_hashes().at("a.cpp"), "h3");
  EXPECT_THAT(symbol_names(), ElementsAre("four", "three"));
  auto counts = repo.counts();
  EXPECT_EQ(counts.files, 2);
  EXPECT_EQ(counts.symbols, 2);

  // Unknown paths are ignored.
  repo.remove_files({"b.cpp", "never-indexed.cpp"});
  EXPECT_EQ(repo.file_hashes(), (std::unordered_map<std::string, std::string>{{"a.cpp", "h3"}}));
  EXPECT_THAT(symbol_names(), ElementsAre("four"));
  EXPECT_EQ(repo.counts().files, 1);
}

TEST_F(RepositoryTest, StoresEveryFieldOfFilesAndSymbols) {
  repo.store_files({FileEntry{FileRow{"src/x.py", "python", 1234, 1'700'000'000'123'456'789, "abc"},
                              {SymbolRow{"meth", "method", 7, 5, 9, 20, "pkg.Klass"}}}});
  auto files = repo.list_files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].path, "src/x.py");
  EXPECT_EQ(files[0].language, "python");
  EXPECT_EQ(files[0].size, 1234);
  EXPECT_EQ(files[0].mtime_ns, 1'700'000'000'123'456'789);
  EXPECT_EQ(files[0].content_hash, "abc");
  auto hits = repo.search_symbols({.text = "meth", .match = SymbolQuery::Match::exact});
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].kind, "method");
  EXPECT_EQ(hits[0].path, "src/x.py");
  EXPECT_EQ(hits[0].line, 7);
  EXPECT_EQ(hits[0].column, 5);
  EXPECT_EQ(hits[0].end_line, 9);
  EXPECT_EQ(hits[0].scope, "pkg.Klass");
}

// One call is one transaction: a file that cannot be stored leaves none of the call's files behind, and
// the error names that file.
TEST_F(RepositoryTest, AFailedStoreLeavesNothingOfItsCall) {
  repo.store_files({file_entry("kept.cpp", {symbol("kept", "function", 1)})});
  db->execute(
      "CREATE TRIGGER refuse BEFORE INSERT ON files WHEN NEW.path = 'bad.cpp' "
      "BEGIN SELECT RAISE(ABORT, 'refused by the test'); END");
  try {
    repo.store_files({file_entry("kept.cpp", {}), file_entry("good.cpp", {symbol("good", "function", 1)}),
                      file_entry("bad.cpp", {symbol("bad", "function", 1)})});
    FAIL() << "no error";
  } catch (const StorageError& e) {
    EXPECT_THAT(e.what(), HasSubstr("index.db"));
    EXPECT_THAT(e.what(), HasSubstr("storing bad.cpp"));
    EXPECT_THAT(e.what(), HasSubstr("refused by the test"));
  }
  EXPECT_EQ(repo.file_hashes().size(), 1u);
  EXPECT_THAT(symbol_names(), ElementsAre("kept"));
  repo.store_files({file_entry("good.cpp", {})});  // the writer is usable again
  EXPECT_EQ(repo.counts().files, 2);
}

class SearchTest : public RepositoryTest {
 protected:
  void SetUp() override {
    repo.store_files({
        file_entry("src/a.cpp", {symbol("parse", "function", 10), symbol("parse_file", "function", 20),
                                 symbol("Parser", "class", 30), symbol("a_b", "variable", 40)}),
        file_entry("src/sub/b.py", {symbol("parse", "method", 5, "Reader"), symbol("reparse", "function", 15),
                                    symbol("axb", "variable", 25)}),
        file_entry("srcx/c.cpp", {symbol("parse", "function", 1), symbol("ParseFile", "function", 2)}),
        file_entry("lib/d.go", {symbol("unparsed", "function", 3), symbol("100%", "constant", 4),
                                symbol("pars", "function", 5)}),
    });
  }
};

struct SearchCase {
  std::string label;
  SymbolQuery query;
  std::vector<std::string> expected;  // in order
};

TEST_F(SearchTest, MatchModesAndFilters) {
  using M = SymbolQuery::Match;
  const std::vector<SearchCase> cases = {
      {"exact matches the whole name, case and all",
       {.text = "parse", .match = M::exact},
       {"parse@src/a.cpp:10", "parse@src/sub/b.py:5", "parse@srcx/c.cpp:1"}},
      {"exact, other case", {.text = "PARSE", .match = M::exact}, {}},
      {"prefix is case-sensitive",
       {.text = "parse", .match = M::prefix},
       {"parse@src/a.cpp:10", "parse@src/sub/b.py:5", "parse@srcx/c.cpp:1", "parse_file@src/a.cpp:20"}},
      {"prefix, capitalised", {.text = "Pars", .match = M::prefix}, {"ParseFile@srcx/c.cpp:2", "Parser@src/a.cpp:30"}},
      {"substring ignores case",
       {.text = "ARSE", .match = M::substring},
       {"ParseFile@srcx/c.cpp:2", "Parser@src/a.cpp:30", "parse@src/a.cpp:10", "parse@src/sub/b.py:5",
        "parse@srcx/c.cpp:1", "parse_file@src/a.cpp:20", "reparse@src/sub/b.py:15", "unparsed@lib/d.go:3"}},
      {"substring treats _ literally", {.text = "a_b", .match = M::substring}, {"a_b@src/a.cpp:40"}},
      {"substring treats % literally", {.text = "0%", .match = M::substring}, {"100%@lib/d.go:4"}},
      {"kind filter", {.text = "parse", .match = M::exact, .kind = "method"}, {"parse@src/sub/b.py:5"}},
      {"path prefix is a directory, not a string prefix",
       {.text = "parse", .match = M::exact, .path_prefix = "src"},
       {"parse@src/a.cpp:10", "parse@src/sub/b.py:5"}},
      {"path prefix with a trailing slash and ./",
       {.text = "parse", .match = M::exact, .path_prefix = "./src/sub/"},
       {"parse@src/sub/b.py:5"}},
      {"path prefix naming a file", {.text = "", .match = M::prefix, .path_prefix = "srcx/c.cpp"},
       {"ParseFile@srcx/c.cpp:2", "parse@srcx/c.cpp:1"}},
      {"empty path prefix selects everything", {.text = "reparse", .match = M::exact, .path_prefix = ""},
       {"reparse@src/sub/b.py:15"}},
      {"kind and path together",
       {.text = "parse", .match = M::substring, .kind = "function", .path_prefix = "src"},
       {"parse@src/a.cpp:10", "parse_file@src/a.cpp:20", "reparse@src/sub/b.py:15"}},
      {"limit keeps the first in order",
       {.text = "parse", .match = M::prefix, .limit = 2},
       {"parse@src/a.cpp:10", "parse@src/sub/b.py:5"}},
      {"no match", {.text = "nothing", .match = M::substring}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_THAT(found(c.query), ElementsAreArray(c.expected));
  }
}

TEST_F(SearchTest, PrefixWithHighBytesAndEmptyText) {
  repo.store_files({file_entry("u.cpp", {symbol("\xff\xff", "function", 1), symbol("\xff\xfe", "function", 2),
                                         symbol("z\xff", "function", 3)})});
  EXPECT_THAT(found({.text = "\xff", .match = SymbolQuery::Match::prefix}),
              ElementsAre("\xff\xfe@u.cpp:2", "\xff\xff@u.cpp:1"));
  EXPECT_THAT(found({.text = "z\xff", .match = SymbolQuery::Match::prefix}), ElementsAre("z\xff@u.cpp:3"));
  EXPECT_EQ(found({.text = "", .match = SymbolQuery::Match::prefix, .limit = -1}).size(), 15u);
  EXPECT_THAT(found({.text = "", .match = SymbolQuery::Match::exact}), IsEmpty());
}

TEST_F(SearchTest, ListsFilesUnderAPathAndCounts) {
  auto paths = [&](const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& f : repo.list_files(prefix)) out.push_back(f.path);
    return out;
  };
  EXPECT_THAT(paths(""), ElementsAre("lib/d.go", "src/a.cpp", "src/sub/b.py", "srcx/c.cpp"));
  EXPECT_THAT(paths("src"), ElementsAre("src/a.cpp", "src/sub/b.py"));
  EXPECT_THAT(paths("src/sub/"), ElementsAre("src/sub/b.py"));
  EXPECT_THAT(paths("lib/d.go"), ElementsAre("lib/d.go"));
  EXPECT_THAT(paths("nowhere"), IsEmpty());
  auto counts = repo.counts();
  EXPECT_EQ(counts.files, 4);
  EXPECT_EQ(counts.symbols, 12);
}

// Every combination of match mode and filters answers what a plain filter over all rows answers, whichever
// way the search runs (a directory of many files or of few; a selective name or not).
TEST_F(RepositoryTest, SearchesAgreeWithAFilterOverAllRows) {
  const std::vector<std::string> stems = {"get", "getValue", "Get_value", "set", "reset", "parse", "Parser", "x"};
  const std::vector<std::string> kinds = {"function", "class", "method"};
  std::vector<FileEntry> entries;
  auto add_dir = [&](const std::string& dir, int files) {
    for (int f = 0; f < files; ++f) {
      std::vector<SymbolRow> symbols;
      for (int n = 0; n < 6; ++n) {
        auto i = static_cast<std::size_t>(f * 7 + n * 3);
        symbols.push_back(symbol(stems[i % stems.size()] + std::to_string(n % 2), kinds[i % kinds.size()], n + 1));
      }
      entries.push_back(file_entry(fmt::format("{}/f{}.cpp", dir, f), std::move(symbols)));
    }
  };
  add_dir("big", 100);  // more files than the directory way takes
  add_dir("small", 3);
  add_dir("big/sub", 2);
  add_dir("bulk", 700);  // enough names that an empty or short prefix is not selective
  repo.store_files(entries);

  auto lower = [](std::string t) {
    for (auto& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return t;
  };
  auto reference = [&](const SymbolQuery& q) {
    std::string dir = q.path_prefix.value_or("");
    std::vector<std::tuple<std::string, std::string, int>> rows;
    for (const auto& e : entries) {
      if (!dir.empty() && e.file.path != dir && !e.file.path.starts_with(dir + "/")) continue;
      for (const auto& s : e.symbols) {
        bool match = q.match == SymbolQuery::Match::exact    ? s.name == q.text
                     : q.match == SymbolQuery::Match::prefix ? s.name.starts_with(q.text)
                                                             : lower(s.name).find(lower(q.text)) != std::string::npos;
        if (match && (!q.kind || *q.kind == s.kind)) rows.emplace_back(s.name, e.file.path, s.line);
      }
    }
    std::sort(rows.begin(), rows.end());
    std::vector<std::string> out;
    for (const auto& [name, path, line] : rows) {
      if (q.limit >= 0 && out.size() == static_cast<std::size_t>(q.limit)) break;
      out.push_back(fmt::format("{}@{}:{}", name, path, line));
    }
    return out;
  };

  int checked = 0;
  for (auto match : {SymbolQuery::Match::exact, SymbolQuery::Match::prefix, SymbolQuery::Match::substring}) {
    for (std::string text : {"", "get", "Get", "value1", "Parser0", "zzz"}) {
      for (std::optional<std::string> kind : {std::optional<std::string>(), std::optional<std::string>("class")}) {
        for (std::optional<std::string> dir : {std::optional<std::string>(), std::optional<std::string>("big"),
                                               std::optional<std::string>("small"),
                                               std::optional<std::string>("big/sub"),
                                               std::optional<std::string>("big/f7.cpp")}) {
          for (int limit : {-1, 5}) {
            SymbolQuery q{.text = text, .match = match, .kind = kind, .path_prefix = dir, .limit = limit};
            SCOPED_TRACE(fmt::format("match {} text '{}' kind {} dir {} limit {}", static_cast<int>(match), text,
                                     kind.value_or("-"), dir.value_or("-"), limit));
            ASSERT_EQ(found(q), reference(q));
            ++checked;
          }
        }
      }
    }
  }
  EXPECT_EQ(checked, 3 * 6 * 2 * 5 * 2);
}

// A query answered once is answered from the cache until the index changes through the repository or
// the cache is cleared. The rows are changed behind the repository's back to tell a cached answer from
// a fresh one.
TEST_F(SearchTest, CachedResultsLastUntilTheIndexChanges) {
  struct Case {
    std::string label;
    std::function<void()> invalidate;
  };
  TempDir staging_dir;
  const std::vector<Case> cases = {
      {"clear_query_cache", [&] { repo.clear_query_cache(); }},
      {"store_files", [&] { repo.store_files({file_entry("other.cpp", {})}); }},
      {"remove_files", [&] { repo.remove_files({"not-there.cpp"}); }},
      {"swap_index_from",
       [&] {
         std::string dump = storage::testing::dump_rows(*db);
         // A staging copy of the live index, so that only the cache tells the difference.
         db->execute(fmt::format("VACUUM INTO '{}'", (staging_dir / "copy.db").string()));
         repo.swap_index_from(staging_dir / "copy.db");
         EXPECT_EQ(storage::testing::dump_rows(*db), dump);
       }},
  };
  const SymbolQuery query{.text = "parse", .match = SymbolQuery::Match::exact};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    repo.clear_query_cache();
    auto before = found(query);
    auto files_before = repo.list_files();
    auto counts_before = repo.counts();
    db->execute("UPDATE symbols SET line = line + 1000");
    db->execute("UPDATE files SET size = size + 1");
    EXPECT_EQ(found(query), before);
    EXPECT_EQ(repo.list_files()[0].size, files_before[0].size);
    EXPECT_EQ(repo.counts().symbols, counts_before.symbols);

    c.invalidate();
    auto after = found(query);
    ASSERT_EQ(after.size(), before.size());
    EXPECT_NE(after, before);
    EXPECT_EQ(repo.list_files()[0].size, files_before[0].size + 1);
    EXPECT_EQ(repo.counts().files, repo.list_files().size());
  }
}

// A query running on a read connection neither waits for a write transaction nor sees it before its
// commit.
TEST_F(SearchTest, QueriesDoNotWaitForTheWriter) {
  std::latch in_transaction(1);
  std::promise<void> release;
  std::thread writer([&] {
    db->with_connection([&](sqlite3* c) {
      sqlite3_exec(c, "BEGIN IMMEDIATE; DELETE FROM symbols; DELETE FROM files;", nullptr, nullptr, nullptr);
      in_transaction.count_down();
      release.get_future().wait();
      sqlite3_exec(c, "COMMIT", nullptr, nullptr, nullptr);
    });
  });
  in_transaction.wait();
  auto query = std::async(std::launch::async, [&] {
    return std::make_pair(repo.counts().symbols, repo.search_symbols({.text = "parse"}).size());
  });
  // Generous: a query that waited for the writer would wait forever, as the writer waits for it.
  bool answered = query.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  release.set_value();
  writer.join();
  ASSERT_TRUE(answered);
  auto [symbols, hits] = query.get();
  EXPECT_EQ(symbols, 12);
  EXPECT_EQ(hits, 8u);
  repo.clear_query_cache();
  EXPECT_EQ(repo.counts().symbols, 0);
}

// Queries from several threads at once, while the writer stores: each answer is one of the states the
// index went through (whole batches only).
TEST_F(RepositoryTest, ConcurrentQueriesDuringWrites) {
  constexpr int kBatches = 40;
  std::atomic<bool> done = false;
  std::atomic<int> failures = 0;
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      while (!done) {
        if (t == 0) repo.clear_query_cache();
        auto counts = repo.counts();
        auto hits = repo.search_symbols({.text = "w_", .match = SymbolQuery::Match::prefix, .limit = -1});
        // Each batch adds 2 files with 3 symbols each.
        if (counts.symbols != counts.files * 3 || hits.size() % 6 != 0) ++failures;
      }
    });
  }
  for (int b = 0; b < kBatches; ++b) {
    auto entries = storage::testing::generated_entries(fmt::format("w_{}", b), 2, 3);
    repo.store_files(entries);
  }
  done = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(repo.counts().symbols, kBatches * 6);
}

TEST(QueryCache, EvictsTheLeastRecentlyUsed) {
  detail::QueryCache<int> cache(2);
  cache.put("a", 1, cache.generation());
  cache.put("b", 2, cache.generation());
  EXPECT_EQ(cache.get("a"), 1);  // "b" is now the least recently used
  cache.put("c", 3, cache.generation());
  EXPECT_EQ(cache.get("a"), 1);
  EXPECT_EQ(cache.get("b"), std::nullopt);
  EXPECT_EQ(cache.get("c"), 3);
  cache.put("c", 4, cache.generation());
  EXPECT_EQ(cache.get("c"), 4);
  EXPECT_EQ(cache.size(), 2u);
}

TEST(QueryCache, DropsAResultComputedAcrossAClear) {
  detail::QueryCache<int> cache(8);
  auto before = cache.generation();
  cache.clear();  // the index changed while the query ran
  cache.put("q", 1, before);
  EXPECT_EQ(cache.get("q"), std::nullopt);
  cache.put("q", 2, cache.generation());
  EXPECT_EQ(cache.get("q"), 2);
  cache.clear();
  EXPECT_EQ(cache.get("q"), std::nullopt);
}

}  // namespace
}  // namespace brenloc::storage
