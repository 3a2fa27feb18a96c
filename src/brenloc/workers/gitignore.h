// Ignore rules as git applies them.
//
// Each .gitignore holds patterns relative to its own directory; $GIT_DIR/info/exclude and the user's
// excludes file (core.excludesFile, see git_config.h) hold patterns relative to the root. For a path, the
// lists are consulted from the deepest directory's .gitignore up to the root's, then info/exclude, then
// the user's file; inside one list the last matching pattern decides, and a negated
// pattern ("!x") decides "not ignored". A path inside an ignored directory is ignored whatever deeper
// rules say, because git never reads the ignore files of a directory it does not descend into.
//
// Patterns: a trailing "/" matches directories only; a pattern without any other "/" matches the name
// at any depth, one with a "/" is anchored at its file's directory (a leading "/" only anchors); "*",
// "?" and "[...]" do not cross "/" in anchored patterns, "**" does when it stands as a whole component;
// "\" escapes the next character; trailing spaces are dropped unless escaped; "#" starts a comment.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace brenloc::workers {

// git's wildcard matcher. With `pathname`, "*", "?" and classes never match "/" and "**" components
// match any number of directories; without it, "*" matches anything.
bool wildmatch(std::string_view pattern, std::string_view text, bool pathname);

struct IgnorePattern {
  std::string pattern;         // without a leading "!" and a trailing "/"
  std::size_t literal_prefix;  // length of the leading part free of wildcards and escapes
  bool negative = false;       // "!pattern": re-includes
  bool directory_only = false; // "pattern/"
  bool basename_only = false;  // no "/" inside: matches the last component at any depth
  bool ends_with = false;      // "*literal": a suffix test is enough
};

// The patterns of one ignore file, relative to `base` (the file's directory relative to the root,
// '/'-separated, empty for the root).
class IgnoreList {
 public:
  IgnoreList() = default;
  IgnoreList(std::string_view text, std::string base);

  // The last pattern matching `path` (relative to the root, '/'-separated), or null.
  const IgnorePattern* last_match(std::string_view path, bool is_dir) const;

  bool empty() const { return patterns_.empty(); }
  const std::string& base() const { return base_; }
  const std::vector<IgnorePattern>& patterns() const { return patterns_; }

 private:
  bool matches(const IgnorePattern& p, std::string_view path, std::string_view basename) const;

  std::string base_;
  std::vector<IgnorePattern> patterns_;
};

// The outcome of consulting a chain of lists.
enum class IgnoreVerdict { none, ignored, included };

// Consults `lists` from the last (deepest) to the first, and then `exclude`; the first list with a
// matching pattern decides.
IgnoreVerdict decide(const std::vector<const IgnoreList*>& lists, const IgnoreList* exclude, std::string_view path,
                     bool is_dir);

// The ignore rules of one working tree. Reads ignore files lazily and caches them; not thread-safe
// (one walk uses one instance).
class GitIgnore {
 public:
  // Reads $GIT_DIR/info/exclude of `root` (".git" may be a directory, or a file naming the git
  // directory as worktrees and submodules have it) and the user's excludes file; neither outside a git
  // working tree.
  explicit GitIgnore(std::filesystem::path root);

  // The list of the .gitignore in directory `dir` (relative, '/'-separated, "" for the root); empty when
  // there is none or it cannot be read. A .gitignore that is a symbolic link is not followed, as git
  // does not follow one in the working tree.
  const IgnoreList& list_for(const std::string& dir);
  // info/exclude and the user's excludes file, as one list.
  const IgnoreList& exclude() const { return exclude_; }

  // Whether `rel` is ignored, also because one of its directories is.
  bool ignored(std::string_view rel, bool is_dir);

 private:
  std::filesystem::path root_;
  IgnoreList exclude_;
  std::map<std::string, std::unique_ptr<IgnoreList>, std::less<>> lists_;
};

// The files whose content decides what GitIgnore(root).exclude() holds, whether they exist or not:
// info/exclude, the user's excludes file and the git configuration files that may name another one.
// Outside a git working tree, those of a repository created at `root` later (.git/info/exclude and
// .git/config).
std::vector<std::filesystem::path> exclude_sources(const std::filesystem::path& root);

}  // namespace brenloc::workers
