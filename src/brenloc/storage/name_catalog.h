// The names of an index in memory, as of one stamp of its search tables: what a search needs to pick
// the names worth reading rows for without asking SQLite about each (the fuzzy forms look at every name),
// in the order of the names ignoring ASCII case.
//
// A catalog never changes; NameCatalogs hands out the one of a read transaction's stamp, loading it when
// the stamp is new (a few hundred milliseconds for a million symbols, once per change of names).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brenloc::storage::detail {

struct Reader;

// A name with the summary of its rows, as the names table keeps it.
struct NameRow {
  std::string name;
  std::int64_t id = 0, rows = 0, kinds = 0, languages = 0, first_row = 0, last_row = 0;
};

// What a write did to the names: their stamp before and after, and each name whose summary changed or
// that came or went (rows 0).
struct NameChanges {
  std::int64_t old_stamp = 0, new_stamp = 0;
  std::vector<NameRow> names;
};

class NameCatalog {
 public:
  // Reads the names of `c` inside the caller's read transaction.
  static std::shared_ptr<const NameCatalog> load(sqlite3* c, const std::filesystem::path& file, std::int64_t stamp);
  // Reads the names of the database file `file` (opened read-only, in a transaction of its own), with
  // their stamp.
  static std::shared_ptr<const NameCatalog> load_file(const std::filesystem::path& file);

  // The catalog of `changes.new_stamp`: these names with the changes made (a copy, a few milliseconds for
  // a million symbols); null when the changes name ids that it cannot hold.
  std::shared_ptr<const NameCatalog> changed(const NameChanges& changes) const;

  std::int64_t stamp() const { return stamp_; }
  std::size_t size() const { return chars_.size(); }

  // Readable for LettersInOrder::kPadding bytes past its end.
  std::string_view name(std::size_t i) const { return std::string_view(text_).substr(offset_[i], offset_[i + 1] - offset_[i]); }
  std::uint64_t chars(std::size_t i) const { return chars_[i]; }  // char_bits of the name
  std::uint32_t kinds(std::size_t i) const { return kinds_[i]; }
  std::uint32_t languages(std::size_t i) const { return languages_[i]; }
  std::int64_t rows(std::size_t i) const { return rows_[i]; }
  // The smallest and largest ids of its symbol rows (or a wider range).
  std::int64_t first_row(std::size_t i) const { return first_row_[i]; }
  std::int64_t last_row(std::size_t i) const { return last_row_[i]; }

  // The entries whose names start with `folded` (ASCII letters in lower case): [first, second).
  std::pair<std::size_t, std::size_t> starting_with(std::string_view folded) const;
  // The entry of a name's id in the trigram index, or size() when there is none.
  std::size_t by_id(std::int64_t id) const;

 private:
  void push(std::string_view name, std::uint64_t chars, std::int64_t rows, std::int64_t kinds, std::int64_t languages,
            std::int64_t first_row, std::int64_t last_row);
  void finish();

  std::int64_t stamp_ = 0;
  std::string text_;
  std::vector<std::uint32_t> offset_;  // size() + 1
  std::vector<std::uint64_t> chars_;
  std::vector<std::uint32_t> kinds_, languages_, rows_;
  std::vector<std::uint32_t> first_row_, last_row_;
  std::vector<std::uint32_t> entry_of_id_;
};

// The catalogs of one database: the latest stamp's, and the one before while anyone still holds it (a
// search whose read transaction began before a change), and the changes of the writes since, from which
// the catalog of a later stamp is made when a search needs it (a few milliseconds for a million symbols,
// against a few hundred to read every name). Only one catalog stays in memory at rest.
class NameCatalogs {
 public:
  // The catalog of the stamp that the reader's read transaction sees.
  std::shared_ptr<const NameCatalog> get(Reader& reader, const std::filesystem::path& file);
  // Whether any catalog was loaded (the store has been searched by name).
  bool in_use();
  // Hands over a catalog read elsewhere (a swap's, before its names go live), unless one of its stamp is
  // known. Returns the catalog that was the latest: a caller keeps it while readers may still see its
  // stamp (until its commit).
  std::shared_ptr<const NameCatalog> put(std::shared_ptr<const NameCatalog> catalog);
  // Notes what a write (before its commit) did to the names of a store that has been searched.
  void follow(const NameChanges& changes);

 private:
  // The catalog of `stamp` when it is in memory, or null (with mu_ held).
  std::shared_ptr<const NameCatalog> known(std::int64_t stamp) const;
  // Makes `catalog` the latest (with mu_ held); returns the one it displaced.
  std::shared_ptr<const NameCatalog> make_latest(std::shared_ptr<const NameCatalog> catalog);
  // The catalog of `stamp` made from a known one and the changes that lead from it, or null.
  std::shared_ptr<const NameCatalog> from_changes(std::int64_t stamp);

  std::mutex mu_;       // guards the catalogs and the changes
  std::mutex load_mu_;  // one load at a time
  std::shared_ptr<const NameCatalog> latest_;
  std::weak_ptr<const NameCatalog> earlier_;
  std::vector<NameChanges> changes_;  // oldest first
};

}  // namespace brenloc::storage::detail
