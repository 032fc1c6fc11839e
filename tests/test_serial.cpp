// The serial line, through a pseudo-terminal pair: the library holds the
// terminal end, the test plays the controller on the master end.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "varkel.h"

namespace {

class SerialLine : public ::testing::Test {
protected:
  void SetUp() override
  {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    v = varkel_new(varkelTrio);
    ASSERT_EQ(open_serialPort(v, ptsname(master)), 0);
    port = v->varkel_interface;
  }
  void TearDown() override
  {
    varkel_delete(v);
    close(master);
  }

  // Plays one reply: waits until the reader has discarded its pending input (the
  // master reports the flush in packet mode), then writes `stream`.
  int exchange(const std::string& stream, std::size_t size, std::string& text)
  {
    int on = 1;
    EXPECT_EQ(ioctl(master, TIOCPKT, &on), 0);
    std::vector<char> buffer(size, '#');
    int rc = 0;
    std::thread reader([&] { rc = read_serialPort(v, port, buffer.data(), size); });
    bool flushed = false;
    while (!flushed) {
      pollfd p{master, POLLIN, 0};
      if (poll(&p, 1, 5000) != 1)
        break;
      char status[64];
      flushed = read(master, status, sizeof status) >= 1 && (status[0] & TIOCPKT_FLUSHREAD) != 0;
    }
    EXPECT_TRUE(flushed);
    EXPECT_EQ(write(master, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
    reader.join();
    text = rc >= 0 ? std::string(buffer.data()) : std::string();
    return rc;
  }

  int master = -1;
  int port = -1;
  varkel_t* v = nullptr;
};

} // namespace

TEST_F(SerialLine, OpensRawAt115200EightNoneOneAndWritesAsGiven)
{
  termios tty{};
  ASSERT_EQ(tcgetattr(port, &tty), 0);
  EXPECT_EQ(cfgetispeed(&tty), static_cast<speed_t>(B115200));
  EXPECT_EQ(cfgetospeed(&tty), static_cast<speed_t>(B115200));
  EXPECT_EQ(tty.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS | CREAD | CLOCAL),
            static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
  EXPECT_EQ(tty.c_iflag & (IXON | IXOFF | IXANY), 0u);
  EXPECT_EQ(tty.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
  EXPECT_EQ(tty.c_oflag & OPOST, 0u);
  EXPECT_EQ(tty.c_cc[VMIN], 0);
  EXPECT_EQ(tty.c_cc[VTIME], 5);

  const std::string message = "{\"method\":\"HS_Reset\"}\n";
  EXPECT_EQ(write_serialPort(port, message.data(), message.size()), 0);
  std::string seen(message.size(), '\0');
  EXPECT_EQ(read(master, seen.data(), seen.size()), static_cast<ssize_t>(message.size()));
  EXPECT_EQ(seen, message);
  EXPECT_EQ(write_serialPort(-1, message.data(), message.size()), -1);
}

struct ReadCase {
  std::string stream;
  std::size_t size;
  int rc;
  std::string text;
};

class SerialReply : public SerialLine, public ::testing::WithParamInterface<ReadCase> {};

TEST_P(SerialReply, ReturnsTheSecondBracePart)
{
  std::string text;
  EXPECT_EQ(exchange(GetParam().stream, GetParam().size, text), GetParam().rc);
  EXPECT_EQ(text, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Framing, SerialReply,
    ::testing::Values(ReadCase{"j{\"id\":1}x{\"result\":\"7\"}", 64, 14, "{\"result\":\"7\"}"},
                      // Zero bytes are dropped; a nested object ends at its first '}'.
                      ReadCase{std::string("j{}\0{\"r\0\":{\"a\":1}}", 18), 64, 12, "{\"r\":{\"a\":1}"},
                      ReadCase{"j{\"id\":1}x{\"result\":\"7\"}", 5, 4, "{\"re"},
                      ReadCase{"{\"id\":1}x{\"result\":\"7\"}", 64, -2, ""},
                      // The line goes silent in mid-reply.
                      ReadCase{"j{\"id\"", 64, -2, ""}, ReadCase{"j{\"id\":1}x{\"res", 64, -2, ""}));

TEST(SerialPort, FailedOpenLeavesNoDescriptor)
{
  varkel_t* v = varkel_new(varkelTrio);
  EXPECT_EQ(open_serialPort(v, "/nonexistent/tty"), -1);
  EXPECT_EQ(v->varkel_interface, -1);
  // Not a terminal: its attributes cannot be read, and the descriptor is closed.
  EXPECT_EQ(open_serialPort(v, "/dev/null"), -1);
  EXPECT_EQ(v->varkel_interface, -1);
  varkel_delete(v);
}
