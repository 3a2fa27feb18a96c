// The answers of the search tools as JSON: every answer of one tool has the same keys (null where there
// is no value), and none grows past its size cap: hits (or outline entries) are cut instead, and the
// answer says so ("truncated": true). Paths are answered as stored (in text form); names, scopes and
// lines read from files that are not UTF-8 with U+FFFD in place of each stray byte.
#pragma once

#include <cstddef>
#include <string>

#include "brenloc/json.h"

#include "brenloc/storage/records.h"
#include "brenloc/storage/source_text.h"

namespace brenloc::storage {

// {"query", "match", "total", "more", "count", "truncated", "results": [{"name", "kind", "path", "line",
//  "column", "end_line", "scope", "language", "signature"}]}; the signature is the hit's line as it is
// on disk now (null when the file cannot be read). At most `max_bytes` of JSON (compact), unless even
// no hit at all would not fit.
json search_answer(const std::string& query, const std::string& match, const SymbolSearch& found,
                                     SourceFiles& sources, std::size_t max_bytes);

// {"path", "language", "total", "count", "truncated", "symbols": [{"name", "kind", "line", "end_line", "children"}]}:
// the definitions of a file as a tree. A definition is a child of the nearest one before it whose lines
// hold its line and whose name ends the scope the indexer recorded for it; the rest (a method defined
// out of its class, say) stand at the top. Entries past `max_bytes` are left out, later ones first.
json outline_answer(const FileEntry& file, std::size_t max_bytes);

}  // namespace brenloc::storage
