// The text of indexed files as it is on disk now, for the signatures of hits and the source of a
// definition. Each file is read once per SourceFiles; a file that is gone, is reached through a
// symbolic link, is no regular file or is over 1 MiB reads as absent.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace brenloc::storage {

class SourceFiles {
 public:
  explicit SourceFiles(std::filesystem::path repo_root) : root_(std::move(repo_root)) {}

  // Lines `first` .. `last` (1-based, inclusive) of the file at the relative path `rel` (text form, as
  // stored), joined by "\n"
  // (without a final one); absent when the file cannot be read or is shorter than `first`; cut at its
  // end when shorter than `last`.
  std::optional<std::string> lines(const std::string& rel, int first, int last);
  // The whole text of the file, or null when it cannot be read.
  const std::string* content(const std::string& rel);

 private:

  std::filesystem::path root_;
  std::map<std::string, std::optional<std::string>> files_;
};

// The signature of a definition from its text (its lines from the first one), the line that names it
// being `name_row` lines down: that line and the ones above it, each trimmed, joined by a space (of more
// than three lines, the first and the naming one, joined by " ... "); at most about 200 bytes (cut
// between characters).
std::string signature_of(std::string_view text, int name_row = 0);

}  // namespace brenloc::storage
