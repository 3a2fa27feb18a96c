// Fuzz target: resolution of the paths of a reindex request, against a sandbox tree built once per process
// under /tmp: files, directories, hidden entries, names that are not UTF-8, a fifo, symbolic links inside
// the repository, pointing outside it, to "/", dangling and in a loop, and a second root that is itself a
// link to the repository.
//
// The input is a list of path strings, one per line (NUL bytes and any other byte allowed; "@@" stands for
// the sandbox directory, whose name changes from run to run, so that absolute paths into it can be written).
// Each list is resolved against the real root and against the linked one, and:
//  - the outcome is the one a model of the rules predicts: for each string in turn, a NUL byte fails the
//    request, a path whose lexical form leaves the root, or passes on its way through a place that is
//    neither below the root nor one of its ancestors, is refused as outside, a path that runs through a
//    link (as written, or in its lexical form) is refused for the link, anything else is taken; a path too
//    long for the file system may end in any of these or in an error;
//  - an accepted list holds exactly what the model lists: a file as its lexical path, a directory as the
//    matches of one recursive walk per listed extension, in that order, links left out and not entered;
//    every entry lies below the root and no part of it below the root is a link (checked with lstat);
//  - while resolving, the file system is asked about nothing outside the root but the root's ancestors, and
//    no link is followed: every stat, open and realpath of the process is traced by interposing them.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "brenloc/daemon/reindex_paths.h"
#include "fuzz_check.h"

namespace {

namespace fs = std::filesystem;
using brenloc::fuzz::check;
using brenloc::fuzz::fail;
using brenloc::fuzz::shown;

constexpr const char* kOutside = "Path outside repository";
constexpr const char* kLinks = "Symlinks are not allowed in paths";
constexpr std::size_t kMaxStrings = 16;

// ---- The file-access trace ----
//
// While a resolution runs, every question the process asks the file system about a path goes through the
// functions below, which note the path (made absolute) and whether the question follows a link at its end.

struct Access {
  std::string path;
  bool follows;  // a link as the last part would be followed
  const char* call;
};

struct Trace {
  bool on = false;
  std::thread::id thread;
  std::vector<Access> accesses;
};

Trace& trace() {
  static Trace t;
  return t;
}

template <class F>
F real(const char* name) {
  void* f = ::dlsym(RTLD_NEXT, name);
  if (f == nullptr) fail(std::string("no next definition of ") + name);
  return reinterpret_cast<F>(f);
}

using StatFn = int (*)(const char*, struct stat*);
using FstatatFn = int (*)(int, const char*, struct stat*, int);
using OpenFn = int (*)(const char*, int, ...);
using OpenatFn = int (*)(int, const char*, int, ...);
using OpendirFn = DIR* (*)(const char*);
using RealpathFn = char* (*)(const char*, char*);
using ReadlinkFn = ssize_t (*)(const char*, char*, std::size_t);
using AccessFn = int (*)(const char*, int);
using FaccessatFn = int (*)(int, const char*, int, int);
using StatxFn = int (*)(int, const char*, int, unsigned, struct statx*);

int real_lstat(const char* path, struct stat* st) {
  static const auto f = real<StatFn>("lstat");
  return f(path, st);
}

std::string directory_of_fd(int dirfd) {
  if (dirfd == AT_FDCWD) {
    char cwd[PATH_MAX];
    return ::getcwd(cwd, sizeof cwd) != nullptr ? std::string(cwd) : std::string("?cwd");
  }
  static const auto read_link = real<ReadlinkFn>("readlink");
  char buf[PATH_MAX];
  const std::string proc = "/proc/self/fd/" + std::to_string(dirfd);
  const ssize_t n = read_link(proc.c_str(), buf, sizeof buf);
  return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "?fd" + std::to_string(dirfd);
}

void note_at(int dirfd, const char* path, bool follows, const char* call) {
  Trace& t = trace();
  if (!t.on || path == nullptr || std::this_thread::get_id() != t.thread) return;
  std::string p(path);
  if (p.empty() || p.front() != '/') p = directory_of_fd(dirfd) + "/" + p;
  t.accesses.push_back({std::move(p), follows, call});
}

void note(const char* path, bool follows, const char* call) { note_at(AT_FDCWD, path, follows, call); }

}  // namespace

