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
// the read-back with the level held (or with `rbv` when given).
FakeController::Handler bias_controller(float start, std::string rbv = {})
{
  struct State {
    float held[3];
    std::size_t board = 0;
  };
  auto s = std::make_shared<State>(State{{start, start, start}});
  return [s, rbv](const Request& r) {
    char text[64];
    if (r.method == "SelectMedipixBoard_Command")
      s->board = std::stoul(r.params.at(1)) % 3;
    if (r.method != "HS_SensorBias_Command")
      return Reply::result("OK");
    float& held = s->held[s->board];
    if (r.params.at(0) == "1") {
      held = std::stof(r.params.at(2));
      std::snprintf(text, sizeof text, "High Voltage bias set to %fV", double{held});
    } else {
      std::snprintf(text, sizeof text, "%f", double{held});
    }
    return Reply::result(rbv.empty() || r.params.at(0) == "1" ? text : rbv);
  };
}

TEST(Analog, EachOperationSendsItsTextAndCachesItsReply)
{
  using Field = float varkel_params_t::*;
  const struct {
    const char* name;
    std::function<int(varkel_t*)> call;
    const char* command;
    const char* reply;
    Field field; // nullptr: status only
    float cached;
  } cases[] = {
      {"bias 100 V", [](varkel_t* v) { return US_SensorBias(v, 100.0f); }, "HS_SensorBias_Command 1 1 100.000000",
       "High Voltage bias set to 35.000000V", &varkel_params_t::bias_voltage, 35.0f},
      {"bias, other reply", [](varkel_t* v) { return US_SensorBias(v, 0.0f); }, "HS_SensorBias_Command 1 1 0.000000",
       "35.0", &varkel_params_t::bias_voltage, -1.0f},
      {"bias read-back", US_SensorBias_RBV, "HS_SensorBias_Command 0 0 0.000000", "12.5",
       &varkel_params_t::bias_voltage, 12.5f},
      {"band-gap input", [](varkel_t* v) { return US_ImgChip_ExtBgIn(v, 1.0f); },
       "HS_ImgChip_ExtBgIn_Command 1 1.000000", "0.637000", &varkel_params_t::extBgIn, 0.637f},
      {"band-gap input 0.637 V", [](varkel_t* v) { return US_ImgChip_ExtBgIn(v, 0.637f); },
       "HS_ImgChip_ExtBgIn_Command 1 0.637000", "none", &varkel_params_t::extBgIn, -1.0f},
      {"band-gap input read-back", US_ImgChip_ExtBgIn_RBV, "HS_ImgChip_ExtBgIn_Command 0 0.000000", "0.5",
       &varkel_params_t::extBgIn, 0.5f},
      {"DAC output sense", US_ImgChipDACOUTSense_RBV, "HS_ImgChipDACOUTSense_RBV", "0.812", &varkel_params_t::dacOutput,
       0.812f},
      {"band-gap output", US_BandGapOutput_RBV, "HS_BandGapOutput_RBV", "0.7", nullptr, 0},
      {"band-gap temperature", US_BandGapTemperature_RBV, "HS_BandGapTemperature_RBV", "0.7", nullptr, 0},
      {"cascode bias", US_CascodeBias_RBV, "HS_DACCascodeBias_RBV", "0.7", nullptr, 0},
      {"DAC bias", US_DACBias_RBV, "HS_DACBias_RBV", "0.7", nullptr, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeDetector det(varkelQuad);
    varkel_t* v = det.handle();
    v->varkelParam.bias_voltage = v->varkelParam.extBgIn = v->varkelParam.dacOutput = -1.0f;
    det.answer_all([&](const Request&) { return Reply::result(c.reply); });
    EXPECT_EQ(c.call(v), 0);
    EXPECT_EQ(det.all_commands(), Commands{std::string("4:") + c.command});
    if (c.field != nullptr) {
      EXPECT_EQ(v->varkelParam.*c.field, c.cached);
    }
  }
}

TEST(Analog, RefusedValuesAndFailedCommandsLeaveTheCache)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  v->varkelParam.bias_voltage = v->varkelParam.extBgIn = 3.0f;
  for (float bad : {100.5f, -0.1f, NAN, INFINITY})
    EXPECT_EQ(US_SensorBias(v, bad), -3) << bad;
  for (float bad : {1.01f, -0.01f, NAN})
    EXPECT_EQ(US_ImgChip_ExtBgIn(v, bad), -3) << bad;
  EXPECT_EQ(setSensorBias(v, 5.0f, VARKEL_SEND_ONE_CHIP_ONE_MODULE), -3);
  EXPECT_EQ(setSensorBias(v, 5.0f, VARKEL_SEND_ALL_CHIPS_ALL_MODULES), -3);
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
    std::string rbv = {}; // a read-back reply other than the held level
  } cases[] = {
      {10.5f, 13.2f, {11.5, 12.5, 13.2f}, 0},
      {13.2f, 10.5f, {12.2f, 11.2f, 10.5}, 0},
      {7.0f, 7.0f, {}, 0},
      {0.0f, 3.0f, {1, 2, 3}, 0},
      {98.0f, 150.0f, {99, 100}, -3},      // 101 on is refused, and the walk stops there
      {2.0f, -3.0f, {1, 0}, -3},           // as is -1 going down
      {0.0f, 2.5f, {1, 2, 2.5}, 0, "x"},   // an unreadable read-back ramps from the cache
      {0.0f, 2.0f, {}, -3, "inf"},         // a start that is not finite is not ramped from
      {0.0f, 2.0f, {}, -3, "-1e30"},       // nor is one a volt no longer moves
      {0.0f, INFINITY, {1, 2}, -3, "98.5"} // 99.5, 100.5: the second is refused
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.start << " -> " << c.target << " " << c.rbv);
    FakeDetector det(varkelTrio);
    varkel_t* v = det.handle();
    v->varkelParam.bias_voltage = c.start;
    det.module(1).set_handler(bias_controller(c.start, c.rbv));
    EXPECT_EQ(set_sensorBias(v, c.target), c.rc);
    Commands expected{kBiasRbv};
    for (double l : c.levels)
      expected.push_back(level(c.rbv == "98.5" ? l + 98.5 : l));
    if (c.rbv == "98.5")
      expected.pop_back();
    EXPECT_EQ(det.module(1).commands(), expected);
  }
}

