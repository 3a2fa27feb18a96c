// The languages the indexer parses and their file-name extensions (with the leading dot), in a fixed
// order. One table serves both the expansion of requested directories and the indexer's detection of
// a file's language.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace brenloc::engines {

struct LanguageEntry {
  std::string_view language;
  std::vector<std::string_view> extensions;
};

// Ordered: language -> ordered extensions.
extern const std::vector<LanguageEntry> LANGUAGE_EXTENSIONS;

// The language of a file by its name's extension (case-sensitive, the last dot decides), or absent.
std::optional<std::string_view> language_for_path(const std::filesystem::path& path);

}  // namespace brenloc::engines
