#include "brenloc/workers/git_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <utility>
#include <vector>

namespace brenloc::workers {

namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

// git's reading of a boolean in the environment: a word, or a number (true unless zero).
bool env_true(const char* name) {
  const std::string v = lower(env(name));
  if (v == "true" || v == "yes" || v == "on") return true;
  char* end = nullptr;
  const long n = std::strtol(v.c_str(), &end, 10);
  return !v.empty() && *end == '\0' && n != 0;
}

// The user's git configuration directory: $XDG_CONFIG_HOME/git, else ~/.config/git; empty without either.
std::filesystem::path user_git_dir() {
  const std::string xdg = env("XDG_CONFIG_HOME");
  if (!xdg.empty()) return std::filesystem::path(xdg) / "git";
  const std::string home = env("HOME");
  if (!home.empty()) return std::filesystem::path(home) / ".config" / "git";
  return {};
}

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

}  // namespace

std::string read_regular_file(const std::filesystem::path& path, bool follow_links) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | (follow_links ? 0 : O_NOFOLLOW));
  if (fd < 0) return {};
  std::string out;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    char buf[16384];
    while (true) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return out;
}

namespace {

// Calls fn(section, name, value) for each variable of a config file's text, in order; section and name in
// lower case, a section with a subsection starting with a newline (it matches no plain section's name).
template <class Fn>
void for_each_variable(std::string_view text, Fn&& fn) {
  std::string section;  // of the lines read; a subsection makes it match no plain section
  std::size_t i = 0;
  const std::size_t n = text.size();
  auto skip_line = [&] {
    while (i < n && text[i] != '\n') ++i;
  };
  while (i < n) {
    while (i < n && blank(text[i])) ++i;
    if (i >= n) break;
    const char c = text[i];
    if (c == '\n') {
      ++i;
      continue;
    }
    if (c == '#' || c == ';') {
      skip_line();
      continue;
    }
    if (c == '[') {  // "[section]", "[section \"sub\"]", "[section.sub]"; a variable may follow on the line
      ++i;
      const std::size_t start = i;
      while (i < n && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '-' || text[i] == '.')) ++i;
      section = lower(text.substr(start, i - start));
      bool plain = section.find('.') == std::string::npos;
      for (; i < n && text[i] != ']' && text[i] != '\n'; ++i) {
        if (!blank(text[i])) plain = false;
      }
      if (!plain) section.insert(0, "\n");  // a subsection: it matches no plain section's name
      if (i < n && text[i] == ']') ++i;
      continue;
    }
    std::size_t start = i;
    while (i < n && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '-')) ++i;
    const std::string name = lower(text.substr(start, i - start));
    while (i < n && blank(text[i])) ++i;
    if (name.empty() || i >= n || text[i] != '=') {  // malformed, or a boolean without a value
      skip_line();
      continue;
    }
    ++i;
    while (i < n && blank(text[i])) ++i;
    std::string value;
    std::size_t kept = 0;  // the value without its trailing unquoted white space
    bool quoted = false;
    while (i < n && text[i] != '\n') {
      const char v = text[i];
      if (!quoted && (v == '#' || v == ';')) {
        skip_line();
        break;
      }
      if (v == '"') {
        quoted = !quoted;
        ++i;
        kept = value.size();
        continue;
      }
      if (v == '\\' && i + 1 < n) {
        const char e = text[i + 1];
        i += 2;
        if (e == '\n') continue;  // the value goes on on the next line
        if (e == '\r' && i < n && text[i] == '\n') {
          ++i;
          continue;
        }
        value += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'b' ? '\b' : e;
        kept = value.size();
        continue;
      }
      value += !quoted && blank(v) ? ' ' : v;  // unquoted white space reads as spaces
      if (quoted || !blank(v)) kept = value.size();
      ++i;
    }
    value.resize(kept);
    fn(section, name, std::move(value));
  }
}

// A key "section.name" as the parser reports it: lower case, split at its last dot.
std::pair<std::string, std::string> split_key(std::string_view key) {
  const std::size_t dot = key.rfind('.');
  if (dot == std::string_view::npos) return {"\n", ""};  // matches nothing
  return {lower(key.substr(0, dot)), lower(key.substr(dot + 1))};
}

std::filesystem::path expand_home(const std::string& path) {
  if (!path.starts_with("~/")) return path;
  const std::string home = env("HOME");
  return home.empty() ? std::filesystem::path() : std::filesystem::path(home) / path.substr(2);
}

// git follows includes this deep, then gives up.
constexpr int kMaxIncludeDepth = 10;

// Reads `file` into `value` as git would: the last value of the key wins, and an [include] path's file
// counts where the directive stands (relative to the including file's directory).
void read_config_file(const std::filesystem::path& file, const std::pair<std::string, std::string>& key,
                      std::optional<std::string>& value, int depth) {
  // The user's files are often links into a folder of dotfiles.
  for_each_variable(read_regular_file(file, true), [&](const std::string& section, const std::string& name,
                                                       std::string v) {
    if (section == "include" && name == "path") {
      std::filesystem::path included = expand_home(v);
      if (included.empty() || depth >= kMaxIncludeDepth) return;
      read_config_file(included.is_relative() ? file.parent_path() / included : included, key, value, depth + 1);
    } else if (section == key.first && name == key.second) {
      value = std::move(v);
    }
  });
}

}  // namespace

std::optional<std::string> config_file_value(std::string_view text, std::string_view key) {
  const auto [want_section, want_name] = split_key(key);
  std::optional<std::string> found;
  for_each_variable(text, [&](const std::string& section, const std::string& name, std::string value) {
    if (section == want_section && name == want_name) found = std::move(value);
  });
  return found;
}

std::vector<std::filesystem::path> config_files(const std::filesystem::path& git_dir) {
  std::vector<std::filesystem::path> files;
  if (!env_true("GIT_CONFIG_NOSYSTEM")) {
    files.emplace_back(env("GIT_CONFIG_SYSTEM").empty() ? "/etc/gitconfig" : env("GIT_CONFIG_SYSTEM"));
  }
  if (!env("GIT_CONFIG_GLOBAL").empty()) {
    files.emplace_back(env("GIT_CONFIG_GLOBAL"));
  } else {
    if (auto dir = user_git_dir(); !dir.empty()) files.push_back(dir / "config");
    const std::string home = env("HOME");
    if (!home.empty()) files.push_back(std::filesystem::path(home) / ".gitconfig");
  }
  if (!git_dir.empty()) files.push_back(git_dir / "config");
  return files;
}

std::optional<std::string> git_config_value(const std::filesystem::path& git_dir, std::string_view key) {
  std::optional<std::string> value;
  const auto parts = split_key(key);
  for (const auto& f : config_files(git_dir)) read_config_file(f, parts, value, 0);
  return value;
}

std::filesystem::path user_excludes_file(const std::filesystem::path& git_dir, const std::filesystem::path& root) {
  if (auto v = git_config_value(git_dir, "core.excludesfile")) {
    if (v->empty()) return {};
    std::filesystem::path p = expand_home(*v);
    return p.is_relative() && !p.empty() ? root / p : p;
  }
  const std::filesystem::path dir = user_git_dir();
  return dir.empty() ? dir : dir / "ignore";
}

}  // namespace brenloc::workers
