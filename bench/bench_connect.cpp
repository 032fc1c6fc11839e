// Bringing up a four-module detector whose controllers take 2 ms per command:
// all modules at once (varkel_connect) next to one module after the other
// (varkel_init four times), both served by one peer thread, alternating. The
// first should take about a quarter of the second.
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>

#include "poll_peer.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

void BM_Connect_FourModulesParallelVsSequential(benchmark::State& state)
{
  constexpr char kOk[] = R"({"jsonrpc":"2.0","result":"OK","id":"4925cfeb-4a68-4793-a9f8-18d618f428ef"})";
  PollPeer peer({kOk, std::chrono::milliseconds(2)});
  QuietStdout quiet;
  varkel_t* v = varkel_new(varkelQuad);
  const std::array<const char*, 4> hosts{"127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.1"};
  const std::array<uint16_t, 4> ports{peer.port(), peer.port(), peer.port(), peer.port()};
  compare(
      state, peer, 1, "parallel", [&] { return varkel_connect(v, hosts.data(), ports.data()) == 0; }, "sequential",
      [&] {
        int rc = 0;
        for (int m = 0; m < 4; ++m)
          rc |= varkel_init(v, m, hosts[m], ports[m]);
        return rc == 0;
      });
  varkel_delete(v);
}
BENCHMARK(BM_Connect_FourModulesParallelVsSequential)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
