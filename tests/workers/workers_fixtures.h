// Temporary trees and git for the indexer's tests.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace brenloc::workers::testing {

// A fresh directory, removed (with its content made writable again) at the end of the test.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "brenloc-workers-XXXXXX").string();
    char* made = ::mkdtemp(tmpl.data());
    if (made == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = std::filesystem::canonical(made);
  }
  ~TempDir() {
    std::error_code ec;
    // Give back permissions a test took away, so that everything can go.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ec);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
    }
    ::chmod(path_.c_str(), 0755);
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline void write_file(const std::filesystem::path& p, const std::string& content) {
  std::filesystem::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << content;
}

inline std::string read_file(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Runs a shell command; returns its standard output.
inline std::string run_command(const std::string& cmd) {
  std::string out;
  FILE* f = ::popen(cmd.c_str(), "r");
  if (f == nullptr) return out;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  ::pclose(f);
  return out;
}

inline std::string shell_quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'') q += "'\\''";
    else q += c;
  }
  return q + "'";
}

// git with no user or system configuration, so that no global ignore file takes part.
inline std::string git(const std::filesystem::path& dir, const std::string& args) {
  return run_command("env HOME=" + shell_quote(dir.string()) + " XDG_CONFIG_HOME=" + shell_quote(dir.string()) +
                     " GIT_CONFIG_NOSYSTEM=1 git -C " + shell_quote(dir.string()) + " " + args + " 2>/dev/null");
}

// An empty repository, made by hand (what `git init` would make, without starting a process).
inline void git_init(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir / ".git" / "objects");
  std::filesystem::create_directories(dir / ".git" / "refs" / "heads");
  write_file(dir / ".git" / "HEAD", "ref: refs/heads/main\n");
  write_file(dir / ".git" / "config", "[core]\n\trepositoryformatversion = 0\n\tbare = false\n");
}

// The paths among `paths` (relative, existing) that `git check-ignore` reports as ignored.
inline std::set<std::string> git_ignored(const std::filesystem::path& dir, const std::vector<std::string>& paths) {
  std::filesystem::path input = dir / ".git" / "check-ignore-input";
  {
    std::ofstream out(input, std::ios::binary);
    for (const auto& p : paths) out << p << '\0';
  }
  std::string out = git(dir, "check-ignore -z --stdin < " + shell_quote(input.string()));
  std::set<std::string> ignored;
  std::size_t start = 0;
  while (start < out.size()) {
    std::size_t end = out.find('\0', start);
    if (end == std::string::npos) end = out.size();
    if (end > start) ignored.insert(out.substr(start, end - start));
    start = end + 1;
  }
  return ignored;
}

}  // namespace brenloc::workers::testing
