// Symbol search on a real index, measured side by side in one run.
//
//   search_bench DATA_DIR [--repo /usr/include] [--rounds 200] [--no-rebuild] [--only FORM]
//
// DATA_DIR holds the index of REPO (build it once: brenloc reindex --clear-existing --repo REPO
// --data-dir DATA_DIR). Table 1: p50/p99 of every query form (cache cleared before each query, so that
// SQLite answers every one), idle and while a full rebuild of the same index runs in this process (a
// worker's, as in the daemon, whose live store the queries use), beside the substring LIKE scan in name
// order that search used to be; and the idle p99 of a query's time on the CPU (a wall time far above it
// waited for a core: on a shared machine, p99 of 100 rounds is mostly the one query that waited). Then the rebuild's time and swap, the slowest queries during the rebuild,
// what building the search tables costs on a copy of the index, and their size.
#include <sqlite3.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "brenloc/aio/task.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/name_table.h"
#include "brenloc/storage/repository.h"
#include "brenloc/storage/schema.h"
#include "brenloc/storage/sqlite_util.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/malloc_policy.h"

namespace fs = std::filesystem;
using namespace brenloc::storage;
using Clock = std::chrono::steady_clock;
using M = SymbolQuery::Match;

namespace {

struct Form {
  std::string label;
  SymbolQuery query;
};

std::vector<Form> forms() {
  return {
      {"exact", {.text = "connect", .match = M::exact, .limit = 20}},
      {"exact, none", {.text = "zzqqxxw", .match = M::exact, .limit = 20}},
      {"prefix", {.text = "pthread_", .match = M::prefix, .limit = 20}},
      {"prefix, 1 char", {.text = "s", .match = M::prefix, .limit = 20}},
      {"substring", {.text = "mutex", .match = M::substring, .limit = 20}},
      {"substring, none", {.text = "qqzzxw", .match = M::substring, .limit = 20}},
      {"substring, 2 chars, none", {.text = "qz", .match = M::substring, .limit = 20}},
      {"fuzzy", {.text = "gSB", .match = M::fuzzy, .limit = 20}},
      {"fuzzy, none", {.text = "sqzjx", .match = M::fuzzy, .limit = 20}},
      {"auto, letters anywhere", {.text = "statbar", .limit = 20}},
      {"auto", {.text = "run", .limit = 20}},
      {"auto, none", {.text = "qqzzxw", .limit = 20}},
      {"glob", {.text = "Inv*", .limit = 20}},
      {"scoped", {.text = "vector.push_back", .limit = 20}},
      {"scoped, nothing under it", {.text = "nowhere.push_back", .limit = 20}},
      {"kind filter", {.text = "lock", .kind = "function", .limit = 20}},
      {"path filter (dir)", {.text = "connect", .path_prefix = "boost/asio", .limit = 20}},
      {"path filter (few files)", {.text = "s", .path_prefix = "boost/asio/ip", .limit = 20}},
      {"path glob", {.text = "read", .path_prefix = "linux/*.h", .limit = 20}},
      {"language filter", {.text = "open", .limit = 20, .language = "c"}},
  };
}

// The old substring search: a LIKE over the name index in name order, stopping at the limit.
class LikeScan {
 public:
  explicit LikeScan(const fs::path& db) {
    sqlite3_open_v2(db.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_busy_timeout(db_, 5000);
    stmt_ = brenloc::storage::detail::Statement(
        db_,
        "SELECT s.name, s.kind, f.path FROM symbols s INDEXED BY symbols_by_name CROSS JOIN files f ON "
        "f.id = s.file_id WHERE s.name LIKE ?1 ORDER BY s.name COLLATE NOCASE LIMIT 20",
        db, "like scan");
  }
  ~LikeScan() {
    stmt_ = {};
    sqlite3_close_v2(db_);
  }
  void run(const std::string& text) {
    stmt_.bind(1, "%" + text + "%");
    while (sqlite3_step(stmt_.get()) == SQLITE_ROW) {
    }
    stmt_.reset();
  }

 private:
  sqlite3* db_ = nullptr;
  brenloc::storage::detail::Statement stmt_;
};

struct Latency {
  std::vector<double> ms;
  double pct(double p) {
    if (ms.empty()) return 0;
    std::sort(ms.begin(), ms.end());
    return ms[std::min(ms.size() - 1, static_cast<std::size_t>(p * static_cast<double>(ms.size())))];
  }
};

double ms_since(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// A query slower than most, and when it ran.
struct Slow {
  double ms;
  std::size_t form;
  Clock::time_point at;
  double cpu_ms;  // of this thread: well below `ms` when the query waited for a core
};

double thread_cpu_ms() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// One round: every form once through the repository, and its text once through the LIKE scan (unless
// `with_like` is false: the scan takes a hundred times longer); the slowest queries are kept in `slow`
// when given, and each query's time on the CPU in `cpu` (a wall time well above it waited for a core).
void round(Repository& repo, LikeScan& like, std::vector<Latency>& ours, std::vector<Latency>& theirs,
           std::vector<Slow>* slow = nullptr, bool with_like = true, std::vector<Latency>* on_cpu = nullptr) {
  const auto all = forms();
  for (std::size_t i = 0; i < all.size(); ++i) {
    repo.clear_query_cache();
    const double cpu = thread_cpu_ms();
    auto t = Clock::now();
    const auto started = t;
    repo.find_symbols(all[i].query);
    ours[i].ms.push_back(ms_since(t));
    if (on_cpu) (*on_cpu)[i].ms.push_back(thread_cpu_ms() - cpu);
    if (slow) {
      slow->push_back({ours[i].ms.back(), i, started, thread_cpu_ms() - cpu});
      std::sort(slow->begin(), slow->end(), [](const Slow& a, const Slow& b) { return a.ms > b.ms; });
      if (slow->size() > 6) slow->pop_back();
    }
    if (!with_like) continue;
    t = Clock::now();
    like.run(all[i].query.text);
    theirs[i].ms.push_back(ms_since(t));
  }
}

long resident_kib() {
  std::ifstream in("/proc/self/statm");
  long pages = 0, resident = 0;
  in >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}


// Writes over a buffer larger than the processor's caches, as the work between two queries would.
[[gnu::noinline]] void evict(std::vector<char>& other, int round) {
  for (std::size_t i = 0; i < other.size(); i += 64) other[i] = static_cast<char>(round);
}

void print_slowest(const std::vector<Slow>& slow, const std::vector<Form>& all, Clock::time_point swapped) {
  std::printf("slowest during the rebuild:");
  for (const Slow& s : slow) {
    std::printf(" %s %.1f ms, %.1f ms on the CPU (started %+.2f s from the swap's end);", all[s.form].label.c_str(),
                s.ms, s.cpu_ms, std::chrono::duration<double>(s.at - swapped).count());
  }
  std::printf("\n");
}

// The live store, which notes when its last swap ended.
class TimedRepository : public Repository {
 public:
  using Repository::Repository;
  Counts swap_index_from(const fs::path& staging) override {
    Counts counts = Repository::swap_index_from(staging);
    swapped = Clock::now().time_since_epoch().count();
    return counts;
  }
  std::atomic<Clock::rep> swapped{0};
};

// A worker over the index on a thread of its own, as the daemon's (without following the tree): it
// rebuilds the index once when asked to.
// Makes the live store a timed one.
class TimedEnv : public brenloc::daemon::WorkerEnv {
 public:
  std::shared_ptr<Repository> new_repository(std::shared_ptr<Database> db) override {
    if (db->path().filename() != "index.db") return WorkerEnv::new_repository(std::move(db));
    live = std::make_shared<TimedRepository>(std::move(db));
    return live;
  }
  std::shared_ptr<TimedRepository> live;
};

class Rebuilder : public TimedEnv, public brenloc::daemon::RepoWorker {
 public:
  Rebuilder(const fs::path& root, const fs::path& data) : RepoWorker(root, data, {}, *this) {
    thread_ = std::thread([this] { brenloc::aio::run_until_complete(loop_, body()); });
    while (!ready_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~Rebuilder() override {
    stop_ = true;
    thread_.join();
  }

  std::atomic<bool> go_{false}, done_{false};
  double seconds = 0;

 private:
  brenloc::aio::Task<void> body() {
    co_await start();
    while (follower() && follower()->first_pass_pending()) co_await brenloc::aio::sleep_for(std::chrono::milliseconds(20));
    ready_ = true;
    while (!go_ && !stop_) co_await brenloc::aio::sleep_for(std::chrono::milliseconds(5));
    if (go_) {
      const auto t = Clock::now();
      const auto answer = co_await force_reindex(nlohmann::json{{"clear_existing", true}});
      if (answer["status"] != "accepted") std::fprintf(stderr, "not accepted: %s\n", answer.dump().c_str());
      co_await brenloc::aio::wait_all({last_run()->base()});
      seconds = ms_since(t) / 1000;
      done_ = true;
    }
    while (!stop_) co_await brenloc::aio::sleep_for(std::chrono::milliseconds(20));
    co_await stop();
  }

  brenloc::aio::EventLoop loop_;
  std::thread thread_;
  std::atomic<bool> ready_{false}, stop_{false};
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: search_bench DATA_DIR [--repo DIR] [--rounds N] [--no-rebuild]\n");
    return 64;
  }
  brenloc::utils::apply_malloc_policy();  // as the brenloc binary does
  const fs::path data = fs::absolute(argv[1]);
  fs::path repo_root = "/usr/include";
  int rounds = 200;
  bool rebuild = true;
  std::string only;  // one query form, for profiling: its queries alone, as fast as they go
  bool cold = false;  // with --only: the processor's caches emptied before each query, as other work would
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--repo" && i + 1 < argc) repo_root = argv[++i];
    if (a == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]);
    if (a == "--no-rebuild") rebuild = false;
    if (a == "--only" && i + 1 < argc) only = argv[++i];
    if (a == "--cold") cold = true;
  }
  for (auto name : {"brenloc.storage", "brenloc.daemon.worker", "brenloc.workers.indexer"}) {
    brenloc::utils::get_logger(name)->set_level(spdlog::level::warn);
  }
  const fs::path db_path = data / "index.db";
  auto db = std::make_shared<Database>(db_path);
  db->connect();
  Repository repo(db);
  LikeScan like(db_path);
  const auto all = forms();
  if (!only.empty()) {
    for (const auto& f : all) {
      if (f.label != only) continue;
      Latency l, cpu;
      const auto first = repo.find_symbols(f.query);  // reads the names into memory first
      std::printf("%s: %zu hits of %lld%s\n", only.c_str(), first.hits.size(), static_cast<long long>(first.total),
                  first.more ? " and more" : "");
      std::vector<char> other(cold ? 96 << 20 : 0);
      for (int r = 0; r < rounds; ++r) {
        repo.clear_query_cache();
        evict(other, r);
        const double on_cpu = thread_cpu_ms();
        const auto t = Clock::now();
        repo.find_symbols(f.query);
        l.ms.push_back(ms_since(t));
        cpu.ms.push_back(thread_cpu_ms() - on_cpu);
      }
      std::printf("%s: p50 %.3f ms, p99 %.3f ms (on the CPU: p50 %.3f ms, p99 %.3f ms)\n", only.c_str(), l.pct(0.5),
                  l.pct(0.99), cpu.pct(0.5), cpu.pct(0.99));
    }
    return 0;
  }
  {
    // What the names in memory cost: the first search of a new store reads them.
    const long before = resident_kib();
    Repository fresh(db);
    const auto t = Clock::now();
    fresh.find_symbols({.text = "sqzjx", .match = M::fuzzy, .limit = 20});
    std::printf("names in memory: read in %.0f ms, %.1f MiB more resident\n", ms_since(t),
                static_cast<double>(resident_kib() - before) / 1024);
  }
  {
    // What a search pays when the names changed since the last one (in another process, or by a store
    // that does not hand the new names over): the names are read again.
    Latency l;
    for (int r = 0; r < 5; ++r) {
      db->execute("UPDATE name_state SET stamp = stamp + 1");
      repo.clear_query_cache();
      const auto t = Clock::now();
      repo.find_symbols({.text = "Inv*", .limit = 20});
      l.ms.push_back(ms_since(t));
    }
    std::printf("a search after the names changed elsewhere: p50 %.0f ms, max %.0f ms\n", l.pct(0.5), l.pct(1));
    // A file stored through the store (as the worker stores a saved file), with a name of its own, and
    // removed again: the store hands the changed names to the searches.
    Latency store, search, plain_store;
    Repository plain(db);  // not searched: it keeps no names in memory
    for (int r = 0; r < 5; ++r) {
      FileEntry e{FileRow{"search_bench_probe.h", "c", 1, 1, "probe"}, {SymbolRow{fmt::format("SearchBenchProbe{}", r), "function", 1, 1, 1, 1, ""}}};
      const auto t = Clock::now();
      plain.store_files({e});
      plain_store.ms.push_back(ms_since(t));
      plain.remove_files({e.file.path});
    }
    repo.clear_query_cache();
    repo.find_symbols({.text = "Inv*", .limit = 20});  // reads the names that the other store changed
    for (int r = 0; r < 5; ++r) {
      FileEntry e{FileRow{"search_bench_probe.h", "c", 1, 1, "probe"}, {SymbolRow{fmt::format("SearchBenchProbe{}", r), "function", 1, 1, 1, 1, ""}}};
      auto t = Clock::now();
      repo.store_files({e});
      store.ms.push_back(ms_since(t));
      t = Clock::now();
      repo.find_symbols({.text = "Inv*", .limit = 20});
      search.ms.push_back(ms_since(t));
      repo.remove_files({e.file.path});
    }
    std::printf("a search after a store of one file: p50 %.1f ms, max %.1f ms (the store: p50 %.1f ms, %.1f ms "
                "in a store that keeps no names in memory)\n",
                search.pct(0.5), search.pct(1), store.pct(0.5), plain_store.pct(0.5));
  }
  std::vector<Latency> idle(all.size()), idle_like(all.size()), busy(all.size()), busy_like(all.size()),
      idle_cpu(all.size());
  std::unique_ptr<Rebuilder> worker;
  if (rebuild) worker = std::make_unique<Rebuilder>(repo_root, data);
  Repository& live = worker ? *worker->live : repo;
  for (int r = 0; r < 3; ++r) round(live, like, idle, idle_like);  // warm the page cache
  idle.assign(all.size(), {}), idle_like.assign(all.size(), {});

  // Idle rounds, then rounds while a rebuild runs (as many as it lasts), then idle rounds again.
  for (int r = 0; r < rounds / 2; ++r) round(live, like, idle, idle_like, nullptr, true, &idle_cpu);
  std::vector<Slow> slow;
  if (worker) {
    worker->go_ = true;
    // The LIKE scan in one round of eight, so that the rebuild lasts many rounds of ours.
    for (int r = 0; !worker->done_; ++r) round(live, like, busy, busy_like, &slow, r % 8 == 0);
  }
  for (int r = 0; r < rounds / 2; ++r) round(live, like, idle, idle_like, nullptr, true, &idle_cpu);

  std::printf("%-26s %9s %9s %9s %9s | %9s %9s %9s %9s | %9s\n", "query form (ms)", "p50", "p99", "busy p50",
              "busy p99", "LIKE p50", "LIKE p99", "busy p50", "busy p99", "CPU p99");
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::printf("%-26s %9.3f %9.3f %9.3f %9.3f | %9.3f %9.3f %9.3f %9.3f | %9.3f\n", all[i].label.c_str(),
                idle[i].pct(0.5), idle[i].pct(0.99), busy[i].pct(0.5), busy[i].pct(0.99), idle_like[i].pct(0.5),
                idle_like[i].pct(0.99), busy_like[i].pct(0.5), busy_like[i].pct(0.99), idle_cpu[i].pct(0.99));
  }
  std::printf("rounds: %zu idle, %zu during the rebuild (of the LIKE scan: %zu)\n", idle[0].ms.size(),
              busy[0].ms.size(), busy_like[0].ms.size());

