// Where a repository's index lives by default: <data home>/brenloc/<base name>-<8 hex digits>, the digits
// a hash of the resolved root. The data home is $XDG_DATA_HOME when set, else .local/share in the
// account's home as the password database gives it: not $HOME, which a client may drop or change, so
// that a session started with a pared-down environment finds the index the user's shell made.
#pragma once

#include <filesystem>
#include <string>

namespace brenloc::app {

// The account's home directory from the password database ($HOME only when the account has none).
std::filesystem::path account_home();

struct DataHome {
  std::filesystem::path dir;
  std::string set_by;  // the variable that moved it from its default, or empty
};

DataHome data_home();

std::filesystem::path default_data_dir(const std::filesystem::path& resolved_root);

}  // namespace brenloc::app
