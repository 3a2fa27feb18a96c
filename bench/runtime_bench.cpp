// Costs of the coroutine runtime's basic operations: starting a task, an await that completes at
// once, and a round trip through a pool thread.
#include <benchmark/benchmark.h>

#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"
#include "brenloc/daemon/offload.h"

namespace {

using namespace brenloc;

aio::Task<int> immediate(int v) { co_return v; }

template <class Body>
void on_loop(benchmark::State& state, Body body) {
  aio::EventLoop loop(2);
  aio::run_until_complete(loop, body(state));
}

void BM_TaskStartAndAwait(benchmark::State& state) {
  on_loop(state, [](benchmark::State& st) -> aio::Task<void> {
    for (auto _ : st) {
      auto f = aio::spawn(immediate(1));
      benchmark::DoNotOptimize(co_await f);
    }
  });
}
BENCHMARK(BM_TaskStartAndAwait);

void BM_ImmediateAwait(benchmark::State& state) {
  on_loop(state, [](benchmark::State& st) -> aio::Task<void> {
    for (auto _ : st) benchmark::DoNotOptimize(co_await immediate(1));
  });
}
BENCHMARK(BM_ImmediateAwait);

void BM_PoolThreadRoundTrip(benchmark::State& state) {
  on_loop(state, [](benchmark::State& st) -> aio::Task<void> {
    for (auto _ : st) benchmark::DoNotOptimize(co_await aio::to_thread([] { return 1; }));
  });
}
BENCHMARK(BM_PoolThreadRoundTrip);

void BM_LaneRoundTrip(benchmark::State& state) {
  on_loop(state, [](benchmark::State& st) -> aio::Task<void> {
    daemon::Offloader lane("bench", 1);
    for (auto _ : st) benchmark::DoNotOptimize(co_await lane.run([] { return 1; }));
    co_await lane.shutdown();
  });
}
BENCHMARK(BM_LaneRoundTrip);

}  // namespace

BENCHMARK_MAIN();
