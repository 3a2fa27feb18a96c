// How widely the index's files refer to a name or a file: the counts that rank equally likely hits (see
// symbol_match.h). Each is one lookup in the uses or imports tables, counted up to a cap, inside the
// caller's read transaction; a search makes them only for the hits that may make its page.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "brenloc/storage/reader.h"

namespace brenloc::storage::detail {

// Counted up to this many.
inline constexpr std::int64_t kReferrersCap = 400;

// How many files use `name` (exact case) in their code, as the files read now (fresh_uses.h).
std::int64_t files_using(Reader& reader, const std::filesystem::path& file, std::string_view name);

// How many includes or imports name the file at `path` of `language`: those under its stem (the name of
// its package for a file that stands for its directory) whose written path or module ends the file's
// (see use_counts.cpp); none for Rust, whose `use` names items.
std::int64_t files_importing(Reader& reader, const std::filesystem::path& file, std::string_view path,
                             std::string_view language);

}  // namespace brenloc::storage::detail
