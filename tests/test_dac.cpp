// DAC writes with their fan-outs, read-backs into the caches and the presets,
// against fake controllers on loopback.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

std::string dac_cmd(int op, int dac, int value)
{
  return "HS_ImgChipDAC " + std::to_string(op) + " " + std::to_string(dac) + " " + std::to_string(value);
}
Reply fail_writes(const Request& r, Reply f) { return r.method == "HS_ImgChipDAC" ? f : Reply::result("OK"); }

TEST(Dac, EachDacTakesItsRangeAndNothingOutsideIsSent)
{
  const std::set<int> nine_bits = {DAC_ThresholdEnergy0, DAC_ThresholdEnergy1, DAC_TPRefA, DAC_TPRefB};
  FakeDetector det(varkelTrio);
  const auto set = [&](int dac, int value, varkel_send_to_all_t to = VARKEL_SEND_ONE_CHIP_ONE_MODULE) {
    return set_dac(det.handle(), varkel_dac_t(dac), value, to);
  };
  Commands sent;
  for (int dac = 1; dac <= 31; ++dac) {
    const int max = nine_bits.count(dac) ? 511 : 255;
    EXPECT_EQ(std::tuple(set(dac, max), set(dac, max + 1), set(dac, -1, VARKEL_SEND_ALL_CHIPS_ONE_MODULE)),
              std::tuple(0, -5, -5))
        << dac;
    sent.push_back(dac_cmd(1, dac, max));
  }
  // No DAC, and the board targets, which are no DAC targets.
  EXPECT_EQ(std::tuple(set(0, -1), set(32, -1), set(-1, -1), set(9, 1, VARKEL_SEND_ONE_MFB_ONE_MODULE)),
            std::tuple(-4, -4, -4, 0));
  EXPECT_EQ(det.module(1).commands(), sent);
}

TEST(Dac, FanOutsReachEachModuleOnItsChannelInOrder)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  ASSERT_EQ(select_chipNumber(v, 5), 0); // module 4, the main channel after connecting
  det.clear();
  EXPECT_EQ(US_Set_DAC(v, DAC_DiscL, 60, VARKEL_SEND_ONE_CHIP_ONE_MODULE, VARKEL_THREAD_MODULE2), 0);
  EXPECT_EQ(set_dac(v, DAC_GND, 70, VARKEL_SEND_ALL_CHIPS_ONE_MODULE), 0);
  EXPECT_EQ(det.all_commands(), (Commands{"2:" + dac_cmd(1, 15, 60), "4:" + dac_cmd(3, 20, 70)}));

  // One chip on every module: each module selected, the chip re-selected on it,
  // then the write; the result is the last module's write.
  det.clear();
  det.module(2).set_handler([](const Request& r) { return fail_writes(r, Reply::error("refused")); });
  EXPECT_EQ(set_dac(v, DAC_FBK, 90, VARKEL_SEND_ONE_CHIP_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(),
              (Commands{"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 4", dac_cmd(1, 22, 90)}));
  EXPECT_EQ(v->varkel_module, 4);
  det.module(4).set_handler([](const Request& r) { return fail_writes(r, Reply::reset()); });
  EXPECT_EQ(set_dac(v, DAC_FBK, 90, VARKEL_SEND_ONE_CHIP_ALL_MODULES), -1);
}

TEST(Dac, AllChipsOfAllModulesRunsOneWorkerPerModuleAndOrsTheFailures)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  // Each module holds its reply until all four requests are in: only workers
  // running side by side get past it in time.
  Rendezvous all_four(4);
  det.answer_all([&](const Request&) {
    all_four.arrive();
    return Reply::result("OK");
  });
  EXPECT_EQ(US_Set_DAC(v, DAC_CAS, 128, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, VARKEL_THREAD_MAIN), 0);
  EXPECT_FALSE(all_four.stalled);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), Commands{dac_cmd(3, 23, 128)});

  // Module 2 holds no descriptor (ENOTCONN), module 3 one that is no socket
  // (ENOTSOCK): the result carries both codes.
  det.answer_all(nullptr);
  ::close(v->fd[1]), ::close(v->fd[2]);
  v->fd[1] = 0, v->fd[2] = ::open("/dev/null", O_RDONLY);
  EXPECT_EQ(US_Set_DAC(v, DAC_CAS, 128, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, VARKEL_THREAD_MAIN), ENOTCONN | ENOTSOCK);
  EXPECT_EQ(det.module(4).commands().size(), 2u);
}

// The selected chip's row, the read's command, and a failed read that leaves the
// caches alone (the reply forms are unit-tested).
TEST(Dac, ReadBacksFillTheSelectedChipsRowAndFailuresLeaveTheCaches)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  v->sensor_pos.sensorPos = 5;
  det.module(1).set_handler([](const Request& r) { return Reply::result(r.params.at(0) == "6" ? "0.75" : "31 : 6,"); });
  EXPECT_EQ(get_dac(v, DIGITAL_READ_ALL_DACS, DAC_Preamp) | get_dac(v, ANALOG_READ_SINGLE_DAC, DAC_GND), 0);
  det.module(1).set_handler([](const Request&) { return Reply::reset(); });
  EXPECT_EQ(get_dac(v, DIGITAL_READ_ALL_SENSORS, DAC_Preamp), -1);
  EXPECT_EQ(det.module(1).commands(), (Commands{dac_cmd(4, 9, 0), dac_cmd(6, 20, 0), dac_cmd(2, 9, 0)}));
  int32_t digital[36][32] = {};
  float analog[36][32] = {};
  digital[4][30] = 6, analog[4][19] = 0.75f;
  EXPECT_EQ(0, std::memcmp(digital, v->digital_dac_values, sizeof digital));
  EXPECT_EQ(0, std::memcmp(analog, v->analog_dac_values, sizeof analog));
}

TEST(Dac, PresetsWriteEveryChipOrTheBandGapChips)
{
  FakeDetector quad(varkelQuad);
  EXPECT_EQ(set_OptimizedDiscL(quad.handle()), 0);
  const Commands sent = quad.all_commands();
  ASSERT_EQ(sent.size(), 4 * 36u * 3);
  EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end(), [](auto& a, auto& b) { return a[0] < b[0]; }));
  const std::string first = "1:" + dac_cmd(1, DAC_DiscL, 76), last = "4:" + dac_cmd(1, DAC_DiscL, 50);
  EXPECT_EQ(std::tuple(sent[1], sent[2], sent.back()), std::tuple("1:HS_ImgChipNumberID_Command 1 0", first, last));

  // The external band gap on chip 6 of module 1 and chip 31 of module 2; on one
  // module both pairs land on it, and failures change nothing.
  const Commands chip6 = {"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 5",
                          "HS_ImgChip_ExtBgIn_Command 1 0.637000", "HS_ImgChipOMR 1 20 1"};
  const Commands chip31 = {"SelectMedipixBoard_Command 1 0", "HS_ImgChipNumberID_Command 1 6", chip6[2], chip6[3]};
  quad.clear();
  EXPECT_EQ(Set_DAC_Defaults(quad.handle()), 0);
  EXPECT_EQ(std::tuple(quad.module(1).commands(), quad.module(2).commands(), quad.all_commands().size()),
            std::tuple(chip6, chip31, 8u));
  FakeDetector trio(varkelTrio);
  trio.module(1).set_handler([](const Request&) { return Reply::error("no"); });
  EXPECT_EQ(Set_DAC_Defaults(trio.handle()), 0);
  Commands both = chip6;
  both.insert(both.end(), chip31.begin(), chip31.end());
  EXPECT_EQ(trio.module(1).commands(), both);
}

} // namespace
