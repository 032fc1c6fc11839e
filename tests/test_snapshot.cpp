// Configuration snapshots on the simulator: the round trip, what a refused file
// sends (nothing), and how many commands an apply costs.
#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <tuple>

#include "files.hpp"
#include "simulated_detector.hpp"
#include "snapshot.h"

using namespace varkel::testing;

namespace {

struct Snapshots : ::testing::Test {
  void SetUp() override
  {
    ASSERT_EQ(det.connected, 0);
    det.v->sensor_disabled[1][29] = true; // as the presence check leaves it
  }
  void TearDown() override { varkel_snapshot_report_free(&report); }
  // Commands the simulator received, per module (index 1 to 4) and in all (index 0).
  std::vector<uint64_t> counts() const
  {
    std::vector<uint64_t> n(5);
    for (int m = 1; m <= 4; ++m)
      n[0] += n[m] = det.sim.commands(m);
    return n;
  }
  uint64_t sent() const { return counts()[0]; }
  void put(const char* name, int module, int chip, double value)
  {
    ASSERT_EQ(varkel_setting_put(det.v, varkel_setting_find(name), module, chip, value), 0) << name;
  }
  // Values as the handle keeps them: floats.
  using Entry = std::tuple<int, int, std::string, float, float>;
  std::set<Entry> entries() const
  {
    std::set<Entry> out;
    for (size_t i = 0; i < report.count; ++i) {
      const varkel_snapshot_entry_t& e = report.entries[i];
      out.insert({e.module, e.chip, e.name, static_cast<float>(e.wanted), static_cast<float>(e.found)});
    }
    return out;
  }

  SimulatedDetector det{options_without_frame(varkelQuad, {{2, 30}})};
  varkel_snapshot_report_t report{};
  TempFile saved{"saved"}, changed{"changed"};
};

TEST_F(Snapshots, RoundTripDiffsAndAppliesExactlyWhatChanged)
{
  const uint64_t connected = sent();
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0) << report.message;
  const std::string text = saved.text();
  EXPECT_NE(text.find("[snapshot]\nformat=1\nmodel=quad\n"), std::string::npos) << text;
  EXPECT_NE(text.find("[module2/chip30]\ndisabled=1\nefuse-id=0\n\n"), std::string::npos);
  EXPECT_NE(text.find("dac.THRESHOLD0="), std::string::npos);
  EXPECT_EQ(report.commands, sent() - connected);

  const std::tuple<int, int, const char*, double> puts[] = {
      {1, 0, "exposure", 0.125},
      {2, 7, "gain", 3},
      {3, 30, "dac.GND", 77},
      {4, 1, "counter-depth", 0},
      {1, 0, "image-mode", 1}}; // the last turns the readout mode into crw
  std::set<Entry> changes = {{0, 0, "readout-mode", VARKEL_MEDIPIX_MODE_DEFAULT, VARKEL_MEDIPIX_MODE_CRW}};
  for (const auto& [module, chip, name, value] : puts) {
    double was = -1;
    ASSERT_EQ(varkel_setting_get(det.v, varkel_setting_find(name), module, chip, &was), 0);
    put(name, module, chip, value);
    changes.insert({module, chip, name, static_cast<float>(was), static_cast<float>(value)});
  }
  ASSERT_EQ(varkel_snapshot_diff(det.v, saved.path.c_str(), nullptr, &report), 0) << report.message;
  EXPECT_EQ(entries(), changes);
  ASSERT_EQ(varkel_snapshot_save(det.v, changed.path.c_str(), &report), 0);
  ASSERT_EQ(varkel_snapshot_diff(nullptr, saved.path.c_str(), changed.path.c_str(), &report), 0);
  EXPECT_EQ(entries(), changes);

  const uint64_t before = sent();
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0) << report.message;
  EXPECT_EQ(report.commands, sent() - before);
  std::set<Entry> applied;
  for (size_t i = 0; i < report.count; ++i) {
    const varkel_snapshot_entry_t& e = report.entries[i];
    EXPECT_TRUE(e.written && e.verified) << e.name;
    applied.insert({e.module, e.chip, e.name, static_cast<float>(e.found), static_cast<float>(e.wanted)});
  }
  std::set<Entry> reverted;
  for (const auto& [module, chip, name, was, now] : changes)
    reverted.insert({module, chip, name, was, was});
  EXPECT_EQ(applied, reverted);
  ASSERT_EQ(varkel_snapshot_diff(det.v, saved.path.c_str(), nullptr, &report), 0);
  EXPECT_EQ(report.count, 0u);
}

// Only read-backs when nothing differs; one changed DAC costs its chip selection
// (board and chip), its write and its read-back on its module alone.
TEST_F(Snapshots, ApplySendsOnlyWhatDiffers)
{
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0);
  const size_t reads = report.commands;
  std::vector<uint64_t> unchanged = counts();
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0);
  EXPECT_EQ(report.count, 0u);
  EXPECT_EQ(report.commands, reads);
  const std::vector<uint64_t> before = counts();
  for (int m = 0; m <= 4; ++m)
    unchanged[m] = before[m] - unchanged[m];

  put("dac.FBK", 2, 7, 10);
  const std::vector<uint64_t> put_done = counts();
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0);
  ASSERT_EQ(report.count, 1u);
  EXPECT_STREQ(report.entries[0].name, "dac.FBK");
  EXPECT_EQ(report.commands, reads + 4);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(counts()[m] - put_done[m], unchanged[m] + (m == 2 ? 4 : 0)) << m;
}

TEST_F(Snapshots, RefusedFileSendsNothingAndNamesItsLine)
{
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0);
  const std::string good = saved.text();
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  const auto line_at = [&](size_t at) {
    return 1 + static_cast<int>(std::count(good.begin(), good.begin() + static_cast<long>(at), '\n'));
  };
  struct Case {
    const char* name;
    std::string text; // empty: no file
    int code, line;
  };
  // The GND DAC of module 3 chip 30, out of range.
  const size_t gnd = good.find("dac.GND=", good.find("[module3/chip30]"));
  const std::string out_of_range = good.substr(0, gnd) + "dac.GND=300" + good.substr(good.find('\n', gnd));
  const Case cases[] = {
      {"missing", "", VARKEL_SNAPSHOT_BAD_FILE, 0},
      {"malformed", replaced("model=quad\n", "model=quad\nthis is no key\n"), VARKEL_SNAPSHOT_BAD_FILE, 4},
      {"version", replaced("format=1", "format=2"), VARKEL_SNAPSHOT_BAD_VERSION, 2},
      {"model", replaced("model=quad", "model=trio"), VARKEL_SNAPSHOT_BAD_MODEL, 3},
      {"range", out_of_range, VARKEL_SNAPSHOT_BAD_VALUE, line_at(gnd)},
      {"name", replaced("[module1]\n", "[module1]\ngain=low\n"), VARKEL_SNAPSHOT_BAD_VALUE,
       line_at(good.find("[module1]")) + 1},
      {"group", good + "[module5]\nexposure=1\n", VARKEL_SNAPSHOT_BAD_VALUE, line_at(good.size())},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempFile file(std::string("refused-") + c.name);
    if (!c.text.empty())
      file.write(c.text);
    const uint64_t before = sent();
    EXPECT_EQ(varkel_snapshot_apply(det.v, file.path.c_str(), &report), c.code) << report.message;
    EXPECT_EQ(report.line, c.line) << report.message;
    EXPECT_NE(report.message[0], '\0');
    EXPECT_EQ(report.commands, 0u);
    EXPECT_EQ(sent(), before);
  }
}

} // namespace
