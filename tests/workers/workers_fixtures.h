// Git for the ignore tests, and a temporary repository with a real index database, an event loop and
// sources to fill it with for the indexer's tests.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "brenloc/aio/task.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/indexer.h"
#include "utils/tree_fixtures.h"

namespace brenloc::workers::testing {

namespace fs = std::filesystem;
using brenloc::testing::TempDir;
using brenloc::testing::write_file;

inline std::string read_file(const fs::path& p) {
  std::stringstream ss;
  ss << std::ifstream(p, std::ios::binary).rdbuf();
  return ss.str();
}

// Runs a shell command; returns its standard output.
inline std::string run_command(const std::string& cmd) {
  std::string out;
  FILE* f = ::popen(cmd.c_str(), "r");
  char buf[4096];
  for (std::size_t n; f != nullptr && (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  if (f != nullptr) ::pclose(f);
  return out;
}

inline std::string quoted(const fs::path& p) {
  std::string q = "'";
  for (char c : p.string()) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// An empty repository, made by hand (what `git init` would make, without starting a process).
inline void git_init(const fs::path& dir) {
  fs::create_directories(dir / ".git/objects");
  fs::create_directories(dir / ".git/refs/heads");
  write_file(dir / ".git/HEAD", "ref: refs/heads/main\n");
  write_file(dir / ".git/config", "[core]\n\trepositoryformatversion = 0\n\tbare = false\n");
}

// The paths among `paths` (relative, existing) that `git check-ignore` reports as ignored, asked of a git
// with no user or system configuration, so that no global ignore file takes part.
inline std::set<std::string> git_ignored(const fs::path& dir, const std::vector<std::string>& paths) {
  const fs::path input = dir / ".git/check-ignore-input";
  {
    std::ofstream out(input, std::ios::binary);
    for (const auto& p : paths) out << p << '\0';
  }
  const std::string out = run_command("env HOME=" + quoted(dir) + " XDG_CONFIG_HOME=" + quoted(dir) +
                                      " GIT_CONFIG_NOSYSTEM=1 git -C " + quoted(dir) +
                                      " check-ignore -z --stdin < " + quoted(input) + " 2>/dev/null");
  std::set<std::string> ignored;
  std::istringstream in(out);
  for (std::string p; std::getline(in, p, '\0');) ignored.insert(p);
  return ignored;
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
      : root(tmp.path() / "repo"), data(data_rel.empty() ? tmp.path() / "data" : root / data_rel) {
    fs::create_directories(root);
    fs::create_directories(data);
    db = std::make_shared<storage::Database>(data / "index.db");
    db->connect();
    db->create_schema();
    repo = std::make_shared<storage::Repository>(db);
  }

  IndexerOptions options() const {
    IndexerOptions o;
    o.repository = repo;
    o.repo_root = root;
    o.refresh_report = false;
    return o;
  }

  void write(const std::string& rel, const std::string& content) { write_file(root / rel, content); }

  IndexStats index(Indexer& ix, std::optional<std::vector<fs::path>> paths = std::nullopt) {
    return aio::run_until_complete(loop, ix.full_index(std::move(paths)));
  }
  IndexStats index(std::optional<std::vector<fs::path>> paths = std::nullopt) {
    Indexer ix(options());
    return index(ix, std::move(paths));
  }

  // Path -> content hash of every indexed file.
  std::map<std::string, std::string> indexed() {
    auto m = repo->file_hashes();
    return {m.begin(), m.end()};
  }
  Paths indexed_paths() {
    Paths out;
    for (const auto& [p, h] : indexed()) out.push_back(p);
    return out;
  }
  // Paths of the files defining a symbol called `name`.
  Paths defined_in(const std::string& name) {
    storage::SymbolQuery q;
    q.text = name;
    q.match = storage::SymbolQuery::Match::exact;
    Paths out;
    for (const auto& hit : repo->search_symbols(q)) out.push_back(hit.path);
    return out;
  }

  // Whether the index file has its name index (a bulk load builds it only at its end).
  bool has_name_index() {
    bool found = false;
    db->with_connection([&](sqlite3* c) {
      sqlite3_stmt* st = nullptr;
      sqlite3_prepare_v2(c, "SELECT 1 FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'", -1, &st,
                         nullptr);
      found = sqlite3_step(st) == SQLITE_ROW;
      sqlite3_finalize(st);
    });
    return found;
  }

  // The (path, stage) pairs of errors.jsonl, each line with an error text; absent when there is no file.
  std::optional<std::set<std::pair<std::string, std::string>>> left_out() const {
    if (!fs::exists(data / "errors.jsonl")) return std::nullopt;
    std::set<std::pair<std::string, std::string>> out;
    std::istringstream in(read_file(data / "errors.jsonl"));
    for (std::string line; std::getline(in, line);) {
      const auto l = nlohmann::json::parse(line);
      EXPECT_TRUE(l.contains("error") && l["error"].is_string() && !l["error"].get<std::string>().empty()) << l;
      out.emplace(l["path"].get<std::string>(), l["stage"].get<std::string>());
    }
    return out;
  }

  TempDir tmp;
  const fs::path root, data;
  std::shared_ptr<storage::Database> db;
  std::shared_ptr<storage::Repository> repo;
  aio::EventLoop loop{2};
};

}  // namespace brenloc::workers::testing
