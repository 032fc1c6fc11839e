// The data-server link against raw baselines measured in the same run: one
// ACQUIRE_STATUS exchange next to a bare 400-byte send/receive served by the
// same peer thread, and the frame copy of a four-module detector next to memcpy.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
