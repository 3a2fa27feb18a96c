// How a symbol's name matches a search, and the order of the hits.
//
// A query is parsed once into a NamePattern; name_tier() then places a name in a tier, the best reason
// it matches, or says that it does not match, and importance() checks the qualifier a query names
// against the symbol's module and scope and, with place_rank(), says how likely the symbol is the one
// meant. Names compare ignoring ASCII case. None of these allocate: searches call them on every name of
// an index.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "brenloc/storage/records.h"

namespace brenloc::storage {

// How a name holds the text. `boundary`: the text starts a word of the name (after "_", "::", "." or at
// a camelCase hump); `initials`: each letter of the text starts a word, in order ("gSB" of getStatusBar);
// `words`: the text is made of the starts of words, in order ("getbar" of getStatusBar, "pushback" of
// push_back); `fuzzy`: the text is an ordered subsequence of the name ("crt" of Cart). A glob's matches
// all go in `prefix`. Each tier holds only what no tier before it holds.
enum class Tier : int { exact_case, exact, prefix, boundary, substring, initials, words, fuzzy, none };

struct NamePattern {
  SymbolQuery::Match match = SymbolQuery::Match::automatic;
  std::string text;    // the name part as given
  std::string folded;  // the same, ASCII letters in lower case
  std::string scope;   // the scope part, folded, its separators spelt "."; empty when none was given
  bool glob = false;   // the name part holds "*" or "?"
};

// Splits "Cart.add", "Cart::add" and "Cart/add" at the last separator into scope and name.
NamePattern parse_pattern(std::string_view text, SymbolQuery::Match match);

// The tier of a name, `none` also for tiers that the pattern's match mode leaves out.
Tier name_tier(const NamePattern& pattern, std::string_view name);
// The same, except that `words` also stands for `fuzzy`: telling those two apart is the costliest test,
// which a search makes only for the names that could still reach its page.
Tier name_tier_up_to_words(const NamePattern& pattern, std::string_view name);
// Which of the two a name that name_tier_up_to_words() placed in `words` is in.
Tier words_or_fuzzy(const NamePattern& pattern, std::string_view name);
// Where a symbol lives: the module its file makes (Python: the path without ".py" and "__init__.py";
// Go and Java: the directory; Rust: the path without "src", "mod.rs", "lib.rs" and "main.rs";
// TypeScript and JavaScript: the path without the extension and "index"; none for C and C++, whose
// namespaces are in the scope), then its scope.
struct SymbolPlace {
  std::string_view path, language, scope;
};

// Whether a file of the language makes a module (see SymbolPlace).
bool makes_modules(std::string_view language);

// How a symbol ranks among the hits of one tier, lower first, as far as the query does not change it:
// in order of weight, a file or scope of tests, examples, vendored code, internals ("detail", "impl",
// "internal", "experimental", a name starting with "_"), or generated declarations (".d.ts"); a file
// outside any "src" directory; a scope outside "std" (or, but for a C API, none); a template's
// specialization or a member of one, after the template itself; a deeper scope; the kind (kind_class,
// a function defined in a C header as a declaration); C or C++ compiled only on an `#if` (a compatibility
// typedef, a fallback), after what is compiled always; a deeper path. At most kPlaceRankLimit - 1. Each
// symbol row keeps it (the `rank` column), so that the rows of a name can be read best first: a change
// here is a change of kSchemaVersion.
int place_rank(const SymbolPlace& place, std::string_view kind, bool specialization = false, bool conditional = false);
inline constexpr int kPlaceRankBits = 15, kPlaceRankLimit = 1 << kPlaceRankBits;

// How many parts of a symbol's module and scope lie past the first part that the query's qualifier
// names (its parts, in order, among theirs: "json.loads" is `loads` of json/__init__.py,
// "std::collections::HashMap" is `HashMap` of std/src/collections/hash/map.rs); 0 without a qualifier,
// -1 when they do not hold it.
int qualifier_distance(const NamePattern& pattern, const SymbolPlace& place);

// The parts of a path that a qualifier may name: its directories and its file name without extensions,
// in order, each passed to `fn` (empty ones left out).
template <class Fn>
void for_each_path_part(std::string_view path, Fn&& fn) {
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view part = path.substr(at, end - at);
    if (const std::string_view p = end == path.size() ? part.substr(0, part.find('.')) : part; !p.empty()) fn(p);
    at = end + 1;
  }
}

