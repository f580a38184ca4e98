// Uses Google Benchmark as the timer, for one round at a time. Its own repetitions would run all rounds of a contestant
// one after the other, or mix them at random.
#include <benchmark/benchmark.h>

#include <stdexcept>

#include "measure.h"

namespace bench {
namespace {

class Collector final : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) ns = run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
    }
    double ns = 0;
};

}  // namespace

double time_one(const std::string& row, const Runner& runner, uint64_t times) {
    benchmark::ClearRegisteredBenchmarks();
    const auto body = [&](benchmark::State& state) {
        const auto batch = static_cast<benchmark::IterationCount>(times);
        while (state.KeepRunningBatch(batch)) runner.run(times);
    };
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the list of all benchmarks owns it
    benchmark::RegisterBenchmark((row + "/" + runner.who).c_str(), body)
        ->Iterations(static_cast<benchmark::IterationCount>(times))
        ->UseRealTime();
    Collector collector;
    if (benchmark::RunSpecifiedBenchmarks(&collector, nullptr, ".") != 1) throw std::runtime_error("not run: " + row);
    return collector.ns;
}

}  // namespace bench
