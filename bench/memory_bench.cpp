// Where a worker's memory goes, phase by phase, on a real tree.
//
//   memory_bench TREE DATA_DIR [--brenloc BINARY] [--searches N] [--no-command]
//
// First a plain command-line rebuild (`BINARY reindex --clear-existing` in a process of its own: its peak
// resident set and time), which also makes the index. Then a worker in this process, as the daemon runs
// one (catch-up pass at start, watching the tree), through these phases: its catch-up; every search form
// N times (as tool calls, answers and all) with outlines and sources; a full rebuild with two clients
// searching beside it; the follow-up passes after it; the searches again. For each phase a row: resident
// memory at its end and its peak, and where the bytes go: the allocator's bytes in use and the free bytes it
// holds, SQLite's page caches and the rest of its heap, file-backed pages (the WAL index, code), threads.
// Then what the names of the index cost in memory, read alone.
//
// TREE is best a copy of /usr/include (cp -a /usr/include /tmp/x): the watches and the index go there.
// BINARY defaults to the brenloc next to the bench's build directory. The heap attribution by call site
// comes from heaptrack over this same run (see the README's benchmark section).
#include <malloc.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "brenloc/aio/task.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/passes.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/tools/tool_table.h"
#include "brenloc/storage/name_catalog.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/malloc_policy.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using brenloc::json;

namespace {

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }
double mib(double bytes) { return bytes / 1048576.0; }

// A field of /proc/self/status or smaps_rollup ("VmRSS:   1234 kB"), in bytes.
double proc_field(const char* file, const std::string& name) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(name + ":", 0) != 0) continue;
    std::istringstream fields(line.substr(name.size() + 1));
    double kib = 0;
    fields >> kib;
    return kib * 1024;
  }
  return 0;
}

// Makes the peak resident set (VmHWM) start again from the current one.
void reset_peak() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
}

int thread_count() {
  int n = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/task")) ++n;
  return n;
}

struct Row {
  std::string phase;
  double seconds = 0;
  double rss = 0, peak = 0;
  double anon = 0, file = 0;
  double heap_used = 0, heap_free = 0;
  double sqlite_pages = 0, sqlite_other = 0;
  int threads = 0;
};

Row sample(std::string phase, double seconds) {
  Row r;
  r.phase = std::move(phase);
  r.seconds = seconds;
  r.rss = proc_field("/proc/self/status", "VmRSS");
  r.peak = proc_field("/proc/self/status", "VmHWM");
  r.anon = proc_field("/proc/self/smaps_rollup", "Anonymous");
  r.file = proc_field("/proc/self/status", "RssFile") + proc_field("/proc/self/status", "RssShmem");
  const struct mallinfo2 m = mallinfo2();
  r.heap_used = static_cast<double>(m.uordblks + m.hblkhd);
  r.heap_free = static_cast<double>(m.fordblks);
  sqlite3_int64 now = 0, high = 0;
  sqlite3_status64(SQLITE_STATUS_PAGECACHE_OVERFLOW, &now, &high, 0);
  r.sqlite_pages = static_cast<double>(now);
  sqlite3_status64(SQLITE_STATUS_MEMORY_USED, &now, &high, 0);
  r.sqlite_other = static_cast<double>(now) - r.sqlite_pages;
  r.threads = thread_count();
  return r;
}

void print_header() {
  std::printf("%-28s %7s %8s %8s | %8s %8s %9s %9s %8s %9s %7s\n", "phase", "seconds", "RSS MiB", "peak MiB",
              "anon", "file", "heap used", "heap free", "SQLite", "(pages)", "threads");
}

void print_row(const Row& r) {
  std::printf("%-28s %7.2f %8.1f %8.1f | %8.1f %8.1f %9.1f %9.1f %8.1f %9.1f %7d\n", r.phase.c_str(), r.seconds,
              mib(r.rss), mib(r.peak), mib(r.anon), mib(r.file), mib(r.heap_used), mib(r.heap_free),
              mib(r.sqlite_pages + r.sqlite_other), mib(r.sqlite_pages), r.threads);
  std::fflush(stdout);
}

// Runs `argv` in a process of its own; its peak resident set and time.
Row run_child(std::string phase, const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const auto t = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  Row r;
  r.phase = std::move(phase);
  r.seconds = seconds_since(t);
  r.peak = static_cast<double>(usage.ru_maxrss) * 1024;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "%s: exit status %d\n", args[0], status);
  return r;
}

// The tool calls of one round of searches: every form of search_symbols, then outlines and sources.
std::vector<std::pair<std::string, json>> search_calls() {
  std::vector<std::pair<std::string, json>> calls;
  for (json q : {json{{"query", "connect"}, {"match", "exact"}}, json{{"query", "pthread_"}, {"match", "prefix"}},
                 json{{"query", "mutex"}, {"match", "substring"}}, json{{"query", "gSB"}, {"match", "fuzzy"}},
                 json{{"query", "statbar"}}, json{{"query", "run"}}, json{{"query", "Inv*"}},
                 json{{"query", "vector.push_back"}}, json{{"query", "lock"}, {"kind", "function"}},
                 json{{"query", "connect"}, {"path", "linux"}}, json{{"query", "read"}, {"path", "linux/*.h"}},
                 json{{"query", "open"}, {"language", "c"}}, json{{"query", "qqzzxw"}}}) {
    calls.emplace_back("search_symbols", q);
  }
  calls.emplace_back("file_outline", json{{"path", "stdio.h"}});
  calls.emplace_back("symbol_source", json{{"name", "printf"}});
  calls.emplace_back("symbol_source", json{{"name", "timeval"}});
  return calls;
}

