#include "internal/descriptor.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "ethernet.h"

namespace varkel::detail {

void release_descriptor(int& field, int empty)
{
  if (field > 0)
    safe_close(field);
  field = empty;
}

void release_main_channel(varkel_t* v)
{
  for (int module_fd : v->fd) {
    if (module_fd > 0 && module_fd == v->varkel_interface)
      v->varkel_interface = -1;
  }
  release_descriptor(v->varkel_interface);
}

int off_zero(int fd)
{
  if (fd != 0)
    return fd;
  Descriptor zero(fd);
  return fcntl(fd, F_DUPFD_CLOEXEC, 1); // a failure's errno survives the close of 0
}

ssize_t receive_exact(int fd, void* buffer, std::size_t size, std::chrono::milliseconds timeout)
{
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + timeout;
  auto* out = static_cast<char*>(buffer);
  std::size_t got = 0;
  ssize_t last = 0;
  while (got < size) {
    int wait_ms = -1;
    if (timeout.count() > 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        errno = EAGAIN;
        last = -1;
        break;
      }
      wait_ms = static_cast<int>(std::min<long long>(left, INT_MAX));
    }
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, wait_ms);
    if (ready == 0)
      errno = EAGAIN;
    if (ready <= 0) {
      if (errno == EINTR)
        continue;
      last = -1;
      break;
    }
    last = read(fd, out + got, size - got);
    if (last < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (last <= 0)
      break;
    got += static_cast<std::size_t>(last);
  }
  return got > 0 || size == 0 ? static_cast<ssize_t>(got) : last;
}

std::chrono::milliseconds receive_timeout(int fd)
{
  timeval tv{};
  socklen_t length = sizeof tv;
  if (getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &length) != 0)
    return std::chrono::milliseconds(0);
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::seconds(tv.tv_sec) +
                                                      std::chrono::microseconds(tv.tv_usec));
}

} // namespace varkel::detail
