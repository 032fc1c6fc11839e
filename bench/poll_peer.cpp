#include "poll_peer.hpp"

#include <arpa/inet.h>
#include <deque>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int64_t clock_ns(clockid_t clock)
{
  timespec t{};
  clock_gettime(clock, &t);
  return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

// One accepted connection: how far its request stream has got, and when each
// pending reply is due.
struct Connection {
  explicit Connection(int socket) : fd(socket) {}
  int fd;
  int depth = 0;
  bool in_string = false, escaped = false;
  std::size_t record_bytes = 0;
  int requests = 0;
  std::deque<Clock::time_point> due;
};

// Counts the requests completed by `data`: JSON objects (braces outside strings)
// or fixed-size records.
int count_requests(Connection& c, const char* data, std::size_t n, std::size_t record_size)
{
  if (record_size > 0) {
    c.record_bytes += n;
    const auto whole = static_cast<int>(c.record_bytes / record_size);
    c.record_bytes %= record_size;
    return whole;
  }
  int complete = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const char ch = data[i];
    if (c.escaped)
      c.escaped = false;
    else if (c.in_string && ch == '\\')
      c.escaped = true;
    else if (c.in_string)
      c.in_string = ch != '"';
    else if (ch == '"')
      c.in_string = true;
    else if (ch == '{')
      ++c.depth;
    else if (ch == '}' && c.depth > 0 && --c.depth == 0)
      ++complete;
  }
  return complete;
}

void send_text(int fd, const std::string& text)
{
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0)
      return;
    sent += static_cast<std::size_t>(n);
  }
}

} // namespace

int64_t process_cpu_ns() { return clock_ns(CLOCK_PROCESS_CPUTIME_ID); }

int connect_to(uint16_t port)
{
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
    return fd;
  if (fd >= 0)
    close(fd);
  return -1;
}

PollPeer::PollPeer(Script script) : script_(std::move(script))
{
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listen_fd_, 16) != 0 || getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    throw std::runtime_error("benchmark peer: cannot listen");
  port_ = ntohs(addr.sin_port);
  stop_fd_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread([this] { loop(); });
}

PollPeer::~PollPeer()
{
  const uint64_t one = 1;
  if (write(stop_fd_, &one, sizeof one) != sizeof one)
    std::terminate();
  thread_.join();
  close(stop_fd_);
  close(listen_fd_);
}

void PollPeer::loop()
{
  std::vector<Connection> connections;
  std::vector<pollfd> fds;
  char buf[4096];
  for (;;) {
    // Sleep until input arrives or the next reply is due.
    timespec wait{1, 0};
    for (const Connection& c : connections) {
      if (!c.due.empty()) {
        const auto left = std::max(Clock::duration::zero(), c.due.front() - Clock::now());
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        if (ns < int64_t{wait.tv_sec} * 1000000000 + wait.tv_nsec)
          wait = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
      }
    }
    fds.assign({{stop_fd_, POLLIN, 0}, {listen_fd_, POLLIN, 0}});
    for (const Connection& c : connections)
      fds.push_back({c.fd, POLLIN, 0});
    if (ppoll(fds.data(), fds.size(), &wait, nullptr) < 0 && errno != EINTR)
      break;
    if (fds[0].revents != 0)
      break;
    const auto now = Clock::now();
    for (std::size_t i = 0; i + 2 < fds.size(); ++i) {
      Connection& c = connections[i];
      if (fds[i + 2].revents == 0)
        continue;
      const ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        close(c.fd);
        c.fd = -1;
        continue;
      }
      for (int k = count_requests(c, buf, n > 0 ? static_cast<std::size_t>(n) : 0, script_.record_size); k > 0; --k) {
        if (c.requests++ >= script_.unanswered)
          c.due.push_back(now + script_.latency);
      }
    }
    cpu_ns_ = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    for (Connection& c : connections) {
      while (c.fd >= 0 && !c.due.empty() && c.due.front() <= Clock::now()) {
        c.due.pop_front();
        send_text(c.fd, script_.reply);
      }
    }
    std::erase_if(connections, [](const Connection& c) { return c.fd < 0; });
    if (fds[1].revents != 0) {
      for (int fd; (fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        send_text(fd, script_.greeting);
        connections.emplace_back(fd);
      }
    }
  }
  for (const Connection& c : connections)
    close(c.fd);
}
