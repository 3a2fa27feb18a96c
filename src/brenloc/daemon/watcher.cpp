#include "brenloc/daemon/watcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "brenloc/aio/future.h"
#include "brenloc/engines/languages.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/walker.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kDirMask = IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;
// A superset of kDirMask's events, so that a directory of the tree that also holds a followed file (or
// its watch taken again by add()) loses none; the user's directories may be symbolic links.
constexpr std::uint32_t kFileDirMask = kDirMask & ~IN_DONT_FOLLOW;

std::string join_rel(const std::string& dir, std::string_view name) {
  return dir.empty() ? std::string(name) : dir + "/" + std::string(name);
}

}  // namespace

TreeWatcher::TreeWatcher(fs::path root, std::size_t max_watches)
    : root_(std::move(root)), max_watches_(max_watches), buffer_(64 * 1024) {
  fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
  stream_ = std::make_unique<boost::asio::posix::stream_descriptor>(aio::EventLoop::current()->context(), fd_);
}

TreeWatcher::~TreeWatcher() { close(); }

void TreeWatcher::close() {
  if (!stream_) return;
  boost::system::error_code ignored;
  stream_->close(ignored);  // closes fd_; a pending wait ends with operation_aborted
  stream_.reset();
  fd_ = -1;
  dirs_.clear();
  by_dir_.clear();
  file_dirs_.clear();
}

bool TreeWatcher::add(const std::vector<std::string>& dirs) {
  if (fd_ < 0) return true;
  for (const std::string& rel : dirs) {
    if (by_dir_.contains(rel)) continue;
    if (max_watches_ != 0 && count() >= max_watches_) return false;
    const fs::path abs = utils::path_under(root_, rel);
    int wd = ::inotify_add_watch(fd_, abs.c_str(), kDirMask);
    if (wd < 0) {
      if (errno == ENOSPC) return false;
      continue;  // gone meanwhile, or no longer a directory: its parent's events tell
    }
    // The same directory reached under another name (moved meanwhile) keeps one watch, under the new name.
    if (auto it = dirs_.find(wd); it != dirs_.end()) by_dir_.erase(it->second);
    dirs_[wd] = rel;
    by_dir_[rel] = wd;
  }
  return true;
}

void TreeWatcher::forget(const std::string& rel) {
  retain(rel, {});
}

void TreeWatcher::retain(const std::string& rel, const std::vector<std::string>& keep) {
  const std::set<std::string> kept(keep.begin(), keep.end());
  for (auto it = by_dir_.lower_bound(rel); it != by_dir_.end();) {
    if (it->first != rel && !workers::is_under(it->first, rel)) {
      if (it->first > rel + "/") break;
      ++it;
      continue;
    }
    if (kept.contains(it->first)) {
      ++it;
      continue;
    }
    if (!file_dirs_.contains(it->second)) ::inotify_rm_watch(fd_, it->second);
    dirs_.erase(it->second);
    it = by_dir_.erase(it);
  }
}

void TreeWatcher::watch_files(const std::vector<fs::path>& files) {
  if (fd_ < 0) return;
  std::unordered_map<int, std::set<std::string>> followed;
  for (const fs::path& f : files) {
    // A file whose directory does not exist yet is followed by the creation of the first missing one.
    fs::path dir = f.parent_path();
    std::string name = f.filename().string();
    std::error_code ec;
    while (!fs::is_directory(dir, ec) && dir.has_relative_path()) {
      name = dir.filename().string();
      dir = dir.parent_path();
    }
    // A directory watched already keeps its watch (the same one), now with this mask.
    int wd = ::inotify_add_watch(fd_, dir.c_str(), kFileDirMask);
    if (wd >= 0) followed[wd].insert(name);
  }
  for (const auto& [wd, names] : file_dirs_) {
    if (!followed.contains(wd) && !dirs_.contains(wd)) ::inotify_rm_watch(fd_, wd);
  }
  file_dirs_ = std::move(followed);
}

std::size_t TreeWatcher::count() const {
  std::size_t n = dirs_.size();
  for (const auto& [wd, names] : file_dirs_) n += dirs_.contains(wd) ? 0 : 1;
  return n;
}

aio::Task<std::vector<TreeWatcher::Change>> TreeWatcher::next() {
  std::vector<Change> out;
  if (!stream_) throw std::runtime_error("the watcher is closed");
  auto ready = std::make_shared<aio::FutureState<void>>();
  stream_->async_wait(boost::asio::posix::stream_descriptor::wait_read,
                      [ready](const boost::system::error_code& ec) {
                        if (ec) {
                          ready->set_exception(std::make_exception_ptr(std::system_error(ec)));
                        } else {
                          ready->set_result();
                        }
                      });
  co_await aio::Future<void>(ready);
  while (fd_ >= 0) {
    ssize_t n = ::read(fd_, buffer_.data(), buffer_.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) break;
      throw std::system_error(errno, std::generic_category(), "reading inotify events");
    }
    for (ssize_t at = 0; at < n;) {
      const auto* e = reinterpret_cast<const struct inotify_event*>(buffer_.data() + at);
      take(e->wd, e->mask, e->len > 0 ? std::string(e->name) : std::string(), out);
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + e->len);
    }
  }
  co_return out;
}

void TreeWatcher::take(int wd, std::uint32_t mask, const std::string& name, std::vector<Change>& out) {
  using Kind = Change::Kind;
  if (mask & IN_Q_OVERFLOW) {
    out.push_back({Kind::overflow, ""});
    return;
  }
  if (auto f = file_dirs_.find(wd); f != file_dirs_.end()) {
    // A followed file changed, appeared or went, or the directory watched for it went.
    if (mask & IN_IGNORED) {
      file_dirs_.erase(f);
      out.push_back({Kind::all_rules, ""});
    } else if (f->second.contains(name)) {
      out.push_back({Kind::all_rules, ""});
    }
  }
  auto d = dirs_.find(wd);
  if (d == dirs_.end()) return;
  if (mask & IN_IGNORED) {
    by_dir_.erase(d->second);
    dirs_.erase(d);
    return;
  }
  if (name.empty() || name == ".git") return;  // the directory itself: its parent tells
  const std::string rel = join_rel(d->second, utils::path_text(name));
  if (mask & IN_ISDIR) {
    if (mask & (IN_CREATE | IN_MOVED_TO)) out.push_back({Kind::dir_added, rel});
    if (mask & (IN_DELETE | IN_MOVED_FROM)) out.push_back({Kind::dir_removed, rel});
    return;
  }
  if (name == ".gitignore") {
    out.push_back({Kind::rules, d->second});
    return;
  }
  // A name without an extension may be of a language that its first lines name: the pass reads them.
  const std::size_t dot = name.rfind('.');
  if (engines::language_for_path(name) || dot == std::string::npos || dot == 0) out.push_back({Kind::file, rel});
}

}  // namespace brenloc::daemon
