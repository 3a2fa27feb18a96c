#include "brenloc/engines/import_paths.h"

#include <algorithm>
#include <filesystem>

namespace brenloc::engines {
namespace {

std::string_view dir_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view name_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// `rel` from the directory `dir`, normalised; empty when it climbs above the root.
std::string joined(std::string_view dir, std::string_view rel) {
  const std::filesystem::path p = (std::filesystem::path(std::string(dir)) / std::string(rel)).lexically_normal();
  std::string out = p.generic_string();
  if (out.starts_with("..")) return {};
  if (out.starts_with("./")) out.erase(0, 2);
  while (out.ends_with("/")) out.pop_back();
  return out;
}

// Whether `path` is `suffix` or ends with "/" + suffix.
bool ends_with_part(std::string_view path, std::string_view suffix) {
  if (suffix.empty()) return false;
  if (path == suffix) return true;
  return path.size() > suffix.size() && path.ends_with(suffix) && path[path.size() - suffix.size() - 1] == '/';
}

std::string replaced(std::string_view text, std::string_view from, char to) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    if (text.substr(i, from.size()) == from) {
      out.push_back(to);
      i += from.size();
    } else {
      out.push_back(text[i++]);
    }
  }
  return out;
}

std::string_view unwrapped(std::string_view t) {
  if (t.size() >= 2 && ((t.front() == '"' && t.back() == '"') || (t.front() == '<' && t.back() == '>'))) {
    return t.substr(1, t.size() - 2);
  }
  return t;
}

bool python_names(std::string_view importer, std::string_view target, std::string_view file) {
  std::string module;
  if (target.starts_with('.')) {
    const std::size_t dots = target.find_first_not_of('.') == std::string_view::npos ? target.size()
                                                                                       : target.find_first_not_of('.');
    std::string base(dir_of(importer));
    for (std::size_t i = 1; i < dots; ++i) base = std::string(dir_of(base));
    const std::string rest = replaced(target.substr(dots), ".", '/');
    module = base.empty() ? rest : rest.empty() ? base : base + "/" + rest;
    return file == module + ".py" || file == module + ".pyi" ||
           file == (module.empty() ? std::string("__init__.py") : module + "/__init__.py");
  }
  module = replaced(target, ".", '/');
  return ends_with_part(file, module + ".py") || ends_with_part(file, module + ".pyi") ||
         ends_with_part(file, module + "/__init__.py");
}

bool script_names(std::string_view importer, std::string_view target, std::string_view file) {
  if (!target.starts_with('.')) return false;  // a package: not a file of the tree
  std::string p = joined(dir_of(importer), target);
  static constexpr std::string_view kExtensions[] = {"", ".ts", ".tsx", ".js", ".jsx", ".mjs", ".cjs", ".mts", ".cts", ".d.ts"};
  // TypeScript imports its own modules by the name of the JavaScript they compile to.
  std::vector<std::string> bases = {p};
  for (std::string_view js : {".js", ".mjs", ".cjs", ".jsx"}) {
    if (p.ends_with(js)) bases.push_back(p.substr(0, p.size() - js.size()));
  }
  for (const std::string& b : bases) {
    for (std::string_view e : kExtensions) {
      if (file == b + std::string(e) || file == b + "/index" + std::string(e)) return true;
    }
  }
  return false;
}

bool rust_names(std::string_view importer, std::string_view target, std::string_view file) {
  if (target.starts_with("mod ")) {
    const std::string_view own = name_of(importer);
    std::string base(dir_of(importer));
    if (own != "mod.rs" && own != "lib.rs" && own != "main.rs") {
      const std::string stem(own.substr(0, own.rfind('.')));
      base = base.empty() ? stem : base + "/" + stem;
    }
    const std::string name(target.substr(4));
    const std::string prefix = base.empty() ? std::string() : base + "/";
    return file == prefix + name + ".rs" || file == prefix + name + "/mod.rs";
  }
  for (std::string_view head : {"crate::", "self::", "super::", "::"}) {
    if (target.starts_with(head)) target.remove_prefix(head.size());
  }
  const std::string p = replaced(target, "::", '/');
  return ends_with_part(file, p + ".rs") || ends_with_part(file, p + "/mod.rs");
}

}  // namespace

bool imports_file(std::string_view language, std::string_view importer, std::string_view target, std::string_view file) {
  if (language == "c" || language == "cpp") {
    const std::string_view inner = unwrapped(target);
    if (target.starts_with('"') && joined(dir_of(importer), inner) == file) return true;
    return ends_with_part(file, inner);
  }
  if (language == "python") return python_names(importer, target, file);
  if (language == "javascript" || language == "typescript" || language == "tsx") return script_names(importer, target, file);
  if (language == "go") return ends_with_part(dir_of(file), target);
  if (language == "rust") return rust_names(importer, target, file);
  if (language == "java") {
    if (target.ends_with(".*")) return ends_with_part(dir_of(file), replaced(target.substr(0, target.size() - 2), ".", '/'));
    return ends_with_part(file, replaced(target, ".", '/') + ".java");
  }
  return false;
}

std::vector<std::string> stems_of_file(std::string_view file) {
  const std::string_view name = name_of(file);
  std::vector<std::string> out = {std::string(name.substr(0, name.find('.')))};
  const std::string dir(name_of(dir_of(file)));
  if (!dir.empty() && dir != out.front()) out.push_back(dir);
  return out;
}

bool names_module(std::string_view target, std::string_view module) { return unwrapped(target) == unwrapped(module); }

}  // namespace brenloc::engines
