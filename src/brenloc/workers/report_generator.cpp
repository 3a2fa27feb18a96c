#include "brenloc/workers/report_generator.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "brenloc/utils/path_text.h"
#include "brenloc/utils/utf8.h"
#include "brenloc/workers/pass_files.h"

namespace brenloc::workers {

namespace {

constexpr const char* kReportJson = "report.json";
constexpr const char* kReportMd = "report.md";
constexpr std::size_t kLargestDirectories = 10;
constexpr std::size_t kTopKinds = 15;
constexpr std::size_t kLeftOutShown = 200;

struct Tally {
  std::int64_t files = 0;
  std::int64_t symbols = 0;
  std::int64_t bytes = 0;
  void add(std::int64_t f, std::int64_t s, std::int64_t b) {
    files += f;
    symbols += s;
    bytes += b;
  }
};

struct IndexSummary {
  Tally totals;
  std::map<std::string, Tally> languages;
  std::map<std::string, Tally> directories;  // files directly in each directory ("." for the root)
  std::map<std::string, std::int64_t> kinds;
};

// Runs `sql` on `c`, calling `row` for each result row.
template <class F>
void each_row(sqlite3* c, const char* sql, F row) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(c, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    throw std::runtime_error(fmt::format("report query failed: {}", sqlite3_errmsg(c)));
  }
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) row(stmt);
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) throw std::runtime_error(fmt::format("report query failed: {}", sqlite3_errmsg(c)));
}

std::string column_text(sqlite3_stmt* s, int i) {
  const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(s, i));
  return t != nullptr ? std::string(t, static_cast<std::size_t>(sqlite3_column_bytes(s, i))) : std::string();
}

// A digest of what the report shows: every file with its content hash, the symbol count and the last
// pass. The report is up to date when the digest it was written for is this one.
std::string fingerprint(sqlite3* c, const json& last_index, const json& left_out) {
  XXH3_state_t* st = XXH3_createState();
  XXH3_128bits_reset(st);
  each_row(c, "SELECT path, content_hash FROM files ORDER BY path", [&](sqlite3_stmt* s) {
    for (int i = 0; i < 2; ++i) {
      XXH3_128bits_update(st, sqlite3_column_text(s, i), static_cast<std::size_t>(sqlite3_column_bytes(s, i)) + 1);
    }
  });
  each_row(c, "SELECT COUNT(*) FROM symbols", [&](sqlite3_stmt* s) {
    std::int64_t n = sqlite3_column_int64(s, 0);
    XXH3_128bits_update(st, &n, sizeof n);
  });
  for (const auto* j : {&last_index, &left_out}) {
    const std::string text = j->dump(-1, ' ', false, json::error_handler_t::replace);
    XXH3_128bits_update(st, text.data(), text.size());
  }
  XXH128_hash_t h = XXH3_128bits_digest(st);
  XXH3_freeState(st);
  return fmt::format("{:016x}{:016x}", h.high64, h.low64);
}

IndexSummary summarise(sqlite3* c) {
  IndexSummary out;
  each_row(c,
           "SELECT path, language, size, symbol_count FROM files",
           [&](sqlite3_stmt* s) {
             std::string path = column_text(s, 0);
             std::string language = column_text(s, 1);
             std::int64_t size = sqlite3_column_int64(s, 2);
             std::int64_t symbols = sqlite3_column_int64(s, 3);
             out.totals.add(1, symbols, size);
             out.languages[language].add(1, symbols, size);
             std::size_t slash = path.rfind('/');
             out.directories[slash == std::string::npos ? "." : path.substr(0, slash)].add(1, symbols, size);
           });
  // Counted here rather than grouped by SQLite, which would sort every row (tens of megabytes for a
  // million symbols, in memory or in temporary files) to count a dozen kinds.
  std::vector<std::pair<std::string, std::int64_t>> kinds;
  each_row(c, "SELECT kind FROM symbols", [&](sqlite3_stmt* s) {
    const std::string_view kind(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)),
                                static_cast<std::size_t>(sqlite3_column_bytes(s, 0)));
    auto it = std::find_if(kinds.begin(), kinds.end(), [&](const auto& k) { return k.first == kind; });
    if (it == kinds.end()) it = kinds.emplace(kinds.end(), std::string(kind), 0);
    ++it->second;
  });
  for (auto& [kind, n] : kinds) out.kinds[std::move(kind)] = n;
  return out;
}

