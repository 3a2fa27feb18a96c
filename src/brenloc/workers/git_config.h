// What git's configuration says of a repository, read from its files as git reads them: the system file
// (/etc/gitconfig, or $GIT_CONFIG_SYSTEM; none with $GIT_CONFIG_NOSYSTEM), the user's files
// ($XDG_CONFIG_HOME/git/config then ~/.gitconfig, or $GIT_CONFIG_GLOBAL alone) and the repository's
// config, the last value set winning. An [include] path counts where it stands; conditional includes
// ([includeIf ...]) are not followed.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brenloc::workers {

// The content of a regular file, read without blocking (a FIFO or a device reads as empty, as does a file
// that cannot be read). A symbolic link is followed only with `follow_links`.
std::string read_regular_file(const std::filesystem::path& path, bool follow_links);

// The last value of `key` ("section.name": no subsection, any case) in one config file's text: sections
// and names in any case, quoted values, escapes, comments and continued lines as git has them.
std::optional<std::string> config_file_value(std::string_view text, std::string_view key);

// The files that git_config_value reads, in order, whether they exist or not (without their includes).
std::vector<std::filesystem::path> config_files(const std::filesystem::path& git_dir);

// The value of `key` for the repository whose git directory is `git_dir`.
std::optional<std::string> git_config_value(const std::filesystem::path& git_dir, std::string_view key);

// The user's excludes file for the repository at `root`: core.excludesFile ("~/" is the home directory, a
// relative path is relative to `root`), else $XDG_CONFIG_HOME/git/ignore or ~/.config/git/ignore; empty
// when there is none.
std::filesystem::path user_excludes_file(const std::filesystem::path& git_dir, const std::filesystem::path& root);

}  // namespace brenloc::workers