extern "C" {

int stat(const char* path, struct stat* st) {
  static const auto f = real<StatFn>("stat");
  note(path, true, "stat");
  return f(path, st);
}

int lstat(const char* path, struct stat* st) {
  note(path, false, "lstat");
  return real_lstat(path, st);
}

int fstatat(int dirfd, const char* path, struct stat* st, int flags) {
  static const auto f = real<FstatatFn>("fstatat");
  if ((flags & AT_EMPTY_PATH) == 0 || *path != '\0') {
    note_at(dirfd, path, (flags & AT_SYMLINK_NOFOLLOW) == 0, "fstatat");
  }
  return f(dirfd, path, st, flags);
}

int statx(int dirfd, const char* path, int flags, unsigned mask, struct statx* buf) {
  static const auto f = real<StatxFn>("statx");
  if ((flags & AT_EMPTY_PATH) == 0 || *path != '\0') {
    note_at(dirfd, path, (flags & AT_SYMLINK_NOFOLLOW) == 0, "statx");
  }
  return f(dirfd, path, flags, mask, buf);
}

int open(const char* path, int flags, ...) {
  static const auto f = real<OpenFn>("open");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  note(path, (flags & O_NOFOLLOW) == 0, "open");
  return f(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
  static const auto f = real<OpenatFn>("openat");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  note_at(dirfd, path, (flags & O_NOFOLLOW) == 0, "openat");
  return f(dirfd, path, flags, mode);
}

DIR* opendir(const char* path) {
  static const auto f = real<OpendirFn>("opendir");
  note(path, true, "opendir");
  return f(path);
}

char* realpath(const char* path, char* resolved) {
  static const auto f = real<RealpathFn>("realpath");
  note(path, true, "realpath");
  return f(path, resolved);
}

ssize_t readlink(const char* path, char* buf, std::size_t size) {
  static const auto f = real<ReadlinkFn>("readlink");
  note(path, false, "readlink");
  return f(path, buf, size);
}

int access(const char* path, int mode) {
  static const auto f = real<AccessFn>("access");
  note(path, true, "access");
  return f(path, mode);
}

int faccessat(int dirfd, const char* path, int mode, int flags) {
  static const auto f = real<FaccessatFn>("faccessat");
  note_at(dirfd, path, (flags & AT_SYMLINK_NOFOLLOW) == 0, "faccessat");
  return f(dirfd, path, mode, flags);
}

}  // extern "C"

namespace {

// ---- Paths as text ----

std::vector<std::string> components(std::string_view text) {
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t j = text.find('/', i);
    if (j == std::string_view::npos) j = text.size();
    std::string_view part = text.substr(i, j - i);
    i = j + 1;
    if (!part.empty() && part != ".") parts.emplace_back(part);
  }
  return parts;
}

std::string joined(const std::vector<std::string>& parts, std::size_t count) {
  if (count == 0) return "/";
  std::string out;
  for (std::size_t i = 0; i < count; ++i) out += "/" + parts[i];
  return out;
}

std::vector<std::string> lexically_normal(const std::vector<std::string>& parts) {
  std::vector<std::string> out;
  for (const auto& p : parts) {
    if (p != "..") {
      out.push_back(p);
    } else if (!out.empty()) {
      out.pop_back();
    }
  }
  return out;
}

bool starts_with(const std::vector<std::string>& parts, const std::vector<std::string>& prefix) {
  return prefix.size() <= parts.size() && std::equal(prefix.begin(), prefix.end(), parts.begin());
}

bool is_link(const std::string& path) {
  struct stat st {};
  return real_lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// The first leading part of `parts` that is a symbolic link, looked at as the file system would walk the
// path; the walk ends quietly where a part does not exist.
std::optional<std::string> link_on_the_way(const std::vector<std::string>& parts) {
  std::string leading;
  for (const auto& part : parts) {
    leading += "/" + part;
    struct stat st {};
    if (real_lstat(leading.c_str(), &st) != 0) return std::nullopt;
    if (S_ISLNK(st.st_mode)) return leading;
  }
  return std::nullopt;
}

// A place a path may pass through: at or below the root, or on the way down to it.
bool allowed_place(const std::vector<std::string>& place, const std::vector<std::string>& root_parts) {
  return starts_with(place, root_parts) || starts_with(root_parts, place);
}

// ---- The sandbox ----

struct Sandbox {
  std::string base;         // the sandbox directory, as the kernel names it
  std::string root;         // base/repo, the repository
  std::string linked_root;  // base/linkroot, a link to the repository
};

void make_file(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) fail("cannot create " + path);
  ::close(fd);
}

void make_dir(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0) fail("cannot create directory " + path);
}

void make_link(const std::string& target, const std::string& path) {
  if (::symlink(target.c_str(), path.c_str()) != 0) fail("cannot create link " + path);
}

