// The data-server link against raw baselines measured in the same run: one
// ACQUIRE_STATUS exchange next to a bare 400-byte send/receive with the same
// kind of peer, and the frame copy of a four-module detector next to memcpy out of
// the mapping.
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

#include "fake_controller.hpp"
#include "fake_data_server.hpp"
#include "quiet_stdout.hpp"
#include "varkel.h"

namespace {

using namespace varkel::testing;

constexpr std::size_t kFrameBytes = 37748736; // one four-module frame
constexpr char kSegment[] = "/varkel_Quad_array_data_sim";

void BM_DataServer_AcquireStatusExchange(benchmark::State& state)
{
  FakeDataServer fake;
  fake.set_recording(false);
  varkel_t* v;
  {
    QuietStdout quiet;
    v = varkel_new(varkelQuad);
    if (varkel_connect_backend(v, "127.0.0.1", fake.port()) != 0)
      state.SkipWithError("cannot connect to the fake data server");
  }
  for (auto _ : state) {
    if (get_acqStatus_fromBackend(v) != 0) {
      state.SkipWithError("exchange failed");
      break;
    }
  }
  QuietStdout quiet;
  varkel_delete(v);
}
BENCHMARK(BM_DataServer_AcquireStatusExchange)->UseRealTime();

void BM_DataServer_RawRoundTrip(benchmark::State& state)
{
  FakeDataServer fake;
  fake.set_recording(false);
  const int fd = connect_loopback(fake.port());
  Record record{};
  if (fd < 0 || recv(fd, record.data(), record.size(), MSG_WAITALL) != 400 ||
      send(fd, Record{}.data(), 400, MSG_NOSIGNAL) != 400) {
    state.SkipWithError("cannot connect to the fake data server");
    return;
  }
  const Record request = to_record(simpleArgs{ACQUIRE_STATUS, 0, {}});
  for (auto _ : state) {
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != 400 ||
        recv(fd, record.data(), record.size(), MSG_WAITALL) != 400) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  close(fd);
}
BENCHMARK(BM_DataServer_RawRoundTrip)->UseRealTime();

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
