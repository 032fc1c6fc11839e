// Settings by name against fake controllers: the exact commands each shape of
// read-back and setter sends, the refusals that send nothing, the text of
// values; attaching without the transport; the per-handle time-outs.
#include <arpa/inet.h>
#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fake_data_server.hpp"
#include "fake_detector.hpp"
#include "link.h"
#include "settings.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

namespace {

const varkel_setting_t* named(const char* name)
{
  const varkel_setting_t* s = varkel_setting_find(name);
  EXPECT_NE(s, nullptr) << name;
  return s;
}

// Answers each method with its text in `replies`, anything else with "OK".
FakeController::Handler replies(std::map<std::string, std::string> texts)
{
  return [texts](const Request& r) {
    const auto it = texts.find(r.method);
    return Reply::result(it != texts.end() ? it->second : "OK");
  };
}

// The same command on every module of the quad, in module order.
Commands on_all(const std::string& command) { return {"1:" + command, "2:" + command, "3:" + command, "4:" + command}; }

// `command` on module m after selecting its board and chip (both as the controller numbers them).
Commands on_chip(int m, int board, int chip, const std::string& command)
{
  const std::string at = std::to_string(m) + ":";
  return {at + "SelectMedipixBoard_Command 1 " + std::to_string(board),
          at + "HS_ImgChipNumberID_Command 1 " + std::to_string(chip), at + command};
}

TEST(Settings, GetSendsTheReadBackOfEachShape)
{
  const std::map<std::string, std::string> read_backs = {{"HS_AcquireTime_Command", "0.250000"},
                                                         {"HS_Trigger_Command", "2"},
                                                         {"HS_Get_OMR", "2"},
                                                         {"HS_ImgChipDAC", "132"},
                                                         {"HS_ImageMode_Command", "1"}};
  struct Case {
    const char* name;
    int module, chip;
    Commands sent;
    double value;
  };
  const Case cases[] = {
      {"exposure", 2, 0, {"2:HS_AcquireTime_Command 0 0"}, 0.25},
      {"trigger", 1, 0, {"1:HS_Trigger_Command 0 0"}, 2},
      {"gain", 3, 14, on_chip(3, 1, 1, "HS_Get_OMR 17"), 2},
      {"dac.GND", 1, 1, on_chip(1, 2, 0, "HS_ImgChipDAC 0 20 0"), 132},
      {"readout-mode", 0, 0, {"1:HS_ImageMode_Command 0 0"}, VARKEL_MEDIPIX_MODE_CRW},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeDetector det(varkelQuad);
    det.answer_all(replies(read_backs));
    double value = -1;
    EXPECT_EQ(varkel_setting_get(det.handle(), named(c.name), c.module, c.chip, &value), 0);
    EXPECT_EQ(det.all_commands(), c.sent);
    EXPECT_DOUBLE_EQ(value, c.value);
  }
  // A reply without a number is no value, and the cache keeps no stale one.
  FakeDetector det(varkelQuad);
  double value = -1;
  EXPECT_EQ(varkel_setting_get(det.handle(), named("exposure"), 1, 0, &value), -2);
  EXPECT_EQ(varkel_setting_get(det.handle(), named("dac.GND"), 1, 1, &value), -2);
  EXPECT_EQ(value, -1);
}

TEST(Settings, PutUsesTheLibrarysSetterAndFanOut)
{
  struct Case {
    const char* name;
    int module, chip;
    double value;
    int rc;
    Commands sent;
  };
  Commands exposure = on_all("HS_AcquireTime_Command 1 500000");
  exposure.insert(exposure.begin() + 3, "4:HS_AcquirePeriod_Command 0 0");
  const Case cases[] = {
      {"exposure", 0, 0, 0.5, 0, exposure},
      {"trigger", 0, 0, 1, 0, on_all("HS_Trigger_Command 1 1")},
      {"image-mode", 2, 0, 1, 0, {"2:HS_ImageMode_Command 1 1", "2:HS_ImageMode_Command 0 0"}},
      {"polarity", 2, 0, 1, 0, {"2:HS_ImgChipOMR 3 2 1"}},
      {"colour-mode", 1, 5, 1, 0, on_chip(1, 2, 4, "HS_Set_OMR 12 1")},
      {"ext-bg-select", 4, 36, 1, 0, on_chip(4, 0, 11, "HS_ImgChipOMR 1 20 1")},
      {"dac.GND", 0, 0, 100, 0, on_all("HS_ImgChipDAC 3 20 100")},
      {"dac.THRESHOLD0", 3, 0, 511, 0, {"3:HS_ImgChipDAC 3 1 511"}},
      // Refused before anything is sent.
      {"dac.GND", 1, 1, 256, -3, {}},
      {"gain", 1, 1, 1.5, -3, {}},
      {"exposures-taken", 1, 0, 3, -3, {}},
      {"exposure", 5, 0, 1, -7, {}},
      {"gain", 1, 37, 1, -4, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.value));
    FakeDetector det(varkelQuad);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(varkel_setting_put(det.handle(), named(c.name), c.module, c.chip, c.value), c.rc);
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(det.all_commands(), c.sent);
  }
}

