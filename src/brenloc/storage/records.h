// The rows of the index: files and the symbols defined in them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
  bool specialization = false;  // a C++ template's specialization, or a member of one (not stored)
};

// One file with all its symbols, stored as a unit (replacing the file's earlier rows).
struct FileEntry {
  FileRow file;
  std::vector<SymbolRow> symbols;
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

struct Counts {
  std::int64_t files = 0;
  std::int64_t symbols = 0;
};

// {"files":N,"symbols":M}, as logs show counts.
inline std::string to_string(const Counts& c) {
  return "{\"files\":" + std::to_string(c.files) + ",\"symbols\":" + std::to_string(c.symbols) + "}";
}

}  // namespace brenloc::storage
