// The calibration phase against the simulator: the example DAC files on every
// module, their read-back, a bias ramp on every board, the band-gap defaults.
#include <gtest/gtest.h>

#include <vector>

#include "files.hpp"
#include "simulated_detector.hpp"
#include "utils.h"
#include "varkel.h"

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

} // namespace
