// Helpers for tests (and the expansion benchmark) that work on real directory trees: a temporary
// directory, the plain per-extension reference walk, and a way to run a test as an unprivileged user.
#pragma once

#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace brenloc::testing {

namespace fs = std::filesystem;

// A fresh directory (under $TMPDIR unless told where), removed with everything in it.
class TempDir {
 public:
  explicit TempDir(const fs::path& base = fs::temp_directory_path()) {
    std::string pattern = (base / "brenloc-paths-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = fs::canonical(pattern);
  }
  ~TempDir() {
    open_up(path_);  // give back the permissions a test took away
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const fs::path& path() const { return path_; }

 private:
  static void open_up(const fs::path& dir) {
    ::chmod(dir.c_str(), 0700);
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
      if (it->is_directory(ec) && !it->is_symlink(ec)) open_up(it->path());
    }
  }
  fs::path path_;
};

inline void write_file(const fs::path& path, std::string_view text = "x") {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// What expanding `dir` must give: one walk per extension, in order; each walk lists a directory's
// matches (links left out) before walking its subdirectories (links not entered), and skips what may
// not be read.
inline void reference_walk(const fs::path& dir, const std::string& pattern, std::vector<fs::path>& out) {
  std::error_code ec;
  fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
  if (ec) throw fs::filesystem_error("reference walk", dir, ec);
  std::vector<fs::directory_entry> entries(it, fs::directory_iterator());
  for (const auto& e : entries) {
    if (::fnmatch(pattern.c_str(), e.path().filename().c_str(), FNM_NOESCAPE) == 0 && !e.is_symlink()) {
      out.push_back(e.path());
    }
  }
  for (const auto& e : entries) {
    if (!e.is_symlink() && e.is_directory()) reference_walk(e.path(), pattern, out);
  }
}

inline std::vector<fs::path> reference_expand(const fs::path& dir, const std::vector<std::string_view>& extensions) {
  std::vector<fs::path> out;
  for (auto ext : extensions) reference_walk(dir, "*" + std::string(ext), out);
  return out;
}

// Root reads every directory, so permission cases prove nothing as root. Called first in such a test:
// as root it runs this very test again in a child process under uid and gid 65534 (from a copy of the
// binary, as the build tree may be private), checks that the child ran it and passed, and returns true
// (the caller returns at once); otherwise it returns false and the caller goes on as the unprivileged
// user it already is.
inline bool ran_as_unprivileged_child(const std::string& full_test_name) {
  if (const char* marker = std::getenv("BRENLOC_UNPRIVILEGED_MARKER"); marker != nullptr) {
    std::ofstream(marker) << "ran";
  }
  if (::geteuid() != 0) return false;

  TempDir shared("/tmp");  // where the unprivileged user may write
  ::chmod(shared.path().c_str(), 0777);
  const fs::path marker = shared.path() / "ran", self = shared.path() / "self";
  fs::copy_file("/proc/self/exe", self);
  ::chmod(self.c_str(), 0755);
  const std::string command = "cd /tmp && env -u GTEST_OUTPUT BRENLOC_UNPRIVILEGED_MARKER=" + marker.string() +
                              " TMPDIR=/tmp setpriv --reuid=65534 --regid=65534 --clear-groups " + self.string() +
                              " '--gtest_filter=" + full_test_name + "'";
  if (const int status = std::system(command.c_str()); status != 0 || !fs::exists(marker)) {
    throw std::runtime_error("the unprivileged run of " + full_test_name + " failed or did not reach it (status " +
                             std::to_string(status) + ")");
  }
  return true;
}

}  // namespace brenloc::testing
