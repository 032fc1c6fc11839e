// One command through the library next to a raw send/recv of the same bytes,
// both served by one peer thread, in alternating blocks.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "poll_peer.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

constexpr char kRequest[] = R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":[["0","0"]],)"
                            R"("jsonrpc":"2.0","method":"HS_AcquireTime_Command"})";
constexpr char kReply[] = R"({"jsonrpc":"2.0","result":"AcquireTime set with 0.100000 seconds",)"
                          R"("id":"4925cfeb-4a68-4793-a9f8-18d618f428ef"})";

void BM_Command_QueryVsRawRoundTrip(benchmark::State& state)
{
  PollPeer peer({kReply});
  QuietStdout quiet;
  varkel_t* v = varkel_new(kinlet);
  v->fd[0] = v->varkel_interface = connect_to(peer.port());
  const int raw = connect_to(peer.port());
  // The raw path must send the very bytes the library sends.
  char command[512], request[512];
  std::snprintf(command, sizeof command, CMD_ACQUIRE_TIME, 0u, 0u);
  if (v->fd[0] < 0 || raw < 0 || print_json(v, command, request) != 0 || std::strcmp(request, kRequest) != 0)
    state.SkipWithError("no peer, or the raw request differs from the library's");
  char result[1024], reply[1024];
  compare(
      state, peer, 64, "query", [&] { return query_and_cache(v, result, CMD_ACQUIRE_TIME, CMD_READ, 0u) == 0; }, "raw",
      [&] {
        return send(raw, kRequest, sizeof kRequest - 1, MSG_NOSIGNAL) == sizeof kRequest - 1 &&
               recv(raw, reply, sizeof reply, 0) > 0;
      });
  close(raw);
  varkel_delete(v);
}
BENCHMARK(BM_Command_QueryVsRawRoundTrip)->UseRealTime();

} // namespace
