// Serial line to a detector controller, for callers that drive one without TCP.
// A reply comes back framed by the controller: 'j', the echo of the request as a
// {...} part, anything, then the reply as a second {...} part.
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "internal/descriptor.hpp"
#include "varkel.h"

namespace {

constexpr int kWaits = 5;
constexpr int kWaitMs = 1000;
constexpr std::chrono::milliseconds kByteWait{500}; // as VTIME below
// A line that keeps talking without closing its reply is cut off here.
constexpr std::size_t kMaxReplyBytes = 64 * 1024;

// The reply framing, fed one byte at a time.
class ReplyFrame {
public:
  enum class Step { more, done, bad };

  Step feed(char c)
  {
    switch (phase_) {
    case Phase::lead:
      return advance(c == 'j', Phase::first_open) ? Step::more : Step::bad;
    case Phase::first_open:
      advance(c == '{', Phase::first_close);
      return Step::more;
    case Phase::first_close:
      advance(c == '}', Phase::second_open);
      return Step::more;
    case Phase::second_open:
      if (advance(c == '{', Phase::second_body))
        text_.assign(1, '{'); // not = "{": GCC 12 warns falsely in release builds
      return Step::more;
    case Phase::second_body:
      if (c != '\0')
        text_ += c;
      return c == '}' ? Step::done : Step::more;
    }
    return Step::bad;
  }

  const std::string& text() const { return text_; }

private:
  enum class Phase { lead, first_open, first_close, second_open, second_body };

  bool advance(bool condition, Phase next)
  {
    if (condition)
      phase_ = next;
    return condition;
  }

  Phase phase_ = Phase::lead;
  std::string text_;
};

// One byte (1), or not (0 or -1) when the line stays silent for half a second or
// fails. A signal does not restart the half second.
ssize_t read_byte(int fd, char& c) { return varkel::detail::receive_exact(fd, &c, 1, kByteWait); }

// Waits up to five times one second for the first byte. False when none came.
bool wait_for_reply(int fd)
{
  for (int tries = 0;;) {
    // poll, not select: a descriptor past FD_SETSIZE must not overrun an fd_set.
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, kWaitMs) == 1)
      return true;
    printf("Try read again...\n");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    printf("Timeout 1s\n");
    if (++tries >= kWaits)
      return false;
  }
}

int fail_open(varkel_t* v, const char* what)
{
  perror(what);
  varkel::detail::release_descriptor(v->varkel_interface);
  return -1;
}

} // namespace

int open_serialPort(varkel_t* varkel, const char* device)
{
  assert(varkel != NULL);
  assert(device != NULL);
  // A serial port opened before is closed; a module socket stays with its module.
  varkel::detail::release_main_channel(varkel);
  const int fd = varkel::detail::off_zero(open(device, O_RDWR | O_NOCTTY | O_CLOEXEC));
  varkel->varkel_interface = fd;
  if (fd < 0) {
    perror(device);
    return -1;
  }
  if (tcflush(fd, TCIOFLUSH) != 0)
    perror("tcflush failed");

  termios tty{};
  if (tcgetattr(fd, &tty) != 0)
    return fail_open(varkel, "tcgetattr failed");
  cfsetispeed(&tty, B115200);
  cfsetospeed(&tty, B115200);
  tty.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
  tty.c_cflag |= CS8 | CREAD | CLOCAL;
  tty.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
  tty.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHOE | ISIG);
  tty.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  // A read returns as soon as one byte is there, or after 0.5 s with nothing.
  tty.c_cc[VMIN] = 0;
  tty.c_cc[VTIME] = 5;
  if (tcsetattr(fd, TCSANOW, &tty) != 0)
    return fail_open(varkel, "tcsetattr failed");
  return 0;
}

int write_serialPort(int fd, const char* buffer, size_t size)
{
  const ssize_t n = write(fd, buffer, size);
  if (n >= 0 && static_cast<size_t>(n) == size)
    return 0;
  perror("failed to write to port");
  return -1;
}

int read_serialPort(varkel_t*, int fd, char* buffer, size_t size)
{
  if (fd < 0 || buffer == nullptr || size == 0)
    return -2;
  tcflush(fd, TCIFLUSH);
  if (!wait_for_reply(fd))
    return -2;

  ReplyFrame frame;
  char c = 0;
  if (read_byte(fd, c) != 1 || frame.feed(c) == ReplyFrame::Step::bad) {
    printf("\n\n READ MSG ERROR \n\n");
    return -2;
  }
  // Bytes come one per read; silence in mid-reply ends it as a failed reply.
  for (std::size_t count = 1;; ++count) {
    if (count >= kMaxReplyBytes || read_byte(fd, c) != 1)
      return -2;
    if (frame.feed(c) == ReplyFrame::Step::done)
      break;
  }
  const std::string& text = frame.text();
  const std::size_t length = std::min(text.size(), size - 1);
  std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
  return static_cast<int>(length);
}
