// The data-server records and texts, without a socket.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "internal/backend_records.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

template <typename T> std::string bytes_of(const T& record, std::size_t from, std::size_t count)
{
  return {reinterpret_cast<const char*>(&record) + from, count};
}

} // namespace

TEST(Records, SixtyFourBitFieldAtOddOffsetIsLittleEndian)
{
  acqArgs args{};
  args.noOfAquisitions = 0x0807060504030201ull;
  args.bcFramesToProcessPerTime = 0x0a09;
  EXPECT_EQ(bytes_of(args, 1, 8), std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8));
  EXPECT_EQ(bytes_of(args, 313, 2), std::string("\x09\x0a", 2));
}

TEST(Records, RequestsAreTypeThenZeros)
{
  const simpleArgs request = simple_request(ACQUIRE_STATUS);
  EXPECT_EQ(bytes_of(request, 0, 400), std::string(1, '\x02') + std::string(399, '\0'));

  geometryArgs geometry;
  ASSERT_TRUE(geometry_request("/etc/geometry.json", geometry));
  const std::string path = "/etc/geometry.json";
  EXPECT_EQ(bytes_of(geometry, 0, 400), std::string(1, '\x07') + path + std::string(399 - path.size(), '\0'));

  // A path must leave room for its terminating zero; a refused one changes nothing.
  EXPECT_TRUE(geometry_request(std::string(299, 'g'), geometry));
  std::memset(&geometry, 0x5a, sizeof geometry);
  EXPECT_FALSE(geometry_request(std::string(300, 'g'), geometry));
  EXPECT_EQ(bytes_of(geometry, 0, 400), std::string(400, '\x5a'));
}

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
      {4, "Unknown error code", "Invalid number of acquisition", "ERROR"},
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
  const uint8_t expected[] = {B12, B12, B24, DUALENERGY, B12, B12};
  for (uint8_t mode = 0; mode < 6; ++mode)
    EXPECT_EQ(decode_backend_medipixMode(mode), expected[mode]) << int(mode);
  EXPECT_EQ(decode_backend_medipixMode(255), B12);
}

TEST(Records, PrintedBlocks)
{
  uint8_t gid[16] = {0x00, 0x01, 0x0a, 0xff, 0x10};
  EXPECT_EQ(format_gid(gid, "Module 1 FE gid="), "Module 1 FE gid==01aff1000000000000\n");

  initArgs args{};
  args.qpn[0] = 0xabc;
  args.fe_mac[1] = 0x0123456789abull;
  args.be_mac[3] = 0xffffffffffffull;
  args.vaddr[2] = 0x7f00deadbeefull;
  args.rkey[3] = 0x42;
  args.fe_gid[0][15] = 0xfe;
  args.be_gid[3][0] = 0x0b;
  EXPECT_EQ(format_init_args(args), "\n-----------------------\n   Received init args\n-----------------------\n"
                                    "be 1 qpn=abc\nbe 2 qpn=0\nbe 3 qpn=0\nbe 4 qpn=0\n"
                                    "fe 1 mac=0\nfe 2 mac=123456789ab\nfe 3 mac=0\nfe 4 mac=0\n"
                                    "be 1 mac=0\nbe 2 mac=0\nbe 3 mac=0\nbe 4 mac=ffffffffffff\n"
                                    "Module 1 FE gid==000000000000000fe\n"
                                    "Module 2 FE gid==0000000000000000\n"
                                    "Module 3 FE gid==0000000000000000\n"
                                    "Module 4 FE gid==0000000000000000\n"
                                    "Module 1 BE gid==0000000000000000\n"
                                    "Module 2 BE gid==0000000000000000\n"
                                    "Module 3 BE gid==0000000000000000\n"
                                    "Module 4 BE gid==b000000000000000\n"
                                    "be 1 vaddr=0\nbe 2 vaddr=0\nbe 3 vaddr=7f00deadbeef\nbe 4 vaddr=0\n"
                                    "be 1 rkey=0\nbe 2 rkey=0\nbe 3 rkey=0\nbe 4 rkey=42\n");

  saveStatusArgs status{};
  status.done = NOT_DONE;
  status.savedFrameNum = 18446744073709551615ull;
  status.savedAquisitionNum = 7;
  EXPECT_EQ(format_save_status(status), "Received SAVE_STATUS:\n            status=NOT DONE\n"
                                        "            Saved Frames=18446744073709551615\n"
                                        "            savedAquisitionNum=7\n");
}

