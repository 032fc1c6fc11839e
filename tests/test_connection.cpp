// Connecting modules, the transport bring-up, registers, efuse and reset, against
// scripted controllers on loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

#include "fake_controller.hpp"
#include "internal/query.hpp"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

constexpr char kHost[] = "127.0.0.1";

// A handle with one scripted controller per module, connected by the library
// itself (the fake detector comes pre-wired instead).
struct Rig {
  explicit Rig(varkel_detector_model_t model) : v(varkel_new(model))
  {
    v->init_args.bufferSize = 512;
    for (int m = 0; m < v->max_num_modules; ++m) {
      peers.push_back(std::make_unique<FakeController>());
      ports.push_back(peers.back()->port());
    }
  }
  ~Rig() { varkel_delete(v); }
  int connect() { return varkel_connect(v, std::vector<const char*>(ports.size(), kHost).data(), ports.data()); }
  FakeController& peer(int index) { return *peers[static_cast<std::size_t>(index)]; }

  varkel_t* v;
  std::vector<std::unique_ptr<FakeController>> peers;
  std::vector<uint16_t> ports;
};

// The bring-up of one module, given the texts of parameters 2, 3, 8 to 16.
Commands bring_up(const std::vector<std::string>& texts)
{
  const int numbers[] = {2, 3, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  Commands out;
  for (std::size_t i = 0; i < texts.size(); ++i)
    out.push_back("TransportParams " + std::to_string(numbers[i]) + " " + texts[i]);
  out.insert(out.end(), {"TransportParams 19 1", "TransportParams 21 1", "ConfigureTransport"});
  return out;
}

Commands bring_up_with_qpn(uint32_t qpn)
{
  return bring_up({"0", "0", "0", "0", "0", "0", std::to_string(qpn), "0", "0", "0", "512"});
}

uint16_t local_port(int fd)
{
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 ? ntohs(addr.sin_port) : 0;
}

// Whether some descriptor of this process is still bound to local `port`.
bool socket_open_on(uint16_t port)
{
  for (int fd = 3; fd < 1024; ++fd)
    if (local_port(fd) == port)
      return true;
  return false;
}

} // namespace

TEST(Connection, TransportTextsOfOneModule)
{
  Rig rig(varkelTrio);
  initArgs& a = rig.v->init_args;
  a.be_mac[0] = 0x0002C9A1B2C3;
  a.qpn[0] = 0x1F2;
  a.vaddr[0] = 0x00007F0012345000;
  a.rkey[0] = 0x1234;
  const uint8_t gid[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x02, 0xc9, 0xff, 0xfe, 0xa1, 0xb2, 0xc3};
  std::copy(gid, gid + 16, a.be_gid[0]);

  ASSERT_EQ(varkel_init(rig.v, 0, kHost, rig.ports[0]), 0);
  EXPECT_EQ(rig.peer(0).commands(), bring_up({"45763", "182689", "4272009923", "33737215", "0", "4269801472", "498",
                                              "305418240", "32512", "4660", "512"}));
  EXPECT_EQ(
      rig.peer(0).transcript().back().raw,
      R"({"id":"4925cfeb-4a68-4793-a9f8-18d618f428ef","params":[[]],"jsonrpc":"2.0","method":"ConfigureTransport"})");
  EXPECT_EQ(rig.v->varkel_interface, rig.v->fd[0]);
  EXPECT_EQ(rig.v->varkel_module, 1);

  // Widest values, and the upper half of the address alone.
  a.be_mac[0] = 0xFFFFFFFFFFFF;
  a.qpn[0] = a.rkey[0] = 0xFFFFFFFF;
  a.vaddr[0] = 0x0000FFFF00000000;
  a.bufferSize = 9999;
  std::fill(a.be_gid[0], a.be_gid[0] + 16, 0xff);
  rig.peer(0).clear();
  EXPECT_EQ(send_allinitArgs(rig.v, 0), 0);
  const std::string max32 = "4294967295";
  EXPECT_EQ(rig.peer(0).commands(),
            bring_up({"65535", max32, max32, max32, max32, max32, max32, "0", "65535", max32, "9999"}));

  // Five digits do not fit the frame count: refused before anything is sent.
  a.bufferSize = 10000;
  rig.peer(0).clear();
  EXPECT_EQ(send_allinitArgs(rig.v, 0), -3);
  EXPECT_EQ(send_allinitArgs(rig.v, 1), -7);
  EXPECT_EQ(rig.peer(0).request_count(), 0u);
}

