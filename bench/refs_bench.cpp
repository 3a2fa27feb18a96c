// The occurrence index on a real tree: how much of what a token scan finds it holds, and how fast the
// references and importers tools answer.
//
//   refs_bench TREE DATA_DIR [--rounds 200] [--quoted]
//
// DATA_DIR holds the index of TREE (brenloc reindex --root TREE --data-dir DATA_DIR). First, recall: every
// indexed file is scanned for identifier tokens outside comments and strings (a lexer per language family,
// no parser; keywords and a preprocessor line's directive and header left out), and the uses the index holds
// for it are compared with them: the share of the scan's tokens that the index has at the same offset, and
// the uses of the index that the scan places inside a comment or a string (there should be none; `--quoted`
// lists them all, where a few are shown otherwise). Then,
// find_references and find_importers through the tools of a worker of this process, p50 and p99 over
// rounds after one call that reads the files' pages: a name used in about 1,000 files, the name used in the
// most files (first page), a page deep into it, a role filter, and the importers of the most included file.
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/storage/name_uses.h"
#include "brenloc/tools/tool_table.h"
#include "brenloc/utils/logging.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using brenloc::json;

namespace {

// ---------------------------------------------------------------------------------------------
// The token scan

const std::unordered_set<std::string_view>& keywords(std::string_view language) {
  static const std::unordered_set<std::string_view> c = {
      "auto", "break", "case", "char", "const", "continue", "default", "do", "double", "else", "enum", "extern",
      "float", "for", "goto", "if", "inline", "int", "long", "register", "restrict", "return", "short", "signed",
      "sizeof", "static", "struct", "switch", "typedef", "union", "unsigned", "void", "volatile", "while", "_Bool",
      "bool", "true", "false", "class", "namespace", "template", "typename", "public", "private", "protected",
      "virtual", "using", "operator", "new", "delete", "this", "nullptr", "constexpr", "noexcept", "override",
      "final", "friend", "explicit", "mutable", "static_cast", "const_cast", "reinterpret_cast", "dynamic_cast",
      "try", "catch", "throw", "decltype", "typeid", "wchar_t", "char8_t", "char16_t", "char32_t", "alignas",
      "alignof", "static_assert", "thread_local", "_Atomic", "_Noreturn", "_Static_assert", "_Thread_local",
      "_Alignas", "_Alignof", "_Generic", "_Complex", "consteval", "constinit", "co_await", "co_return",
      "co_yield", "concept", "requires", "export", "module", "import", "__attribute__", "asm", "__asm__", "defined",
      "__restrict", "__inline", "__extension__", "__asm", "__volatile__", "__const", "__signed__", "__inline__",
      "__restrict__", "__typeof__", "typeof", "__alignof__", "__thread", "and", "or", "not", "xor", "bitand",
      "bitor", "compl", "and_eq", "or_eq", "xor_eq", "not_eq"};
  static const std::unordered_set<std::string_view> python = {
      "False", "None", "True", "and", "as", "assert", "async", "await", "break", "class", "continue", "def", "del",
      "elif", "else", "except", "finally", "for", "from", "global", "if", "import", "in", "is", "lambda",
      "nonlocal", "not", "or", "pass", "raise", "return", "try", "while", "with", "yield"};
  static const std::unordered_set<std::string_view> go = {
      "break", "case", "chan", "const", "continue", "default", "defer", "else", "fallthrough", "for", "func", "go",
      "goto", "if", "import", "interface", "map", "package", "range", "return", "select", "struct", "switch",
      "type", "var", "true", "false", "nil", "iota"};
  static const std::unordered_set<std::string_view> rust = {
      "as", "async", "await", "break", "const", "continue", "crate", "dyn", "else", "enum", "extern", "false", "fn",
      "for", "if", "impl", "in", "let", "loop", "match", "mod", "move", "mut", "pub", "ref", "return", "self",
      "Self", "static", "struct", "super", "trait", "true", "type", "unsafe", "use", "where", "while"};
  static const std::unordered_set<std::string_view> java = {
      "abstract", "assert", "boolean", "break", "byte", "case", "catch", "char", "class", "const", "continue",
      "default", "do", "double", "else", "enum", "extends", "final", "finally", "float", "for", "goto", "if",
      "implements", "import", "instanceof", "int", "interface", "long", "native", "new", "package", "private",
      "protected", "public", "return", "short", "static", "strictfp", "super", "switch", "synchronized", "this",
      "throw", "throws", "transient", "try", "void", "volatile", "while", "true", "false", "null", "var"};
  static const std::unordered_set<std::string_view> script = {
      "break", "case", "catch", "class", "const", "continue", "debugger", "default", "delete", "do", "else",
      "export", "extends", "finally", "for", "function", "if", "import", "in", "instanceof", "new", "return",
      "super", "switch", "this", "throw", "try", "typeof", "var", "void", "while", "with", "yield", "let",
      "static", "await", "async", "of", "true", "false", "null", "type", "interface", "enum", "implements",
      "declare", "namespace", "abstract", "readonly", "private", "protected", "public", "as", "is", "keyof",
      "infer", "any", "number", "string", "boolean", "symbol", "never", "unknown", "object", "bigint", "satisfies",
      "get", "set", "from"};
  if (language == "c" || language == "cpp") return c;
  if (language == "python") return python;
  if (language == "go") return go;
  if (language == "rust") return rust;
  if (language == "java") return java;
  return script;
}

bool name_start(unsigned char c) { return std::isalpha(c) || c == '_' || c == '$' || c >= 0x80; }
bool name_char(unsigned char c) { return std::isalnum(c) || c == '_' || c == '$' || c >= 0x80; }

struct Scan {
  std::map<std::uint32_t, std::string> names;  // offset -> identifier, outside comments and strings
  std::vector<bool> quoted;                    // by byte: inside a comment or a string
};

// A lexer of identifier tokens for the C family (C, C++, Java, JavaScript, TypeScript, Go, Rust) and Python.
class Lexer {
 public:
  Lexer(std::string_view language, std::string_view text)
      : lang_(language),
        t_(text),
        words_(keywords(language)),
        c_family_(language == "c" || language == "cpp"),
        script_(language == "javascript" || language == "typescript" || language == "tsx") {
    out_.quoted.assign(text.size(), false);
  }

