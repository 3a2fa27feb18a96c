// One measurement of the indexer per process (so that each has its own peak RSS), printed as one JSON
// line; bench/run runs them side by side and prints the table.
//
//   index_bench full DIR THREADS      a full index pass into a new database (storage on its own lane)
//   index_bench parse DIR THREADS     the floor: the same walk, read and parse, no extraction, no storage
//   index_bench extract DIR THREADS   read, parse and extract definitions, no storage
//   index_bench exec CMD ARGS...      runs a command with its output to /dev/null (for ctags)
//
// Output: {"mode", "dir", "threads", "seconds", "cpu_seconds", "files", "symbols", "bytes", "peak_rss_kib"}
// (cpu_seconds: user + system time of the process, or of the command).
//
// BRENLOC_PARSE_TIME_LIMIT_MS sets the per-file parse limit of full and extract (0: none), for runs under
// valgrind, where every file takes fifty times its CPU time and the largest would be left out.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/aio/task.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/engines/symbols.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/malloc_policy.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/workers/indexer.h"
#include "brenloc/workers/walker.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace brenloc;

namespace {

double cpu_seconds(const rusage& ru) {
  auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return s(ru.ru_utime) + s(ru.ru_stime);
}

rusage self_usage() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru;
}

void print(const std::string& mode, const std::string& dir, int threads, double seconds, const rusage& ru,
           std::int64_t files, std::int64_t bytes, std::int64_t symbols = 0) {
  json j{{"mode", mode},
                           {"dir", dir},
                           {"threads", threads},
                           {"seconds", seconds},
                           {"cpu_seconds", cpu_seconds(ru)},
                           {"files", files},
                           {"symbols", symbols},
                           {"bytes", bytes},
                           {"peak_rss_kib", ru.ru_maxrss}};
  std::cout << j.dump() << std::endl;
}

std::chrono::milliseconds parse_time_limit() {
  const char* v = std::getenv("BRENLOC_PARSE_TIME_LIMIT_MS");
  return v ? std::chrono::milliseconds(std::atoll(v)) : workers::IndexerOptions{}.parse_time_limit;
}

int run_full(const fs::path& dir, int threads) {
  std::string tmpl = (fs::temp_directory_path() / "brenloc-index-bench-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) return 1;
  fs::path data(tmpl);
  std::int64_t files = 0, bytes = 0, symbols = 0;
  double seconds = 0;
  rusage ru{};
  {
    auto db = std::make_shared<storage::Database>(data / "index.db");
    db->connect();
    db->create_schema();
    auto repo = std::make_shared<storage::Repository>(db);
    aio::EventLoop loop(2);
    daemon::Offloader lane("passes", 1);
    workers::IndexerOptions o;
    o.repository = repo;
    o.repo_root = fs::canonical(dir);
    o.offload = lane.run;
    o.refresh_report = false;
    o.parse_threads = static_cast<std::size_t>(threads);
    o.parse_time_limit = parse_time_limit();
    workers::Indexer ix(o);
    auto start = Clock::now();
    workers::IndexStats stats = aio::run_until_complete(loop, ix.full_index());
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ru = self_usage();  // the CPU time of the pass; the peak RSS is taken again below
    files = stats.files_processed;
    symbols = stats.symbols_added;
    for (const auto& f : repo->list_files()) bytes += f.size;
    lane.join();
    db->close();
  }
  ru.ru_maxrss = self_usage().ru_maxrss;
  std::error_code ec;
  fs::remove_all(data, ec);
  print("full", dir.string(), threads, seconds, ru, files, bytes, symbols);
  return 0;
}

int run_floor(const std::string& mode, const fs::path& dir, int threads) {
  const bool extract = mode == "extract";
  const fs::path root = fs::canonical(dir);
  auto start = Clock::now();
  std::atomic<bool> stop{false};
  workers::Collected c = workers::collect_files(workers::WalkPolicy{root, {}}, std::nullopt, stop);
  std::atomic<std::size_t> next{0};
  std::atomic<std::int64_t> files{0}, bytes{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&] {
      while (true) {
        std::size_t i = next.fetch_add(1);
        if (i >= c.files.size()) return;
        const auto& f = c.files[i];
        workers::SourceFile src =
            workers::read_source(utils::path_under(root, f.rel), workers::IndexerOptions{}.max_file_size);
        if (src.status != workers::SourceFile::Status::ok) continue;
        bool ok = extract ? engines::extract_symbols(f.language, src.content, parse_time_limit()).ok
                          : engines::parse_only(f.language, src.content);
        if (!ok) continue;
        files.fetch_add(1);
        bytes.fetch_add(src.size);
      }
    });
  }
  for (auto& t : pool) t.join();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  print(mode, dir.string(), threads, seconds, self_usage(), files.load(), bytes.load());
  return 0;
}

int run_exec(char** argv) {
  auto start = Clock::now();
  pid_t pid = ::fork();
  if (pid < 0) return 1;
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::execvp(argv[0], argv);
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  ::wait4(pid, &status, 0, &ru);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::cerr << "index_bench: " << argv[0] << " failed\n";
    return 1;
  }
  print(argv[0], "", 1, seconds, ru, 0, 0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::string(argv[1]) == "exec") return run_exec(argv + 2);
  brenloc::utils::apply_malloc_policy();  // as the brenloc binary does
  if (argc != 4) {
    std::cerr << "usage: index_bench full|parse|extract DIR THREADS | exec CMD ARGS...\n";
    return 2;
  }
  std::string mode = argv[1];
  int threads = std::atoi(argv[3]);
  if (threads < 1) threads = 1;
  utils::get_logger("brenloc.workers.indexer")->set_level(spdlog::level::warn);
  if (mode == "full") return run_full(argv[2], threads);
  if (mode == "parse" || mode == "extract") return run_floor(mode, argv[2], threads);
  std::cerr << "unknown mode " << mode << "\n";
  return 2;
}
