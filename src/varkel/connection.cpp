// Connecting the modules to their controllers and bringing each module's RDMA
// data transport up, plus the efuse read-back and the reset command.
#include <array>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <omp.h>
#include <sys/socket.h>

#include "ethernet.h"
#include "internal/channel.hpp"
#include "internal/descriptor.hpp"
#include "internal/handle.hpp"
#include "internal/query.hpp"
#include "internal/tcp.hpp"
#include "link.h"

using namespace varkel::detail;

namespace {

// Workers connecting modules side by side each make their module the main
// channel; the pair (socket, module number) changes as one, the last one wins.
std::mutex main_channel_mutex;
// Workers of several modules may store efuse identifiers at once.
std::mutex efuse_mutex;

void set_main_channel(varkel_t* v, int fd, int module)
{
  std::lock_guard lock(main_channel_mutex);
  v->varkel_interface = fd;
  v->varkel_module = static_cast<uint8_t>(module);
}

// Closes a module's socket and leaves its channel without a descriptor. The main
// channel lets go of it first, so that a socket another worker opens meanwhile
// under the same number is never taken for this one.
void release_module_socket(varkel_t* v, int& slot)
{
  if (slot <= 0)
    return;
  {
    std::lock_guard lock(main_channel_mutex);
    if (v->varkel_interface == slot)
      v->varkel_interface = -1;
  }
  release_descriptor(slot);
}

struct TransportParam {
  int number;
  char text[48];
};
constexpr std::size_t kTransportParams = 13;
constexpr std::size_t kNumframesWidth = 5;

// Bytes first..first+3 of a GID as a big-endian number.
uint32_t gid_word(const uint8_t* gid, int first)
{
  return static_cast<uint32_t>(gid[first]) << 24 | static_cast<uint32_t>(gid[first + 1]) << 16 |
         static_cast<uint32_t>(gid[first + 2]) << 8 | gid[first + 3];
}

// The transport parameters of module index `m` in the order they are sent, each
// text cut to the width the transport board takes. False when bufferSize does not
// fit its field: cutting it would send a different frame count.
bool transport_params(const initArgs& a, int m, std::array<TransportParam, kTransportParams>& out)
{
  std::size_t i = 0;
  auto put = [&](int number, std::size_t width, unsigned long long value) {
    out[i].number = number;
    std::snprintf(out[i++].text, width, "%llu", value);
  };
  const uint64_t mac = a.be_mac[m];
  const uint64_t vaddr = a.vaddr[m];
  const uint8_t* gid = a.be_gid[m];
  put(2, 16, mac & 0xFFFF);
  put(3, 48, mac >> 16);
  put(8, 32, gid_word(gid, 12));
  put(9, 32, gid_word(gid, 8));
  put(10, 32, gid_word(gid, 4));
  put(11, 32, gid_word(gid, 0));
  put(12, 32, a.qpn[m]);
  put(13, 48, vaddr & 0xFFFFFFFF);
  put(14, 16, (vaddr >> 32) & 0xFFFF);
  put(15, 16, a.rkey[m]);
  out[i].number = 16;
  const int numframes = std::snprintf(out[i++].text, kNumframesWidth, "%d", static_cast<int32_t>(a.bufferSize));
  put(19, 2, 1);
  put(21, 2, 1);
  return numframes >= 0 && static_cast<std::size_t>(numframes) < kNumframesWidth;
}

} // namespace

namespace {

// The connect step of varkel_init and varkel_attach: opens module index `fd_pos`'s
// channel within the handle's time-out bounds, makes it the main channel and,
// when `transport`, sends the module its transport parameters.
int open_module_channel(varkel_t* varkel, int fd_pos, const char* address, uint16_t port, bool transport)
{
  assert(varkel != NULL);
  assert(address != NULL);
  assert(port > 0);
  if (fd_pos < 0 || fd_pos >= varkel->max_num_modules)
    return -7;

  int& slot = varkel->fd[fd_pos];
  release_module_socket(varkel, slot);
  const int fd = off_zero(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd < 0)
    return errno;
  slot = fd;

  const HandleExtras& bounds = extras(varkel);
  int rc = connect_within(fd, address, port, reply_timeout_us(bounds), bounds.connect_timeout_us);
  if (rc == 0) {
    set_main_channel(varkel, fd, fd_pos + 1);
    printf("Varkel Conected!!!\n");
    rc = transport ? send_allinitArgs(varkel, fd_pos) : 0;
    if (rc == 0)
      return 0;
  }
  release_module_socket(varkel, slot);
  return rc;
}

int open_module_channels(varkel_t* varkel, const char* const address[], const uint16_t port[], bool transport)
{
  assert(varkel != NULL);
  assert(address != NULL);
  assert(port != NULL);
  return for_each_module_parallel(varkel, [&](varkel_thread_t m) {
    printf("\nTID: %d\n", omp_get_thread_num());
    return open_module_channel(varkel, m, address[m], port[m], transport);
  });
}

} // namespace

