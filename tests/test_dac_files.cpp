// DAC calibration files: the writes to every enabled chip of every module on its
// own channel, and the failures that must send nothing.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>

#include "fake_detector.hpp"
#include "internal/dac_files.hpp"
#include "varkel.h"

using namespace varkel::testing;
using Commands = std::vector<std::string>;
namespace fs = std::filesystem;

namespace {

// A module file whose chip c holds fbk 100 + c, gnd 50 + c, cas 150 + c and discl c
// (module m adds m to each), with the first `from` replaced by `to`.
std::string module_text(int m, const std::string& from = "", const std::string& to = "")
{
  std::string t;
  for (int c = 1 + m; c <= 36 + m; ++c)
    t += "[SENSOR " + std::to_string(c - m) + "]\nfbk=" + std::to_string(100 + c) + "\ngnd=" + std::to_string(50 + c) +
         "\ncas=" + std::to_string(150 + c) + "\ndiscl=" + std::to_string(c) + "\n";
  return from.empty() ? t : t.replace(t.find(from), from.size(), to);
}

// An index naming `modules` module files, all written in a fresh directory.
struct Files {
  explicit Files(int modules = 4)
  {
    char name[] = "/tmp/varkel-dacs-XXXXXX";
    dir = mkdtemp(name) != nullptr ? name : throw std::runtime_error("no temporary directory");
    std::string index = "[paths]\n";
    for (int m = 1; m <= 4; ++m) {
      const std::string file = "module" + std::to_string(m) + ".ini";
      write(file, module_text(m));
      index += m <= modules ? "MODULE " + std::to_string(m) + "=" + (dir / file).string() + "\n" : "";
    }
    write("index.ini", index);
  }
  ~Files() { fs::remove_all(dir); }
  void write(const std::string& file, const std::string& text) const { std::ofstream(dir / file) << text; }
  int configure(FakeDetector& d) const
  {
    return configure_module_dacs_with_file(d.handle(), (dir / "index.ini").c_str());
  }
  fs::path dir;
};

std::string dac_cmd(int dac, int v) { return "HS_ImgChipDAC 1 " + std::to_string(dac) + " " + std::to_string(v); }

TEST(DacFiles, EveryEnabledChipOfEveryModuleGetsItsFourDacsOnItsOwnChannel)
{
  Files files;
  FakeDetector det(varkelQuad);
  varkel_t* v = det.handle();
  v->sensor_disabled[1][4] = v->sensor_disabled[3][35] = true; // module 2 chip 5, module 4 chip 36
  EXPECT_EQ(files.configure(det), 0);
  for (int m = 1; m <= 4; ++m) {
    Commands expected;
    for (int c = 1; c <= 36; ++c)
      if (!v->sensor_disabled[m - 1][c - 1])
        expected.insert(expected.end(),
                        {"SelectMedipixBoard_Command 1 " + std::to_string(2 - (c - 1) / 12),
                         "HS_ImgChipNumberID_Command 1 " + std::to_string((c - 1) % 12), dac_cmd(DAC_DiscL, c + m),
                         dac_cmd(DAC_GND, 50 + c + m), dac_cmd(DAC_FBK, 100 + c + m), dac_cmd(DAC_CAS, 150 + c + m)});
    EXPECT_EQ(det.module(m).commands(), expected) << m;
  }

  // One board: chips 1..12 sit on board 2, which it lacks; the selection reports
  // -3, the chip command and the writes still go out.
  FakeDetector lite(varkelLite);
  EXPECT_EQ(files.configure(lite), -3);
  const Commands sent = lite.module(1).commands();
  ASSERT_EQ(sent.size(), 12u * 5);
  EXPECT_EQ(std::pair(sent[0], sent[4]),
            std::pair(std::string("HS_ImgChipNumberID_Command 1 0"), dac_cmd(DAC_CAS, 152)));

  // A calibrated value of 300 fails that one write (-5); the others go out.
  files.write("module1.ini", module_text(1, "cas=152", "cas=300"));
  FakeDetector trio(varkelTrio);
  EXPECT_EQ(files.configure(trio), -5);
  EXPECT_EQ(trio.module(1).commands().size(), 36u * 6 - 1);
}

TEST(DacFiles, AFileThatFailsToLoadSendsNothing)
{
  // the file, its text (empty: removed), the modules the index names
  const std::tuple<std::string, std::string, int> cases[] = {
      {"index.ini", "", 4},
      {"index.ini", "", 3},
      {"module3.ini", "", 4},
      {"module4.ini", module_text(4, "[SENSOR 36]", "[SENSOR 37]"), 4},
      {"module2.ini", module_text(2, "discl=38", "disc=38"), 4},
      {"module1.ini", module_text(1, "gnd=71", "gnd=7l"), 4},
      {"module1.ini", "SENSOR 1\nfbk=3\n", 4},
  };
  for (const auto& [file, text, modules] : cases) {
    Files files(modules);
    if (modules == 4)
      text.empty() ? void(fs::remove(files.dir / file)) : files.write(file, text);
    FakeDetector det(varkelLite); // every file counts, even for one module
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(files.configure(det), -1) << file;
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::pair(det.all_commands().size(), err.rfind("\033[31mERROR: \033[0m [dac_files.cpp:", 0)),
              std::pair(0ul, 0ul))
        << file << " " << err;
  }
  // Values keep their low 16 bits.
  dac_data d{};
  EXPECT_FALSE(varkel::detail::parse_module_dacs(module_text(0, "fbk=101", "fbk=65543"), d));
  EXPECT_EQ(std::pair(+d.fbk[0], +d.discl[35]), std::pair(7, 36));
}

TEST(RunDacsAllChips, SelectsEachChipNumberThenRunsTheOperationAndOrsItsResults)
{
  FakeDetector det(varkelQuad);
  const method op = [](varkel_t* h, varkel_dac_t dac, int value) {
    const int chip = h->sensor_pos.sensorPos;
    return set_dac(h, dac, value, VARKEL_SEND_ONE_CHIP_ONE_MODULE) | (chip == 3 ? 4 : chip == 30 ? 8 : 0);
  };
  EXPECT_EQ(run_dacs_all_chips(det.handle(), DAC_Test, 9, op), 12);
  const Commands sent = det.module(4).commands();
  ASSERT_EQ(sent.size(), 36u * 3);
  EXPECT_EQ(Commands(sent.end() - 3, sent.end()),
            (Commands{"SelectMedipixBoard_Command 1 0", "HS_ImgChipNumberID_Command 1 11", dac_cmd(DAC_Test, 9)}));
}

} // namespace
