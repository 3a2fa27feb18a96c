// Keeps the search tables (`names` and its trigram index, see schema.h) in step with the symbols of one
// write transaction: the names of the rows about to be deleted and of the rows inserted are noted, and
// apply() then adds the names that gained their first row and drops those that lost their last.
//
// While the name index is missing (a bulk load defers it) the search tables are not kept: they are
// rebuilt with the name index (rebuild_search_tables).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include "brenloc/storage/sqlite_util.h"

namespace brenloc::storage::detail {

class NameTable {
 public:
  NameTable(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

  bool kept() const { return kept_; }
  // Notes the names of the symbol rows first .. first + count - 1 (before they are deleted).
  void removing(std::int64_t first, std::int64_t count);
  void adding(std::string_view name);
  void apply();

 private:
  sqlite3* c_;
  const std::filesystem::path& file_;
  std::string operation_;
  bool kept_;
  std::set<std::string> touched_;  // folded
};

// Fills the search tables anew from symbols (inside the caller's write transaction, after the name index
// was built).
void rebuild_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

// Empties them (the names go when the name index is deferred).
void clear_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

}  // namespace brenloc::storage::detail
