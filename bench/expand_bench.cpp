// Expansion of a large real tree (default /usr/include; another directory may be given as the first
// argument): one recursive walk per listed extension against the single bucketing traversal, in one
// run. Both must give the identical list; the ratio of their median times is printed at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "../tests/utils/tree_fixtures.h"
#include "brenloc/daemon/reindex_paths.h"

namespace {

namespace fs = std::filesystem;
using brenloc::daemon::expand_directory;
using brenloc::daemon::listed_extensions;

fs::path tree = "/usr/include";

void BM_ReferenceWalkPerExtension(benchmark::State& state) {
  std::size_t found = 0;
  for (auto _ : state) {
    auto paths = brenloc::testing::reference_expand(tree, listed_extensions());
    found = paths.size();
    benchmark::DoNotOptimize(paths.data());
  }
  state.counters["paths"] = static_cast<double>(found);
}

void BM_SingleTraversal(benchmark::State& state) {
  std::size_t found = 0;
  for (auto _ : state) {
    std::vector<fs::path> paths;
    expand_directory(tree, paths);
    found = paths.size();
    benchmark::DoNotOptimize(paths.data());
  }
  state.counters["paths"] = static_cast<double>(found);
}

// Keeps the median (or only) real time of each benchmark, for the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.repetitions > 1) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      times[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc > 1) tree = argv[1];

  std::vector<fs::path> mine;
  expand_directory(tree, mine);
  const auto reference = brenloc::testing::reference_expand(tree, listed_extensions());
  if (mine != reference) {
    std::fprintf(stderr, "the lists differ: %zu paths from the single traversal, %zu from the reference\n",
                 mine.size(), reference.size());
    return 1;
  }
  std::printf("%s: %zu paths, identical lists\n", tree.c_str(), mine.size());

  benchmark::RegisterBenchmark("BM_ReferenceWalkPerExtension", BM_ReferenceWalkPerExtension)
      ->Unit(benchmark::kMillisecond)
      ->Repetitions(5);
  benchmark::RegisterBenchmark("BM_SingleTraversal", BM_SingleTraversal)->Unit(benchmark::kMillisecond)->Repetitions(5);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const double reference_time = reporter.times["BM_ReferenceWalkPerExtension"];
  const double single_time = reporter.times["BM_SingleTraversal"];
  if (reference_time > 0 && single_time > 0) {
    std::printf("reference %.2f ms, single traversal %.2f ms: %.1fx faster\n", reference_time, single_time,
                reference_time / single_time);
  }
  return 0;
}
