#include "brenloc/workers/gitignore.h"

#include <cctype>
#include <cstring>

#include "brenloc/workers/git_config.h"

namespace brenloc::workers {

namespace {

enum Match { kMatch = 0, kNoMatch = 1, kAbortAll = -1, kAbortToStarStar = -2 };

bool is_glob_special(unsigned char c) { return c == '*' || c == '?' || c == '[' || c == '\\'; }

bool class_matches(const unsigned char* s, int len, unsigned char c, bool* known) {
  auto is = [&](const char* name) { return std::strlen(name) == static_cast<std::size_t>(len) &&
                                           std::memcmp(s, name, len) == 0; };
  *known = true;
  if (is("alnum")) return std::isalnum(c);
  if (is("alpha")) return std::isalpha(c);
  if (is("blank")) return c == ' ' || c == '\t';
  if (is("cntrl")) return std::iscntrl(c);
  if (is("digit")) return std::isdigit(c);
  if (is("graph")) return std::isgraph(c);
  if (is("lower")) return std::islower(c);
  if (is("print")) return std::isprint(c);
  if (is("punct")) return std::ispunct(c);
  if (is("space")) return std::isspace(c);
  if (is("upper")) return std::isupper(c);
  if (is("xdigit")) return std::isxdigit(c);
  *known = false;
  return false;
}

// The matcher proper, on NUL-terminated strings. Returns one of Match.
int dowild(const unsigned char* p, const unsigned char* text, bool pathname) {
  const unsigned char* pattern = p;
  unsigned char p_ch;
  for (; (p_ch = *p) != '\0'; text++, p++) {
    unsigned char t_ch = *text;
    if (t_ch == '\0' && p_ch != '*') return kAbortAll;
    switch (p_ch) {
      case '\\':
        // A literal match with the next character; a trailing backslash matches nothing.
        p_ch = *++p;
        [[fallthrough]];
      default:
        if (t_ch != p_ch) return kNoMatch;
        continue;
      case '?':
        if (pathname && t_ch == '/') return kNoMatch;
        continue;
      case '*': {
        bool match_slash;
        if (*++p == '*') {
          const unsigned char* prev_p = p - 2;
          while (*++p == '*') {
          }
          if ((prev_p < pattern || *prev_p == '/') &&
              (*p == '\0' || *p == '/' || (p[0] == '\\' && p[1] == '/'))) {
            // "**/" matching no directory at all: try the rest of the pattern here first.
            if (p[0] == '/' && dowild(p + 1, text, pathname) == kMatch) return kMatch;
            match_slash = true;
          } else {
            match_slash = !pathname;
          }
        } else {
          match_slash = !pathname;
        }
        if (*p == '\0') {
          // A trailing "**" matches everything; a trailing "*" only what has no more slashes.
          if (!match_slash && std::strchr(reinterpret_cast<const char*>(text), '/') != nullptr) return kNoMatch;
          return kMatch;
        }
        if (!match_slash && *p == '/') {
          // One "*" followed by "/" matches the rest of this component.
          const char* slash = std::strchr(reinterpret_cast<const char*>(text), '/');
          if (slash == nullptr) return kNoMatch;
          text = reinterpret_cast<const unsigned char*>(slash);
          break;  // the slash is consumed by the loop
        }
        while (true) {
          if (t_ch == '\0') break;
          if (!is_glob_special(*p)) {
            // A literal follows: skip ahead to its next occurrence (not past a slash unless allowed).
            p_ch = *p;
            while ((t_ch = *text) != '\0' && (match_slash || t_ch != '/')) {
              if (t_ch == p_ch) break;
              text++;
            }
            if (t_ch != p_ch) return kNoMatch;
          }
          int matched = dowild(p, text, pathname);
          if (matched != kNoMatch) {
            if (!match_slash || matched != kAbortToStarStar) return matched;
          } else if (!match_slash && t_ch == '/') {
            return kAbortToStarStar;
          }
          t_ch = *++text;
        }
        return kAbortAll;
      }
      case '[': {
        p_ch = *++p;
        if (p_ch == '^') p_ch = '!';
        bool negated = p_ch == '!';
        if (negated) p_ch = *++p;
        unsigned char prev_ch = 0;
        bool matched = false;
        do {
          if (p_ch == '\0') return kAbortAll;
          if (p_ch == '\\') {
            p_ch = *++p;
            if (p_ch == '\0') return kAbortAll;
            if (t_ch == p_ch) matched = true;
          } else if (p_ch == '-' && prev_ch != 0 && p[1] != '\0' && p[1] != ']') {
            p_ch = *++p;
            if (p_ch == '\\') {
              p_ch = *++p;
              if (p_ch == '\0') return kAbortAll;
            }
            if (t_ch <= p_ch && t_ch >= prev_ch) matched = true;
            p_ch = 0;  // a range does not start another range
          } else if (p_ch == '[' && p[1] == ':') {
            const unsigned char* s = p += 2;
            for (; (p_ch = *p) != '\0' && p_ch != ']'; p++) {
            }
            if (p_ch == '\0') return kAbortAll;
            int len = static_cast<int>(p - s) - 1;
            if (len < 0 || p[-1] != ':') {
              // Not "[:class:]": the "[" is an ordinary member.
              p = s - 2;
              p_ch = '[';
              if (t_ch == p_ch) matched = true;
              continue;
            }
            bool known = false;
            if (class_matches(s, len, t_ch, &known)) matched = true;
            if (!known) return kAbortAll;
            p_ch = 0;
          } else if (t_ch == p_ch) {
            matched = true;
          }
        } while (prev_ch = p_ch, (p_ch = *++p) != ']');
        if (matched == negated || (pathname && t_ch == '/')) return kNoMatch;
        continue;
      }
    }
  }
  return *text != '\0' ? kNoMatch : kMatch;
}

std::size_t literal_length(std::string_view s) {
  std::size_t n = 0;
  while (n < s.size() && !is_glob_special(static_cast<unsigned char>(s[n]))) ++n;
  return n;
}

// Drops trailing spaces that are not escaped by a backslash.
void trim_trailing_spaces(std::string& line) {
  std::size_t last_space = std::string::npos;
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == ' ') {
      if (last_space == std::string::npos) last_space = i;
    } else if (c == '\\') {
      ++i;
      if (i >= line.size()) return;
      last_space = std::string::npos;
    } else {
      last_space = std::string::npos;
    }
  }
  if (last_space != std::string::npos) line.resize(last_space);
}

