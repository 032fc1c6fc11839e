// TCP helpers: resolution, time-outs, draining, connecting.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ethernet.h"
#include "fake_controller.hpp"
#include "process.hpp"

namespace {

using varkel::testing::receive_timeout_us;

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
  EXPECT_EQ(std::tuple(addr.sin_family, addr.sin_port, addr.sin_addr.s_addr),
            std::tuple(sa_family_t{AF_INET}, htons(0x1234), htonl(INADDR_LOOPBACK)));
  ASSERT_EQ(get_address("localhost", 80, &addr), 0);
  EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(get_address("::1", 80, &addr), -1); // IPv6 only
}

TEST(Tcp, DrainDiscardsWhatWaitsBoundedAndDoesNotWaitOnNothing)
{
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  // A 1-microsecond receive time-out would cost a scheduler tick (1 ms or more)
  // per drain; a receive that does not wait is the baseline.
  char byte;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(recv(pair[0], &byte, 1, MSG_DONTWAIT), -1);
  const auto baseline = std::chrono::steady_clock::now() - start;
  start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i)
    drain_input(pair[0]);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50) + 10 * baseline);

  ASSERT_EQ(set_timeout(pair[0], 300000000), 0);
  // A peer that keeps streaming: at most 100 reads of 512 bytes per drain.
  for (std::size_t size : {2000, 60000}) {
    const std::string junk(size, 'x');
    ASSERT_EQ(write(pair[1], junk.data(), size), static_cast<ssize_t>(size));
    drain_input(pair[0]);
  }
  EXPECT_EQ(waiting_bytes(pair[0]), 60000 - 51200);
  EXPECT_EQ(receive_timeout_us(pair[0]), 600000000); // restored
  close(pair[0]);
  close(pair[1]);
}

TEST(Tcp, ConnectSetsTheTimeoutAndReportsFailures)
{
  varkel::testing::FakeController peer;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(socket_connect(fd, "127.0.0.1", peer.port(), 1500000), 0);
  EXPECT_EQ(receive_timeout_us(fd), 1500000); // seconds and microseconds
  safe_close(fd);
  // A closed number may already be the peer thread's: INT_MAX stands for one.
  safe_close(INT_MAX); // no harm
  EXPECT_EQ(set_timeout(INT_MAX, 1), EBADF);

  // An unresolvable address leaves the socket's time-out untouched.
  fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(socket_connect(fd, "::1", peer.port(), 1500000), -1);
  EXPECT_EQ(receive_timeout_us(fd), 0);
  close(fd);
}

} // namespace
