// The repository a command works on, found as git finds its work tree: from the starting directory up
// to the nearest directory holding `.git` (a directory, or a file as in a worktree or a submodule), else
// the starting directory itself. And the trees that are indexed only when the user insists: the file
// system's root, the account's home itself, and a large tree that no version control marks as a project.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace brenloc::app {

struct RepoRoot {
  std::filesystem::path root;  // canonical
  bool marked = false;         // a version control marker (.git, .hg, .svn, ...) is at or above `root`
};

// `start` made canonical, then walked up to its work tree's top. Throws std::filesystem::filesystem_error
// when `start` cannot be resolved.
RepoRoot find_repo_root(const std::filesystem::path& start);

// How many files an unmarked tree may hold before indexing it asks for --force.
inline constexpr std::size_t kUnmarkedTreeFiles = 50'000;

// Why indexing `found` should wait for --force, or nothing when it may go ahead. Counts at most
// `file_limit` + 1 files, so a system folder costs a bounded walk.
std::optional<std::string> reason_to_insist(const RepoRoot& found, std::size_t file_limit = kUnmarkedTreeFiles);

}  // namespace brenloc::app
