// A temporary repository with a real index database, an event loop, and sources to fill it with.
#pragma once

#include <sys/stat.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "brenloc/aio/task.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/workers/indexer.h"
#include "workers_fixtures.h"

namespace brenloc::workers::testing {

namespace fs = std::filesystem;

// C source defining `functions` functions named "<prefix>_<n>".
inline std::string c_source(const std::string& prefix, int functions) {
  std::string s = "#include <stdio.h>\n\n";
  for (int i = 0; i < functions; ++i) {
    s += fmt::format("static int {0}_{1}(int a, int b) {{\n  int c = a * {1} + b;\n  return c > 0 ? c : -c;\n}}\n\n",
                     prefix, i);
  }
  return s;
}

class Harness {
 public:
  // The data directory is `data_rel` under the repository root, or outside it when empty.
  explicit Harness(const std::string& data_rel = ".brenloc") {
    root_ = tmp_.path() / "repo";
    fs::create_directories(root_);
    data_ = data_rel.empty() ? tmp_.path() / "data" : root_ / data_rel;
    fs::create_directories(data_);
    db_ = std::make_shared<storage::Database>(data_ / "index.db");
    db_->connect();
    db_->create_schema();
    repo_ = std::make_shared<storage::Repository>(db_);
  }

  const fs::path& root() const { return root_; }
  const fs::path& data() const { return data_; }
  const std::shared_ptr<storage::Database>& db() const { return db_; }
  const std::shared_ptr<storage::Repository>& repo() const { return repo_; }
  aio::EventLoop& loop() { return loop_; }

  IndexerOptions options() const {
    IndexerOptions o;
    o.repository = repo_;
    o.repo_root = root_;
    o.refresh_report = false;
    return o;
  }

  void write(const std::string& rel, const std::string& content) { write_file(root_ / rel, content); }

  IndexStats index(Indexer& ix, std::optional<std::vector<fs::path>> paths = std::nullopt) {
    return aio::run_until_complete(loop_, ix.full_index(std::move(paths)));
  }
  IndexStats index(std::optional<std::vector<fs::path>> paths = std::nullopt) {
    Indexer ix(options());
    return index(ix, std::move(paths));
  }

  // Path -> content hash of every indexed file.
  std::map<std::string, std::string> indexed() {
    auto m = repo_->file_hashes();
    return {m.begin(), m.end()};
  }
  std::vector<std::string> indexed_paths() {
    std::vector<std::string> out;
    for (const auto& [p, h] : indexed()) out.push_back(p);
    return out;
  }
  // Paths of the files defining a symbol called `name`.
  std::vector<std::string> defined_in(const std::string& name) {
    storage::SymbolQuery q;
    q.text = name;
    q.match = storage::SymbolQuery::Match::exact;
    std::vector<std::string> out;
    for (const auto& hit : repo_->search_symbols(q)) out.push_back(hit.path);
    return out;
  }

  // The lines of errors.jsonl; absent when the file does not exist.
  std::optional<std::vector<nlohmann::json>> errors_file() const {
    if (!fs::exists(data_ / "errors.jsonl")) return std::nullopt;
    std::vector<nlohmann::json> out;
    std::string text = read_file(data_ / "errors.jsonl");
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      out.push_back(nlohmann::json::parse(text.substr(start, end - start)));
      start = end + 1;
    }
    return out;
  }

 private:
  TempDir tmp_;
  fs::path root_;
  fs::path data_;
  std::shared_ptr<storage::Database> db_;
  std::shared_ptr<storage::Repository> repo_;
  aio::EventLoop loop_{2};
};

}  // namespace brenloc::workers::testing
