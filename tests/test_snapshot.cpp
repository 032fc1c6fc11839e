// Configuration snapshots on the simulator, the Quad and a one-board model: the
// round trip, what a refused file sends (nothing), how many commands an apply
// costs, what it leaves alone while an acquisition runs; diffs of two files.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <set>
#include <tuple>

#include "files.hpp"
#include "internal/handle.hpp"
#include "simulated_detector.hpp"
#include "snapshot.h"

using namespace varkel::testing;

namespace {

// A model, its chip switched off (module, chip), and chips to change.
struct Model {
  varkel_detector_model_t model;
  int module, off, chip, other_chip;
  const char* name;
};
// By name: gtest would otherwise print the bytes, padding included.
void PrintTo(const Model& m, std::ostream* out) { *out << m.name; }

struct Snapshots : ::testing::TestWithParam<Model> {
  void SetUp() override
  {
    ASSERT_EQ(det.connected, 0);
    det.v->sensor_disabled[m.module - 1][m.off - 1] = true; // as the presence check leaves it
  }
  void TearDown() override { varkel_snapshot_report_free(&report); }
  // Commands the simulator received, per module (index 1 to 4) and in all (index 0).
  std::vector<uint64_t> counts() const
  {
    std::vector<uint64_t> n(5);
    for (int module = 1; module <= det.sim.modules(); ++module)
      n[0] += n[module] = det.sim.commands(module);
    return n;
  }
  uint64_t sent() const { return counts()[0]; }
  void put(const char* name, int module, int chip, double value)
  {
    varkel_failure_t f{};
    ASSERT_EQ(varkel_setting_put(det.v, varkel_setting_find(name), module, chip, value), 0)
        << name << ": " << (varkel_last_failure(det.v, &f), f.text);
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

  const Model m = GetParam();
  SimulatedDetector det{options_without_frame(m.model, {{m.module, m.off}})};
  varkel_snapshot_report_t report{};
  TempFile saved{"saved"};
};

TEST_P(Snapshots, RoundTripDiffsAndAppliesExactlyWhatChanged)
{
  const uint64_t connected = sent();
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0) << report.message;
  const std::string text = saved.text();
  const std::string off = "[module" + std::to_string(m.module) + "/chip" + std::to_string(m.off) + "]";
  const int boards = det.v->max_num_boards;
  EXPECT_NE(text.find("[snapshot]\nformat=1\nmodel=" + std::string(m.name) + "\n"), std::string::npos) << text;
  EXPECT_NE(text.find(off + "\ndisabled=1\n\n"), std::string::npos); // and nothing else
  EXPECT_NE(text.find("dac.THRESHOLD0="), std::string::npos);
  EXPECT_NE(text.find("bias.board" + std::to_string(boards - 1) + "="), std::string::npos);
  EXPECT_EQ(text.find("bias.board" + std::to_string(boards) + "="), std::string::npos);
  EXPECT_EQ(report.commands, sent() - connected);

  const int last = det.sim.modules();
  const std::tuple<int, int, const char*, double> puts[] = {
      {1, 0, "exposure", 0.125},
      {m.module, m.chip, "gain", 3},
      {last, m.off, "dac.GND", 77}, // a working chip on the other modules of the Quad
      {last, m.other_chip, "counter-depth", 0},
      {1, 0, "image-mode", 1}}; // the last turns the readout mode into crw
  std::set<Entry> changes = {{0, 0, "readout-mode", VARKEL_MEDIPIX_MODE_DEFAULT, VARKEL_MEDIPIX_MODE_CRW}};
  for (const auto& [module, chip, name, value] : puts) {
    if (module == m.module && chip == m.off)
      continue; // the one-board model has only one module
    double was = -1;
    ASSERT_EQ(varkel_setting_get(det.v, varkel_setting_find(name), module, chip, &was), 0);
    put(name, module, chip, value);
    changes.insert({module, chip, name, static_cast<float>(was), static_cast<float>(value)});
  }
  ASSERT_EQ(varkel_snapshot_diff(det.v, saved.path.c_str(), nullptr, &report), 0) << report.message;
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

// A saved exposure longer than the period the detector holds now waits for the
// saved period: apply writes that first, or the exposure would be refused.
TEST_P(Snapshots, ApplyWritesTheLongerPeriodBeforeTheExposure)
{
  put("period", 1, 0, 2);
  put("exposure", 1, 0, 1.5);
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0);
  put("exposure", 1, 0, 0.01);
  put("period", 1, 0, 0.1);
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0) << report.message;
  ASSERT_EQ(report.count, 2u);
  EXPECT_EQ(std::string(report.entries[0].name) + " " + report.entries[1].name, "period exposure");
}

