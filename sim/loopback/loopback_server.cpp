#include "loopback_server.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace varkel::loopback {

LoopbackServer::LoopbackServer(Session session, const char* host, uint16_t port) : session_(std::move(session))
{
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0)
    throw std::runtime_error("socket");
  int one = 1;
  setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  inet_pton(AF_INET, host, &addr.sin_addr);
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listen_fd_, 16) != 0) {
    close(listen_fd_);
    throw std::runtime_error("bind/listen");
  }
  socklen_t len = sizeof addr;
  getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  acceptor_ = std::thread([this] { accept_loop(); });
}

LoopbackServer::~LoopbackServer() { stop(); }

void LoopbackServer::accept_loop()
{
  // A failing accept (out of descriptors, say) would fail again at once: back off
  // instead of spinning, doubling the pause up to 100 ms, and wake for a new
  // connection or the stop.
  int pause_ms = 0;
  while (!stopping_.load()) {
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED)
        continue;
      pause_ms = std::clamp(pause_ms * 2, 1, 100);
      std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
      continue;
    }
    pause_ms = 0;
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, 1 /* TCP_NODELAY */, &one, sizeof one);
    std::lock_guard lock(mutex_);
    open_fds_.push_back(fd);
    accepted_.fetch_add(1);
    sessions_.emplace_back([this, fd] {
      session_(fd);
      // The session ends the connection by returning: a close, or a reset when armed.
      std::lock_guard guard(mutex_);
      std::erase(open_fds_, fd);
      close(fd);
    });
  }
}

void LoopbackServer::stop()
{
  if (stopping_.exchange(true))
    return;
  shutdown(listen_fd_, SHUT_RDWR); // wakes the blocked accept
  if (acceptor_.joinable())
    acceptor_.join();
  close(listen_fd_);
  std::vector<std::thread> sessions;
  {
    std::lock_guard lock(mutex_);
    for (int fd : open_fds_)
      shutdown(fd, SHUT_RDWR);
    sessions.swap(sessions_);
  }
  for (auto& t : sessions)
    t.join();
}

namespace {

// Moves all `size` bytes at `p` with `step` (one send or receive), resuming after
// a signal; false when the peer has gone first.
template <typename Byte, typename Step> bool whole(Byte* p, std::size_t size, Step step)
{
  while (size > 0) {
    const ssize_t n = step(p, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

} // namespace

bool send_all(int fd, const void* data, std::size_t size)
{
  return whole(static_cast<const char*>(data), size,
               [fd](const char* p, std::size_t n) { return send(fd, p, n, MSG_NOSIGNAL); });
}

bool receive_all(int fd, void* data, std::size_t size)
{
  return whole(static_cast<char*>(data), size, [fd](char* p, std::size_t n) { return recv(fd, p, n, 0); });
}

namespace {

// Waits `d` unless the connection is shut down meanwhile (stop() must not wait out
// a slow reply); data arriving from the peer does not cut the wait short.
void pause(int fd, std::chrono::microseconds d)
{
  if (d.count() <= 0)
    return;
  pollfd p{fd, 0, 0};
  const timespec ts{static_cast<time_t>(d.count() / 1000000), static_cast<long>(d.count() % 1000000) * 1000};
  ppoll(&p, 1, &ts, nullptr);
}

} // namespace

bool deliver(int fd, const void* data, std::size_t size, const Delivery& d)
{
  const char* bytes = static_cast<const char*>(data);
  pause(fd, d.delay);
  switch (d.mode) {
  case Delivery::Mode::whole:
    return send_all(fd, bytes, size);
  case Delivery::Mode::bytewise:
    for (std::size_t i = 0; i < size; ++i) {
      if (!send_all(fd, bytes + i, 1))
        return false;
      pause(fd, std::chrono::microseconds(200));
    }
    return true;
  case Delivery::Mode::split: {
    const std::size_t at = std::min(d.split_at, size);
    if (!send_all(fd, bytes, at))
      return false;
    pause(fd, d.tail_delay);
    return send_all(fd, bytes + at, size - at);
  }
  case Delivery::Mode::silence:
    return true;
  case Delivery::Mode::reset:
    arm_reset(fd);
    return false;
  case Delivery::Mode::close:
    return false;
  }
  return false;
}

void arm_reset(int fd)
{
  linger l{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

} // namespace varkel::loopback
