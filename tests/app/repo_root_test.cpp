// Which directory is the repository, which trees wait for --force, and where the daemon and the index
// live whatever a client's environment keeps.
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "brenloc/app/data_dir.h"
#include "brenloc/app/repo_root.h"
#include "brenloc/app/runtime_dir.h"
#include "utils/tree_fixtures.h"

namespace brenloc::app {
namespace {

namespace fs = std::filesystem;
using brenloc::testing::write_file;

TEST(RepoRoot, TheNearestWorkTreeTopAboveTheStart) {
  brenloc::testing::TempDir dir;
  const fs::path top = dir.path() / "project";
  fs::create_directories(top / ".git");
  write_file(top / "src/deep/x.py", "");
  write_file(top / "vendor/lib/.git", "gitdir: ../../.git/modules/lib\n");  // a submodule
  write_file(top / "vendor/lib/src/y.c", "");
  write_file(dir.path() / "wt/.git", "gitdir: /elsewhere/.git/worktrees/wt\n");  // a linked worktree
  write_file(dir.path() / "wt/a/b.go", "");
  fs::create_directories(dir.path() / "hg/.hg");
  write_file(dir.path() / "hg/sub/z.rs", "");
  write_file(dir.path() / "loose/q.ts", "");
  const struct {
    fs::path start, root;
    bool marked;
  } cases[] = {
      {top, top, true},
      {top / "src/deep", top, true},
      {top / "vendor/lib/src", top / "vendor/lib", true},
      {dir.path() / "wt/a", dir.path() / "wt", true},
      {dir.path() / "hg/sub", dir.path() / "hg/sub", true},  // marked by another system: kept where it started
      {dir.path() / "loose", dir.path() / "loose", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.start.string());
    RepoRoot found = find_repo_root(c.start);
    EXPECT_EQ(found.root, c.root);
    EXPECT_EQ(found.marked, c.marked);
  }
}

TEST(RepoRoot, ForceIsAskedForTheRootTheHomeAndLargeUnmarkedTrees) {
  brenloc::testing::TempDir dir;
  for (int i = 0; i < 5; ++i) write_file(dir.path() / "many" / std::to_string(i) / "f.c", "");
  const struct {
    RepoRoot found;
    bool insists;
  } cases[] = {
      {{"/", true}, true},
      {{account_home(), true}, true},
      {{dir.path() / "many", false}, true},  // 5 files, more than the limit of 4
      {{dir.path() / "many", true}, false},  // a project, however large
      {{dir.path() / "many/1", false}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.found.root.string());
    EXPECT_EQ(reason_to_insist(c.found, 4).has_value(), c.insists);
  }
}

// Sets or unsets a variable for one scope.
class Variable {
 public:
  Variable(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  }
  ~Variable() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// A client that drops HOME, TMPDIR and the XDG variables reckons the same directories as a shell that
// keeps their defaults; a variable that moves a directory is named.
TEST(RepoRoot, TheDirectoriesDoNotDependOnVariablesAClientMayDrop) {
  Variable no_runtime("XDG_RUNTIME_DIR", std::nullopt), no_data("XDG_DATA_HOME", std::nullopt);
  const RuntimePaths runtime = runtime_paths();
  const fs::path data = default_data_dir("/src/project");
  EXPECT_TRUE(runtime.set_by.empty());
  {
    Variable home("HOME", "/nonexistent-home"), tmp("TMPDIR", "/nonexistent-tmp");
    EXPECT_EQ(runtime_paths().dir, runtime.dir);
    EXPECT_EQ(default_data_dir("/src/project"), data);
  }
  {
    Variable moved("XDG_RUNTIME_DIR", "/moved/run"), moved_data("XDG_DATA_HOME", "/moved/share");
    EXPECT_EQ(runtime_paths().dir, fs::path("/moved/run/brenloc"));
    EXPECT_EQ(runtime_paths().set_by, "XDG_RUNTIME_DIR");
    EXPECT_EQ(data_home().set_by, "XDG_DATA_HOME");
    EXPECT_EQ(default_data_dir("/src/project").parent_path(), fs::path("/moved/share/brenloc"));
  }
  {
    // Variables that name the defaults move nothing.
    Variable same("XDG_DATA_HOME", (account_home() / ".local/share").string());
    EXPECT_EQ(data_home().set_by, "");
    EXPECT_EQ(default_data_dir("/src/project"), data);
  }
}

}  // namespace
}  // namespace brenloc::app
