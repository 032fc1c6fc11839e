// Connecting modules and bringing their data transport up, registers, efuse and
// reset, against fake controllers on loopback.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "fake_detector.hpp"
#include "internal/query.hpp"
#include "link.h"
#include "process.hpp"
#include "refusal.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

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

// Every parameter zero but the queue pair number.
Commands bring_up(int qpn) { return bring_up({"0", "0", "0", "0", "0", "0", std::to_string(qpn), "0", "0", "0", "0"}); }

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

// Four modules, each channel connected to its fake controller.
class Modules : public ::testing::Test {
protected:
  FakeDetector det{varkelQuad};
  varkel_t* v = det.handle();
};

} // namespace

TEST_F(Modules, TransportTextsOfOneModule)
{
  initArgs& a = v->init_args;
  a.be_mac[0] = 0x0002C9A1B2C3;
  a.qpn[0] = 0x1F2;
  a.vaddr[0] = 0x00007F0012345000;
  a.rkey[0] = 0x1234;
  a.bufferSize = 512;
  const uint8_t gid[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x02, 0xc9, 0xff, 0xfe, 0xa1, 0xb2, 0xc3};
  std::copy(gid, gid + 16, a.be_gid[0]);

  ASSERT_EQ(varkel_init(v, 0, "127.0.0.1", det.module(1).port()), 0);
  EXPECT_EQ(det.module(1).commands(), bring_up({"45763", "182689", "4272009923", "33737215", "0", "4269801472", "498",
                                                "305418240", "32512", "4660", "512"}));
  EXPECT_EQ(v->varkel_interface, v->fd[0]);

  // Widest values, and the upper half of the address alone.
  a.be_mac[0] = 0xFFFFFFFFFFFF;
  a.qpn[0] = a.rkey[0] = 0xFFFFFFFF;
  a.vaddr[0] = 0x0000FFFF00000000;
  a.bufferSize = 9999;
  std::fill(a.be_gid[0], a.be_gid[0] + 16, 0xff);
  det.clear();
  EXPECT_EQ(send_allinitArgs(v, 0), 0);
  const std::string max32 = "4294967295";
  EXPECT_EQ(det.module(1).commands(),
            bring_up({"65535", max32, max32, max32, max32, max32, max32, "0", "65535", max32, "9999"}));

  // Five digits do not fit the frame count: refused before anything is sent.
  a.bufferSize = 10000;
  det.clear();
  EXPECT_EQ(send_allinitArgs(v, 0), -3);
  EXPECT_EQ(send_allinitArgs(v, 4), -7);
  EXPECT_EQ(det.module(1).request_count(), 0u);
}

TEST_F(Modules, ConnectBringsEveryModuleUpOnItsOwnSocketAtTheSameTime)
{
  // Each controller holds its first reply until all four have a request in hand:
  // modules connected one after the other would stall here.
  Rendezvous all_four(4);
  for (int m = 0; m < 4; ++m)
    v->init_args.qpn[m] = 100u + static_cast<uint32_t>(m);
  det.answer_all([&](const Request& r) {
    if (r.params == std::vector<std::string>{"2", "0"})
      all_four.arrive();
    return Reply::result("OK");
  });

  ASSERT_EQ(det.connect(), 0);
  EXPECT_FALSE(all_four.stalled);
  for (int fd : v->fd)
    EXPECT_EQ(receive_timeout_us(fd), 600000000); // the module channels' receive time-out
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(det.module(m + 1).commands(), bring_up(100 + m)) << "module " << m + 1;
  // The main channel is the module connected last, and varkel_module names it.
  ASSERT_GE(v->varkel_module, 1);
  EXPECT_EQ(v->varkel_interface, v->fd[v->varkel_module - 1]);
}

