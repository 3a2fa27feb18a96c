#include "brenloc/storage/use_counts.h"

#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

#include "brenloc/storage/fresh_uses.h"
#include "brenloc/storage/name_uses.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kOperation = "counting references";

bool is_script(std::string_view language) {
  return language == "typescript" || language == "tsx" || language == "javascript";
}

std::string_view file_name(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// The stem an import of the file is filed under (import_stem): the file's name without extensions, or its
// directory's name for a file that stands for its package.
std::string_view stem_of(std::string_view path, std::string_view language) {
  const std::string_view name = file_name(path);
  const std::string_view bare = name.substr(0, name.find('.'));
  const bool package =
      language == "go" || (language == "python" && bare == "__init__") || (is_script(language) && bare == "index");
  if (!package || name.size() == path.size()) return bare;
  return file_name(path.substr(0, path.size() - name.size() - 1));
}

// `path` without its extensions.
std::string_view without_extension(std::string_view path) {
  const std::size_t slash = path.rfind('/') == std::string_view::npos ? 0 : path.rfind('/') + 1;
  return path.substr(0, std::min(path.find('.', slash), path.size()));
}

// Whether `whole` is `end` or ends with "/" + `end`.
bool ends_with_part(std::string_view whole, std::string_view end) {
  if (end.empty() || !whole.ends_with(end)) return false;
  return whole.size() == end.size() || whole[whole.size() - end.size() - 1] == '/';
}

// Whether an include or import as written may name the file at `path` of `language`: the path or module
// it spells, without quotes, brackets and leading "./" and "../" or dots, ends the file's path (C and
// C++), its module path (Python, Java: dots as "/"; JavaScript and TypeScript: relative paths, without
// extensions) or its directory (Go). A Rust `use` names items, which no file's path tells: none.
bool import_names(std::string_view target, std::string_view path, std::string_view language) {
  while (!target.empty() && (target.front() == '"' || target.front() == '<' || target.front() == '\'')) {
    target.remove_prefix(1);
  }
  while (!target.empty() && (target.back() == '"' || target.back() == '>' || target.back() == '\'')) {
    target.remove_suffix(1);
  }
  const bool relative = target.starts_with('.');
  while (target.starts_with("./") || target.starts_with("../")) target.remove_prefix(target.find('/') + 1);
  const std::string_view dir = path.substr(0, std::min(path.rfind('/'), path.size()));
  if (language == "c" || language == "cpp") return ends_with_part(path, target);
  if (language == "go") return ends_with_part(dir, target);
  std::string_view module = without_extension(path);
  std::string spelt;
  if (language == "python" || language == "java") {
    while (target.starts_with('.')) target.remove_prefix(1);
    if (target.ends_with(".*")) {  // a Java package
      target.remove_suffix(2);
      module = dir;
    }
    spelt.assign(target);
    std::ranges::replace(spelt, '.', '/');
    if (module == "__init__" || module.ends_with("/__init__")) {
      module.remove_suffix(std::min<std::size_t>(module.size(), 9));
    }
  } else if (is_script(language)) {
    if (!relative) return false;  // a package's name, not a file of the tree
    spelt.assign(without_extension(target));
    if (module.ends_with("/index") && !spelt.ends_with("index")) module.remove_suffix(6);
  } else {
    return false;
  }
  return ends_with_part(module, spelt);
}

}  // namespace

std::int64_t files_using(Reader& r, const std::filesystem::path& file, std::string_view name) {
  const std::int64_t key = name_key(name);
  const std::shared_ptr<const FreshUses> fresh = fresh_uses(r, file);
  // The files whose coded uses hold some (a fresh file's rows of uses are old), and those that code all
  // their definitions of the name (name_uses.h).
  std::unordered_set<std::int64_t> using_files, coding_all;
  if (fresh) {
    for (const auto& [k, id] : fresh->using_key(key)) using_files.insert(id);
  }
  Statement& stmt = r.statement("SELECT file_id, spots FROM uses WHERE name_key = ?1", file);
  {
    ResetOnExit done{stmt};
    stmt.bind(1, key);
    while (std::ssize(using_files) < kReferrersCap && stmt.step(file, kOperation)) {
      const std::int64_t id = stmt.integer(0);
      if (fresh && fresh->has(id)) continue;
      const auto* blob = static_cast<const char*>(sqlite3_column_blob(stmt.get(), 1));
      const std::string_view spots(blob, static_cast<std::size_t>(sqlite3_column_bytes(stmt.get(), 1)));
      if (every_definition_coded(spots)) coding_all.insert(id);
      if (spots.size() > (every_definition_coded(spots) ? 1u : 0u)) using_files.insert(id);
    }
  }
  auto n = std::ssize(using_files);
  if (n >= kReferrersCap || !plain_name(name)) return std::min(n, kReferrersCap);
  // And the files that define it, whose definitions the rows of symbols hold. A file's rows are one range
  // of ids (files.first_symbol): the name's ids come from the name index alone, and each file costs one
  // lookup of its range, however many of its rows bear the name (a class's constructors, overloads).
  std::vector<std::int64_t> ids;
  {
    Statement& rows = r.statement("SELECT id FROM symbols WHERE name = ?1 COLLATE NOCASE AND name = ?1", file);
    ResetOnExit done{rows};
    rows.bind_static(1, name);
    while (rows.step(file, kOperation)) ids.push_back(rows.integer(0));
  }
  std::sort(ids.begin(), ids.end());
  Statement& owner = r.statement(
      "SELECT f.id, f.first_symbol + f.symbol_count FROM symbols s JOIN files f ON f.id = s.file_id WHERE s.id = ?1",
      file);
  for (std::size_t i = 0; i < ids.size() && n < kReferrersCap;) {
    ResetOnExit done{owner};
    owner.bind(1, ids[i]);
    if (!owner.step(file, kOperation)) {
      ++i;
      continue;
    }
    const std::int64_t id = owner.integer(0), end = owner.integer(1);
    do {
      ++i;
    } while (i < ids.size() && ids[i] < end);
    const bool counted = using_files.contains(id) || coding_all.contains(id);
    if (!counted && !(fresh && fresh->codes_every_definition(key, id))) ++n;
  }
  return n;
}

std::int64_t files_importing(Reader& r, const std::filesystem::path& file, std::string_view path,
                             std::string_view language) {
  if (language == "rust") return 0;
  Statement& stmt = r.statement("SELECT target FROM imports WHERE stem = ?1 LIMIT ?2", file);
  ResetOnExit done{stmt};
  stmt.bind(1, std::string(stem_of(path, language)));
  // Read further than the cap: a common stem ("types") is mostly other files' imports.
  stmt.bind(2, 4 * kReferrersCap);
  std::int64_t n = 0;
  while (n < kReferrersCap && stmt.step(file, kOperation)) n += import_names(stmt.text_view(0), path, language);
  return n;
}

}  // namespace brenloc::storage::detail
