// Keeps the search tables (`names`, its trigram index and `name_state`, see schema.h) in step with the
// symbols of one write transaction: the rows about to be deleted and the rows inserted are noted by name,
// and apply() then updates each name's summary, adds the names that gained their first row and drops
// those that lost their last, and stamps the tables anew when anything changed.
//
// A summary's bits and row range only grow while rows come and go (a search checks the rows anyway);
// a rebuild makes them exact again. While the name index is missing (a bulk load defers it) the search
// tables are not kept: they are rebuilt with the name index (rebuild_search_tables).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "brenloc/storage/name_catalog.h"
#include "brenloc/storage/sqlite_util.h"

namespace brenloc::storage::detail {

// The bit of a kind, or of a language, in a name's summary (one more bit for any other).
std::uint32_t kind_bit(std::string_view kind);
std::uint32_t language_bit(std::string_view language);

class NameTable {
 public:
  NameTable(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

  bool kept() const { return kept_; }
  // Notes the names of the symbol rows first .. first + count - 1 (before they are deleted).
  void removing(std::int64_t first, std::int64_t count);
  // Notes a row inserted as symbol `id`.
  void adding(std::string_view name, std::string_view kind, std::string_view language, std::int64_t id);
  void apply();
  // What the last apply() changed (no names when nothing did).
  const NameChanges& changes() const { return applied_; }

 private:
  struct Change {
    std::int64_t rows = 0;  // added less removed
    std::uint32_t kinds = 0, languages = 0;
    std::int64_t first_row = INT64_MAX, last_row = 0;  // of the rows added
  };

  sqlite3* c_;
  const std::filesystem::path& file_;
  std::string operation_;
  bool kept_;
  std::map<std::string, Change> changes_;  // by name, exact case
  NameChanges applied_;
};

// Fills the search tables anew from symbols (inside the caller's write transaction, after the name index
// was built).
void rebuild_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

// Empties them (the names go when the name index is deferred).
void clear_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation);

// The MATCH expression of the trigram index that finds the names holding `folded` (three characters or
// more; the index folds case itself): every trigram of it.
std::string trigram_match(std::string_view folded);

}  // namespace brenloc::storage::detail
