// A temporary repository with a real index database, an event loop and sources to fill it with.
#pragma once

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

#include "brenloc/json.h"

#include "brenloc/aio/task.h"
#include "brenloc/workers/indexer.h"
#include "storage/storage_fixture.h"

namespace brenloc::workers::testing {

namespace fs = std::filesystem;
using brenloc::testing::TempDir;
using brenloc::testing::write_file;

inline std::string read_file(const fs::path& p) {
  std::stringstream ss;
  ss << std::ifstream(p, std::ios::binary).rdbuf();
  return ss.str();
}

// C source defining `functions` functions named "<prefix>_<n>".
inline std::string c_source(const std::string& prefix, int functions) {
  std::string s = "#include <stdio.h>\n\n";
  for (int i = 0; i < functions; ++i) {
    s += fmt::format("static int {0}_{1}(int a, int b) {{\n  int c = a * {1} + b;\n  return c > 0 ? c : -c;\n}}\n\n",
                     prefix, i);
  }
  return s;
}

using Paths = std::vector<std::string>;

struct Harness {
  // The data directory is `data_rel` under the repository root, or outside it when empty.
  explicit Harness(const std::string& data_rel = ".brenloc")
      : root(tmp.path() / "repo"), data(data_rel.empty() ? tmp.path() / "data" : root / data_rel) {}

  void write(const std::string& rel, const std::string& content) { write_file(root / rel, content); }

  IndexStats index(Indexer& ix, std::optional<std::vector<fs::path>> paths = std::nullopt) {
    return aio::run_until_complete(loop, ix.full_index(std::move(paths)));
  }
  IndexStats index(std::optional<std::vector<fs::path>> paths = std::nullopt) {
    Indexer ix(options);
    return index(ix, std::move(paths));
  }

  Paths indexed_paths() {
    Paths out;
    for (const auto& [p, hash] : repo->file_hashes()) out.push_back(p);
    std::ranges::sort(out);
    return out;
  }
  // Paths of the files defining a symbol called `name`.
  Paths defined_in(const std::string& name) {
    Paths out;
    for (const auto& hit : repo->search_symbols({.text = name, .match = storage::SymbolQuery::Match::exact})) {
      out.push_back(hit.path);
    }
    return out;
  }

  // Whether the index file has its name index (a bulk load builds it only at its end).
  bool has_name_index() {
    return storage::testing::query_text(*db, "SELECT 1 FROM sqlite_master WHERE name = 'symbols_by_name'") == "1";
  }

  // The (path, stage) pairs of the failures in errors.jsonl (lines with an "error" text); absent when there
  // is no file.
  std::optional<std::set<std::pair<std::string, std::string>>> left_out() const { return lines_with("error", false); }
  // The (path, reason) pairs of the files errors.jsonl names as left out by policy (a "skipped" reason).
  std::set<std::pair<std::string, std::string>> skipped() const {
    return lines_with("skipped", true).value_or(std::set<std::pair<std::string, std::string>>{});
  }
  std::optional<std::set<std::pair<std::string, std::string>>> lines_with(const char* key, bool with_reason) const {
    if (!fs::exists(data / "errors.jsonl")) return std::nullopt;
    std::set<std::pair<std::string, std::string>> out;
    std::istringstream in(read_file(data / "errors.jsonl"));
    for (std::string line; std::getline(in, line);) {
      const auto l = nlohmann::json::parse(line);
      EXPECT_NE(l.contains("error"), l.contains("skipped")) << l;
      if (!l.contains(key)) continue;
      EXPECT_TRUE(l[key].is_string() && !l[key].get<std::string>().empty()) << l;
      out.emplace(l["path"].get<std::string>(), (with_reason ? l[key] : l["stage"]).get<std::string>());
    }
    return out;
  }

  TempDir tmp;
  const fs::path root, data;
  std::shared_ptr<storage::Database> db =
      (fs::create_directories(root), fs::create_directories(data), storage::testing::open_database(data / "index.db"));
  std::shared_ptr<storage::Repository> repo = std::make_shared<storage::Repository>(db);
  IndexerOptions options{.repository = repo, .repo_root = root, .refresh_report = false};  // of index(paths)
  aio::EventLoop loop{2};
};

}  // namespace brenloc::workers::testing
