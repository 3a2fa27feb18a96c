#include "brenloc/engines/quoted_spans.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace brenloc::engines {
namespace {

bool word_char(unsigned char c) { return std::isalnum(c) || c == '_' || c == '$' || c >= 0x80; }

// The length of a line joint (a backslash, then a newline) at `i`, else 0.
std::size_t joint(std::string_view t, std::size_t i) {
  if (t[i] != '\\') return 0;
  if (i + 1 < t.size() && t[i + 1] == '\n') return 2;
  if (i + 2 < t.size() && t[i + 1] == '\r' && t[i + 2] == '\n') return 3;
  return 0;
}

// The end of the line at `i`, through its joints.
std::size_t line_end(std::string_view t, std::size_t i) {
  while (i < t.size() && t[i] != '\n') i += std::max<std::size_t>(joint(t, i), 1);
  return i;
}

// The end of a literal opened by the quote at `i`: after its closing quote, or at its line's end.
std::size_t literal_end(std::string_view t, std::size_t i) {
  const char quote = t[i++];
  while (i < t.size() && t[i] != '\n') {
    if (t[i] == quote) return i + 1;
    i += t[i] == '\\' ? (joint(t, i) != 0 ? joint(t, i) : 2) : 1;
  }
  return std::min(i, t.size());
}

}  // namespace

std::vector<QuotedSpan> c_quoted_spans(std::string_view t) {
  std::vector<QuotedSpan> out;
  auto add = [&](std::size_t begin, std::size_t end) {
    out.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(std::min(end, t.size()))});
  };
  bool line_start = true;  // only white space (or joints) before `i` on its line
  std::size_t i = 0;
  while (i < t.size()) {
    const auto c = static_cast<unsigned char>(t[i]);
    if (c == '\n') {
      line_start = true;
      ++i;
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
      ++i;
      continue;
    }
    if (const std::size_t j = joint(t, i); j != 0) {
      i += j;
      continue;
    }
    const bool directive = line_start && c == '#';
    line_start = false;
    if (directive) {
      std::size_t k = i + 1;
      while (k < t.size() && (t[k] == ' ' || t[k] == '\t')) ++k;
      std::size_t word = k;
      while (word < t.size() && word_char(static_cast<unsigned char>(t[word]))) ++word;
      const std::string_view name = t.substr(k, word - k);
      // Their text is no code: an apostrophe there opens nothing.
      if (name == "error" || name == "warning" || name == "include" || name == "include_next" || name == "import") {
        i = line_end(t, word);
      } else {
        i = word;
      }
      continue;
    }
    if (c == '/' && i + 1 < t.size() && t[i + 1] == '/') {
      const std::size_t end = line_end(t, i);
      add(i, end);
      i = end;
    } else if (c == '/' && i + 1 < t.size() && t[i + 1] == '*') {
      const std::size_t close = t.find("*/", i + 2);
      const std::size_t end = close == std::string_view::npos ? t.size() : close + 2;
      add(i, end);
      i = end;
    } else if (c == '"' || c == '\'') {
      const std::size_t end = literal_end(t, i);
      add(i, end);
      i = end;
    } else if (std::isdigit(c) || (c == '.' && i + 1 < t.size() && std::isdigit(static_cast<unsigned char>(t[i + 1])))) {
      // A number: 1'000'000, 0x1p-3, 1.5e+10f.
      ++i;
      while (i < t.size()) {
        const auto d = static_cast<unsigned char>(t[i]);
        const auto prev = static_cast<unsigned char>(t[i - 1]);
        if (word_char(d) || d == '.' || (d == '\'' && i + 1 < t.size() && word_char(static_cast<unsigned char>(t[i + 1]))) ||
            ((d == '+' || d == '-') && (prev == 'e' || prev == 'E' || prev == 'p' || prev == 'P'))) {
          ++i;
        } else {
          break;
        }
      }
    } else if (word_char(c)) {
      const std::size_t begin = i;
      while (i < t.size() && word_char(static_cast<unsigned char>(t[i]))) ++i;
      const std::string_view word = t.substr(begin, i - begin);
      if (i < t.size() && t[i] == '"' && (word == "R" || word == "LR" || word == "uR" || word == "UR" || word == "u8R")) {
        // R"delim( ... )delim"
        const std::size_t open = t.find('(', i);
        if (open == std::string_view::npos || open - i > 17) continue;
        const std::string close = ")" + std::string(t.substr(i + 1, open - i - 1)) + "\"";
        const std::size_t found = t.find(close, open);
        const std::size_t end = found == std::string_view::npos ? t.size() : found + close.size();
        add(begin, end);
        i = end;
      }
    } else {
      ++i;
    }
  }
  return out;
}

bool in_quoted_span(const std::vector<QuotedSpan>& spans, std::uint32_t at) {
  const auto after = std::upper_bound(spans.begin(), spans.end(), at,
                                      [](std::uint32_t a, const QuotedSpan& s) { return a < s.begin; });
  return after != spans.begin() && at < std::prev(after)->end;
}

}  // namespace brenloc::engines
