// Saving and applying a whole four-module snapshot on the simulator whose
// controllers take 500 us per reply: the time and the commands each costs. The
// chips are read one worker per module, so four modules take about one's time.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "quiet_stdout.hpp"
#include "simulated_detector.hpp"
#include "snapshot.h"

namespace {

using varkel::testing::SimulatedDetector;

enum class Step { save, apply_unchanged, apply_one_dac };

void snapshot(benchmark::State& state, varkel_detector_model_t model, Step step)
{
  QuietStdout quiet;
  varkel::sim::Options options = varkel::testing::options_for(model);
  options.latency = std::chrono::microseconds(500);
  options.publish_frame = false;
  SimulatedDetector detector(options);
  const std::string path = "/tmp/varkel-bench-snapshot-" + std::to_string(getpid()) + ".ini";
  varkel_snapshot_report_t report{};
  if (detector.connected != 0 || varkel_snapshot_save(detector.v, path.c_str(), &report) != 0)
    state.SkipWithError("the detector could not be saved");
  const varkel_setting_t* fbk = varkel_setting_find("dac.FBK");
  for (auto _ : state) {
    int rc = 0;
    if (step == Step::save) {
      rc = varkel_snapshot_save(detector.v, path.c_str(), &report);
    } else {
      if (step == Step::apply_one_dac) {
        state.PauseTiming();
        rc = varkel_setting_put(detector.v, fbk, 1, 1, 10);
        state.ResumeTiming();
      }
      rc |= varkel_snapshot_apply(detector.v, path.c_str(), &report);
    }
    if (rc != 0)
      state.SkipWithError(report.message);
  }
  state.counters["commands"] = static_cast<double>(report.commands);
  varkel_snapshot_report_free(&report);
  std::remove(path.c_str());
}

const bool registered = [] {
  const struct {
    const char* name;
    varkel_detector_model_t model;
    Step step;
  } runs[] = {
      {"snapshot/save_four_modules", varkelQuad, Step::save},
      {"snapshot/save_one_module", varkelTrio, Step::save},
      {"snapshot/apply_unchanged_four_modules", varkelQuad, Step::apply_unchanged},
      {"snapshot/apply_one_dac_four_modules", varkelQuad, Step::apply_one_dac},
  };
  for (const auto& r : runs)
    benchmark::RegisterBenchmark(r.name, snapshot, r.model, r.step)->Unit(benchmark::kMillisecond)->UseRealTime();
  return true;
}();

} // namespace
