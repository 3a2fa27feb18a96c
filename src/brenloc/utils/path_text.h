// File names are bytes; answers are JSON text. A path is stored and answered in its text form: a path
// that is well-formed UTF-8 reads as it is, each byte that belongs to no UTF-8 character is written \xHH
// (two lower-case hex digits, 80 to ff), and a backslash is doubled only where it would otherwise read as
// the start of such an escape (before another backslash, or before "x" and two of those digits). The
// mapping is reversible, and what a client sends in the same form reaches the same file.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace brenloc::utils {

// The text form of a path's bytes: always well-formed UTF-8.
std::string path_text(std::string_view bytes);

// The bytes a text form stands for: "\\" is one backslash, \xHH (80 to ff, lower case) the byte HH, and
// anything else itself, so that text that was never escaped stands for itself.
std::string path_bytes(std::string_view text);

// The file-system path of `rel` (a '/'-separated path in text form, relative to `root`): `root` itself
// for an empty `rel`.
std::filesystem::path path_under(const std::filesystem::path& root, std::string_view rel);

// Text as an error message shows it: a NUL byte would end the message early (what() is a C string), so it
// is spelt \0.
std::string nul_spelt(std::string_view text);

}  // namespace brenloc::utils
