// The language of a file by what it holds, where its name says nothing or too little: a `.h` header
// that holds C++, and a file without an extension whose first lines name their language (an editor's
// mode line, an interpreter line).
#pragma once

#include <optional>
#include <string_view>

namespace brenloc::engines {

// What marks a C header as C++: nothing; C++ only inside `#ifdef __cplusplus` sections (a C header with
// C++ overloads or templates for C++ callers); or C++ outside them (a C++ header).
enum class CppMarks { none, guarded, plain };

// Looks, line by line outside block comments, for lines that start as only C++ code does (`class`,
// `namespace`, `template`, access sections, `virtual`, `extern "C++"`, ...) and for includes of the
// extensionless standard headers.
CppMarks cpp_marks(std::string_view source);

// The language named by the first lines of `head` (the start of a file): an Emacs mode line in the first
// line, or the second after an interpreter line (`-*- C++ -*-`, `-*- mode: python; -*-`), a Vim mode line
// in the first five lines (`vim: ft=cpp`, `vi: set filetype=c:`), or an interpreter line naming Python or
// Node (`#!/usr/bin/env python3`, `#!/usr/bin/node`). Absent when they name none of the indexed languages.
std::optional<std::string_view> language_named_in(std::string_view head);

// How many bytes of a file's start language_named_in needs.
inline constexpr std::size_t kLanguageHeadBytes = 1024;

}  // namespace brenloc::engines
