#include "brenloc/storage/symbol_match.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

namespace brenloc::storage {

namespace {

constexpr int kKindShift = 5;  // where place_rank() holds the kind class, below the condition and the path's depth

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

namespace {

// The parts of where a symbol lives, in order (see SymbolPlace), as views into its path and scope.
class Parts {
 public:
  explicit Parts(const SymbolPlace& at) {
    add_module(at.path, at.language);
    add_scope(at.scope);
  }
  // The parts of a path (for_each_path_part).
  explicit Parts(std::string_view path) {
    for_each_path_part(path, [this](std::string_view part) { push(part); });
  }
  std::size_t size() const { return n_; }
  std::string_view operator[](std::size_t i) const { return part_[i]; }

 private:
  void push(std::string_view part) {
    if (!part.empty() && n_ < part_.size()) part_[n_++] = part;
  }

  void add_module(std::string_view path, std::string_view language) {
    const bool python = language == "python", rust = language == "rust";
    const bool script = language == "typescript" || language == "tsx" || language == "javascript";
    if (!makes_modules(language)) return;
    const std::size_t slash = path.rfind('/');
    const std::string_view dirs = slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
    for (std::size_t at = 0; at < dirs.size();) {
      const std::size_t end = std::min(dirs.find('/', at), dirs.size());
      if (const std::string_view d = dirs.substr(at, end - at); !(rust && d == "src")) push(d);
      at = end + 1;
    }
    if (!python && !rust && !script) return;  // a Go or Java package is its directory
    std::string_view stem = path.substr(slash == std::string_view::npos ? 0 : slash + 1);
    stem = stem.substr(0, stem.find('.'));
    if ((python && stem == "__init__") || (rust && (stem == "mod" || stem == "lib" || stem == "main")) ||
        (script && stem == "index")) {
      return;
    }
    push(stem);
  }

  void add_scope(std::string_view scope) {
    std::size_t at = 0;
    for (std::size_t i = 0; i <= scope.size(); ++i) {
      const bool colons = scope.substr(i, 2) == "::";
      if (i < scope.size() && !colons && scope[i] != '.' && scope[i] != '/') continue;
      push(scope.substr(at, i - at));
      at = i + (colons ? 2 : 1);
      i += colons;
    }
  }

