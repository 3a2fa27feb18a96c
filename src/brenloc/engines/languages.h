// The languages the indexer parses, in one table in a fixed order: each language's file-name extensions
// (with the leading dot), its grammar, its definition query (definition_queries.h) and how its scopes are
// written. LANGUAGE_EXTENSIONS, derived from it, serves both the expansion of requested directories and
// the indexer's detection of a file's language.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

struct TSLanguage;

namespace brenloc::engines {

struct Language {
  std::string_view name;
  std::vector<std::string_view> extensions;  // in order, each with its leading dot
  const TSLanguage* (*grammar)();
  std::string_view definition_query;
  std::string_view scope_separator;           // between the parts of a scope ("ns::K", "pkg.K")
  std::span<const std::string_view> outline;  // node types that hold definitions; empty: the whole tree
  bool c_family = false;  // C or C++: decoration macros are blanked, qualified names resolved
};

// The table, in order.
extern const std::vector<Language> LANGUAGES;

// The language called `name`, or null.
const Language* find_language(std::string_view name);

struct LanguageEntry {
  std::string_view language;
  std::vector<std::string_view> extensions;
};

// Ordered: language -> ordered extensions; the table's languages and extensions.
extern const std::vector<LanguageEntry> LANGUAGE_EXTENSIONS;

// The language of a file by its name's extension (case-sensitive, the last dot decides), or absent.
std::optional<std::string_view> language_for_path(const std::filesystem::path& path);

}  // namespace brenloc::engines
