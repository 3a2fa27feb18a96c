// Guards that decide whether a path handed in by a client may be touched at all: one lexical test of
// where the path points, one test of the file system for symbolic links on the way there.
#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

namespace brenloc::utils {

// The components of a '/'-separated path as written: empty and "." components (which name nothing)
// are left out, ".." is kept. The views point into `text`.
std::vector<std::string_view> path_components(std::string_view text);

// True when `path` does not lie at or below any of `roots`. The test is lexical: "." and ".." are
// normalised away in the path and in each root (".." at the file-system root stays there), empty
// components and a trailing separator are ignored, and what is left is compared component by
// component, case-sensitively. A path that, followed one component at a time as written, passes through
// a place neither at or below the root nor on the way down to it ("/etc/../<root>/a.py") is outside too,
// although it ends inside: the link guard that comes next would otherwise look at those places. Nothing
// is resolved and the file system is not touched. A relative path is always outside (its place is not
// known); a relative root contains nothing.
// (A "trusted share" is a root under which a client may name paths: the worker passes its repository root.)
bool outside_trusted_shares(const std::filesystem::path& path, const std::vector<std::filesystem::path>& roots);

// Walks `path` from the file-system root (a relative path is first made absolute against the current
// directory), looking at each leading part of it without following it, and throws std::invalid_argument,
// whose message names the link, at the first part that is a symbolic link. A part that does not exist,
// or whose parent is not a directory, ends the walk without error: nothing below it can be a link.
// Any other failure to look at a part (no permission to search a directory, a name too long) is thrown
// as std::filesystem::filesystem_error, and so is a path holding a NUL byte, which the file system
// cannot be asked about: neither is mistaken for a link.
void verify_no_symlinks_in_path(const std::filesystem::path& path);

}  // namespace brenloc::utils