TEST(Records, FrameSegmentByModelAndSimulate)
{
  EXPECT_EQ(frame_segment(kinlet, 1), nullptr);
  EXPECT_EQ(frame_segment(varkelLite, 0), nullptr);
  EXPECT_STREQ(frame_segment(varkelTrio, 0)->name, "/varkel_Trio_array_data");
  EXPECT_STREQ(frame_segment(varkelQuad, 2)->name, "/varkel_Quad_array_data"); // only 1 selects simulation
  const FrameSegment* trio = frame_segment(varkelTrio, 1);
  EXPECT_STREQ(trio->file, "/dev/shm/varkel_Trio_array_data_sim");
  EXPECT_STREQ(trio->missing_text, "/dev/shm/varkel_Trio_array_data_sim shared memory file not found");
  EXPECT_STREQ(trio->open_fail_text,
               "Cannot open shared memory file /dev/shm/varkel_Trio_array_data_sim for array data.");
  // The Quad open-failure texts carry an extra "shared memory".
  const FrameSegment* quad = frame_segment(varkelQuad, 1);
  EXPECT_STREQ(quad->name, "/varkel_Quad_array_data_sim");
  EXPECT_STREQ(quad->open_fail_text,
               "Cannot open shared memory file /dev/shm/varkel_Quad_array_data_sim shared memory for array data.");
}

TEST(Records, TimespecDiffBorrowsASecond)
{
  timespec start{10, 900000000}, stop{12, 100000000}, out{};
  timespec_diff(&start, &stop, &out);
  EXPECT_EQ(out.tv_sec, 1);
  EXPECT_EQ(out.tv_nsec, 200000000);
  stop = {12, 950000000};
  timespec_diff(&start, &stop, &out);
  EXPECT_EQ(out.tv_sec, 2);
  EXPECT_EQ(out.tv_nsec, 50000000);
}

TEST(Records, ArgumentSettersTouchOnlyTheirFields)
{
  varkel_t* v = varkel_new(varkelTrio);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(update_backend_acqArgs(v, VARKEL_MEDIPIX_MODE_DUAL_ENERGY, true, SAVE_AFTER, true, 0x1234, 3), 0);
  EXPECT_EQ(v->acq_args.aquisitionMode, DUALENERGY);
  EXPECT_TRUE(v->acq_args.useLFSR);
  EXPECT_EQ(v->acq_args.saveMode, SAVE_AFTER);
  EXPECT_TRUE(v->acq_args.resetRDMABuffer);
  EXPECT_EQ(+v->acq_args.bcFramesToProcessPerTime, 0x1234); // packed: compared by value
  EXPECT_EQ(v->acq_args.extraDimensions, 3);

  const std::string longest(299, 'n');
  EXPECT_EQ(set_file_name_template(v, longest.c_str()), 0);
  EXPECT_EQ(v->file_template, longest);
  EXPECT_EQ(v->acq_args.savefile, longest);
  EXPECT_EQ(set_file_name_template(v, std::string(300, 'x').c_str()), 36);
  EXPECT_EQ(v->file_template, longest);
  EXPECT_EQ(v->acq_args.savefile, longest);
  // A shorter name leaves no tail of the longer one in the record.
  EXPECT_EQ(set_file_name_template(v, "run_%04d.h5"), 0);
  EXPECT_EQ(bytes_of(v->acq_args, 9, 300), std::string("run_%04d.h5") + std::string(289, '\0'));
  varkel_delete(v);
}
