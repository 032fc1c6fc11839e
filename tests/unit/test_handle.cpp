// The handle, models, error texts, predicates and chip placement.
#include <array>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "decode.h"
#include "varkel.h"

namespace {

TEST(Handle, GeometryFrameAndMessageOfEveryModel)
{
  const struct {
    varkel_detector_model_t model;
    int modules, boards, chips, all_chips, tsensors;
    uint32_t frame_size;
    const char* message;
  } cases[] = {{kinlet, 1, 1, 1, 1, 16, 65536, "Detector Selected: Kinlet"},
               {varkelLite, 1, 1, 12, 12, 16, 786432, "Detector Selected: VarkelLite"},
               {varkelTrio, 1, 3, 12, 36, 48, 2359296, "Detector Selected: VarkelTrio"},
               {varkelQuad, 4, 3, 12, 36, 48, 9437184, "Detector Selected: VarkelQuad"},
               {static_cast<varkel_detector_model_t>(7), 0, 0, 0, 0, 0, 0, "No detector selected"},
               {static_cast<varkel_detector_model_t>(-1), 0, 0, 0, 0, 0, 0, "No detector selected"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.model);
    ::testing::internal::CaptureStdout();
    varkel_t* v = varkel_new(c.model);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "detModel: " + std::to_string(c.model) + "\n" + c.message + "\n");
    ASSERT_NE(v, nullptr);
    EXPECT_EQ((std::array<int, 5>{v->max_num_modules, v->max_num_boards, v->max_num_chips, v->num_all_chips,
                                  v->num_mfb_tsensors}),
              (std::array{c.modules, c.boards, c.chips, c.all_chips, c.tsensors}));
    EXPECT_EQ(v->frame_size, c.frame_size);
    // A fresh handle: unconnected, no trace, nothing cached.
    EXPECT_EQ(v->varkel_interface & v->backend_socket, -1);
    EXPECT_EQ(v->fd[0] | v->fd[1] | v->fd[2] | v->fd[3] | v->simulate | v->acquireParam.acquireStatus, 0);
    EXPECT_EQ(v->debug_out, nullptr);
    if (c.frame_size > 0) {
      ASSERT_NE(v->sample_frame, nullptr);
      v->sample_frame[c.frame_size - 1] = 7; // the whole frame is ours to write
    }
    varkel_delete(v);
  }
}

TEST(HandleDeathTest, DeleteOfNullAsserts) { EXPECT_DEATH(varkel_delete(nullptr), "varkel != NULL"); }

TEST(ErrorString, EveryCode)
{
  std::string texts;
  for (int i = 0; i <= 12; ++i)
    texts += std::string(varkel_error_string(-i)) + "|";
  EXPECT_EQ(texts,
            "Success|Address not found|Read message error|Command failed|Invalid dac field|Dac value out of "
            "range|Data server disconnected|Invalid module number|Data server parse error|Requested bit rate is "
            "above 200 Mbps|Total number of images is above 16.383|Invalid omr field|Omr Parameter out of range|");
  for (int code : {-13, -14, -100, -110, INT32_MIN})
    EXPECT_STREQ(varkel_error_string(code), "Invalid error number") << code;
  EXPECT_STREQ(varkel_error_string(-101), "Snapshot file missing or malformed");
  EXPECT_STREQ(varkel_error_string(-105), "Snapshot value did not verify");
  EXPECT_STREQ(varkel_error_string(-106), "The controller refused the command");
  EXPECT_STREQ(varkel_error_string(-109), "The chip is switched off");
  EXPECT_STREQ(varkel_error_string(ENOTCONN), strerror(ENOTCONN));
}

TEST(DecodeSensorNumber, BoardsInDescendingOrder)
{
  for (auto [chip, board, number] : {std::array{0, 2, 1}, {11, 2, 12}, {0, 1, 13}, {0, 0, 25}, {11, 0, 36}})
    EXPECT_EQ(decode_sensor_number(chip, board), unsigned(number)) << chip << "/" << board;
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
    EXPECT_EQ(std::tuple(s.module, s.mfb, s.chipId), std::tuple(r.module, r.mfb, r.chip)) << r.index;
  }
  // Every chip of every module appears exactly once.
  std::set<std::array<int, 3>> seen;
  for (const sensor& s : decoderQuad) {
    EXPECT_EQ(s.sensorPos, 0);
    seen.insert({s.module, s.mfb, s.chipId});
  }
  EXPECT_EQ(seen.size(), 144u);
  EXPECT_EQ(*seen.begin(), (std::array{0, 0, 0}));
  EXPECT_EQ(*seen.rbegin(), (std::array{3, 2, 11}));
}

TEST(Predicates, IntegerRanges)
{
  // Predicates that share a range, by name; each is checked at both bounds and just outside.
  using Named = std::pair<const char*, bool (*)(int)>;
#define P(name)                                                                                                        \
  Named { #name, validate_##name }
  const std::pair<std::pair<int, int>, std::vector<Named>> ranges[] = {
      {{0, 1}, {P(bool), P(crw_srw), P(polarity), P(discriminator), P(colour_mode), P(pixel_mode), P(read_counter)}},
      {{0, 2}, {P(trigger_mode)}},
      {{0, 3}, {P(data_out), P(counter_depth), P(image_mode), P(medipix_mode)}},
      {{0, 7}, {P(operation_mode), P(column), P(row_count)}},
      {{0, 11}, {P(trigger_out)}},
      {{0, 31}, {P(u5_int)}},
      {{0, 36}, {P(chip_with_zero)}},
      {{0, 255}, {P(u8_int)}},
      {{0, 511}, {P(u9_int)}},
      {{0, 4095}, {P(u12_int)}},
      {{1, 31}, {P(dac)}},
      {{1, 36}, {P(number_chip_module)}},
      {{1, 69}, {P(dac_scan)}},
  };
#undef P
  for (const auto& [range, preds] : ranges)
    for (const auto& [name, pred] : preds) {
      EXPECT_TRUE(pred(range.first) && pred(range.second)) << name;
      EXPECT_FALSE(pred(range.first - 1) || pred(range.second + 1)) << name;
    }

  EXPECT_EQ(std::tuple(validate_omr_field(20), validate_omr_field(21), validate_omr_field(-1)), std::tuple(1, 0, 0));
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
  // Upper bounds themselves are accepted.
  EXPECT_EQ((std::array{validate_number_chip_mfb(trio, 12), validate_number_chip_mfb(trio, 13),
                        validate_number_boards(trio, 2), validate_number_boards(trio, 3), validate_module(trio, 2),
                        validate_module(quad, 4), validate_module(quad, 0)}),
            (std::array{true, false, true, false, false, true, false}));
  varkel_delete(trio);
  varkel_delete(quad);

  EXPECT_EQ((std::array{validate_acquire_period(0.0f), validate_acquire_period(0.02f), validate_acquire_period(0.01f),
                        validate_temperature(19.9f), validate_temperature(120.0f), validate_temperature(NAN),
                        validate_bias_voltage(100.0f), validate_bias_voltage(INFINITY), validate_extBg(1.0f),
                        validate_extBg(1.01f)}),
            (std::array{true, true, false, false, true, false, true, false, true, false}));
}

} // namespace
