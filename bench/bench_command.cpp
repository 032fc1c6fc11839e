// One command through the library next to a raw send/recv of the same bytes,
// against the same loopback peer, in one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "fake_controller.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using varkel::testing::FakeController;

void BM_QueryAndCache(benchmark::State& state)
{
  FakeController peer;
  QuietStdout quiet;
  varkel_t* v = varkel_new(kinlet);
  v->fd[0] = varkel::testing::connect_loopback(peer.port());
  v->varkel_interface = v->fd[0];
  char result[1024];
  for (auto _ : state) {
    if (query_and_cache(v, result, CMD_ACQUIRE_TIME, CMD_READ, 0u) != 0)
      state.SkipWithError("query failed");
    benchmark::DoNotOptimize(result);
  }
  varkel_delete(v);
}
BENCHMARK(BM_QueryAndCache)->UseRealTime();

void BM_RawRoundTrip(benchmark::State& state)
{
  FakeController peer;
  const int fd = varkel::testing::connect_loopback(peer.port());
  const std::string request = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":[["0","0"]],)"
                              R"("jsonrpc":"2.0","method":"HS_AcquireTime_Command"})";
  char reply[1024];
  for (auto _ : state) {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    if (recv(fd, reply, sizeof reply, 0) <= 0)
      state.SkipWithError("peer gone");
    benchmark::DoNotOptimize(reply);
  }
  close(fd);
}
BENCHMARK(BM_RawRoundTrip)->UseRealTime();

} // namespace
