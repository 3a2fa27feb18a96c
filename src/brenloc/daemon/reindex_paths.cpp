#include "brenloc/daemon/reindex_paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <unordered_map>

#include "brenloc/engines/languages.h"
#include "brenloc/utils/path_guards.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;

namespace {

constexpr const char* OUTSIDE_REPOSITORY = "Path outside repository";
constexpr const char* SYMLINKS_NOT_ALLOWED = "Symlinks are not allowed in paths";

[[noreturn]] void throw_errno(const char* what, const std::string& where, int err) {
  throw fs::filesystem_error(what, fs::path(where), std::error_code(err, std::system_category()));
}

// ---------------------------------------------------------------------------------------------------
// Matching names against the listed extensions.

// Which extensions (by their place in the ordered list) a name ends in. A literal extension that holds
// a dot can only end a name whose last dot starts the same final segment, so names are looked up by
// their final segment and only the few extensions filed under it are compared; extensions without a dot
// are compared with every name, and patterns go through fnmatch.
class ExtensionMatcher {
 public:
  explicit ExtensionMatcher(const std::vector<std::string_view>& extensions)
      : extensions_(extensions.begin(), extensions.end()) {
    for (std::uint32_t k = 0; k < extensions_.size(); ++k) {
      const std::string& ext = extensions_[k];
      if (ext.find_first_of("*?[") != std::string::npos) {
        patterns_.push_back({k, "*" + ext});
      } else if (auto dot = ext.rfind('.'); dot == std::string::npos) {
        without_dot_.push_back(k);
      } else {
        by_final_segment_[std::string_view(ext).substr(dot)].push_back(k);
      }
    }
  }

  std::size_t size() const { return extensions_.size(); }

  template <class OnMatch>
  void for_each_match(std::string_view name, OnMatch&& on_match) const {
    if (auto dot = name.rfind('.'); dot != std::string_view::npos && !by_final_segment_.empty()) {
      if (auto it = by_final_segment_.find(name.substr(dot)); it != by_final_segment_.end()) {
        for (std::uint32_t k : it->second) {
          if (name.ends_with(extensions_[k])) on_match(k);
        }
      }
    }
    for (std::uint32_t k : without_dot_) {
      if (name.ends_with(extensions_[k])) on_match(k);
    }
    if (!patterns_.empty()) {
      const std::string terminated(name);
      for (const auto& [k, pattern] : patterns_) {
        if (::fnmatch(pattern.c_str(), terminated.c_str(), FNM_NOESCAPE) == 0) on_match(k);
      }
    }
  }

 private:
  struct Pattern {
    std::uint32_t index;
    std::string glob;
  };
  std::vector<std::string> extensions_;  // never resized after construction: the map's keys view into it
  std::unordered_map<std::string_view, std::vector<std::uint32_t>> by_final_segment_;
  std::vector<std::uint32_t> without_dot_;
  std::vector<Pattern> patterns_;
};

// ---------------------------------------------------------------------------------------------------
// The single traversal. One bucket per listed extension; a directory's matches go into the buckets
// before any of its subdirectories is read, so each bucket holds exactly what a walk for that extension
// alone would have listed, in the same order.

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// Errors that mean there is nothing (any more) to read at a place: it may not be read, it vanished,
// or it is no longer a directory that may be entered.
bool nothing_to_read(int err) {
  return err == EACCES || err == EPERM || err == ENOENT || err == ENOTDIR || err == ELOOP;
}

class Expansion {
 public:
  Expansion(const ExtensionMatcher& matcher, const fs::path& directory)
      : matcher_(matcher), buckets_(matcher.size()), prefix_(directory.native()) {
    if (prefix_.empty() || prefix_.back() != '/') prefix_.push_back('/');
  }

  void run(const fs::path& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      const int err = errno;
      if (nothing_to_read(err)) return;
      throw_errno("Cannot open the directory to expand", directory.native(), err);
    }
    walk(fd);
  }

  void append_to(std::vector<fs::path>& out) {
    std::size_t total = out.size();
    for (const auto& bucket : buckets_) total += bucket.size();
    out.reserve(total);
    for (auto& bucket : buckets_) {
      for (auto& entry : bucket) out.push_back(std::move(entry));
    }
  }

 private:
  // Reads the directory open on `fd` (which it takes over), files its matches, then walks its
  // subdirectories. `prefix_` is the directory's path with a trailing separator.
  void walk(int fd) {
    DirHandle dir(::fdopendir(fd));
    if (!dir) {
      const int err = errno;
      ::close(fd);
      throw_errno("Cannot read a directory", prefix_, err);
    }
    std::vector<std::string> subdirectories;
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(dir.get());
      if (entry == nullptr) {
        if (errno != 0) throw_errno("Cannot read a directory", prefix_, errno);
        break;
      }
      const std::string_view name(entry->d_name);
      if (name == "." || name == "..") continue;
      unsigned char type = entry->d_type;
      if (type == DT_UNKNOWN) {
        struct stat st {};
        if (::fstatat(::dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
          const int err = errno;
          if (nothing_to_read(err)) continue;  // vanished, or its kind may not be looked at
          throw_errno("Cannot look at a directory entry", prefix_ + std::string(name), err);
        }
        type = IFTODT(st.st_mode);
      }
      if (type != DT_LNK) {
        matcher_.for_each_match(name, [&](std::uint32_t k) { buckets_[k].emplace_back(prefix_ + std::string(name)); });
      }
      if (type == DT_DIR) subdirectories.emplace_back(name);
    }

    const std::size_t length = prefix_.size();
    for (const auto& name : subdirectories) {
      const int child = ::openat(::dirfd(dir.get()), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child < 0) {
        const int err = errno;
        if (nothing_to_read(err)) continue;
        throw_errno("Cannot open a directory", prefix_ + name, err);
      }
      prefix_.append(name).push_back('/');
      walk(child);
      prefix_.resize(length);
    }
  }

