// Presence check, re-initialisation, DAC scans and temperatures
// against the simulator with one chip missing.
#include <gtest/gtest.h>

#include <algorithm>
#include <unistd.h>

#include "files.hpp"
#include "simulated_detector.hpp"
#include "varkel.h"

namespace {

TEST(Monitoring, PresenceResetScansAndTemperaturesOnTheSimulator)
{
  varkel::testing::SimulatedDetector d(varkel::testing::options_without_frame(varkelQuad, {{3, 17}}));
  ASSERT_EQ(d.connected, 0);
  varkel_t* v = d.v;

  EXPECT_EQ(check_and_disable_sensors(v), 0);
  for (int m = 0; m < 4; ++m)
    for (int c = 0; c < 36; ++c)
      EXPECT_EQ(v->sensor_disabled[m][c], m == 2 && c == 16) << m << ":" << c;

  // A reset drops the links; the re-initialisation brings them back and loads the files.
  const auto reset_and_init = [&] {
    return varkel::testing::in_directory(VARKEL_SOURCE_DIR,
                                         [&] { return varkel_reset_and_init(v, "examples/dacs/index.ini"); });
  };
  EXPECT_EQ(reset_and_init(), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_TRUE(d.sim.module(m).link_up) << m;

  // Each chip's scan lands near the aim.
  ASSERT_EQ(select_module(v, 1), 0);
  for (int c = 1; c <= 6; ++c) {
    ASSERT_EQ(select_chipNumber(v, c), 0);
    ASSERT_EQ(US_DAC_Scan(v, DAC_GND, 0, 255, 4, VARKEL_SEND_ONE_CHIP_ONE_MODULE), 0);
    ASSERT_EQ(get_dac(v, ANALOG_READ_SINGLE_DAC, DAC_GND), 0);
    EXPECT_NEAR(v->analog_dac_values[c - 1][DAC_GND - 1], 0.65, 0.01) << c;
  }

  // Temperatures: plausible, warmer chips than boards, a spread between modules.
  EXPECT_EQ(US_GetTemperature(v) | US_GetMFBTemperature(v), 0);
  for (int m = 0; m < 4; ++m) {
    const auto [low, high] =
        std::minmax_element(std::begin(v->varkelParam.mfb_temperature[m]), std::end(v->varkelParam.mfb_temperature[m]));
    EXPECT_GT(*low, 20.0f);
    EXPECT_LT(*high, v->varkelParam.avg_chip_temperature[m]);
    EXPECT_LT(v->varkelParam.avg_chip_temperature[m], 50.0f);
  }
  EXPECT_LT(v->varkelParam.avg_chip_temperature[0], v->varkelParam.avg_chip_temperature[3]);

  // Module 1 unreachable: the later steps still run, the files still reach module 2.
  ::close(v->fd[0]);
  v->fd[0] = 0;
  const uint64_t before = d.sim.commands(2);
  EXPECT_EQ(reset_and_init(), ENOTCONN);
  EXPECT_EQ(d.sim.commands(2) - before, 1 + 14 + 36 * 6u);
}

} // namespace
