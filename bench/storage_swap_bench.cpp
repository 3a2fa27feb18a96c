// The swap of a staged index and client queries, measured side by side in one run.
//
//   storage_swap_bench [--sizes 10000,100000,1000000] [--rounds 3] [--dir DIR] [--from INDEX_DB]
//
// Table 1: for each index size (symbol rows), the time of Repository::swap_index_from and the time it
// holds SQLite's write lock on the live file, against two other ways of copying the rows (row by row with
// the indexes kept up to date, and dropping the indexes for the copy and building them again). Medians
// of --rounds swaps. With --from, the index is a copy of a real one instead (as both the live and the
// staged index). At the largest size, the log gives the time of each step of the swap.
//
// Table 2: at the largest size, client query latency (p50/p99, cache cleared before every query so that
// SQLite answers each one) while the index is idle and while a swap runs, alternating idle and swap
// phases so that both see the same machine. Queries that fail are counted.
//
// Table 3: at the largest size, idle latency of each search mode and filter.
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/utils/logging.h"

namespace fs = std::filesystem;
using namespace brenloc::storage;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kSymbolsPerFile = 50;

const std::vector<std::string> kWords = {
    "get",   "set",    "parse", "read",   "write", "node",  "tree",   "buffer", "index", "query", "file",
    "path",  "symbol", "scope", "token",  "error", "state", "worker", "lock",   "task",  "event", "loop",
    "cache", "entry",  "table", "record", "open",  "close", "find",   "update", "make",  "visit"};
const std::vector<std::string> kKinds = {"function", "method", "class", "field", "variable", "macro", "enum"};

