// How closely the index follows the working tree, measured side by side in one run on a copy of a real
// tree (by default /usr/include, copied once to /tmp/brenloc-bench/include and reused):
//
//   noop      a live pass over the unchanged tree, against a plain walk that stats every entry, and
//             against the same pass made to read every file (as a pass did before it trusted statuses)
//   follow    a worker that watches the tree: the time from a file's write to its symbol being found by
//             search_symbols (every other edit: to its new call site being found by find_references),
//             p50/p99 over --edits edits at one per second; the time for 2,000 changed
//             files (a branch switch) to be found, next to a live pass over those files; and the CPU time
//             of the worker's process while nothing changes for --idle seconds
//
//   watch_bench [--tree DIR] [--rounds N] [--edits N] [--idle SECONDS] [noop] [follow]
//
// Prints one line per measurement and the ratios.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <sys/resource.h>

#include "brenloc/aio/task.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/storage/database.h"
#include "brenloc/storage/repository.h"
#include "brenloc/utils/logging.h"
#include "brenloc/workers/indexer.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace brenloc;

namespace {

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// The copy of `source` that the benchmark changes, made once.
fs::path bench_tree(const fs::path& source) {
  fs::path copy = fs::path("/tmp/brenloc-bench") / source.filename();
  if (!fs::exists(copy / ".complete")) {
    fs::remove_all(copy);
    fs::create_directories(copy.parent_path());
    std::string cmd = fmt::format("cp -a '{}' '{}'", source.string(), copy.string());
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("copying " + source.string() + " failed");
    std::ofstream(copy / ".complete") << "";
  }
  return copy;
}

// A plain walk that stats every entry: the floor of any pass that looks at every file.
std::int64_t stat_walk(const fs::path& dir) {
  std::int64_t n = 0;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return 0;
  std::vector<std::string> subdirs;
  int dfd = ::dirfd(d);
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] == '.' && (e->d_name[1] == '\0' || (e->d_name[1] == '.' && e->d_name[2] == '\0'))) continue;
    struct stat st {};
    if (::fstatat(dfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    ++n;
    if (S_ISDIR(st.st_mode)) subdirs.push_back(e->d_name);
  }
  ::closedir(d);
  for (const auto& s : subdirs) n += stat_walk(dir / s);
  return n;
}

struct Index {
  fs::path data;
  std::shared_ptr<storage::Database> db;
  std::shared_ptr<storage::Repository> repo;
  aio::EventLoop loop{2};
  daemon::Offloader lane{"passes", 1};

  explicit Index(const fs::path& dir) : data(dir) {
    fs::remove_all(data);
    fs::create_directories(data);
    db = std::make_shared<storage::Database>(data / "index.db");
    db->connect();
    db->create_schema();
    repo = std::make_shared<storage::Repository>(db);
  }
  ~Index() {
    lane.join();
    db->close();
    std::error_code ec;
    fs::remove_all(data, ec);
  }

  workers::IndexStats pass(const fs::path& root, std::int64_t racy_margin_ns = workers::kRacyMarginNs) {
    workers::IndexerOptions o{.repository = repo, .repo_root = root, .offload = lane.run, .refresh_report = false};
    o.racy_margin_ns = racy_margin_ns;
    workers::Indexer ix(o);
    return aio::run_until_complete(loop, ix.full_index());
  }
};

void noop(const fs::path& tree, int rounds) {
  Index index("/tmp/brenloc-bench/noop-data");
  auto t = Clock::now();
  auto first = index.pass(tree);
  fmt::print("full pass into an empty index: {} files, {:.2f} s\n", first.files_processed, since(t));
  index.pass(tree);  // rows read too soon after the copy are refreshed here
  std::vector<double> walk, live, reading;
  std::int64_t entries = 0, read = 0, read_all = 0;
  for (int r = 0; r < rounds; ++r) {
    t = Clock::now();
    entries = stat_walk(tree);
    walk.push_back(since(t));
    t = Clock::now();
    read = index.pass(tree).files_read;
    live.push_back(since(t));
    t = Clock::now();
    read_all = index.pass(tree, std::int64_t{1} << 62).files_read;
    reading.push_back(since(t));
  }
  fmt::print("stat walk:                 {:.3f} s ({} entries)\n", median(walk), entries);
  fmt::print("no-op live pass:           {:.3f} s ({} files read)  = {:.1f}x the stat walk\n", median(live), read,
             median(live) / median(walk));
  fmt::print("live pass reading all:     {:.3f} s ({} files read)  = {:.1f}x the stat walk\n", median(reading),
             read_all, median(reading) / median(walk));
}

double cpu_seconds() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  auto s = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return s(ru.ru_utime) + s(ru.ru_stime);
}

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