  Scan run() {
    code(false);
    return std::move(out_);
  }

 private:
  void mark(std::size_t from, std::size_t to) {
    for (std::size_t k = from; k < std::min(to, t_.size()); ++k) out_.quoted[k] = true;
  }
  bool at(std::string_view s) const { return t_.substr(i_, s.size()) == s; }

  // Code until the end, or, `in_braces`, until the brace that closes the one before it.
  void code(bool in_braces) {
    int depth = 0;
    bool line_start = true;
    while (i_ < t_.size()) {
      const auto c = static_cast<unsigned char>(t_[i_]);
      if (c == '\n') {
        line_start = true;
        ++i_;
        continue;
      }
      if (c == ' ' || c == '\t' || c == '\r') {
        ++i_;
        continue;
      }
      const bool was_line_start = line_start;
      line_start = false;
      if (in_braces && c == '{') ++depth;
      if (in_braces && c == '}' && depth-- == 0) return;
      if (lang_ == "python") {
        if (c == '#') {
          skip_to_newline(true);
          continue;
        }
        if (python_string()) continue;
      } else {
        if (at("//")) {
          skip_to_newline(true);
          continue;
        }
        if (at("/*")) {
          block_comment();
          continue;
        }
        if (c_family_ && c == '#' && was_line_start) {
          directive();
          continue;
        }
        if (script_ && c == '/' && !value_ && regex()) continue;
        if (c_string()) {
          value_ = true;
          continue;
        }
      }
      value_ = c == ')' || c == ']' || name_char(c);
      if (std::isdigit(c)) {
        while (i_ < t_.size() && (name_char(static_cast<unsigned char>(t_[i_])) || t_[i_] == '.' ||
                                  ((t_[i_] == '+' || t_[i_] == '-') && (t_[i_ - 1] == 'e' || t_[i_ - 1] == 'E' ||
                                                                       t_[i_ - 1] == 'p' || t_[i_ - 1] == 'P')) ||
                                  (c_family_ && t_[i_] == '\''))) {
          ++i_;
        }
        continue;
      }
      if (name_start(c)) {
        std::size_t end = i_;
        while (end < t_.size() && name_char(static_cast<unsigned char>(t_[end]))) ++end;
        const std::string_view word = t_.substr(i_, end - i_);
        if (!words_.contains(word)) out_.names.emplace(static_cast<std::uint32_t>(i_), std::string(word));
        value_ = !words_.contains(word) || word == "this" || word == "super";
        i_ = end;
        continue;
      }
      ++i_;
    }
  }

