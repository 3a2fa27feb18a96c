#include "brenloc/daemon/reindex_paths.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "../utils/tree_fixtures.h"

namespace brenloc::daemon {
namespace {

namespace fs = std::filesystem;
using brenloc::testing::reference_expand;
using brenloc::testing::TempDir;
using brenloc::testing::write_file;

constexpr const char* OUTSIDE = "Path outside repository";
constexpr const char* LINKS = "Symlinks are not allowed in paths";

class ReindexPaths : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* f : {"a.py", "README.md", "\xff\xfe.py", ".hidden/h.py", "src/main.c", "src/util.h",
                          "src/.hidden.ts", "src/UPPER.PY", "src/pkg.py/inner.py", "src/pkg.py/deep/x.go"}) {
      write_file(repo / f);
    }
    write_file(t / "outside/secret.py");
    write_file(t / "repo2/x.py");
    fs::create_directory(t / "x");
    ASSERT_EQ(::mkfifo((repo / "pipe.py").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo((repo / "src/fifo.rs").c_str(), 0600), 0);
    fs::create_symlink("main.c", repo / "src/link.c");
    fs::create_directory_symlink("pkg.py", repo / "src/linkdir");
    fs::create_directory_symlink("src", repo / "link_to_src");
    fs::create_symlink("a.py", repo / "link_file.py");
    fs::create_directory_symlink("../outside", repo / "out_link");
    fs::create_symlink("chain2", repo / "chain1");
    fs::create_symlink("a.py", repo / "chain2");
    fs::create_symlink("loop", repo / "loop");
    fs::create_symlink("nowhere", repo / "dangling.py");
    fs::create_directory_symlink("repo", t / "rootlink");
  }

  // "{t}" in a request stands for the temporary directory.
  std::string expand_placeholders(std::string text) const {
    if (auto at = text.find("{t}"); at != std::string::npos) text.replace(at, 3, t.string());
    return text;
  }

  TempDir tmp;
  fs::path t = tmp.path();
  fs::path repo = t / "repo";
};

struct RequestCase {
  const char* what;
  std::vector<std::string> paths;
  // Each entry names a path below the root; "*dir" stands for the expansion of that directory (by the
  // reference walk), "*" for that of the root.
  std::vector<std::string> expected;
  const char* refusal = nullptr;
  const char* root = "{t}/repo";  // as given to the resolver, never resolved by it
};

