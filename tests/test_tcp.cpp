// TCP helpers: resolution, time-outs, draining, connecting.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ethernet.h"
#include "fake_controller.hpp"

namespace {

timeval receive_timeout(int fd)
{
  timeval tv{};
  socklen_t len = sizeof tv;
  getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len);
  return tv;
}

int waiting_bytes(int fd)
{
  int n = -1;
  ioctl(fd, FIONREAD, &n);
  return n;
}

TEST(Tcp, ResolvesIpv4OnlyWithThePortInNetworkOrder)
{
  sockaddr_in addr{};
  ASSERT_EQ(get_address("127.0.0.1", 0x1234, &addr), 0);
  EXPECT_EQ(addr.sin_family, AF_INET);
  EXPECT_EQ(addr.sin_port, htons(0x1234));
  EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  ASSERT_EQ(get_address("localhost", 80, &addr), 0);
  EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(get_address("::1", 80, &addr), -1); // IPv6 only
}

TEST(Tcp, TimeoutIsSplitIntoSecondsAndMicroseconds)
{
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(set_timeout(fd, 1500000), 0);
  EXPECT_EQ(receive_timeout(fd).tv_sec, 1);
  EXPECT_EQ(receive_timeout(fd).tv_usec, 500000);
  close(fd);
  EXPECT_EQ(set_timeout(fd, 1), EBADF);
}

TEST(Tcp, DrainDiscardsWhatWaitsAndRestoresTheTimeout)
{
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  ASSERT_EQ(set_timeout(pair[0], 300000000), 0);
  const std::string junk(2000, 'x');
  ASSERT_EQ(write(pair[1], junk.data(), junk.size()), 2000);
  drain_input(pair[0]);
  EXPECT_EQ(waiting_bytes(pair[0]), 0);
  EXPECT_EQ(receive_timeout(pair[0]).tv_sec, 600);

  // A peer that keeps streaming: at most 100 reads of 512 bytes per drain.
  const std::string flood(60000, 'y');
  ASSERT_EQ(write(pair[1], flood.data(), flood.size()), 60000);
  drain_input(pair[0]);
  EXPECT_EQ(waiting_bytes(pair[0]), 60000 - 51200);
  close(pair[0]);
  close(pair[1]);
}

TEST(Tcp, DrainOfAnEmptySocketDoesNotWait)
{
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    drain_input(pair[0]);
  // A 1-microsecond receive time-out would cost a scheduler tick per drain.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
  close(pair[0]);
  close(pair[1]);
}

TEST(Tcp, ConnectSetsTheTimeoutAndReportsFailures)
{
  varkel::testing::FakeController peer;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(socket_connect(fd, "127.0.0.1", peer.port(), 1500000), 0);
  EXPECT_EQ(receive_timeout(fd).tv_usec, 500000);
  safe_close(fd);
  safe_close(fd); // already closed: no harm

  // An unresolvable address leaves the socket's time-out untouched.
  fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(socket_connect(fd, "::1", peer.port(), 1500000), -1);
  EXPECT_EQ(receive_timeout(fd).tv_sec, 0);
  EXPECT_EQ(receive_timeout(fd).tv_usec, 0);
  close(fd);

  // Nobody listens on a port just released.
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  socklen_t len = sizeof addr;
  getsockname(probe, reinterpret_cast<sockaddr*>(&addr), &len);
  close(probe);
  fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(socket_connect(fd, "127.0.0.1", ntohs(addr.sin_port), 1000000), ECONNREFUSED);
  close(fd);
}

TEST(TcpDeathTest, NullArgumentsAssert)
{
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_DEATH(socket_connect(fd, nullptr, 1, 1), "address != NULL");
  EXPECT_DEATH(socket_connect(fd, "127.0.0.1", 0, 1), "port > 0");
  EXPECT_DEATH(set_timeout(-1, 1), "socket != -1");
  close(fd);
}

} // namespace
