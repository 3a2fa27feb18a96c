// Resolution of the paths of a reindex request against the repository root.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brenloc::daemon {

// The files to index again, and the reason why the request is refused (absent when it is not). A
// refused request always comes with an empty list.
using ReindexPathResolution = std::pair<std::vector<std::filesystem::path>, std::optional<std::string>>;

// Turns the paths of a request (each absolute or relative to `repo_root`, in the text form of
// utils/path_text.h, which a path that names its bytes plainly already is) into the files to index, in
// the order given: a requested file is taken as it is (resolved), whatever its extension; a requested
// directory is expanded (expand_directory); a path that does not exist, or is neither file nor
// directory, is skipped without a word. The first path that lies outside `repo_root`, or runs through a
// symbolic link before or after resolution, refuses the whole request with "Path outside repository"
// or "Symlinks are not allowed in paths"; nothing gathered for earlier paths is kept. `repo_root` is
// used as held, never resolved: a root that runs through a link refuses every request.
//
// A path string holding a NUL byte names nothing the file system can be asked about: it throws
// std::invalid_argument (as a failure of the request, not a refusal). Any other failure (a loop of
// symbolic links while resolving, a directory on the way that may not be searched, an error while
// reading a directory other than a permission refusal) propagates as std::filesystem::filesystem_error.
// Blocks on the file system; holds no state between calls.
ReindexPathResolution resolve_reindex_paths(const std::filesystem::path& repo_root,
                                            const std::vector<std::string>& paths_param);

// The guards of one requested path, as resolve_reindex_paths applies them: the path resolved, or the
// refusal ("Path outside repository", "Symlinks are not allowed in paths") with an empty path. It need
// not exist. Throws as resolve_reindex_paths does.
std::pair<std::filesystem::path, std::optional<std::string>> guard_requested_path(
    const std::filesystem::path& repo_root, const std::string& text);

// Resolution that does not insist on existence: the longest leading part of `path` (absolute) that
// exists is resolved through symbolic links, the rest is appended with "." and ".." normalised away
// lexically, and a trailing separator is dropped. A loop of links, or a leading part that may not be
// looked at, throws std::filesystem::filesystem_error.
std::filesystem::path resolve_non_strict(const std::filesystem::path& path);

// Appends to `out` the entries below `directory` whose names end in a listed extension, exactly as one
// recursive walk per extension would list them, walk after walk in table order:
//  - every extension of every language of the language table, in table order, repeats kept: a name that
//    matches two listed extensions (or one listed twice) comes once per match;
//  - within one extension: pre-order from `directory` itself, each directory's matches in the order the
//    file system lists them, before those of its subdirectories, visited in the same order;
//  - names match case-sensitively, hidden names included; a match that is a symbolic link is left out,
//    a match that is a directory (or anything else that is not a link) is kept;
//  - directories that are symbolic links are not entered; a directory that may not be read is skipped
//    with its subtree, silently, and so is one that vanishes during the walk.
// Each entry is `directory` joined with the entry's path below it. The tree is read once, whatever the
// number of extensions. Other file-system errors throw std::filesystem::filesystem_error.
void expand_directory(const std::filesystem::path& directory, std::vector<std::filesystem::path>& out);

// The same for an explicit, ordered list of extensions. An extension holding "*", "?" or "[" is a
// pattern, matched the way a shell matches "*" followed by it.
void expand_directory(const std::filesystem::path& directory, const std::vector<std::string_view>& extensions,
                      std::vector<std::filesystem::path>& out);

// Every extension of the language table, in table order, repeats kept.
const std::vector<std::string_view>& listed_extensions();

}  // namespace brenloc::daemon