// Whether search_symbols finds `name` defined in `rel`.
aio::Task<bool> found(daemon::RepoWorker& w, const std::string& name, const std::string& rel) {
  auto answer = co_await w.search({.query = name, .limit = 5});
  for (const auto& hit : answer.found.hits) {
    if (hit.name == name && hit.path == rel) co_return true;
  }
  co_return false;
}

// Polls every `every` until `name` is found in `rel`; the seconds it took from `since`, or -1 after 30 s.
// `slowest`, when given, is set to the seconds of the slowest search made meanwhile.
aio::Task<double> until_found(daemon::RepoWorker& w, const std::string& name, const std::string& rel,
                              Clock::time_point since_t, std::chrono::milliseconds every, double* slowest = nullptr) {
  for (;;) {
    const auto asked = Clock::now();
    const bool done = co_await found(w, name, rel);
    if (slowest) *slowest = std::max(*slowest, since(asked));
    if (done) break;
    if (since(since_t) > 30) co_return -1;
    co_await aio::sleep_for(every);
  }
  co_return since(since_t);
}

// Whether find_references finds a call of `name` in `rel`.
aio::Task<bool> called(daemon::RepoWorker& w, const std::string& name, const std::string& rel) {
  auto answer = co_await w.references({.name = name, .roles = 1u << static_cast<int>(storage::UseRole::call)});
  if (const auto* found = std::get_if<daemon::References>(&answer)) {
    for (const auto& file : found->files) {
      if (file.path == rel) co_return true;
    }
  }
  co_return false;
}

// The headers of the tree, in walk order, for the edits.
std::vector<std::string> headers(const fs::path& tree, std::size_t n) {
  std::vector<std::string> out;
  for (auto it = fs::recursive_directory_iterator(tree); it != fs::recursive_directory_iterator() && out.size() < n;
       ++it) {
    if (it->is_regular_file() && !it->is_symlink() && it->path().extension() == ".h") {
      out.push_back(it->path().lexically_relative(tree).generic_string());
    }
  }
  return out;
}

void append(const fs::path& file, const std::string& line) { std::ofstream(file, std::ios::app) << line; }