TEST_F(ReindexPaths, ResolvesRequests) {
  const RequestCase cases[] = {
      {"missing file", {"nope.py", "nope/x.py"}, {}},
      {"the root, spelled five ways", {".", "", "{t}/repo", "./", "{t}/repo/"}, {"*", "*", "*", "*", "*"}},
      {"file of any extension", {"README.md", "a.py"}, {"README.md", "a.py"}},
      {"absolute file, doubled separators", {"{t}/repo//src///main.c"}, {"src/main.c"}},
      {"trailing separator on a file", {"a.py/"}, {"a.py"}},
      {"plain, matched and hidden directories", {"src", "src/pkg.py", ".hidden"}, {"*src", "*src/pkg.py", "*.hidden"}},
      {"non-UTF-8 name", {"\xff\xfe.py"}, {"\xff\xfe.py"}},
      {"fifo is neither file nor directory", {"pipe.py"}, {}},
      {"dot-dot inside the root", {"src/../a.py", "{t}/repo/src/../a.py", "nope/../a.py", "nope/.."},
       {"a.py", "a.py", "a.py", "*"}},
      {"duplicates are kept", {"a.py", "a.py", "."}, {"a.py", "a.py", "*"}},
      {"absolute path outside", {"{t}/outside/secret.py"}, {}, OUTSIDE},
      {"sibling sharing a prefix", {"{t}/repo2/x.py"}, {}, OUTSIDE},
      {"dot-dot climbing out from below", {"src/../../outside", "nope/../../outside"}, {}, OUTSIDE},
      {"dot-dot through the root's parent", {"../repo/a.py", "{t}/repo/../repo/a.py"}, {"a.py", "a.py"}},
      {"dot-dot out and back in", {"../outside/../repo/a.py"}, {}, OUTSIDE},
      {"absolute, out and back in", {"/nowhere/../{t}/repo/a.py"}, {}, OUTSIDE},
      {"linked directory on the way", {"link_to_src/main.c"}, {}, LINKS},
      {"linked file", {"link_file.py"}, {}, LINKS},
      {"chain of links", {"chain1"}, {}, LINKS},
      {"link pointing outside", {"out_link/secret.py"}, {}, LINKS},
      {"loop of links", {"loop"}, {}, LINKS},
      {"dangling link", {"dangling.py"}, {}, LINKS},
      {"link seen only after resolution", {"nope/../link_file.py"}, {}, LINKS},
      {"loop seen only after resolution", {"nope/../loop"}, {}, LINKS},
      {"the root reached through a link", {"{t}/rootlink/a.py"}, {}, OUTSIDE},
      {"second path refused", {"a.py", ".", "/etc/passwd"}, {}, OUTSIDE},
      {"second path a link", {"nope.py", "a.py", "link_file.py"}, {}, LINKS},
      {"first refusal wins", {"/etc/passwd", "link_file.py"}, {}, OUTSIDE},
      {"later paths are not looked at", {"/etc/passwd", std::string("a\0b", 3)}, {}, OUTSIDE},
      {"root through a link: a file", {"a.py"}, {}, LINKS, "{t}/rootlink"},
      {"root through a link: itself", {"."}, {}, LINKS, "{t}/rootlink"},
      {"root through a link: the real root", {"{t}/repo/a.py"}, {}, OUTSIDE, "{t}/rootlink"},
      // Lexically the same place as the real root, so only the containment test can refuse these.
      {"root with dot-dot: a file", {"a.py"}, {}, OUTSIDE, "{t}/x/../repo"},
      {"root with dot-dot: itself", {""}, {}, OUTSIDE, "{t}/x/../repo"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> request;
    for (const auto& p : c.paths) request.push_back(expand_placeholders(p));
    const auto [got, reason] = resolve_reindex_paths(expand_placeholders(c.root), request);
    if (c.refusal) {
      EXPECT_EQ(reason, std::optional<std::string>(c.refusal));
      EXPECT_TRUE(got.empty());
      continue;
    }
    std::vector<fs::path> want;
    for (const auto& e : c.expected) {
      if (e.starts_with("*")) {
        const auto more = reference_expand(e == "*" ? repo : repo / e.substr(1), listed_extensions());
        want.insert(want.end(), more.begin(), more.end());
      } else {
        want.push_back(repo / e);
      }
    }
    EXPECT_EQ(reason, std::nullopt);
    EXPECT_EQ(got, want);
  }
}

TEST_F(ReindexPaths, NulByteIsAClearError) {
  for (const std::string& bad : {std::string("a.py\0", 5), std::string("\0", 1), std::string("src\0/../a.py", 12)}) {
    EXPECT_THAT([&] { resolve_reindex_paths(repo, {"a.py", bad}); },
                ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr("NUL byte")));
  }
}