  // A regular expression literal, /.../flags, on one line ('/' inside a [class] does not end it).
  bool regex() {
    std::size_t k = i_ + 1;
    bool in_class = false;
    for (; k < t_.size() && t_[k] != '\n'; ++k) {
      if (t_[k] == '\\') ++k;
      else if (t_[k] == '[') in_class = true;
      else if (t_[k] == ']') in_class = false;
      else if (t_[k] == '/' && !in_class) break;
    }
    if (k >= t_.size() || t_[k] != '/') return false;
    ++k;
    while (k < t_.size() && name_char(static_cast<unsigned char>(t_[k]))) ++k;
    mark(i_, k);
    i_ = k;
    value_ = true;
    return true;
  }

  void skip_to_newline(bool quoted) {
    const std::size_t from = i_;
    while (i_ < t_.size() && t_[i_] != '\n') ++i_;
    if (quoted) mark(from, i_);
  }

  void block_comment() {
    const std::size_t from = i_;
    int depth = 0;
    while (i_ < t_.size()) {
      if (at("/*") && (depth == 0 || lang_ == "rust")) {  // only Rust's comments nest: `/*/*/` is one comment in C
        ++depth;
        i_ += 2;
      } else if (at("*/")) {
        i_ += 2;
        if (--depth == 0 || lang_ != "rust") break;
      } else {
        ++i_;
      }
    }
    mark(from, i_);
  }

  // A preprocessor line: its directive is no name; an include's header, a pragma's or error's text neither.
  void directive() {
    ++i_;
    while (i_ < t_.size() && (t_[i_] == ' ' || t_[i_] == '\t')) ++i_;
    const std::size_t start = i_;
    while (i_ < t_.size() && name_char(static_cast<unsigned char>(t_[i_]))) ++i_;
    const std::string_view word = t_.substr(start, i_ - start);
    if (word == "include" || word == "include_next" || word == "import" || word == "pragma" || word == "error" ||
        word == "warning" || word == "line" || word == "ident") {
      while (i_ < t_.size() && t_[i_] != '\n') {
        if (t_[i_] == '\\' && i_ + 1 < t_.size() && t_[i_ + 1] == '\n') ++i_;
        ++i_;
      }
    }
  }

  bool c_string() {
    const auto c = static_cast<unsigned char>(t_[i_]);
    const std::size_t from = i_;
    if (c_family_ && at("R\"")) {  // a raw string: R"delim( ... )delim"
      const std::size_t open = t_.find('(', i_);
      if (open == std::string_view::npos) return false;
      const std::string close = ")" + std::string(t_.substr(i_ + 2, open - i_ - 2)) + "\"";
      const std::size_t end = t_.find(close, open);
      i_ = end == std::string_view::npos ? t_.size() : end + close.size();
      mark(from, i_);
      return true;
    }
    if (lang_ == "rust" && (at("r\"") || at("r#") || at("br\"") || at("br#"))) {
      std::size_t k = i_ + (t_[i_] == 'b' ? 2 : 1);
      std::size_t hashes = 0;
      while (k < t_.size() && t_[k] == '#') ++hashes, ++k;
      if (k >= t_.size() || t_[k] != '"') return false;
      const std::string close = "\"" + std::string(hashes, '#');
      const std::size_t end = t_.find(close, k + 1);
      i_ = end == std::string_view::npos ? t_.size() : end + close.size();
      mark(from, i_);
      return true;
    }
    if (c == '`' && lang_ == "go") {
      const std::size_t end = t_.find('`', i_ + 1);
      i_ = end == std::string_view::npos ? t_.size() : end + 1;
      mark(from, i_);
      return true;
    }
    if (c == '`' && script_) {  // a template string, whose ${...} are code (a stray backtick elsewhere)
      ++i_;
      std::size_t piece = from;
      while (i_ < t_.size() && t_[i_] != '`') {
        if (t_[i_] == '\\') {
          i_ += 2;
        } else if (at("${")) {
          mark(piece, i_);
          i_ += 2;
          code(true);
          ++i_;
          piece = i_;
        } else {
          ++i_;
        }
      }
      ++i_;
      mark(piece, i_);
      return true;
    }
    if (c == '\'' && lang_ == "rust") {  // a lifetime or label ('a), else a character
      if (i_ + 2 < t_.size() && name_start(static_cast<unsigned char>(t_[i_ + 1])) && t_[i_ + 2] != '\'') {
        ++i_;
        return true;
      }
    }
    if (c != '"' && c != '\'') return false;
    ++i_;
    while (i_ < t_.size() && static_cast<unsigned char>(t_[i_]) != c && t_[i_] != '\n') i_ += t_[i_] == '\\' ? 2 : 1;
    ++i_;
    mark(from, i_);
    return true;
  }

