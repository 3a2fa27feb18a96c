// Where a repository's index lives by default: $XDG_DATA_HOME/brenloc/<base name>-<8 hex digits>, the
// digits a hash of the resolved root (XDG_DATA_HOME defaults to ~/.local/share).
#pragma once

#include <filesystem>

namespace brenloc::app {

std::filesystem::path default_data_dir(const std::filesystem::path& resolved_root);

}  // namespace brenloc::app
