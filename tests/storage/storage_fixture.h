// Helpers of the storage tests: temporary directories, index databases filled with generated rows, and
// a dump of every row of a database for exact before/after comparisons.
#pragma once

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "brenloc/storage/database.h"
#include "brenloc/storage/records.h"
#include "brenloc/storage/repository.h"

namespace brenloc::storage::testing {

namespace fs = std::filesystem;

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "brenloc-storage-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const fs::path& path() const { return path_; }
  fs::path operator/(const std::string& name) const { return path_ / name; }

 private:
  fs::path path_;
};

inline std::shared_ptr<Database> open_database(const fs::path& path) {
  auto db = std::make_shared<Database>(path);
  db->connect();
  db->create_schema();
  return db;
}

inline SymbolRow symbol(std::string name, std::string kind, int line, std::string scope = "") {
  return SymbolRow{std::move(name), std::move(kind), line, 1, line + 2, 10, std::move(scope)};
}

inline FileEntry file_entry(std::string path, std::vector<SymbolRow> symbols, std::string hash = "h") {
  return FileEntry{FileRow{std::move(path), "cpp", 100, 1'700'000'000'000'000'000, std::move(hash)},
                   std::move(symbols)};
}

// `files` files under "<tag>/", each with `per_file` symbols named "<tag>_<file>_<n>".
inline std::vector<FileEntry> generated_entries(const std::string& tag, int files, int per_file) {
  std::vector<FileEntry> out;
  for (int f = 0; f < files; ++f) {
    std::vector<SymbolRow> symbols;
    for (int n = 0; n < per_file; ++n) {
      symbols.push_back(symbol(fmt::format("{}_{}_{}", tag, f, n), n % 2 ? "method" : "function", n * 3 + 1,
                               n % 2 ? "Klass" : ""));
    }
    out.push_back(file_entry(fmt::format("{}/f{}.cpp", tag, f), std::move(symbols), fmt::format("{}-{}", tag, f)));
  }
  return out;
}

// A staging database as a rebuild leaves it: filled, checkpointed, still open on its own connection.
inline std::shared_ptr<Database> make_staging(const fs::path& path, const std::vector<FileEntry>& entries) {
  auto db = open_database(path);
  Repository repo(db);
  repo.store_files(entries);
  db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  return db;
}

// Every row of the files and symbols tables, in id order, as text.
inline std::string dump_rows(Database& db) {
  std::string out;
  db.with_connection([&](sqlite3* c) {
    for (const char* sql : {"SELECT * FROM files ORDER BY id", "SELECT * FROM symbols ORDER BY id"}) {
      sqlite3_stmt* stmt = nullptr;
      EXPECT_EQ(sqlite3_prepare_v2(c, sql, -1, &stmt, nullptr), SQLITE_OK) << sqlite3_errmsg(c);
      while (sqlite3_step(stmt) == SQLITE_ROW) {
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
          const auto* text = sqlite3_column_text(stmt, i);
          out += text != nullptr ? reinterpret_cast<const char*>(text) : "NULL";
          out += '\x1f';
        }
        out += '\n';
      }
      sqlite3_finalize(stmt);
      out += "--\n";
    }
  });
  return out;
}

// The names of the databases attached to the writer connection ("main" alone when nothing is left over).
inline std::vector<std::string> attached(Database& db) {
  std::vector<std::string> names;
  db.with_connection([&](sqlite3* c) {
    for (int i = 0; const char* name = sqlite3_db_name(c, i); ++i) {
      if (std::string(name) != "temp") names.emplace_back(name);
    }
  });
  return names;
}

}  // namespace brenloc::storage::testing
