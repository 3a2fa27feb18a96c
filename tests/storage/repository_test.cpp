#include "brenloc/storage/repository.h"

#include <algorithm>
#include <cctype>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using testing::entries;
using testing::file_entry;

using Hashes = std::unordered_map<std::string, std::string>;

class RepositoryTest : public ::testing::Test {
 protected:
  testing::TempDir dir;
  std::shared_ptr<Database> db = testing::open_database(dir.path() / "index.db");
  Repository repo{db};

  std::vector<std::string> found(const SymbolQuery& q) {
    std::vector<std::string> out;
    for (const auto& h : repo.search_symbols(q)) {
      out.push_back(fmt::format("{} {} {}:{}:{}-{} {}", h.name, h.kind, h.path, h.line, h.column, h.end_line, h.scope));
    }
    return out;
  }
};

// Storing a file again replaces its row and all its symbols; one call is one transaction, so a file that
// cannot be stored leaves none of its call behind, and the error names it.
TEST_F(RepositoryTest, StoresReplacesAndRemovesFiles) {
  repo.store_files(entries("a", 2, 3));
  repo.store_files({file_entry("a/f0.cpp", {{"only", "class", 1, 1, 2, 1, ""}})});
  repo.remove_files({"never-indexed.cpp"});
  EXPECT_EQ(repo.file_hashes(), (Hashes{{"a/f0.cpp", "hash-a/f0.cpp"}, {"a/f1.cpp", "hash-a/f1.cpp"}}));
  EXPECT_EQ(repo.counts().symbols, 4);

  db->execute("CREATE TRIGGER refuse BEFORE INSERT ON files WHEN NEW.path = 'bad.cpp' BEGIN SELECT RAISE(ABORT, 'no'); END");
  try {
    repo.store_files({file_entry("good.cpp", {}), file_entry("bad.cpp", {})});
    ADD_FAILURE() << "no error";
  } catch (const StorageError& e) {
    EXPECT_THAT(e.what(), AllOf(HasSubstr("index.db"), HasSubstr("storing bad.cpp")));
  }
  repo.remove_files({"a/f1.cpp"});
  EXPECT_EQ(repo.file_hashes(), (Hashes{{"a/f0.cpp", "hash-a/f0.cpp"}}));
  EXPECT_EQ(found({.text = "", .match = SymbolQuery::Match::prefix}), (std::vector<std::string>{"only class a/f0.cpp:1:1-2 "}));
}

