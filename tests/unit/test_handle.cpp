// The handle, models, error texts, predicates and chip placement.
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "decode.h"
#include "varkel.h"

namespace {

struct ModelCase {
  varkel_detector_model_t model;
  int modules, boards, chips, all_chips, tsensors;
  uint32_t frame_size;
  const char* message;
};
// Printed by its message: gtest would otherwise print the raw bytes, padding included.
void PrintTo(const ModelCase& c, std::ostream* os) { *os << c.message; }

class HandleModels : public ::testing::TestWithParam<ModelCase> {};

TEST_P(HandleModels, GeometryFrameAndMessage)
{
  const ModelCase& c = GetParam();
  ::testing::internal::CaptureStdout();
  varkel_t* v = varkel_new(c.model);
  const std::string out = ::testing::internal::GetCapturedStdout();
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(out, "detModel: " + std::to_string(c.model) + "\n" + c.message + "\n");
  EXPECT_EQ(v->max_num_modules, c.modules);
  EXPECT_EQ(v->max_num_boards, c.boards);
  EXPECT_EQ(v->max_num_chips, c.chips);
  EXPECT_EQ(v->num_all_chips, c.all_chips);
  EXPECT_EQ(v->num_mfb_tsensors, c.tsensors);
  EXPECT_EQ(v->frame_size, c.frame_size);
  EXPECT_EQ(v->detModel, c.model);
  // A fresh handle: unconnected, no trace, nothing cached.
  EXPECT_EQ(v->varkel_interface, -1);
  EXPECT_EQ(v->backend_socket, -1);
  EXPECT_EQ(v->fd[0] | v->fd[1] | v->fd[2] | v->fd[3], 0);
  EXPECT_EQ(v->debug_out, nullptr);
  EXPECT_EQ(v->simulate, 0);
  EXPECT_EQ(v->acquireParam.acquireStatus, IDLE);
  if (c.frame_size > 0) {
    ASSERT_NE(v->sample_frame, nullptr);
    v->sample_frame[c.frame_size - 1] = 7; // the whole frame is ours to write
  }
  varkel_delete(v);
}

INSTANTIATE_TEST_SUITE_P(
    AllModels, HandleModels,
    ::testing::Values(ModelCase{kinlet, 1, 1, 1, 1, 16, 65536, "Detector Selected: Kinlet"},
                      ModelCase{varkelLite, 1, 1, 12, 12, 16, 786432, "Detector Selected: VarkelLite"},
                      ModelCase{varkelTrio, 1, 3, 12, 36, 48, 2359296, "Detector Selected: VarkelTrio"},
                      ModelCase{varkelQuad, 4, 3, 12, 36, 48, 9437184, "Detector Selected: VarkelQuad"},
                      ModelCase{static_cast<varkel_detector_model_t>(7), 0, 0, 0, 0, 0, 0, "No detector selected"},
                      ModelCase{static_cast<varkel_detector_model_t>(-1), 0, 0, 0, 0, 0, 0, "No detector selected"}));

TEST(HandleDeathTest, DeleteOfNullAsserts) { EXPECT_DEATH(varkel_delete(nullptr), "varkel != NULL"); }

TEST(ErrorString, EveryCode)
{
  const char* expected[] = {"Success",
                            "Address not found",
                            "Read message error",
                            "Command failed",
                            "Invalid dac field",
                            "Dac value out of range",
                            "Data server disconnected",
                            "Invalid module number",
                            "Data server parse error",
                            "Requested bit rate is above 200 Mbps",
                            "Total number of images is above 16.383",
                            "Invalid omr field",
                            "Omr Parameter out of range",
                            "Invalid error number"};
  for (int i = 0; i <= 13; ++i)
    EXPECT_STREQ(varkel_error_string(-i), expected[i]) << -i;
  EXPECT_STREQ(varkel_error_string(-14), "Invalid error number");
  EXPECT_STREQ(varkel_error_string(-200), "Invalid error number");
  EXPECT_STREQ(varkel_error_string(INT32_MIN), "Invalid error number");
  EXPECT_STREQ(varkel_error_string(75), strerror(75));
  EXPECT_STREQ(varkel_error_string(ENOTCONN), strerror(ENOTCONN));
}

TEST(DecodeSensorNumber, BoardsInDescendingOrder)
{
  EXPECT_EQ(decode_sensor_number(0, 2), 1u);
  EXPECT_EQ(decode_sensor_number(11, 2), 12u);
  EXPECT_EQ(decode_sensor_number(0, 1), 13u);
  EXPECT_EQ(decode_sensor_number(0, 0), 25u);
  EXPECT_EQ(decode_sensor_number(11, 0), 36u);
}

TEST(DecoderQuad, TellingRows)
{
  struct Row {
    int index;
    moduleLoc module;
    int mfb, chip;
  };
  const Row rows[] = {{0, UP_LT, 0, 0},   {6, UP_RT, 2, 6},  {7, UP_RT, 2, 0},   {11, UP_RT, 0, 0},
                      {12, UP_LT, 0, 6},  {71, UP_RT, 0, 5}, {72, LW_LT, 0, 5},  {73, LW_LT, 0, 11},
                      {78, LW_RT, 2, 11}, {83, LW_RT, 2, 6}, {132, LW_LT, 0, 0}, {143, LW_RT, 0, 0}};
  for (const Row& r : rows) {
    const sensor& s = decoderQuad[r.index];
    EXPECT_EQ(s.module, r.module) << r.index;
    EXPECT_EQ(s.mfb, r.mfb) << r.index;
    EXPECT_EQ(s.chipId, r.chip) << r.index;
  }
  // Every chip of every module appears exactly once.
  int seen[4][3][12] = {};
  for (const sensor& s : decoderQuad) {
    EXPECT_EQ(s.sensorPos, 0);
    ++seen[s.module][s.mfb][s.chipId];
  }
  for (auto& m : seen)
    for (auto& b : m)
      for (int n : b)
        EXPECT_EQ(n, 1);
}

TEST(Predicates, IntegerRanges)
{
  struct Range {
    const char* name;
    bool (*pred)(int);
    int low, high;
  };
  const Range ranges[] = {
      {"bool", validate_bool, 0, 1},
      {"u5", validate_u5_int, 0, 31},
      {"u8", validate_u8_int, 0, 255},
      {"u9", validate_u9_int, 0, 511},
      {"u12", validate_u12_int, 0, 4095},
      {"operation_mode", validate_operation_mode, 0, 7},
      {"crw_srw", validate_crw_srw, 0, 1},
      {"polarity", validate_polarity, 0, 1},
      {"data_out", validate_data_out, 0, 3},
      {"discriminator", validate_discriminator, 0, 1},
      {"counter_depth", validate_counter_depth, 0, 3},
      {"colour_mode", validate_colour_mode, 0, 1},
      {"pixel_mode", validate_pixel_mode, 0, 1},
      {"dac_scan", validate_dac_scan, 1, 69},
      {"dac", validate_dac, 1, 31},
      {"chip_module", validate_number_chip_module, 1, 36},
      {"chip_with_zero", validate_chip_with_zero, 0, 36},
      {"read_counter", validate_read_counter, 0, 1},
      {"image_mode", validate_image_mode, 0, 3},
      {"medipix_mode", validate_medipix_mode, 0, 3},
      {"trigger_out", validate_trigger_out, 0, 11},
      {"trigger_mode", validate_trigger_mode, 0, 2},
      {"column", validate_column, 0, 7},
      {"row_count", validate_row_count, 0, 7},
  };
  for (const Range& r : ranges) {
    EXPECT_TRUE(r.pred(r.low)) << r.name;
    EXPECT_TRUE(r.pred(r.high)) << r.name;
    EXPECT_FALSE(r.pred(r.low - 1)) << r.name;
    EXPECT_FALSE(r.pred(r.high + 1)) << r.name;
  }
  EXPECT_EQ(validate_omr_field(20), 1);
  EXPECT_EQ(validate_omr_field(21), 0);
  EXPECT_EQ(validate_omr_field(-1), 0);

  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(validate_gain_mode(4));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "inside gain mode validate-> Value: 4\n");
}