  bool python_string() {
    std::size_t k = i_;
    bool formatted = false;
    while (k < t_.size() && k - i_ < 2 && std::strchr("rRbBuUfF", t_[k]) != nullptr) {
      formatted |= t_[k] == 'f' || t_[k] == 'F';
      ++k;
    }
    if (k >= t_.size() || (t_[k] != '"' && t_[k] != '\'')) return false;
    if (k > i_ && i_ > 0 && name_char(static_cast<unsigned char>(t_[i_ - 1]))) return false;
    const bool raw = t_.substr(i_, k - i_).find_first_of("rR") != std::string_view::npos;
    const std::string quote = t_.substr(k, 3) == std::string(3, t_[k]) ? std::string(3, t_[k]) : std::string(1, t_[k]);
    const std::size_t from = i_;
    i_ = k + quote.size();
    std::size_t piece = from;
    while (i_ < t_.size() && !at(quote)) {
      if (t_[i_] == '\\' && !raw) {
        i_ += 2;
      } else if (quote.size() == 1 && t_[i_] == '\n') {
        break;
      } else if (formatted && at("{{")) {
        i_ += 2;
      } else if (formatted && t_[i_] == '{') {
        mark(piece, i_);
        ++i_;
        // The expression, up to its format specifier or the closing brace.
        int depth = 0;
        while (i_ < t_.size() && !(depth == 0 && (t_[i_] == '}' || t_[i_] == ':' || t_[i_] == '!'))) {
          const auto c = static_cast<unsigned char>(t_[i_]);
          if (c == '(' || c == '[' || c == '{') ++depth;
          if (c == ')' || c == ']' || c == '}') --depth;
          if (c == '\'' || c == '"') {  // a string inside: skipped
            const std::size_t end = t_.find(static_cast<char>(c), i_ + 1);
            const std::size_t s = i_;
            i_ = end == std::string_view::npos ? t_.size() : end + 1;
            mark(s, i_);
            continue;
          }
          if (name_start(c)) {
            std::size_t end = i_;
            while (end < t_.size() && name_char(static_cast<unsigned char>(t_[end]))) ++end;
            const std::string_view word = t_.substr(i_, end - i_);
            if (!words_.contains(word)) out_.names.emplace(static_cast<std::uint32_t>(i_), std::string(word));
            i_ = end;
            continue;
          }
          ++i_;
        }
        while (i_ < t_.size() && t_[i_] != '}' && !at(quote)) ++i_;
        piece = i_;
      } else {
        ++i_;
      }
    }
    i_ = std::min(t_.size(), i_ + quote.size());
    mark(piece, i_);
    return true;
  }

  std::string_view lang_;
  std::string_view t_;
  const std::unordered_set<std::string_view>& words_;
  bool c_family_, script_;
  std::size_t i_ = 0;
  // In scripts: whether the last token of code before i_ is a value (a name, a number, a string, `)` or
  // `]`): a `/` after a value divides, elsewhere it opens a regular expression.
  bool value_ = false;
  Scan out_;
};

// ---------------------------------------------------------------------------------------------
// The index's uses of a file

struct Db {
  sqlite3* db = nullptr;
  explicit Db(const fs::path& path) { sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr); }
  ~Db() { sqlite3_close_v2(db); }
};

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct FileRow {
  std::int64_t id;
  std::string path, language;
};

