// Settings by name against fake controllers, on one-board models and the Quad:
// the exact commands each shape of read-back and setter sends (every write read
// back), the refusals that send nothing, refused and forgotten writes, the text
// of values; attaching without the transport; the per-handle time-outs.
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fake_data_server.hpp"
#include "fake_detector.hpp"
#include "files.hpp"
#include "internal/handle.hpp"
#include "link.h"
#include "settings.h"
#include "snapshot.h"

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

// `commands` on each chip number first..last of module m but `off`, the chip
// selected first (board, then chip index: twelve to a board, from board 2 down).
Commands each_chip(int m, int first, int last, const Commands& commands, int off = 0)
{
  Commands out;
  const std::string at = std::to_string(m) + ":";
  for (int c = first; c <= last; ++c) {
    if (c == off)
      continue;
    out.push_back(at + "SelectMedipixBoard_Command 1 " + std::to_string(2 - (c - 1) / 12));
    out.push_back(at + "HS_ImgChipNumberID_Command 1 " + std::to_string((c - 1) % 12));
    for (const std::string& command : commands)
      out.push_back(at + command);
  }
  return out;
}

Commands operator+(Commands a, const Commands& b)
{
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The Quad's chip 30 of module 2 is switched off in every case, as the presence check leaves a silent chip.
std::unique_ptr<FakeDetector> detector(varkel_detector_model_t model, bool acquiring = false)
{
  auto det = std::make_unique<FakeDetector>(model);
  if (model == varkelQuad)
    det->handle()->sensor_disabled[1][29] = true;
  varkel::detail::extras(det->handle()).acquiring = acquiring;
  return det;
}

std::string failure_text(varkel_t* v)
{
  varkel_failure_t f{};
  varkel_last_failure(v, &f);
  return f.text;
}

// Gets send the read-back of their row's shape; puts write, then read back every
// module and chip written, over the working chips; refusals send nothing.
TEST(Settings, GetAndPutSendTheirCommands)
{
  using Replies = std::map<std::string, std::string>;
  const Replies read_backs = {{"HS_AcquireTime_Command", "0.250000"},
                              {"HS_Trigger_Command", "2"},
                              {"HS_Get_OMR", "2"},
                              {"HS_ImgChipDAC", "132"},
                              {"HS_ImageMode_Command", "1"}};
  struct Case {
    varkel_detector_model_t model;
    const char* name;
    int module, chip;
    bool put;
    double value;    // put: the value written; get: the value read (-1: none)
    Replies replies; // gets: read_backs
    int rc;
    Commands sent;
    const char* noted = nullptr; // the failure noted
    bool acquiring = false;
  };
  // Each module's period is read before any exposure is written.
  Commands exposure_everywhere;
  for (const char* command :
       {"HS_AcquirePeriod_Command 0 0", "HS_AcquireTime_Command 1 500000", "HS_AcquireTime_Command 0 0"})
    for (int m = 1; m <= 4; ++m)
      exposure_everywhere.push_back(std::to_string(m) + ":" + command);
  std::stable_sort(exposure_everywhere.begin(), exposure_everywhere.end(),
                   [](const std::string& a, const std::string& b) { return a[0] < b[0]; }); // by module
  // The bias ramps every board from the value it reads there, then each board is read back.
  Commands bias;
  for (int pass = 0; pass < 2; ++pass)
    for (const char* board : {"0", "1", "2"})
      bias = bias +
             Commands{std::string("1:SelectMedipixBoard_Command 1 ") + board, "1:HS_SensorBias_Command 0 0 0.000000"};
  const Replies period_0 = {{"HS_AcquirePeriod_Command", "0"}, {"HS_AcquireTime_Command", "0.5"}},
                omr_1 = {{"HS_Get_OMR", "1"}}, trigger_2 = {{"HS_Trigger_Command", "2"}},
                period_100ms = {{"HS_AcquirePeriod_Command", "100000"}},
                exposure_200ms = {{"HS_AcquireTime_Command", "0.200000"}};
  const Commands lite_polarity = Commands{"1:HS_ImgChipOMR 3 2 1"} + each_chip(1, 25, 36, {"HS_Get_OMR 2"}),
                 kinlet_gnd = Commands{"1:HS_ImgChipDAC 3 20 100"} + each_chip(1, 25, 25, {"HS_ImgChipDAC 0 20 0"}),
                 trigger = {"1:HS_Trigger_Command 1 1", "1:HS_Trigger_Command 0 0"};
  const char *mismatch = "put trigger rising: the controller accepted it but reads back falling",
             *exposure_unfit = "put exposure 0.3: exposure 0.3 s does not fit period 0.1 s",
             *period_unfit = "put period 0.1: exposure 0.2 s does not fit period 0.1 s",
             *busy = "bias cannot change while an acquisition runs", *off = "chip 30 is switched off";
  const Case cases[] = {
      {varkelTrio, "bias", 1, 0, true, 5, {{"HS_SensorBias_Command", "5.000000"}}, 0, bias},
      {varkelQuad, "exposure", 2, 0, false, 0.25, {}, 0, {"2:HS_AcquireTime_Command 0 0"}, nullptr, true},
      {varkelQuad, "trigger", 1, 0, false, 2, {}, 0, {"1:HS_Trigger_Command 0 0"}},
      {varkelQuad, "gain", 3, 14, false, 2, {}, 0, each_chip(3, 14, 14, {"HS_Get_OMR 17"})},
      {varkelQuad, "dac.GND", 1, 1, false, 132, {}, 0, each_chip(1, 1, 1, {"HS_ImgChipDAC 0 20 0"})},
      {varkelQuad, "readout-mode", 0, 0, false, VARKEL_MEDIPIX_MODE_CRW, {}, 0, {"1:HS_ImageMode_Command 0 0"}},
      {varkelLite, "gain", 1, 30, false, 2, {}, 0, each_chip(1, 30, 30, {"HS_Get_OMR 17"})},
      {kinlet, "dac.GND", 1, 25, false, 132, {}, 0, each_chip(1, 25, 25, {"HS_ImgChipDAC 0 20 0"})},
      {varkelQuad, "exposure", 0, 0, true, 0.5, period_0, 0, exposure_everywhere},
      {varkelTrio, "colour-mode", 1, 5, true, 1, omr_1, 0, each_chip(1, 5, 5, {"HS_Set_OMR 12 1", "HS_Get_OMR 12"})},
      // Every chip: the all-chips command, then each chip read back...
      {varkelLite, "polarity", 1, 0, true, 1, omr_1, 0, lite_polarity},
      {kinlet, "dac.GND", 1, 0, true, 100, {{"HS_ImgChipDAC", "100"}}, 0, kinlet_gnd},
      // ... or chip by chip over the working chips when one is off.
      {varkelQuad, "polarity", 2, 0, true, 1, omr_1, 0, each_chip(2, 1, 36, {"HS_Set_OMR 2 1", "HS_Get_OMR 2"}, 30)},
      // Accepted, but another value reads back.
      {varkelTrio, "trigger", 1, 0, true, 1, trigger_2, VARKEL_NOT_APPLIED, trigger, mismatch},
      // Exposure and period against the other in force: only the read is sent.
      {varkelQuad, "exposure", 2, 0, true, 0.3, period_100ms, -3, {"2:HS_AcquirePeriod_Command 0 0"}, exposure_unfit},
      {varkelQuad, "period", 0, 0, true, 0.1, exposure_200ms, -3, {"1:HS_AcquireTime_Command 0 0"}, period_unfit},
      // Refused before anything is sent.
      {varkelQuad, "bias", 1, 0, true, 5, {}, VARKEL_BUSY, {}, busy, true},
      {varkelQuad, "gain", 2, 30, true, 1, {}, VARKEL_CHIP_OFF, {}, off},
      {varkelQuad, "gain", 2, 30, false, -1, {}, VARKEL_CHIP_OFF, {}, off},
      {varkelLite, "gain", 1, 1, false, -1, {}, -4, {}},
      {kinlet, "gain", 1, 26, true, 1, {}, -4, {}},
      {varkelQuad, "gain", 1, 37, true, 1, {}, -4, {}},
      {varkelQuad, "exposure", 5, 0, true, 1, {}, -7, {}},
      {varkelQuad, "dac.GND", 1, 1, true, 256, {}, -3, {}},
      {varkelQuad, "gain", 1, 1, true, 1.5, {}, -3, {}},
      {varkelQuad, "exposures-taken", 1, 0, true, 3, {}, -3, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "model " << c.model << (c.put ? " put " : " get ") << c.name << " "
                                      << c.value);
    auto det = detector(c.model, c.acquiring);
    varkel_t* v = det->handle();
    det->answer_all(replies(c.replies.empty() ? read_backs : c.replies));
    double got = -1;
    const int rc = c.put ? varkel_setting_put(v, named(c.name), c.module, c.chip, c.value)
                         : varkel_setting_get(v, named(c.name), c.module, c.chip, &got);
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(det->all_commands(), c.sent);
    EXPECT_DOUBLE_EQ(c.put ? c.value : got, c.value);
    EXPECT_EQ(failure_text(v).rfind(c.noted ? c.noted : "", 0), 0u) << failure_text(v);
  }
  // A reply without a number is no value, and the caches keep what they held.
  auto det = detector(varkelQuad);
  det->handle()->acquireParam.acquireTime = 0.125f;
  double value = -1;
  EXPECT_EQ(varkel_setting_get(det->handle(), named("exposure"), 1, 0, &value), -2);
  EXPECT_EQ(varkel_setting_get(det->handle(), named("dac.GND"), 1, 1, &value), -2);
  EXPECT_EQ(value, -1);
  EXPECT_EQ(det->handle()->acquireParam.acquireTime, 0.125f);
  EXPECT_EQ(det->handle()->digital_dac_values[0][DAC_GND - 1], 0);
}

// A controller that answers reads with 0 ("Counter Low" for the counter) and
// writes other than selections with `write`.
FakeController::Handler controller(const std::function<Reply()>& write, bool refuse_reads = false)
{
  return [=](const Request& r) {
    const bool selection = r.method.starts_with("Select") || r.method == "HS_ImgChipNumberID_Command";
    const bool read =
        (!r.params.empty() && r.params[0] == "0") || r.method.starts_with("Read") || r.method.starts_with("HS_Get");
    const bool writes = !read && !selection;
    if (writes || (refuse_reads && !selection))
      return write();
    return Reply::result(r.method == "HS_ReadCounter_Command" ? "Counter Low" : "0");
  };
}

// A refused write or read is an error naming module, chip, command and the
// controller's words, and leaves the caches alone; a write the controller
// accepted but does not hold is one too. Snapshot apply reports both.
TEST(Settings, RefusedAndForgottenWritesAreErrors)
{
  const auto refuse = [] { return Reply::error("interlock: refused"); };
  const auto forget = [] { return Reply::result("OK"); };
  TempFile file("exposure");
  file.write("[snapshot]\nformat=1\nmodel=trio\n[module1]\nexposure=0.5\n");
  struct Case {
    std::function<Reply()> write;
    int put, apply;
  };
  for (const Case& c :
       {Case{refuse, VARKEL_REFUSED, VARKEL_REFUSED}, Case{forget, VARKEL_NOT_APPLIED, VARKEL_SNAPSHOT_UNVERIFIED}}) {
    FakeDetector det(varkelTrio);
    varkel_t* v = det.handle();
    det.answer_all(controller(c.write));
    v->acquireParam.acquireTime = 0.125f;
    v->varkelParam.trigger_mode = VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE;
    EXPECT_EQ(varkel_setting_put(v, named("exposure"), 1, 0, 0.5), c.put);
    EXPECT_EQ(varkel_setting_put(v, named("trigger"), 1, 0, 1), c.put);
    EXPECT_EQ(varkel_setting_put(v, named("gain"), 1, 3, 1), c.put);
    varkel_failure_t f{};
    EXPECT_EQ(varkel_last_failure(v, &f), c.put);
    EXPECT_EQ(std::tuple(f.module, f.chip), std::tuple(1, 3));
    if (c.put == VARKEL_REFUSED) { // the caches keep what they held
      EXPECT_EQ(v->acquireParam.acquireTime, 0.125f);
      EXPECT_EQ(v->varkelParam.trigger_mode, VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE);
      varkel_last_failure(v, &f);
      EXPECT_EQ(std::string(f.command) + "|" + f.reply + "|" + f.text,
                "HS_Set_OMR 17 1|interlock: refused|the controller refused HS_Set_OMR 17 1: interlock: refused");
    }
    varkel_snapshot_report_t report{};
    EXPECT_EQ(varkel_snapshot_apply(v, file.path.c_str(), &report), c.apply) << report.message;
    ASSERT_EQ(report.count, 1u) << report.message;
    EXPECT_EQ(std::tuple(report.entries[0].written, report.entries[0].verified), std::tuple(1, 0));
    if (c.put == VARKEL_REFUSED) {
      EXPECT_STREQ(report.message, "exposure: module 1: the controller refused HS_AcquireTime_Command 1 500000: "
                                   "interlock: refused");
    }
    varkel_snapshot_report_free(&report);
  }
  // A refused read returns no value.
  FakeDetector det(varkelTrio);
  det.answer_all(controller(refuse, true));
  double value = -1;
  EXPECT_EQ(varkel_setting_get(det.handle(), named("exposure"), 1, 0, &value), VARKEL_REFUSED);
  EXPECT_EQ(varkel_setting_get(det.handle(), named("gain"), 1, 3, &value), VARKEL_REFUSED);
  EXPECT_EQ(value, -1);
  EXPECT_EQ(det.handle()->acquireParam.acquireTime, 0.0f);
  TempFile saved("refused");
  varkel_snapshot_report_t report{};
  EXPECT_EQ(varkel_snapshot_save(det.handle(), saved.path.c_str(), &report), VARKEL_REFUSED);
  EXPECT_EQ(std::string(report.message).find("a read-back failed: module 1: the controller refused"), 0u);
  EXPECT_EQ(saved.text(), "");
  varkel_snapshot_report_free(&report);
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
  EXPECT_EQ(varkel_setting_find("bias.board0"), nullptr); // the snapshots' own
  EXPECT_EQ(varkel_setting_at(varkel_settings_count()), nullptr);
  // Each row says its kind, range and values text.
  using Face = std::tuple<std::string, int, int, double, double, int, std::string>;
  const auto face = [](const char* name) {
    const varkel_setting_t* s = named(name);
    return Face{s->name, s->writable, s->kind, s->min, s->max, s->value_count, s->values};
  };
  EXPECT_EQ(face("trigger-out"), (Face{"trigger-out", 1, VARKEL_SETTING_NAMED, 0, 11, 12,
                                       "disable both sw external shutter-a shutter-b shutter-c shutter-all acq-a "
                                       "acq-b acq-c acq-all"}));
  EXPECT_EQ(face("dac.DISCH"), (Face{"dac.DISCH", 1, VARKEL_SETTING_WHOLE, 0, 255, 0, "0..255"}));
  EXPECT_EQ(face("exposure"), (Face{"exposure", 1, VARKEL_SETTING_REAL, 0, 4294.967295, 0, "0..4294.967295"}));
  EXPECT_EQ(face("exposures-taken"),
            (Face{"exposures-taken", 0, VARKEL_SETTING_WHOLE, 0, 4294967295, 0, "0..4294967295"}));
  EXPECT_EQ(face("dac-output"), (Face{"dac-output", 0, VARKEL_SETTING_REAL, -HUGE_VAL, HUGE_VAL, 0, ""}));
}

// Attaching opens the channels and sends nothing; a silent data server and a
// connect nobody completes give up within their bounds.
TEST(Settings, AttachSendsNothingAndTimeOutsBoundASilentPeer)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  ASSERT_EQ(varkel_set_timeouts(v, 0.2, 0.2), 0);
  const char* hosts[] = {"127.0.0.1"};
  const uint16_t ports[] = {det.module(1).port()};
  ASSERT_EQ(varkel_attach(v, hosts, ports), 0);
  EXPECT_EQ(det.all_commands(), Commands{});
  // A silent controller's bound is in the workflow tests; the data server's greeting is bounded too.
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
