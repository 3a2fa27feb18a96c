#include "brenloc/engines/content_language.h"

#include <array>
#include <string>
#include <vector>

namespace brenloc::engines {
namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }
bool is_word_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string_view trim(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
  return s;
}

bool starts_with_word(std::string_view line, std::string_view word) {
  return line.starts_with(word) && (line.size() == word.size() || !is_word_char(line[word.size()]));
}

// Lines that only C++ starts so (after leading white space). A keyword followed by a space must be
// followed by a name, as C++ has it: C may use these words as names (`class = 3;`), and C23 has
// `constexpr`.
constexpr std::array<std::string_view, 15> kCppLineStarts = {
    "namespace ", "namespace{", "template<", "template <", "class ", "public:", "private:", "protected:",
    "using namespace ", "extern \"C++\"", "virtual ", "explicit ", "friend ", "inline namespace ",
    "typename "};

bool starts_as_cpp(std::string_view line) {
  for (std::string_view start : kCppLineStarts) {
    if (!line.starts_with(start)) continue;
    if (start.back() != ' ') return true;
    const std::string_view rest = trim(line.substr(start.size()));
    return !rest.empty() && (is_word_char(rest[0]) || rest[0] == '~' || rest[0] == ':');
  }
  return false;
}

// `#include <vector>`: a standard header without extension is a C++ one.
bool includes_cpp_header(std::string_view directive) {
  directive = trim(directive.substr(1));
  if (!starts_with_word(directive, "include")) return false;
  directive = trim(directive.substr(7));
  if (directive.size() < 3 || directive[0] != '<') return false;
  const std::size_t close = directive.find('>');
  if (close == std::string_view::npos) return false;
  const std::string_view name = directive.substr(1, close - 1);
  for (char c : name) {
    if (!(c >= 'a' && c <= 'z') && c != '_') return false;
  }
  return !name.empty();
}

// The sections of `#if` groups, as a preprocessor line opens, switches and closes them: whether the
// section a line lies in is compiled only for C++ (under `#ifdef __cplusplus` and its kin, or the `#else`
// of `#ifndef __cplusplus`).
class CplusplusSections {
 public:
  void directive(std::string_view line) {
    std::string_view d = trim(line.substr(1));
    std::size_t n = 0;
    while (n < d.size() && is_word_char(d[n])) ++n;
    const std::string_view word = d.substr(0, n);
    const std::string_view condition = d.substr(n);
    const bool names_it = condition.find("__cplusplus") != std::string_view::npos;
    const bool negated = names_it && (word == "ifndef" || condition.find('!') != std::string_view::npos);
    if (word == "if" || word == "ifdef" || word == "ifndef") {
      groups_.push_back({names_it && !negated, names_it && negated});
    } else if (groups_.empty()) {
      return;
    } else if (word == "elif") {
      groups_.back().now = names_it && !negated;
    } else if (word == "else") {
      groups_.back().now = groups_.back().otherwise;
    } else if (word == "endif") {
      groups_.pop_back();
    }
  }
  bool inside() const {
    for (const Group& g : groups_) {
      if (g.now) return true;
    }
    return false;
  }

 private:
  struct Group {
    bool now;        // the current section is C++ only
    bool otherwise;  // the `#else` section is
  };
  std::vector<Group> groups_;
};

// The language that an editor's mode name stands for.
std::optional<std::string_view> language_of_mode(std::string_view mode) {
  std::string m;
  for (char c : mode) m.push_back(lower(c));
  if (m == "c++" || m == "cpp") return "cpp";
  if (m == "c") return "c";
  if (m == "python" || m == "python3") return "python";
  if (m == "js" || m == "javascript" || m == "js2") return "javascript";
  if (m == "typescript") return "typescript";
  if (m == "go") return "go";
  if (m == "rust") return "rust";
  if (m == "java") return "java";
  return std::nullopt;
}

// `-*- C++ -*-`, `-*- mode: c++; indent-tabs-mode: nil -*-`.
std::optional<std::string_view> emacs_mode(std::string_view line) {
  const std::size_t open = line.find("-*-");
  if (open == std::string_view::npos) return std::nullopt;
  const std::size_t close = line.find("-*-", open + 3);
  if (close == std::string_view::npos) return std::nullopt;
  const std::string_view inside = trim(line.substr(open + 3, close - open - 3));
  if (inside.find(':') == std::string_view::npos) return language_of_mode(inside);
  for (std::size_t pos = 0; pos <= inside.size();) {
    std::size_t end = inside.find(';', pos);
    if (end == std::string_view::npos) end = inside.size();
    const std::string_view item = trim(inside.substr(pos, end - pos));
    const std::size_t colon = item.find(':');
    if (colon != std::string_view::npos) {
      std::string key;
      for (char c : trim(item.substr(0, colon))) key.push_back(lower(c));
      if (key == "mode") return language_of_mode(trim(item.substr(colon + 1)));
    }
    pos = end + 1;
  }
  return std::nullopt;
}