IgnorePattern parse_pattern(std::string_view line) {
  IgnorePattern p;
  if (!line.empty() && line.front() == '!') {
    p.negative = true;
    line.remove_prefix(1);
  }
  if (!line.empty() && line.back() == '/') {
    p.directory_only = true;
    line.remove_suffix(1);
  }
  p.basename_only = line.find('/') == std::string_view::npos;
  p.pattern = std::string(line);
  p.literal_prefix = literal_length(line);
  p.ends_with = !line.empty() && line.front() == '*' && literal_length(line.substr(1)) == line.size() - 1;
  return p;
}

// Reads a regular file that is not a symbolic link; empty when it cannot be read.
std::string read_small_file(const std::filesystem::path& path) { return read_regular_file(path, false); }

std::string_view without_bom(std::string_view text) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  return text;
}

// The git directory of a working tree whose ".git" is a file ("gitdir: <path>").
std::filesystem::path git_dir_of(const std::filesystem::path& root) {
  std::filesystem::path dot_git = root / ".git";
  std::error_code ec;
  if (std::filesystem::is_directory(std::filesystem::symlink_status(dot_git, ec))) return dot_git;
  std::string text = read_small_file(dot_git);
  static constexpr std::string_view kPrefix = "gitdir:";
  if (text.rfind(kPrefix, 0) != 0) return {};
  std::string dir = text.substr(kPrefix.size());
  while (!dir.empty() && (dir.back() == '\n' || dir.back() == '\r' || dir.back() == ' ')) dir.pop_back();
  while (!dir.empty() && dir.front() == ' ') dir.erase(0, 1);
  std::filesystem::path gd(dir);
  if (gd.is_relative()) gd = root / gd;
  // A linked worktree keeps info/exclude in the common directory.
  std::string common = read_small_file(gd / "commondir");
  while (!common.empty() && (common.back() == '\n' || common.back() == '\r')) common.pop_back();
  if (!common.empty()) {
    std::filesystem::path cd(common);
    return cd.is_relative() ? gd / cd : cd;
  }
  return gd;
}

}  // namespace

bool wildmatch(std::string_view pattern, std::string_view text, bool pathname) {
  std::string p(pattern), t(text);
  return dowild(reinterpret_cast<const unsigned char*>(p.c_str()), reinterpret_cast<const unsigned char*>(t.c_str()),
                pathname) == kMatch;
}

IgnoreList::IgnoreList(std::string_view text, std::string base) : base_(std::move(base)) {
  text = without_bom(text);
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view raw = text.substr(start, end - start);
    start = end + 1;
    if (raw.empty() || raw.front() == '#') continue;
    if (raw.back() == '\r') raw.remove_suffix(1);
    // A NUL ends the line as far as the pattern goes.
    raw = raw.substr(0, raw.find('\0'));
    std::string line(raw);
    trim_trailing_spaces(line);
    IgnorePattern p = parse_pattern(line);
    if (p.pattern.empty()) continue;  // matches no path
    patterns_.push_back(std::move(p));
  }
}

