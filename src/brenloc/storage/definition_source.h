// Which definition of a file a line belongs to.
#pragma once

#include <optional>

#include "brenloc/storage/records.h"

namespace brenloc::storage {

// The innermost definition of `file` whose lines hold `line` (of two alike, the later one), as a hit.
std::optional<SymbolHit> definition_at(const FileEntry& file, int line);

}  // namespace brenloc::storage