// Every match mode with every filter answers what a plain filter over all rows answers, in order, whichever
// way the search runs (directories of many files or of few; selective names or not).
TEST_F(RepositoryTest, SearchesAgreeWithAFilterOverAllRows) {
  const std::vector<std::string> stems = {"get", "getValue", "Get_value", "get%x", "GETXvalue", "parse", "Parser"};
  std::vector<FileEntry> rows;
  for (auto [dir, files] : {std::pair{"big", 100}, {"small", 3}, {"big/sub", 2}, {"bigger", 700}, {"a.cpp", 1}}) {
    for (int f = 0; f < files; ++f) {
      std::vector<SymbolRow> symbols;
      for (int n = 0; n < 6; ++n) {
        auto i = static_cast<std::size_t>(f * 7 + n * 3);
        symbols.push_back({stems[i % stems.size()] + std::to_string(n % 2), n % 3 ? "function" : "class", n + 1,
                           n + 2, n + 9, 1, n % 2 ? "K" : ""});
      }
      rows.push_back(file_entry(files == 1 ? dir : fmt::format("{}/f{}.cpp", dir, f), std::move(symbols)));
    }
  }
  // Loaded in bulk: the name index is deferred while the index is empty, and not once it has rows; the
  // searches must agree without it and after it is rebuilt.
  ASSERT_TRUE(repo.defer_name_index());
  repo.store_files(rows);
  EXPECT_FALSE(repo.defer_name_index());

  auto lower = [](std::string t) { return std::ranges::transform(t, t.begin(), ::tolower), t; };
  auto reference = [&](const SymbolQuery& q) {
    std::string dir = q.path_prefix.value_or("");
    std::vector<std::tuple<std::string, std::string, int, std::string>> hits;  // in the search's order
    for (const auto& e : rows) {
      if (!dir.empty() && e.file.path != dir && !e.file.path.starts_with(dir + "/")) continue;
      for (const auto& s : e.symbols) {
        bool match = q.match == SymbolQuery::Match::exact    ? s.name == q.text
                     : q.match == SymbolQuery::Match::prefix ? s.name.starts_with(q.text)
                                                             : lower(s.name).find(lower(q.text)) != std::string::npos;
        if (match && (!q.kind || *q.kind == s.kind)) {
          hits.emplace_back(s.name, e.file.path, s.line,
                            fmt::format("{} {} {}:{}:{}-{} {}", s.name, s.kind, e.file.path, s.line, s.column,
                                        s.end_line, s.scope));
        }
      }
    }
    std::sort(hits.begin(), hits.end());
    std::vector<std::string> out;
    for (std::size_t i = 0; i < hits.size() && (q.limit < 0 || i < static_cast<std::size_t>(q.limit)); ++i) {
      out.push_back(std::get<3>(hits[i]));
    }
    return out;
  };

  using Opt = std::optional<std::string>;
  for (bool name_index : {false, true}) {
    SCOPED_TRACE(name_index ? "with the name index" : "without the name index");
    if (name_index) {
      repo.restore_indexes();
      repo.clear_query_cache();
    }
    for (auto match : {SymbolQuery::Match::exact, SymbolQuery::Match::prefix, SymbolQuery::Match::substring}) {
      for (std::string text : {"", "get", "Get", "value1", "_v", "%x", "Parser0", "zzz"}) {
        for (Opt kind : {Opt(), Opt("class")}) {
          for (Opt dir : {Opt(), Opt("big"), Opt("big/"), Opt("small"), Opt("big/sub"), Opt("a.cpp"), Opt("a")}) {
            for (int limit : {-1, 5}) {
              SymbolQuery q{.text = text, .match = match, .kind = kind, .path_prefix = dir, .limit = limit};
              SCOPED_TRACE(fmt::format("match {} text '{}' kind {} dir {} limit {}", static_cast<int>(match), text,
                                       kind.value_or("-"), dir.value_or("-"), limit));
              if (dir == "big/") q.path_prefix = "./big/";  // the same directory, spelt differently
              ASSERT_EQ(found(q), reference(SymbolQuery{text, match, kind, dir == "big/" ? Opt("big") : dir, limit}));
            }
          }
        }
      }
    }
  }
  EXPECT_EQ(repo.list_files("big/sub").size(), 2u);
  EXPECT_EQ(repo.list_files("./big/").size(), 102u);
}

// A query is answered from the cache until the index changes through the repository or the cache is
// cleared; the rows are changed behind the repository's back to tell a cached answer from a fresh one.
TEST_F(RepositoryTest, CachedResultsLastUntilTheIndexChanges) {
  repo.store_files(entries("c", 3, 3));
  const std::vector<std::pair<std::string, std::function<void()>>> invalidations = {
      {"clear_query_cache", [&] { repo.clear_query_cache(); }},
      {"store_files", [&] { repo.store_files({file_entry("other.cpp", {})}); }},
      {"remove_files", [&] { repo.remove_files({"other.cpp"}); }},
  };
  const SymbolQuery query{.text = "c_1_1", .match = SymbolQuery::Match::exact};
  for (const auto& [label, invalidate] : invalidations) {
    SCOPED_TRACE(label);
    auto before = std::make_tuple(found(query), repo.list_files().size(), repo.counts().files);
    db->execute("UPDATE symbols SET line = line + 1; INSERT INTO files VALUES (NULL, 'new.cpp', 'cpp', 1, 1, 'h');");
    EXPECT_EQ(std::make_tuple(found(query), repo.list_files().size(), repo.counts().files), before);
    invalidate();
    EXPECT_NE(found(query), std::get<0>(before));
    EXPECT_EQ(repo.counts().files, repo.list_files().size());
    db->execute("DELETE FROM files WHERE path = 'new.cpp'");
    repo.clear_query_cache();
  }
}

// A query on a read connection neither waits for a write transaction nor sees it before its commit.
TEST_F(RepositoryTest, QueriesDoNotWaitForTheWriter) {
  repo.store_files(entries("w", 2, 2));
  std::promise<void> release;
  std::future<std::int64_t> query;
  db->with_connection([&](sqlite3* c) {
    sqlite3_exec(c, "BEGIN IMMEDIATE; DELETE FROM symbols;", nullptr, nullptr, nullptr);
    query = std::async(std::launch::async, [&] { return repo.counts().symbols; });
    // Generous: a query that waited for the writer would wait forever, as the writer waits for it.
    EXPECT_EQ(query.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    sqlite3_exec(c, "COMMIT", nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(query.get(), 4);
}

}  // namespace
}  // namespace brenloc::storage
