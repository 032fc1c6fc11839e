// The data-server link against raw baselines measured in the same run: one
// ACQUIRE_STATUS exchange next to a bare 400-byte send/receive served by the
// same peer thread, and the frame copy of a four-module detector next to memcpy
// out of the mapping.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "fake_data_server.hpp"
#include "poll_peer.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using namespace varkel::testing;

constexpr std::size_t kFrameBytes = 37748736; // one four-module frame
constexpr char kSegment[] = "/varkel_Quad_array_data_sim";

void BM_DataServer_ExchangeVsRawRoundTrip(benchmark::State& state)
{
  // Type 0 is INIT_ARGS as the greeting and ACK as the reply; the handshake's ACK
  // gets no answer.
  const std::string record(400, '\0');
  PollPeer peer({record, {}, 400, record, 1});
  QuietStdout quiet;
  varkel_t* v = varkel_new(varkelQuad);
  const int raw = connect_to(peer.port());
  char buf[400];
  if (varkel_connect_backend(v, "127.0.0.1", peer.port()) != 0 || raw < 0 ||
      recv(raw, buf, sizeof buf, MSG_WAITALL) != 400 || send(raw, record.data(), 400, MSG_NOSIGNAL) != 400)
    state.SkipWithError("no handshake with the peer");
  std::string request = record;
  request[0] = ACQUIRE_STATUS;
  compare(
      state, peer, 64, "exchange", [&] { return get_acqStatus_fromBackend(v) == 0; }, "raw",
      [&] {
        return send(raw, request.data(), 400, MSG_NOSIGNAL) == 400 && recv(raw, buf, sizeof buf, MSG_WAITALL) == 400;
      });
  close(raw);
  varkel_delete(v);
}
BENCHMARK(BM_DataServer_ExchangeVsRawRoundTrip)->UseRealTime();

// The frame copy (a read through the segment's descriptor, which survives a
// segment that shrinks) next to memcpy out of the mapping, alternated in one loop
// so that both meet the same caches and load; wall and CPU time of each.
void BM_FrameCopy_ReadVsMemcpy(benchmark::State& state)
{
  ShmNamesLock names;
  shm_unlink(kSegment);
  const int fd = shm_open(kSegment, O_RDWR | O_CREAT | O_EXCL, 0600);
  if (fd < 0 || ftruncate(fd, kFrameBytes) != 0) {
    state.SkipWithError("cannot create the frame segment");
    if (fd >= 0)
      close(fd);
    return;
  }
  close(fd);
  varkel_t* v;
  {
    QuietStdout quiet;
    v = varkel_new(varkelQuad);
    v->simulate = 1;
    if (init_array_data(v) != 0)
      state.SkipWithError("cannot map the frame segment");
  }
  std::vector<char> to(kFrameBytes, 0);
  if (v->adata.sample_frame != nullptr)
    std::memset(v->adata.sample_frame, 0x5a, kFrameBytes);
  const auto seconds = [](clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
  };
  double wall[2]{}, cpu[2]{};
  const auto timed = [&](int path, auto&& copy) {
    const double w = seconds(CLOCK_MONOTONIC), c = seconds(CLOCK_THREAD_CPUTIME_ID);
    copy();
    wall[path] += seconds(CLOCK_MONOTONIC) - w;
    cpu[path] += seconds(CLOCK_THREAD_CPUTIME_ID) - c;
  };
  for (auto _ : state) {
    if (v->adata.sample_frame == nullptr)
      break;
    timed(0, [&] {
      if (get_array_data(v) != 0)
        state.SkipWithError("frame copy failed");
    });
    timed(1, [&] { std::memcpy(to.data(), v->adata.sample_frame, kFrameBytes); });
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  const double n = static_cast<double>(std::max<benchmark::IterationCount>(state.iterations(), 1)) / 1e3;
  state.counters["read_wall_ms"] = wall[0] / n;
  state.counters["read_cpu_ms"] = cpu[0] / n;
  state.counters["memcpy_wall_ms"] = wall[1] / n;
  state.counters["memcpy_cpu_ms"] = cpu[1] / n;
  state.counters["wall_ratio"] = wall[1] > 0 ? wall[0] / wall[1] : 0;
  {
    QuietStdout quiet;
    varkel_delete(v);
  }
  shm_unlink(kSegment);
}
BENCHMARK(BM_FrameCopy_ReadVsMemcpy)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
