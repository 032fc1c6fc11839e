// The chip presence check and the readout-mode recipes, against fake controllers
// on loopback.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

// A controller whose efuse register reads 0 at chip index `empty_chip` of board
// `empty_board` and 0x1A2B everywhere else.
FakeController::Handler efuses(int empty_board, int empty_chip)
{
  auto board = std::make_shared<int>(0);
  return [=](const Request& r) {
    if (r.method == "SelectMedipixBoard_Command")
      *board = std::stoi(r.params.at(1));
    if (r.method != "ReadReg")
      return Reply::result("OK");
    const bool empty = *board == empty_board && r.params.at(0) == std::to_string(empty_chip * 4096 + 0x18);
    return Reply::result(empty ? "0" : "1A2B");
  };
}

int count(const Commands& commands, const std::string& prefix)
{
  return static_cast<int>(
      std::count_if(commands.begin(), commands.end(), [&](const std::string& c) { return c.rfind(prefix, 0) == 0; }));
}

TEST(Presence, EmptyPositionsAreSwitchedOffAndRecordedByTheirModule)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  for (int m = 1; m <= 4; ++m) // one peer state per module: their workers run side by side
    det.module(m).set_handler(m == 2 ? efuses(0, 11) : efuses(-1, -1));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(check_and_disable_sensors(v), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();

  EXPECT_NE(out.find("\n\n\n\n\nModule[2] - disabled sensor 11 from MB 0\n\n\n\n\n"), std::string::npos);
  EXPECT_EQ(out.find("disabled sensor", out.find("disabled sensor") + 1), std::string::npos);
  for (int m = 0; m < 4; ++m)
    for (int c = 0; c < 36; ++c)
      EXPECT_EQ(v->sensor_disabled[m][c], m == 1 && c == 35) << m << ":" << c;

  // Efuse identifier, then per board its selection and per chip index the chip
  // selection and the efuse register; the empty chip gets both switch-off writes.
  const Commands two = det.module(2).commands();
  ASSERT_EQ(two.size(), 1u + 3 * (1 + 12 * 2) + 2);
  EXPECT_EQ(Commands(two.begin(), two.begin() + 4), (Commands{"HS_efuseID_RBV", "SelectMedipixBoard_Command 1 0",
                                                              "HS_ImgChipNumberID_Command 1 0", "ReadReg 24"}));
  EXPECT_EQ(Commands(two.begin() + 24, two.begin() + 28),
            (Commands{"HS_ImgChipNumberID_Command 1 11", "ReadReg 45080", "WriteReg 45200 0", "WriteReg 45204 1"}));
  for (int m : {1, 3, 4})
    EXPECT_EQ(count(det.module(m).commands(), "WriteReg"), 0) << m;
}

TEST(Presence, EveryModelWalksTwelveChipIndicesPerBoardWithoutStopping)
{
  // The single-chip model refuses chip indices above 1 (-3), yet every register
  // is still read and an empty position still switched off.
  const struct {
    varkel_detector_model_t model;
    int reads;
    int result;
    int disabled; // chip number switched off, 0: none
  } cases[] = {{varkelTrio, 36, 0, 0}, {varkelLite, 12, 0, 0}, {kinlet, 12, -3, 30}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.model);
    FakeDetector det(c.model);
    det.answer_all(efuses(0, c.disabled ? 5 : -1));
    EXPECT_EQ(check_and_disable_sensors(det.handle()), c.result);
    const Commands sent = det.module(1).commands();
    EXPECT_EQ(count(sent, "ReadReg"), c.reads);
    EXPECT_EQ(count(sent, "WriteReg"), c.disabled ? 2 : 0);
    for (int chip = 1; chip <= 36; ++chip)
      EXPECT_EQ(det.handle()->sensor_disabled[0][chip - 1], chip == c.disabled) << chip;
  }
}

TEST(ReadoutModes, EachModeSendsItsRecipeToEveryModuleAndRecordsItsDataMode)
{
  const struct {
    varkel_medipix_mode_t mode;
    varkel_detector_model_t model;
    Commands per_module;
    int data_mode;
  } cases[] = {
      {VARKEL_MEDIPIX_MODE_DEFAULT, varkelQuad, {"HS_ImageMode_Command 1 0", "HS_ImageMode_Command 0 0"}, B12},
      {VARKEL_MEDIPIX_MODE_CRW, varkelLite, {"HS_ImageMode_Command 1 1", "HS_ImageMode_Command 0 0"}, B12},
      {VARKEL_MEDIPIX_MODE_24BITS,
       varkelLite,
       {"HS_ImageMode_Command 1 2", "HS_ImageMode_Command 0 0", "HS_ImgChipDAC 3 1 30", "HS_ImgChipDAC 3 2 100",
        "HS_ImgChipOMR 3 4 1", "HS_ImgChipOMR 3 17 2"},
       B24},
      {VARKEL_MEDIPIX_MODE_DUAL_ENERGY, varkelQuad, {}, DUALENERGY},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    FakeDetector det(c.model);
    varkel_t* v = det.handle();
    v->acq_args.aquisitionMode = 7;
    EXPECT_EQ(set_medipix_mode(v, c.mode), 0);
    EXPECT_EQ(v->acq_args.aquisitionMode, c.data_mode);
    for (int m = 1; m <= det.modules(); ++m)
      EXPECT_EQ(det.module(m).commands(), c.per_module) << m;
    EXPECT_EQ(v->varkel_module, det.modules());

    // Out of range: refused, nothing sent, the data mode left alone.
    det.clear();
    EXPECT_EQ(set_medipix_mode(v, VARKEL_MEDIPIX_MODE_ENUM_END), -3);
    EXPECT_EQ(det.all_commands(), Commands{});
    EXPECT_EQ(v->acq_args.aquisitionMode, c.data_mode);
  }
}

} // namespace
