// What the fuzz targets share: a peer that has already sent everything it will
// send. The input waits unread on `fd`, then the stream ends, so the library's
// receive loops run on their real sockets without ever waiting.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

class SaidAll {
public:
  SaidAll(const uint8_t* data, std::size_t size)
  {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
      __builtin_trap();
    fd = fds[0];
    peer_ = fds[1];
    // Bounded to what the socket buffer holds without a reader.
    for (std::size_t sent = 0, n = std::min<std::size_t>(size, 64 * 1024); sent < n;) {
      const ssize_t k = send(peer_, data + sent, n - sent, MSG_NOSIGNAL);
      if (k <= 0)
        __builtin_trap();
      sent += static_cast<std::size_t>(k);
    }
    shutdown(peer_, SHUT_WR);
  }
  ~SaidAll()
  {
    close(fd);
    close(peer_);
  }
  SaidAll(const SaidAll&) = delete;
  SaidAll& operator=(const SaidAll&) = delete;

  int fd;

private:
  int peer_;
};

// The library prints every exchange: at fuzzing speed that goes nowhere.
inline void silence_stdout()
{
  static const bool done = std::freopen("/dev/null", "w", stdout) != nullptr;
  (void)done;
}