  double rebuild_s = 0;
  if (worker) {
    rebuild_s = worker->seconds;
    const SwapTiming swap = worker->live->last_swap_timing();
    std::printf("full rebuild %.1f s; swap %.3f s for %lld symbols (write lock %.3f s)\n", rebuild_s,
                swap.total_seconds, static_cast<long long>(live.counts().symbols), swap.write_lock_seconds);
    print_slowest(slow, all, Clock::time_point(Clock::duration(worker->live->swapped.load())));
    worker.reset();
  }

  // What the search tables cost: built again on a copy, and their share of the file.
  const fs::path copy = data / "search_bench_copy.db";
  db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  fs::copy_file(db_path, copy, fs::copy_options::overwrite_existing);
  {
    Database scratch(copy, Durability::unsynced);
    scratch.connect();
    double build_s = 0;
    scratch.with_connection([&](sqlite3* c) {
      // With the settings of the index build that they are part of in a rebuild.
      brenloc::storage::detail::run_script(c, brenloc::storage::detail::kIndexBuildPragmas, copy, "bench");
      sqlite3_limit(c, SQLITE_LIMIT_WORKER_THREADS, static_cast<int>(std::thread::hardware_concurrency()));
      auto t = Clock::now();
      brenloc::storage::detail::run_script(c, "BEGIN", copy, "bench");
      brenloc::storage::detail::rebuild_search_tables(c, copy, "bench");
      brenloc::storage::detail::run_script(c, "COMMIT", copy, "bench");
      build_s = ms_since(t) / 1000;
    });
    std::int64_t tables = 0, total = 0;
    scratch.with_connection([&](sqlite3* c) {
      tables = brenloc::storage::detail::query_int(
          c, "SELECT sum(pgsize) FROM dbstat WHERE name IN ('names', 'name_state') OR name LIKE 'name_grams%'",
          copy, "bench");
      total = brenloc::storage::detail::query_int(c, "SELECT sum(pgsize) FROM dbstat", copy, "bench");
    });
    std::printf("search tables: built in %.2f s (%.1f%% of the full rebuild), %.1f MiB = %.1f%% of index.db "
                "(%.1f%% of the index without them)\n",
                build_s, rebuild ? 100 * build_s / rebuild_s : 0.0, static_cast<double>(tables) / 1048576,
                100.0 * static_cast<double>(tables) / static_cast<double>(total),
                100.0 * static_cast<double>(tables) / static_cast<double>(total - tables));
  }
  fs::remove(copy);
  fs::remove(copy.string() + "-wal");
  fs::remove(copy.string() + "-shm");
  return 0;
}