const Sandbox* sandbox = nullptr;

void remove_sandbox() {
  if (sandbox == nullptr) return;
  std::error_code ec;
  fs::remove_all(sandbox->base, ec);  // removes links, never what they point at
}

void build_sandbox() {
  char tmpl[] = "/tmp/brenloc-fuzz-paths-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) fail("mkdtemp failed");
  char canonical[PATH_MAX];
  if (::realpath(tmpl, canonical) == nullptr) fail("cannot resolve the sandbox");
  auto* s = new Sandbox{canonical, std::string(canonical) + "/repo", std::string(canonical) + "/linkroot"};
  sandbox = s;
  std::atexit(remove_sandbox);

  const std::string& b = s->base;
  const std::string& r = s->root;
  make_dir(b + "/outside");
  make_file(b + "/outside/secret.py");
  make_dir(b + "/outside/inner");
  make_file(b + "/outside/inner/deep.c");
  make_dir(r);
  make_link("repo", s->linked_root);
  for (const char* d : {"/src", "/src/sub", "/empty", "/.hiddendir", "/dir.py", "/src/sub/deeper"}) make_dir(r + d);
  for (const char* f : {"/a.py", "/b.c", "/README", "/.hidden.py", "/.hiddendir/h.rs", "/caf\xe9.py", "/\xff\xfe.ts",
                        "/dir.py/in.py", "/src/main.cpp", "/src/util.h", "/src/sub/deep.rs", "/src/sub/x.PY",
                        "/src/sub/deeper/z.go", "/src/sub/deeper/y.hpp", "/with space.js"}) {
    make_file(r + f);
  }
  make_file(r + "/" + std::string(240, 'n') + ".go");
  if (::mkfifo((r + "/fifo.py").c_str(), 0644) != 0) fail("mkfifo failed");
  make_link("..", r + "/src/up");
  make_link("main.cpp", r + "/src/main_link.cpp");
  make_link("src", r + "/link_in");
  make_link(r + "/src", r + "/link_in_abs");
  make_link("a.py", r + "/file_link.py");
  make_link("../outside", r + "/link_out");
  make_link(b + "/outside/secret.py", r + "/abs_out.py");
  make_link("/", r + "/to_root");
  make_link("nowhere", r + "/dangling.py");
  make_link("loop2", r + "/loop1");
  make_link("loop1", r + "/loop2");
  make_link("../../outside", r + "/src/sub/out.py");
}

// ---- The model ----

// One recursive walk for the pattern "*" + `extension`: a directory's matches in listing order, then those of
// its subdirectories in listing order; links are neither listed nor entered.
void walk_for(const std::string& directory, const std::string& extension, std::vector<std::string>& out) {
  std::vector<std::string> subdirectories;
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) fail("the model cannot read " + directory);
  while (const dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = directory + "/" + name;
    struct stat st {};
    if (real_lstat(path.c_str(), &st) != 0) fail("the model cannot look at " + path);
    if (S_ISLNK(st.st_mode)) continue;
    const bool matches = extension.find_first_of("*?[") == std::string::npos
                             ? name.size() >= extension.size() && name.ends_with(extension)
                             : ::fnmatch(("*" + extension).c_str(), name.c_str(), FNM_NOESCAPE) == 0;
    if (matches) out.push_back(path);
    if (S_ISDIR(st.st_mode)) subdirectories.push_back(path);
  }
  ::closedir(dir);
  for (const auto& sub : subdirectories) walk_for(sub, extension, out);
}

const std::vector<std::string>& expansion_of(const std::string& directory) {
  static std::map<std::string, std::vector<std::string>> cache;
  auto [it, fresh] = cache.try_emplace(directory);
  if (fresh) {
    for (auto extension : brenloc::daemon::listed_extensions()) walk_for(directory, std::string(extension), it->second);
  }
  return it->second;
}

enum class Verdict { take, nul, outside, link, unknown };

struct Expectation {
  Verdict verdict = Verdict::take;
  std::string path;  // take: the lexical path
};

