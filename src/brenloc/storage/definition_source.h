// The source of one definition: which definition a line of a file belongs to, and the answer of the
// symbol_source tool.
#pragma once

#include <cstdint>
#include <optional>

#include "brenloc/json.h"

#include "brenloc/storage/records.h"
#include "brenloc/storage/source_text.h"

namespace brenloc::storage {

// The innermost definition of `file` whose lines hold `line` (of two alike, the later one), as a hit.
std::optional<SymbolHit> definition_at(const FileEntry& file, int line);

// {"name", "kind", "path", "language", "line", "start_line", "end_line", "scope", "signature", "source", "truncated",
//  "other_matches"}: the definition's lines from its first (a template header or return type above the
// name included; "start_line"), at most `max_lines` of them
// ("truncated" when there were more); signature and source are null when the file cannot be read.
json source_answer(const SymbolHit& definition, SourceFiles& sources, int max_lines,
                                     std::int64_t other_matches);

}  // namespace brenloc::storage
