// A TCP server on 127.0.0.1 with an ephemeral port: the plumbing the simulator
// and the fake peers of the tests share. Each accepted connection is served on a
// thread of its own by the session function given at construction; the
// connection is closed when the session returns (reset, if it armed a reset).
#pragma once

#include <atomic>
#include <chrono>
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

// How a reply goes on the wire: whole, or as a hostile peer would send it.
struct Delivery {
  enum class Mode {
    whole,    // in one send
    bytewise, // one byte at a time, 200 us apart
    split,    // split_at bytes, then the rest after tail_delay
    silence,  // nothing; the connection stays open
    close,    // nothing; the connection is closed
    reset,    // nothing; the connection is reset
  };
  Mode mode = Mode::whole;
  std::chrono::microseconds delay{0}; // before anything is sent
  std::size_t split_at = 0;
  std::chrono::microseconds tail_delay{0};
};

// Puts `data` on the wire as `d` says; false when the session is to end (the
// peer has gone, or a close or reset was asked for).
bool deliver(int fd, const void* data, std::size_t size, const Delivery& d);
// Sends all of `data`; false when the peer has gone.
bool send_all(int fd, const void* data, std::size_t size);
// Receives exactly `size` bytes (one 400-byte record, say); false when the peer
// closed or failed first.
bool receive_all(int fd, void* data, std::size_t size);
// Makes the next close of `fd` reset the connection (RST instead of FIN).
void arm_reset(int fd);

} // namespace varkel::loopback
