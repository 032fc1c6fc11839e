// DAC writes with their fan-outs, read-backs into the caches and the presets,
// against fake controllers on loopback.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

std::string dac_cmd(int op, int dac, int value)
{
  return "HS_ImgChipDAC " + std::to_string(op) + " " + std::to_string(dac) + " " + std::to_string(value);
}

TEST(Dac, EachDacTakesItsRangeAndNothingOutsideIsSent)
{
  const std::set<int> nine_bits = {DAC_ThresholdEnergy0, DAC_ThresholdEnergy1, DAC_TPRefA, DAC_TPRefB};
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  Commands sent;
  for (int dac = 1; dac <= 31; ++dac) {
    const int max = nine_bits.count(dac) ? 511 : 255;
    EXPECT_EQ(set_dac(v, varkel_dac_t(dac), max, VARKEL_SEND_ONE_CHIP_ONE_MODULE), 0) << dac;
    EXPECT_EQ(set_dac(v, varkel_dac_t(dac), max + 1, VARKEL_SEND_ONE_CHIP_ONE_MODULE), -5) << dac;
    EXPECT_EQ(set_dac(v, varkel_dac_t(dac), -1, VARKEL_SEND_ALL_CHIPS_ONE_MODULE), -5) << dac;
    sent.push_back(dac_cmd(1, dac, max));
  }
  for (int bad : {0, 32, -1})
    EXPECT_EQ(set_dac(v, varkel_dac_t(bad), -1, VARKEL_SEND_ONE_CHIP_ONE_MODULE), -4) << bad;
  for (auto board_target : {VARKEL_SEND_ONE_MFB_ONE_MODULE, VARKEL_SEND_ALL_MFBS_ALL_MODULES})
    EXPECT_EQ(set_dac(v, DAC_Preamp, 1, board_target), 0);
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
  det.module(2).set_handler(
      [](const Request& r) { return r.method == "HS_ImgChipDAC" ? Reply::error("refused") : Reply::result("OK"); });
  EXPECT_EQ(set_dac(v, DAC_FBK, 90, VARKEL_SEND_ONE_CHIP_ALL_MODULES), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(),
              (Commands{"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 4", dac_cmd(1, 22, 90)}));
  EXPECT_EQ(v->varkel_module, 4);
  det.module(4).set_handler(
      [](const Request& r) { return r.method == "HS_ImgChipDAC" ? Reply::reset() : Reply::result("OK"); });
  EXPECT_EQ(set_dac(v, DAC_FBK, 90, VARKEL_SEND_ONE_CHIP_ALL_MODULES), -1);
}

TEST(Dac, AllChipsOfAllModulesRunsOneWorkerPerModuleAndOrsTheFailures)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  // Each module holds its reply until all four requests are in: only workers
  // running side by side get past it in time.
  std::mutex mutex;
  std::condition_variable all_in;
  int arrived = 0;
  bool in_time = true;
  det.answer_all([&](const Request&) {
    std::unique_lock lock(mutex);
    ++arrived;
    all_in.notify_all();
    in_time = all_in.wait_for(lock, std::chrono::seconds(10), [&] { return arrived == 4; }) && in_time;
    return Reply::result("OK");
  });
  EXPECT_EQ(US_Set_DAC(v, DAC_CAS, 128, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, VARKEL_THREAD_MAIN), 0);
  EXPECT_TRUE(in_time);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands(), Commands{dac_cmd(3, 23, 128)});

  // Module 2 holds no descriptor (ENOTCONN), module 3 one that is no socket
  // (ENOTSOCK): the result carries both codes.
  det.answer_all(nullptr);
  ::close(v->fd[1]);
  ::close(v->fd[2]);
  v->fd[1] = 0;
  v->fd[2] = ::open("/dev/null", O_RDONLY);
  EXPECT_EQ(US_Set_DAC(v, DAC_CAS, 128, VARKEL_SEND_ALL_CHIPS_ALL_MODULES, VARKEL_THREAD_MAIN), ENOTCONN | ENOTSOCK);
  EXPECT_EQ(det.module(4).commands().size(), 2u);
}

