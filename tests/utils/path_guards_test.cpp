#include "brenloc/utils/path_guards.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tree_fixtures.h"

namespace brenloc::utils {
namespace {

namespace fs = std::filesystem;
using testing::write_file;

TEST(OutsideTrustedShares, ComparesNormalisedComponents) {
  struct Case {
    std::string path;
    std::vector<fs::path> roots;
    bool outside;
  };
  const std::vector<fs::path> repo{"/srv/repo"};
  const Case cases[] = {
      {"/srv/repo", repo, false},           {"/srv/repo/a.py", repo, false},
      {"/srv/repo/", repo, false},          {"//srv//repo///a", repo, false},
      {"/srv/repo/src/..", repo, false},    {"/srv/repo/\xff\xfe.py", repo, false},
      {"/../../srv/repo/a", repo, false},  // ".." stops at the file-system root
      {"/srv/repo/..", repo, true},         {"/srv/repo/src/../../etc", repo, true},
      {"/srv/repo2/a.py", repo, true},  // a shared prefix of characters is not a shared component
      {"/srv/Repo/a.py", repo, true},       {"/", repo, true},
      {"srv/repo/a.py", repo, true},  // relative: its place is unknown
      {"/srv/repo/a", {"/srv/repo/"}, false}, {"/srv/repo/a", {"/srv/x/../repo/."}, false},
      {"/srv/repo/a", {"/other", "/srv/repo"}, false}, {"/srv/repo/a", {"/"}, false},
      {"/srv/repo/a", {}, true},            {"/srv/repo/a", {"srv/repo"}, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(outside_trusted_shares(c.path, c.roots), c.outside) << c.path << " under " << ::testing::PrintToString(c.roots);
  }
}

// Runs as an unprivileged user, so that a directory without search permission is one.
TEST(VerifyNoSymlinks, ThrowsAtTheFirstLinkOnlyAndTellsErrorsApart) {
  if (testing::ran_as_unprivileged_child("VerifyNoSymlinks.ThrowsAtTheFirstLinkOnlyAndTellsErrorsApart")) return;
  testing::TempDir tmp;
  const fs::path repo = tmp.path() / "repo";
  write_file(repo / "a.py");
  write_file(repo / "src/main.c");
  write_file(repo / "locked/main.c");
  ASSERT_EQ(::chmod((repo / "locked").c_str(), 0600), 0);
  fs::create_directory_symlink("src", repo / "link_to_src");
  fs::create_symlink("a.py", repo / "link.py");
  fs::create_symlink("loop", repo / "loop");
  fs::create_symlink("nowhere", repo / "dangling.py");
  fs::create_directory_symlink("repo", tmp.path() / "rootlink");

  const std::string r = repo.string(), t = tmp.path().string();
  struct Case {
    std::string path;
    std::string link;  // the link the message must name
    std::errc error{};  // or the error thrown instead
  };
  const Case cases[] = {
      {r + "/a.py"},
      {"/"},
      {r + "/nope/../link.py"},        // the walk ends at the missing part
      {r + "/a.py/x/../../link.py"},  // ... and where a parent is not a directory
      {r + "/link.py", r + "/link.py"},
      {r + "/src/../link.py", r + "/src/../link.py"},
      {r + "/link_to_src/main.c", r + "/link_to_src"},
      {r + "/loop/x", r + "/loop"},
      {r + "/dangling.py", r + "/dangling.py"},
      {t + "/rootlink/link.py", t + "/rootlink"},
      {r + std::string("/link.py\0x", 10), "", std::errc::invalid_argument},  // a NUL byte is not a link
      {r + "/locked/main.c", "", std::errc::permission_denied},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    try {
      verify_no_symlinks_in_path(c.path);
      EXPECT_TRUE(c.link.empty() && c.error == std::errc{}) << "nothing reported";
    } catch (const std::invalid_argument& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.substr(message.find('/')), c.link);
    } catch (const fs::filesystem_error& e) {
      EXPECT_EQ(e.code(), c.error);
      EXPECT_EQ(e.path1(), fs::path(c.path));
    }
  }
}

}  // namespace
}  // namespace brenloc::utils
