#include "brenloc/utils/path_guards.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace brenloc::utils {

namespace fs = std::filesystem;

namespace {

// The components of an absolute path after lexical normalisation: ".." takes away the component before
// it (and nothing at the file-system root).
std::vector<std::string_view> normalised_components(std::string_view text) {
  std::vector<std::string_view> parts;
  for (std::string_view part : path_components(text)) {
    if (part != "..") {
      parts.push_back(part);
    } else if (!parts.empty()) {
      parts.pop_back();
    }
  }
  return parts;
}

// Whether the path, taken one component at a time as written, passes through a place that is neither at
// or below the root nor on the way down to it ("/etc/../<root>/a.py", "<root>/../sibling/../<root>/a.py"),
// although it ends inside: looking at such a path would mean looking at places outside the root.
bool wanders_off(std::string_view text, const std::vector<std::string_view>& root_parts) {
  std::vector<std::string_view> place;
  for (std::string_view part : path_components(text)) {
    if (part != "..") {
      place.push_back(part);
    } else if (!place.empty()) {
      place.pop_back();
    }
    const std::size_t common = std::min(place.size(), root_parts.size());
    if (!std::equal(place.begin(), place.begin() + static_cast<std::ptrdiff_t>(common), root_parts.begin())) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::vector<std::string_view> path_components(std::string_view text) {
  std::vector<std::string_view> parts;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find('/', i);
    if (j == std::string_view::npos) j = text.size();
    std::string_view part = text.substr(i, j - i);
    i = j + 1;
    if (!part.empty() && part != ".") parts.push_back(part);
  }
  return parts;
}

bool outside_trusted_shares(const fs::path& path, const std::vector<fs::path>& roots) {
  if (!path.is_absolute()) return true;
  const auto parts = normalised_components(path.native());
  for (const auto& root : roots) {
    if (!root.is_absolute()) continue;
    const auto root_parts = normalised_components(root.native());
    if (root_parts.size() <= parts.size() && std::equal(root_parts.begin(), root_parts.end(), parts.begin()) &&
        !wanders_off(path.native(), root_parts)) {
      return false;
    }
  }
  return true;
}

void verify_no_symlinks_in_path(const fs::path& path) {
  if (path.native().find('\0') != std::string::npos) {
    throw fs::filesystem_error("Path holds a NUL byte", path, std::make_error_code(std::errc::invalid_argument));
  }
  const fs::path absolute = path.is_absolute() ? path : fs::absolute(path);
  const std::string& text = absolute.native();

  // `leading` grows one component at a time; each new component is looked at without following it.
  std::string leading;
  leading.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] == '/') {
      leading.push_back('/');
      ++i;
      continue;
    }
    std::size_t j = text.find('/', i);
    if (j == std::string::npos) j = text.size();
    const std::string_view part(text.data() + i, j - i);
    leading.append(part);
    i = j;
    if (part == ".") continue;  // the directory just looked at, once more

    struct stat st {};
    if (::lstat(leading.c_str(), &st) != 0) {
      const int err = errno;
      if (err == ENOENT || err == ENOTDIR) return;
      throw fs::filesystem_error("Cannot look at a part of the path", fs::path(leading),
                                 std::error_code(err, std::system_category()));
    }
    if (S_ISLNK(st.st_mode)) throw std::invalid_argument("Symbolic link in path: " + leading);
  }
}

}  // namespace brenloc::utils
