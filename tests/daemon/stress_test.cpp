// Random interleavings of force_reindex requests (paths, whole repository, rebuilds), cancellations of
// the background run and stop(), over the real staging machinery and real SQLite files. After each:
// never two runs at once, no staging file left, no task left running (what each outcome does to the
// worker's fields is the background run table's). The number of interleavings is
// BRENLOC_STRESS_INTERLEAVINGS (default 1000).
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/worker.h"
#include "daemon/fake_worker.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

// An index pass that stores one real row set, after a random short wait, and ends as it was told.
class RandomIndexer : public workers::Indexer {
 public:
  enum class End { ok, errors, failure };
  RandomIndexer(workers::IndexerOptions o, End end, int wait_us)
      : workers::Indexer(std::move(o)), end_(end), wait_us_(wait_us) {}
  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>>) override {
    auto repo = options().repository;
    co_await aio::to_thread([repo] {
      repo->store_files({storage::FileEntry{storage::FileRow{"a.py", "python", 1, 1, "h"},
                                            {storage::SymbolRow{"f", "function", 1, 1, 1, 5, ""}}}});
    });
    co_await aio::sleep_for(std::chrono::microseconds(wait_us_));
    if (end_ == End::failure) throw std::runtime_error("pass failed");
    co_return make_stats(1, 1, end_ == End::errors ? 2 : 0);
  }
  // As a real indexer's settle can: waits a little for work still on threads, which keeps a release in
  // flight long enough for cancellations and new requests to meet it.
  aio::Task<void> settle() override { co_await aio::sleep_for(std::chrono::microseconds(wait_us_ / 2)); }

 private:
  End end_;
  int wait_us_;
};

// Indexers whose passes end at random.
class RandomEnv : public daemon::WorkerEnv {
 public:
  explicit RandomEnv(std::mt19937& rng) : rng_(rng) {}
  std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions o) override {
    auto end = static_cast<RandomIndexer::End>(std::uniform_int_distribution<int>(0, 2)(rng_));
    return std::make_shared<RandomIndexer>(std::move(o), end, std::uniform_int_distribution<int>(0, 3000)(rng_));
  }

 private:
  std::mt19937& rng_;
};

class StressWorker : public daemon::RepoWorker {
 public:
  StressWorker(const fs::path& root, const fs::path& data, RandomEnv& env) : RepoWorker(root, data, {}, env) {}
  using RepoWorker::_handle_force_reindex;

  std::vector<std::string> violations;
  int runs = 0;

 protected:
  aio::Task<void> _start_indexing() override {
    co_await RepoWorker::_start_indexing();
    if (_indexing_in_progress != 1) violations.push_back("two runs at once");
    ++runs;
  }
};

aio::Task<void> interleave(StressWorker& w, std::mt19937& rng) {
  co_await w.start();
  std::vector<std::shared_ptr<aio::FutureBase>> requests;
  std::uniform_int_distribution<int> op(0, 9), us(0, 4000);
  const int steps = std::uniform_int_distribution<int>(3, 10)(rng);
  for (int i = 0; i < steps; ++i) {
    const int o = op(rng);
    if (o <= 4) {
      json params = o <= 1 ? json{{"clear_existing", true}} : o == 2 ? json{{"paths", {"a.py"}}} : json::object();
      // Sent without waiting for the others: several can wait for the handler's lock at once.
      requests.push_back(aio::spawn(w._handle_force_reindex(params)).base());
    } else if (o <= 6) {
      auto run = w.last_run();
      if (run && !run->done() && run->cancelling() == 0) run->cancel();
    } else if (o == 7 && i == steps - 1) {
      break;  // stop below, possibly in the middle of a run
    } else {
      co_await aio::sleep_for(std::chrono::microseconds(us(rng)));
    }
  }
  co_await aio::wait_all(requests);
  co_await w.stop();
}

TEST(Stress, RandomInterleavingsKeepTheInvariants) {
  const char* env = std::getenv("BRENLOC_STRESS_INTERLEAVINGS");
  const int interleavings = env != nullptr ? std::atoi(env) : 1000;
  TempDir root, data;
  write_file(root.path() / "a.py", "def f():\n    pass\n");
  int runs = 0;
  for (int seed = 1; seed <= interleavings; ++seed) {
    std::mt19937 rng(seed);
    fs::remove_all(data.path() / "d");
    aio::EventLoop loop;
    RandomEnv env(rng);
    StressWorker w(root.path(), data.path() / "d", env);
    aio::run_until_complete(loop, interleave(w, rng));
    runs += w.runs;
    for (const auto& v : w.violations) ADD_FAILURE() << "seed " << seed << ": " << v;
    EXPECT_FALSE(staging_files_left(data.path() / "d")) << "seed " << seed;
    EXPECT_TRUE(!w.last_run() || w.last_run()->done()) << "seed " << seed;
    EXPECT_EQ(w.releases_in_flight(), 0) << "seed " << seed;
    EXPECT_EQ(daemon::detached_task_count(), 0u) << "seed " << seed;
    if (HasFailure()) break;
  }
  RecordProperty("runs", runs);
  std::printf("%d interleavings, %d background runs\n", interleavings, runs);
}

}  // namespace
}  // namespace brenloc::testing
