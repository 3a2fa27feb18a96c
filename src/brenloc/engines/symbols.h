// Extraction of the symbol definitions of one source file with tree-sitter.
//
// Thread-safe: each call uses a parser of its own thread. A file with syntax errors is still indexed
// from its partial parse; a parse that fails (no tree, or over the time limit) is reported as failed.
// The time limit counts the CPU time of the parsing thread, so a busy machine does not make a file late.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/storage/name_uses.h"
#include "brenloc/storage/records.h"

namespace brenloc::engines {

struct ParseResult {
  bool ok = false;            // false: the parser failed; `error` says why
  std::string error;
  bool syntax_errors = false;  // the tree has error nodes (the symbols come from the partial parse)
  // The language the file is written in: the one asked for, or "cpp" for a file given as C that holds
  // C++ outside `#ifdef __cplusplus` sections.
  std::string language;
  std::vector<storage::SymbolRow> symbols;
  // The names its code uses (each with where and how) and what it includes or imports (see uses.h).
  std::string uses;  // packed: storage::for_each_name_uses reads them
  std::vector<storage::ImportRow> imports;
};

// How definitions are found: C, C++ and Python have matchers written in code, which must find exactly what
// their definition queries find; `queries` uses the queries alone (to hold the matchers to that).
enum class Matching { fastest, queries };

// `language` is a language of LANGUAGE_EXTENSIONS.
ParseResult extract_symbols(std::string_view language, std::string_view source,
                            std::chrono::milliseconds time_limit = std::chrono::milliseconds(5000),
                            Matching matching = Matching::fastest);

// Parses only (no definition query): the floor that the indexer's speed is measured against.
bool parse_only(std::string_view language, std::string_view source);

}  // namespace brenloc::engines