// Only read-backs when nothing differs; one changed DAC costs its chip selection
// (board and chip), its write and its read-back on its module alone.
TEST_P(Snapshots, ApplySendsOnlyWhatDiffers)
{
  ASSERT_EQ(varkel_snapshot_save(det.v, saved.path.c_str(), &report), 0);
  std::vector<uint64_t> unchanged = counts();
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0);
  EXPECT_EQ(report.count, 0u);
  const std::vector<uint64_t> before = counts();
  const int modules = det.sim.modules();
  for (int module = 0; module <= modules; ++module)
    unchanged[module] = before[module] - unchanged[module];

  put("dac.FBK", m.module, m.chip, 10);
  const std::vector<uint64_t> put_done = counts();
  ASSERT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), 0);
  ASSERT_EQ(report.count, 1u);
  EXPECT_STREQ(report.entries[0].name, "dac.FBK");
  for (int module = 1; module <= modules; ++module)
    EXPECT_EQ(counts()[module] - put_done[module], unchanged[module] + (module == m.module ? 4 : 0)) << module;

  // While an acquisition runs, what would change it is not written.
  put("exposure", 1, 0, 0.25);
  put("dac.FBK", m.module, m.chip, 10);
  varkel::detail::extras(det.v).acquiring = true;
  EXPECT_EQ(varkel_snapshot_apply(det.v, saved.path.c_str(), &report), VARKEL_BUSY);
  varkel::detail::extras(det.v).acquiring = false;
  ASSERT_EQ(report.count, 2u) << report.message;
  EXPECT_EQ(std::string(report.entries[0].name) + std::to_string(report.entries[0].written) +
                std::to_string(report.entries[0].verified),
            "exposure00");
  EXPECT_EQ(report.entries[1].verified, 1);
}

TEST_P(Snapshots, RefusedFileSendsNothingAndNamesItsLine)
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
  // The GND DAC of a working chip, out of range.
  const std::string chip = "[module" + std::to_string(det.sim.modules()) + "/chip" + std::to_string(m.chip) + "]";
  const size_t gnd = good.find("dac.GND=", good.find(chip));
  const std::string model = "model=" + std::string(m.name);
  const std::string out_of_range = good.substr(0, gnd) + "dac.GND=300" + good.substr(good.find('\n', gnd));
  const Case cases[] = {
      {"missing", "", VARKEL_SNAPSHOT_BAD_FILE, 0},
      {"malformed", replaced(model + "\n", model + "\nthis is no key\n"), VARKEL_SNAPSHOT_BAD_FILE, 4},
      {"version", replaced("format=1", "format=2"), VARKEL_SNAPSHOT_BAD_VERSION, 2},
      {"model", replaced(model, "model=trio"), VARKEL_SNAPSHOT_BAD_MODEL, 3},
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

INSTANTIATE_TEST_SUITE_P(Models, Snapshots,
                         ::testing::Values(Model{varkelQuad, 2, 30, 7, 1, "quad"},
                                           Model{varkelLite, 1, 30, 26, 36, "lite"}),
                         [](const auto& info) { return std::string(info.param.name); });

// Two files: a value both hold otherwise, and what either holds and the other
// lacks (the missing side NaN, here -1).
TEST(SnapshotFiles, DiffListsValuesOfEitherFileAlone)
{
  TempFile one("one"), two("two");
  one.write("[snapshot]\nformat=1\nmodel=trio\n[module1]\nexposure=0.5\n");
  two.write("[snapshot]\nformat=1\nmodel=trio\n[module1]\nexposure=0.25\nperiod=0.75\n[module1/chip3]\ngain=low\n");
  for (const auto& [first, second] : {std::pair{&one, &two}, std::pair{&two, &one}}) {
    varkel_snapshot_report_t report{};
    ASSERT_EQ(varkel_snapshot_diff(nullptr, first->path.c_str(), second->path.c_str(), &report), 0);
    std::vector<std::tuple<int, int, std::string, double, double>> found,
        wanted = {{1, 0, "exposure", 0.5, 0.25}, {1, 0, "period", -1, 0.75}, {1, 3, "gain", -1, 1}};
    for (size_t i = 0; i < report.count; ++i) {
      const varkel_snapshot_entry_t& e = report.entries[i];
      found.push_back(
          {e.module, e.chip, e.name, std::isnan(e.wanted) ? -1 : e.wanted, std::isnan(e.found) ? -1 : e.found});
    }
    if (first == &two)
      for (auto& [module, chip, name, a, b] : wanted)
        std::swap(a, b);
    EXPECT_EQ(found, wanted);
    varkel_snapshot_report_free(&report);
  }
}

} // namespace
