// Latency of the force_reindex handler from the call to its "accepted" answer, with an indexer that
// finishes at once, over 10,000 requests (each after the previous run finished), on a small and on a
// large repository root: the answer must not depend on the repository's size.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/utils/logging.h"

namespace {

using namespace brenloc;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

class InstantIndexer : public workers::Indexer {
 public:
  using workers::Indexer::Indexer;
  aio::Task<workers::IndexStats> full_index(std::optional<std::vector<fs::path>>) override { co_return {}; }
  aio::Task<void> settle() override { co_return; }
};

class InstantEnv : public daemon::WorkerEnv {
 public:
  std::shared_ptr<workers::Indexer> new_indexer(workers::IndexerOptions o) override {
    return std::make_shared<InstantIndexer>(std::move(o));
  }
};

struct Figures {
  double p50_us, p99_us, max_us;
};

aio::Task<Figures> measure(daemon::RepoWorker& w, int n) {
  co_await w.start();
  std::vector<double> us;
  us.reserve(n);
  for (int i = 0; i < n; ++i) {
    auto t0 = Clock::now();
    auto response = co_await w.force_reindex(json::object());
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    if (response["status"] != "accepted") std::fprintf(stderr, "unexpected: %s\n", response.dump().c_str());
    co_await aio::wait_all({w.last_run()->base()});
  }
  co_await w.stop();
  std::sort(us.begin(), us.end());
  co_return Figures{us[n / 2], us[n * 99 / 100], us.back()};
}

}  // namespace

int main() {
  utils::get_logger("brenloc.daemon.worker")->set_level(spdlog::level::warn);
  const int n = 10000;
  const fs::path data = fs::temp_directory_path() / "brenloc-handler-bench";
  fs::create_directories(data / "small");
  std::printf("%-28s %10s %10s %10s\n", "repository root", "p50 us", "p99 us", "max us");
  for (const fs::path& root : {data / "small", fs::path("/usr/include"), fs::path("/usr/lib/python3")}) {
    if (!fs::exists(root)) continue;
    fs::remove_all(data / "index");
    aio::EventLoop loop;
    InstantEnv env;
    daemon::RepoWorker w(root, data / "index", {}, env);
    Figures f = aio::run_until_complete(loop, measure(w, n));
    std::printf("%-28s %10.1f %10.1f %10.1f\n", root.string().c_str(), f.p50_us, f.p99_us, f.max_us);
  }
  fs::remove_all(data);
}