  std::array<std::string_view, 48> part_;
  std::size_t n_ = 0;
};

bool same_folded(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

// How many parts of `parts` lie past the first that the qualifier (folded, parts split by ".") names,
// beyond the qualifier's own: its parts are matched to the latest parts that hold them in order, which
// leaves the fewest; -1 when they do not hold them.
int qualifier_slack(std::string_view qualifier, const Parts& parts) {
  std::size_t at = parts.size();
  std::size_t wanted = 0;
  for (std::size_t end = qualifier.size(); end != std::string_view::npos;) {
    const std::size_t dot = end == 0 ? std::string_view::npos : qualifier.rfind('.', end - 1);
    const std::size_t begin = dot == std::string_view::npos ? 0 : dot + 1;
    const std::string_view want = qualifier.substr(begin, end - begin);
    ++wanted;
    while (at > 0 && !same_folded(parts[at - 1], want)) --at;
    if (at == 0) return -1;
    --at;
    end = dot;
  }
  return static_cast<int>(parts.size() - at - wanted);
}

enum class PartOf { directory, file, scope };

// Whether a directory, file or scope part marks code that a search does not mean first: tests, examples,
// vendored code, internals, generated declarations.
bool aside(std::string_view part, PartOf of) {
  static constexpr std::string_view kInternals[] = {"internal", "detail", "details", "impl", "experimental"};
  static constexpr std::string_view kAsideTrees[] = {"example", "examples", "sample",   "samples",     "demo",
                                                     "demos",   "vendor",   "vendored", "third_party", "thirdparty",
                                                     "private", "__tests__", "bench", "benchmark", "benchmarks"};
  auto listed = [](std::string_view text, const auto& list) {
    return std::ranges::any_of(list, [&](std::string_view a) { return same_folded(text, a); });
  };
  if (of == PartOf::scope) {
    const std::size_t letters = part.find_first_not_of('_');  // "__detail" is "detail"
    return letters != std::string_view::npos && listed(part.substr(letters), kInternals);
  }
  std::string_view bare = part;
  if (of == PartOf::file) {
    if (part.ends_with(".d.ts") || part.ends_with(".d.mts") || part.ends_with(".d.cts")) return true;
    // The test runners' names for a module's tests: cart.test.ts, and the behaviour-driven runners' twin.
    static constexpr std::string_view kTestInfixes[] = {".test.", ".sp" "ec."};
    for (std::string_view infix : kTestInfixes) {
      if (part.find(infix) != std::string_view::npos) return true;
    }
    bare = part.substr(0, part.find('.'));
    if (bare.starts_with("test_") || bare.ends_with("_test") || bare.ends_with("_tests") || bare == "test" ||
        bare == "tests" || bare == "conftest") {
      return true;
    }
  }
  // A leading "_" marks a private module or package ("_bootsubprocess.py"); "__init__" and its kind
  // are public.
  if (bare.size() > 1 && bare[0] == '_' && !(bare.starts_with("__") && bare.ends_with("__"))) return true;
  if (of == PartOf::directory && bare.size() >= 4 && same_folded(bare.substr(0, 4), "test")) return true;
  return listed(bare, kInternals) || listed(bare, kAsideTrees);
}

}  // namespace

bool makes_modules(std::string_view language) {
  return language == "python" || language == "rust" || language == "typescript" || language == "tsx" ||
         language == "javascript" || language == "go" || language == "java";
}

bool path_holds_qualifier(std::string_view qualifier, std::string_view path) {
  return qualifier_slack(qualifier, Parts(path)) >= 0;
}

int qualifier_distance(const NamePattern& p, const SymbolPlace& place) {
  return p.scope.empty() ? 0 : qualifier_slack(p.scope, Parts(place));
}

int place_rank(const SymbolPlace& place, std::string_view kind, bool specialization, bool conditional) {
  bool set_aside = false, in_src = false;
  int path_depth = 0;
  for (std::size_t at = 0; at <= place.path.size();) {
    const std::size_t end = std::min(place.path.find('/', at), place.path.size());
    const bool is_file = end == place.path.size();
    const std::string_view part = place.path.substr(at, end - at);
    set_aside = set_aside || aside(part, is_file ? PartOf::file : PartOf::directory);
    in_src = in_src || (!is_file && part == "src");
    path_depth += !is_file;
    at = end + 1;
  }
  const Parts scope(SymbolPlace{{}, {}, place.scope});
  for (std::size_t i = 0; i < scope.size(); ++i) set_aside = set_aside || aside(scope[i], PartOf::scope);
  const int scope_depth = static_cast<int>(scope.size());
  // In a scope that is not the standard library's; or in none, but for C, the declarations of a ".h"
  // header (a C API's prototypes, in a header that also serves C++) and the definitions of a C++ source
  // file: a C++ library's header often opens its namespace by a macro, which leaves its names at the top.
  const std::string_view extension = place.path.substr(std::min(place.path.rfind('.'), place.path.size()));
  const bool c_api = place.language == "c" ||
                     (extension == ".h" && kind_class(kind) == kind_class("function_declaration")) ||
                     (place.language == "cpp" && (extension == ".c" || extension == ".cc" || extension == ".cpp" ||
                                                  extension == ".cxx" || extension == ".C"));
  const bool elsewhere = scope_depth > 0 ? scope[0] != "std" : !c_api;
  // A function defined in a C header is an inline helper or a wrapper (a fortified `snprintf`) of the
  // function the header's family declares: it ranks as a declaration.
  const bool c_header = place.language == "c" && place.path.ends_with(".h");
  const int kind_rank = c_header && kind == "function" ? kind_class("function_declaration") : kind_class(kind);
  // 1 + 1 + 1 + 1 + 3 + 3 + 1 + 4 bits: kPlaceRankBits.
  return int{set_aside} << 14 | int{!in_src} << 13 | int{elsewhere} << 12 | int{specialization} << 11 |
         std::min(scope_depth, 7) << 8 | kind_rank << kKindShift | int{conditional} << 4 | std::min(path_depth, 15);
}

Tier match_tier(const NamePattern& p, std::string_view name, const SymbolPlace& place) {
  return qualifier_distance(p, place) >= 0 ? name_tier(p, name) : Tier::none;
}

int tier_rank(Tier tier, SymbolQuery::Match match) {
  if (match == SymbolQuery::Match::fuzzy && tier >= Tier::substring && tier <= Tier::words) {
    // substring, initials, words -> initials, words, substring
    return tier == Tier::substring ? static_cast<int>(Tier::words) : static_cast<int>(tier) - 1;
  }
  return static_cast<int>(tier);
}

int kind_class(std::string_view kind) {
  static constexpr std::string_view kTypesAndFunctions[] = {"class", "struct", "union",    "enum",  "interface",
                                                           "trait", "type",   "function", "method"};
  static constexpr std::string_view kValues[] = {"variable", "constant"};
  if (std::ranges::find(kTypesAndFunctions, kind) != std::end(kTypesAndFunctions)) return 0;
  if (std::ranges::find(kValues, kind) != std::end(kValues)) return 2;
  if (kind == "function_declaration" || kind == "variable_declaration") return 3;
  if (kind == "macro") return 4;
  return 1;
}

std::tuple<int, int, int, std::size_t> rank_head(int rank, int importance, int kind_class_of, std::size_t name_size) {
  // Exact names are all of one length: which of them is meant comes first, and the kind is part of that
  // (no importance is below that of its kind class with every other part at its best). Among the others
  // a shorter name is the closer match, and importance only orders the rows of a name and its equals in
  // length.
  constexpr int kLastExact = static_cast<int>(Tier::exact);
  return rank <= kLastExact ? std::tuple(rank, std::max(importance, kind_class_of << kKindShift), 0, name_size)
                            : std::tuple(rank, 0, kind_class_of, name_size);
}

std::string_view referred_scope(std::string_view scope) {
  const std::size_t cut = scope.find_last_of(":./");
  return cut == std::string_view::npos ? scope : scope.substr(cut + 1);
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