  const ExtensionMatcher& matcher_;
  std::vector<std::vector<fs::path>> buckets_;
  std::string prefix_;
};

void expand_with(const ExtensionMatcher& matcher, const fs::path& directory, std::vector<fs::path>& out) {
  Expansion expansion(matcher, directory);
  expansion.run(directory);
  expansion.append_to(out);
}

// ---------------------------------------------------------------------------------------------------
// Resolution steps.

// The path a request string names, read as the text form of a path (utils/path_text.h). Empty and "."
// components carry no meaning and are dropped, so "", "." and "./" name the directory they are relative
// to, and "a.py/" names a.py; ".." stays for the guards and the resolution to judge. A relative path is
// joined onto the root; an absolute one stands.
fs::path requested_path(const fs::path& repo_root, const std::string& request) {
  if (request.find('\0') != std::string::npos) {
    throw std::invalid_argument("Path holds a NUL byte: \"" + utils::nul_spelt(request) + "\"");
  }
  const std::string text = utils::path_bytes(request);
  const bool absolute = !text.empty() && text.front() == '/';
  std::string clean = absolute ? "/" : "";
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find('/', i);
    if (j == std::string::npos) j = text.size();
    const std::string_view part(text.data() + i, j - i);
    i = j + 1;
    if (part.empty() || part == ".") continue;
    if (!clean.empty() && clean.back() != '/') clean.push_back('/');
    clean.append(part);
  }
  if (absolute) return fs::path(std::move(clean));
  if (clean.empty()) return repo_root;
  return repo_root / clean;
}

// The link guard, with a link reported as false; every other failure of the guard passes on.
bool free_of_symlinks(const fs::path& path) {
  try {
    utils::verify_no_symlinks_in_path(path);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

bool lies_at_or_below(const fs::path& path, const fs::path& root) {
  if (path.is_absolute() != root.is_absolute()) return false;
  const auto parts = utils::path_components(path.native());
  const auto root_parts = utils::path_components(root.native());
  return root_parts.size() <= parts.size() && std::equal(root_parts.begin(), root_parts.end(), parts.begin());
}

enum class Kind { file, directory, other };

Kind kind_of(const fs::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    const int err = errno;
    if (err == ENOENT || err == ENOTDIR || err == ELOOP) return Kind::other;  // cannot be reached
    throw_errno("Cannot tell what a requested path is", path.native(), err);
  }
  if (S_ISREG(st.st_mode)) return Kind::file;
  if (S_ISDIR(st.st_mode)) return Kind::directory;
  return Kind::other;
}

}  // namespace

const std::vector<std::string_view>& listed_extensions() {
  static const std::vector<std::string_view> extensions = [] {
    std::vector<std::string_view> all;
    for (const auto& language : engines::LANGUAGE_EXTENSIONS) {
      all.insert(all.end(), language.extensions.begin(), language.extensions.end());
    }
    return all;
  }();
  return extensions;
}

void expand_directory(const fs::path& directory, std::vector<fs::path>& out) {
  static const ExtensionMatcher matcher(listed_extensions());
  expand_with(matcher, directory, out);
}

void expand_directory(const fs::path& directory, const std::vector<std::string_view>& extensions,
                      std::vector<fs::path>& out) {
  expand_with(ExtensionMatcher(extensions), directory, out);
}

fs::path resolve_non_strict(const fs::path& path) {
  fs::path resolved = fs::weakly_canonical(path);
  // A ".." after the last existing part leaves a trailing separator behind, which names nothing.
  const std::string& text = resolved.native();
  if (text.size() > 1 && text.back() == '/') {
    const auto end = text.find_last_not_of('/');
    resolved = fs::path(end == std::string::npos ? std::string("/") : text.substr(0, end + 1));
  }
  return resolved;
}

std::pair<fs::path, std::optional<std::string>> guard_requested_path(const fs::path& repo_root,
                                                                    const std::string& text) {
  auto refused = [](const char* reason) { return std::pair{fs::path(), std::optional<std::string>(reason)}; };
  fs::path path = requested_path(repo_root, text);
  if (utils::outside_trusted_shares(path, {repo_root})) return refused(OUTSIDE_REPOSITORY);
  if (!free_of_symlinks(path)) return refused(SYMLINKS_NOT_ALLOWED);
  path = resolve_non_strict(path);
  if (!free_of_symlinks(path)) return refused(SYMLINKS_NOT_ALLOWED);
  if (!lies_at_or_below(path, repo_root)) return refused(OUTSIDE_REPOSITORY);
  return {std::move(path), std::nullopt};
}

ReindexPathResolution resolve_reindex_paths(const fs::path& repo_root, const std::vector<std::string>& paths_param) {
  std::vector<fs::path> index_paths;
  for (const std::string& path_str : paths_param) {
    auto [path, refusal] = guard_requested_path(repo_root, path_str);
    if (refusal) return {std::vector<fs::path>{}, std::move(refusal)};
    switch (kind_of(path)) {
      case Kind::file:
        index_paths.push_back(std::move(path));
        break;
      case Kind::directory:
        expand_directory(path, index_paths);
        break;
      case Kind::other:
        break;
    }
  }
  return {std::move(index_paths), std::nullopt};
}

}  // namespace brenloc::daemon