Expectation expect(const std::string& root, const std::string& text) {
  if (text.find('\0') != std::string::npos) return {Verdict::nul, {}};
  const std::vector<std::string> root_parts = components(root);
  std::vector<std::string> parts = components(text);
  if (text.empty() || text.front() != '/') parts.insert(parts.begin(), root_parts.begin(), root_parts.end());
  const std::vector<std::string> normal = lexically_normal(parts);
  if (!starts_with(normal, root_parts)) return {Verdict::outside, {}};
  // On its way, the path may pass through the root's ancestors but nowhere else outside the root.
  std::vector<std::string> place;
  for (const auto& p : parts) {
    if (p != "..") {
      place.push_back(p);
    } else if (!place.empty()) {
      place.pop_back();
    }
    if (!allowed_place(place, root_parts)) return {Verdict::outside, {}};
  }
  bool too_long = joined(parts, parts.size()).size() >= PATH_MAX;
  for (const auto& p : parts) too_long = too_long || p.size() > NAME_MAX;
  if (too_long) return {Verdict::unknown, {}};
  if (link_on_the_way(parts) || link_on_the_way(normal)) return {Verdict::link, {}};
  return {Verdict::take, joined(normal, normal.size())};
}

// What the resolution must give for `strings`: the outcome, and for an accepted list its entries. `unknown`
// means that a path too long for the file system decides, and only the shape of the outcome is checked.
struct Prediction {
  Verdict verdict = Verdict::take;
  std::vector<std::string> entries;
};

Prediction predict(const std::string& root, const std::vector<std::string>& strings) {
  Prediction p;
  for (const auto& text : strings) {
    Expectation e = expect(root, text);
    if (e.verdict != Verdict::take) return {e.verdict, {}};
    struct stat st {};
    if (::stat(e.path.c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode)) {
      p.entries.push_back(e.path);
    } else if (S_ISDIR(st.st_mode)) {
      const auto& found = expansion_of(e.path);
      p.entries.insert(p.entries.end(), found.begin(), found.end());
    }
  }
  return p;
}

// ---- The checks ----

// Where the file system looks to answer a question about `a`: each leading part in turn, a link followed
// only as the last part of a question that follows links. Returns what was wrong, if anything.
std::optional<std::string> stray(const Access& a, const std::vector<std::string>& root_parts) {
  if (a.path.size() >= PATH_MAX) return std::nullopt;  // refused before any lookup
  const std::vector<std::string> parts = components(a.path);
  std::vector<std::string> place;
  std::string leading;
  for (std::size_t n = 1; n <= parts.size(); ++n) {
    if (parts[n - 1] == "..") {
      if (!place.empty()) place.pop_back();
    } else {
      place.push_back(parts[n - 1]);
    }
    if (!allowed_place(place, root_parts)) return "looked at " + shown(joined(place, place.size()));
    leading += "/" + parts[n - 1];
    if (parts[n - 1].size() > NAME_MAX) return std::nullopt;  // the lookup fails here
    struct stat st {};
    if (real_lstat(leading.c_str(), &st) != 0) return std::nullopt;  // nothing there: the lookup ends
    if (S_ISLNK(st.st_mode) && (n < parts.size() || a.follows)) return "followed the link " + shown(leading);
  }
  return std::nullopt;
}

// The accesses whose path does not lead on to that of another one. Looking at a path walks all its leading
// parts, and a link among them is followed unless it is the last, so checking the longer path covers the
// shorter one; the link guard's walk, one question per leading part, is checked once and not once per part.
std::vector<Access> outermost(const std::vector<Access>& accesses) {
  std::map<std::string, Access> by_path;
  for (const auto& a : accesses) {
    auto [it, fresh] = by_path.try_emplace(a.path, a);
    if (!fresh) it->second.follows = it->second.follows || a.follows;
  }
  std::vector<Access> out;
  for (const auto& [path, a] : by_path) {
    const std::string below = path.ends_with("/") ? path : path + "/";
    auto next = by_path.lower_bound(below);
    if (next == by_path.end() || !next->first.starts_with(below)) out.push_back(a);
  }
  return out;
}

void check_entry_below(const std::string& entry, const std::string& root, const std::function<std::string()>& where) {
  const std::vector<std::string> root_parts = components(root);
  const std::vector<std::string> parts = components(entry);
  check(!entry.empty() && entry.front() == '/',
        [&] { return where() + ": entry " + shown(entry) + " is not absolute"; });
  check(joined(parts, parts.size()) == entry,
        [&] { return where() + ": entry " + shown(entry) + " is not in its plain form"; });
  check(lexically_normal(parts) == parts, [&] { return where() + ": entry " + shown(entry) + " holds \"..\""; });
  check(starts_with(parts, root_parts), [&] { return where() + ": entry " + shown(entry) + " is not below the root"; });
  for (std::size_t n = root_parts.size() + 1; n <= parts.size(); ++n) {
    check(!is_link(joined(parts, n)), [&] { return where() + ": entry " + shown(entry) + " runs through a link"; });
  }
}