std::vector<FileRow> files_of(sqlite3* db) {
  std::vector<FileRow> out;
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT id, path, language FROM files ORDER BY id", -1, &st, nullptr);
  while (sqlite3_step(st) == SQLITE_ROW) {
    out.push_back({sqlite3_column_int64(st, 0), reinterpret_cast<const char*>(sqlite3_column_text(st, 1)),
                   reinterpret_cast<const char*>(sqlite3_column_text(st, 2))});
  }
  sqlite3_finalize(st);
  return out;
}

// Offset -> role of every use the index holds for a file (`text`): those coded in uses, and the
// definitions that its rows of symbols hold (of names whose blob does not code them all).
std::map<std::uint32_t, int> uses_of(sqlite3* db, std::int64_t file, std::string_view text) {
  std::map<std::uint32_t, int> out;
  std::set<std::string> coded_all;
  sqlite3_stmt* keys = nullptr;
  sqlite3_stmt* spots = nullptr;
  sqlite3_prepare_v2(db, "SELECT keys FROM file_uses WHERE file_id = ?1", -1, &keys, nullptr);
  sqlite3_prepare_v2(db, "SELECT spots FROM uses WHERE name_key = ?1 AND file_id = ?2", -1, &spots, nullptr);
  sqlite3_bind_int64(keys, 1, file);
  if (sqlite3_step(keys) == SQLITE_ROW) {
    const auto* k = static_cast<const unsigned char*>(sqlite3_column_blob(keys, 0));
    const int n = sqlite3_column_bytes(keys, 0);
    constexpr int kKey = brenloc::storage::kNameKeyBytes;
    for (int i = 0; i + kKey <= n; i += kKey) {
      const std::int64_t key = brenloc::storage::read_name_key(reinterpret_cast<const char*>(k + i));
      sqlite3_bind_int64(spots, 1, key);
      sqlite3_bind_int64(spots, 2, file);
      if (sqlite3_step(spots) == SQLITE_ROW) {
        const std::string_view blob(static_cast<const char*>(sqlite3_column_blob(spots, 0)),
                                    static_cast<std::size_t>(sqlite3_column_bytes(spots, 0)));
        for (const auto& u : brenloc::storage::decode_uses(blob)) out[u.offset] = static_cast<int>(u.role);
        if (brenloc::storage::every_definition_coded(blob)) coded_all.insert(fmt::format("{}", key));
      }
      sqlite3_reset(spots);
    }
  }
  sqlite3_finalize(keys);
  sqlite3_finalize(spots);
  sqlite3_stmt* symbols = nullptr;
  sqlite3_prepare_v2(db, "SELECT s.name, s.line, s.col FROM symbols s JOIN files f ON f.id = ?1 "
                         "WHERE s.id >= f.first_symbol AND s.id < f.first_symbol + f.symbol_count", -1, &symbols, nullptr);
  sqlite3_bind_int64(symbols, 1, file);
  const std::vector<std::uint32_t> starts = brenloc::storage::line_starts(text);
  while (sqlite3_step(symbols) == SQLITE_ROW) {
    const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(symbols, 0));
    if (!brenloc::storage::plain_name(name) || coded_all.contains(fmt::format("{}", brenloc::storage::name_key(name)))) continue;
    const std::uint32_t at = brenloc::storage::definition_offset(starts, text.size(), sqlite3_column_int(symbols, 1),
                                                                 sqlite3_column_int(symbols, 2));
    if (at != brenloc::storage::kNoOffset) out[at] = static_cast<int>(brenloc::storage::UseRole::definition);
  }
  sqlite3_finalize(symbols);
  return out;
}

