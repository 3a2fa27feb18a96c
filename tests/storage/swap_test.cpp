// The swap of a staged index onto the live connection: its result, its failures (each leaving the live
// index exactly as it was), and what readers on other connections see while it runs.
#include <atomic>
#include <cstdio>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using testing::dump;
using testing::entries;
using testing::make_staging;

class SwapTest : public ::testing::Test {
 protected:
  testing::TempDir dir;
  std::shared_ptr<Database> live = testing::open_database(dir.path() / "index.db");
  Repository repo{live};
  void SetUp() override { repo.store_files(entries("old", 30, 20)); }
};

// The live index becomes a copy of the staged one, the counts are returned, and a query cached before the
// swap is answered from the new index.
TEST_F(SwapTest, ReplacesEveryRowAndAnswersCachedQueriesFromTheNewIndex) {
  const SymbolQuery query{.text = "old_1_1", .match = SymbolQuery::Match::exact};
  ASSERT_EQ(repo.search_symbols(query).at(0).path, "old/f1.cpp");
  auto rows = entries("new", 40, 25);
  rows.push_back(testing::file_entry("moved.cpp", {{"old_1_1", "class", 77, 1, 80, 1, ""}}));
  auto staging = make_staging(dir.path() / "index.db.reindex-staging", rows);
  live->execute("DROP INDEX symbols_by_name");  // as a cancelled bulk load into the live file leaves it

  EXPECT_EQ(repo.swap_index_from(dir.path() / "index.db.reindex-staging").dump(), R"({"files":41,"symbols":1001})");
  EXPECT_EQ(dump(*live), dump(*staging));  // every row and index, and the staging file detached
  EXPECT_EQ(repo.search_symbols(query).at(0).path, "moved.cpp");

  auto empty = make_staging(dir.path() / "empty", {});  // also an index, and the live writer carries on after it
  EXPECT_EQ(repo.swap_index_from(dir.path() / "empty").dump(), R"({"files":0,"symbols":0})");
  repo.store_files(entries("after", 1, 2));
  EXPECT_EQ(repo.counts().symbols, 2);
}

void write_bytes(const fs::path& path, const std::string& bytes, std::streamoff at) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!f) f.open(path, std::ios::out | std::ios::binary);
  f.seekp(at).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Each failure rolls back and leaves the live index (rows, attached files, cached answers) exactly as it
// was; the error names both files and the cause.
TEST_F(SwapTest, EveryFailureLeavesTheLiveIndexAsItWas) {
  const auto big = entries("new", 50, 40);
  std::vector<std::shared_ptr<Database>> open;  // staging databases stay open through the swap
  auto raw = [&](const fs::path& p, const std::string& sql) {
    open.push_back(std::make_shared<Database>(p));
    open.back()->connect();
    open.back()->execute(sql);
  };
  const std::vector<std::tuple<std::string, std::function<void(const fs::path&)>, std::string>> cases = {
      {"missing", [](auto&) {}, "the staging file does not exist"},
      {"directory", [](auto& p) { fs::create_directory(p); }, "the staging file is not a regular file"},
      {"newer version",
       [&](auto& p) { open.push_back(make_staging(p, big)), open.back()->execute("PRAGMA user_version = 2"); },
       "the staging file has schema version 2, expected 1"},
      {"no schema", [&](auto& p) { raw(p, "CREATE TABLE files(x)"); }, "schema version 0, expected 1"},
      {"wrong files table", [&](auto& p) { raw(p, "CREATE TABLE files(x); PRAGMA user_version = 1"); },
       "copying the files: table main.files has 6 columns but 1 values were supplied"},
      {"wrong symbols table, after the files were copied",
       [&](auto& p) { open.push_back(make_staging(p, big)), open.back()->execute("DROP TABLE symbols; CREATE TABLE symbols(y)"); },
       "copying the symbols: table main.symbols has 9 columns but 1 values were supplied"},
      {"not a database", [](auto& p) { write_bytes(p, std::string(8192, 'x'), 0); }, "file is not a database"},
      {"damaged pages",  // page 1 (header and schema) intact, every later page overwritten
       [&](auto& p) {
         make_staging(p, big)->close();
         write_bytes(p, std::string(fs::file_size(p) - 4096, '\xA5'), 4096);
       },
       "copying the files: database disk image is malformed"},
  };
  const SymbolQuery query{.text = "old_", .match = SymbolQuery::Match::prefix, .limit = 5};
  const auto cached = repo.search_symbols(query).size();
  const auto before = dump(*live);
  for (const auto& [label, make, cause] : cases) {
    SCOPED_TRACE(label);
    auto path = dir.path() / label;
    make(path);
    try {
      repo.swap_index_from(path);
      ADD_FAILURE() << "no error";
    } catch (const StorageError& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr(fmt::format("swapping in the index of {} onto {}: ", path.string(),
                                                        (dir.path() / "index.db").string())),
                                  HasSubstr(cause)));
    }
    EXPECT_EQ(dump(*live), before);
    EXPECT_EQ(repo.search_symbols(query).size(), cached);
  }
  make_staging(dir.path() / "good", entries("new", 2, 2));
  EXPECT_EQ(repo.swap_index_from(dir.path() / "good").dump(), R"({"files":2,"symbols":4})");
}

// Readers on their own connections during repeated swaps (from another thread than the one that opened the
// live database): each answer comes wholly from one index that was live while the query ran, never a mix,
// never empty, and never older than the last swap that had returned before the query began. One reader
// clears the cache before each query; the others are answered from it whenever they can be.
TEST_F(SwapTest, ReadersSeeTheOldIndexOrTheNewNeverAMix) {
  constexpr int kSwaps = 24;
  auto files_of = [](int g) { return 3 + g % 4; };
  auto per_file = [](int g) { return 2 + g % 3; };
  auto swap_in = [&](int g) {
    auto path = dir.path() / fmt::format("staging-{}", g);
    auto staging = make_staging(path, entries(fmt::format("g{}", g), files_of(g), per_file(g)));
    repo.swap_index_from(path);
  };
  swap_in(0);
  std::atomic<int> swapped = 0, checks = 0, failures = 0;  // swaps that have returned: generation `swapped` is live
  std::atomic<bool> done = false;
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      while (!done) {
        if (t == 0) repo.clear_query_cache();
        int low = swapped, g = -1;
        auto counts = repo.counts();
        auto hits = repo.search_symbols({.text = "g", .match = SymbolQuery::Match::prefix, .limit = -1});
        int high = swapped + 1;  // a swap may have committed without having returned yet
        bool whole = !hits.empty() && std::sscanf(hits[0].name.c_str(), "g%d_", &g) == 1 && g >= low && g <= high &&
                     hits.size() == static_cast<std::size_t>(files_of(g) * per_file(g));
        for (const auto& h : hits) whole = whole && h.name.starts_with(fmt::format("g{}_", g));
        bool counts_whole = false;  // the counts come from their own query
        for (int k = low; k <= high; ++k) {
          counts_whole = counts_whole || (counts.files == files_of(k) && counts.symbols == files_of(k) * per_file(k));
        }
        failures += !whole + !counts_whole;
        ++checks;
      }
    });
  }
  std::thread([&] { for (int g = 1; g <= kSwaps; ++g) swap_in(g), swapped = g; }).join();
  done = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GT(checks, kSwaps);
}

}  // namespace
}  // namespace brenloc::storage
