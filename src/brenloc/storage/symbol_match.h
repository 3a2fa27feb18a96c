// How a symbol's name matches a search, and the order of the hits.
//
// A query is parsed once into a NamePattern; match_tier() then places a name (and its scope) in a tier,
// the first reason it matches, or says that it does not match. Names compare ignoring ASCII case.
#pragma once

#include <string>
#include <string_view>

#include "brenloc/storage/records.h"

namespace brenloc::storage {

// Best first. `boundary`: the text starts a word of the name (after "_", "::", "." or at a camelCase
// hump); `fuzzy`: the text is an ordered subsequence of the name that starts at its first character,
// `initials` when its letters all start words ("gSB" of getStatusBar). A glob's matches all go in
// `prefix`.
enum class Tier : int { exact_case, exact, prefix, boundary, substring, initials, fuzzy, none };

struct NamePattern {
  SymbolQuery::Match match = SymbolQuery::Match::automatic;
  std::string text;    // the name part as given
  std::string folded;  // the same, ASCII letters in lower case
  std::string scope;   // the scope part, folded, its separators spelt "."; empty when none was given
  bool glob = false;   // the name part holds "*" or "?"
};

// Splits "Cart.add", "Cart::add" and "Cart/add" at the last separator into scope and name.
NamePattern parse_pattern(std::string_view text, SymbolQuery::Match match);

Tier match_tier(const NamePattern& pattern, std::string_view name, std::string_view scope);

// Types and functions 0, namespaces, members and enumerators 1, variables, constants and macros 2.
int kind_class(std::string_view kind);

// The ranking: tier, kind class, shorter name, path, line, column (and name and kind, so that the order
// is total).
bool ranks_before(const SymbolHit& a, const SymbolHit& b);

std::string fold_case(std::string_view text);

// Shell-style "*" and "?" over the whole of `text` (no classes, no escapes); both already folded.
bool glob_match(std::string_view pattern, std::string_view text);

// True when `text` is an ordered subsequence of `name` starting at its first character (both folded).
bool anchored_subsequence(std::string_view text, std::string_view name);

}  // namespace brenloc::storage
