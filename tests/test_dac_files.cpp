// DAC calibration files: loading, the writes to every enabled chip of every module
// on its own channel, and the failures that must send nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_detector.hpp"
#include "internal/dac_files.hpp"
#include "utils.h"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// A module file whose chip c holds fbk 100 + c, gnd 50 + c, cas 150 + c and discl c
// (module m adds m to each), with `edit` applied to its text.
std::string module_text(int m, const std::string& from = "", const std::string& to = "")
{
  std::string t;
  for (int c = 1; c <= 36; ++c)
    t += "[SENSOR " + std::to_string(c) + "]\nfbk=" + std::to_string(100 + c + m) +
         "\ngnd=" + std::to_string(50 + c + m) + "\ncas=" + std::to_string(150 + c + m) +
         "\ndiscl=" + std::to_string(c + m) + "\n";
  if (!from.empty())
    t.replace(t.find(from), from.size(), to);
  return t;
}

class DacFiles : public ::testing::Test {
protected:
  void SetUp() override
  {
    char name[] = "/tmp/varkel-dacs-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir = name;
    for (int m = 1; m <= 4; ++m)
      write("module" + std::to_string(m) + ".ini", module_text(m));
    write("index.ini", index_text());
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string index_text(int modules = 4) const
  {
    std::string t = "[paths]\n";
    for (int m = 1; m <= modules; ++m)
      t += "MODULE " + std::to_string(m) + "=" + (dir / ("module" + std::to_string(m) + ".ini")).string() + "\n";
    return t;
  }
  void write(const std::string& file, const std::string& text) const { std::ofstream(dir / file) << text; }
  std::string index() const { return (dir / "index.ini").string(); }

  fs::path dir;
};

std::string dac_cmd(int dac, int value)
{
  return "HS_ImgChipDAC 1 " + std::to_string(dac) + " " + std::to_string(value);
}

// What one enabled chip c of module m receives from the files above.
Commands chip_writes(int m, int c)
{
  const int board = 2 - (c - 1) / 12;
  return {"SelectMedipixBoard_Command 1 " + std::to_string(board),
          "HS_ImgChipNumberID_Command 1 " + std::to_string((c - 1) % 12),
          dac_cmd(DAC_DiscL, c + m),
          dac_cmd(DAC_GND, 50 + c + m),
          dac_cmd(DAC_FBK, 100 + c + m),
          dac_cmd(DAC_CAS, 150 + c + m)};
}

TEST_F(DacFiles, EveryEnabledChipOfEveryModuleGetsItsFourDacsOnItsOwnChannel)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  v->sensor_disabled[1][4] = true; // module 2, chip 5
  v->sensor_disabled[3][35] = true;
  EXPECT_EQ(configure_module_dacs_with_file(v, index().c_str()), 0);
  for (int m = 1; m <= 4; ++m) {
    Commands expected;
    for (int c = 1; c <= 36; ++c) {
      if (!v->sensor_disabled[m - 1][c - 1])
        for (const auto& cmd : chip_writes(m, c))
          expected.push_back(cmd);
    }
    EXPECT_EQ(det.module(m).commands(), expected) << m;
  }
}

TEST_F(DacFiles, AFileThatFailsToLoadSendsNothing)
{
  const struct {
    const char* name;
    std::string file, text;
  } cases[] = {
      {"index missing", "index.ini", ""},
      {"index without module 4", "index.ini", index_text(3)},
      {"module file missing", "module3.ini", ""},
      {"group missing", "module4.ini", module_text(4, "[SENSOR 36]", "[SENSOR 37]")},
      {"key missing", "module2.ini", module_text(2, "discl=38", "disc=38")},
      {"not a number", "module1.ini", module_text(1, "gnd=71", "gnd=7l")},
      {"not a key file", "module1.ini", "SENSOR 1\nfbk=3\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TearDown(); // a fresh set of files for each case
    SetUp();
    if (c.text.empty())
      fs::remove(dir / c.file);
    else
      write(c.file, c.text);
    FakeDetector det(varkelLite); // every file counts, even for one module
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(configure_module_dacs_with_file(det.handle(), index().c_str()), -1);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(det.all_commands(), Commands{});
    EXPECT_EQ(err.rfind("\033[31mERROR: \033[0m [dac_files.cpp:", 0), 0u) << err;
    EXPECT_NE(err.find("extract_default_dacs_from_file failed. \n\n"), std::string::npos) << err;
    EXPECT_EQ(err.find("error reading file") != std::string::npos, c.file != "index.ini") << err;
  }
}

TEST_F(DacFiles, ValuesKeepTheirLow16BitsAndTheWriteRefusesTooLargeOnes)
{
  dac_data d{};
  EXPECT_FALSE(varkel::detail::parse_module_dacs(module_text(0, "fbk=101", "fbk=65543"), d));
  EXPECT_EQ(d.fbk[0], 7);
  EXPECT_EQ(d.discl[35], 36);
  const auto failed = varkel::detail::parse_module_dacs(module_text(0, "[SENSOR 2]", "[SENSOR 2"), d);
  ASSERT_TRUE(failed);
  EXPECT_GT(failed->line, 0u);

  // One board: chips 1..12 sit on board 2, which it lacks; the selection reports
  // -3, the chip command and the writes still go out.
  FakeDetector lite(varkelLite);
  EXPECT_EQ(configure_module_dacs_with_file(lite.handle(), index().c_str()), -3);
  const Commands sent = lite.module(1).commands(), chip1 = chip_writes(1, 1);
  ASSERT_EQ(sent.size(), 12u * 5);
  EXPECT_EQ(Commands(sent.begin(), sent.begin() + 5), Commands(chip1.begin() + 1, chip1.end()));

  // A calibrated value of 300 fails that one write (-5); the others go out.
  write("module1.ini", module_text(1, "cas=152", "cas=300"));
  FakeDetector trio(varkelTrio);
  EXPECT_EQ(configure_module_dacs_with_file(trio.handle(), index().c_str()), -5);
  EXPECT_EQ(trio.module(1).commands().size(), 36u * 6 - 1);
}

TEST(RunDacsAllChips, SelectsEachChipNumberThenRunsTheOperationAndOrsItsResults)
{
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  const method op = [](varkel_t* h, varkel_dac_t dac, int value) {
    const int chip = h->sensor_pos.sensorPos;
    return set_dac(h, dac, value, VARKEL_SEND_ONE_CHIP_ONE_MODULE) | (chip == 3 ? 4 : chip == 30 ? 8 : 0);
  };
  EXPECT_EQ(run_dacs_all_chips(v, DAC_Test, 9, op), 12);
  const Commands sent = det.module(4).commands();
  ASSERT_EQ(sent.size(), 36u * 3);
  EXPECT_EQ(Commands(sent.end() - 3, sent.end()),
            (Commands{"SelectMedipixBoard_Command 1 0", "HS_ImgChipNumberID_Command 1 11", dac_cmd(DAC_Test, 9)}));
}

} // namespace
