// The repositories of one MCP session: those given with `--repo` (the first is the default) and those the
// client names as its roots, each found as git finds its work tree; a name for each, and the repository
// that a tool call's `repo` argument (a name, or a path in or under a repository) stands for.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/json.h"

namespace brenloc::app {

struct SessionRepoEntry {
  std::filesystem::path root;  // canonical
  std::string name;            // the root's last component, or as many as make it unlike the others'
  bool from_roots = false;     // one of the client's roots, not a --repo
};

class SessionRepos {
 public:
  // `given`: the canonical roots of the --repo options, the default first (never empty); one given twice
  // is listed once.
  explicit SessionRepos(std::vector<std::filesystem::path> given);

  // Takes the roots of a `roots/list` result in place of the ones before: each file:// URI that names a
  // directory, walked up to its work tree's top; one that is already a repository of the session is
  // listed once.
  void set_roots(const json& result);

  // The default first, then the other --repo, then the client's roots.
  const std::vector<SessionRepoEntry>& all() const { return repos_; }

  // The repository a call's `repo` argument names: the default when it is null; a repository by its name;
  // else an absolute path at or under a repository's root (the innermost one).
  // Absent when it names none of them; ArgumentError when it is not a string.
  std::optional<SessionRepoEntry> find(const json& repo) const;

  // The refusal of a `repo` that names none of them, listing them.
  std::string refusal(const json& repo) const;

 private:
  void name_all();
  std::size_t given_ = 0;
  std::vector<SessionRepoEntry> repos_;
};

// The local path a root's URI names (file:///path, or file://localhost/path, percent escapes decoded), or
// absent for any other URI.
std::optional<std::filesystem::path> file_uri_path(std::string_view uri);

}  // namespace brenloc::app