// `vim: ft=cpp`, `vi: set filetype=c:`, `vim: set ts=4 ft=python :`.
std::optional<std::string_view> vim_mode(std::string_view line) {
  std::size_t at = std::string_view::npos;
  for (std::string_view tag : {"vim:", "vi:", "ex:"}) {
    const std::size_t p = line.find(tag);
    if (p != std::string_view::npos && (p == 0 || is_blank(line[p - 1]) || line[p - 1] == '/' || line[p - 1] == '*' ||
                                        line[p - 1] == '#')) {
      at = p + tag.size();
      break;
    }
  }
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view rest = line.substr(at);
  for (std::string_view key : {"filetype=", "ft="}) {
    for (std::size_t p = rest.find(key); p != std::string_view::npos; p = rest.find(key, p + 1)) {
      if (p > 0 && is_word_char(rest[p - 1])) continue;
      std::size_t end = p + key.size();
      while (end < rest.size() && (is_word_char(rest[end]) || rest[end] == '+')) ++end;
      return language_of_mode(rest.substr(p + key.size(), end - p - key.size()));
    }
  }
  return std::nullopt;
}

// `#!/usr/bin/env python3`, `#!/usr/bin/env -S node --flag`, `#!/usr/local/bin/python3.12 -u`.
std::optional<std::string_view> interpreter(std::string_view line) {
  if (!line.starts_with("#!")) return std::nullopt;
  std::vector<std::string_view> words;
  for (std::size_t pos = 2; pos < line.size();) {
    while (pos < line.size() && is_blank(line[pos])) ++pos;
    std::size_t end = pos;
    while (end < line.size() && !is_blank(line[end])) ++end;
    if (end > pos) words.push_back(line.substr(pos, end - pos));
    pos = end;
  }
  std::size_t i = 0;
  auto base = [](std::string_view w) { return w.substr(w.rfind('/') + 1); };
  if (i < words.size() && base(words[i]) == "env") {
    ++i;
    while (i < words.size() && (words[i].starts_with('-') || words[i].find('=') != std::string_view::npos)) ++i;
  }
  if (i >= words.size()) return std::nullopt;
  const std::string_view program = base(words[i]);
  if (program.starts_with("python")) {
    const std::string_view version = program.substr(6);
    for (char c : version) {
      if (!((c >= '0' && c <= '9') || c == '.')) return std::nullopt;
    }
    return "python";
  }
  if (program == "node" || program == "nodejs") return "javascript";
  return std::nullopt;
}

}  // namespace

CppMarks cpp_marks(std::string_view src) {
  CppMarks found = CppMarks::none;
  CplusplusSections sections;
  bool in_comment = false;
  bool continued = false;  // the line continues a directive
  std::size_t pos = 0;
  while (pos < src.size()) {
    std::size_t eol = src.find('\n', pos);
    if (eol == std::string_view::npos) eol = src.size();
    std::string_view line = src.substr(pos, eol - pos);
    pos = eol + 1;
    if (in_comment) {
      const std::size_t close = line.find("*/");
      if (close == std::string_view::npos) continue;
      line.remove_prefix(close + 2);
      in_comment = false;
    }
    const bool was_continued = continued;
    continued = !line.empty() && (line.back() == '\\' || (line.size() > 1 && line.back() == '\r' && line[line.size() - 2] == '\\'));
    // A block comment opened on this line and left open.
    if (const std::size_t open = line.rfind("/*");
        open != std::string_view::npos && line.find("*/", open + 2) == std::string_view::npos) {
      in_comment = true;
      line = line.substr(0, open);
    }
    if (was_continued) continue;
    line = trim(line);
    if (line.empty()) continue;
    if (line[0] == '#') {
      sections.directive(line);
      if (includes_cpp_header(line) && !sections.inside()) return CppMarks::plain;
      continue;
    }
    if (starts_as_cpp(line)) {
      if (!sections.inside()) return CppMarks::plain;
      found = CppMarks::guarded;
    }
  }
  return found;
}

std::optional<std::string_view> language_named_in(std::string_view head) {
  std::size_t pos = 0;
  for (int n = 0; n < 5 && pos < head.size(); ++n) {
    std::size_t eol = head.find('\n', pos);
    const bool whole = eol != std::string_view::npos;
    if (!whole) eol = head.size();
    const std::string_view line = head.substr(pos, eol - pos);
    pos = eol + 1;
    if (n == 0) {
      if (auto lang = interpreter(line)) return lang;
    }
    if (n == 0 || (n == 1 && head.starts_with("#!"))) {
      if (auto lang = emacs_mode(line)) return lang;
    }
    if (auto lang = vim_mode(line)) return lang;
    if (!whole) break;
  }
  return std::nullopt;
}

}  // namespace brenloc::engines
