// One symbol search on a read connection, inside the caller's read transaction.
//
// By name: the names that match come from the catalog (names that start with the text: a range; those
// that hold its letters in order: a pass over every name) and from the trigram index (names that hold
// the text), tier by tier, best first. Each name's summary prunes it against the kind, language and
// path filters before any row is read; the rows of the names that may make the page are read best
// first until no later name can, and the rest are only counted (from the summaries where they say
// enough, else from the rows) until the count passes a cap, when the search says that more matched.
// By file: every row of the files a path filter selects, when they hold few rows (or of all files while
// the name index is missing), checked one by one. A qualified name that matches nothing is searched
// again without its qualifier: from the rows that the first search read, when it kept them all.
#pragma once

#include <cstdint>
#include <filesystem>

#include "brenloc/storage/name_catalog.h"
#include "brenloc/storage/reader.h"
#include "brenloc/storage/records.h"

namespace brenloc::storage::detail {

// Matches counted before the search stops counting, unless the limit asks for more.
inline constexpr std::int64_t kCountCap = 500;

SymbolSearch run_symbol_search(Reader& reader, const std::filesystem::path& file, const SymbolQuery& query,
                               NameCatalogs& catalogs);

// A path filter as a directory (or file) of the index: "./src/" and "src" both mean "src"; empty when it
// selects everything.
std::string normalise_path_prefix(std::string prefix);

// The smallest string greater than every string that starts with `prefix`, or empty when there is none.
std::string prefix_upper_bound(std::string prefix);

}  // namespace brenloc::storage::detail
