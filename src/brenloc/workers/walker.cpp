#include "brenloc/workers/walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "brenloc/engines/content_language.h"
#include "brenloc/engines/languages.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/gitignore.h"

namespace brenloc::workers {

namespace {

std::string errno_text(int err) { return std::error_code(err, std::generic_category()).message(); }

bool vanished(int err) { return err == ENOENT || err == ENOTDIR; }

std::string join_rel(const std::string& dir, std::string_view name) {
  return dir.empty() ? std::string(name) : dir + "/" + std::string(name);
}

std::string shown(const std::string& rel) { return rel.empty() ? "." : rel; }

// What an entry that is neither a regular file nor a directory is, as a reason to leave it out.
const char* kind_name(unsigned char type) {
  switch (type) {
    case DT_LNK: return "symbolic link";
    case DT_FIFO: return "FIFO";
    case DT_SOCK: return "socket";
    case DT_CHR:
    case DT_BLK: return "device";
    default: return "not a regular file";
  }
}

// The walk works on the file system's bytes; what it hands out is in text form.
// Whether a file name has no extension (a leading dot starts none): its language may be named inside.
bool without_extension(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0;
}

// The language that the first lines of the regular file `name` under directory `dir_fd` name (an editor's
// mode line, an interpreter line); absent when they name none or the file cannot be read.
std::optional<std::string_view> language_inside(int dir_fd, const char* name) {
  const int fd = ::openat(dir_fd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  char head[engines::kLanguageHeadBytes];
  const ssize_t n = ::read(fd, head, sizeof head);
  ::close(fd);
  if (n <= 0) return std::nullopt;
  return engines::language_named_in(std::string_view(head, static_cast<std::size_t>(n)));
}

void to_text(std::string& rel) { rel = utils::path_text(rel); }
void to_text(std::vector<std::string>& rels) {
  for (auto& rel : rels) to_text(rel);
}
void to_text(std::vector<LeftOut>& left_out) {
  for (auto& l : left_out) to_text(l.path);
}
void to_text(Collected& out) {
  for (auto& c : out.files) to_text(c.rel);
  to_text(out.errors);
  to_text(out.named);
  to_text(out.drop);
  to_text(out.covered);
  to_text(out.failed_dirs);
  to_text(out.dirs);
}

class Walker {
 public:
  Walker(const WalkPolicy& policy, const std::atomic<bool>& stop, Collected& out)
      : policy_(policy), stop_(stop), out_(out), ignore_(policy.root) {
    std::filesystem::path rel = policy.data_dir.lexically_normal().lexically_relative(policy.root.lexically_normal());
    std::string r = rel.generic_string();
    if (!policy.data_dir.empty() && !r.empty() && r != "." && r.rfind("..", 0) != 0) data_rel_ = r;
    while (!data_rel_.empty() && data_rel_.back() == '/') data_rel_.pop_back();
  }

  GitIgnore& ignore() { return ignore_; }
  // Walks directories only, listing them in Collected::dirs.
  void dirs_only() { dirs_only_ = true; }

  bool is_data_dir(const std::string& rel) const { return !data_rel_.empty() && rel == data_rel_; }
  bool inside_data_dir(const std::string& rel) const { return !data_rel_.empty() && is_under(rel, data_rel_); }
  // Leaves out `rel` by policy, naming it with `reason`.
  void name_skipped(const std::string& rel, std::string reason) {
    ++out_.skipped;
    out_.named.push_back({rel, "walk", std::move(reason), false});
  }

  // Walks directory `rel` (not ignored, not skipped) with `lists`, the ignore lists of its ancestors.
  void walk_dir(const std::string& rel, std::vector<const IgnoreList*>& lists) {
    if (stop_.load(std::memory_order_relaxed)) return;
    lists.push_back(&ignore_.list_for(rel));
    if (dirs_only_) out_.dirs.push_back(rel);
    std::filesystem::path abs = rel.empty() ? policy_.root : policy_.root / rel;
    DIR* d = ::opendir(abs.c_str());
    if (d == nullptr) {
      int err = errno;
      // A directory that vanished took its files with it, but a root that cannot be opened is an
      // error: its files must keep their rows.
      if (!vanished(err) || rel.empty()) fail_dir(rel, err);
      lists.pop_back();
      return;
    }
    // A directory met before under another path (a bind mount) is walked once, where it was met first.
    if (struct stat st {}; ::fstat(::dirfd(d), &st) == 0) {
      auto [first, added] = entered_.try_emplace({st.st_dev, st.st_ino}, rel);
      if (!added && first->second != rel) {
        ::closedir(d);
        if (dirs_only_) out_.dirs.pop_back();
        name_skipped(rel, std::string(kSameDirectoryAs) + utils::path_text(shown(first->second)));
        lists.pop_back();
        return;
      }
    }
    struct Entry {
      std::string name;
      unsigned char type;
    };
    std::vector<Entry> entries;
    errno = 0;
    while (dirent* e = ::readdir(d)) {
      if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
      entries.push_back({e->d_name, e->d_type});
      errno = 0;
    }
    int read_err = errno;
    int dfd = ::dirfd(d);
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
    std::vector<std::string> subdirs;
    for (const Entry& e : entries) {
      unsigned char type = e.type;
      std::string child = join_rel(rel, e.name);
      if (type == DT_UNKNOWN) {
        struct stat st {};
        if (::fstatat(dfd, e.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
          int err = errno;
          if (!vanished(err)) out_.errors.push_back({child, "walk", errno_text(err)});
          continue;
        }
        type = IFTODT(st.st_mode);
      }
      if (type == DT_DIR) {
        if (e.name == ".git" || is_data_dir(child) ||
            decide(lists, &ignore_.exclude(), child, true) == IgnoreVerdict::ignored) {
          ++out_.skipped;
          continue;
        }
        subdirs.push_back(std::move(child));
      } else if (type == DT_REG) {
        if (e.name == ".git" || dirs_only_) continue;
        auto language = engines::language_for_path(e.name);
        if (!language && !without_extension(e.name)) continue;
        if (decide(lists, &ignore_.exclude(), child, false) == IgnoreVerdict::ignored) {
          if (language) ++out_.skipped;
          continue;
        }
        if (!language) language = language_inside(dfd, e.name.c_str());
        if (!language) continue;
        // The status lets a pass skip the file unread; one that cannot be looked at now is read.
        FileStatus status;
        struct stat st {};
        if (::fstatat(dfd, e.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) status = status_of(st);
        out_.files.push_back({std::move(child), std::string(*language), status});
      } else if (e.name == ".git" || dirs_only_ ||
                 decide(lists, &ignore_.exclude(), child, false) == IgnoreVerdict::ignored) {
        ++out_.skipped;
      } else {
        name_skipped(child, kind_name(type));  // symbolic links, FIFOs, sockets, devices
      }
    }
    ::closedir(d);
    if (read_err != 0) fail_dir(rel, read_err);
    for (const std::string& sub : subdirs) walk_dir(sub, lists);
    lists.pop_back();
  }

  // Walks directory `rel` from outside a walk: builds the ignore lists of its ancestors first.
  void walk_from(const std::string& rel) {
    std::vector<const IgnoreList*> lists;
    std::size_t pos = 0;
    if (!rel.empty()) {
      lists.push_back(&ignore_.list_for(""));
      while (true) {
        std::size_t slash = rel.find('/', pos);
        if (slash == std::string::npos) break;
        lists.push_back(&ignore_.list_for(rel.substr(0, slash)));
        pos = slash + 1;
      }
    }
    walk_dir(rel, lists);
  }

 private:
  void fail_dir(const std::string& rel, int err) {
    out_.errors.push_back({shown(rel), "walk", errno_text(err)});
    out_.failed_dirs.push_back(rel);
  }

  const WalkPolicy& policy_;
  const std::atomic<bool>& stop_;
  Collected& out_;
  GitIgnore ignore_;
  std::string data_rel_;
  bool dirs_only_ = false;
  std::map<std::pair<dev_t, ino_t>, std::string> entered_;  // directories walked: (device, inode) -> path
};

bool has_git_component(const std::string& rel) {
  std::size_t pos = 0;
  while (pos <= rel.size()) {
    std::size_t slash = rel.find('/', pos);
    if (slash == std::string::npos) slash = rel.size();
    if (rel.compare(pos, slash - pos, ".git") == 0 && slash - pos == 4) return true;
    pos = slash + 1;
  }
  return false;
}

// True when a directory on the way from the root to `rel` is a symbolic link (or is not a directory): the
// walk would never have gone through it.
bool through_link(const std::filesystem::path& root, const std::string& rel) {
  std::size_t pos = 0;
  while (true) {
    std::size_t slash = rel.find('/', pos);
    if (slash == std::string::npos) return false;
    struct stat st {};
    std::filesystem::path dir = root / rel.substr(0, slash);
    if (::lstat(dir.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) return true;
    pos = slash + 1;
  }
}

}  // namespace

bool is_under(std::string_view rel, std::string_view dir) {
  if (dir.empty()) return true;
  return rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/';
}

Collected collect_files(const WalkPolicy& policy, const std::optional<std::vector<std::filesystem::path>>& paths,
                        const std::atomic<bool>& stop) {
  Collected out;
  Walker walker(policy, stop, out);
  if (!paths) {
    out.covered.push_back("");
    walker.walk_from("");
    to_text(out);
    return out;
  }
  const std::filesystem::path root = policy.root.lexically_normal();
  std::set<std::string> seen;
  for (const std::filesystem::path& given : *paths) {
    if (stop.load(std::memory_order_relaxed)) break;
    std::filesystem::path abs = given.is_absolute() ? given : root / given;
    std::filesystem::path relp = abs.lexically_normal().lexically_relative(root);
    std::string rel = relp.generic_string();
    while (!rel.empty() && rel.back() == '/') rel.pop_back();
    if (relp.empty() || rel.rfind("..", 0) == 0) {
      out.errors.push_back({abs.string(), "walk", "outside the repository root"});
      continue;
    }
    if (rel == ".") rel.clear();
    if (!seen.insert(rel).second) continue;
    const std::string text = utils::path_text(rel);
    if (auto second = std::ranges::find_if(policy.second_paths, [&](const LeftOut& l) {
          return text == l.path || is_under(text, l.path);
        });
        second != policy.second_paths.end()) {
      // Under a second path to a directory: named as the walk named it, and nothing indexed there.
      ++out.skipped;
      out.named.push_back(*second);
      out.named.back().path = utils::path_bytes(second->path);
      out.drop.push_back(rel);
      out.covered.push_back(rel);
      continue;
    }
    if (has_git_component(rel) || walker.is_data_dir(rel) || walker.inside_data_dir(rel) ||
        through_link(root, rel)) {
      ++out.skipped;
      out.drop.push_back(rel);
      continue;
    }
    struct stat st {};
    if (::lstat(abs.c_str(), &st) != 0) {
      int err = errno;
      if (vanished(err)) {
        // Gone, with whatever was indexed under it when it was a directory.
        out.drop.push_back(rel);
        out.covered.push_back(rel);
      } else {
        out.errors.push_back({shown(rel), "walk", errno_text(err)});
      }
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      out.covered.push_back(rel);
      if (!rel.empty() && walker.ignore().ignored(rel, true)) {
        ++out.skipped;
        continue;
      }
      walker.walk_from(rel);
      continue;
    }
    auto language = engines::language_for_path(abs.filename());
    const bool ignored = walker.ignore().ignored(rel, false);
    if (!language && !ignored && S_ISREG(st.st_mode) && without_extension(abs.filename().native())) {
      language = language_inside(AT_FDCWD, abs.c_str());
    }
    if (!S_ISREG(st.st_mode) && !ignored) {
      walker.name_skipped(rel, kind_name(IFTODT(st.st_mode)));
      out.drop.push_back(rel);
      continue;
    }
    if (!S_ISREG(st.st_mode) || !language || ignored) {
      if (language) ++out.skipped;
      out.drop.push_back(rel);
      continue;
    }
    out.files.push_back({rel, std::string(*language), status_of(st)});
  }
  to_text(out);
  // A file reached both on its own and through a listed directory is indexed once.
  std::set<std::string> unique;
  std::erase_if(out.files, [&](const Candidate& c) { return !unique.insert(c.rel).second; });
  unique.clear();
  std::erase_if(out.named, [&](const LeftOut& l) { return !unique.insert(l.path).second; });
  return out;
}

std::vector<std::string> collect_dirs(const WalkPolicy& policy, const std::string& rel_text,
                                      const std::atomic<bool>& stop) {
  const std::string rel = utils::path_bytes(rel_text);
  Collected out;
  Walker walker(policy, stop, out);
  walker.dirs_only();
  if (!rel.empty()) {
    struct stat st {};
    if (has_git_component(rel) || walker.is_data_dir(rel) || walker.inside_data_dir(rel) ||
        through_link(policy.root, rel) || ::lstat((policy.root / rel).c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        walker.ignore().ignored(rel, true)) {
      return {};
    }
  }
  walker.walk_from(rel);
  to_text(out.dirs);
  return std::move(out.dirs);
}

bool looks_binary(std::string_view content) {
  return content.substr(0, 8000).find('\0') != std::string_view::npos;
}

std::string content_hash(std::string_view content) {
  XXH128_hash_t h = XXH3_128bits(content.data(), content.size());
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(32, '0');
  for (int i = 0; i < 16; ++i) {
    std::uint64_t word = i < 8 ? h.high64 : h.low64;
    unsigned byte = static_cast<unsigned>((word >> (8 * (7 - i % 8))) & 0xff);
    out[2 * i] = kHex[byte >> 4];
    out[2 * i + 1] = kHex[byte & 0xf];
  }
  return out;
}

SourceFile read_source(const std::filesystem::path& path, std::int64_t max_size) {
  SourceFile f;
  f.read_ns = wall_clock_ns();
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    int err = errno;
    if (vanished(err)) {
      f.status = SourceFile::Status::gone;
    } else if (err == ELOOP) {
      f.status = SourceFile::Status::skipped;  // became a symbolic link
      f.error = kind_name(DT_LNK);
    } else {
      f.error = errno_text(err);
    }
    return f;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    f.error = errno_text(errno);
    ::close(fd);
    return f;
  }
  if (!S_ISREG(st.st_mode) || st.st_size > max_size) {
    f.status = SourceFile::Status::skipped;
    f.error = S_ISREG(st.st_mode) ? fmt::format("larger than {} bytes", max_size) : kind_name(IFTODT(st.st_mode));
    ::close(fd);
    return f;
  }
  const FileStatus status = status_of(st);
  f.mtime_ns = status.mtime_ns;
  f.inode = status.inode;
  f.ctime_ns = status.ctime_ns;
  f.content.resize(static_cast<std::size_t>(st.st_size) + 1);
  std::size_t used = 0;
  while (true) {
    if (used == f.content.size()) {
      // Grew while being read: read on up to the limit.
      if (static_cast<std::int64_t>(used) > max_size) break;
      f.content.resize(std::min<std::size_t>(used * 2 + 4096, static_cast<std::size_t>(max_size) + 1));
    }
    ssize_t n = ::read(fd, f.content.data() + used, f.content.size() - used);
    if (n < 0) {
      if (errno == EINTR) continue;
      f.error = errno_text(errno);
      ::close(fd);
      f.content.clear();
      return f;
    }
    if (n == 0) break;
    used += static_cast<std::size_t>(n);
  }
  ::close(fd);
  f.content.resize(used);
  f.size = static_cast<std::int64_t>(used);
  if (f.size > max_size || looks_binary(f.content)) {
    f.status = SourceFile::Status::skipped;
    f.error = f.size > max_size ? fmt::format("larger than {} bytes", max_size) : "binary";
    f.content.clear();
    return f;
  }
  f.status = SourceFile::Status::ok;
  return f;
}

}  // namespace brenloc::workers
