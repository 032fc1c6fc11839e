// The calibration and monitoring phases against the simulator: the example DAC
// files on every module, their read-back, a bias ramp on every board, the
// band-gap defaults; presence check, re-initialisation and temperatures with one
// chip missing.
#include <algorithm>
#include <gtest/gtest.h>

#include "files.hpp"
#include "simulated_detector.hpp"
#include "utils.h"

namespace {

TEST(Calibration, FilesDacsBiasAndBandGapOnTheSimulator)
{
  varkel::testing::SimulatedDetector d(varkel::testing::options_without_frame(varkelQuad));
  ASSERT_EQ(d.connected, 0);
  varkel_t* v = d.v;

  // The example files, named from the repository's root.
  dac_data files[4] = {};
  const char* index = "examples/dacs/index.ini";
  const auto rc = varkel::testing::in_directory(VARKEL_SOURCE_DIR, [&] {
    return std::pair(read_default_dacs(index, files), configure_module_dacs_with_file(v, index));
  });
  ASSERT_EQ(rc, std::pair(0, 0));

  // Module 2 reads back its own file's values.
  ASSERT_EQ(select_module(v, 2), 0);
  ASSERT_EQ(get_dac(v, DIGITAL_READ_ALL_SENSORS, DAC_FBK), 0);
  for (int c = 0; c < 36; ++c)
    EXPECT_EQ(v->digital_dac_values[c][DAC_FBK - 1], files[1].fbk[c]) << c;

  // Every board from 0 V to 2.5 V, one volt at a time.
  EXPECT_EQ(setSensorBias(v, 2.5f, VARKEL_SEND_ALL_MFBS_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(d.sim.module(m).bias_levels, (std::vector<double>{1, 2, 2.5, 1, 2, 2.5, 1, 2, 2.5})) << m;

  // The band-gap defaults: chip 31 of module 2 runs on the external input.
  EXPECT_EQ(Set_DAC_Defaults(v), 0);
  ASSERT_EQ(US_ImgChip_ExtBgIn_RBV(v), 0);
  EXPECT_FLOAT_EQ(v->varkelParam.extBgIn, 0.637f);
}

TEST(Monitoring, PresenceResetAndTemperaturesOnTheSimulator)
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
