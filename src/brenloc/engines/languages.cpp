#include "brenloc/engines/languages.h"

#include <string>

namespace brenloc::engines {

const std::vector<LanguageEntry> LANGUAGE_EXTENSIONS = {
    {"python", {".py", ".pyi"}},
    {"c", {".c", ".h"}},
    {"cpp", {".cpp", ".cc", ".cxx", ".c++", ".hpp", ".hh", ".hxx", ".h++", ".ipp", ".inl", ".tpp"}},
    {"javascript", {".js", ".mjs", ".cjs", ".jsx"}},
    {"typescript", {".ts", ".mts", ".cts"}},
    {"tsx", {".tsx"}},
    {"go", {".go"}},
    {"rust", {".rs"}},
    {"java", {".java"}},
};

std::optional<std::string_view> language_for_path(const std::filesystem::path& path) {
  const std::string ext = path.extension().string();
  if (ext.empty()) return std::nullopt;
  for (const auto& entry : LANGUAGE_EXTENSIONS) {
    for (auto e : entry.extensions) {
      if (e == ext) return entry.language;
    }
  }
  return std::nullopt;
}

}  // namespace brenloc::engines
