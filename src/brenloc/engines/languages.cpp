#include "brenloc/engines/languages.h"

#include <string>

#include "brenloc/engines/definition_queries.h"

extern "C" {
const TSLanguage* tree_sitter_python();
const TSLanguage* tree_sitter_c();
const TSLanguage* tree_sitter_cpp();
const TSLanguage* tree_sitter_javascript();
const TSLanguage* tree_sitter_typescript();
const TSLanguage* tree_sitter_tsx();
const TSLanguage* tree_sitter_go();
const TSLanguage* tree_sitter_rust();
const TSLanguage* tree_sitter_java();
}

namespace brenloc::engines {

const std::vector<Language> LANGUAGES = {
    {"python", {".py", ".pyi"}, tree_sitter_python, queries::python, ".", queries::python_outline},
    {"c", {".c", ".h"}, tree_sitter_c, queries::c, "::", queries::c_outline, true},
    {"cpp", {".cpp", ".cc", ".cxx", ".c++", ".hpp", ".hh", ".hxx", ".h++", ".ipp", ".inl", ".tpp"},
     tree_sitter_cpp, queries::cpp, "::", queries::cpp_outline, true},
    {"javascript", {".js", ".mjs", ".cjs", ".jsx"}, tree_sitter_javascript, queries::javascript, "."},
    {"typescript", {".ts", ".mts", ".cts"}, tree_sitter_typescript, queries::typescript, "."},
    {"tsx", {".tsx"}, tree_sitter_tsx, queries::typescript, "."},
    {"go", {".go"}, tree_sitter_go, queries::go, ".", queries::go_outline},
    {"rust", {".rs"}, tree_sitter_rust, queries::rust, "::", queries::rust_outline},
    {"java", {".java"}, tree_sitter_java, queries::java, ".", queries::java_outline},
};

const std::vector<LanguageEntry> LANGUAGE_EXTENSIONS = [] {
  std::vector<LanguageEntry> entries;
  for (const Language& l : LANGUAGES) entries.push_back({l.name, l.extensions});
  return entries;
}();

const Language* find_language(std::string_view name) {
  for (const Language& l : LANGUAGES) {
    if (l.name == name) return &l;
  }
  return nullptr;
}

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