std::string human_size(std::int64_t bytes) {
  if (bytes < 1024) return fmt::format("{} B", bytes);
  if (bytes < 1024 * 1024) return fmt::format("{:.1f} KiB", static_cast<double>(bytes) / 1024);
  if (bytes < std::int64_t{1024} * 1024 * 1024) return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / 1048576);
  return fmt::format("{:.1f} GiB", static_cast<double>(bytes) / 1073741824);
}

// Ordered by files, then bytes, descending; then by name.
std::vector<std::pair<std::string, Tally>> ranked(const std::map<std::string, Tally>& m) {
  std::vector<std::pair<std::string, Tally>> v(m.begin(), m.end());
  std::sort(v.begin(), v.end(), [](const auto& a, const auto& b) {
    if (a.second.files != b.second.files) return a.second.files > b.second.files;
    if (a.second.bytes != b.second.bytes) return a.second.bytes > b.second.bytes;
    return a.first < b.first;
  });
  return v;
}

json tally_json(const std::string& key, const std::string& name, const Tally& t) {
  return {{key, name}, {"files", t.files}, {"symbols", t.symbols}, {"bytes", t.bytes}};
}

// Markdown table cells must not break the table.
std::string cell(std::string s) {
  std::string out;
  for (char ch : s) {
    if (ch == '|') out += "\\|";
    else if (ch == '\n') out += ' ';
    else out += ch;
  }
  return out;
}

