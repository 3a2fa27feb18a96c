// Definition matchers written in code for C, C++ and Python, the languages most indexed code is written
// in. At a node of the outline a matcher finds the matches of the patterns that start there, exactly as
// the language's definition query finds them (the tests hold the two to that, file by file), at a
// fraction of the query cursor's cost. Error nodes are not theirs: the query matches those.
#pragma once

#include <tree_sitter/api.h>

#include <cstdint>
#include <optional>
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

class CodeMatcher {
 public:
  // The matcher of a language ("c", "cpp", "python"), or nothing for the others.
  static std::optional<CodeMatcher> for_language(std::string_view language, const TSLanguage* grammar);

  // Appends to `out` the matches of the patterns that start at `node`, which is not an error node.
  void match(TSNode node, std::string_view source, std::vector<Captured>& out) const;

  enum class Rule : std::uint8_t;
  enum class Family : std::uint8_t { c, cpp, python };

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
  std::vector<Rule> rules_;          // by symbol: the patterns that start at such a node
  std::vector<std::uint8_t> types_;  // by symbol: the node types of the patterns' children (bits)
  TSFieldId declarator_ = 0, name_ = 0, body_ = 0, type_ = 0, left_ = 0;
};

}  // namespace brenloc::engines
