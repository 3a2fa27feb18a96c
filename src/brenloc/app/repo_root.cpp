#include "brenloc/app/repo_root.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "brenloc/app/data_dir.h"

namespace brenloc::app {

namespace fs = std::filesystem;

namespace {

// A `.git` marks a work tree's top; the others mark a project of another version control system,
// which counts as a marker but is not looked for above the starting directory (git's rule only).
constexpr std::array<std::string_view, 5> kOtherMarkers = {".hg", ".svn", ".bzr", ".jj", "_darcs"};

bool holds(const fs::path& dir, std::string_view name) {
  std::error_code ec;
  return fs::exists(dir / name, ec);
}

}  // namespace

RepoRoot find_repo_root(const fs::path& start) {
  const fs::path canonical = fs::canonical(start);
  for (fs::path dir = canonical;; dir = dir.parent_path()) {
    if (holds(dir, ".git")) return {dir, true};
    if (dir == dir.parent_path()) break;
  }
  for (fs::path dir = canonical;; dir = dir.parent_path()) {
    for (std::string_view marker : kOtherMarkers) {
      if (holds(dir, marker)) return {canonical, true};
    }
    if (dir == dir.parent_path()) break;
  }
  return {canonical, false};
}

std::optional<std::string> reason_to_insist(const RepoRoot& found, std::size_t file_limit) {
  if (found.root == found.root.root_path()) {
    return std::string("it is the file system's root");
  }
  std::error_code ec;
  if (fs::equivalent(found.root, account_home(), ec)) {
    return fmt::format("{} is your home directory, not a project in it", found.root.string());
  }
  if (found.marked) return std::nullopt;
  std::size_t files = 0;
  fs::recursive_directory_iterator it(found.root, fs::directory_options::skip_permission_denied, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec) && ++files > file_limit) {
      return fmt::format("it holds more than {} files and no version control marker (.git, .hg, .svn) says it is "
                         "a project",
                         file_limit);
    }
  }
  return std::nullopt;
}

}  // namespace brenloc::app
