#include "brenloc/app/runtime_dir.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace brenloc::app {

namespace fs = std::filesystem;

namespace {

// The directory, and the variable that moved it from where a pared-down environment would look.
std::pair<fs::path, std::string> runtime_dir_path() {
  // Assistants often start their servers with a pared-down environment: where the login manager made
  // the user's runtime directory, it is the one a shell of the same user names, so both meet there.
  std::optional<fs::path> login = fmt::format("/run/user/{}", ::getuid());
  struct stat st {};
  if (::lstat(login->c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid() || (st.st_mode & 077) != 0) {
    login.reset();
  }
  // Without one, /tmp: not $TMPDIR, which such an environment drops as well.
  const fs::path fallback = login ? *login / "brenloc" : fs::path(fmt::format("/tmp/brenloc-{}", ::getuid()));
  if (const char* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg != nullptr && *xdg == '/') {
    fs::path dir = fs::path(xdg) / "brenloc";
    return {dir, dir == fallback ? "" : "XDG_RUNTIME_DIR"};
  }
  return {fallback, ""};
}

}  // namespace

void verify_private_dir(const fs::path& dir) {
  struct stat st {};
  if (::lstat(dir.c_str(), &st) != 0) {
    throw RuntimeDirError(fmt::format("the runtime directory {} cannot be examined: {}", dir.string(),
                                      std::strerror(errno)));
  }
  if (!S_ISDIR(st.st_mode)) {
    throw RuntimeDirError(fmt::format("the runtime directory {} is not a directory{}", dir.string(),
                                      S_ISLNK(st.st_mode) ? " (it is a symbolic link)" : ""));
  }
  if (st.st_uid != ::getuid()) {
    throw RuntimeDirError(fmt::format("the runtime directory {} belongs to uid {}, not to you (uid {}): someone "
                                      "else made it, so brenloc will not use it",
                                      dir.string(), st.st_uid, ::getuid()));
  }
  if ((st.st_mode & 077) != 0) {
    throw RuntimeDirError(fmt::format("the runtime directory {} has mode {:04o}; it must be 0700 (closed to other "
                                      "users): fix it with chmod 700 or remove it",
                                      dir.string(), st.st_mode & 07777));
  }
}

RuntimePaths runtime_paths() {
  auto [dir, set_by] = runtime_dir_path();
  return {dir, dir / "daemon.sock", dir / "daemon.lock", dir / "daemon.log", set_by};
}

RuntimePaths prepare_runtime_dir() {
  RuntimePaths paths = runtime_paths();
  if (::mkdir(paths.dir.c_str(), 0700) != 0 && errno != EEXIST) {
    throw RuntimeDirError(fmt::format("cannot create the runtime directory {}: {}", paths.dir.string(),
                                      std::strerror(errno)));
  }
  verify_private_dir(paths.dir);
  if (paths.socket.native().size() >= sizeof(sockaddr_un{}.sun_path)) {
    throw RuntimeDirError(fmt::format("the socket path {} is too long for a Unix socket ({} bytes at most)",
                                      paths.socket.string(), sizeof(sockaddr_un{}.sun_path) - 1));
  }
  return paths;
}

}  // namespace brenloc::app
