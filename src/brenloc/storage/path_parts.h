// Whether any file of the index may have a path that holds a qualifier (path_holds_qualifier of
// symbol_match.h): when none can, a search whose qualifier nothing lives under repeats as a plain search
// of the name, without reading every row of it to look for such paths.
//
// The parts of the paths (directories, file names without extensions), folded, of the files that have
// symbols are kept per read connection as hashes, and read again after any other connection's commit.
#pragma once

#include <filesystem>
#include <string_view>

namespace brenloc::storage::detail {

struct Reader;

// False only when no file with symbols has a path holding every part of `qualifier` (folded, its parts
// separated by "."); inside the caller's read transaction.
bool some_path_may_hold(Reader& reader, const std::filesystem::path& file, std::string_view qualifier);

}  // namespace brenloc::storage::detail
