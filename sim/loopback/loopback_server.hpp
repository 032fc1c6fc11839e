// A TCP server on 127.0.0.1 with an ephemeral port: the plumbing the simulator
// and the fake peers of the tests share. Each accepted connection is served on a
// thread of its own by the session function given at construction; the
// connection is closed when the session returns (reset, if it armed a reset).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace varkel::loopback {

class LoopbackServer {
public:
  using Session = std::function<void(int fd)>;

  explicit LoopbackServer(Session session, const char* host = "127.0.0.1", uint16_t port = 0);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  uint16_t port() const { return port_; }
  // Connections accepted so far.
  int accepted() const { return accepted_.load(); }
  // Stops accepting, shuts every open connection down and joins the sessions.
  void stop();

private:
  void accept_loop();

  Session session_;
  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> accepted_{0};
  std::mutex mutex_;
  std::vector<int> open_fds_;
  std::vector<std::thread> sessions_;
  std::thread acceptor_;
};

// Sends all of `data`; false when the peer has gone.
bool send_all(int fd, const void* data, std::size_t size);
// Receives exactly `size` bytes (one 400-byte record, say); false when the peer
// closed or failed first.
bool receive_all(int fd, void* data, std::size_t size);
// Makes the next close of `fd` reset the connection (RST instead of FIN).
void arm_reset(int fd);

} // namespace varkel::loopback