void run_one(const std::string& root, const std::vector<std::string>& strings, const std::string& input) {
  const auto where = [&] { return "root " + shown(root) + ", paths " + shown(input); };
  const Prediction want = predict(root, strings);

  Trace& t = trace();
  t.accesses.clear();
  t.thread = std::this_thread::get_id();
  t.on = true;
  std::optional<brenloc::daemon::ReindexPathResolution> got;
  std::string error;
  int error_code = 0;
  bool nul_error = false;
  try {
    got = brenloc::daemon::resolve_reindex_paths(root, strings);
  } catch (const fs::filesystem_error& e) {
    error = e.what();
    error_code = e.code().value();
  } catch (const std::invalid_argument& e) {
    error = e.what();
    nul_error = true;
  } catch (const std::exception& e) {
    t.on = false;
    fail(where() + ": failed with " + shown(e.what()));
  }
  t.on = false;

  const std::vector<std::string> root_parts = components(root);
  for (const auto& a : outermost(t.accesses)) {
    if (auto wrong = stray(a, root_parts)) fail(where() + ": " + a.call + "(" + shown(a.path) + ") " + *wrong);
  }

  if (nul_error) {
    check(want.verdict == Verdict::nul || want.verdict == Verdict::unknown,
          [&] { return where() + ": failed for a NUL byte: " + shown(error); });
    return;
  }
  if (!error.empty()) {
    check(want.verdict == Verdict::unknown && error_code == ENAMETOOLONG,
          [&] { return where() + ": failed with " + shown(error); });
    return;
  }
  const auto& [entries, reason] = *got;
  if (reason) {
    check(entries.empty(), [&] { return where() + ": refused with entries"; });
    check(*reason == kOutside || *reason == kLinks, [&] { return where() + ": refused for " + shown(*reason); });
  } else {
    for (const auto& e : entries) check_entry_below(e.native(), root, where);
  }

  switch (want.verdict) {
    case Verdict::unknown:
      return;
    case Verdict::nul:
      fail(where() + ": a path with a NUL byte did not fail the request");
    case Verdict::outside:
    case Verdict::link: {
      const char* expected = want.verdict == Verdict::outside ? kOutside : kLinks;
      check(reason.has_value() && *reason == expected, [&] {
        return where() + ": not refused with " + shown(expected) + " but " + shown(reason.value_or("(accepted)"));
      });
      return;
    }
    case Verdict::take:
      break;
  }
  check(!reason,
        [&] { return where() + ": refused with " + shown(reason.value_or("")) + " although every path is fine"; });
  check(entries.size() == want.entries.size(), [&] {
    return where() + ": " + std::to_string(entries.size()) + " entries where " + std::to_string(want.entries.size()) +
           " were expected";
  });
  for (std::size_t i = 0; i < entries.size(); ++i) {
    check(entries[i].native() == want.entries[i], [&] {
      return where() + ": entry " + std::to_string(i) + " is " + shown(entries[i].native()) + ", expected " +
             shown(want.entries[i]);
    });
  }
}

// The trace must see the questions the resolution asks, or its silence would prove nothing.
void check_trace_works() {
  const std::string file = sandbox->root + "/a.py";
  Trace& t = trace();
  t.accesses.clear();
  t.thread = std::this_thread::get_id();
  t.on = true;
  auto result = brenloc::daemon::resolve_reindex_paths(sandbox->root, {"a.py", "src"});
  t.on = false;
  check(!result.second && result.first.size() == predict(sandbox->root, {"a.py", "src"}).entries.size(),
        "the sandbox does not resolve as built");
  bool looked = false, resolved = false, opened = false;
  for (const auto& a : t.accesses) {
    looked = looked || (a.path == file && !a.follows);
    resolved = resolved || (a.path == file && a.follows);
    opened = opened || a.path == sandbox->root + "/src";
  }
  check(looked && resolved && opened, "the file-access trace does not see what the resolution asks");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  build_sandbox();
  check_trace_works();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> strings;
  std::size_t at = 0;
  while (at < input.size() && strings.size() < kMaxStrings) {
    std::size_t nl = input.find('\n', at);
    if (nl == std::string::npos) nl = input.size();
    std::string text = input.substr(at, nl - at);
    for (std::size_t mark = text.find("@@"); mark != std::string::npos; mark = text.find("@@", mark)) {
      text.replace(mark, 2, sandbox->base);
      mark += sandbox->base.size();
    }
    strings.push_back(std::move(text));
    at = nl + 1;
  }
  run_one(sandbox->root, strings, input);
  run_one(sandbox->linked_root, strings, input);
  return 0;
}
