#include "brenloc/storage/name_table.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include <fmt/format.h>

#include "brenloc/symbol_kinds.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kHasNameIndex =
    "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'";

template <class List>
std::uint32_t bit_in(const List& list, std::string_view value) {
  const auto at = std::ranges::find(list, value);
  return std::uint32_t{1} << static_cast<unsigned>(std::distance(std::begin(list), at));
}

// "CASE <column> WHEN 'a' THEN 1 WHEN 'b' THEN 2 ... ELSE <other> END": the bits in SQL.
template <class List>
std::string bit_case(const List& list, std::string_view column) {
  std::string out = fmt::format("CASE {}", column);
  for (std::string_view value : list) out += fmt::format(" WHEN '{}' THEN {}", value, bit_in(list, value));
  return out + fmt::format(" ELSE {} END", bit_in(list, ""));
}

}  // namespace

std::uint32_t kind_bit(std::string_view kind) { return bit_in(kSymbolKinds, kind); }
std::uint32_t language_bit(std::string_view language) { return bit_in(kLanguages, language); }

NameTable::NameTable(sqlite3* c, const std::filesystem::path& file, std::string_view operation)
    : c_(c), file_(file), operation_(operation), kept_(query_int(c, kHasNameIndex, file, operation) != 0) {}

void NameTable::removing(std::int64_t first, std::int64_t count) {
  if (!kept_ || count == 0) return;
  Statement names(c_, "SELECT name FROM symbols WHERE id >= ?1 AND id < ?2", file_, operation_);
  names.bind(1, first);
  names.bind(2, first + count);
  while (names.step(file_, operation_)) --changes_[names.text(0)].rows;
}

void NameTable::adding(std::string_view name, std::string_view kind, std::string_view language, std::int64_t id) {
  if (!kept_) return;
  Change& change = changes_[std::string(name)];
  ++change.rows;
  change.kinds |= kind_bit(kind);
  change.languages |= language_bit(language);
  change.first_row = std::min(change.first_row, id);
  change.last_row = std::max(change.last_row, id);
}

void NameTable::apply() {
  if (!kept_ || changes_.empty()) return;
  Statement find(c_,
                 "SELECT id, rows, kinds, languages, first_row, last_row FROM names "
                 "WHERE name = ?1 AND name = ?1 COLLATE BINARY",
                 file_, operation_);
  Statement update(c_,
                   "UPDATE names SET rows = ?3, kinds = ?4, languages = ?5, first_row = ?6, last_row = ?7 "
                   "WHERE name = ?1 AND id = ?2",
                   file_, operation_);
  Statement insert(c_, "INSERT INTO names VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)", file_, operation_);
  Statement drop(c_, "DELETE FROM names WHERE name = ?1 AND id = ?2", file_, operation_);
  Statement add_grams(c_, "INSERT INTO name_grams(rowid, name) VALUES(?2, ?1)", file_, operation_);
  Statement drop_grams(c_, "INSERT INTO name_grams(name_grams, rowid, name) VALUES('delete', ?2, ?1)", file_,
                       operation_);
  std::int64_t next_id = query_int(c_, "SELECT next_id FROM name_state", file_, operation_);
  applied_ = {query_int(c_, "SELECT stamp FROM name_state", file_, operation_), 0, {}};
  bool changed = false;
  auto run = [&](Statement& stmt, const std::string& name, std::int64_t id, auto... values) {
    stmt.bind(1, name);
    stmt.bind(2, id);
    int i = 3;
    (stmt.bind(i++, static_cast<std::int64_t>(values)), ...);
    stmt.step(file_, operation_);
    stmt.reset();
  };
  for (const auto& [name, change] : changes_) {
    find.bind(1, name);
    const bool listed = find.step(file_, operation_);
    const std::int64_t id = listed ? find.integer(0) : next_id;
    const std::int64_t rows = (listed ? find.integer(1) : 0) + change.rows;
    const std::int64_t kinds = (listed ? find.integer(2) : 0) | change.kinds;
    const std::int64_t languages = (listed ? find.integer(3) : 0) | change.languages;
    const std::int64_t first_row = listed ? std::min(find.integer(4), change.first_row) : change.first_row;
    const std::int64_t last_row = listed ? std::max(find.integer(5), change.last_row) : change.last_row;
    const bool same = listed && rows == find.integer(1) && kinds == find.integer(2) &&
                      languages == find.integer(3) && first_row == find.integer(4) && last_row == find.integer(5);
    find.reset();
    if (same || (!listed && rows <= 0)) continue;
    changed = true;
    applied_.names.push_back({name, id, std::max<std::int64_t>(rows, 0), kinds, languages, first_row, last_row});
    if (rows <= 0) {
      // The trigram index forgets a name by its text: it keeps no copy.
      run(drop_grams, name, id);
      run(drop, name, id);
    } else if (listed) {
      run(update, name, id, rows, kinds, languages, first_row, last_row);
    } else {
      run(insert, name, id, rows, kinds, languages, first_row, last_row);
      run(add_grams, name, id);
      ++next_id;
    }
  }
  changes_.clear();
  if (!changed) return;
  Statement stamp(c_, "UPDATE name_state SET stamp = random(), next_id = ?1 RETURNING stamp", file_, operation_);
  stamp.bind(1, next_id);
  if (stamp.step(file_, operation_)) applied_.new_stamp = stamp.integer(0);
  while (stamp.step(file_, operation_)) {
  }
}

void rebuild_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation) {
  clear_search_tables(c, file, operation);
  // Numbered in the order of the names (as the table keeps them), so that the trigram index's lists of
  // numbers grow in small steps.
  run_script(c,
             fmt::format("INSERT INTO names SELECT name, row_number() OVER (ORDER BY name COLLATE NOCASE, name), n, k, l, "
                         "lo, hi FROM (SELECT s.name AS name, count(*) AS n, sum(DISTINCT {}) AS k, "
                         "sum(DISTINCT {}) AS l, min(s.id) AS lo, max(s.id) AS hi "
                         "FROM symbols s CROSS JOIN files f ON f.id = s.file_id GROUP BY s.name); "
                         "INSERT INTO name_grams(rowid, name) SELECT id, name FROM names; "
                         "UPDATE name_state SET stamp = random(), next_id = (SELECT count(*) + 1 FROM names);",
                         bit_case(kSymbolKinds, "s.kind"), bit_case(kLanguages, "f.language")),
             file, operation);
}

void clear_search_tables(sqlite3* c, const std::filesystem::path& file, std::string_view operation) {
  run_script(c,
             "DELETE FROM names; INSERT INTO name_grams(name_grams) VALUES('delete-all'); "
             "UPDATE name_state SET stamp = random(), next_id = 1;",
             file, operation);
}

std::string trigram_match(std::string_view folded) {
  // The trigram tokenizer counts characters, not bytes: a UTF-8 character is one byte that does not
  // continue one, and those that do.
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i < folded.size(); ++i) {
    if ((static_cast<unsigned char>(folded[i]) & 0xC0) != 0x80) starts.push_back(i);
  }
  starts.push_back(folded.size());
  std::string out;
  for (std::size_t i = 0; i + 3 < starts.size(); ++i) {
    std::string gram(folded.substr(starts[i], starts[i + 3] - starts[i]));
    std::string quoted = "\"";
    for (char ch : gram) quoted += ch == '"' ? std::string("\"\"") : std::string(1, ch);
    if (!out.empty()) out += " AND ";
    out += quoted + "\"";
  }
  return out;
}

}  // namespace brenloc::storage::detail