double seconds_of(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string identifier(std::mt19937& rng) {
  std::uniform_int_distribution<std::size_t> word(0, kWords.size() - 1);
  std::uniform_int_distribution<int> style(0, 2), number(0, 999);
  std::string a = kWords[word(rng)], b = kWords[word(rng)];
  switch (style(rng)) {
    case 0:
      return fmt::format("{}_{}_{}", a, b, number(rng));
    case 1:
      b[0] = static_cast<char>(b[0] - 'a' + 'A');
      return fmt::format("{}{}{}", a, b, number(rng));
    default:
      a[0] = static_cast<char>(a[0] - 'a' + 'A');
      return fmt::format("{}{}{}", a, b, number(rng));
  }
}

// An index of `symbols` rows under "<tag>/...", written in batches as the indexer does.
std::shared_ptr<Database> build_index(const fs::path& path, const std::string& tag, int symbols, unsigned seed) {
  fs::remove(path);
  auto db = std::make_shared<Database>(path);
  db->connect();
  db->create_schema();
  Repository repo(db);
  std::mt19937 rng(seed);
  std::uniform_int_distribution<std::size_t> kind(0, kKinds.size() - 1);
  const int files = std::max(1, symbols / kSymbolsPerFile);
  std::vector<FileEntry> batch;
  for (int f = 0; f < files; ++f) {
    FileEntry e{FileRow{fmt::format("{}/dir{}/sub{}/file{}.cpp", tag, f % 97, f % 13, f), "cpp", 4096 + f,
                        1'700'000'000'000'000'000 + f, fmt::format("{:040x}", rng())},
                {}};
    for (int s = 0; s < kSymbolsPerFile; ++s) {
      e.symbols.push_back(SymbolRow{identifier(rng), kKinds[kind(rng)], s * 7 + 1, 1, s * 7 + 5, 2,
                                    s % 3 ? "ns::Klass" : ""});
    }
    batch.push_back(std::move(e));
    if (batch.size() == 500) {
      repo.store_files(batch);
      batch.clear();
    }
  }
  repo.store_files(batch);
  db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  return db;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double percentile(std::vector<double>& v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

// The other ways of copying the rows, for comparison; each in one write transaction like the swap.
struct Timed {
  double total = 0;
  double locked = 0;
};

Timed copy_with_sql(Database& live, const fs::path& staging, const std::vector<std::string>& body) {
  Timed t;
  auto start = Clock::now();
  live.with_connection([&](sqlite3* c) {
    auto run = [&](const std::string& sql) {
      char* err = nullptr;
      if (sqlite3_exec(c, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
        std::string message = err ? err : "?";
        sqlite3_free(err);
        throw std::runtime_error(fmt::format("{}: {}", sql, message));
      }
    };
    run(fmt::format("ATTACH DATABASE 'file:{}?mode=ro' AS staging", staging.string()));
    run("BEGIN IMMEDIATE");
    auto locked = Clock::now();
    for (const auto& sql : body) run(sql);
    run("COMMIT");
    t.locked = seconds_of(Clock::now() - locked);
    run("DETACH DATABASE staging");
  });
  t.total = seconds_of(Clock::now() - start);
  return t;
}

const char* kColumns = "id, file_id, name, kind, line, col, end_line, end_col, scope, lead, rank";

std::vector<std::string> row_by_row() {
  // A WHERE clause keeps SQLite from copying the b-trees whole: every row goes through the indexes.
  return {"DELETE FROM main.symbols", "DELETE FROM main.files",
          "INSERT INTO main.files SELECT * FROM staging.files WHERE 1",
          fmt::format("INSERT INTO main.symbols({0}) SELECT {0} FROM staging.symbols WHERE 1", kColumns)};
}

std::vector<std::string> rebuild_indexes() {
  return {"DROP INDEX main.symbols_by_name",
          "DELETE FROM main.symbols",
          "DELETE FROM main.files",
          "INSERT INTO main.files SELECT * FROM staging.files WHERE 1",
          fmt::format("INSERT INTO main.symbols({0}) SELECT {0} FROM staging.symbols WHERE 1", kColumns),
          "CREATE INDEX main.symbols_by_name ON symbols(name COLLATE NOCASE, rank)"};
}

// Names that exist in the index, for exact queries.
std::vector<std::string> sample_names(Database& db) {
  std::vector<std::string> names;
  db.with_connection([&](sqlite3* c) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(c, "SELECT name FROM symbols ORDER BY random() LIMIT 1000", -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
    sqlite3_finalize(stmt);
  });
  return names;
}

SymbolQuery random_query(std::mt19937& rng, int mode, const std::vector<std::string>& names) {
  std::uniform_int_distribution<std::size_t> word(0, kWords.size() - 1);
  std::uniform_int_distribution<std::size_t> name(0, names.size() - 1);
  std::uniform_int_distribution<int> number(0, 999);
  SymbolQuery q;
  switch (mode) {
    case 0:
      q.match = SymbolQuery::Match::exact;
      q.text = names[name(rng)];
      break;
    case 1:
      q.match = SymbolQuery::Match::prefix;
      q.text = kWords[word(rng)] + "_" + kWords[word(rng)].substr(0, 2);
      break;
    case 2:  // common: stops at the limit early
      q.match = SymbolQuery::Match::substring;
      q.text = kWords[word(rng)];
      break;
    case 3:  // rare: scans the whole name index
      q.match = SymbolQuery::Match::substring;
      q.text = fmt::format("{}{}x", kWords[word(rng)], number(rng));
      break;
    case 4:  // a short prefix in one directory of about 16 files
      q.match = SymbolQuery::Match::prefix;
      q.text = kWords[word(rng)].substr(0, 2);
      q.path_prefix = fmt::format("staged/dir{}/sub{}", number(rng) % 97, number(rng) % 13);
      break;
    case 5:
      q.match = SymbolQuery::Match::substring;
      q.text = kWords[word(rng)];
      q.kind = "macro";
      break;
    default:  // every symbol of one directory
      q.match = SymbolQuery::Match::prefix;
      q.text = "";
      q.path_prefix = fmt::format("staged/dir{}/sub{}", number(rng) % 97, number(rng) % 13);
      q.limit = -1;
      break;
  }
  return q;
}

struct Options {
  std::vector<int> sizes = {10'000, 100'000, 1'000'000};
  int rounds = 3;
  fs::path dir;
  fs::path from;  // a real index to copy, instead of generated ones
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string flag = argv[i], value = argv[i + 1];
    if (flag == "--sizes") {
      o.sizes.clear();
      for (std::size_t pos = 0; pos <= value.size();) {
        auto comma = value.find(',', pos);
        if (comma == std::string::npos) comma = value.size();
        o.sizes.push_back(std::stoi(value.substr(pos, comma - pos)));
        pos = comma + 1;
      }
    } else if (flag == "--rounds") {
      o.rounds = std::stoi(value);
    } else if (flag == "--dir") {
      o.dir = value;
    } else if (flag == "--from") {
      o.from = value;
      o.sizes = {0};
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  Options opt = parse(argc, argv);
  brenloc::utils::get_logger("brenloc.storage")->set_level(spdlog::level::warn);
  bool own_dir = opt.dir.empty();
  if (own_dir) {
    std::string pattern = (fs::temp_directory_path() / "brenloc-swap-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return 1;
    opt.dir = pattern;
  }
  fs::create_directories(opt.dir);

  std::printf("Swap of a staged index onto the live one (median of %d; seconds)\n", opt.rounds);
  std::printf("%10s | %-26s | %-26s | %-26s\n", "symbols", "swap (shipped): total/lock", "row by row: total/lock",
              "rebuild indexes: total/lock");
  std::shared_ptr<Database> live, staging;
  std::shared_ptr<Repository> repo;
  fs::path staging_path;
  for (int size : std::vector<int>(opt.sizes)) {
    live.reset();
    repo.reset();
    staging.reset();
    staging_path = opt.dir / "index.db.reindex-staging";
    if (opt.from.empty()) {
      live = build_index(opt.dir / "index.db", "live", size, 1);
      staging = build_index(staging_path, "staged", size, 2);
    } else {
      for (const fs::path& to : {opt.dir / "index.db", staging_path}) fs::copy_file(opt.from, to, fs::copy_options::overwrite_existing);
      live = std::make_shared<Database>(opt.dir / "index.db");
      live->connect();
      staging = std::make_shared<Database>(staging_path);
      staging->connect();
    }
    repo = std::make_shared<Repository>(live);
    if (size == opt.sizes.back()) brenloc::utils::get_logger("brenloc.storage")->set_level(spdlog::level::debug);
    if (size == 0) size = opt.sizes.back() = static_cast<int>(repo->counts().symbols);
    std::vector<double> swap_total, swap_lock, row_total, row_lock, idx_total, idx_lock;
    for (int r = 0; r < opt.rounds; ++r) {
      // Interleaved so that the three see the same machine.
      repo->swap_index_from(staging_path);
      swap_total.push_back(repo->last_swap_timing().total_seconds);
      swap_lock.push_back(repo->last_swap_timing().write_lock_seconds);
      auto row = copy_with_sql(*live, staging_path, row_by_row());
      row_total.push_back(row.total);
      row_lock.push_back(row.locked);
      auto idx = copy_with_sql(*live, staging_path, rebuild_indexes());
      idx_total.push_back(idx.total);
      idx_lock.push_back(idx.locked);
    }
    double st = median(swap_total);
    std::printf("%10d | %9.3f / %-9.3f       | %9.3f / %-9.3f (%4.1fx) | %9.3f / %-9.3f (%4.1fx)\n", size, st,
                median(swap_lock), median(row_total), median(row_lock), median(row_total) / st, median(idx_total),
                median(idx_lock), median(idx_total) / st);
    std::fflush(stdout);
  }

  // Query latency at the largest size, idle and during swaps, alternating phases.
  repo->swap_index_from(staging_path);
  const auto names = sample_names(*live);
  std::atomic<int> phase = 0;  // 0 idle, 1 swapping, 2 done
  std::atomic<int> failures = 0;
  std::vector<double> idle_ms, swap_ms;
  std::thread reader([&] {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> mode(0, 2);
    while (phase != 2) {
      repo->clear_query_cache();
      auto q = random_query(rng, mode(rng), names);
      int before = phase;
      auto start = Clock::now();
      try {
        repo->search_symbols(q);
      } catch (const std::exception&) {
        ++failures;
      }
      double ms = seconds_of(Clock::now() - start) * 1000;
      if (phase == before && before == 0) idle_ms.push_back(ms);
      if (phase == before && before == 1) swap_ms.push_back(ms);
    }
  });
  int swaps = std::max(3, opt.rounds);
  double swap_seconds = 0;
  for (int i = 0; i < swaps; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    phase = 1;
    repo->swap_index_from(staging_path);
    swap_seconds += repo->last_swap_timing().total_seconds;
    phase = 0;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  phase = 2;
  reader.join();
  double idle50 = percentile(idle_ms, 0.5), idle99 = percentile(idle_ms, 0.99);
  double swap50 = percentile(swap_ms, 0.5), swap99 = percentile(swap_ms, 0.99);
  std::printf("\nClient queries at %d symbols (exact/prefix/substring mix, cache cleared; ms)\n", opt.sizes.back());
  std::printf("%-14s | %8s | %8s | %8s | %8s\n", "phase", "queries", "p50", "p99", "failed");
  std::printf("%-14s | %8zu | %8.3f | %8.3f | %8s\n", "idle", idle_ms.size(), idle50, idle99, "");
  std::printf("%-14s | %8zu | %8.3f | %8.3f | %8d\n", "during a swap", swap_ms.size(), swap50, swap99,
              failures.load());
  std::printf("during/idle: p50 %.2fx, p99 %.2fx (%d swaps, %.2f s swapping)\n", idle50 > 0 ? swap50 / idle50 : 0,
              idle99 > 0 ? swap99 / idle99 : 0, swaps, swap_seconds);

  std::printf("\nSearch modes at %d symbols, idle (cache cleared; ms)\n", opt.sizes.back());
  std::printf("%-22s | %8s | %8s | %8s\n", "mode", "p50", "p99", "hits");
  const char* labels[] = {"exact",           "prefix",           "substring, common",   "substring, rare",
                          "prefix in a dir", "substring + kind", "all symbols of a dir"};
  for (int m = 0; m < 7; ++m) {
    std::mt19937 rng(11 + m);
    std::vector<double> ms;
    std::size_t hits = 0;
    for (int i = 0; i < 200; ++i) {
      repo->clear_query_cache();
      auto q = random_query(rng, m, names);
      auto start = Clock::now();
      hits += repo->search_symbols(q).size();
      ms.push_back(seconds_of(Clock::now() - start) * 1000);
    }
    std::printf("%-22s | %8.3f | %8.3f | %8.1f\n", labels[m], percentile(ms, 0.5), percentile(ms, 0.99),
                static_cast<double>(hits) / 200);
  }

  repo.reset();
  live.reset();
  staging.reset();
  if (own_dir) fs::remove_all(opt.dir);
  return failures == 0 ? 0 : 1;
}
