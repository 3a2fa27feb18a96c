// The names a parsed file uses in its code, and what it includes or imports, read from the tree the
// definitions came from (one parse per file). An occurrence is an identifier leaf of the tree (so never
// inside a comment or a string), or, in C and C++, an identifier of a macro's body (which the grammar
// leaves as text) or of what was blanked before parsing. Its role comes from where the leaf stands: the function of a call, a type, a part of
// an import, the name of a definition, or other.
#pragma once

#include <tree_sitter/api.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "brenloc/engines/languages.h"
#include "brenloc/storage/name_uses.h"

namespace brenloc::engines {

struct FileUses {
  std::string names;  // packed (storage::pack_name_uses), by name
  std::vector<storage::ImportRow> imports;
};

// A definition that the file's rows of symbols hold: its name, and where that starts in the source.
struct SymbolSpot {
  std::string_view name;
  std::uint32_t offset = 0;
};

// `parsed`: the text the tree was parsed from (the source, or a copy of it with C and C++ decoration
// macros and split `#if` sections blanked, same offsets); `definitions`: the start bytes of the names of
// the file's definitions, in increasing order; `symbols`: the places of the file's rows of symbols, whose
// definitions are left out of the uses where readers can add them back (see name_uses.h). `walked`, when
// given, is called once the tree is no longer read (the caller may free it before the uses are ordered).
FileUses find_uses(const Language& lang, TSNode root, std::string_view source, std::string_view parsed,
                   std::span<const std::uint32_t> definitions, std::span<const SymbolSpot> symbols = {},
                   const std::function<void()>& walked = {});

}  // namespace brenloc::engines