TEST(Analog, BiasFanOutRampsBoardAfterBoardAndModuleAfterModule)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_handler(bias_controller(0.0f));
  const Commands board_ramps = {"SelectMedipixBoard_Command 1 0", kBiasRbv, level(1), level(1.5),
                                "SelectMedipixBoard_Command 1 1", kBiasRbv, level(1), level(1.5),
                                "SelectMedipixBoard_Command 1 2", kBiasRbv, level(1), level(1.5)};
  EXPECT_EQ(setSensorBias(v, 1.5f, VARKEL_SEND_ALL_MFBS_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), board_ramps) << m;
  EXPECT_EQ(v->varkel_module, 4);
  EXPECT_EQ(v->varkelParam.bias_voltage, 1.5f);

  // One module's boards, then the selected board alone: both on the main channel.
  det.clear();
  ASSERT_EQ(select_module(v, 2), 0);
  EXPECT_EQ(setSensorBias(v, 0.5f, VARKEL_SEND_ALL_MFBS_ONE_MODEULE), 0);
  EXPECT_EQ(setSensorBias(v, 1.0f, VARKEL_SEND_ONE_MFB_ONE_MODULE), 0);
  EXPECT_EQ(det.all_commands(), (Commands{"2:SelectMedipixBoard_Command 1 0", "2:" + kBiasRbv, "2:" + level(0.5),
                                          "2:SelectMedipixBoard_Command 1 1", "2:" + kBiasRbv, "2:" + level(0.5),
                                          "2:SelectMedipixBoard_Command 1 2", "2:" + kBiasRbv, "2:" + level(0.5),
                                          "2:" + kBiasRbv, "2:" + level(1.0)}));
}

} // namespace
