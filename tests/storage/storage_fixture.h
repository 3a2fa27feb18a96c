#pragma once

#include <sqlite3.h>

#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "utils/tree_fixtures.h"

namespace brenloc::storage::testing {

namespace fs = std::filesystem;
using brenloc::testing::TempDir;

inline std::shared_ptr<Database> open_database(const fs::path& path) {
  auto db = std::make_shared<Database>(path);
  db->connect();
  db->create_schema();
  return db;
}

inline FileEntry file_entry(std::string path, std::vector<SymbolRow> symbols) {
  return FileEntry{FileRow{path, "cpp", 100, 1'700'000'000'000'000'000, "hash-" + path}, std::move(symbols)};
}

// `files` files "<tag>/f<i>.cpp", each with `per_file` symbols named "<tag>_<i>_<n>".
inline std::vector<FileEntry> entries(const std::string& tag, int files, int per_file) {
  std::vector<FileEntry> out;
  for (int f = 0; f < files; ++f) {
    std::vector<SymbolRow> symbols;
    for (int n = 0; n < per_file; ++n) {
      symbols.push_back({fmt::format("{}_{}_{}", tag, f, n), n % 2 ? "method" : "function", n + 1, 2, n + 3, 4,
                         n % 2 ? "Klass" : ""});
    }
    out.push_back(file_entry(fmt::format("{}/f{}.cpp", tag, f), std::move(symbols)));
  }
  return out;
}

// A staging database as a rebuild leaves it: opened, filled and checkpointed each on a thread of its own (a
// rebuild hands it around), still open on its own connection.
inline std::shared_ptr<Database> make_staging(const fs::path& path, const std::vector<FileEntry>& rows) {
  std::shared_ptr<Database> db;
  std::thread([&] { db = open_database(path); }).join();
  std::thread([&] { Repository(db).store_files(rows); }).join();
  std::thread([&] { db->execute("PRAGMA wal_checkpoint(TRUNCATE)"); }).join();
  EXPECT_EQ(fs::file_size(path.string() + "-wal"), 0u);  // the checkpoint's row was stepped through: the log was cut
  return db;
}

// The values of every row, each followed by "|" when a row has several.
inline std::string query_text(Database& db, const std::string& sql) {
  std::string out;
  const auto row = [](void* text, int n, char** values, char**) {
    auto& s = *static_cast<std::string*>(text);
    for (int i = 0; i < n; ++i) s += (values[i] ? values[i] : "") + std::string(n > 1 ? "|" : "");
    return 0;
  };
  db.with_connection([&](sqlite3* c) { sqlite3_exec(c, sql.c_str(), row, &out, nullptr); });
  return out;
}

// Every row of the tables in id order (the trigram index's own tables included), then the names of the
// attached databases and of the indexes.
inline std::string dump(Database& db) {
  return query_text(db, "SELECT * FROM files ORDER BY id") + "\n" + query_text(db, "SELECT * FROM symbols ORDER BY id") +
         "\n" + query_text(db, "SELECT * FROM names ORDER BY id") + "\n" +
         query_text(db, "SELECT id, hex(block) FROM name_grams_data ORDER BY id") + "\n" +
         query_text(db, "SELECT name FROM pragma_database_list") + "\n" +
         query_text(db, "SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name");
}

// Empty when the search tables agree with the symbols: `names` holds each name once (ASCII case folded)
// and the trigram index passes its own check; otherwise what is wrong.
inline std::string search_tables_problem(Database& db) {
  const std::string stray = query_text(
      db, "SELECT (SELECT count(*) FROM (SELECT lower(name) FROM symbols EXCEPT SELECT name FROM names)) || ' ' || "
          "(SELECT count(*) FROM (SELECT name FROM names EXCEPT SELECT lower(name) FROM symbols))");
  std::string problem = stray == "0 0" ? "" : "names missing and stray: " + stray;
  // Each name of three characters or more is found through the trigram index by its own text.
  const std::string unfound = query_text(
      db, "SELECT count(*) FROM names n WHERE length(n.name) >= 3 AND NOT EXISTS "
          "(SELECT 1 FROM name_grams g WHERE g.name LIKE n.name AND g.rowid = n.id)");
  if (unfound != "0") problem += " names the trigram index misses: " + unfound;
  try {
    db.execute("INSERT INTO name_grams(name_grams) VALUES('integrity-check')");
  } catch (const std::exception& e) {
    problem += std::string(" trigram index: ") + e.what();
  }
  return problem;
}

}  // namespace brenloc::storage::testing