TEST_F(Modules, ModuleRefusingTheConnectionLeavesTheOthersConnected)
{
  // Bound but not listening: connections to it are refused.
  const int refusing = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  ASSERT_EQ(bind(refusing, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  // The fakes' own ends close when they notice: only the library's are counted.
  const auto fakes_own = [&](int fd) {
    const uint16_t port = local_port(fd);
    for (int m = 1; m <= 4; ++m)
      if (port == det.module(m).port())
        return true;
    return false;
  };
  const int descriptors = open_descriptors(fakes_own);
  EXPECT_EQ(det.connect({0, 0, local_port(refusing)}), ECONNREFUSED);
  // Module 3's old socket is closed and its failed new one is not kept.
  EXPECT_EQ(open_descriptors(fakes_own), descriptors - 1);
  close(refusing);

  EXPECT_EQ(send_configureTransport(v, VARKEL_THREAD_MODULE3), ENOTCONN);
  EXPECT_NE(v->varkel_interface, -1);
  for (int m : {0, 1, 3}) {
    EXPECT_EQ(read_tb_reg(v, 1, static_cast<varkel_thread_t>(m)), 0);
    Commands expected = bring_up(0);
    expected.push_back("ReadTransport 1");
    EXPECT_EQ(det.module(m + 1).commands(), expected) << "module " << m + 1;
  }
}

TEST_F(Modules, ReconnectAndDisconnectCloseOnlyTheirOwnSocket)
{
  const uint16_t old_end = local_port(v->fd[1]);

  ASSERT_EQ(varkel_init(v, 1, "127.0.0.1", det.module(2).port()), 0);
  EXPECT_FALSE(socket_open_on(old_end));
  EXPECT_EQ(v->varkel_interface, v->fd[1]);
  EXPECT_EQ(v->varkel_module, 2);
  for (int m : {0, 2, 3}) {
    EXPECT_EQ(read_tb_reg(v, m, static_cast<varkel_thread_t>(m)), 0);
    EXPECT_EQ(det.module(m + 1).commands(), Commands{"ReadTransport " + std::to_string(m)});
  }

  const uint16_t main_end = local_port(v->varkel_interface);
  varkel_disconnect(v);
  varkel_disconnect(v);
  EXPECT_FALSE(socket_open_on(main_end));
  EXPECT_EQ(v->varkel_interface, -1);
  EXPECT_EQ(US_Reset(v, 1, VARKEL_THREAD_MODULE2), ENOTCONN);
  EXPECT_EQ(det.module(2).commands(), bring_up(0));
}

TEST_F(Modules, RegisterTextsGoOutOnTheGivenChannelAndReadBacksStayThere)
{
  ASSERT_EQ(select_module(v, 1), 0);
  constexpr auto M2 = VARKEL_THREAD_MODULE2;
  EXPECT_EQ(write_mb_reg(v, 4096 + 0x90, "0", M2), 0);
  EXPECT_EQ(write_tb_reg(v, 5, "1", M2), 0);
  EXPECT_EQ(read_tb_reg(v, 7, M2), 0);
  EXPECT_EQ(US_Reset(v, 0, M2), 0);
  // Values that are not one word would change the command: refused, unsent.
  EXPECT_EQ(write_mb_reg(v, 1, "", M2), -3);
  EXPECT_EQ(write_tb_reg(v, 1, "1 2", M2), -3);
  EXPECT_EQ(send_transportParams(v, 1, nullptr, M2), -3);
  EXPECT_EQ(US_Reset(v, 2, VARKEL_THREAD_MAIN), -3);
  EXPECT_EQ(US_Reset(v, -1, M2), -3);
  EXPECT_EQ(varkel_reset(v), 0);
  EXPECT_EQ(det.all_commands(), (Commands{"1:HS_Reset 1", "2:WriteReg 4240 0", "2:WriteTransport 5 1",
                                          "2:ReadTransport 7", "2:HS_Reset 0"}));

  // read_mb_reg keeps hexadecimal replies, in the slot of its channel only.
  std::fill(std::begin(v->mb_reg), std::end(v->mb_reg), -5);
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
    det.module(2).set_handler([reply = c.reply](const Request&) { return reply; });
    EXPECT_EQ(read_mb_reg(v, 24, VARKEL_THREAD_MODULE2), c.rc);
    EXPECT_EQ(v->mb_reg[1], c.value);
  }
  EXPECT_EQ(det.module(2).commands().back(), "ReadReg 24");
  EXPECT_EQ(std::count(std::begin(v->mb_reg), std::end(v->mb_reg), -5), 4);
}

TEST_F(Modules, EfuseWorkersOfEveryModuleStoreTheFirstSevenCharacters)
{
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_handler([m](const Request&) { return Reply::result("EF" + std::to_string(m) + "ABCDEF tail"); });
  EXPECT_EQ(
      varkel::detail::for_each_module_parallel(v, [&](varkel_thread_t owner) { return US_efuseID_RBV(v, owner); }), 0);
  EXPECT_EQ(std::string(v->varkelParam.efuseID).substr(3), "ABCD");

  // A reply without a word keeps what was there.
  det.module(1).set_handler([](const Request&) { return Reply::result(""); });
  EXPECT_EQ(US_efuseID_RBV(v, VARKEL_THREAD_MODULE1), 0);
  EXPECT_EQ(std::string(v->varkelParam.efuseID).substr(3), "ABCD");
}

// The identity request goes to module 1 alone, and only varkel-sim's answer makes
// the handle a simulator's, its frame mapped from the segment the answer names.
TEST_F(Modules, IdentifyTellsTheSimulatorFromAController)
{
  const struct {
    Reply reply;
    int rc;
    const char* identity;
    uint64_t refusals;
    int simulate; // after the call: a failed query changes nothing
  } cases[] = {
      {Reply::error("Method not found: varkel_Identity"), 0, "", 1, 0},
      {Reply::result("controller firmware 2.1"), 0, "controller firmware 2.1", 0, 0},
      {Reply::result("varkel-sim 0.1.0 model=quad module=1 segment=/varkel_own"), 1,
       "varkel-sim 0.1.0 model=quad module=1 segment=/varkel_own", 0, 1},
      {Reply::close(), 0, "", 1, 1}, // noted as closed: no identity
  };
  for (const auto& c : cases) {
    det.module(1).set_handler([&](const Request&) { return c.reply; });
    det.clear();
    const uint64_t failures = varkel_failure_count(v);
    char identity[128] = "stale";
    EXPECT_EQ(varkel_identify(v, identity, sizeof identity), c.rc) << c.identity;
    EXPECT_STREQ(identity, c.identity);
    EXPECT_EQ(v->simulate, c.simulate);
    EXPECT_EQ(varkel_failure_count(v) - failures, c.refusals) << c.identity;
    EXPECT_EQ(det.all_commands(), Commands{"1:varkel_Identity"});
    EXPECT_EQ(v->varkel_module, 4); // the main channel stays where the connect left it
  }
  testing::internal::CaptureStdout();
  init_array_data(v);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("/dev/shm/varkel_own shared memory file not found"),
            std::string::npos);
}

TEST(FrameSegment, OnlyNamesOfOneFileUnderDevShmAreTaken)
{
  varkel_t* v = varkel_new(varkelQuad);
  const std::string longest = "/" + std::string(199, 'a'), too_long = longest + "a";
  const struct {
    const char* name;
    int rc;
  } cases[] = {{"/own", 0},  {longest.c_str(), 0}, {nullptr, 0},          {"", 0}, {"own", -3}, {"/", -3},
               {"/a/b", -3}, {"//", -3},           {too_long.c_str(), -3}};
  for (const auto& c : cases)
    EXPECT_EQ(varkel_set_frame_segment(v, c.name), c.rc) << (c.name ? c.name : "NULL");
  varkel_delete(v);
}
