// A full rebuild through the staging database against a live whole-repository pass of the same tree
// (the staging overhead), and client query latency idle, during the rebuild and during its swap, side by
// side in one run. Queries run on their own thread against the live store, as clients' would.
//
// Usage: rebuild_bench [TREE] (default /usr/lib/python3)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/utils/logging.h"

namespace {

using namespace brenloc;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using json = nlohmann::ordered_json;

// Marks when the live store's swap runs.
struct SwapWindow {
  std::atomic<Clock::rep> start{0}, end{0};
};

class TimedRepository : public storage::Repository {
 public:
  TimedRepository(std::shared_ptr<storage::Database> db, SwapWindow& w) : storage::Repository(std::move(db)), w_(w) {}
  json swap_index_from(const fs::path& p) override {
    w_.start = Clock::now().time_since_epoch().count();
    json counts = storage::Repository::swap_index_from(p);
    w_.end = Clock::now().time_since_epoch().count();
    return counts;
  }

 private:
  SwapWindow& w_;
};

class BenchWorker : public daemon::RepoWorker {
 public:
  BenchWorker(const fs::path& root, const fs::path& data, SwapWindow& w) : RepoWorker(root, data), w_(w) {}
  std::shared_ptr<storage::Repository> _new_repository(std::shared_ptr<storage::Database> db) override {
    if (db->path().filename() == "index.db") return std::make_shared<TimedRepository>(std::move(db), w_);
    return RepoWorker::_new_repository(std::move(db));
  }

 private:
  SwapWindow& w_;
};

aio::Task<double> timed_reindex(BenchWorker& w, json params) {
  auto t0 = Clock::now();
  json response = co_await w._handle_force_reindex(std::move(params));
  if (response["status"] != "accepted") std::fprintf(stderr, "not accepted: %s\n", response.dump().c_str());
  co_await aio::wait_all({w._indexer_task->base()});
  if (w._last_reindex_error) std::fprintf(stderr, "reindex error: %s\n", w._last_reindex_error->c_str());
  co_return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct Sample {
  Clock::rep at;
  double ms;
  bool ok;
};

void percentiles(const char* phase, std::vector<double> v, int failed) {
  std::sort(v.begin(), v.end());
  if (v.empty()) {
    std::printf("%-16s %8s\n", phase, "no samples");
    return;
  }
  std::printf("%-16s %8zu %9.3f %9.3f %9.3f %7d\n", phase, v.size(), v[v.size() / 2], v[v.size() * 99 / 100], v.back(),
              failed);
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path tree = argc > 1 ? argv[1] : "/usr/lib/python3";
  for (auto name : {"brenloc.daemon.worker", "brenloc.workers.indexer", "brenloc.storage"}) {
    utils::get_logger(name)->set_level(spdlog::level::warn);
  }
  const fs::path data = fs::temp_directory_path() / "brenloc-rebuild-bench";
  fs::remove_all(data);
  SwapWindow window;
  aio::EventLoop loop;
  BenchWorker w(tree, data, window);

  std::atomic<int> phase{0};  // 0 idle, 1 rebuild, 2 stop
  std::mutex mu;
  std::vector<Sample> samples;
  auto repo_ready = std::make_shared<std::atomic<bool>>(false);
  std::thread client;

  double live_s = 0, rebuild_s = 0, live_again_s = 0;
  aio::run_until_complete(loop, [](BenchWorker& w, double& live_s, double& rebuild_s, double& live_again_s,
                                   std::thread& client, std::atomic<int>& phase, std::mutex& mu,
                                   std::vector<Sample>& samples) -> aio::Task<void> {
    co_await w.start();
    live_s = co_await timed_reindex(w, json::object());  // a live whole pass into an empty index
    // The same tree rebuilt through staging, with no client load either, so that the two compare.
    rebuild_s = co_await timed_reindex(w, json{{"clear_existing", true}});
    auto repo = w._repository;
    client = std::thread([repo, &phase, &mu, &samples] {
      const char* queries[] = {"get", "init", "Error", "parse", "x"};
      for (int i = 0; phase != 2; ++i) {
        repo->clear_query_cache();  // measure the store, not the cache
        storage::SymbolQuery q{.text = queries[i % 5], .match = storage::SymbolQuery::Match::substring, .limit = 20};
        auto t0 = Clock::now();
        bool ok = true;
        try {
          ok = !repo->search_symbols(q).empty();
        } catch (const std::exception&) {
          ok = false;
        }
        auto t1 = Clock::now();
        std::lock_guard l(mu);
        samples.push_back({t0.time_since_epoch().count(), std::chrono::duration<double, std::milli>(t1 - t0).count(), ok});
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
    co_await aio::to_thread([] { std::this_thread::sleep_for(std::chrono::seconds(3)); });  // idle samples
    phase = 1;
    co_await timed_reindex(w, json{{"clear_existing", true}});  // a second rebuild, under client load
    phase = 2;
    client.join();
    // The live pass again over an index that is up to date: what a rebuild saves nothing against.
    live_again_s = co_await timed_reindex(w, json::object());
    co_await w.stop();
  }(w, live_s, rebuild_s, live_again_s, client, phase, mu, samples));

  std::printf("tree %s\n", tree.c_str());
  std::printf("live whole pass into an empty index  %8.2f s\n", live_s);
  std::printf("full rebuild through staging         %8.2f s  (%.1f%% over the live pass)\n", rebuild_s,
              100.0 * (rebuild_s / live_s - 1));
  std::printf("live whole pass, nothing changed     %8.2f s\n", live_again_s);
  const double swap_ms = (window.end - window.start) / 1e6;
  std::printf("swap                                 %8.3f s\n\n", swap_ms / 1000);
  std::printf("%-16s %8s %9s %9s %9s %7s\n", "queries", "count", "p50 ms", "p99 ms", "max ms", "failed");
  std::vector<double> idle, rebuild, swap;
  int idle_failed = 0, rebuild_failed = 0, swap_failed = 0;
  Clock::rep first_rebuild = 0;
  for (const auto& s : samples) {
    bool in_swap = s.at >= window.start && s.at <= window.end;
    // A sample belongs to the rebuild when it started after the idle period (the first 3 s).
    if (first_rebuild == 0) first_rebuild = samples.front().at + Clock::rep(3'000'000'000);
    if (in_swap) {
      swap.push_back(s.ms);
      swap_failed += !s.ok;
    } else if (s.at >= first_rebuild) {
      rebuild.push_back(s.ms);
      rebuild_failed += !s.ok;
    } else {
      idle.push_back(s.ms);
      idle_failed += !s.ok;
    }
  }
  percentiles("idle", idle, idle_failed);
  percentiles("during rebuild", rebuild, rebuild_failed);
  percentiles("during swap", swap, swap_failed);
  fs::remove_all(data);
}
