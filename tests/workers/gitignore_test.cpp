// The ignore matcher against git itself: wildcard cases, a table of named rule sets, and randomised rule
// sets and trees whose every path is checked with `git check-ignore` and walked.
#include <atomic>
#include <iostream>
#include <optional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/engines/languages.h"
#include "brenloc/workers/gitignore.h"
#include "brenloc/workers/walker.h"
#include "workers_fixtures.h"

namespace brenloc::workers {
namespace {

using testing::TempDir;

struct WildCase {
  const char* pattern;
  const char* text;
  bool pathname;
  bool expected;
};

TEST(Wildmatch, MatchesAsGitDoes) {
  const WildCase cases[] = {
      {"foo", "foo", true, true}, {"foo", "bar", true, false}, {"*", "foo/bar", true, false},
      {"*", "foo/bar", false, true}, {"*.c", "dir/x.c", true, false}, {"*.c", "dir/x.c", false, true},
      {"**/foo", "a/b/foo", true, true}, {"**/foo", "foo", true, true}, {"foo/**/bar", "foo/bar", true, true},
      {"foo/**/bar", "foo/a/b/bar", true, true}, {"foo/**", "foo/a/b", true, true}, {"foo/**", "foo", true, false},
      {"a**b", "a/x/b", true, false}, {"a**b", "axxb", true, true}, {"a?c", "abc", true, true},
      {"?", "/", true, false}, {"?", "/", false, true}, {"[a-c]x", "bx", true, true}, {"[!a-c]x", "bx", true, false},
      {"[^a]x", "bx", true, true}, {"[]]", "]", true, true}, {"[]-]", "-", true, true}, {"[a-]", "-", true, true},
      {"[a/]", "/", true, false}, {"\\*", "*", true, true}, {"\\*", "x", true, false}, {"a\\", "a", true, false},
      {"[[:digit:]]", "5", true, true}, {"[[:alpha:]]", "5", true, false}, {"[[:foo:]]", "a", true, false},
      {"[[:digit:]x]", "x", true, true}, {"[", "[", true, false}, {"*/*", "a/b", true, true},
      {"*/*", "a/b/c", true, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(wildmatch(c.pattern, c.text, c.pathname), c.expected)
        << "pattern '" << c.pattern << "' text '" << c.text << "' pathname " << c.pathname;
  }
}

// A tree: paths ending in "/" are directories, others files; `ignore_files` maps a relative path
// (".gitignore", "sub/.gitignore", ".git/info/exclude") to its content.
struct Scenario {
  std::vector<std::string> tree;
  std::map<std::string, std::string> ignore_files;
};

std::string without_slash(const std::string& p) { return p.back() == '/' ? p.substr(0, p.size() - 1) : p; }

// Builds the scenario under `root`, checks it against git and, when given, against `expected`; returns
// what git ignores.
std::set<std::string> check(const std::filesystem::path& root, const Scenario& s,
                            const std::optional<std::set<std::string>>& expected = std::nullopt) {
  testing::git_init(root);
  for (const auto& p : s.tree) {
    if (p.back() == '/') std::filesystem::create_directories(root / p);
    else testing::write_file(root / p, "int x;\n");
  }
  for (const auto& [p, content] : s.ignore_files) testing::write_file(root / p, content);
  std::vector<std::string> paths;
  for (const auto& p : s.tree) paths.push_back(without_slash(p));
  const std::set<std::string> git = testing::git_ignored(root, paths);
  if (expected) EXPECT_EQ(git, *expected) << "the table disagrees with git";

  GitIgnore gi(root);
  std::set<std::string> ours, expected_walk;
  for (const auto& p : s.tree) {
    if (gi.ignored(without_slash(p), p.back() == '/')) ours.insert(without_slash(p));
    if (p.back() != '/' && !git.contains(p) && engines::language_for_path(p)) expected_walk.insert(p);
  }
  EXPECT_EQ(ours, git);
  // A whole walk yields the files git leaves unignored.
  std::atomic<bool> stop{false};
  Collected c = collect_files(WalkPolicy{root, root / ".brenloc"}, std::nullopt, stop);
  std::set<std::string> walked;
  for (const auto& f : c.files) walked.insert(f.rel);
  EXPECT_EQ(walked, expected_walk);
  EXPECT_TRUE(c.errors.empty());
  return git;
}

struct NamedCase {
  const char* name;
  Scenario scenario;
  std::set<std::string> ignored;
};

TEST(GitIgnore, NamedRuleSetsAgreeWithGit) {
  const NamedCase cases[] = {
      {"negation", {{"a.log", "keep.log", "d/b.log", "d/keep.log"}, {{".gitignore", "*.log\n!keep.log\n"}}},
       {"a.log", "d/b.log"}},
      {"directory only",
       {{"build/", "build/x.c", "sub/build/", "sub/build/y.c", "out"}, {{".gitignore", "build/\nout/\n"}}},
       {"build", "build/x.c", "sub/build", "sub/build/y.c"}},
      {"anchored", {{"top.c", "d/top.c", "sub/mid.c", "x/sub/mid.c"}, {{".gitignore", "/top.c\nsub/mid.c\n"}}},
       {"top.c", "sub/mid.c"}},
      {"deeper file overrides",
       {{"keep.c", "sub/keep.c", "sub/other.c"}, {{".gitignore", "*.c\n"}, {"sub/.gitignore", "!keep.c\n"}}},
       {"keep.c", "sub/other.c"}},
      {"no re-include inside an ignored directory",
       {{"dir/", "dir/x.c", "dir/y.c"}, {{".gitignore", "dir/\n!dir/x.c\n"}}}, {"dir", "dir/x.c", "dir/y.c"}},
      {"contents ignored, one file re-included",
       {{"dir/", "dir/x.c", "dir/y.c"}, {{".gitignore", "dir/*\n!dir/x.c\n"}}}, {"dir/y.c"}},
      {"double star", {{"a/z.c", "a/b/c/z.c", "b/a/z.c"}, {{".gitignore", "a/**/z.c\n"}}}, {"a/z.c", "a/b/c/z.c"}},
      {"escaped characters",
       {{"#hash.c", "!bang.c", "sp ", "sp", "st*r.c", "star.c"},
        {{".gitignore", "\\#hash.c\n\\!bang.c\nsp\\ \nst\\*r.c\n"}}},
       {"#hash.c", "!bang.c", "sp ", "st*r.c"}},
      {"comments, blanks and trailing spaces",
       {{"tr.c", "#c.c", "x.c"}, {{".gitignore", "# a comment\n\n#c.c\ntr.c   \n"}}}, {"tr.c"}},
      {"info/exclude is overridden by .gitignore",
       {{"x.tmp", "y.tmp"}, {{".git/info/exclude", "*.tmp\n"}, {".gitignore", "!x.tmp\n"}}}, {"y.tmp"}},
      {"character classes", {{"f1.c", "fa.c", "g-.c"}, {{".gitignore", "f[0-9].c\ng[!a-z].c\n"}}}, {"f1.c", "g-.c"}},
      {"one star does not cross a slash", {{"a/gen/", "a/gen/x.c", "a/b/gen/", "gen/"}, {{".gitignore", "*/gen/\n"}}},
       {"a/gen", "a/gen/x.c"}},
      {"carriage returns", {{"crlf.c", "other.c"}, {{".gitignore", "crlf.c\r\n"}}}, {"crlf.c"}},
      {"nested pattern relative to its own file",
       {{"sub/x/y.c", "x/y.c", "sub/z/x/y.c"}, {{"sub/.gitignore", "x/y.c\n"}}}, {"sub/x/y.c"}},
      {"star star after a literal prefix", {{"ab/c.c", "abx/y/c.c", "ab/d/c.c"}, {{".gitignore", "ab**/c.c\n"}}},
       {"ab/c.c", "ab/d/c.c", "abx/y/c.c"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir tmp;
    check(tmp.path(), c.scenario, c.ignored);
  }
}

// Random rule sets over random trees of awkward names.
class Generator {
 public:
  explicit Generator(unsigned seed) : rng_(seed) {}

  Scenario scenario() {
    Scenario s;
    std::set<std::string> dirs{""}, tree;
    for (int i = 0, files = 10 + pick(20); i < files; ++i) {
      std::string dir;
      for (int d = 0, depth = pick(4); d < depth; ++d) {
        dir += (dir.empty() ? "" : "/") + one_of(kDirs);
        dirs.insert(dir);
        tree.insert(dir + "/");
      }
      tree.insert((dir.empty() ? "" : dir + "/") + one_of(kFiles));
    }
    // A name that is a file in one place may be a directory in another; keep what can exist.
    for (const auto& p : tree) {
      if (p.back() != '/' && tree.contains(p + "/")) continue;
      bool blocked = false;
      for (std::size_t i = p.find('/'); i != std::string::npos && i + 1 < p.size(); i = p.find('/', i + 1)) {
        if (tree.contains(p.substr(0, i))) blocked = true;
      }
      if (!blocked) s.tree.push_back(p);
    }
    std::vector<std::string> dir_list(dirs.begin(), dirs.end());
    for (int i = 0, lists = 1 + pick(4); i < lists; ++i) {
      const std::string& d = dir_list[pick(static_cast<int>(dir_list.size()))];
      s.ignore_files[d.empty() ? ".gitignore" : d + "/.gitignore"] += rules();
    }
    if (pick(2) == 0) s.ignore_files[".git/info/exclude"] = rules();
    return s;
  }

 private:
  inline static const std::vector<std::string> kDirs = {"a", "b", "build", "src", "x y", "lib", "[ab]"};
  inline static const std::vector<std::string> kFiles = {
      "x.c",  "y.py", "foo.c", "a.h",    "f*o.c", "[ab].c", "#c.py", "!n.c",  "b.log",
      "z.go", "t .c", "q?.py", "M.java", "build", "a",      "lib.rs", "sp ",  "k.ts"};

  int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }
  const std::string& one_of(const std::vector<std::string>& v) { return v[pick(static_cast<int>(v.size()))]; }

  // A name turned into a pattern segment.
  std::string segment() {
    std::vector<std::string> names = kDirs;
    names.insert(names.end(), kFiles.begin(), kFiles.end());
    std::string n = one_of(names);
    switch (pick(10)) {
      case 0: return "*";
      case 1: return "**";
      case 2: return "*" + n.substr(n.size() / 2);
      case 3: return n.substr(0, (n.size() + 1) / 2) + "*";
      case 9: return n.substr(0, (n.size() + 1) / 2) + "**";
      case 4: return n.replace(pick(static_cast<int>(n.size())), 1, "?");
      case 5: {
        const std::size_t i = pick(static_cast<int>(n.size()));
        const char* classes[] = {"[a-c]", "[!a]", "[^x]", "[[:alpha:]]", "[.]", "[]ab]"};
        return n.replace(i, 1, classes[pick(6)]);
      }
    }
    // Literal, with the characters git treats specially escaped (or, now and then, not).
    const bool escape = pick(4) != 0;
    std::string out;
    for (std::size_t i = 0; i < n.size(); ++i) {
      char c = n[i];
      bool special = c == '*' || c == '?' || c == '[' || c == '\\' || (i == 0 && (c == '#' || c == '!')) ||
                     (c == ' ' && i + 1 == n.size());
      if (special && escape) out += '\\';
      out += c;
    }
    return out;
  }

  std::string rules() {
    std::string out;
    for (int i = 0, n = 1 + pick(5); i < n; ++i) {
      if (pick(10) == 0) out += pick(2) ? "# comment\n" : "\n";
      std::string line;
      if (pick(4) == 0) line += "!";
      if (pick(4) == 0) line += "/";
      for (int k = 0, segs = 1 + (pick(3) == 0 ? 1 + pick(2) : 0); k < segs; ++k) line += (k ? "/" : "") + segment();
      if (pick(4) == 0) line += "/";
      if (pick(8) == 0) line += "  ";
      out += line + (pick(12) == 0 ? "\r\n" : "\n");
    }
    return out;
  }

  std::mt19937 rng_;
};

TEST(GitIgnore, RandomisedRuleSetsAgreeWithGit) {
  constexpr unsigned kScenarios = 120;
  int compared = 0, ignored = 0;
  for (unsigned seed = 1; seed <= kScenarios; ++seed) {
    Generator gen(seed);
    Scenario s = gen.scenario();
    TempDir tmp;
    std::string rules;
    for (const auto& [f, c] : s.ignore_files) rules += "--- " + f + "\n" + c;
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + rules);
    const std::set<std::string> git = check(tmp.path(), s);
    compared += static_cast<int>(s.tree.size());
    ignored += static_cast<int>(git.size());
    if (HasFailure()) break;
  }
  // Both answers are common, so that agreement means something.
  EXPECT_GT(compared, 1000);
  EXPECT_GT(ignored, compared / 10);
  EXPECT_LT(ignored, compared * 9 / 10);
  std::cout << compared << " paths compared, " << ignored << " ignored\n";
}

}  // namespace
}  // namespace brenloc::workers