TEST(Connection, QuadBringsEveryModuleUpOnItsOwnSocketAtTheSameTime)
{
  // Each controller holds its first reply until all four have a request in hand:
  // modules connected one after the other would stall here.
  std::mutex mutex;
  std::condition_variable all_there;
  int arrived = 0;
  bool stalled = false;
  Rig rig(varkelQuad);
  for (int m = 0; m < 4; ++m) {
    rig.v->init_args.qpn[m] = 100u + static_cast<uint32_t>(m);
    rig.peer(m).set_handler([&](const Request& r) {
      if (r.params == std::vector<std::string>{"2", "0"}) {
        std::unique_lock lock(mutex);
        ++arrived;
        all_there.notify_all();
        stalled |= !all_there.wait_for(lock, std::chrono::seconds(5), [&] { return arrived == 4; });
      }
      return Reply::result("OK");
    });
  }

  ASSERT_EQ(rig.connect(), 0);

  EXPECT_FALSE(stalled);
  std::set<int> sockets;
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(rig.peer(m).commands(), bring_up_with_qpn(100u + static_cast<uint32_t>(m))) << "module " << m + 1;
    sockets.insert(rig.v->fd[m]);
  }
  EXPECT_EQ(sockets.size(), 4u);
  EXPECT_GT(*sockets.begin(), 0);
  // The main channel is the module connected last, and varkel_module names it.
  ASSERT_GE(rig.v->varkel_module, 1);
  EXPECT_EQ(rig.v->varkel_interface, rig.v->fd[rig.v->varkel_module - 1]);
}

