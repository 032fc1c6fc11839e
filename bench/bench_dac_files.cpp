// Loading the example DAC files into a four-module simulator whose controllers
// answer after 500 us, next to one module alone on the same files and latency, in
// one run. With one worker per module the first should take little more than the
// second.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <vector>

#include "quiet_stdout.hpp"
#include "simulator.hpp"
#include "utils.h"
#include "varkel.h"

namespace {

constexpr char kIndex[] = "examples/dacs/index.ini"; // its paths are taken from the repository's root

// One simulator for both benchmarks; each has a handle of its own.
struct Bench {
  std::unique_ptr<varkel::sim::Simulator> sim;
  varkel_t* four = nullptr; // all modules
  varkel_t* one = nullptr;  // module 1 alone

  Bench()
  {
    QuietStdout quiet;
    std::filesystem::current_path(VARKEL_SOURCE_DIR);
    varkel::sim::Options o;
    o.latency = std::chrono::microseconds(500);
    o.publish_frame = false;
    sim = std::make_unique<varkel::sim::Simulator>(o);
    four = varkel_new(varkelQuad);
    one = varkel_new(varkelTrio);
    const std::vector<const char*> hosts(4, "127.0.0.1");
    std::vector<uint16_t> ports;
    for (int m = 1; m <= 4; ++m)
      ports.push_back(sim->module_port(m));
    if (varkel_connect_backend(four, "127.0.0.1", sim->data_port()) != 0 ||
        varkel_connect(four, hosts.data(), ports.data()) != 0)
      four = nullptr;
    one->init_args = four != nullptr ? four->init_args : initArgs{};
    if (varkel_init(one, 0, "127.0.0.1", ports[0]) != 0)
      one = nullptr;
  }
};

Bench& bench()
{
  static Bench b;
  return b;
}

void load(benchmark::State& state, varkel_t* v)
{
  if (v == nullptr) {
    state.SkipWithError("cannot connect to the simulator");
    return;
  }
  QuietStdout quiet;
  for (auto _ : state) {
    if (configure_module_dacs_with_file(v, kIndex) != 0) {
      state.SkipWithError("loading the DAC files failed");
      break;
    }
  }
}

void BM_DacFiles_FourModules(benchmark::State& state) { load(state, bench().four); }
BENCHMARK(BM_DacFiles_FourModules)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DacFiles_OneModule(benchmark::State& state) { load(state, bench().one); }
BENCHMARK(BM_DacFiles_OneModule)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
