// The data-server link against raw baselines measured in the same run: one
// ACQUIRE_STATUS exchange next to a bare 400-byte send/receive with the same
// kind of peer, and the frame copy of a four-module detector next to memcpy.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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

void BM_FrameCopy_GetArrayData(benchmark::State& state)
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
  if (v->adata.sample_frame != nullptr)
    std::memset(v->adata.sample_frame, 0x5a, kFrameBytes);
  for (auto _ : state) {
    get_array_data(v);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
  {
    QuietStdout quiet;
    varkel_delete(v);
  }
  shm_unlink(kSegment);
}
BENCHMARK(BM_FrameCopy_GetArrayData)->UseRealTime();

void BM_FrameCopy_Memcpy(benchmark::State& state)
{
  std::vector<char> from(kFrameBytes, 0x5a), to(kFrameBytes, 0);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), kFrameBytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_FrameCopy_Memcpy)->UseRealTime();

} // namespace