TEST(Connection, ModuleRefusingTheConnectionLeavesTheOthersConnected)
{
  Rig rig(varkelQuad);
  // Bound but not listening: connections to it are refused.
  const int refusing = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(refusing, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  rig.ports[2] = local_port(refusing);

  EXPECT_EQ(rig.connect(), ECONNREFUSED);
  close(refusing);

  EXPECT_EQ(rig.v->fd[2], -1);
  EXPECT_EQ(send_configureTransport(rig.v, VARKEL_THREAD_MODULE3), ENOTCONN);
  EXPECT_NE(rig.v->varkel_interface, -1);
  for (int m : {0, 1, 3}) {
    EXPECT_EQ(read_tb_reg(rig.v, 1, static_cast<varkel_thread_t>(m)), 0);
    Commands expected = bring_up_with_qpn(0);
    expected.push_back("ReadTransport 1");
    EXPECT_EQ(rig.peer(m).commands(), expected) << "module " << m + 1;
  }
}

TEST(Connection, ReconnectAndDisconnectCloseOnlyTheirOwnSocket)
{
  Rig rig(varkelQuad);
  ASSERT_EQ(rig.connect(), 0);
  const std::vector<int> before(rig.v->fd, rig.v->fd + 4);
  const uint16_t old_end = local_port(rig.v->fd[1]);

  FakeController replacement;
  ASSERT_EQ(varkel_init(rig.v, 1, kHost, replacement.port()), 0);
  EXPECT_FALSE(socket_open_on(old_end));
  EXPECT_EQ(rig.v->varkel_interface, rig.v->fd[1]);
  EXPECT_EQ(rig.v->varkel_module, 2);
  for (int m : {0, 2, 3}) {
    EXPECT_EQ(rig.v->fd[m], before[static_cast<std::size_t>(m)]);
    EXPECT_EQ(read_tb_reg(rig.v, m, static_cast<varkel_thread_t>(m)), 0);
    EXPECT_EQ(rig.peer(m).commands().back(), "ReadTransport " + std::to_string(m));
  }

  const uint16_t main_end = local_port(rig.v->varkel_interface);
  varkel_disconnect(rig.v);
  varkel_disconnect(rig.v);
  EXPECT_FALSE(socket_open_on(main_end));
  EXPECT_EQ(rig.v->varkel_interface, -1);
  EXPECT_EQ(rig.v->fd[1], -1);
  EXPECT_EQ(US_Reset(rig.v, 1, VARKEL_THREAD_MODULE2), ENOTCONN);
  EXPECT_EQ(replacement.request_count(), 14u);
}

TEST(Registers, ExactTextsOnTheGivenChannel)
{
  Rig rig(varkelQuad);
  ASSERT_EQ(rig.connect(), 0);
  ASSERT_EQ(select_module(rig.v, 1), 0);
  for (auto& p : rig.peers)
    p->clear();
  constexpr auto M2 = VARKEL_THREAD_MODULE2;

  EXPECT_EQ(write_mb_reg(rig.v, 4096 + 0x90, "0", M2), 0);
  EXPECT_EQ(write_tb_reg(rig.v, 5, "1", M2), 0);
  EXPECT_EQ(read_tb_reg(rig.v, 7, M2), 0);
  EXPECT_EQ(US_Reset(rig.v, 0, M2), 0);
  // Values that are not one word would change the command: refused, unsent.
  EXPECT_EQ(write_mb_reg(rig.v, 1, "", M2), -3);
  EXPECT_EQ(write_tb_reg(rig.v, 1, "1 2", M2), -3);
  EXPECT_EQ(send_transportParams(rig.v, 1, nullptr, M2), -3);
  EXPECT_EQ(US_Reset(rig.v, 2, VARKEL_THREAD_MAIN), -3);
  EXPECT_EQ(US_Reset(rig.v, -1, M2), -3);
  EXPECT_EQ(varkel_reset(rig.v), 0);

  EXPECT_EQ(rig.peer(1).commands(),
            (Commands{"WriteReg 4240 0", "WriteTransport 5 1", "ReadTransport 7", "HS_Reset 0"}));
  EXPECT_EQ(rig.peer(0).commands(), Commands{"HS_Reset 1"});
}

TEST(Registers, ReadMbRegKeepsHexadecimalRepliesPerChannel)
{
  Rig rig(varkelQuad);
  ASSERT_EQ(rig.connect(), 0);
  for (auto& r : rig.v->mb_reg)
    r = -5;
  const struct {
    Reply reply;
    int rc;
    int32_t value;
  } cases[] = {{Reply::result("1a2b"), 0, 6699},
               {Reply::result("0x10"), 0, 16},
               {Reply::result("ok"), 0, 16},
               {Reply::error("no such register"), 0, 16},
               {Reply::reset(), -1, 16}};
  for (const auto& c : cases) {
    rig.peer(1).set_handler([reply = c.reply](const Request&) { return reply; });
    EXPECT_EQ(read_mb_reg(rig.v, 24, VARKEL_THREAD_MODULE2), c.rc);
    EXPECT_EQ(rig.v->mb_reg[1], c.value);
  }
  EXPECT_EQ(rig.peer(1).commands().back(), "ReadReg 24");
  for (int i : {0, 2, 3, 4})
    EXPECT_EQ(rig.v->mb_reg[i], -5);
}

TEST(Efuse, WorkersOfEveryModuleStoreTheFirstSevenCharacters)
{
  Rig rig(varkelQuad);
  ASSERT_EQ(rig.connect(), 0);
  for (int m = 0; m < 4; ++m)
    rig.peer(m).set_handler([m](const Request&) { return Reply::result("EF" + std::to_string(m) + "ABCDEF tail"); });

  EXPECT_EQ(varkel::detail::for_each_module_parallel(
                rig.v, [&](varkel_thread_t owner) { return US_efuseID_RBV(rig.v, owner); }),
            0);
  EXPECT_EQ(std::string(rig.v->varkelParam.efuseID).substr(3), "ABCD");

  // A reply without a word keeps what was there.
  rig.peer(0).set_handler([](const Request&) { return Reply::result(""); });
  EXPECT_EQ(US_efuseID_RBV(rig.v, VARKEL_THREAD_MODULE1), 0);
  EXPECT_EQ(std::string(rig.v->varkelParam.efuseID).substr(3), "ABCD");
}
