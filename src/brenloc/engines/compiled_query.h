// A language's definition query compiled for extraction: the query, what each of its captures stands for,
// its predicates, the outline it runs over and the matcher in code that stands in for it where there is
// one. Compiled once per process on first use and shared read-only by every thread (each runs it with a
// cursor of its own).
#pragma once

#include <tree_sitter/api.h>

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/engines/code_matchers.h"
#include "brenloc/engines/definition_match.h"
#include "brenloc/engines/languages.h"

namespace brenloc::engines {

// Runtimes before ABI 15 cannot limit the depth at which a query's matches start, which querying an
// outline needs: with them every language is queried over its whole tree.
#if TREE_SITTER_LANGUAGE_VERSION >= 15
inline constexpr bool outline_supported = true;
#else
inline constexpr bool outline_supported = false;
#endif

enum class Role : std::uint8_t { none, name, name_declarator, qualifier, def, scope, scope_name, local };

struct CaptureInfo {
  Role role = Role::none;
  Kind kind = Kind::function;  // for Role::def
};

struct Predicate {
  enum class Op { eq, not_eq_, match, not_match } op;
  std::uint32_t capture = 0;
  std::optional<std::uint32_t> other_capture;  // compared with this capture's text...
  std::string text;                            // ...or with this text
  std::optional<std::regex> regex;
};

struct CompiledQuery {
  TSQuery* query = nullptr;
  std::vector<CaptureInfo> captures;                // by capture id
  std::vector<std::vector<Predicate>> predicates;  // by pattern index
  std::vector<bool> outline;                        // by node symbol; empty: no outline
  std::vector<bool> starts;                         // by node symbol: a pattern starts at such a node
  std::optional<CodeMatcher> code;                  // matches what the query would, except at error nodes
};

// The compiled query of `language`. A query that does not compile, or that its matcher does not fit,
// throws std::logic_error (a fault of the query, not of any file).
const CompiledQuery& compiled_query(const Language& language);

// The text of `node` in `source` (empty when the node lies outside it).
std::string_view text_of(TSNode node, std::string_view source);

// Whether the predicates of the match's pattern hold for the text of its captures.
bool predicates_hold(const CompiledQuery& q, const TSQueryMatch& m, std::string_view source);

// What one query match captured.
Captured captured_of(const CompiledQuery& q, const TSQueryMatch& m);

}  // namespace brenloc::engines
