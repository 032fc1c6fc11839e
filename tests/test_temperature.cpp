// Temperatures: the main-channel table readers and the readers of every module at
// once, one thread per module, against fake controllers on loopback.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;

namespace {

// Present only when a sanitizer's runtime is linked in.
extern "C" [[gnu::weak]] void __asan_init();
extern "C" [[gnu::weak]] void __tsan_init();

// Thermometers reading <module><board><sensor or chip index>.25 and the average
// <module>0.5; the request `junk` answers a word.
FakeController::Handler thermometers(int module, std::string junk = "")
{
  auto at = std::make_shared<std::pair<int, int>>(0, 0); // board, chip index
  return [=](const Request& r) {
    if (r.method == "SelectMedipixBoard_Command" || r.method == "HS_ImgChipNumberID_Command")
      (r.method[0] == 'S' ? at->first : at->second) = std::stoi(r.params.at(1));
    char text[32] = "OK";
    const int n = r.method == "HS_Temperature" ? std::stoi(r.params.at(0)) : at->second;
    if (r.method == "HS_AvgTemperature")
      std::snprintf(text, sizeof text, "%d0.5", module);
    else if (r.method.find("Temperature") != std::string::npos)
      std::snprintf(text, sizeof text, "%d%d%02d.25", module, at->first, n);
    return Reply::result(r.command() == junk ? "busy" : text);
  };
}

TEST(Temperature, TableReadersWalkBoardsOrChipsOnTheMainChannel)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_handler(thermometers(m, "HS_Temperature 5"));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(getMFB_Temperature(v, 2), 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(v->varkel_module, 2);
  const Commands sent = det.module(2).commands();
  ASSERT_EQ(sent.size(), 3u * 17);
  EXPECT_EQ(Commands(sent.begin() + 17, sent.begin() + 19),
            (Commands{"SelectMedipixBoard_Command 1 1", "HS_Temperature 1"}));
  // A reading that does not parse repeats the one before it.
  for (int i = 0; i < 48; ++i)
    EXPECT_FLOAT_EQ(v->varkelParam.mfb_temperature[1][i], 2000 + i / 16 * 100 + (i % 16 == 4 ? 4 : i % 16 + 1) + 0.25f);
  EXPECT_NE(out.find("\n0 : 2001.25\n"), std::string::npos);
  EXPECT_NE(out.find("\n47 : 2216.25\n"), std::string::npos);

  // Chip numbers 1..12 of a one-board module (the board selections are refused, unsent).
  FakeDetector lite(varkelLite);
  lite.module(1).set_handler(thermometers(1));
  EXPECT_EQ(getChip_Temperature(lite.handle(), 1), 0);
  EXPECT_EQ(lite.module(1).commands().size(), 12u * 2);
  for (int c = 1; c <= 36; ++c)
    EXPECT_FLOAT_EQ(lite.handle()->varkelParam.allchip_temperature[0][c - 1], c <= 12 ? 999.25f + c : 0) << c;

  // No row for the module, or no module selected: nothing read or stored.
  det.clear();
  EXPECT_EQ(getMFB_Temperature(v, 0), -7);
  EXPECT_EQ(getChip_Temperature(v, 5), -7);
  v->varkel_module = 0;
  EXPECT_EQ(US_TemperatureChipAvg(v), 0);
  EXPECT_EQ(det.all_commands(), Commands{"2:HS_AvgTemperature"});
  EXPECT_EQ(
      std::count(std::begin(v->varkelParam.avg_chip_temperature), std::end(v->varkelParam.avg_chip_temperature), 0.0f),
      4);
}

TEST(Temperature, EveryModuleIsReadOnItsOwnChannelIntoItsOwnRow)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  // The averages side by side: each controller holds its reply until all four
  // have a request in hand, which reads one after the other never reach.
  Rendezvous all_four(4);
  for (int m = 1; m <= 4; ++m) {
    const FakeController::Handler read =
        m < 4 ? thermometers(m, "HS_Temperature 16") : [](const Request&) { return Reply::result("busy"); };
    det.module(m).set_handler([&all_four, read](const Request& r) {
      if (r.method == "HS_AvgTemperature")
        all_four.arrive();
      return read(r);
    });
  }
  ASSERT_EQ(select_chipNumber(v, 7), 0);
  for (auto& row : v->varkelParam.mfb_temperature)
    std::fill(std::begin(row), std::end(row), -1.0f);
  v->varkelParam.avg_chip_temperature[3] = 9;
  det.clear();

