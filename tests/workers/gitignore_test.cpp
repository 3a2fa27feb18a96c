// The ignore matcher against git itself: wildcard cases, git's configuration files, and randomised rule
// sets and trees whose every path is checked with `git check-ignore` and walked.
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/engines/languages.h"
#include "brenloc/workers/git_config.h"
#include "brenloc/workers/gitignore.h"
#include "brenloc/workers/walker.h"
#include "workers_fixtures.h"

namespace brenloc::workers {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::write_file;

TEST(Wildmatch, MatchesAsGitDoes) {
  const struct {
    const char *pattern, *text;
    bool pathname, expected;
  } cases[] = {
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

TEST(GitConfig, ReadsValuesAsGitDoes) {
  const struct {
    const char* text;
    std::optional<std::string> expected;
  } cases[] = {
      {"[core]\n\texcludesFile = ~/.ignore\n", "~/.ignore"},
      {"[Core]\nEXCLUDESFILE=a\n[core]\n  excludesfile = b # later wins\n", "b"},
      {"[core \"sub\"]\nexcludesfile = a\n[core.sub]\nexcludesfile = b\n[user]\nexcludesfile = c\n", std::nullopt},
      {"[core] excludesfile = \"with \\\"quotes\\\" ; and # marks \"  ; comment\n", "with \"quotes\" ; and # marks "},
      {"[core]\nexcludesfile = a\\\n b\r\n", "a b"},
      {"[core]\nexcludesfile = a\tb \" \tc\"\t\n", "a b  \tc"},
      {"# [core]\n; excludesfile = x\n[core]\nbare = true\n", std::nullopt},
      {"[core]\nexcludesfile =\n", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(config_file_value(c.text, "core.excludesFile"), c.expected) << c.text;
}

// A tree: paths ending in "/" are directories, others files; `ignore_files` maps a relative path
// (".gitignore", "sub/.gitignore", ".git/info/exclude") to its content. The user's excludes file holds
// `user_rules`, found the default way (0), through ~/.gitconfig (1), through the repository's config (2) or
// through a file that ~/.gitconfig includes after naming another (3).
struct Scenario {
  std::vector<std::string> tree;
  std::map<std::string, std::string> ignore_files;
  std::string user_rules;
  int user_via = 0;
};

std::string without_slash(const std::string& p) { return p.back() == '/' ? p.substr(0, p.size() - 1) : p; }

// What `git check-ignore` says of `paths` (relative, existing) under `dir`, asked of a git whose home is
// `home` (temporary directories: no quotes in them) and that reads no system configuration.
std::set<std::string> git_ignored(const fs::path& dir, const fs::path& home, const std::vector<std::string>& paths) {
  std::string input;
  for (const auto& p : paths) input += p + '\0';
  write_file(dir / ".git/check-ignore-input", input);
  const std::string q = "'" + dir.string() + "'";
  const std::string cmd = "env HOME='" + home.string() + "' XDG_CONFIG_HOME='" + home.string() +
                          "/.config' GIT_CONFIG_NOSYSTEM=1 git -C " + q + " check-ignore -z --stdin < " + q +
                          "/.git/check-ignore-input 2>/dev/null";
  std::string out;
  FILE* f = ::popen(cmd.c_str(), "r");
  char buf[4096];
  for (std::size_t n; f != nullptr && (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  if (f != nullptr) ::pclose(f);
  std::set<std::string> ignored;
  for (std::size_t at = 0, end; (end = out.find('\0', at)) != std::string::npos; at = end + 1) {
    ignored.insert(out.substr(at, end - at));
  }
  return ignored;
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
    if (pick(3) == 0) {
      s.user_rules = rules();
      s.user_via = pick(4);
    }
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
    std::string out = pick(6) == 0 ? "\xEF\xBB\xBF" : "";  // a byte-order mark
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

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (old_) ::setenv(name_, old_->c_str(), 1);
    else ::unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Each tree is made in an empty repository (by hand, as `git init` would), and both the matcher and a whole
// walk are checked against git.
TEST(GitIgnore, RandomisedRuleSetsAgreeWithGit) {
  TempDir home;
  ScopedEnv home_env("HOME", home.path().string());
  ScopedEnv xdg_env("XDG_CONFIG_HOME", (home.path() / ".config").string());
  ScopedEnv system_env("GIT_CONFIG_NOSYSTEM", "1");
  constexpr unsigned kScenarios = 120;
  int compared = 0, ignored = 0;
  for (unsigned seed = 1; seed <= kScenarios && !HasFailure(); ++seed) {
    const Scenario s = Generator(seed).scenario();
    std::string rules;
    for (const auto& [f, c] : s.ignore_files) rules += "--- " + f + "\n" + c;
    if (!s.user_rules.empty()) rules += "--- the user's, way " + std::to_string(s.user_via) + "\n" + s.user_rules;
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + rules);
    TempDir tmp;
    const fs::path& root = tmp.path();
    write_file(root / ".git/HEAD", "ref: refs/heads/main\n");
    std::string config = "[core]\n\trepositoryformatversion = 0\n\tbare = false\n";
    fs::remove_all(home.path());
    fs::create_directories(home.path());
    if (!s.user_rules.empty()) {
      switch (s.user_via) {
        case 0: write_file(home.path() / ".config/git/ignore", s.user_rules); break;
        case 1:
          write_file(home.path() / ".gitconfig", "[Core]\n  ExcludesFile = ~/ignores\n");
          write_file(home.path() / "ignores", s.user_rules);
          break;
        case 2:
          config += "\texcludesfile = \".git/my ignores\"\n";
          write_file(root / ".git/my ignores", s.user_rules);
          break;
        default:
          write_file(home.path() / ".gitconfig", "[core]\n excludesFile = ~/none\n[include]\n path = conf/more\n");
          write_file(home.path() / "conf/more", "[core]\n excludesFile = ~/ignores\n");
          write_file(home.path() / "ignores", s.user_rules);
      }
    }
    write_file(root / ".git/config", config);
    for (const char* d : {"objects", "refs/heads"}) fs::create_directories(root / ".git" / d);
    std::vector<std::string> paths;
    for (const auto& p : s.tree) {
      if (p.back() == '/') fs::create_directories(root / p);
      else write_file(root / p, "int x;\n");
      paths.push_back(without_slash(p));
    }
    for (const auto& [p, content] : s.ignore_files) write_file(root / p, content);
    const std::set<std::string> git = git_ignored(root, home.path(), paths);

    GitIgnore gi(root);
    std::set<std::string> ours, expected_walk, walked;
    for (const auto& p : s.tree) {
      if (gi.ignored(without_slash(p), p.back() == '/')) ours.insert(without_slash(p));
      if (p.back() != '/' && !git.contains(p) && engines::language_for_path(p)) expected_walk.insert(p);
    }
    EXPECT_EQ(ours, git);
    std::atomic<bool> stop{false};
    const Collected c = collect_files(WalkPolicy{root, root / ".brenloc"}, std::nullopt, stop);
    for (const auto& f : c.files) walked.insert(f.rel);
    EXPECT_EQ(walked, expected_walk) << "a whole walk yields the files git leaves unignored";
    EXPECT_TRUE(c.errors.empty());
    compared += static_cast<int>(s.tree.size());
    ignored += static_cast<int>(git.size());
  }
  // Both answers are common, so that agreement means something.
  EXPECT_GT(compared, 1000);
  EXPECT_GT(ignored, compared / 10);
  EXPECT_LT(ignored, compared * 9 / 10);
  std::cout << compared << " paths compared, " << ignored << " ignored\n";
}

// The user's excludes file is the user's to name: a FIFO there must not stop the walk.
TEST(GitIgnore, UserExcludesFileThatIsAFifoReadsAsEmpty) {
  TempDir home, repo;
  ScopedEnv xdg_env("XDG_CONFIG_HOME", (home.path() / ".config").string());
  ScopedEnv system_env("GIT_CONFIG_NOSYSTEM", "1");
  fs::create_directories(home.path() / ".config/git");
  ASSERT_EQ(::mkfifo((home.path() / ".config/git/ignore").c_str(), 0600), 0);
  write_file(repo.path() / ".git/HEAD", "ref: refs/heads/main\n");
  write_file(repo.path() / ".git/info/exclude", "*.log\n");
  GitIgnore gi(repo.path());
  EXPECT_TRUE(gi.ignored("a.log", false));
  EXPECT_FALSE(gi.ignored("a.c", false));
}

}  // namespace
}  // namespace brenloc::workers
