#include "brenloc/engines/conditional_code.h"

#include <algorithm>

namespace brenloc::engines {
namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }
bool is_word(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }

struct OpenGroup {
  std::uint32_t begin;  // after its opening directive
  bool condition;       // its sections are conditional code
  bool top;             // not inside another group
  bool code_before;     // code came before it (at the top)
  bool alternatives = false;  // it has an `#elif` or `#else`
};

// Whether [from, to), outside a comment that `in_comment` carries across lines, holds code; a
// string's text counts as code and is not read for comments.
bool holds_code(std::string_view text, std::size_t from, std::size_t to, bool& in_comment) {
  bool code = false;
  for (std::size_t i = from; i < to; ++i) {
    const char c = text[i];
    if (in_comment) {
      if (c == '*' && i + 1 < to && text[i + 1] == '/') in_comment = false, ++i;
      continue;
    }
    if (c == '/' && i + 1 < to && text[i + 1] == '/') break;
    if (c == '/' && i + 1 < to && text[i + 1] == '*') {
      in_comment = true, ++i;
      continue;
    }
    if (is_blank(c)) continue;
    code = true;
    if (c == '"') {
      for (++i; i < to && text[i] != '"'; ++i) i += text[i] == '\\';
    }
  }
  return code;
}

// Whether a group's condition leaves its code as much compiled as the code around it: `__cplusplus` (a C
// API's `extern "C"`, a language version) or a C library's feature-test macros (glibc's `__USE_GNU`,
// `__GLIBC_USE (LIB_EXT2)`, `_POSIX_C_SOURCE`), which choose what an API shows, not alternatives to it.
bool names_no_condition(std::string_view condition) {
  for (std::string_view mark : {"__cplusplus", "__USE_", "__GLIBC_USE", "_SOURCE"}) {
    if (condition.find(mark) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace

ByteRanges conditional_code(std::string_view text) {
  ByteRanges ranges;
  std::vector<OpenGroup> open;
  bool in_comment = false;
  bool code_at_top = false;     // code came outside every group, or in an earlier top group
  bool code_after_top = false;  // code came after the last top group closed
  std::pair<std::uint32_t, std::uint32_t> last_top_range{0, 0};
  bool last_top_may_guard = false;
  for (std::size_t pos = 0; pos < text.size();) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) eol = text.size();
    std::size_t first = pos;
    while (first < eol && is_blank(text[first])) ++first;
    if (in_comment || first == eol || text[first] != '#') {
      if (holds_code(text, pos, eol, in_comment)) {
        code_at_top = true;
        if (open.empty()) code_after_top = true;
      }
      pos = eol + 1;
      continue;
    }
    // A directive and its continuation lines.
    std::size_t end = eol;
    while (end < text.size() && end > first) {
      std::size_t last = end;
      while (last > first && is_blank(text[last - 1])) --last;
      if (text[last - 1] != '\\') break;
      const std::size_t next = text.find('\n', end + 1);
      end = next == std::string_view::npos ? text.size() : next;
    }
    std::size_t w = first + 1;
    while (w < eol && is_blank(text[w])) ++w;
    std::size_t we = w;
    while (we < eol && is_word(text[we])) ++we;
    const std::string_view word = text.substr(w, we - w);
    const std::string_view rest = text.substr(we, end - we);
    const auto after = static_cast<std::uint32_t>(std::min(end + 1, text.size()));
    const auto here = static_cast<std::uint32_t>(pos);
    if (word == "if" || word == "ifdef" || word == "ifndef") {
      // A group inside one on `__cplusplus` is judged by its own condition.
      open.push_back({after, !names_no_condition(rest), open.empty(), code_at_top});
    } else if (!open.empty() && (word == "elif" || word == "else" || word == "elifdef" || word == "elifndef")) {
      open.back().alternatives = true;
    } else if (!open.empty() && word == "endif") {
      const OpenGroup g = open.back();
      open.pop_back();
      if (g.condition) ranges.emplace_back(g.begin, here);
      if (g.top) {
        last_top_may_guard = g.condition && !g.code_before && !g.alternatives;
        last_top_range = {g.begin, here};
        code_after_top = false;
      }
    }
    // Comments opened on the directive's line run on.
    holds_code(text, we, end, in_comment);
    pos = end + 1;
  }
  // The include guard: the one top group, around all of the code.
  if (last_top_may_guard && !code_after_top) {
    ranges.erase(std::find(ranges.begin(), ranges.end(), last_top_range));
  }
  std::sort(ranges.begin(), ranges.end());
  ByteRanges merged;
  for (const auto& r : ranges) {
    if (!merged.empty() && r.first <= merged.back().second) {
      merged.back().second = std::max(merged.back().second, r.second);
    } else {
      merged.push_back(r);
    }
  }
  return merged;
}

bool holds_byte(const ByteRanges& ranges, std::uint32_t at) {
  auto it = std::upper_bound(ranges.begin(), ranges.end(), at,
                             [](std::uint32_t v, const auto& r) { return v < r.first; });
  return it != ranges.begin() && at < std::prev(it)->second;
}

}  // namespace brenloc::engines
