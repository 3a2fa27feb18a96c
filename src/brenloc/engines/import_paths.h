// Which files of the tree an include or import may name, by the rules of its language: a quoted include
// beside the including file or under an include directory, a Python module by its dotted path (relative
// ones from the importing package), a relative JavaScript or TypeScript module with its extensions and
// index files, a Go package by its directory, a Rust module by `mod` or `use` path, a Java class or package.
// Paths are relative to the repository root, '/'-separated.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brenloc::engines {

// Whether `target` (as written, see uses.h), in the file `importer` of `language`, may name `file`.
bool imports_file(std::string_view language, std::string_view importer, std::string_view target, std::string_view file);

// The stems (storage::import_stem) under which the imports of `file` are found: its name without
// extension and its directory's name (a package, an index file).
std::vector<std::string> stems_of_file(std::string_view file);

// Whether `target` names the module `module` as the user writes it (quotes and brackets aside).
bool names_module(std::string_view target, std::string_view module);

}  // namespace brenloc::engines
