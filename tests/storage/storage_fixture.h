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

// Every row of both tables in id order, then the names of the attached databases.
inline std::string dump(Database& db) {
  return query_text(db, "SELECT * FROM files ORDER BY id") + "\n" + query_text(db, "SELECT * FROM symbols ORDER BY id") +
         "\n" + query_text(db, "SELECT name FROM pragma_database_list") + "\n" +
         query_text(db, "SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name");
}

}  // namespace brenloc::storage::testing
