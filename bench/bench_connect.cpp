// Bringing up a four-module detector whose controllers take 2 ms per command:
// all modules at once (varkel_connect) next to one module after the other
// (varkel_init four times), in one run. The first should take about a quarter
// of the second.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "fake_detector.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using varkel::testing::FakeDetector;

// Four modules whose controllers take 2 ms per command.
void slow_down(FakeDetector& detector)
{
  for (int m = 1; m <= detector.modules(); ++m)
    detector.module(m).set_latency(std::chrono::milliseconds(2));
}

void BM_ConnectFourModulesInParallel(benchmark::State& state)
{
  QuietStdout quiet;
  FakeDetector detector(varkelQuad);
  slow_down(detector);
  for (auto _ : state) {
    if (detector.connect() != 0)
      state.SkipWithError("connect failed");
    detector.clear();
  }
}
BENCHMARK(BM_ConnectFourModulesInParallel)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_InitFourModulesInSequence(benchmark::State& state)
{
  QuietStdout quiet;
  FakeDetector detector(varkelQuad);
  slow_down(detector);
  for (auto _ : state) {
    for (int m = 1; m <= 4; ++m) {
      if (varkel_init(detector.handle(), m - 1, "127.0.0.1", detector.module(m).port()) != 0)
        state.SkipWithError("init failed");
    }
    detector.clear();
  }
}
BENCHMARK(BM_InitFourModulesInSequence)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
