// Where the user's daemon keeps its socket, its lock and its log: $XDG_RUNTIME_DIR/brenloc, or, where that
// variable is unset, /run/user/<uid>/brenloc when the login manager made /run/user/<uid> for the user,
// else /tmp/brenloc-<uid> (whatever TMPDIR says: a client's pared-down environment must meet the same
// daemon). The directory is created with mode 0700 and, whether made now or found, must be a directory
// (not a link) owned by this user that nobody else may enter; anything else is refused with a message
// that says why, never used.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace brenloc::app {

struct RuntimePaths {
  std::filesystem::path dir;
  std::filesystem::path socket;  // daemon.sock: the daemon's Unix socket
  std::filesystem::path lock;    // daemon.lock: held by the one daemon, with its pid
  std::filesystem::path log;     // daemon.log: the log of a daemon started in the background
  std::string set_by;            // the variable that moved the directory from its default, or empty
};

class RuntimeDirError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws RuntimeDirError unless `dir` is a directory (not a link) of this user that nobody else may enter.
void verify_private_dir(const std::filesystem::path& dir);

// The paths, without touching the file system.
RuntimePaths runtime_paths();

// The paths, with the directory created when missing and checked as above. Throws RuntimeDirError.
RuntimePaths prepare_runtime_dir();

}  // namespace brenloc::app
