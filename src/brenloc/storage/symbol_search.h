// One symbol search on a read connection, inside the caller's read transaction.
//
// The rows come one of two ways. By name: in stages, best tier first (equal names, then names that start
// with the text, then names that contain it, found through the trigram index of `names`, then names of
// which it is a subsequence), each stage through the name index, with the other filters applied in SQL;
// the search stops counting at a cap, and then says that more matched. By file: every row of the few
// files a path filter selects (or of all files while the name index is missing), filtered coarsely in
// SQL and exactly here; every match is counted.
#pragma once

#include <cstdint>
#include <filesystem>

#include "brenloc/storage/reader.h"
#include "brenloc/storage/records.h"

namespace brenloc::storage::detail {

// Matches counted by name before the search stops counting, unless the limit asks for more.
inline constexpr std::int64_t kCountCap = 500;

SymbolSearch run_symbol_search(Reader& reader, const std::filesystem::path& file, const SymbolQuery& query);

// A path filter as a directory (or file) of the index: "./src/" and "src" both mean "src"; empty when it
// selects everything.
std::string normalise_path_prefix(std::string prefix);

// The smallest string greater than every string that starts with `prefix`, or empty when there is none.
std::string prefix_upper_bound(std::string prefix);

}  // namespace brenloc::storage::detail
