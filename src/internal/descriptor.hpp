// Descriptor plumbing shared by the TCP links and the serial line: one owner for
// closing, one loop for receiving a fixed amount.
#pragma once

#include <chrono>
#include <cstddef>
#include <sys/types.h>

#include "ethernet.h"
#include "varkel.h"

namespace varkel::detail {

// Closes the descriptor in a handle field, if it holds one (> 0: the handle reads
// 0 as "never connected"), and leaves `empty` in its place. Every descriptor the
// handle owns is closed through here.
void release_descriptor(int& field, int empty = -1);

// Lets go of the main channel: closes it when it is a descriptor of its own (a
// serial port), leaves the socket to its module when it is a copy of one; -1 after.
void release_main_channel(varkel_t* v);

// `fd` itself, or a copy of it on a higher number when it is 0, which the handle
// reads as "no connection" (0 is then closed; -1 with errno when no copy can be
// made). Negative values pass through.
int off_zero(int fd);

// Owns one descriptor (any number >= 0) until it is released or destroyed.
class Descriptor {
public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept
  {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  void reset()
  {
    if (fd_ >= 0)
      safe_close(fd_);
    fd_ = -1;
  }
  int release()
  {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

private:
  int fd_;
};

// Reads exactly `size` bytes into `buffer`. Signals and partial reads resume the
// wait for what is missing; `timeout` (zero: none) bounds the whole wait, not each
// part. Returns `size`; what arrived before the peer closed, failed or the time ran
// out; or, when nothing arrived, 0 on close and -1 with errno set (EAGAIN on time-out).
ssize_t receive_exact(int fd, void* buffer, std::size_t size, std::chrono::milliseconds timeout);

// The receive time-out set on socket `fd` (zero when none, or when it cannot be read).
std::chrono::milliseconds receive_timeout(int fd);

} // namespace varkel::detail