int varkel_init(varkel_t* varkel, int fd_pos, const char* address, uint16_t port)
{
  return open_module_channel(varkel, fd_pos, address, port, true);
}

int varkel_connect(varkel_t* varkel, const char* const address[], const uint16_t port[])
{
  return open_module_channels(varkel, address, port, true);
}

int varkel_attach(varkel_t* varkel, const char* const address[], const uint16_t port[])
{
  return open_module_channels(varkel, address, port, false);
}

int varkel_set_timeouts(varkel_t* varkel, double connect_seconds, double reply_seconds)
{
  assert(varkel != NULL);
  // Below a microsecond a bound would round to "no bound"; above a year it is none.
  constexpr double kMin = 1e-6, kMax = 365.0 * 86400.0;
  const auto valid = [&](double s) { return std::isfinite(s) && s >= kMin && s <= kMax; };
  if (!valid(connect_seconds) || !valid(reply_seconds))
    return -3;
  HandleExtras& bounds = extras(varkel);
  bounds.connect_timeout_us = static_cast<uint64_t>(connect_seconds * 1e6);
  bounds.reply_timeout_us = static_cast<uint64_t>(reply_seconds * 1e6);
  int rc = 0;
  for (int m = 0; m < varkel->max_num_modules; ++m) {
    if (const int fd = channel_socket(varkel, static_cast<varkel_thread_t>(m)); fd >= 0 && rc == 0)
      rc = set_timeout(fd, bounds.reply_timeout_us);
  }
  return rc;
}

void varkel_disconnect(varkel_t* varkel)
{
  assert(varkel != NULL);
  // The module whose socket this was must not keep the number: the process may
  // hand it out again. 0 is what select_module copies from a module never connected.
  for (int& module_fd : varkel->fd) {
    if (module_fd > 0 && module_fd == varkel->varkel_interface)
      module_fd = -1;
  }
  release_descriptor(varkel->varkel_interface);
}

int send_allinitArgs(varkel_t* varkel, int module)
{
  assert(varkel != NULL);
  printf("\nSend All init args to k64\n");
  if (module < 0 || module >= varkel->max_num_modules)
    return -7;
  std::array<TransportParam, kTransportParams> params;
  if (!transport_params(varkel->init_args, module, params))
    return -3;

  const auto owner = static_cast<varkel_thread_t>(module);
  int rc = 0;
  for (const TransportParam& p : params)
    rc |= send_transportParams(varkel, p.number, p.text, owner);
  rc |= send_configureTransport(varkel, owner);
  return rc;
}

int US_efuseID_RBV(varkel_t* varkel, varkel_thread_t owner)
{
  assert(varkel != NULL);
  char reply[kReplySize];
  if (int rc = query_and_cache(varkel, owner, reply, CMD_efuseID); rc != 0)
    return rc;
  char word[sizeof varkel->varkelParam.efuseID]{};
  static_assert(sizeof word == 8, "the scan below keeps 7 characters");
  if (std::sscanf(reply, "%7s", word) == 1) {
    std::lock_guard lock(efuse_mutex);
    std::memcpy(varkel->varkelParam.efuseID, word, sizeof word);
  }
  return 0;
}

int efuseid_rbv(varkel_t* varkel) { return US_efuseID_RBV(varkel, VARKEL_THREAD_MAIN); }

int US_Reset(varkel_t* varkel, int16_t action, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (!validate_bool(action))
    return -3;
  return query_status(varkel, owner, CMD_RESET, static_cast<unsigned>(action));
}

int varkel_reset(varkel_t* varkel) { return US_Reset(varkel, 1, VARKEL_THREAD_MAIN); }

int load_initVarkelParams(varkel_t*) { return 0; }
