// Which of a session's repositories a call's `repo` stands for, the names they are listed by, and the
// local directory a client's root URI names.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/app/session_repos.h"
#include "brenloc/tool_binding.h"
#include "utils/tree_fixtures.h"

namespace brenloc::app {
namespace {

namespace fs = std::filesystem;

TEST(SessionRepos, FileUriPath) {
  const struct {
    std::string uri;
    std::optional<std::string> path;
  } cases[] = {
      {"file:///home/u/project", "/home/u/project"},
      {"file://localhost/srv/a%20b", "/srv/a b"},
      {"FILE:///x", "/x"},
      {"file:/x/y", "/x/y"},
      {"file:///a/%E9t%c3%a9", "/a/\xe9t\xc3\xa9"},  // a Latin-1 byte stays a byte
      {"file:///a%23b?query#fragment", "/a#b"},
      {"file://otherhost/a", std::nullopt},
      {"https://example.com/a", std::nullopt},
      {"file:relative/a", std::nullopt},
      {"file:///a%2", std::nullopt},
      {"file:///a%zz", std::nullopt},
      {"file:///a%00b", std::nullopt},
  };
  for (const auto& c : cases) {
    auto got = file_uri_path(c.uri);
    EXPECT_EQ(got ? std::optional<std::string>(got->native()) : std::nullopt, c.path) << c.uri;
  }
}

TEST(SessionRepos, NamesAndPathsFindTheirRepository) {
  brenloc::testing::TempDir dir;
  const fs::path d = dir.path();
  for (const char* sub : {"one/app", "two/app", "lib/src", "lib/vendor/inner/deep", "ws/.git", "ws/sub", "out"}) {
    fs::create_directories(d / sub);
  }
  SessionRepos repos({d / "lib", d / "one/app", d / "two/app", d / "lib/vendor/inner", d / "lib"});
  repos.set_roots(json{{"roots",
                        {{{"uri", "file://" + (d / "ws/sub").string()}},
                         {{"uri", "file://" + (d / "lib").string()}},  // already a --repo: listed once
                         {{"uri", "file://" + (d / "gone").string()}},
                         {{"uri", "https://example.com/x"}}}}});

  std::vector<std::string> names;
  for (const auto& r : repos.all()) names.push_back(r.name + (r.from_roots ? " (root)" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{"lib", "one/app", "two/app", "inner", "ws (root)"}));

  const struct {
    json repo;
    std::optional<fs::path> root;
  } cases[] = {
      {nullptr, d / "lib"},
      {"lib", d / "lib"},
      {"two/app", d / "two/app"},
      {"ws", d / "ws"},
      {"app", std::nullopt},  // two repositories' last component: no name
      {(d / "lib/src").string(), d / "lib"},
      {(d / "lib/vendor").string(), d / "lib"},
      {(d / "lib/vendor/inner/deep").string(), d / "lib/vendor/inner"},  // the innermost
      {(d / "ws/sub").string(), d / "ws"},
      {(d / "lib/../one/app/x").string(), d / "one/app"},
      {(d / "libx").string(), std::nullopt},
      {(d / "out").string(), std::nullopt},
      {"lib/src", std::nullopt},  // neither a name nor an absolute path
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    auto found = repos.find(c.repo);
    EXPECT_EQ(found ? std::optional<fs::path>(found->root) : std::nullopt, c.root) << c.repo.dump();
  }
  EXPECT_THROW(repos.find(json(42)), ArgumentError);

  // The roots change: the one no longer announced names nothing.
  repos.set_roots(json{{"roots", json::array()}});
  EXPECT_EQ(repos.find("ws"), std::nullopt);
  EXPECT_EQ(repos.all().size(), 4u);
}

}  // namespace
}  // namespace brenloc::app
