// The temperature readers of every module, one thread per module, on four modules
// whose controllers take 2 ms per reply next to the same call on one module alone.
// Four modules should take about the time of one.
#include <benchmark/benchmark.h>
#include <chrono>

#include "fake_detector.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using varkel::testing::FakeDetector;
using varkel::testing::Reply;
using varkel::testing::Request;

// `read` on a detector of `model` whose controllers answer every reading after 2 ms.
void read_temperatures(benchmark::State& state, int (*read)(varkel_t*), varkel_detector_model_t model)
{
  QuietStdout quiet;
  FakeDetector detector(model);
  detector.answer_all([](const Request&) { return Reply::result("41.25"); });
  for (int m = 1; m <= detector.modules(); ++m)
    detector.module(m).set_latency(std::chrono::milliseconds(2));
  for (auto _ : state) {
    if (read(detector.handle()) != 0)
      state.SkipWithError("temperature read failed");
    detector.clear();
  }
}

const bool registered = [] {
  const struct {
    const char* name;
    int (*read)(varkel_t*);
    varkel_detector_model_t model;
  } runs[] = {
      {"temperatures/averages_four_modules", US_GetTemperature, varkelQuad},
      {"temperatures/averages_one_module", US_GetTemperature, varkelLite},
      {"temperatures/board_sensors_four_modules", US_GetMFBTemperature, varkelQuad},
      {"temperatures/board_sensors_one_module", US_GetMFBTemperature, varkelLite},
  };
  for (const auto& r : runs)
    benchmark::RegisterBenchmark(r.name, read_temperatures, r.read, r.model)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  return true;
}();

} // namespace
