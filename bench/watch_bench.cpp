// How closely the index follows the working tree, measured side by side in one run on a copy of a real
// tree (by default /usr/include, copied once to /tmp/brenloc-bench/include and reused):
//
//   noop      a live pass over the unchanged tree, against a plain walk that stats every entry, and
//             against the same pass made to read every file (as a pass did before it trusted statuses)
//
//   watch_bench [--tree DIR] [--rounds N] [noop]
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

#include "brenloc/aio/task.h"
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

}  // namespace

int main(int argc, char** argv) {
  fs::path source = "/usr/include";
  int rounds = 5;
  std::vector<std::string> parts;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--tree" && i + 1 < argc) {
      source = argv[++i];
    } else if (a == "--rounds" && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else {
      parts.push_back(a);
    }
  }
  if (parts.empty()) parts = {"noop"};
  utils::get_logger("brenloc.workers.indexer")->set_level(spdlog::level::warn);
  const fs::path tree = fs::canonical(bench_tree(source));
  for (const auto& p : parts) {
    if (p == "noop") noop(tree, rounds);
    else {
      std::cerr << "watch_bench: unknown part " << p << "\n";
      return 2;
    }
  }
  return 0;
}
