// How a symbol's name matches a search, and the order of the hits.
//
// A query is parsed once into a NamePattern; name_tier() then places a name in a tier, the best reason
// it matches, or says that it does not match, and scope_matches() checks the scope a query names. Names
// compare ignoring ASCII case. None of these allocate: searches call them on every name of an index.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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
// Whether a symbol's scope ends with the scope the pattern names (always, when it names none).
bool scope_matches(const NamePattern& pattern, std::string_view scope);
// Both: `none` unless the scope matches.
Tier match_tier(const NamePattern& pattern, std::string_view name, std::string_view scope);

// Where a tier ranks under a match mode, best first: the tiers' order, except that `fuzzy` mode ranks
// `initials` and `words` before `substring` (an abbreviation is a better fuzzy match than text inside a
// word).
int tier_rank(Tier tier, SymbolQuery::Match match);

// Types and functions 0, namespaces, members and enumerators 1, variables, constants and macros 2,
// declarations (of a function or variable defined elsewhere) 3.
int kind_class(std::string_view kind);

// The ranking: tier rank, kind class, shorter name, path, line, column (and name and kind, so that the
// order is total).
bool ranks_before(const SymbolHit& a, const SymbolHit& b);

std::string fold_case(std::string_view text);

// The characters of a text as bits (letters folded; digits, "_" and the rest share a few bits): a name
// holds a text's characters only if its bits hold the text's.
std::uint64_t char_bits(std::string_view text);

// Whether `name` holds the letters of `folded` in order, ignoring ASCII case: every tier's names do.
bool holds_in_order(std::string_view folded, std::string_view name);

// Shell-style "*" and "?" over the whole of `text` (no classes, no escapes), ignoring ASCII case.
bool glob_match(std::string_view pattern, std::string_view text);

}  // namespace brenloc::storage
