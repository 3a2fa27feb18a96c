// A full rebuild through the staging database against a live whole-repository pass of the same tree
// (the staging overhead), and client query latency idle, during the rebuild and during its swap, side by
// side in one run. Queries run on their own thread against the live store, as clients' would.
//
// Usage: rebuild_bench [TREE] [ROUNDS] (default /usr/lib/python3, 1 round); the overhead is the median of
// the rounds' own ratios, each round a live pass and a rebuild run back to back.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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

// Marks when the live store's swap runs.
struct SwapWindow {
  std::atomic<Clock::rep> start{0}, end{0};
};

class TimedRepository : public storage::Repository {
 public:
  TimedRepository(std::shared_ptr<storage::Database> db, SwapWindow& w) : storage::Repository(std::move(db)), w_(w) {}
  storage::Counts swap_index_from(const fs::path& p) override {
    w_.start = Clock::now().time_since_epoch().count();
    storage::Counts counts = storage::Repository::swap_index_from(p);
    w_.end = Clock::now().time_since_epoch().count();
    return counts;
  }

 private:
  SwapWindow& w_;
};

// Makes the live store a timed one.
class TimedEnv : public daemon::WorkerEnv {
 public:
  explicit TimedEnv(SwapWindow& w) : w_(w) {}
  std::shared_ptr<storage::Repository> new_repository(std::shared_ptr<storage::Database> db) override {
    if (db->path().filename() != "index.db") return WorkerEnv::new_repository(std::move(db));
    live = std::make_shared<TimedRepository>(std::move(db), w_);
    return live;
  }
  std::shared_ptr<storage::Repository> live;  // the live store, which the bench's client queries directly

 private:
  SwapWindow& w_;
};

class BenchWorker : public TimedEnv, public daemon::RepoWorker {
 public:
  BenchWorker(const fs::path& root, const fs::path& data, SwapWindow& w) : TimedEnv(w), RepoWorker(root, data, {}, *this) {}
};

