// The data-server texts and helpers that need no socket.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "internal/backend_records.hpp"
#include "varkel.h"

using namespace varkel::detail;

TEST(Records, ErrorAndStatusTexts)
{
  const struct {
    uint8_t code;
    const char *backend, *geometry, *save;
  } cases[] = {
      {0, "Unable to create file", "Invalid number of acquisition", "ERROR"},
      {1, "Invalid acquisition mode", "Invalid acquisition mode", "ERROR"},
      {2, "Invalid number of acquisitions", "Invalid number of acquisition", "DONE"},
      {3, "Unknown error code", "Invalid geometry file", "NOT DONE"},
      {255, "Unknown error code", "Invalid number of acquisition", "ERROR"},
  };
  for (const auto& c : cases) {
    char text[100];
    std::memset(text, 'x', sizeof text);
    decode_backend_error(c.code, text);
    EXPECT_STREQ(text, c.backend) << int(c.code);
    EXPECT_STREQ(geometry_error_text(c.code), c.geometry) << int(c.code);
    EXPECT_STREQ(save_status_text(c.code), c.save) << int(c.code);
  }
}

TEST(Records, ReadoutModeMapsToAcquisitionMode)
{
  for (auto [mode, expected] :
       {std::pair<uint8_t, int>{0, B12}, {1, B12}, {2, B24}, {3, DUALENERGY}, {4, B12}, {255, B12}})
    EXPECT_EQ(decode_backend_medipixMode(mode), expected) << int(mode);
}

TEST(Records, FrameSegmentByModelAndSimulate)
{
  EXPECT_STREQ(frame_segment(varkelTrio, 0)->name, "/varkel_Trio_array_data");
  EXPECT_STREQ(frame_segment(varkelQuad, 2)->name, "/varkel_Quad_array_data"); // only 1 selects simulation
  EXPECT_STREQ(frame_segment(varkelTrio, 1)->open_fail_text,
               "Cannot open shared memory file /dev/shm/varkel_Trio_array_data_sim for array data.");
  // The Quad open-failure texts carry an extra "shared memory".
  EXPECT_STREQ(frame_segment(varkelQuad, 1)->open_fail_text,
               "Cannot open shared memory file /dev/shm/varkel_Quad_array_data_sim shared memory for array data.");
}

TEST(Records, TimespecDiffBorrowsASecond)
{
  timespec start{10, 900000000}, borrow{12, 100000000}, plain{12, 950000000}, out{};
  timespec_diff(&start, &borrow, &out);
  EXPECT_EQ(std::pair(out.tv_sec, out.tv_nsec), std::pair(time_t{1}, 200000000L));
  timespec_diff(&start, &plain, &out);
  EXPECT_EQ(std::pair(out.tv_sec, out.tv_nsec), std::pair(time_t{2}, 50000000L));
}
