// Sensor bias ramps and the analogue set-points and monitors, against fake
// controllers on loopback.
#include <cmath>
#include <gtest/gtest.h>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

std::string level(double v) { return "HS_SensorBias_Command 1 1 " + std::to_string(v); }
const std::string kBiasRbv = "HS_SensorBias_Command 0 0 0.000000";

// A controller whose bias reads back `rbv` and whose sets answer the level taken.
FakeController::Handler bias_controller(const std::string& rbv)
{
  return [=](const Request& r) {
    if (r.method != "HS_SensorBias_Command")
      return Reply::result("OK");
    return Reply::result(r.params.at(0) == "0" ? rbv : "High Voltage bias set to " + r.params.at(2) + "V");
  };
}

// Each from a cache of -1: the command, and the cached reply (-1: left alone).
TEST(Analog, EachOperationSendsItsTextAndCachesItsReply)
{
  using P = varkel_params_t;
  using V = varkel_t*;
  const std::tuple<int (*)(V), const char*, const char*, float P::*, float> cases[] = {
      {[](V v) { return US_SensorBias(v, 100.0f); }, "HS_SensorBias_Command 1 1 100.000000",
       "High Voltage bias set to 35.000000V", &P::bias_voltage, 35.0f},
      {US_SensorBias_RBV, "HS_SensorBias_Command 0 0 0.000000", "12.5", &P::bias_voltage, 12.5f},
      {[](V v) { return US_ImgChip_ExtBgIn(v, 0.637f); }, "HS_ImgChip_ExtBgIn_Command 1 0.637000", "none", &P::extBgIn,
       -1.0f},
      {US_ImgChip_ExtBgIn_RBV, "HS_ImgChip_ExtBgIn_Command 0 0.000000", "0.5", &P::extBgIn, 0.5f},
      {US_ImgChipDACOUTSense_RBV, "HS_ImgChipDACOUTSense_RBV", "0.812", &P::dacOutput, 0.812f},
      {US_BandGapOutput_RBV, "HS_BandGapOutput_RBV", "0.7", nullptr, 0},
      {US_BandGapTemperature_RBV, "HS_BandGapTemperature_RBV", "0.7", nullptr, 0},
      {US_CascodeBias_RBV, "HS_DACCascodeBias_RBV", "0.7", nullptr, 0},
      {US_DACBias_RBV, "HS_DACBias_RBV", "0.7", nullptr, 0},
  };
  for (const auto& [call, command, reply, field, cached] : cases) {
    SCOPED_TRACE(command);
    FakeDetector det(varkelQuad);
    varkel_t* v = det.handle();
    v->varkelParam.bias_voltage = v->varkelParam.extBgIn = v->varkelParam.dacOutput = -1.0f;
    det.answer_all([text = std::string(reply)](const Request&) { return Reply::result(text); });
    EXPECT_EQ(call(v), 0);
    EXPECT_EQ(det.all_commands(), Commands{std::string("4:") + command});
    EXPECT_EQ(field ? v->varkelParam.*field : 0, cached);
  }
}

// From the read-back (the cache when it is unreadable) one volt a step, ending
// on the target; nothing more is tried after the first refused level.
TEST(Analog, RampStepsOneVoltFromTheReadBackAndEndsOnTheTarget)
{
  // start, target, the levels sent, the result, the read-back's reply (empty: the start)
  const std::tuple<float, float, std::vector<double>, int, std::string> cases[] = {
      {10.5f, 13.2f, {11.5, 12.5, 13.2f}, 0, ""},
      {13.2f, 10.5f, {12.2f, 11.2f, 10.5}, 0, ""},
      {7.0f, 7.0f, {}, 0, ""},
      {98.0f, 150.0f, {99, 100}, -3, ""},
      {2.0f, -3.0f, {1, 0}, -3, ""},
      {0.0f, 2.5f, {1, 2, 2.5}, 0, "x"},
      {0.0f, 2.0f, {}, -3, "inf"},   // no ramp from a start that is not finite
      {0.0f, 2.0f, {}, -3, "-1e30"}, // nor from one a volt no longer moves
  };
  for (const auto& [start, target, levels, rc, rbv] : cases) {
    SCOPED_TRACE(::testing::Message() << start << " -> " << target << " " << rbv);
    FakeDetector det(varkelTrio);
    det.handle()->varkelParam.bias_voltage = start;
    det.module(1).set_handler(bias_controller(rbv.empty() ? std::to_string(start) : rbv));
    EXPECT_EQ(set_sensorBias(det.handle(), target), rc);
    Commands expected{kBiasRbv};
    for (double l : levels)
      expected.push_back(level(l));
    EXPECT_EQ(det.module(1).commands(), expected);
  }
}

// Refused values and targets send nothing; on all boards of all modules the ramps
// go board after board, module after module; a failed set leaves the cache.
TEST(Analog, RefusalsSendNothingAndTheFanOutRampsBoardAfterBoard)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  for (float bad : {100.5f, -0.1f, NAN, INFINITY})
    EXPECT_EQ(US_SensorBias(v, bad), -3) << bad;
  for (float bad : {1.01f, -0.01f, NAN})
    EXPECT_EQ(US_ImgChip_ExtBgIn(v, bad), -3) << bad;
  for (auto not_boards : {VARKEL_SEND_ONE_CHIP_ONE_MODULE, VARKEL_SEND_ALL_CHIPS_ALL_MODULES})
    EXPECT_EQ(setSensorBias(v, 5.0f, not_boards), -3);
  EXPECT_EQ(det.all_commands(), Commands{});

  det.answer_all(bias_controller("0"));
  EXPECT_EQ(setSensorBias(v, 1.5f, VARKEL_SEND_ALL_MFBS_ALL_MODULES), 0);
  Commands ramps;
  for (const char* board : {"0", "1", "2"})
    ramps.insert(ramps.end(), {std::string("SelectMedipixBoard_Command 1 ") + board, kBiasRbv, level(1), level(1.5)});
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), ramps) << m;
  EXPECT_EQ(std::pair(+v->varkel_module, v->varkelParam.bias_voltage), std::pair(4, 1.5f));

  det.answer_all([](const Request&) { return Reply::reset(); });
  EXPECT_EQ(US_SensorBias(v, 5.0f), -1);
  EXPECT_EQ(v->varkelParam.bias_voltage, 1.5f);
}

} // namespace
