// The kinds of symbol the indexer records and the languages it parses, by the names the index stores
// (the tools' argument schemas list them).
#pragma once

#include <array>
#include <string_view>

namespace brenloc {

inline constexpr std::array<std::string_view, 20> kSymbolKinds = {
    "function", "method", "class", "struct", "union", "enum", "enumerator", "interface", "trait",
    "type", "field", "variable", "constant", "macro", "namespace", "module", "constructor", "property",
    "function_declaration", "variable_declaration",
};

inline constexpr std::array<std::string_view, 9> kLanguages = {
    "python", "c", "cpp", "javascript", "typescript", "tsx", "go", "rust", "java",
};

}  // namespace brenloc
