#include "brenloc/storage/name_table.h"

#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kHasNameIndex =
    "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'";

}  // namespace

NameTable::NameTable(sqlite3* c, const std::filesystem::path& file, std::string_view operation)
    : c_(c), file_(file), operation_(operation), kept_(query_int(c, kHasNameIndex, file, operation) != 0) {}

void NameTable::removing(std::int64_t first, std::int64_t count) {
  if (!kept_ || count == 0) return;
  Statement names(c_, "SELECT name FROM symbols WHERE id >= ?1 AND id < ?2", file_, operation_);
  names.bind(1, first);
  names.bind(2, first + count);
  while (names.step(file_, operation_)) touched_.insert(fold_case(names.text(0)));
}

void NameTable::adding(std::string_view name) {
  if (kept_) touched_.insert(fold_case(name));
}

void NameTable::apply() {
  if (!kept_ || touched_.empty()) return;
  Statement used(c_, "SELECT EXISTS (SELECT 1 FROM symbols WHERE name = ?1 COLLATE NOCASE)", file_, operation_);
  Statement known(c_, "SELECT id FROM names WHERE name = ?1", file_, operation_);
  Statement add(c_, "INSERT INTO names(name) VALUES(?1) RETURNING id", file_, operation_);
  Statement add_grams(c_, "INSERT INTO name_grams(rowid, name) VALUES(?1, ?2)", file_, operation_);
  Statement drop(c_, "DELETE FROM names WHERE id = ?1", file_, operation_);
  Statement drop_grams(c_, "INSERT INTO name_grams(name_grams, rowid, name) VALUES('delete', ?1, ?2)", file_,
                       operation_);
  for (const std::string& name : touched_) {
    used.bind(1, name);
    used.step(file_, operation_);
    const bool in_use = used.integer(0) != 0;
    used.reset();
    known.bind(1, name);
    const bool listed = known.step(file_, operation_);
    const std::int64_t id = listed ? known.integer(0) : 0;
    known.reset();
    if (in_use && !listed) {
      add.bind(1, name);
      add.step(file_, operation_);
      const std::int64_t new_id = add.integer(0);
      add.step(file_, operation_);  // ends the statement (RETURNING gives one row)
      add.reset();
      add_grams.bind(1, new_id);
      add_grams.bind(2, name);
      add_grams.step(file_, operation_);
      add_grams.reset();
    } else if (!in_use && listed) {
      // The trigram index forgets a row by its old content: delete it there first.
      drop_grams.bind(1, id);
      drop_grams.bind(2, name);
      drop_grams.step(file_, operation_);
      drop_grams.reset();
      drop.bind(1, id);
      drop.step(file_, operation_);
      drop.reset();
    }
  }
  touched_.clear();
}

void rebuild_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation) {
  clear_search_tables(c, file, operation);
  // Grouped along the name index, the names come sorted and are numbered in that order.
  run_script(c,
             "INSERT INTO names(name) SELECT lower(name) FROM symbols INDEXED BY symbols_by_name "
             "GROUP BY name COLLATE NOCASE ORDER BY name COLLATE NOCASE; "
             "INSERT INTO name_grams(name_grams) VALUES('rebuild');",
             file, operation);
}

void clear_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation) {
  run_script(c, "DELETE FROM names; INSERT INTO name_grams(name_grams) VALUES('delete-all');", file, operation);
}

}  // namespace brenloc::storage::detail