TEST(Dac, ReadBacksFillTheSelectedChipsRowOrEachListedChipsRow)
{
  FakeDetector det(varkelTrio);
  varkel_t* v = det.handle();
  v->sensor_pos.sensorPos = 5;
  const char* reply = "";
  det.module(1).set_handler([&](const Request&) { return Reply::result(reply); });
  const auto read = [&](varkel_read_dac_t mode, varkel_dac_t dac, const char* text) {
    reply = text;
    return get_dac(v, mode, dac);
  };
  EXPECT_EQ(read(DIGITAL_READ_SINGLE_DAC, DAC_Preamp, "100"), 0);
  EXPECT_EQ(read(DIGITAL_READ_ALL_SENSORS, DAC_Preamp, "1 : 10,2 : 12,"), 0);
  EXPECT_EQ(read(DIGITAL_READ_ALL_DACS, DAC_Preamp, "1 : 5,31 : 6"), 0);
  EXPECT_EQ(read(ANALOG_READ_SINGLE_DAC, DAC_GND, "0.75"), 0);
  EXPECT_EQ(read(ANALOG_READ_ALL_DACS, DAC_GND, "1 : 0.512,2 : 1.030,"), 0);
  EXPECT_EQ(read(ANALOG_READ_ALL_SENSORS, DAC_GND, "36 : 0.25,"), 0);
  EXPECT_EQ(read(varkel_read_dac_t(WRITE_SINGLE_DAC), DAC_GND, "1 : 1,"), 0);
  EXPECT_EQ(det.module(1).commands(), (Commands{dac_cmd(0, 9, 0), dac_cmd(2, 9, 0), dac_cmd(4, 9, 0), dac_cmd(6, 20, 0),
                                                dac_cmd(7, 20, 0), dac_cmd(8, 20, 0), dac_cmd(1, 20, 0)}));
  int32_t digital[36][32] = {};
  float analog[36][32] = {};
  digital[4][8] = 100, digital[0][8] = 10, digital[1][8] = 12, digital[4][0] = 5, digital[4][30] = 6;
  analog[4][19] = 0.75f, analog[4][0] = 0.512f, analog[4][1] = 1.030f, analog[35][19] = 0.25f;
  EXPECT_EQ(0, std::memcmp(digital, v->digital_dac_values, sizeof digital));
  EXPECT_EQ(0, std::memcmp(analog, v->analog_dac_values, sizeof analog));

  // A failed read leaves both caches alone.
  det.module(1).set_handler([](const Request&) { return Reply::reset(); });
  EXPECT_EQ(get_dac(v, DIGITAL_READ_ALL_SENSORS, DAC_Preamp), -1);
  EXPECT_EQ(0, std::memcmp(digital, v->digital_dac_values, sizeof digital));
}

TEST(Dac, OptimizedDiscLWritesEveryChipOfEveryModule)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  EXPECT_EQ(set_OptimizedDiscL(v), 0);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(det.module(m).commands().size(), 36u * 3) << m;
  const Commands first = det.module(1).commands();
  EXPECT_EQ(Commands(first.begin(), first.begin() + 3),
            (Commands{"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 0", dac_cmd(1, DAC_DiscL, 76)}));
  EXPECT_EQ(det.module(4).commands().back(), dac_cmd(1, DAC_DiscL, 50));
}

TEST(Dac, DefaultsSelectTheExternalBandGapOnTwoChips)
{
  const Commands chip6 = {"SelectMedipixBoard_Command 1 2", "HS_ImgChipNumberID_Command 1 5",
                          "HS_ImgChip_ExtBgIn_Command 1 0.637000", "HS_ImgChipOMR 1 20 1"};
  const Commands chip31 = {"SelectMedipixBoard_Command 1 0", "HS_ImgChipNumberID_Command 1 6",
                           "HS_ImgChip_ExtBgIn_Command 1 0.637000", "HS_ImgChipOMR 1 20 1"};
  FakeDetector quad(varkelQuad);
  EXPECT_EQ(Set_DAC_Defaults(quad.handle()), 0);
  EXPECT_EQ(quad.module(1).commands(), chip6);
  EXPECT_EQ(quad.module(2).commands(), chip31);
  EXPECT_EQ(quad.handle()->varkel_module, 2);

  // One module: the second pair lands on it too; failures change nothing.
  FakeDetector trio(varkelTrio);
  trio.module(1).set_handler([](const Request&) { return Reply::error("no"); });
  EXPECT_EQ(Set_DAC_Defaults(trio.handle()), 0);
  Commands both = chip6;
  both.insert(both.end(), chip31.begin(), chip31.end());
  EXPECT_EQ(trio.module(1).commands(), both);
}

} // namespace