bool IgnoreList::matches(const IgnorePattern& p, std::string_view path, std::string_view basename) const {
  if (p.basename_only) {
    if (p.literal_prefix == p.pattern.size()) return basename == p.pattern;
    if (p.ends_with) {
      std::string_view tail = std::string_view(p.pattern).substr(1);
      return basename.size() >= tail.size() && basename.substr(basename.size() - tail.size()) == tail;
    }
    return wildmatch(p.pattern, basename, false);
  }
  // Anchored: the pattern is relative to the list's directory.
  std::string_view pattern = p.pattern;
  std::size_t prefix = p.literal_prefix;
  if (!pattern.empty() && pattern.front() == '/') {
    pattern.remove_prefix(1);
    prefix = prefix > 0 ? prefix - 1 : 0;
  }
  std::string_view name = path;
  if (!base_.empty()) {
    if (path.size() < base_.size() + 1 || path.compare(0, base_.size(), base_) != 0 || path[base_.size()] != '/') {
      return false;
    }
    name = path.substr(base_.size() + 1);
  }
  if (prefix > 0) {
    // The part before the first wildcard compares literally; what follows is matched on its own, so a
    // "**" right after it counts as the start of the pattern.
    if (prefix > name.size() || name.compare(0, prefix, pattern.substr(0, prefix)) != 0) return false;
    pattern.remove_prefix(prefix);
    name.remove_prefix(prefix);
    if (pattern.empty() && name.empty()) return true;
  }
  return wildmatch(pattern, name, true);
}

const IgnorePattern* IgnoreList::last_match(std::string_view path, bool is_dir) const {
  std::size_t slash = path.rfind('/');
  std::string_view basename = slash == std::string_view::npos ? path : path.substr(slash + 1);
  for (auto it = patterns_.rbegin(); it != patterns_.rend(); ++it) {
    if (it->directory_only && !is_dir) continue;
    if (matches(*it, path, basename)) return &*it;
  }
  return nullptr;
}

IgnoreVerdict decide(const std::vector<const IgnoreList*>& lists, const IgnoreList* exclude, std::string_view path,
                     bool is_dir) {
  for (auto it = lists.rbegin(); it != lists.rend(); ++it) {
    if (const IgnorePattern* p = (*it)->last_match(path, is_dir)) {
      return p->negative ? IgnoreVerdict::included : IgnoreVerdict::ignored;
    }
  }
  if (exclude != nullptr) {
    if (const IgnorePattern* p = exclude->last_match(path, is_dir)) {
      return p->negative ? IgnoreVerdict::included : IgnoreVerdict::ignored;
    }
  }
  return IgnoreVerdict::none;
}

GitIgnore::GitIgnore(std::filesystem::path root) : root_(std::move(root)) {
  std::filesystem::path git_dir = git_dir_of(root_);
  if (git_dir.empty()) return;
  // The user's excludes file counts below info/exclude: as one list, in which the last match decides,
  // its patterns come first. It is the user's own file, read through a symbolic link too. Each file may
  // start with a byte-order mark.
  std::string text;
  if (auto user = user_excludes_file(git_dir, root_); !user.empty()) {
    text = without_bom(read_regular_file(user, true));
    if (!text.empty()) text += '\n';
  }
  text += without_bom(read_small_file(git_dir / "info" / "exclude"));
  exclude_ = IgnoreList(text, "");
}

const IgnoreList& GitIgnore::list_for(const std::string& dir) {
  auto it = lists_.find(dir);
  if (it != lists_.end()) return *it->second;
  std::filesystem::path file = dir.empty() ? root_ / ".gitignore" : root_ / dir / ".gitignore";
  auto list = std::make_unique<IgnoreList>(read_small_file(file), dir);
  return *lists_.emplace(dir, std::move(list)).first->second;
}

bool GitIgnore::ignored(std::string_view rel, bool is_dir) {
  std::vector<const IgnoreList*> lists{&list_for("")};
  std::size_t pos = 0;
  while (true) {
    std::size_t slash = rel.find('/', pos);
    if (slash == std::string_view::npos) break;
    std::string dir(rel.substr(0, slash));
    if (decide(lists, &exclude_, dir, true) == IgnoreVerdict::ignored) return true;
    lists.push_back(&list_for(dir));
    pos = slash + 1;
  }
  return decide(lists, &exclude_, rel, is_dir) == IgnoreVerdict::ignored;
}

std::vector<std::filesystem::path> exclude_sources(const std::filesystem::path& root) {
  std::filesystem::path git_dir = git_dir_of(root);
  if (git_dir.empty()) return {root / ".git" / "info" / "exclude", root / ".git" / "config"};
  std::vector<std::filesystem::path> out{git_dir / "info" / "exclude"};
  if (auto user = user_excludes_file(git_dir, root); !user.empty()) out.push_back(user);
  for (auto& f : config_files(git_dir)) out.push_back(std::move(f));
  return out;
}

}  // namespace brenloc::workers