TEST(Predicates, HandleBoundsAndFloats)
{
  ::testing::internal::CaptureStdout();
  varkel_t* trio = varkel_new(varkelTrio);
  varkel_t* quad = varkel_new(varkelQuad);
  ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(validate_number_chip_mfb(trio, 12)); // the upper bound itself is accepted
  EXPECT_FALSE(validate_number_chip_mfb(trio, 13));
  EXPECT_TRUE(validate_number_boards(trio, 2));
  EXPECT_FALSE(validate_number_boards(trio, 3));
  EXPECT_FALSE(validate_module(trio, 2));
  EXPECT_TRUE(validate_module(quad, 4));
  EXPECT_FALSE(validate_module(quad, 0));
  varkel_delete(trio);
  varkel_delete(quad);

  EXPECT_TRUE(validate_acquire_period(0.0f));
  EXPECT_TRUE(validate_acquire_period(0.02f));
  EXPECT_FALSE(validate_acquire_period(0.01f));
  EXPECT_FALSE(validate_temperature(19.9f));
  EXPECT_TRUE(validate_temperature(120.0f));
  EXPECT_FALSE(validate_temperature(NAN));
  EXPECT_TRUE(validate_bias_voltage(100.0f));
  EXPECT_FALSE(validate_bias_voltage(INFINITY));
  EXPECT_TRUE(validate_extBg(1.0f));
  EXPECT_FALSE(validate_extBg(1.01f));
}

} // namespace
