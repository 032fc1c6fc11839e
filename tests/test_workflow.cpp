// The library's workflows: acquire and wait (only the values given written, in
// the order the values in force allow; every way the wait ends early stops the
// modules), progress on the simulator, one chip's scan, and the DAC files.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "fake_detector.hpp"
#include "files.hpp"
#include "link.h"
#include "simulated_detector.hpp"
#include "workflow.h"

using namespace varkel::testing;
using Lines = std::vector<std::string>;

namespace {

Lines on_all(const std::string& command, int modules = 4)
{
  Lines out;
  for (int m = 1; m <= modules; ++m)
    out.push_back(std::to_string(m) + ":" + command);
  return out;
}
Lines operator+(Lines a, const Lines& b)
{
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Four controllers that keep exposure, period and count (in force: 62.5 ms every
// 125 ms, 4 exposures) and count every exposure at the first look after a start,
// unless the test holds the count or spoils one command of module 1.
struct Controllers {
  enum class Fault { none, refuse, close, silence };
  struct Module {
    unsigned exposure_us = 62500, period_us = 125000, exposures = 4, counter = 100;
  };

  Controllers()
  {
    for (int m = 1; m <= 4; ++m)
      det.module(m).set_handler([this, m](const Request& r) { return answer(m, r); });
  }
  Reply answer(int m, const Request& r)
  {
    std::lock_guard lock(mutex);
    log.push_back(std::to_string(m) + ":" + r.command());
    started |= m == 1 && r.command() == "HS_Acquire_Command 1 1";
    if (m == 1 && fault != Fault::none && r.command().rfind(spoiled, 0) == 0 && (started || !after_start))
      return fault == Fault::refuse  ? Reply::error("interlock: refused")
             : fault == Fault::close ? Reply::close()
                                     : Reply{{}, Reply::Action::silence};
    Module& s = modules[m - 1];
    const bool write = r.params.size() == 2 && r.params[0] == "1";
    const unsigned value = write ? static_cast<unsigned>(std::stoul(r.params[1])) : 0;
    const auto text = [](const char* format, auto... args) {
      char out[128];
      std::snprintf(out, sizeof out, format, args...);
      return Reply::result(out);
    };
    if (r.method == "HS_AcquireTime_Command")
      return write ? (s.exposure_us = value, text("AcquireTime set with %f seconds", value / 1e6))
                   : text("%f", s.exposure_us / 1e6);
    if (r.method == "HS_AcquirePeriod_Command")
      return write ? (s.period_us = value, text("AcquirePeriod set to %f second(s)", value / 1e6))
                   : text("%u", s.period_us);
    if (r.method == "HS_NumExposures_Command")
      return write ? (s.exposures = value, text("Number of Exposures set to %u", value)) : text("%u", s.exposures);
    if (r.method == "HS_Acquire_Command" && write && value == 1 && !hold)
      s.counter += s.exposures;
    if (r.method == "HS_NumExposuresCounter_RBV")
      return text("%u", s.counter);
    if (r.method == "HS_TimeRemaining_RBV")
      return text("%f seconds left", 1.0);
    return Reply::result("OK");
  }
  void arm(Fault f, const std::string& command, bool once_started, bool hold_count)
  {
    std::lock_guard lock(mutex);
    std::tie(fault, spoiled, after_start, hold) = std::tuple(f, command, once_started, hold_count);
  }
  // Commands that wrote something ("... 1 <value>"), as "module:command".
  Lines writes()
  {
    std::lock_guard lock(mutex);
    Lines out;
    for (const auto& line : log)
      if (line.find("_Command 1 ") != std::string::npos)
        out.push_back(line);
    return out;
  }

  FakeDetector det{varkelQuad};
  std::mutex mutex;
  Lines log;
  Module modules[4];
  bool hold = false; // the counter never moves: the wait lasts
  Fault fault = Fault::none;
  std::string spoiled;      // module 1's command (prefix) that meets the fault
  bool after_start = false; // only once module 1 has started
  bool started = false;
};

varkel_acquire_request_t request(double exposure, double period, int exposures, int lead = 0)
{
  varkel_acquire_request_t r;
  varkel_acquire_request_init(&r);
  r.exposure = exposure;
  r.period = period;
  r.exposures = exposures;
  r.lead_module = lead;
  return r;
}

const Lines kStart = {"1:HS_Acquire_Command 1 1"};

TEST(Acquire, WritesOnlyWhatTheRequestGivesInTheOrderTheValuesInForceAllow)
{
  const struct {
    const char* what;
    varkel_acquire_request_t r;
    Lines writes;
  } cases[] = {
      {"nothing", request(-1, -1, 0), kStart},
      {"count only", request(-1, -1, 3), on_all("HS_NumExposures_Command 1 3") + kStart},
      {"longer exposure waits for its period", request(0.25, 0.5, 0),
       on_all("HS_AcquirePeriod_Command 1 500000") + on_all("HS_AcquireTime_Command 1 250000") + kStart},
      {"shorter period waits for its exposure", request(0.03125, 0.0625, 0),
       on_all("HS_AcquireTime_Command 1 31250") + on_all("HS_AcquirePeriod_Command 1 62500") + kStart},
      {"module 2 leads", request(-1, -1, 0, 2),
       Lines{"1:HS_Trigger_Command 1 1", "3:HS_Trigger_Command 1 1", "4:HS_Trigger_Command 1 1",
             "2:HS_TriggerOut_Command 1 6"} +
           kStart + Lines{"2:HS_Acquire_Command 1 1"}},
  };
  for (const auto& c : cases) {
    Controllers fake;
    varkel_acquire_result_t result{};
    EXPECT_EQ(varkel_acquire(fake.det.handle(), &c.r, &result), 0) << c.what;
    EXPECT_EQ(fake.writes(), c.writes) << c.what;
    EXPECT_EQ(std::pair(result.exposures_done, result.stopped), std::pair(c.r.exposures > 0 ? c.r.exposures : 4, 0))
        << c.what;
  }
}

TEST(Acquire, RefusesAnExposureOutsideItsPeriodAndAnyRefusedWrite)
{
  const struct {
    varkel_acquire_request_t r;
    const char* spoiled;
    int rc;
    Lines writes;
    const char* says;
  } cases[] = {
      {request(0.3, -1, 0), "", -3, {}, "exposure 0.3 s does not fit the period 0.125 s"},
      {request(0.25, 0.125, 2), "", -3, {}, "exposure 0.25 s does not fit the period 0.125 s"},
      {request(0.5, -1, 0, 5), "", -7, {}, "there is no module 5 to lead"},
      {request(-1, 0.5, 0), "HS_AcquirePeriod_Command 1", VARKEL_REFUSED, on_all("HS_AcquirePeriod_Command 1 500000"),
       "the controller refused HS_AcquirePeriod_Command 1 500000: interlock: refused"},
  };
  for (const auto& c : cases) {
    Controllers fake;
    fake.arm(*c.spoiled ? Controllers::Fault::refuse : Controllers::Fault::none, c.spoiled, false, false);
    varkel_t* v = fake.det.handle();
    EXPECT_EQ(varkel_acquire(v, &c.r, nullptr), c.rc) << c.says;
    EXPECT_EQ(fake.writes(), c.writes) << c.says;
    varkel_failure_t f;
    EXPECT_EQ(varkel_last_failure(v, &f), c.rc);
    EXPECT_STREQ(f.text, c.says);
    EXPECT_EQ(varkel_acquiring(v), 0);
  }
}

volatile sig_atomic_t signalled = 0;

TEST(Acquire, EveryEarlyEndStopsEveryModuleItStillReaches)
{
  struct Case {
    const char* what;
    int rc;
    Controllers::Fault fault;
    int first_stopped; // modules first_stopped..4 get the stop
  };
  const Case cases[] = {
      {"deadline", ETIMEDOUT, Controllers::Fault::none, 1},
      {"cancel from a thread", ECANCELED, Controllers::Fault::none, 1},
      {"cancel from a signal handler", ECANCELED, Controllers::Fault::none, 1},
      {"refused count", VARKEL_REFUSED, Controllers::Fault::refuse, 1},
      {"closed connection", -1, Controllers::Fault::close, 2},
      {"silent controller", -1, Controllers::Fault::silence, 1},
  };
  for (const Case& c : cases) {
    Controllers fake;
    fake.arm(c.fault, "HS_NumExposuresCounter_RBV", true, true);
    varkel_t* v = fake.det.handle();
    ASSERT_EQ(varkel_set_timeouts(v, 1, 0.3), 0);
    varkel_acquire_request_t r = request(-1, -1, 0);
    r.deadline = c.rc == ETIMEDOUT ? 0.3 : 20;
    signalled = 0;
    r.cancel = &signalled;
    const std::string what = c.what;
    if (what == "cancel from a signal handler") {
      std::signal(SIGUSR1, [](int) { signalled = 1; });
      r.progress = [](const varkel_acquire_progress_t* p, void*) {
        if (p->elapsed > 0.1)
          std::raise(SIGUSR1);
      };
    }
    std::thread canceller([&] {
      if (what == "cancel from a thread") {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        signalled = 1;
      }
    });
    varkel_acquire_result_t result{};
    const auto t0 = std::chrono::steady_clock::now();
    const int rc = varkel_acquire(v, &r, &result);
    canceller.join();
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(rc, c.rc) << c.what;
    EXPECT_LT(took, 3.0) << c.what;
    EXPECT_EQ(result.stopped, 1) << c.what;
    const Lines log = fake.writes();
    for (int m = c.first_stopped; m <= 4; ++m)
      EXPECT_EQ(std::count(log.begin(), log.end(), std::to_string(m) + ":HS_Acquire_Command 1 0"), 1) << c.what << m;
  }
  std::signal(SIGUSR1, SIG_DFL);
}

TEST(Acquire, ReportsProgressUntilEveryExposureIsDoneOnTheSimulator)
{
  SimulatedDetector d(options_without_frame(varkelLite));
  ASSERT_EQ(d.connected, 0);
  struct Seen {
    varkel_t* v;
    std::vector<varkel_acquire_progress_t> progress;
    bool acquiring = true;
    int second = 0;
  } seen{d.v, {}};
  varkel_acquire_request_t r = request(0.02, 0.05, 6);
  r.user = &seen;
  r.progress = [](const varkel_acquire_progress_t* p, void* user) {
    auto& s = *static_cast<Seen*>(user);
    s.progress.push_back(*p);
    s.acquiring &= varkel_acquiring(s.v) == 1;
    s.second = varkel_acquire(s.v, nullptr, nullptr); // one run at a time
  };
  varkel_acquire_result_t result{};
  ASSERT_EQ(varkel_acquire(d.v, &r, &result), 0);
  EXPECT_EQ(std::tuple(result.exposures_done, result.frames, result.stopped), std::tuple(6, 6u, 0));
  EXPECT_EQ(std::tuple(seen.acquiring, varkel_acquiring(d.v), seen.second), std::tuple(true, 0, VARKEL_BUSY));
  ASSERT_GE(seen.progress.size(), 3u); // 0.27 s at a look every 50 ms
  for (std::size_t i = 1; i < seen.progress.size(); ++i) {
    const auto &a = seen.progress[i - 1], &b = seen.progress[i];
    EXPECT_LE(a.fraction, b.fraction);
    EXPECT_LE(a.exposures_done, b.exposures_done);
    EXPECT_LT(a.elapsed, b.elapsed);
  }
  const auto& last = seen.progress.back();
  EXPECT_EQ(std::tuple(last.fraction, last.exposures_done, last.exposures), std::tuple(1.0, 6, 6));
  EXPECT_LT(seen.progress.front().fraction, 1.0);
}

TEST(ScanChip, ScansAWorkingChipTowardItsAimAndRefusesTheRestSendingNothing)
{
  SimulatedDetector d(options_without_frame(varkelQuad, {{2, 29}}));
  ASSERT_EQ(d.connected, 0);
  ASSERT_EQ(check_and_disable_sensors(d.v), 0);
  const struct {
    int module, chip;
    varkel_dac_t dac;
    int step, rc;
  } cases[] = {
      {2, 30, DAC_GND, 5, 0}, {3, 1, DAC_CAS, 5, 0},   {2, 29, DAC_GND, 5, VARKEL_CHIP_OFF},
      {5, 1, DAC_GND, 5, -7}, {1, 37, DAC_GND, 5, -4}, {1, 1, DAC_DiscL, 5, -5},
      {1, 1, DAC_GND, 1, -5},
  };
  for (const auto& c : cases) {
    const uint64_t sent = d.sim.commands(1) + d.sim.commands(2) + d.sim.commands(3) + d.sim.commands(4);
    int code = -1;
    double volts = 0;
    EXPECT_EQ(varkel_scan_chip(d.v, c.module, c.chip, c.dac, 0, 255, c.step, &code, &volts), c.rc) << c.chip;
    if (c.rc == 0) {
      EXPECT_NEAR(volts, varkel_scan_aim(c.dac), 0.03);
      EXPECT_GT(code, 0);
    } else {
      EXPECT_EQ(d.sim.commands(1) + d.sim.commands(2) + d.sim.commands(3) + d.sim.commands(4), sent) << c.chip;
    }
  }
  varkel_failure_t f;
  EXPECT_EQ(varkel_last_failure(d.v, &f), VARKEL_CHIP_OFF);
  EXPECT_EQ(std::tuple(f.module, f.chip, std::string(f.text)),
            std::tuple(2, 29, std::string("chip 29 is switched off")));
  EXPECT_EQ(varkel_scan_aim(DAC_FBK), 0.9);
}

TEST(LoadDacFiles, ACorruptFileIsNamedWithItsKeyAndNothingIsSent)
{
  const TempFile index("workflow-index"), module3("workflow-module3");
  const std::string examples = std::string(VARKEL_SOURCE_DIR) + "/examples/dacs/module";
  index.write("[paths]\nMODULE 1=" + examples + "1.ini\nMODULE 2=" + examples + "2.ini\nMODULE 3=" + module3.path +
              "\nMODULE 4=" + examples + "4.ini\n");
  const std::string good = read_file(examples + "3.ini");
  const std::string corrupt = std::string(good).replace(good.find("gnd="), 4, "gnd=abc");
  const struct {
    std::string text;
    int rc;
    Lines says;
  } cases[] = {
      {corrupt, -1, {module3.path, "gnd", "abc", "SENSOR 1"}},
      {"", -1, {module3.path}},
      {good, 0, {}},
  };
  for (const auto& c : cases) {
    c.text.empty() ? void(std::remove(module3.path.c_str())) : module3.write(c.text);
    FakeDetector det(varkelQuad);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(varkel_load_dac_files(det.handle(), index.path.c_str()), c.rc);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(det.module(4).commands().empty(), c.rc != 0);
    varkel_failure_t f;
    varkel_last_failure(det.handle(), &f);
    for (const auto& word : c.says)
      EXPECT_NE(std::string(f.text).find(word), std::string::npos) << f.text;
    EXPECT_EQ(std::string(f.text).find('\033'), std::string::npos);
  }
}

} // namespace
