// How a symbol's name matches a search, and the order of the hits.
//
// A query is parsed once into a NamePattern; name_tier() then places a name in a tier, the best reason
// it matches, or says that it does not match, and importance() checks the qualifier a query names
// against the symbol's module and scope and says how likely the symbol is the one meant. Names compare
// ignoring ASCII case. None of these allocate: searches call them on every name of an index.
#pragma once

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

// How likely a symbol is the one a query means, lower first; -1 when the query names a qualifier that
// the symbol's module and scope do not hold (its parts, in order, among theirs: "json.loads" is `loads`
// of json/__init__.py, "std::collections::HashMap" is `HashMap` of std/src/collections/hash/map.rs).
// In order of weight: how many parts of module and scope lie past the first part the qualifier names;
// a file or scope of tests, examples, vendored code, internals ("detail", "impl", "internal",
// "experimental", a name starting with "_"), or generated declarations (".d.ts"); a file outside any
// "src" directory; a scope outside "std"; a deeper scope; a deeper path (which ranks after the kind).
int importance(const NamePattern& pattern, const SymbolPlace& place);
// The tier of a name whose symbol importance() admits; `none` otherwise.
Tier match_tier(const NamePattern& pattern, std::string_view name, const SymbolPlace& place);

// Where a tier ranks under a match mode, best first: the tiers' order, except that `fuzzy` mode ranks
// `initials` and `words` before `substring` (an abbreviation is a better fuzzy match than text inside a
// word).
int tier_rank(Tier tier, SymbolQuery::Match match);

// Types and functions 0, namespaces, members, constructors and enumerators 1, variables and constants
// 2, declarations (of a function or variable defined elsewhere) 3, macros 4 (a macro that shares a
// function's name mostly stands in for it).
int kind_class(std::string_view kind);

// The ranking: tier rank; among exact names (the tier ranks 0 and 1) importance but the path's depth,
// kind class, the path's depth, path, line;
// among the others kind class, shorter name, importance, path, line (then column, name and kind, so that
// the order is total).
bool ranks_before(const SymbolHit& a, const SymbolHit& b);
// The part of the ranking that a name's rows share, or that bounds them from below (importance 0).
std::tuple<int, int, int, std::size_t> rank_head(int tier_rank, int importance, int kind_class, std::size_t name_size);

std::string fold_case(std::string_view text);

// The characters of a text as bits (letters folded; digits, "_" and the rest share a few bits): a name
// holds a text's characters only if its bits hold the text's.
std::uint64_t char_bits(std::string_view text);

// Whether `name` holds the letters of `folded` in order, ignoring ASCII case: every tier's names do.
bool holds_in_order(std::string_view folded, std::string_view name);

// Shell-style "*" and "?" over the whole of `text` (no classes, no escapes), ignoring ASCII case.
bool glob_match(std::string_view pattern, std::string_view text);

}  // namespace brenloc::storage
