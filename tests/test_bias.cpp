// Sensor bias ramps and the analogue set-points and monitors, against fake
// controllers on loopback.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

std::string level(double v)
{
  char text[64];
  std::snprintf(text, sizeof text, "HS_SensorBias_Command 1 1 %f", v);
  return text;
}
const std::string kBiasRbv = "HS_SensorBias_Command 0 0 0.000000";

// A controller holding one bias per board: a set answers with the level it took,
// the read-back with the level held, or with `rbv` when one is given.
FakeController::Handler bias_controller(float start, std::string rbv = {})
{
  auto held = std::make_shared<std::vector<float>>(3, start);
  auto board = std::make_shared<std::size_t>(0);
  return [=](const Request& r) {
    if (r.method == "SelectMedipixBoard_Command")
      *board = std::stoul(r.params.at(1)) % 3;
    if (r.method != "HS_SensorBias_Command")
      return Reply::result("OK");
    char text[64];
    if (r.params.at(0) == "0")
      std::snprintf(text, sizeof text, "%f", double{(*held)[*board]});
    else
      std::snprintf(text, sizeof text, "High Voltage bias set to %fV",
                    double{(*held)[*board] = std::stof(r.params.at(2))});
    return Reply::result(rbv.empty() || r.params.at(0) == "1" ? text : rbv);
  };
}

TEST(Analog, EachOperationSendsItsTextAndCachesItsReply)
{
  const struct {
    std::function<int(varkel_t*)> call;
    const char* command;
    const char* reply;
    float varkel_params_t::*field; // nullptr: status only
    float cached;                  // -1: left alone
  } cases[] = {
      {[](varkel_t* v) { return US_SensorBias(v, 100.0f); }, "HS_SensorBias_Command 1 1 100.000000",
       "High Voltage bias set to 35.000000V", &varkel_params_t::bias_voltage, 35.0f},
      {US_SensorBias_RBV, "HS_SensorBias_Command 0 0 0.000000", "12.5", &varkel_params_t::bias_voltage, 12.5f},
      {[](varkel_t* v) { return US_ImgChip_ExtBgIn(v, 0.637f); }, "HS_ImgChip_ExtBgIn_Command 1 0.637000", "none",
       &varkel_params_t::extBgIn, -1.0f},
      {US_ImgChip_ExtBgIn_RBV, "HS_ImgChip_ExtBgIn_Command 0 0.000000", "0.5", &varkel_params_t::extBgIn, 0.5f},
      {US_ImgChipDACOUTSense_RBV, "HS_ImgChipDACOUTSense_RBV", "0.812", &varkel_params_t::dacOutput, 0.812f},
      {US_BandGapOutput_RBV, "HS_BandGapOutput_RBV", "0.7", nullptr, 0},
      {US_BandGapTemperature_RBV, "HS_BandGapTemperature_RBV", "0.7", nullptr, 0},
      {US_CascodeBias_RBV, "HS_DACCascodeBias_RBV", "0.7", nullptr, 0},
      {US_DACBias_RBV, "HS_DACBias_RBV", "0.7", nullptr, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    FakeDetector det(varkelQuad);
    varkel_t* v = det.handle();
    v->varkelParam.bias_voltage = v->varkelParam.extBgIn = v->varkelParam.dacOutput = -1.0f;
    det.answer_all([&](const Request&) { return Reply::result(c.reply); });
    EXPECT_EQ(c.call(v), 0);
    EXPECT_EQ(det.all_commands(), Commands{std::string("4:") + c.command});
    EXPECT_EQ(c.field ? v->varkelParam.*c.field : 0, c.cached);
  }
}

TEST(Analog, RefusedValuesAndFailedCommandsLeaveTheCache)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  v->varkelParam.bias_voltage = 3.0f;
  for (float bad : {100.5f, -0.1f, NAN, INFINITY})
    EXPECT_EQ(US_SensorBias(v, bad), -3) << bad;
  for (float bad : {1.01f, -0.01f, NAN})
    EXPECT_EQ(US_ImgChip_ExtBgIn(v, bad), -3) << bad;
  for (auto not_boards : {VARKEL_SEND_ONE_CHIP_ONE_MODULE, VARKEL_SEND_ALL_CHIPS_ALL_MODULES})
    EXPECT_EQ(setSensorBias(v, 5.0f, not_boards), -3);
  EXPECT_EQ(det.all_commands(), Commands{});

  det.answer_all([](const Request&) { return Reply::reset(); });
  EXPECT_EQ(US_SensorBias(v, 5.0f), -1);
  EXPECT_EQ(v->varkelParam.bias_voltage, 3.0f);
}

TEST(Analog, RampStepsOneVoltFromTheReadBackAndEndsOnTheTarget)
{
  const struct {
    float start, target;
    std::vector<double> levels;
    int rc;
    std::string rbv = {}; // a read-back reply other than the level held
  } cases[] = {
      {10.5f, 13.2f, {11.5, 12.5, 13.2f}, 0},
      {13.2f, 10.5f, {12.2f, 11.2f, 10.5}, 0},
      {7.0f, 7.0f, {}, 0},
      {98.0f, 150.0f, {99, 100}, -3},    // 101 is refused, and so would be all after it
      {2.0f, -3.0f, {1, 0}, -3},         // as is -1 going down
      {0.0f, 2.5f, {1, 2, 2.5}, 0, "x"}, // an unreadable read-back ramps from the cache
      {0.0f, 2.0f, {}, -3, "inf"},       // no ramp from a start that is not finite
      {0.0f, 2.0f, {}, -3, "-1e30"},     // nor from one a volt no longer moves
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.start << " -> " << c.target << " " << c.rbv);
    FakeDetector det(varkelTrio);
    det.handle()->varkelParam.bias_voltage = c.start;
    det.module(1).set_handler(bias_controller(c.start, c.rbv));
    EXPECT_EQ(set_sensorBias(det.handle(), c.target), c.rc);
    Commands expected{kBiasRbv};
    for (double l : c.levels)
      expected.push_back(level(l));
    EXPECT_EQ(det.module(1).commands(), expected);
  }
}

TEST(Analog, BiasFanOutRampsBoardAfterBoardAndModuleAfterModule)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_handler(bias_controller(0.0f));
  Commands board_ramps;
  for (const char* board : {"0", "1", "2"})
    board_ramps.insert(board_ramps.end(),
                       {std::string("SelectMedipixBoard_Command 1 ") + board, kBiasRbv, level(1), level(1.5)});
  EXPECT_EQ(setSensorBias(v, 1.5f, VARKEL_SEND_ALL_MFBS_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), board_ramps) << m;
  EXPECT_EQ(v->varkel_module, 4);
  EXPECT_EQ(v->varkelParam.bias_voltage, 1.5f);
}

} // namespace
