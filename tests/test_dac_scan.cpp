// DAC scans and the threaded write to every chip of every module, against fake
// controllers on loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

// A controller that answers every scan with `points` and everything else with OK.
FakeController::Handler scanner(std::string points)
{
  return [points](const Request& r) { return Reply::result(r.method == "HS_DacScan" ? points : "OK"); };
}

TEST(DacScan, PointCountsAndAimsDecideWhatIsSent)
{
  const struct {
    varkel_dac_t dac;
    int initial, final, step;
    int result;
    std::string printed; // how the output starts; "": nothing may be printed
    Commands sent;
  } cases[] = {
      {DAC_GND, 0, 255, 4, 0, "num_points: 63\n", {"HS_DacScan 20 0 4 255", "HS_ImgChipDAC 1 20 0"}},
      {DAC_CAS, 255, 0, -4, 0, "num_points: 63\n", {"HS_DacScan 23 255 4294967292 0", "HS_ImgChipDAC 1 23 0"}},
      {DAC_FBK, 0, 69, 1, 0, "num_points: 69\n", {"HS_DacScan 22 0 1 69", "HS_ImgChipDAC 1 22 0"}},
      {DAC_GND, 0, 255, 1, -5, "num_points: 255\n", {}},
      {DAC_GND, 0, 255, 3, -5, "num_points: 85\n", {}},
      {DAC_GND, 0, 3, 4, -5, "num_points: 0\n", {}},
      {DAC_GND, 0, 255, -4, -5, "num_points: -63\n", {}},
      {DAC_GND, 0, 255, 0, -5, "", {}},
      {DAC_Preamp, 0, 255, 4, -5, "", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dac * 1000 + c.step);
    FakeDetector det(varkelLite);
    det.answer_all(scanner(""));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(US_DAC_Scan(det.handle(), c.dac, c.initial, c.final, c.step, VARKEL_SEND_ONE_CHIP_ONE_MODULE), c.result);
    EXPECT_EQ(::testing::internal::GetCapturedStdout().substr(0, c.printed.empty() ? -1 : c.printed.size()), c.printed);
    EXPECT_EQ(det.module(1).commands(), c.sent);
  }
}

TEST(DacScan, TheCodeNearestTheAimIsWrittenWhateverTheReply)
{
  const struct {
    varkel_dac_t dac;
    const char* points;
    int code;
    const char* analog;
  } cases[] = {
      {DAC_GND, "100 : 0.700000,110 : 0.660000,120 : 0.620000,", 110, "0.660000"},
      {DAC_CAS, "200 : 1.800000,", 0, "0.000000"},                // twice the aim or more
      {DAC_GND, "10 : 0.000000,250 : 1.300000,", 0, "0.000000"},  // the window's edges
      {DAC_FBK, "40 : 0.95,44 : 0.85,48 : 0.91", 48, "0.910000"}, // last entry without its comma
      {DAC_GND, "40 : 0.66,44 : 0.66,", 40, "0.660000"},          // a tie keeps the earlier
      {DAC_GND, "40 : 0.5,44 : x,48 : 0.65,", 40, "0.500000"},    // junk ends the walk
      {DAC_GND, "", 0, "0.000000"},
      {DAC_GND, "Invalid params: expected a DAC", 0, "0.000000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.points);
    FakeDetector det(varkelLite);
    det.answer_all(scanner(c.points));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(dac_scan(det.handle(), c.dac, 0, 255, 4), 0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("opt_analog: " + std::string(c.analog) + " \nopt_digital: " + std::to_string(c.code) + " \n"),
              std::string::npos)
        << out;
    EXPECT_EQ(det.module(1).commands().back(),
              "HS_ImgChipDAC 1 " + std::to_string(c.dac) + " " + std::to_string(c.code));
  }

  // A scan that fails: its code is in the result.
  FakeDetector det(varkelLite);
  det.answer_all([](const Request& r) { return r.method == "HS_DacScan" ? Reply::reset() : Reply::result("OK"); });
  EXPECT_NE(dac_scan(det.handle(), DAC_GND, 0, 255, 4), 0);
}

TEST(DacScan, FanOutsScanEveryChipAndModuleInOrder)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  det.answer_all(scanner("8 : 0.651,"));
  ASSERT_EQ(select_chipNumber(v, 14), 0);
  det.clear();
  EXPECT_EQ(US_DAC_Scan(v, DAC_GND, 0, 255, 4, VARKEL_SEND_ONE_CHIP_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), (Commands{"SelectMedipixBoard_Command 1 1", "HS_ImgChipNumberID_Command 1 1",
                                                  "HS_DacScan 20 0 4 255", "HS_ImgChipDAC 1 20 8"}))
        << m;

  det.clear();
  EXPECT_EQ(US_DAC_Scan(v, DAC_GND, 0, 255, 4, VARKEL_SEND_ALL_CHIPS_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m) {
    const Commands sent = det.module(m).commands();
    ASSERT_EQ(sent.size(), 36u * 4) << m;
    EXPECT_EQ(Commands(sent.begin(), sent.begin() + 2),
              (Commands{"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 0"}));
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "HS_DacScan 20 0 4 255"), 36);
  }
  EXPECT_EQ(v->varkel_module, 4);
  EXPECT_EQ(v->sensor_pos.sensorPos, 36);
  det.clear();
  EXPECT_EQ(US_DAC_Scan(v, DAC_GND, 0, 255, 4, VARKEL_SEND_ONE_MFB_ONE_MODULE), 0);
  EXPECT_EQ(det.all_commands(), Commands{});
}

TEST(DacScan, OneValueGoesToEveryChipOfEveryModuleOnOneThreadEach)
{
  for (auto model : {varkelQuad, varkelLite}) {
    FakeDetector det(model);
    varkel_t* v = det.handle();
    // Each controller holds its first reply until every module has a request in
    // hand: modules written one after the other would stall here.
    Rendezvous all(det.modules());
    for (int m = 1; m <= det.modules(); ++m)
      det.module(m).set_handler([&all, first = std::make_shared<bool>(true)](const Request&) {
        if (std::exchange(*first, false))
          all.arrive();
        return Reply::result("OK");
      });
    ::testing::internal::CaptureStdout();
    // Unchecked: the controller judges DAC number and value.
    EXPECT_EQ(write_dac_all_modules(v, varkel_dac_t(40), -1), 0);
    EXPECT_FALSE(all.stalled);
    const std::string out = ::testing::internal::GetCapturedStdout();
    for (int m = 1; m <= det.modules(); ++m) {
      const Commands sent = det.module(m).commands();
      EXPECT_EQ(std::count(sent.begin(), sent.end(), "HS_Set_DAC_Variable 40 4294967295"),
                model == varkelQuad ? 36 : 12);
    }
    std::string finished;
    for (std::size_t at = 0; (at = out.find("\nFinish thread ", at)) != std::string::npos; ++at)
      finished += out.substr(at, 18);
    EXPECT_EQ(finished, model == varkelQuad
                            ? "\nFinish thread 1\n\n\nFinish thread 2\n\n\nFinish thread 3\n\n\nFinish thread 4\n\n"
                            : "\nFinish thread 1\n\n");
    EXPECT_EQ(v->sensor_pos.sensorPos, 0);
  }
}

} // namespace
