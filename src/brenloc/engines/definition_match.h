// One match of a definition pattern: the nodes it captured, named as the definition queries name their
// captures. Filled from a query match or by a language's matcher written in code (code_matchers.h);
// extraction turns it into a definition.
#pragma once

#include <tree_sitter/api.h>

#include <array>
#include <cstdint>
#include <string_view>

namespace brenloc::engines {

enum class Kind : std::uint8_t {
  function, method, class_, struct_, union_, enum_, enumerator, interface, trait, type, field,
  variable, constant, macro, namespace_, module, constructor, property,
  // Declared here, defined elsewhere: a function's prototype, an `extern` variable.
  function_declaration, variable_declaration,
};

inline constexpr std::array<std::string_view, 20> kind_names = {
    "function", "method", "class", "struct", "union", "enum", "enumerator", "interface", "trait",
    "type", "field", "variable", "constant", "macro", "namespace", "module", "constructor", "property",
    "function_declaration", "variable_declaration",
};

// A symbol; a scope that is no symbol itself (a Rust impl block, a typedef'd anonymous struct); or a
// nameless function, whose variables are locals.
enum class Entry : std::uint8_t { symbol, scope, local };

// Nodes not captured are null (ts_node_is_null).
struct Captured {
  Entry entry = Entry::symbol;
  Kind kind = Kind::function;  // of a symbol
  std::uint32_t pattern = 0;   // the pattern's place in its query: of two that capture one name, the first wins
  TSNode def{};                // @def.<kind>, @scope or @local: the whole definition
  TSNode name{};               // @name
  TSNode declarator{};         // @name.declarator
  TSNode qualifier{};          // @qualifier
  TSNode scope_name{};         // @scope.name
};

}  // namespace brenloc::engines