void recall(const fs::path& tree, sqlite3* db, bool all_quoted) {
  struct Tally {
    std::int64_t scanned = 0, found = 0, quoted = 0, indexed = 0;
  };
  std::map<std::string, Tally> by_language;
  std::map<std::string, std::int64_t> missed_names;
  std::vector<std::string> quoted_samples;
  for (const FileRow& f : files_of(db)) {
    const std::string text = read_file(tree / f.path);
    const Scan scan = Lexer(f.language, text).run();
    const auto uses = uses_of(db, f.id, text);
    Tally& t = by_language[f.language];
    t.indexed += static_cast<std::int64_t>(uses.size());
    for (const auto& [offset, name] : scan.names) {
      ++t.scanned;
      if (uses.contains(offset)) {
        ++t.found;
      } else {
        ++missed_names[name];
      }
    }
    for (const auto& [offset, role] : uses) {
      if (offset < scan.quoted.size() && scan.quoted[offset]) {
        ++t.quoted;
        if (all_quoted || quoted_samples.size() < 8) {
          // The use's line, or 60 bytes each side of it on a long line.
          std::size_t bol = text.rfind('\n', offset) == std::string::npos ? 0 : text.rfind('\n', offset) + 1;
          bol = std::max(bol, offset > 60 ? std::size_t{offset} - 60 : std::size_t{0});
          const std::size_t eol = std::min({text.find('\n', offset), text.size(), std::size_t{offset} + 60});
          std::size_t end = offset;
          while (end < text.size() && name_char(static_cast<unsigned char>(text[end]))) ++end;
          quoted_samples.push_back(fmt::format("{}@{} {} ({}): {}", f.path, offset, text.substr(offset, end - offset),
                                               brenloc::storage::kUseRoleNames[role], text.substr(bol, eol - bol)));
        }
      }
    }
  }
  Tally all;
  std::printf("%-12s %12s %12s %9s %14s %12s\n", "language", "scan tokens", "in index", "recall", "in comment/str",
              "index uses");
  for (const auto& [language, t] : by_language) {
    std::printf("%-12s %12lld %12lld %8.2f%% %14lld %12lld\n", language.c_str(), static_cast<long long>(t.scanned),
                static_cast<long long>(t.found), 100.0 * static_cast<double>(t.found) / static_cast<double>(std::max<std::int64_t>(t.scanned, 1)),
                static_cast<long long>(t.quoted), static_cast<long long>(t.indexed));
    all.scanned += t.scanned, all.found += t.found, all.quoted += t.quoted, all.indexed += t.indexed;
  }
  std::printf("%-12s %12lld %12lld %8.2f%% %14lld %12lld\n", "all", static_cast<long long>(all.scanned),
              static_cast<long long>(all.found), 100.0 * static_cast<double>(all.found) / static_cast<double>(std::max<std::int64_t>(all.scanned, 1)),
              static_cast<long long>(all.quoted), static_cast<long long>(all.indexed));
  std::vector<std::pair<std::int64_t, std::string>> top;
  for (const auto& [name, n] : missed_names) top.emplace_back(n, name);
  std::sort(top.rbegin(), top.rend());
  std::printf("most missed:");
  for (std::size_t i = 0; i < std::min<std::size_t>(12, top.size()); ++i) std::printf(" %s (%lld)", top[i].second.c_str(), static_cast<long long>(top[i].first));
  std::printf("\n");
  for (const std::string& s : quoted_samples) std::printf("  in comment/string by the scan: %s\n", s.c_str());
}

// ---------------------------------------------------------------------------------------------
// Latency

struct Latency {
  std::vector<double> ms;
  double pct(double p) {
    std::sort(ms.begin(), ms.end());
    return ms.empty() ? 0 : ms[std::min(ms.size() - 1, static_cast<std::size_t>(p * static_cast<double>(ms.size())))];
  }
};

// The name of the use of `key` in file `file` (its first), read from the file.
std::string name_of(sqlite3* db, const fs::path& tree, std::int64_t key, std::int64_t* files) {
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT f.path, u.spots, (SELECT count(*) FROM uses WHERE name_key = ?1) FROM uses u "
                         "JOIN files f ON f.id = u.file_id WHERE u.name_key = ?1 AND u.spots <> x'06' LIMIT 1", -1, &st, nullptr);
  sqlite3_bind_int64(st, 1, key);
  std::string name;
  if (sqlite3_step(st) == SQLITE_ROW) {
    const std::string text = read_file(tree / reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
    const std::string_view blob(static_cast<const char*>(sqlite3_column_blob(st, 1)),
                                static_cast<std::size_t>(sqlite3_column_bytes(st, 1)));
    const auto uses = brenloc::storage::decode_uses(blob);
    std::size_t at = uses.at(0).offset, end = at;
    while (end < text.size() && name_char(static_cast<unsigned char>(text[end]))) ++end;
    name = text.substr(at, end - at);
    *files = sqlite3_column_int64(st, 2);
  }
  sqlite3_finalize(st);
  return name;
}

