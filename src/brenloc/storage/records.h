// The rows of the index: files and the symbols defined in them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/storage/name_uses.h"

namespace brenloc::storage {

struct FileRow {
  std::string path;      // relative to the repository root, '/'-separated
  std::string language;  // a language of LANGUAGE_EXTENSIONS
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::string content_hash;  // hex digest of the content
  // The rest of the file's status when it was read, and when that was (wall clock, ns): a later pass
  // trusts the file unchanged while its status is the same, unless it was modified too close to its
  // reading for the status to tell (see workers/file_status.h).
  std::int64_t inode = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t read_ns = 0;
};

// What the index keeps of a file to tell, without reading it, whether it changed.
struct StoredFile {
  std::string content_hash;
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t inode = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t read_ns = 0;
};

struct SymbolRow {
  std::string name;
  std::string kind;  // function, method, class, struct, enum, enumerator, field, macro, ...
  int line = 0;      // 1-based
  int column = 0;    // 1-based
  int end_line = 0;
  int end_column = 0;
  std::string scope;  // enclosing scope ("ns::Klass"), empty at top level
  int start_line = 0;  // where the definition starts, when before `line` (a return type, a template header)
  bool specialization = false;  // a C++ template's specialization, a member of one, or a deduction guide (not stored)
  bool conditional = false;     // C or C++ compiled only on an `#if` (not stored)
};

// One file with all its symbols, the names it uses and what it imports, stored as a unit (replacing the
// file's earlier rows).
struct FileEntry {
  FileRow file;
  std::vector<SymbolRow> symbols;
  std::string uses;  // packed (pack_name_uses)
  std::vector<ImportRow> imports;
};

// A name search. `text` is a name, a prefix, a substring or an ordered subsequence of one; "Cart.add",
// "Cart::add" or "Cart/add" also asks the scope to end with "Cart"; "*" and "?" make it a glob. Names
// are compared ignoring ASCII case (a match of the exact case ranks first).
struct SymbolQuery {
  // auto: every form below, ranked (exact, prefix, word boundary, substring, subsequence); exact: equal
  // names; prefix: names that start with the text; substring: names that contain it; fuzzy: names of
  // which it is an ordered subsequence that starts with the name's first character, ranked like auto.
  enum class Match { automatic, exact, prefix, substring, fuzzy };
  std::string text;
  Match match = Match::automatic;
  std::optional<std::string> kind;         // only this kind
  std::optional<std::string> path_prefix;  // only files under this relative path, or matching this glob
  int limit = 50;                          // negative: no limit
  std::optional<std::string> language;     // only files of this language
};

struct SymbolHit {
  std::string name;
  std::string kind;
  std::string path;
  int line = 0;
  int column = 0;
  int end_line = 0;
  std::string scope;
  std::string language;
  int tier = 0;  // how it matched (see symbol_match.h): lower ranks first
  int start_line = 0;  // where the definition starts (at most `line`)
  int importance = 0;  // how likely it is the one meant, within its tier (see symbol_match.h): lower first
};

// The best hits of a search, and how many matched in all: `total` is exact unless `more`, when it is
// the number counted before the search stopped counting.
struct SymbolSearch {
  std::vector<SymbolHit> hits;
  std::int64_t total = 0;
  bool more = false;
};

// The uses of a name (exact case) in code, a page at a time: files in the index's order, each file's uses
// in its order. A cursor is where the page starts: a file (by id) and how many of its uses come before.
struct UsesQuery {
  std::string name;
  std::optional<std::string> path_prefix;  // only files under this relative path, or matching this glob
  unsigned roles = 0x1f;                   // a bit per UseRole
  std::int64_t from_file = 0;
  std::int64_t skip = 0;
  int limit = 50;
};

struct UseHit {
  std::string path;
  std::string language;
  std::int64_t file_id = 0;
  std::int64_t ordinal = 0;  // its place among the uses of its file that the query takes
  Use use;
};

// A page of uses; `total` counts them all, exactly unless `more` (then those counted before the count
// stopped). `next`: where the next page starts, when there is one.
struct UsesPage {
  std::vector<UseHit> hits;
  std::int64_t total = 0;
  bool more = false;
  std::optional<std::pair<std::int64_t, std::int64_t>> next;  // file id, uses to skip in it
};

// An include or import of an indexed file.
struct ImportHit {
  std::string path;      // of the importing file
  std::string language;  // of the importing file
  std::string target;    // as written
  int line = 0;
};

struct Counts {
  std::int64_t files = 0;
  std::int64_t symbols = 0;
};

// {"files":N,"symbols":M}, as logs show counts.
inline std::string to_string(const Counts& c) {
  return "{\"files\":" + std::to_string(c.files) + ",\"symbols\":" + std::to_string(c.symbols) + "}";
}

}  // namespace brenloc::storage