  EXPECT_EQ(US_GetTemperature(v), 0);
  EXPECT_FALSE(all_four.stalled);
  EXPECT_EQ(US_GetMFBTemperature(v), 0);
  const float averages[] = {10.5f, 20.5f, 30.5f, 9};
  for (int m = 1; m <= 4; ++m) {
    EXPECT_FLOAT_EQ(v->varkelParam.avg_chip_temperature[m - 1], averages[m - 1]) << m;
    const Commands sent = det.module(m).commands();
    ASSERT_EQ(sent.size(), 1u + 3 * 17) << m;
    EXPECT_EQ(sent[0], "HS_AvgTemperature");
    EXPECT_EQ(sent[1 + 2 * 17], "SelectMedipixBoard_Command 1 2");
    // A junk reading leaves its entry alone.
    for (int i = 0; i < 48; ++i)
      EXPECT_FLOAT_EQ(v->varkelParam.mfb_temperature[m - 1][i],
                      m == 4 || i % 16 == 15 ? -1.0f : m * 1000 + i / 16 * 100 + i % 16 + 1.25f);
  }
  // The workers leave the main channel and the caller's selection alone.
  EXPECT_EQ(v->varkel_interface, v->fd[3]);
  EXPECT_EQ(v->sensor_pos.sensorPos, 7);
}

TEST(TemperatureDeathTest, AModuleWhoseThreadCannotStartIsNamedAndTheOthersAreJoined)
{
  if (__asan_init != nullptr || __tsan_init != nullptr)
    GTEST_SKIP() << "the sanitizers' runtimes reserve address space of their own";
  if (const char* preload = std::getenv("LD_PRELOAD"); preload != nullptr && std::strstr(preload, "vgpreload"))
    GTEST_SKIP() << "valgrind manages the threads' address space itself";
  // Forked: the child's module threads are answered by the fakes' threads here.
  GTEST_FLAG_SET(death_test_style, "fast");
  FakeDetector det(varkelQuad);
  for (int m = 1; m <= 4; ++m)
    det.module(m).set_handler(thermometers(m));
  // In the child no new thread stack fits; threads waiting on a pipe take every
  // stack left over, then one of them ends and frees exactly one.
  const auto run = [&] {
    unsigned long pages = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    int wake[2];
    if (statm == nullptr || std::fscanf(statm, "%lu", &pages) != 1 || pipe(wake) != 0)
      std::_Exit(3);
    std::vector<pthread_t> waiting(1000);
    const rlim_t room = pages * 4096 + (1 << 20);
    const rlimit limit = {room, room};
    setrlimit(RLIMIT_AS, &limit);
    const auto wait = +[](void* fd) -> void* {
      char byte;
      return read(*static_cast<int*>(fd), &byte, 1) == 1 ? nullptr : fd;
    };
    std::size_t n = 0;
    while (n < waiting.size() && pthread_create(&waiting[n], nullptr, wait, &wake[0]) == 0)
      ++n;
    if (write(wake[1], "x", 1) != 1)
      std::_Exit(3);
    for (bool joined = false; !joined;)
      for (std::size_t i = 0; i < n; ++i)
        joined = joined || pthread_tryjoin_np(waiting[i], nullptr) == 0;
    const int rc = US_GetTemperature(det.handle());
    const float* avg = det.handle()->varkelParam.avg_chip_temperature;
    std::fprintf(stderr, "rc=%d avg=%.1f,%.1f,%.1f,%.1f\n", rc, avg[0], avg[1], avg[2], avg[3]);
    std::_Exit(0);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0),
              "Module\\[2\\]: its thread could not be started(.|\n)*Module\\[4\\](.|\n)*rc=11 avg=10.5,0.0,0.0,0.0");
}

} // namespace