std::string markdown(const std::filesystem::path& repo_root, const std::string& generated_at,
                     const IndexSummary& sum, const json& last_index, const LeftOutList& left_out) {
  std::string md;
  auto line = [&](std::string s) {
    md += s;
    md += '\n';
  };
  line(fmt::format("# Index report: {}", utils::path_text(repo_root.native())));
  line("");
  line(fmt::format("Generated {}.", generated_at));
  line("");
  line("## Totals");
  line("");
  line("| Files | Symbols | Size |");
  line("|------:|--------:|-----:|");
  line(fmt::format("| {} | {} | {} |", sum.totals.files, sum.totals.symbols, human_size(sum.totals.bytes)));
  line("");
  line("## Languages");
  line("");
  if (sum.languages.empty()) {
    line("No files are indexed.");
  } else {
    line("| Language | Files | Symbols | Size |");
    line("|----------|------:|--------:|-----:|");
    for (const auto& [name, t] : ranked(sum.languages)) {
      line(fmt::format("| {} | {} | {} | {} |", cell(name), t.files, t.symbols, human_size(t.bytes)));
    }
  }
  if (!sum.kinds.empty()) {
    line("");
    line("## Symbol kinds");
    line("");
    line("| Kind | Symbols |");
    line("|------|--------:|");
    std::vector<std::pair<std::string, std::int64_t>> kinds(sum.kinds.begin(), sum.kinds.end());
    std::sort(kinds.begin(), kinds.end(), [](const auto& a, const auto& b) {
      return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    if (kinds.size() > kTopKinds) kinds.resize(kTopKinds);
    for (const auto& [kind, n] : kinds) line(fmt::format("| {} | {} |", cell(kind), n));
  }
  if (!sum.directories.empty()) {
    line("");
    line("## Largest directories");
    line("");
    line("By indexed files directly inside.");
    line("");
    line("| Directory | Files | Symbols | Size |");
    line("|-----------|------:|--------:|-----:|");
    auto dirs = ranked(sum.directories);
    if (dirs.size() > kLargestDirectories) dirs.resize(kLargestDirectories);
    for (const auto& [name, t] : dirs) {
      line(fmt::format("| {} | {} | {} | {} |", cell(name), t.files, t.symbols, human_size(t.bytes)));
    }
  }
  line("");
  line("## Last index pass");
  line("");
  if (!last_index.is_object()) {
    line("No pass recorded.");
  } else {
    auto get = [&](const char* key) -> std::string {
      auto it = last_index.find(key);
      if (it == last_index.end() || it->is_null()) return "unknown";
      if (it->is_string()) return it->get<std::string>();
      if (it->is_number_float()) return fmt::format("{:.2f}", it->get<double>());
      return it->dump();
    };
    line(fmt::format("- Type: {}", get("type")));
    line(fmt::format("- Finished: {}", get("finished_at")));
    line(fmt::format("- Duration: {} s", get("duration_seconds")));
    line(fmt::format("- Files processed: {}", get("files_processed")));
    std::string errors = get("errors");
    line(fmt::format("- Left out: {}{}", errors,
                     errors != "0" && errors != "unknown" ? " (named in errors.jsonl)" : ""));
  }
  line("");
  line("## Left out");
  line("");
  if (left_out.count == 0) {
    line("No file or directory is left out.");
  } else {
    line(fmt::format("{} files or directories, as errors.jsonl names them{}:", left_out.count,
                     left_out.count > static_cast<std::int64_t>(left_out.first.size())
                         ? fmt::format(" (the first {})", left_out.first.size())
                         : ""));
    line("");
    line("| Path | Stage | Kind | Reason |");
    line("|------|-------|------|--------|");
    for (const LeftOut& e : left_out.first) {
      line(fmt::format("| {} | {} | {} | {} |", cell(e.path), cell(e.stage), e.failed ? "error" : "skipped",
                       cell(utils::utf8_or_replaced(e.error))));
    }
  }
  return md;
}

std::string read_fingerprint(const std::filesystem::path& report_json) {
  std::ifstream in(report_json);
  if (!in) return {};
  std::stringstream ss;
  ss << in.rdbuf();
  auto j = json::parse(ss.str(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return {};
  auto it = j.find("index_fingerprint");
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

void write_report(const std::shared_ptr<storage::Repository>& repository, const std::filesystem::path& repo_root,
                  bool force) {
  const std::filesystem::path data_dir = repository->database()->path().parent_path();
  const std::filesystem::path json_path = data_dir / kReportJson;
  const std::filesystem::path md_path = data_dir / kReportMd;
  const json last_index = read_last_index(data_dir);
  const LeftOutList left_out = read_left_out(data_dir, kLeftOutShown);
  const json left_out_info = left_out_json(left_out);

  std::string print;
  IndexSummary sum;
  bool current = false;
  repository->database()->with_connection([&](sqlite3* c) {
    print = fingerprint(c, last_index, left_out_info);
    std::error_code ec;
    current = !force && std::filesystem::exists(md_path, ec) && read_fingerprint(json_path) == print;
    if (!current) sum = summarise(c);
  });
  if (current) return;

  const std::string generated_at = fmt::format(
      "{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())));
  json languages = json::array();
  for (const auto& [name, t] : ranked(sum.languages)) languages.push_back(tally_json("language", name, t));
  json dirs = json::array();
  auto ranked_dirs = ranked(sum.directories);
  if (ranked_dirs.size() > kLargestDirectories) ranked_dirs.resize(kLargestDirectories);
  for (const auto& [name, t] : ranked_dirs) dirs.push_back(tally_json("path", name, t));
  json kinds = json::object();
  for (const auto& [kind, n] : sum.kinds) kinds[kind] = n;

  json report{
      {"repository", utils::path_text(repo_root.native())},
      {"generated_at", generated_at},
      {"index_fingerprint", print},
      {"totals", {{"files", sum.totals.files}, {"symbols", sum.totals.symbols}, {"bytes", sum.totals.bytes}}},
      {"languages", languages},
      {"symbol_kinds", kinds},
      {"largest_directories", dirs},
      {"last_index", last_index},
      {"left_out", left_out_info},
  };
  // The markdown first: report.json carries the fingerprint, so a report cut short is rewritten.
  replace_file(md_path, markdown(repo_root, generated_at, sum, last_index, left_out));
  replace_file(json_path, report.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
}

}  // namespace brenloc::workers