// Keys by the number of files using them: the one nearest `target` files.
std::int64_t key_near(sqlite3* db, std::int64_t target) {
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT name_key, count(*) c FROM uses GROUP BY name_key ORDER BY abs(c - ?1) LIMIT 1", -1, &st, nullptr);
  sqlite3_bind_int64(st, 1, target);
  std::int64_t key = 0;
  if (sqlite3_step(st) == SQLITE_ROW) key = sqlite3_column_int64(st, 0);
  sqlite3_finalize(st);
  return key;
}

std::string most_included(sqlite3* db) {
  sqlite3_stmt* st = nullptr;
  sqlite3_prepare_v2(db, "SELECT f.path FROM imports i JOIN files f ON f.path LIKE '%/' || i.stem || '.h' "
                         "WHERE i.stem IN (SELECT stem FROM imports GROUP BY stem ORDER BY count(*) DESC LIMIT 1) LIMIT 1",
                     -1, &st, nullptr);
  std::string path;
  if (sqlite3_step(st) == SQLITE_ROW) path = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  sqlite3_finalize(st);
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: refs_bench TREE DATA_DIR [--rounds N]\n");
    return 64;
  }
  const fs::path tree = fs::canonical(argv[1]);
  const fs::path data = argv[2];
  int rounds = 200;
  bool all_quoted = false;
  for (int i = 3; i < argc; ++i) {
    if (std::string(argv[i]) == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]);
    else if (std::string(argv[i]) == "--quoted") all_quoted = true;
  }
  brenloc::utils::set_log_level(spdlog::level::warn);
  Db db(data / "index.db");

  std::printf("== recall against a token scan (%s)\n", tree.c_str());
  const auto t0 = Clock::now();
  recall(tree, db.db, all_quoted);
  std::printf("(%.1f s)\n\n", std::chrono::duration<double>(Clock::now() - t0).count());

  std::int64_t files_1000 = 0, files_most = 0;
  const std::string name_1000 = name_of(db.db, tree, key_near(db.db, 1000), &files_1000);
  const std::string name_most = name_of(db.db, tree, key_near(db.db, 1 << 30), &files_most);
  const std::string header = most_included(db.db);
  struct Call {
    std::string label, tool;
    json args;
  };
  const std::vector<Call> calls = {
      {fmt::format("refs {} ({} files)", name_1000, files_1000), "find_references", {{"name", name_1000}}},
      {fmt::format("refs {} role=call", name_1000), "find_references", {{"name", name_1000}, {"role", "call"}}},
      {fmt::format("refs {} ({} files), first page", name_most, files_most), "find_references", {{"name", name_most}}},
      {fmt::format("refs {}, limit 1000", name_most), "find_references", {{"name", name_most}, {"limit", 1000}, {"max_bytes", 1048576}}},
      {fmt::format("importers {}", header), "find_importers", {{"path", header}}},
      {fmt::format("importers module {}", fs::path(header).filename().string()), "find_importers",
       {{"module", fs::path(header).filename().string()}}},
  };
  std::printf("== tools through a worker of this process (%d rounds)\n", rounds);
  std::printf("%-58s %9s %9s %7s\n", "call", "p50 ms", "p99 ms", "count");
  brenloc::aio::EventLoop loop;
  brenloc::daemon::RepoWorker worker(tree, data);
  brenloc::aio::run_until_complete(loop, [&]() -> brenloc::aio::Task<void> {
    co_await worker.start();
    for (const Call& c : calls) {
      Latency l;
      json last = co_await brenloc::tools::call_tool(worker, c.tool, c.args);  // the files' pages read once
      for (int r = 0; r < rounds; ++r) {
        const auto t = Clock::now();
        last = co_await brenloc::tools::call_tool(worker, c.tool, c.args);
        l.ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t).count());
      }
      std::printf("%-58s %9.2f %9.2f %7lld\n", c.label.c_str(), l.pct(0.5), l.pct(0.99),
                  static_cast<long long>(last.value("count", 0)));
    }
    co_await worker.stop();
  }());
  return 0;
}
