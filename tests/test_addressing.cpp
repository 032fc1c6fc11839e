// Module, board and chip selection against fake controllers on loopback.
#include <gtest/gtest.h>

#include <array>

#include "fake_detector.hpp"
#include "internal/query.hpp"

using namespace varkel::testing;
using Commands = std::vector<std::string>;
using Pos = std::array<int, 3>; // sensor_pos: board, chip index, chip number

namespace {

std::string board_cmd(int board) { return "SelectMedipixBoard_Command 1 " + std::to_string(board); }
std::string chip_cmd(int chip) { return "HS_ImgChipNumberID_Command 1 " + std::to_string(chip); }
Pos pos(const varkel_t* v) { return {v->sensor_pos.mfb, v->sensor_pos.chipId, v->sensor_pos.sensorPos}; }

} // namespace

TEST(Selection, RangeChecksRefuseAndSendNothing)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  ASSERT_EQ(select_module(v, 2), 0);
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
  EXPECT_EQ(pos(v), (Pos{0, 0, 0}));
}

TEST(Selection, ChipNumberSendsBoardThenChipAndCachesOnlyOnSuccess)
{
  // board and chip: the indices sent, -1 for one refused and not sent. One board
  // (varkelLite): boards 1 and 2 are refused, the chip still goes out. One chip
  // per board (kinlet): chip indices 0 and 1 pass, 2 does not.
  const struct {
    varkel_detector_model_t model;
    int number, rc, board, chip;
  } cases[] = {{varkelTrio, 1, 0, 2, 0},   {varkelTrio, 13, 0, 1, 0},    {varkelTrio, 36, 0, 0, 11},
               {varkelLite, 1, -3, -1, 0}, {varkelLite, 24, -3, -1, 11}, {varkelLite, 25, 0, 0, 0},
               {kinlet, 26, 0, 0, 1},      {kinlet, 27, -3, 0, -1},      {kinlet, 3, -3, -1, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "model " << c.model << ", chip " << c.number);
    FakeDetector det(c.model);
    varkel_t* v = det.handle();
    v->sensor_pos = {SINGLE, 7, 7, 7};
    EXPECT_EQ(select_chipNumber(v, c.number), c.rc);
    Commands sent;
    if (c.board >= 0)
      sent.push_back(board_cmd(c.board));
    if (c.chip >= 0)
      sent.push_back(chip_cmd(c.chip));
    EXPECT_EQ(det.module(1).commands(), sent);
    EXPECT_EQ(pos(v), (c.rc == 0 ? Pos{c.board, c.chip, c.number} : Pos{7, 7, 7}));
  }
}

TEST(Selection, ReadBacksFillTheCacheOnlyWithNumbers)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  for (const char* reply : {"2", "none"}) {
    det.module(1).set_handler([reply](const Request&) { return Reply::result(reply); });
    EXPECT_EQ(select_board_rbv(v), 0);
    EXPECT_EQ(US_ImgChipNumberID_RBV(v), 0);
  }
  EXPECT_EQ(pos(v), (Pos{2, 2, 0}));

  // A failed chip command leaves the selection cache as it was.
  det.module(1).set_handler(
      [](const Request& r) { return r.method == "HS_ImgChipNumberID_Command" ? Reply::reset() : Reply::result("OK"); });
  EXPECT_EQ(select_chipNumber(v, 5), -1);
  EXPECT_EQ(pos(v), (Pos{2, 2, 0}));
  const Commands rbv{"SelectMedipixBoard_Command 0 0", "HS_ImgChipNumberID_Command 0 255"};
  EXPECT_EQ(det.module(1).commands(), (Commands{rbv[0], rbv[1], rbv[0], rbv[1], board_cmd(2), chip_cmd(4)}));
}

TEST(Selection, CacheHoldsTheCallersLastSelectionWhileWorkersSelectTheirOwn)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  ASSERT_EQ(select_chipNumber(v, 5), 0);
  det.clear();

  const int rc = varkel::detail::for_each_module_parallel(v, [&](varkel_thread_t owner) {
    int sent = 0;
    for (int chip = 25; chip <= 36; ++chip)
      sent |= US_Select_ChipNumber(v, chip, owner);
    return sent;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(det.all_commands().size(), 4 * 24u);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands().back(), chip_cmd(11));
  EXPECT_EQ(pos(v), (Pos{2, 4, 5}));

  // A selection on a module channel made from the caller's thread is recorded.
  EXPECT_EQ(US_Select_ChipNumber(v, 14, VARKEL_THREAD_MODULE3), 0);
  EXPECT_EQ(pos(v), (Pos{1, 1, 14}));
}
