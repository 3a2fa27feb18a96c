#include "brenloc/storage/symbol_match.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

namespace brenloc::storage {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_lower(char c) { return c >= 'a' && c <= 'z'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Whether a word of `name` starts at byte `i`.
bool word_starts_at(std::string_view name, std::size_t i) {
  if (i == 0) return true;
  const char before = name[i - 1], at = name[i];
  if (before == '_' || before == ':' || before == '.' || before == '$' || before == '-') return at != before;
  if (is_upper(at) && (is_lower(before) || is_digit(before))) return true;
  // The last capital of a run that a lower-case letter follows: "HTTPServer" has a word at 'S'.
  return is_upper(at) && is_upper(before) && i + 1 < name.size() && is_lower(name[i + 1]);
}

// Whether `name` holds `folded` at byte `at`, ignoring ASCII case.
bool holds_at(std::string_view name, std::string_view folded, std::size_t at) {
  if (at + folded.size() > name.size()) return false;
  for (std::size_t i = 0; i < folded.size(); ++i) {
    if (lower(name[at + i]) != folded[i]) return false;
  }
  return true;
}

// Whether each letter of `folded` starts a word of `name`, in order.
bool initials(std::string_view folded, std::string_view name) {
  std::size_t t = 0;
  for (std::size_t i = 0; i < name.size() && t < folded.size(); ++i) {
    if (lower(name[i]) == folded[t] && word_starts_at(name, i)) ++t;
  }
  return t == folded.size();
}

// Whether `folded` is made of runs that each start a word of `name`, in order. For each length of the
// text matched so far, the earliest place in the name it can end at: the earliest end is never worse.
bool word_runs(std::string_view folded, std::string_view name) {
  constexpr std::size_t kFar = static_cast<std::size_t>(-1);
  std::array<std::size_t, 64> small;
  std::vector<std::size_t> large;
  std::size_t* end = small.data();
  if (folded.size() + 1 > small.size()) {
    large.resize(folded.size() + 1);
    end = large.data();
  }
  std::fill(end, end + folded.size() + 1, kFar);
  end[0] = 0;
  for (std::size_t s = 0; s < name.size(); ++s) {
    if (!word_starts_at(name, s)) continue;
    for (std::size_t done = folded.size(); done-- > 0;) {
      if (end[done] > s) continue;
      for (std::size_t k = 0; done + k < folded.size() && s + k < name.size() && lower(name[s + k]) == folded[done + k];
           ++k) {
        end[done + k + 1] = std::min(end[done + k + 1], s + k + 1);
      }
    }
    if (end[folded.size()] != kFar) return true;
  }
  return false;
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

// The tier of a name holding the text (not globbed), ignoring the match mode; `words` for `fuzzy` too
// unless `settle_words`.
Tier tier_of(const NamePattern& p, std::string_view name, bool settle_words) {
  const std::string_view q = p.folded;
  if (name.size() == q.size() && holds_at(name, q, 0)) return name == p.text ? Tier::exact_case : Tier::exact;
  if (holds_at(name, q, 0)) return Tier::prefix;
  if (q.empty()) return Tier::none;
  Tier best = Tier::none;
  for (std::size_t at = 1; at + q.size() <= name.size(); ++at) {
    if (!holds_at(name, q, at)) continue;
    if (word_starts_at(name, at)) return Tier::boundary;
    best = Tier::substring;
  }
  if (best != Tier::none) return best;
  if (!holds_in_order(q, name)) return Tier::none;
  if (initials(q, name)) return Tier::initials;
  return !settle_words || word_runs(q, name) ? Tier::words : Tier::fuzzy;
}

bool admitted(Tier tier, SymbolQuery::Match match) {
  switch (match) {
    case SymbolQuery::Match::exact: return tier <= Tier::exact;
    case SymbolQuery::Match::prefix: return tier <= Tier::prefix;
    case SymbolQuery::Match::substring: return tier <= Tier::substring;
    case SymbolQuery::Match::automatic:
    case SymbolQuery::Match::fuzzy: return tier != Tier::none;
  }
  return false;
}

}  // namespace

std::string fold_case(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = lower(c);
  return out;
}

std::uint64_t char_bits(std::string_view text) {
  std::uint64_t bits = 0;
  for (char c : text) {
    const auto u = static_cast<unsigned char>(lower(c));
    int bit = 0;
    if (u >= 'a' && u <= 'z') {
      bit = u - 'a';
    } else if (u >= '0' && u <= '9') {
      bit = 26 + (u - '0');
    } else {
      bit = 36 + u % 28;
    }
    bits |= std::uint64_t{1} << bit;
  }
  return bits;
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

Tier name_tier(const NamePattern& p, std::string_view name) {
  if (p.glob) return glob_match(p.folded, name) ? Tier::prefix : Tier::none;
  const Tier tier = tier_of(p, name, true);
  return admitted(tier, p.match) ? tier : Tier::none;
}

Tier name_tier_up_to_words(const NamePattern& p, std::string_view name) {
  if (p.glob) return glob_match(p.folded, name) ? Tier::prefix : Tier::none;
  const Tier tier = tier_of(p, name, false);
  return admitted(tier, p.match) ? tier : Tier::none;
}

Tier words_or_fuzzy(const NamePattern& p, std::string_view name) {
  return word_runs(p.folded, name) ? Tier::words : Tier::fuzzy;
}

bool scope_matches(const NamePattern& p, std::string_view scope) {
  if (p.scope.empty()) return true;
  // The scope normalised from its end, as far as the wanted one goes, without a copy.
  std::size_t i = scope.size();
  auto previous = [&] {
    if (i >= 2 && scope[i - 1] == ':' && scope[i - 2] == ':') {
      i -= 2;
      return '.';
    }
    --i;
    return scope[i] == '/' ? '.' : lower(scope[i]);
  };
  for (std::size_t w = p.scope.size(); w-- > 0;) {
    if (i == 0 || previous() != p.scope[w]) return false;
  }
  return i == 0 || previous() == '.';
}

Tier match_tier(const NamePattern& p, std::string_view name, std::string_view scope) {
  return scope_matches(p, scope) ? name_tier(p, name) : Tier::none;
}

int tier_rank(Tier tier, SymbolQuery::Match match) {
  if (match == SymbolQuery::Match::fuzzy && tier >= Tier::substring && tier <= Tier::words) {
    // substring, initials, words -> initials, words, substring
    return tier == Tier::substring ? static_cast<int>(Tier::words) : static_cast<int>(tier) - 1;
  }
  return static_cast<int>(tier);
}

int kind_class(std::string_view kind) {
  static constexpr std::string_view kTypesAndFunctions[] = {"class", "struct",   "union",  "enum",   "interface",
                                                           "trait", "type",     "function", "method", "constructor"};
  static constexpr std::string_view kValues[] = {"variable", "constant", "macro"};
  if (std::ranges::find(kTypesAndFunctions, kind) != std::end(kTypesAndFunctions)) return 0;
  if (std::ranges::find(kValues, kind) != std::end(kValues)) return 2;
  if (kind == "function_declaration" || kind == "variable_declaration") return 3;
  return 1;
}

bool ranks_before(const SymbolHit& a, const SymbolHit& b) {
  auto key = [](const SymbolHit& h) {
    return std::tuple(h.tier, kind_class(h.kind), h.name.size(), std::string_view(h.path), h.line, h.column,
                      std::string_view(h.name), std::string_view(h.kind));
  };
  return key(a) < key(b);
}

bool holds_in_order(std::string_view folded, std::string_view name) {
  // Searches each letter in both cases at once: this runs on every name of an index.
  const char* at = name.data();
  const char* const end = at + name.size();
  for (const char want : folded) {
    const char other = is_lower(want) ? static_cast<char>(want - 'a' + 'A') : want;
    while (at != end && *at != want && *at != other) ++at;
    if (at == end) return false;
    ++at;
  }
  return true;
}

bool glob_match(std::string_view pattern, std::string_view text) {
  // Greedy with one backtracking point: the last "*" seen.
  std::size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == lower(text[t]))) {
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

}  // namespace brenloc::storage