TEST(Settings, ValuesByNameAndNumber)
{
  struct Case {
    const char* name;
    const char* text;
    int rc;
    double value;
    const char* formatted;
  };
  const Case cases[] = {
      {"polarity", "holes", 0, 1, "holes"},        {"polarity", "1", 0, 1, "holes"},
      {"polarity", "2", -3, 0, nullptr},           {"gain", "loud", -3, 0, nullptr},
      {"counter-depth", "24-bit", 0, 3, "24-bit"}, {"dac.THRESHOLD0", "511", 0, 511, "511"},
      {"dac.GND", "256", -3, 0, nullptr},          {"dac.GND", "12x", -3, 0, nullptr},
      {"exposures", "1.5", -3, 0, nullptr},        {"exposure", "0.05", 0, 0.05, "0.05"},
      {"exposure", "-1", -3, 0, nullptr},          {"bias", "nan", -3, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.text);
    double value = 0;
    EXPECT_EQ(varkel_setting_parse(named(c.name), c.text, &value), c.rc);
    if (c.formatted == nullptr)
      continue;
    EXPECT_DOUBLE_EQ(value, c.value);
    char text[16];
    EXPECT_EQ(varkel_setting_format(named(c.name), static_cast<float>(value), text, sizeof text), 0);
    EXPECT_STREQ(text, c.formatted);
  }
  char small[3];
  EXPECT_EQ(varkel_setting_format(named("gain"), 0, small, sizeof small), ENOSPC);
  EXPECT_EQ(varkel_setting_find("no-such"), nullptr);
  EXPECT_EQ(varkel_setting_at(varkel_settings_count()), nullptr);
  EXPECT_EQ(varkel_setting_find("dac.DISCH")->values, std::string("0..255"));
  EXPECT_EQ(varkel_setting_find("dac.DISCH")->writable, 1);
  EXPECT_EQ(varkel_setting_find("exposures-taken")->writable, 0);
}

// Attaching opens the channels and sends nothing; the bounded reply gives up on
// a silent controller (and data server) within its bound with the failed-receive
// code; a connect nobody completes gives up with ETIMEDOUT.
TEST(Settings, AttachSendsNothingAndTimeOutsBoundASilentController)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  ASSERT_EQ(varkel_set_timeouts(v, 0.2, 0.2), 0);
  const char* hosts[] = {"127.0.0.1"};
  const uint16_t ports[] = {det.module(1).port()};
  ASSERT_EQ(varkel_attach(v, hosts, ports), 0);
  EXPECT_EQ(det.all_commands(), Commands{});

  det.answer_all([](const Request&) {
    Reply r = Reply::result("");
    r.action = Reply::Action::silence;
    return r;
  });
  double value = 0;
  const auto start = Clock::now();
  EXPECT_EQ(varkel_setting_get(v, varkel_setting_find("exposure"), 1, 0, &value), -1);
  const auto took = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_GT(took, 0.15);
  EXPECT_LT(took, 1.0);

  // The data server's greeting is bounded too.
  FakeDataServer data_server;
  data_server.spoil_greeting(Trigger::silence);
  const auto greeting_start = Clock::now();
  EXPECT_EQ(varkel_connect_backend(v, "127.0.0.1", data_server.port()), -1);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - greeting_start).count(), 1.0);

  // A connect nobody answers: a listener whose backlog is full drops the handshake.
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof addr;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), size), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &size), 0);
  std::vector<int> queued;
  for (int i = 0; i < 4; ++i) {
    queued.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    connect(queued.back(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
  const uint16_t full[] = {ntohs(addr.sin_port)};
  const auto connect_start = Clock::now();
  EXPECT_EQ(varkel_attach(v, hosts, full), ETIMEDOUT);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - connect_start).count(), 1.0);
  for (int fd : queued)
    close(fd);
  close(listener);
  EXPECT_EQ(varkel_set_timeouts(v, 0, 1), -3);
}

} // namespace
