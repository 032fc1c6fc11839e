// Bringing up a four-module detector whose controllers take 2 ms per command:
// all modules at once (varkel_connect) next to one module after the other
// (varkel_init four times), in one run. The first should take about a quarter
// of the second.
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "fake_controller.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using varkel::testing::FakeController;

struct SlowDetector {
  SlowDetector()
  {
    for (auto& peer : peers) {
      peer = std::make_unique<FakeController>();
      peer->set_latency(std::chrono::milliseconds(2));
    }
    for (std::size_t m = 0; m < peers.size(); ++m)
      ports[m] = peers[m]->port();
    v->init_args.bufferSize = 512;
  }
  ~SlowDetector() { varkel_delete(v); }
  SlowDetector(const SlowDetector&) = delete;
  SlowDetector& operator=(const SlowDetector&) = delete;

  void forget_traffic()
  {
    for (auto& peer : peers)
      peer->clear();
  }

  std::array<std::unique_ptr<FakeController>, 4> peers;
  std::array<const char*, 4> addresses{"127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.1"};
  std::array<uint16_t, 4> ports{};
  varkel_t* v = varkel_new(varkelQuad);
};

void BM_ConnectFourModulesInParallel(benchmark::State& state)
{
  QuietStdout quiet;
  SlowDetector detector;
  for (auto _ : state) {
    if (varkel_connect(detector.v, detector.addresses.data(), detector.ports.data()) != 0)
      state.SkipWithError("connect failed");
    detector.forget_traffic();
  }
}
BENCHMARK(BM_ConnectFourModulesInParallel)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_InitFourModulesInSequence(benchmark::State& state)
{
  QuietStdout quiet;
  SlowDetector detector;
  for (auto _ : state) {
    for (int m = 0; m < 4; ++m) {
      if (varkel_init(detector.v, m, detector.addresses[static_cast<std::size_t>(m)],
                      detector.ports[static_cast<std::size_t>(m)]) != 0)
        state.SkipWithError("init failed");
    }
    detector.forget_traffic();
  }
}
BENCHMARK(BM_InitFourModulesInSequence)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
