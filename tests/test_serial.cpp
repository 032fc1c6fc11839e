// The serial line, through a pseudo-terminal pair: the library holds the
// terminal end, the test plays the controller on the master end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "process.hpp"
#include "varkel.h"

namespace {

class SerialLine : public ::testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    ASSERT_EQ(open_serialPort(v, ptsname(master)), 0);
  }
  ~SerialLine() override
  {
    varkel_delete(v);
    close(master);
  }

  // Plays one reply: waits until the reader has discarded its pending input (the
  // master reports the flush in packet mode), then writes `stream`, and, when
  // `endless`, more and more of 'x' until the reader is done (at most 2 MB;
  // `written` tells how much went).
  std::pair<int, std::string> exchange(const std::string& stream, std::size_t size, bool endless = false)
  {
    int on = 1;
    EXPECT_EQ(ioctl(master, TIOCPKT, &on), 0);
    std::vector<char> buffer(size, '#');
    int rc = 0;
    std::atomic<bool> done{false};
    std::thread reader([&] {
      rc = read_serialPort(v, v->varkel_interface, buffer.data(), size);
      done = true;
    });
    bool flushed = false;
    for (pollfd p{master, POLLIN, 0}; !flushed && poll(&p, 1, 5000) == 1;) {
      char status[64];
      flushed = read(master, status, sizeof status) >= 1 && (status[0] & TIOCPKT_FLUSHREAD) != 0;
    }
    EXPECT_TRUE(flushed);
    EXPECT_EQ(write(master, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
    const std::string more(4096, 'x');
    if (endless)
      fcntl(master, F_SETFL, O_NONBLOCK);
    for (written = stream.size(); endless && !done && written < (2u << 20);) {
      pollfd p{master, POLLOUT, 0};
      if (poll(&p, 1, 10) == 1)
        written += static_cast<std::size_t>(std::max<ssize_t>(0, write(master, more.data(), more.size())));
    }
    reader.join();
    return {rc, rc >= 0 ? std::string(buffer.data()) : std::string()};
  }

  std::size_t written = 0;
  int master = posix_openpt(O_RDWR | O_NOCTTY);
  varkel_t* v = varkel_new(varkelTrio);
};

} // namespace

TEST_F(SerialLine, OpensRawAt115200WithOneStopBitAndWritesAsGiven)
{
  termios tty{};
  ASSERT_EQ(tcgetattr(v->varkel_interface, &tty), 0);
  // A pty forces eight bits without parity and reports no input speed of its
  // own: only the output speed, stop bits, flow control and line flags show here.
  EXPECT_EQ(cfgetospeed(&tty), speed_t{B115200});
  EXPECT_EQ(tty.c_cflag & (CSTOPB | CRTSCTS | CREAD | CLOCAL), static_cast<tcflag_t>(CREAD | CLOCAL));
  EXPECT_EQ((tty.c_iflag & (IXON | IXOFF | IXANY)) | (tty.c_lflag & (ICANON | ECHO | ECHOE | ISIG)) |
                (tty.c_oflag & OPOST),
            0u);
  EXPECT_EQ(std::pair(tty.c_cc[VMIN], tty.c_cc[VTIME]), std::pair(cc_t{0}, cc_t{5}));

  const std::string message = "{\"method\":\"HS_Reset\"}\n";
  EXPECT_EQ(write_serialPort(v->varkel_interface, message.data(), message.size()), 0);
  std::string seen(message.size(), '\0');
  EXPECT_EQ(read(master, seen.data(), seen.size()), static_cast<ssize_t>(message.size()));
  EXPECT_EQ(seen, message);
  EXPECT_EQ(write_serialPort(-1, message.data(), message.size()), -1);

  // A failed open leaves no descriptor; /dev/null is closed again, not being a
  // terminal. The port opened before is closed by the first attempt.
  const int descriptors = varkel::testing::open_descriptors();
  for (const char* device : {"/nonexistent/tty", "/dev/null"}) {
    EXPECT_EQ(open_serialPort(v, device), -1);
    EXPECT_EQ(v->varkel_interface, -1);
  }
  EXPECT_EQ(varkel::testing::open_descriptors(), descriptors - 1);
}

TEST_F(SerialLine, ReplyIsTheSecondBracePartAfterTheLeadingJ)
{
  // A reply not led by 'j' is refused, zero bytes are dropped, a nested object ends
  // at its first '}', and silence in mid-reply (the last two) fails it.
  const std::string reply = "j{\"id\":1}x{\"result\":\"7\"}";
  const struct {
    std::string stream;
    std::size_t size;
    int rc;
    std::string text;
  } cases[] = {{reply, 64, 14, "{\"result\":\"7\"}"},
               {reply, 5, 4, "{\"re"},
               {"x" + reply.substr(1), 64, -2, ""},
               {std::string("j{}\0{\"r\0\":{\"a\":1}}", 18), 64, 12, "{\"r\":{\"a\":1}"},
               {"j{\"id\"", 64, -2, ""},
               {reply.substr(0, 15), 64, -2, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stream);
    EXPECT_EQ(exchange(c.stream, c.size), std::make_pair(c.rc, c.text));
  }
  // A line that keeps talking without closing its reply is given up on after
  // 64 KiB, while it still talks.
  EXPECT_EQ(exchange("j{}{", 64, true).first, -2);
  EXPECT_LT(written, 256u << 10);
}
