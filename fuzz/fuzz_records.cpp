// Data-server replies, any bytes: the handshake and the acquisition exchanges
// judge and print five records in turn (RDMA parameters, the ACQUIRE_ARGS ack,
// the STOP_ACQUIRE ack, the acquisition status, the save status). The input is
// padded to five whole records and the save status keeps its type: a short reply
// or a wrong save-status type ends the process by design.
#include <cstring>
#include <vector>

#include "peer_bytes.hpp"
#include "varkel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  silence_stdout();
  constexpr std::size_t kRecord = 400;
  std::vector<uint8_t> records(5 * kRecord);
  std::memcpy(records.data(), data, std::min(size, records.size()));
  records[4 * kRecord] = SAVE_STATUS;

  static varkel_t* v = varkel_new(varkelQuad);
  SaidAll peer(records.data(), records.size());
  v->backend_socket = peer.fd;
  uint64_t saved = 0;
  receive_initArgs_fromBackend(v, peer.fd);
  send_acqArgs_toBackend(v);
  send_stopAcquire_toBackend(v);
  get_acqStatus_fromBackend(v);
  if (get_saveStatus_fromBackend(v, &saved) != 0 || saved != v->saveargs.savedAquisitionNum)
    __builtin_trap();
  v->backend_socket = -1;
  return 0;
}