// A worker as the daemon runs one, driven through the phases on its own event loop.
class Bench : public brenloc::daemon::RepoWorker {
 public:
  Bench(const fs::path& root, const fs::path& data, int searches)
      : RepoWorker(root, data, brenloc::daemon::FollowOptions{.catch_up = true, .watch = true}), searches_(searches) {}

  std::vector<Row> run() {
    brenloc::aio::run_until_complete(loop_, body());
    return rows_;
  }

 private:
  brenloc::aio::Task<void> searches(int rounds, const std::atomic<bool>* until = nullptr) {
    const auto calls = search_calls();
    for (int r = 0; until ? !until->load() : r < rounds; ++r) {
      for (const auto& [tool, args] : calls) {
        json answer = co_await brenloc::tools::call_tool(*this, tool, args);
        if (answer.contains("error")) std::fprintf(stderr, "%s %s: %s\n", tool.c_str(), args.dump().c_str(),
                                                   answer.dump().c_str());
      }
    }
  }

  // Until the follow-up passes of the last rebuild (report, checkpoint, statistics, trim) have run.
  brenloc::aio::Task<void> passes_done(int runs) {
    while (_passes->runs_completed() < runs) co_await brenloc::aio::sleep_for(std::chrono::milliseconds(20));
  }

  brenloc::aio::Task<void> body() {
    auto t = Clock::now();
    reset_peak();
    co_await start();
    while (follower() && follower()->first_pass_pending()) {
      co_await brenloc::aio::sleep_for(std::chrono::milliseconds(20));
    }
    while (busy()) co_await brenloc::aio::sleep_for(std::chrono::milliseconds(20));
    add(sample("catch-up", seconds_since(t)));
    t = Clock::now();
    co_await passes_done(1);
    add(sample("its follow-up passes", seconds_since(t)));

    t = Clock::now();
    reset_peak();
    co_await searches(searches_);
    add(sample("searches", seconds_since(t)));

    t = Clock::now();
    reset_peak();
    json accepted = co_await force_reindex(json{{"clear_existing", true}});
    if (accepted["status"] != "accepted") std::fprintf(stderr, "rebuild not accepted: %s\n", accepted.dump().c_str());
    std::atomic<bool> rebuilt{false};
    auto beside1 = brenloc::aio::spawn(searches(0, &rebuilt));
    auto beside2 = brenloc::aio::spawn(searches(0, &rebuilt));
    co_await brenloc::aio::wait_all({last_run()->base()});
    const double rebuild_s = seconds_since(t);
    rebuilt = true;
    co_await brenloc::aio::wait_all({beside1.base(), beside2.base()});
    add(sample("rebuild + 2 searching", rebuild_s));
    const auto swap = _repository->last_swap_timing();
    std::printf("  (the swap: %.2f s, its write lock %.2f s)\n", swap.total_seconds, swap.write_lock_seconds);

    t = Clock::now();
    co_await passes_done(2);
    add(sample("its follow-up passes", seconds_since(t)));

    t = Clock::now();
    reset_peak();
    co_await searches(searches_);
    add(sample("searches again", seconds_since(t)));
    co_await stop();
  }

  void add(Row r) {
    print_row(r);
    rows_.push_back(std::move(r));
  }

  brenloc::aio::EventLoop loop_;
  int searches_;
  std::vector<Row> rows_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: memory_bench TREE DATA_DIR [--brenloc BINARY] [--searches N] [--no-command]\n");
    return 64;
  }
  brenloc::utils::apply_malloc_policy();  // as the brenloc binary does
  // SQLite counts its memory only when asked before it starts.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1);
  sqlite3_initialize();
  const fs::path tree = fs::absolute(argv[1]);
  const fs::path data = fs::absolute(argv[2]);
  fs::path binary = fs::canonical("/proc/self/exe").parent_path().parent_path() / "brenloc";
  int searches = 3;
  bool command = true;
  for (int i = 3; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--brenloc" && i + 1 < argc) binary = argv[++i];
    if (a == "--searches" && i + 1 < argc) searches = std::atoi(argv[++i]);
    if (a == "--no-command") command = false;
  }
  for (auto name : {"brenloc.storage", "brenloc.daemon.worker", "brenloc.workers.indexer", "brenloc.daemon"}) {
    brenloc::utils::get_logger(name)->set_level(spdlog::level::warn);
  }

  print_header();
  print_row(sample("bench process", 0));
  if (command || !fs::exists(data / "index.db")) {
    print_row(run_child("command-line rebuild", {binary.string(), "reindex", "--clear-existing", "-q", "--repo",
                                                 tree.string(), "--data-dir", data.string()}));
  }
  Bench(tree, data, searches).run();

  // The names of the index as a search keeps them (two of them for a moment around a swap).
  malloc_trim(0);
  const struct mallinfo2 before = mallinfo2();
  auto names = brenloc::storage::detail::NameCatalog::load_file(data / "index.db");
  const struct mallinfo2 after = mallinfo2();
  std::printf("\nthe names in memory: %zu names, %.1f MiB\n", names->size(),
              mib(static_cast<double>((after.uordblks + after.hblkhd) - (before.uordblks + before.hblkhd))));
  std::printf("RSS: resident now; peak: the phase's highest (of its own process for the command line); "
              "anon = heap used + heap free still resident + thread stacks; heap free: free bytes the "
              "allocator keeps (resident or not); SQLite: its heap, of which (pages) its page caches\n");
  return 0;
}