// Whether the parts of a path (for_each_path_part) hold the parts of a qualifier (folded, parts split by
// "."), in order.
bool path_holds_qualifier(std::string_view qualifier, std::string_view path);

// How likely a symbol is the one a query means, lower first: the qualifier's distance, then the place
// rank; -1 when the symbol is not under the qualifier.
inline int importance(int qualifier_distance, int place_rank) {
  return qualifier_distance < 0 ? -1 : std::min(qualifier_distance, 63) << kPlaceRankBits | place_rank;
}
inline int importance(const NamePattern& pattern, const SymbolPlace& place, std::string_view kind) {
  return importance(qualifier_distance(pattern, place), place_rank(place, kind));
}
// The tier of a name whose symbol is under the query's qualifier; `none` otherwise.
Tier match_tier(const NamePattern& pattern, std::string_view name, const SymbolPlace& place);

// Where a tier ranks under a match mode, best first: the tiers' order, except that `fuzzy` mode ranks
// `initials` and `words` before `substring` (an abbreviation is a better fuzzy match than text inside a
// word).
int tier_rank(Tier tier, SymbolQuery::Match match);

// Types and functions 0, namespaces, members, constructors and enumerators 1, variables and constants
// 2, declarations (of a function or variable defined elsewhere) 3, macros 4 (a macro that shares a
// function's name mostly stands in for it).
int kind_class(std::string_view kind);

// The ranking: tier rank; among exact names (the tier ranks 0 and 1) importance, more referrers, path,
// line; among the others kind class, shorter name, importance, path, line (then column, name and kind, so
// that the order is total). `referrers` gives a hit's count, and is asked only of hits
// equal in all before it (a search counts them only where they decide).
template <class Referrers>
bool ranks_before(const SymbolHit& a, const SymbolHit& b, Referrers&& referrers);

// What the referrers of a hit are, among hits equally important (in one scope depth): for a member, the
// files that use its scope's innermost name (`vector` of std::vector, whose `push_back` is then meant
// before std::deque's); at the top scope (an empty name here), the files that include or import its file
// (the public header a family's users include, before a copy that wraps it).
std::string_view referred_scope(std::string_view scope);
// The part of the ranking that a name's rows share, or that bounds from below the rows of at least this
// importance and kind class.
std::tuple<int, int, int, std::size_t> rank_head(int tier_rank, int importance, int kind_class, std::size_t name_size);

template <class Referrers>
bool ranks_before(const SymbolHit& a, const SymbolHit& b, Referrers&& referrers) {
  auto head = [](const SymbolHit& h) {
    return std::tuple(rank_head(h.tier, h.importance, kind_class(h.kind), h.name.size()), h.importance);
  };
  if (const auto ha = head(a), hb = head(b); ha != hb) return ha < hb;
  // Only among exact names: among other names the place says less, and a page of them holds many. Hits
  // of one place (one scope name, or one file at the top scope) have the same count: none is asked.
  const std::string_view place_a = referred_scope(a.scope), place_b = referred_scope(b.scope);
  const bool one_place = place_a == place_b && (!place_a.empty() || a.path == b.path);
  if (a.tier <= static_cast<int>(Tier::exact) && !one_place) {
    if (const std::int64_t ra = referrers(a), rb = referrers(b); ra != rb) return ra > rb;
  }
  auto rest = [](const SymbolHit& h) {
    return std::tuple(std::string_view(h.path), h.line, h.column, std::string_view(h.name), std::string_view(h.kind));
  };
  return rest(a) < rest(b);
}

std::string fold_case(std::string_view text);

// The characters of a text as bits (letters folded; digits, "_" and the rest share a few bits): a name
// holds a text's characters only if its bits hold the text's.
std::uint64_t char_bits(std::string_view text);

// Whether `name` holds the letters of `folded` in order, ignoring ASCII case: every tier's names do.
bool holds_in_order(std::string_view folded, std::string_view name);

// Shell-style "*" and "?" over the whole of `text` (no classes, no escapes), ignoring ASCII case.
bool glob_match(std::string_view pattern, std::string_view text);

}  // namespace brenloc::storage
