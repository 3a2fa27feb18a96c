#include "brenloc/storage/symbol_match.h"

#include <algorithm>
#include <tuple>

namespace brenloc::storage {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_lower(char c) { return c >= 'a' && c <= 'z'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether a word of `name` starts at byte `i` (> 0).
bool word_starts_at(std::string_view name, std::size_t i) {
  const char before = name[i - 1], at = name[i];
  if (before == '_' || before == ':' || before == '.' || before == '$' || before == '-') return true;
  if (is_upper(at) && (is_lower(before) || is_digit(before))) return true;
  // The last capital of a run that a lower-case letter follows: "HTTPServer" has a word at 'S'.
  return is_upper(at) && is_upper(before) && i + 1 < name.size() && is_lower(name[i + 1]);
}

// "::" and "/" as ".", folded.
std::string normalised_scope(std::string_view scope) {
  std::string out;
  out.reserve(scope.size());
  for (std::size_t i = 0; i < scope.size(); ++i) {
    if (scope.substr(i, 2) == "::") {
      out += '.';
      ++i;
    } else {
      out += scope[i] == '/' ? '.' : lower(scope[i]);
    }
  }
  return out;
}

bool scope_matches(std::string_view wanted, std::string_view scope) {
  if (wanted.empty()) return true;
  const std::string have = normalised_scope(scope);
  if (have.size() < wanted.size() || !std::string_view(have).ends_with(wanted)) return false;
  return have.size() == wanted.size() || have[have.size() - wanted.size() - 1] == '.';
}

Tier name_tier(const NamePattern& p, std::string_view name) {
  if (p.glob) return glob_match(p.folded, fold_case(name)) ? Tier::prefix : Tier::none;
  if (name == p.text) return Tier::exact_case;
  const std::string folded = fold_case(name);
  if (folded == p.folded) return Tier::exact;
  if (folded.starts_with(p.folded)) return Tier::prefix;
  Tier best = Tier::none;
  for (auto at = folded.find(p.folded, 1); at != std::string::npos; at = folded.find(p.folded, at + 1)) {
    if (word_starts_at(name, at)) return Tier::boundary;
    best = Tier::substring;
  }
  if (best != Tier::none) return best;
  if (!anchored_subsequence(p.folded, folded)) return Tier::none;
  std::string initials(1, folded[0]);
  for (std::size_t i = 1; i < name.size(); ++i) {
    if (word_starts_at(name, i)) initials += folded[i];
  }
  return anchored_subsequence(p.folded, initials) ? Tier::initials : Tier::fuzzy;
}

Tier worst_admitted(SymbolQuery::Match match) {
  switch (match) {
    case SymbolQuery::Match::exact: return Tier::exact;
    case SymbolQuery::Match::prefix: return Tier::prefix;
    case SymbolQuery::Match::substring: return Tier::substring;
    case SymbolQuery::Match::automatic:
    case SymbolQuery::Match::fuzzy: return Tier::fuzzy;
  }
  return Tier::fuzzy;
}

}  // namespace

std::string fold_case(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = lower(c);
  return out;
}

NamePattern parse_pattern(std::string_view text, SymbolQuery::Match match) {
  NamePattern p;
  p.match = match;
  std::size_t cut = std::string_view::npos, skip = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.substr(i, 2) == "::") {
      cut = i, skip = 2;
      ++i;
    } else if (text[i] == '.' || text[i] == '/') {
      cut = i, skip = 1;
    }
  }
  if (cut != std::string_view::npos) {
    p.scope = normalised_scope(text.substr(0, cut));
    text = text.substr(cut + skip);
  }
  p.text = std::string(text);
  p.folded = fold_case(text);
  p.glob = p.text.find_first_of("*?") != std::string::npos;
  return p;
}

Tier match_tier(const NamePattern& p, std::string_view name, std::string_view scope) {
  if (!scope_matches(p.scope, scope)) return Tier::none;
  const Tier tier = name_tier(p, name);
  return tier <= worst_admitted(p.match) ? tier : Tier::none;
}

int kind_class(std::string_view kind) {
  static constexpr std::string_view kTypesAndFunctions[] = {"class", "struct",   "union",  "enum",   "interface",
                                                           "trait", "type",     "function", "method", "constructor"};
  static constexpr std::string_view kValues[] = {"variable", "constant", "macro"};
  if (std::ranges::find(kTypesAndFunctions, kind) != std::end(kTypesAndFunctions)) return 0;
  if (std::ranges::find(kValues, kind) != std::end(kValues)) return 2;
  return 1;
}

bool ranks_before(const SymbolHit& a, const SymbolHit& b) {
  auto key = [](const SymbolHit& h) {
    return std::tuple(h.tier, kind_class(h.kind), h.name.size(), std::string_view(h.path), h.line, h.column,
                      std::string_view(h.name), std::string_view(h.kind));
  };
  return key(a) < key(b);
}

bool glob_match(std::string_view pattern, std::string_view text) {
  // Greedy with one backtracking point: the last "*" seen.
  std::size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p, ++t;
    } else if (p < pattern.size() && pattern[p] == '*') {
      star = p++, resume = t;
    } else if (star != std::string_view::npos) {
      p = star + 1, t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool anchored_subsequence(std::string_view text, std::string_view name) {
  if (text.empty()) return true;
  if (name.empty() || name[0] != text[0]) return false;
  std::size_t t = 1;
  for (std::size_t i = 1; i < name.size() && t < text.size(); ++i) t += name[i] == text[t];
  return t == text.size();
}

}  // namespace brenloc::storage
