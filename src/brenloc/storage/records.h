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
};

struct SymbolRow {
  std::string name;
  std::string kind;  // function, method, class, struct, enum, enumerator, field, macro, ...
  int line = 0;      // 1-based
  int column = 0;    // 1-based
  int end_line = 0;
  int end_column = 0;
  std::string scope;  // enclosing scope ("ns::Klass"), empty at top level
};

// One file with all its symbols, stored as a unit (replacing the file's earlier rows).
struct FileEntry {
  FileRow file;
  std::vector<SymbolRow> symbols;
};

struct SymbolQuery {
  enum class Match { exact, prefix, substring };
  std::string text;
  Match match = Match::substring;
  std::optional<std::string> kind;         // only this kind
  std::optional<std::string> path_prefix;  // only files under this relative path
  int limit = 50;
};

struct SymbolHit {
  std::string name;
  std::string kind;
  std::string path;
  int line = 0;
  int column = 0;
  int end_line = 0;
  std::string scope;
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