aio::Task<void> follow_body(daemon::RepoWorker& w, const fs::path& tree, const fs::path& data, int edits,
                            int idle_seconds) {
  auto t = Clock::now();
  co_await w.start();
  while (w.follower()->first_pass_pending()) co_await aio::sleep_for(std::chrono::milliseconds(20));
  fmt::print("pass at start: {:.2f} s, {} watches\n", since(t), w.follower()->watches());

  // Write to found, one edit a second.
  const auto files = headers(tree, 2000);
  std::vector<double> latency, slowest_search, call_latency;
  std::vector<std::string> lost;
  for (int i = 0; i < edits; ++i) {
    const std::string rel = files[static_cast<std::size_t>(i) % files.size()];
    const std::string name = fmt::format("brenloc_probe_{}", i);
    const std::string callee = fmt::format("brenloc_callee_{}", i);
    const auto start = Clock::now();
    append(tree / rel, fmt::format("\nstatic inline int {}(void) {{ return {}(); }}\n", name, callee));
    // Every other edit, the time until its new call site is found by find_references, else until its new
    // definition is found by search.
    if (i % 2 == 1) {
      double s = -1;
      while (since(start) < 30) {
        if (co_await called(w, callee, rel)) {
          s = since(start);
          break;
        }
        co_await aio::sleep_for(std::chrono::milliseconds(2));
      }
      if (s < 0) lost.push_back(rel);
      else call_latency.push_back(s);
      co_await aio::sleep_for(std::chrono::milliseconds(1000) - (Clock::now() - start));
      continue;
    }
    double slowest = 0;
    double s = co_await until_found(w, name, rel, start, std::chrono::milliseconds(2), &slowest);
    if (s < 0) {
      lost.push_back(rel);
    } else {
      latency.push_back(s);
      slowest_search.push_back(slowest);
    }
    co_await aio::sleep_for(std::chrono::milliseconds(1000) - (Clock::now() - start));
  }
  fmt::print("write to found, {} edits at 1/s: p50 {:.1f} ms, p99 {:.1f} ms, max {:.1f} ms, {} not found in 30 s{}{}\n",
             edits, 1000 * percentile(latency, 0.5), 1000 * percentile(latency, 0.99),
             1000 * percentile(latency, 1.0), lost.size(), lost.empty() ? "" : ": ", fmt::join(lost, ", "));
  fmt::print("write to a new call site found by find_references: p50 {:.1f} ms, p99 {:.1f} ms, max {:.1f} ms\n",
             1000 * percentile(call_latency, 0.5), 1000 * percentile(call_latency, 0.99),
             1000 * percentile(call_latency, 1.0));
  // The first search after a change of names reads the index's names again: its share of the latency.
  fmt::print("  the slowest search of each edit: p50 {:.1f} ms, p99 {:.1f} ms\n", 1000 * percentile(slowest_search, 0.5),
             1000 * percentile(slowest_search, 0.99));

  // A branch switch: 2,000 files changed at once.
  co_await aio::sleep_for(std::chrono::seconds(3));
  const int passes = w.follower()->passes();
  t = Clock::now();
  for (std::size_t i = 0; i < files.size(); ++i) append(tree / files[i], fmt::format("\nstatic inline int brenloc_switch_{}(void) {{ return 1; }}\n", i));
  const double written = since(t);
  const std::string last = fmt::format("brenloc_switch_{}", files.size() - 1);
  double reflected = co_await until_found(w, last, files.back(), t, std::chrono::milliseconds(20));
  while (w.busy()) co_await aio::sleep_for(std::chrono::milliseconds(20));
  reflected = since(t);
  const bool first_found = co_await found(w, "brenloc_switch_0", files.front());
  fmt::print("branch switch of {} files: written in {:.2f} s, reflected {:.2f} s after the first write, in {} passes "
             "(first file found: {})\n",
             files.size(), written, reflected, w.follower()->passes() - passes, first_found);

  // Idle.
  co_await aio::sleep_for(std::chrono::seconds(3));
  const double cpu0 = cpu_seconds();
  t = Clock::now();
  co_await aio::sleep_for(std::chrono::seconds(idle_seconds));
  const double cpu = cpu_seconds() - cpu0;
  fmt::print("idle for {:.0f} s: {:.3f} CPU seconds = {:.3f}% of a core\n", since(t), cpu, 100 * cpu / since(t));
  co_await w.stop();

  // The same 2,000 files changed again, indexed by one live pass over their paths (nothing watching).
  for (std::size_t i = 0; i < files.size(); ++i) append(tree / files[i], fmt::format("\nstatic inline int brenloc_again_{}(void) {{ return 1; }}\n", i));
  auto db = std::make_shared<storage::Database>(data / "index.db");
  db->connect();
  auto repo = std::make_shared<storage::Repository>(db);
  daemon::Offloader lane("passes", 1);
  workers::Indexer ix({.repository = repo, .repo_root = tree, .offload = lane.run, .refresh_report = false});
  std::vector<fs::path> paths;
  for (const auto& f : files) paths.push_back(tree / f);
  t = Clock::now();
  auto stats = co_await ix.full_index(paths);
  fmt::print("live pass over those {} files: {:.2f} s ({} read)\n", paths.size(), since(t), stats.files_read);
  co_await lane.shutdown();
  db->close();
}

void follow(const fs::path& source, int edits, int idle_seconds) {
  // A copy of its own: the edits change it.
  const fs::path tree = "/tmp/brenloc-bench/follow-tree", data = "/tmp/brenloc-bench/follow-data";
  fs::remove_all(tree);
  fs::remove_all(data);
  std::string cmd = fmt::format("cp -a '{}' '{}'", source.string(), tree.string());
  if (std::system(cmd.c_str()) != 0) throw std::runtime_error("copying the tree failed");
  aio::EventLoop loop;
  daemon::FollowOptions o{.catch_up = true, .watch = true};
  {
    daemon::RepoWorker w(tree, data, o);
    aio::run_until_complete(loop, follow_body(w, fs::canonical(tree), data, edits, idle_seconds));
  }
  fs::remove_all(tree);
  fs::remove_all(data);
}

}  // namespace

int main(int argc, char** argv) {
  fs::path source = "/usr/include";
  int rounds = 5, edits = 300, idle = 60;
  std::vector<std::string> parts;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--tree" && i + 1 < argc) {
      source = argv[++i];
    } else if (a == "--edits" && i + 1 < argc) {
      edits = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--idle" && i + 1 < argc) {
      idle = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--rounds" && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else {
      parts.push_back(a);
    }
  }
  if (parts.empty()) parts = {"noop"};
  utils::get_logger("brenloc.workers.indexer")->set_level(spdlog::level::warn);
  utils::get_logger("brenloc.storage")->set_level(spdlog::level::warn);
  const fs::path tree = fs::canonical(bench_tree(source));
  for (const auto& p : parts) {
    if (p == "noop") noop(tree, rounds);
    else if (p == "follow") follow(tree, edits, idle);
    else {
      std::cerr << "watch_bench: unknown part " << p << "\n";
      return 2;
    }
  }
  return 0;
}
