#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "brenloc/storage/database.h"
#include "brenloc/storage/name_table.h"
#include "brenloc/storage/repository.h"
#include "brenloc/storage/sqlite_util.h"
#include "brenloc/storage/symbol_match.h"
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

// `files` files "<tag>/f<i>.cpp", each with `per_file` symbols named "<tag>_<i>_<n>", using the name
// "<tag>" twice and including "<tag>.h".
inline std::vector<FileEntry> entries(const std::string& tag, int files, int per_file) {
  std::vector<FileEntry> out;
  for (int f = 0; f < files; ++f) {
    std::vector<SymbolRow> symbols;
    for (int n = 0; n < per_file; ++n) {
      symbols.push_back({fmt::format("{}_{}_{}", tag, f, n), n % 2 ? "method" : "function", n + 1, 2, n + 3, 4,
                         n % 2 ? "Klass" : ""});
    }
    out.push_back(file_entry(fmt::format("{}/f{}.cpp", tag, f), std::move(symbols)));
    // Each file uses the tag and includes its header.
    pack_name_uses(out.back().uses, tag, encode_uses({{10, UseRole::call}, {20, UseRole::type}}));
    out.back().imports = {{fmt::format("\"{}.h\"", tag), 1}};
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

// Every row of the tables in order (the trigram index's own tables included), then the names of the
// attached databases and of the indexes.
inline std::string dump(Database& db) {
  return query_text(db, "SELECT * FROM files ORDER BY id") + "\n" + query_text(db, "SELECT * FROM symbols ORDER BY id") +
         "\n" + query_text(db, "SELECT * FROM names") + "\n" + query_text(db, "SELECT * FROM name_state") + "\n" +
         query_text(db, "SELECT id, hex(block) FROM name_grams_data ORDER BY id") + "\n" +
         query_text(db, "SELECT name_key, file_id, hex(spots) FROM uses") + "\n" +
         query_text(db, "SELECT file_id, hex(keys) FROM file_uses") + "\n" +
         query_text(db, "SELECT file_id, hex(uses) FROM uses_fresh") + "\n" +
         query_text(db, "SELECT * FROM imports ORDER BY rowid") + "\n" +
         query_text(db, "SELECT name FROM pragma_database_list") + "\n" +
         query_text(db, "SELECT name FROM sqlite_master WHERE type = 'index' ORDER BY name");
}

// Empty when the search tables agree with the symbols: `names` holds each name (exact case) once, with
// its number of rows, and bits and a row range that cover its rows; the trigram index finds each name of
// three characters or more by its text and passes its own check; otherwise what is wrong.
inline std::string search_tables_problem(Database& db) {
  struct Summary {
    std::int64_t id = 0, rows = 0, kinds = 0, languages = 0, first = INT64_MAX, last = 0;
  };
  std::map<std::string, Summary> want, have;
  std::string problem;
  db.with_connection([&](sqlite3* c) {
    detail::Statement rows(c, "SELECT s.name, s.kind, f.language, s.id FROM symbols s JOIN files f ON f.id = s.file_id", "", "");
    while (rows.step("", "")) {
      Summary& w = want[rows.text(0)];
      ++w.rows;
      w.kinds |= detail::kind_bit(rows.text(1));
      w.languages |= detail::language_bit(rows.text(2));
      w.first = std::min(w.first, rows.integer(3));
      w.last = std::max(w.last, rows.integer(3));
    }
    detail::Statement names(c, "SELECT name, id, rows, kinds, languages, first_row, last_row FROM names", "", "");
    while (names.step("", "")) {
      if (have.contains(names.text(0))) problem += " twice: " + names.text(0);
      have[names.text(0)] = {names.integer(1), names.integer(2), names.integer(3), names.integer(4), names.integer(5),
                             names.integer(6)};
    }
    const std::int64_t next_id = detail::query_int(c, "SELECT next_id FROM name_state", "", "");
    detail::Statement grams(c, "SELECT count(*) FROM name_grams WHERE name_grams MATCH ?1 AND rowid = ?2", "", "");
    std::set<std::int64_t> ids;
    for (const auto& [name, h] : have) {
      const auto w = want.find(name);
      if (w == want.end()) {
        problem += " stray: " + name;
        continue;
      }
      const Summary& s = w->second;
      if (h.rows != s.rows || (h.kinds & s.kinds) != s.kinds || (h.languages & s.languages) != s.languages ||
          h.first > s.first || h.last < s.last) {
        problem += " wrong summary: " + name;
      }
      if (!ids.insert(h.id).second || h.id >= next_id) problem += " bad id: " + name;
      if (name.size() < 3) continue;
      grams.bind(1, detail::trigram_match(fold_case(name)));
      grams.bind(2, h.id);
      grams.step("", "");
      if (grams.integer(0) != 1) problem += " unfound: " + name;
      grams.reset();
    }
    for (const auto& [name, w] : want) {
      if (!have.contains(name)) problem += " missing: " + name;
    }
  });
  try {
    db.execute("INSERT INTO name_grams(name_grams) VALUES('integrity-check')");
  } catch (const std::exception& e) {
    problem += std::string(" trigram index: ") + e.what();
  }
  return problem;
}

}  // namespace brenloc::storage::testing
