#include <arpa/inet.h>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "ethernet.h"
#include "internal/tcp.hpp"

int get_address(const char* host, uint16_t port, struct sockaddr_in* addr)
{
  assert(host != NULL);
  assert(addr != NULL);

  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* info = nullptr;

  int rc = EAI_AGAIN;
  for (int attempt = 0; attempt < 3 && rc == EAI_AGAIN; ++attempt)
    rc = getaddrinfo(host, nullptr, &hints, &info);
  if (rc == EAI_SYSTEM)
    return errno;
  if (rc != 0)
    return -1;

  assert(info->ai_addrlen == sizeof(struct sockaddr_in));
  std::memcpy(addr, info->ai_addr, sizeof(struct sockaddr_in));
  addr->sin_port = htons(port);
  freeaddrinfo(info);
  return 0;
}

namespace {

// The receive time-out ensure_timeout set last on each descriptor, plus one (0:
// not known). Any other setting through the library, and the library's close,
// forget it; numbers beyond the table are never known.
std::atomic<uint64_t> known_timeouts[1024];

std::atomic<uint64_t>* known_timeout(int fd)
{
  return fd >= 0 && static_cast<std::size_t>(fd) < std::size(known_timeouts) ? &known_timeouts[fd] : nullptr;
}

void remember_timeout(int fd, uint64_t timeout_us_plus_one)
{
  if (auto* known = known_timeout(fd))
    known->store(timeout_us_plus_one, std::memory_order_relaxed);
}

int apply_timeout(int socket, uint64_t timeout_us)
{
  assert(socket != -1);
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(timeout_us / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(timeout_us % 1000000);
  return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0 ? errno : 0;
}

} // namespace

int set_timeout(int socket, uint64_t timeout_us)
{
  const int rc = apply_timeout(socket, timeout_us);
  remember_timeout(socket, 0);
  return rc;
}

namespace varkel::detail {

void ensure_timeout(int socket, uint64_t timeout_us)
{
  const auto* known = known_timeout(socket);
  if (known != nullptr && known->load(std::memory_order_relaxed) == timeout_us + 1)
    return;
  remember_timeout(socket, apply_timeout(socket, timeout_us) == 0 ? timeout_us + 1 : 0);
}

void discard_waiting(int socket)
{
  // Only what has already arrived is stale: non-blocking reads take it without
  // waiting, where a 1-microsecond receive time-out would cost a scheduler tick
  // on every command.
  char scratch[512];
  for (int i = 0; i < 100; ++i) {
    if (recv(socket, scratch, sizeof scratch, MSG_DONTWAIT) <= 0)
      break;
  }
}

} // namespace varkel::detail

void drain_input(int socket)
{
  varkel::detail::discard_waiting(socket);
  (void)set_timeout(socket, VARKEL_MODULE_TIMEOUT_US);
}

int set_address(int socket, const struct sockaddr_in* addr)
{
  assert(socket != -1);
  assert(addr != NULL);
  if (connect(socket, reinterpret_cast<const sockaddr*>(addr), sizeof *addr) != 0)
    return errno;
  return 0;
}

void safe_close(int fd)
{
  remember_timeout(fd, 0);
  for (int attempt = 0; attempt < 10; ++attempt) {
    if (close(fd) == 0 || errno == EBADF)
      return;
  }
}

namespace {

// Connects without blocking and waits at most `timeout_us` for the handshake.
// Returns 0, ETIMEDOUT, or the errno of the connect.
int connect_bounded(int socket, const sockaddr_in& addr, uint64_t timeout_us)
{
  const int flags = fcntl(socket, F_GETFL);
  if (flags < 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0)
    return errno;
  int rc = set_address(socket, &addr);
  if (rc == EINPROGRESS) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::microseconds(timeout_us);
    rc = ETIMEDOUT;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{socket, POLLOUT, 0};
      const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready < 0)
        rc = errno;
      else if (ready > 0) {
        int error = 0;
        socklen_t size = sizeof error;
        rc = getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0 ? errno : error;
      }
      break;
    }
  }
  // The channel itself stays blocking: its receives wait on SO_RCVTIMEO.
  if (fcntl(socket, F_SETFL, flags) != 0 && rc == 0)
    rc = errno;
  return rc;
}

} // namespace

int varkel::detail::connect_within(int socket, const char* address, uint16_t port, uint64_t read_timeout_us,
                                   uint64_t connect_timeout_us)
{
  assert(socket != -1);
  assert(address != NULL);
  assert(port > 0);

  sockaddr_in addr{};
  if (int rc = get_address(address, port, &addr); rc != 0)
    return rc;
  if (int rc = set_timeout(socket, read_timeout_us); rc != 0)
    return rc;
  return connect_timeout_us == 0 ? set_address(socket, &addr) : connect_bounded(socket, addr, connect_timeout_us);
}

int socket_connect(int socket, const char* address, uint16_t port, uint64_t read_timeout_us)
{
  return varkel::detail::connect_within(socket, address, port, read_timeout_us, 0);
}
