// Module, board and chip selection against scripted controllers on loopback.
#include <gtest/gtest.h>

#include <thread>

#include "fake_detector.hpp"
#include "internal/query.hpp"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

std::string board_cmd(int board) { return "SelectMedipixBoard_Command 1 " + std::to_string(board); }
std::string chip_cmd(int chip) { return "HS_ImgChipNumberID_Command 1 " + std::to_string(chip); }

void expect_sensor_pos(const varkel_t* v, int mfb, int chip, int number)
{
  EXPECT_EQ(v->sensor_pos.mfb, mfb);
  EXPECT_EQ(v->sensor_pos.chipId, chip);
  EXPECT_EQ(v->sensor_pos.sensorPos, number);
}

} // namespace

TEST(Selection, RangeChecksRefuseAndSendNothing)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  ASSERT_EQ(select_module(v, 2), 0);
  EXPECT_EQ(v->varkel_interface, v->fd[1]);
  EXPECT_EQ(select_module(v, 0), -7);
  EXPECT_EQ(select_module(v, 5), -7);
  EXPECT_EQ(v->varkel_interface, v->fd[1]);
  EXPECT_EQ(v->varkel_module, 2);

  EXPECT_EQ(select_board(v, 3), -3);
  EXPECT_EQ(select_board(v, -1), -3);
  EXPECT_EQ(US_ImgChipNumberID(v, 13, VARKEL_THREAD_MAIN), -3);
  EXPECT_EQ(select_chipNumber(v, 0), -4);
  EXPECT_EQ(US_Select_ChipNumber(v, 37, VARKEL_THREAD_MODULE1), -4);
  EXPECT_EQ(det.all_commands(), Commands{});

  // The chip index range includes max_num_chips itself.
  EXPECT_EQ(select_board(v, 2), 0);
  EXPECT_EQ(US_ImgChipNumberID(v, 12, VARKEL_THREAD_MODULE3), 0);
  EXPECT_EQ(det.all_commands(), (Commands{"2:" + board_cmd(2), "3:" + chip_cmd(12)}));
  expect_sensor_pos(v, 0, 0, 0);
}

struct ChipCase {
  varkel_detector_model_t model;
  int chip_number;
  int rc;
  Commands sent;
  int mfb, chip; // cached on success
};

class SelectChip : public ::testing::TestWithParam<ChipCase> {};

TEST_P(SelectChip, SendsBoardThenChipAndCachesOnlyOnSuccess)
{
  const ChipCase& c = GetParam();
  FakeDetector det(c.model);
  varkel_t* v = det.handle();
  v->sensor_pos = {SINGLE, 7, 7, 7};

  EXPECT_EQ(select_chipNumber(v, c.chip_number), c.rc);

  EXPECT_EQ(det.module(1).commands(), c.sent);
  if (c.rc == 0)
    expect_sensor_pos(v, c.mfb, c.chip, c.chip_number);
  else
    expect_sensor_pos(v, 7, 7, 7);
}

INSTANTIATE_TEST_SUITE_P(Numbers, SelectChip,
                         ::testing::Values(ChipCase{varkelTrio, 1, 0, {board_cmd(2), chip_cmd(0)}, 2, 0},
                                           ChipCase{varkelTrio, 13, 0, {board_cmd(1), chip_cmd(0)}, 1, 0},
                                           ChipCase{varkelTrio, 36, 0, {board_cmd(0), chip_cmd(11)}, 0, 11},
                                           // One board: boards 1 and 2 are refused, the chip still goes out.
                                           ChipCase{varkelLite, 1, -3, {chip_cmd(0)}, 0, 0},
                                           ChipCase{varkelLite, 24, -3, {chip_cmd(11)}, 0, 0},
                                           ChipCase{varkelLite, 25, 0, {board_cmd(0), chip_cmd(0)}, 0, 0},
                                           // One chip per board: chip indices 0 and 1 pass, 2 does not.
                                           ChipCase{kinlet, 26, 0, {board_cmd(0), chip_cmd(1)}, 0, 1},
                                           ChipCase{kinlet, 27, -3, {board_cmd(0)}, 0, 0},
                                           ChipCase{kinlet, 3, -3, {}, 0, 0}));

TEST(Selection, ReadBacksFillTheCacheOnlyWithNumbers)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  det.module(1).set_handler([](const Request&) { return Reply::result("2"); });
  EXPECT_EQ(select_board_rbv(v), 0);
  EXPECT_EQ(US_ImgChipNumberID_RBV(v), 0);
  det.module(1).set_handler([](const Request&) { return Reply::result("none"); });
  EXPECT_EQ(select_board_rbv(v), 0);
  EXPECT_EQ(US_ImgChipNumberID_RBV(v), 0);
  expect_sensor_pos(v, 2, 2, 0);

  // A failed chip command leaves the selection cache as it was.
  det.module(1).set_handler(
      [](const Request& r) { return r.method == "HS_ImgChipNumberID_Command" ? Reply::reset() : Reply::result("OK"); });
  EXPECT_EQ(select_chipNumber(v, 5), -1);
  expect_sensor_pos(v, 2, 2, 0);
  EXPECT_EQ(det.module(1).commands(), (Commands{"SelectMedipixBoard_Command 0 0", "HS_ImgChipNumberID_Command 0 255",
                                                "SelectMedipixBoard_Command 0 0", "HS_ImgChipNumberID_Command 0 255",
                                                board_cmd(2), chip_cmd(4)}));
}

TEST(Selection, CacheHoldsTheCallersLastSelectionWhileWorkersSelectTheirOwn)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  ASSERT_EQ(select_chipNumber(v, 5), 0);
  det.clear();

  EXPECT_EQ(varkel::detail::for_each_module_parallel(v,
                                                     [&](varkel_thread_t owner) {
                                                       int rc = 0;
                                                       for (int chip = 25; chip <= 36; ++chip)
                                                         rc |= US_Select_ChipNumber(v, chip, owner);
                                                       return rc;
                                                     }),
            0);
  for (int m = 1; m <= 4; ++m) {
    ASSERT_EQ(det.module(m).request_count(), 24u);
    EXPECT_EQ(det.module(m).commands().back(), chip_cmd(11));
  }
  expect_sensor_pos(v, 2, 4, 5);

  // A selection on a module channel made from the caller's thread is recorded.
  EXPECT_EQ(US_Select_ChipNumber(v, 14, VARKEL_THREAD_MODULE3), 0);
  expect_sensor_pos(v, 1, 1, 14);
}

TEST(Selection, ModuleFanOutSelectsEachModuleInTurnOnTheCallersThread)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  const auto caller = std::this_thread::get_id();
  bool on_caller = true;

  const int rc = varkel::detail::for_each_module_selected(v, [&](int module) {
    on_caller = on_caller && std::this_thread::get_id() == caller;
    EXPECT_EQ(read_tb_reg(v, module, VARKEL_THREAD_MAIN), 0);
    return module == 2 ? 8 : module == 4 ? 1 : 0;
  });

  EXPECT_EQ(rc, 9);
  EXPECT_TRUE(on_caller);
  EXPECT_EQ(det.all_commands(),
            (Commands{"1:ReadTransport 1", "2:ReadTransport 2", "3:ReadTransport 3", "4:ReadTransport 4"}));
  EXPECT_EQ(v->varkel_module, 4);
  EXPECT_EQ(v->varkel_interface, v->fd[3]);
}