aio::Task<double> timed_reindex(BenchWorker& w, json params) {
  auto t0 = Clock::now();
  json response = co_await w.force_reindex(std::move(params));
  if (response["status"] != "accepted") std::fprintf(stderr, "not accepted: %s\n", response.dump().c_str());
  co_await aio::wait_all({w.last_run()->base()});
  auto status = co_await w.status();
  if (status.last_reindex_error) std::fprintf(stderr, "reindex error: %s\n", status.last_reindex_error->c_str());
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

// One round: a live whole pass into an empty index, a full rebuild of the same tree through staging, and
// a live whole pass again into another empty index; the rebuild is compared with the mean of the two live
// passes around it, so that a machine that speeds up or slows down during the round does not bias it.
struct Round {
  double live_s = 0, live_pass_s = 0;        // the whole run, and the index pass inside it
  double live_after_s = 0;                   // the second live pass
  double rebuild_s = 0, rebuild_pass_s = 0;  // the whole rebuild, and its staging pass
  double swap_s = 0;
};

aio::Task<double> last_pass_seconds(BenchWorker& w) {
  json info = (co_await w.status()).last_index;
  co_return info.is_object() ? info.value("duration_seconds", 0.0) : 0.0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path tree = argc > 1 ? argv[1] : "/usr/lib/python3";
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
  for (auto name : {"brenloc.daemon.worker", "brenloc.workers.indexer", "brenloc.storage"}) {
    utils::get_logger(name)->set_level(spdlog::level::warn);
  }
  const fs::path data = fs::temp_directory_path() / "brenloc-rebuild-bench";
  aio::EventLoop loop;
  std::vector<Round> results;
  SwapWindow window;

  std::atomic<int> phase{0};  // 0 idle, 1 rebuild, 2 stop
  std::mutex mu;
  std::vector<Sample> samples;
  std::thread client;
  double live_again_s = 0;

  for (int r = 0; r < rounds; ++r) {
    fs::remove_all(data);
    window.start = window.end = 0;
    BenchWorker w(tree, data, window);
    const bool last = r + 1 == rounds;
    Round round;
    aio::run_until_complete(loop, [](BenchWorker& w, Round& round, SwapWindow& window, bool last, double& live_again_s,
                                     std::thread& client, std::atomic<int>& phase, std::mutex& mu,
                                     std::vector<Sample>& samples) -> aio::Task<void> {
      co_await w.start();
      round.live_s = co_await timed_reindex(w, json::object());  // a live whole pass into an empty index
      round.live_pass_s = co_await last_pass_seconds(w);
      // The same tree rebuilt through staging, with no client load either, so that the two compare.
      round.rebuild_s = co_await timed_reindex(w, json{{"clear_existing", true}});
      round.rebuild_pass_s = co_await last_pass_seconds(w);
      round.swap_s = static_cast<double>(window.end - window.start) / 1e9;
      if (last) {
        auto repo = w.live;
        client = std::thread([repo, &phase, &mu, &samples] {
          const char* queries[] = {"get", "init", "Error", "parse", "x"};
          for (int i = 0; phase != 2; ++i) {
            repo->clear_query_cache();  // measure the store, not the cache
            storage::SymbolQuery q{
                .text = queries[i % 5], .match = storage::SymbolQuery::Match::substring, .limit = 20};
            auto t0 = Clock::now();
            bool ok = true;
            try {
              ok = !repo->search_symbols(q).empty();
            } catch (const std::exception&) {
              ok = false;
            }
            auto t1 = Clock::now();
            std::lock_guard l(mu);
            samples.push_back(
                {t0.time_since_epoch().count(), std::chrono::duration<double, std::milli>(t1 - t0).count(), ok});
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
      }
      co_await w.stop();
    }(w, round, window, last, live_again_s, client, phase, mu, samples));
    const fs::path data_after = data.string() + "-after";
    fs::remove_all(data_after);
    SwapWindow unused;
    BenchWorker after(tree, data_after, unused);
    aio::run_until_complete(loop, [](BenchWorker& w, Round& round) -> aio::Task<void> {
      co_await w.start();
      round.live_after_s = co_await timed_reindex(w, json::object());
      co_await w.stop();
    }(after, round));
    fs::remove_all(data_after);
    results.push_back(round);
  }

  std::printf("tree %s, %d round(s); each round a live whole pass into an empty index, a full rebuild, and a\n"
              "live whole pass again into another empty index; overhead: the rebuild over the mean of the two\n",
              tree.c_str(), rounds);
  std::printf("%-6s %9s %9s %11s %11s %8s %9s %9s\n", "round", "live s", "pass s", "rebuild s", "staging s", "swap s",
              "live s", "overhead");
  std::vector<double> live, rebuild, overhead;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const Round& x = results[i];
    const double live_mean = (x.live_s + x.live_after_s) / 2;
    const double o = 100.0 * (x.rebuild_s / live_mean - 1);
    std::printf("%-6zu %9.2f %9.2f %11.2f %11.2f %8.3f %9.2f %8.1f%%\n", i + 1, x.live_s, x.live_pass_s, x.rebuild_s,
                x.rebuild_pass_s, x.swap_s, x.live_after_s, o);
    live.push_back(live_mean);
    rebuild.push_back(x.rebuild_s);
    overhead.push_back(o);
  }
  std::printf("median: live whole pass %.2f s (mean of the two), full rebuild through staging %.2f s, overhead %.1f%% "
              "(median of the rounds' own ratios)\n",
              median(live), median(rebuild), median(overhead));
  std::printf("live whole pass, nothing changed     %8.2f s\n\n", live_again_s);
  std::printf("%-16s %8s %9s %9s %9s %7s\n", "queries", "count", "p50 ms", "p99 ms", "max ms", "failed");
  std::vector<double> idle, rebuild_q, swap;
  int idle_failed = 0, rebuild_failed = 0, swap_failed = 0;
  const Clock::rep first_rebuild = samples.empty() ? 0 : samples.front().at + Clock::rep(3'000'000'000);
  for (const auto& s : samples) {
    bool in_swap = s.at >= window.start && s.at <= window.end;
    // A sample belongs to the rebuild when it started after the idle period (the first 3 s).
    if (in_swap) {
      swap.push_back(s.ms);
      swap_failed += !s.ok;
    } else if (s.at >= first_rebuild) {
      rebuild_q.push_back(s.ms);
      rebuild_failed += !s.ok;
    } else {
      idle.push_back(s.ms);
      idle_failed += !s.ok;
    }
  }
  percentiles("idle", idle, idle_failed);
  percentiles("during rebuild", rebuild_q, rebuild_failed);
  percentiles("during swap", swap, swap_failed);
  fs::remove_all(data);
}
