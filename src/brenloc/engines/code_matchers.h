// Definition matchers written in code for C, C++ and Python, the languages most indexed code is written
// in. At a node of the outline a matcher finds the matches of the patterns that start there, exactly as
// the language's definition query finds them (the tests hold the two to that, file by file), at a
// fraction of the query cursor's cost. Error nodes are not theirs: the query matches those.
#pragma once

#include <tree_sitter/api.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/engines/definition_match.h"

namespace brenloc::engines {

// Calls fn(symbol) for every regular symbol of the grammar named `type` (aliases share a name); false
// when there is none.
template <class Fn>
bool for_each_symbol_named(const TSLanguage* lang, std::string_view type, Fn&& fn) {
  bool found = false;
  const std::uint32_t n = ts_language_symbol_count(lang);
  for (std::uint32_t sym = 0; sym < n; ++sym) {
    if (ts_language_symbol_type(lang, static_cast<TSSymbol>(sym)) == TSSymbolTypeRegular &&
        type == ts_language_symbol_name(lang, static_cast<TSSymbol>(sym))) {
      fn(static_cast<TSSymbol>(sym));
      found = true;
    }
  }
  return found;
}

// Where the patterns of a definition query stand in it, found by the node type each pattern starts at
// and the capture that names its entry ("def.<kind>", "scope" or "local").
class PatternPlaces {
 public:
  void add(std::string_view root_type, std::string_view entry_capture, std::uint32_t place);
  // The place of the nth pattern (in query order) that starts at `root_type` with `entry_capture`;
  // std::logic_error when the query has no such pattern.
  std::uint32_t find(std::string_view root_type, std::string_view entry_capture, std::size_t nth = 0) const;
  // Every place that starts at `root_type`.
  std::vector<std::uint32_t> starting_at(std::string_view root_type) const;

 private:
  struct Pattern {
    std::string root_type;
    std::string entry_capture;
    std::uint32_t place;
  };
  std::vector<Pattern> patterns_;  // in query order
};

class CodeMatcher {
 public:
  // Whether `language` has a matcher ("c", "cpp", "python").
  static bool exists_for(std::string_view language);
  // The matcher of a language, or nothing for the others. The places of the patterns it stands for come
  // from `places`; a pattern of the query that starts where a rule of the matcher does, and that no rule
  // stands for, is a std::logic_error (the matcher would miss what the pattern finds).
  static std::optional<CodeMatcher> for_language(std::string_view language, const TSLanguage* grammar,
                                                 const PatternPlaces& places);

  // Appends to `out` the matches of the patterns that start at `node`, which is not an error node.
  void match(TSNode node, std::string_view source, std::vector<Captured>& out) const;

  enum class Rule : std::uint8_t;
  enum class Family : std::uint8_t { c, cpp, python };

  // The place in the query of each pattern a rule stands for (kNone: the language has no such pattern).
  static constexpr std::uint32_t kNone = ~0u;
  struct Places {
    std::uint32_t function = kNone, declaration = kNone, type = kNone, alias = kNone, class_ = kNone,
                  struct_ = kNone, union_ = kNone, enum_ = kNone, enumerator = kNone, field = kNone,
                  namespace_ = kNone, concept_ = kNone, macro = kNone, function_macro = kNone,
                  typedef_scope = kNone, lambda = kNone;
    std::uint32_t constant = kNone, variable = kNone, pattern_list = kNone, tuple_pattern = kNone;
  };

 private:
  CodeMatcher() = default;
  bool is(TSNode node, std::uint8_t type) const;
  void declarators(TSNode node, Kind kind, std::uint32_t pattern, bool typedef_scope,
                   std::vector<Captured>& out) const;
  void named_with_body(TSNode node, Kind kind, std::uint32_t pattern, std::uint8_t name_type,
                       std::uint8_t body_type, std::vector<Captured>& out) const;
  void named(TSNode node, Kind kind, std::uint32_t pattern, std::uint8_t name_type, std::vector<Captured>& out) const;
  void assignments(TSNode node, std::string_view source, std::vector<Captured>& out) const;

  Family family_ = Family::c;
  Places places_;
  std::vector<Rule> rules_;          // by symbol: the patterns that start at such a node
  std::vector<std::uint8_t> types_;  // by symbol: the node types of the patterns' children (bits)
  TSFieldId declarator_ = 0, name_ = 0, body_ = 0, type_ = 0, left_ = 0;
};

}  // namespace brenloc::engines
