#include "brenloc/utils/path_guards.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>

#include "tree_fixtures.h"

namespace brenloc::utils {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::write_file;

struct SharesCase {
  std::string path;
  std::vector<fs::path> roots;
  bool outside;
};

TEST(OutsideTrustedShares, ComparesNormalisedComponents) {
  const std::vector<fs::path> repo{"/srv/repo"};
  const SharesCase cases[] = {
      {"/srv/repo", repo, false},
      {"/srv/repo/a.py", repo, false},
      {"/srv/repo/", repo, false},
      {"//srv//repo///a", repo, false},
      {"/srv/repo/src/..", repo, false},
      {"/srv/repo/../repo/a", repo, false},
      {"/../../srv/repo/a", repo, false},  // ".." stops at the file-system root
      {"/srv/repo/\xff\xfe.py", repo, false},
      {"/srv/repo/..", repo, true},
      {"/srv/repo/src/../../etc", repo, true},
      {"/srv/repo2/a.py", repo, true},  // a shared prefix of characters is not a shared component
      {"/srv/Repo/a.py", repo, true},
      {"/", repo, true},
      {"srv/repo/a.py", repo, true},  // relative: its place is unknown
      {"/srv/repo/a", {"/srv/repo/"}, false},
      {"/srv/repo/a", {"/srv/x/../repo/."}, false},
      {"/srv/repo/a", {"/other", "/srv/repo"}, false},
      {"/srv/repo/a", {"/"}, false},
      {"/srv/repo/a", {}, true},
      {"/srv/repo/a", {"srv/repo"}, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(outside_trusted_shares(c.path, c.roots), c.outside) << c.path << " under " << ::testing::PrintToString(c.roots);
  }
}

class VerifyNoSymlinks : public ::testing::Test {
 protected:
  void SetUp() override {
    write_file(repo / "a.py");
    write_file(repo / "src/main.c");
    fs::create_directory_symlink("src", repo / "link_to_src");
    fs::create_symlink("a.py", repo / "link.py");
    fs::create_symlink("chain2", repo / "chain1");
    fs::create_symlink("a.py", repo / "chain2");
    fs::create_symlink("loop", repo / "loop");
    fs::create_symlink("nowhere", repo / "dangling.py");
    fs::create_directory_symlink("repo", tmp.path() / "rootlink");
  }
  TempDir tmp;
  fs::path repo = tmp.path() / "repo";
};

TEST_F(VerifyNoSymlinks, ThrowsAtTheFirstLinkOnly) {
  const std::string r = repo.string(), t = tmp.path().string();
  struct Case {
    std::string path;
    std::optional<std::string> link;  // the link the message must name
  };
  const Case cases[] = {
      {r + "/a.py", std::nullopt},
      {"/", std::nullopt},
      {r + "/nope/../link.py", std::nullopt},  // the walk ends at the missing part
      {r + "/a.py/x/../../link.py", std::nullopt},  // ... and where a parent is not a directory
      {r + "/link.py", r + "/link.py"},
      {r + "/src/../link.py", r + "/src/../link.py"},
      {r + "/link_to_src/main.c", r + "/link_to_src"},
      {r + "/chain1", r + "/chain1"},
      {r + "/loop/x", r + "/loop"},
      {r + "/dangling.py", r + "/dangling.py"},
      {t + "/rootlink/link.py", t + "/rootlink"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    if (!c.link) {
      EXPECT_NO_THROW(verify_no_symlinks_in_path(c.path));
      continue;
    }
    try {
      verify_no_symlinks_in_path(c.path);
      ADD_FAILURE() << "no link reported";
    } catch (const std::invalid_argument& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.substr(message.find('/')), *c.link);
    }
  }
}

TEST_F(VerifyNoSymlinks, NulByteIsAnErrorNotALink) {
  EXPECT_THROW(verify_no_symlinks_in_path(repo.string() + std::string("/link.py\0x", 10)), fs::filesystem_error);
}

TEST_F(VerifyNoSymlinks, UnsearchableDirectoryIsAnErrorNotALink) {
  if (testing::ran_as_unprivileged_child("VerifyNoSymlinks.UnsearchableDirectoryIsAnErrorNotALink")) return;
  ASSERT_EQ(::chmod((repo / "src").c_str(), 0600), 0);
  try {
    verify_no_symlinks_in_path(repo / "src/main.c");
    ADD_FAILURE() << "no error";
  } catch (const fs::filesystem_error& e) {
    EXPECT_EQ(e.code(), std::errc::permission_denied);
    EXPECT_EQ(e.path1(), repo / "src/main.c");
  }
}

}  // namespace
}  // namespace brenloc::utils