TEST_F(ReindexPaths, ResolvesExistingPrefixThroughLinksAndNormalisesTheRest) {
  const std::pair<fs::path, fs::path> cases[] = {
      {repo / "a.py", repo / "a.py"},
      {repo / "nope/deeper", repo / "nope/deeper"},
      {repo / "nope/../a.py", repo / "a.py"},
      {repo / "nope/..", repo},
      {repo / "a.py/..", repo},
      {repo / "link_to_src/nope/../x", repo / "src/x"},
      {repo / "chain1", repo / "a.py"},
      {repo / "out_link/..", t},
      {t / "rootlink/a.py", repo / "a.py"},
      {repo / "nope/../link_file.py", repo / "link_file.py"},  // the link is not reached: nope is missing
      {repo / "dangling.py", repo / "dangling.py"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(resolve_non_strict(in), out) << in;
  EXPECT_THROW(resolve_non_strict(repo / "loop/x"), fs::filesystem_error);
}

TEST_F(ReindexPaths, PermissionRefusalsInTheWalkAreSilentElsewhereErrors) {
  if (testing::ran_as_unprivileged_child("ReindexPaths.PermissionRefusalsInTheWalkAreSilentElsewhereErrors")) return;
  write_file(repo / "closed/inner.py");
  write_file(repo / "listable/seen.py");
  write_file(repo / "listable/sub/hidden.py");
  write_file(repo / "locked.py/inner.py");
  write_file(repo / "unsearchable/x.py");
  for (const auto& [dir, mode] : std::vector<std::pair<const char*, mode_t>>{
           {"closed", 0}, {"listable", 0444}, {"locked.py", 0}, {"unsearchable", 0600}}) {
    ASSERT_EQ(::chmod((repo / dir).c_str(), mode), 0);
  }
  const auto request = [&](const std::string& p) { return resolve_reindex_paths(repo, {p}); };
  EXPECT_EQ(request("closed"), ReindexPathResolution({}, std::nullopt));
  EXPECT_EQ(request("listable"), ReindexPathResolution({repo / "listable/seen.py"}, std::nullopt));
  EXPECT_EQ(request("locked.py"), ReindexPathResolution({}, std::nullopt));
  const auto all = request(".").first;
  EXPECT_EQ(std::count(all.begin(), all.end(), repo / "locked.py"), 1);  // a matched directory, unread
  EXPECT_EQ(std::count(all.begin(), all.end(), repo / "listable/seen.py"), 1);
  EXPECT_EQ(std::count(all.begin(), all.end(), repo / "closed/inner.py"), 0);
  EXPECT_EQ(all, reference_expand(repo, listed_extensions()));
  // A requested path below a directory that may not be searched cannot be judged: an error, not a refusal.
  EXPECT_THROW(request("unsearchable/x.py"), fs::filesystem_error);
}

// ---------------------------------------------------------------------------------------------------
// The single traversal against the reference walk, over random trees.

class RandomTree {
 public:
  explicit RandomTree(unsigned seed) : rng_(seed) {}

  // Some directories lose read or search permission once their subtree is built.
  void grow(const fs::path& dir, int depth) {
    static constexpr mode_t closed[] = {0, 0100, 0300, 0400, 0500};
    fs::create_directories(dir);
    const int entries = pick(2, 10);
    for (int i = 0; i < entries; ++i) {
      const fs::path p = dir / name();
      if (fs::exists(fs::symlink_status(p))) continue;
      const int kind = pick(0, 99);
      if (kind < 55) {
        write_file(p);
      } else if (kind < 78 && depth < 4) {
        grow(p, depth + 1);
        if (pick(0, 5) == 0) ::chmod(p.c_str(), closed[pick(0, 4)]);
      } else if (kind < 84) {
        fs::create_symlink(pick(0, 1) ? "/etc/hostname" : "nowhere", p);
      } else if (kind < 92) {
        fs::create_directory_symlink(pick(0, 1) ? dir : dir.parent_path(), p);
      } else {
        ::mkfifo(p.c_str(), 0600);
      }
    }
  }

 private:
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  std::string name() {
    static const char* stems[] = {"", "a", "main", ".hidden", "x.y", "two.py", "\xff\xfe", "caf\xc3\xa9", "b.c"};
    static const char* tails[] = {".py", ".pyi", ".c", ".h", ".cpp", ".c++", ".ts", ".d.ts", ".tsx",
                                  ".go", ".PY", ".txt", "", ".py.c", ".h.py", "py", ".java"};
    std::string n = std::string(stems[pick(0, 8)]) + tails[pick(0, 16)];
    return n.empty() ? "plain" : n;
  }
  std::mt19937 rng_;
};

TEST(ExpandDirectory, MatchesOneWalkPerExtensionOnRandomTrees) {
  if (testing::ran_as_unprivileged_child("ExpandDirectory.MatchesOneWalkPerExtensionOnRandomTrees")) return;
  const std::vector<std::vector<std::string_view>> tables = {
      listed_extensions(),
      // Repeats, an extension ending another, one without a dot, patterns.
      {".ts", ".d.ts", ".py", ".h", ".py", "py", ".[ch]", ".c?+", ".*", ".PY"},
  };
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    TempDir tmp;
    RandomTree tree(seed);
    tree.grow(tmp.path() / "top", 0);
    for (const auto& table : tables) {
      std::vector<fs::path> got;
      expand_directory(tmp.path() / "top", table, got);
      ASSERT_EQ(got, reference_expand(tmp.path() / "top", table));
    }
  }
}

}  // namespace
}  // namespace brenloc::daemon
