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
// unless the count is held; one command of module 1 (a prefix) may meet a fault,
// before the start or only after it.
struct Controllers {
  enum Fault { none, refuse, close, silence };
  struct Module {
    unsigned exposure_us = 62500, period_us = 125000, exposures = 4, counter = 100;
  };

  Controllers(Fault f = none, std::string command = "", bool once_started = false, bool hold_count = false)
      : fault(f), spoiled(std::move(command)), after_start(once_started), hold(hold_count)
  {
    for (int m = 1; m <= 4; ++m)
      det.module(m).set_handler([this, m](const Request& r) { return answer(m, r); });
  }
  Reply answer(int m, const Request& r)
  {
    std::lock_guard lock(mutex);
    log.push_back(std::to_string(m) + ":" + r.command());
    started |= m == 1 && r.command() == "HS_Acquire_Command 1 1";
    if (m == 1 && fault != none && r.command().rfind(spoiled, 0) == 0 && started == after_start)
      return fault == refuse ? Reply::error("interlock: refused")
                             : Reply{{}, fault == close ? Reply::Action::close : Reply::Action::silence};
    Module& s = modules[m - 1];
    const bool write = r.params.size() == 2 && r.params[0] == "1";
    const unsigned value = write ? static_cast<unsigned>(std::stoul(r.params[1])) : 0;
    char out[128] = "OK";
    if (r.method == "HS_AcquireTime_Command")
      write ? (s.exposure_us = value, snprintf(out, sizeof out, "AcquireTime set with %f seconds", value / 1e6))
            : snprintf(out, sizeof out, "%f", s.exposure_us / 1e6);
    else if (r.method == "HS_AcquirePeriod_Command")
      write ? (s.period_us = value, snprintf(out, sizeof out, "AcquirePeriod set to %f second(s)", value / 1e6))
            : snprintf(out, sizeof out, "%u", s.period_us);
    else if (r.method == "HS_NumExposures_Command")
      write ? (s.exposures = value, snprintf(out, sizeof out, "Number of Exposures set to %u", value))
            : snprintf(out, sizeof out, "%u", s.exposures);
    else if (r.method == "HS_NumExposuresCounter_RBV")
      snprintf(out, sizeof out, "%u", s.counter);
    else if (r.method == "HS_TimeRemaining_RBV")
      snprintf(out, sizeof out, "1.000000 seconds left");
    s.counter += r.method == "HS_Acquire_Command" && value == 1 && !hold ? s.exposures : 0;
    return Reply::result(out);
  }
  // Commands that wrote something ("... 1 <value>"), as "module:command".
  Lines writes()
  {
    std::lock_guard lock(mutex);
    Lines out;
    std::copy_if(log.begin(), log.end(), std::back_inserter(out),
                 [](const std::string& l) { return l.find("_Command 1 ") != std::string::npos; });
    return out;
  }

  std::mutex mutex;
  Lines log;
  Module modules[4];
  const Fault fault;
  const std::string spoiled;
  const bool after_start, hold; // the fault only once module 1 started; the counter never moves
  bool started = false;
  FakeDetector det{varkelQuad}; // last: its servers stop before the rest goes
};

varkel_acquire_request_t request(double exposure, double period, int exposures, int lead = 0)
{
  varkel_acquire_request_t r;
  varkel_acquire_request_init(&r);
  std::tie(r.exposure, r.period, r.exposures, r.lead_module) = std::tuple(exposure, period, exposures, lead);
  return r;
}

const Lines kStart = {"1:HS_Acquire_Command 1 1"};

TEST(Acquire, WritesOnlyWhatTheRequestGivesInTheOrderTheValuesInForceAllowAndNoRefusedValue)
{
  const struct {
    varkel_acquire_request_t r;
    const char* refused; // module 1's command the controller refuses
    int rc;
    Lines writes;
    const char* says; // the failure noted
  } cases[] = {
      {request(-1, -1, 0), "", 0, kStart, ""},
      {request(-1, -1, 3), "", 0, on_all("HS_NumExposures_Command 1 3") + kStart, ""},
      {request(0.25, 0.5, 0), "", 0,
       on_all("HS_AcquirePeriod_Command 1 500000") + on_all("HS_AcquireTime_Command 1 250000") + kStart, ""},
      {request(0.03125, 0.0625, 0), "", 0,
       on_all("HS_AcquireTime_Command 1 31250") + on_all("HS_AcquirePeriod_Command 1 62500") + kStart, ""},
      {request(-1, -1, 0, 2), "", 0,
       Lines{"1:HS_Trigger_Command 1 1", "3:HS_Trigger_Command 1 1", "4:HS_Trigger_Command 1 1",
             "2:HS_TriggerOut_Command 1 6"} +
           kStart + Lines{"2:HS_Acquire_Command 1 1"},
       ""},
      {request(0.3, -1, 0), "", -3, {}, "exposure 0.3 s does not fit the period 0.125 s"},
      {request(0.25, 0.125, 2), "", -3, {}, "exposure 0.25 s does not fit the period 0.125 s"},
      {request(0.5, -1, 0, 5), "", -7, {}, "there is no module 5 to lead"},
      {request(-1, 0.5, 0), "HS_AcquirePeriod_Command 1", VARKEL_REFUSED, on_all("HS_AcquirePeriod_Command 1 500000"),
       "the controller refused HS_AcquirePeriod_Command 1 500000: interlock: refused"},
  };
  for (const auto& c : cases) {
    Controllers fake(*c.refused ? Controllers::refuse : Controllers::none, c.refused);
    varkel_t* v = fake.det.handle();
    varkel_acquire_result_t result{};
    EXPECT_EQ(varkel_acquire(v, &c.r, &result), c.rc) << c.says;
    EXPECT_EQ(fake.writes(), c.writes) << c.says;
    EXPECT_EQ(result.exposures_done, c.rc != 0 ? 0 : c.r.exposures > 0 ? c.r.exposures : 4);
    varkel_failure_t f{};
    varkel_last_failure(v, &f);
    EXPECT_STREQ(f.text, c.says);
    EXPECT_EQ(std::pair(result.stopped, varkel_acquiring(v)), std::pair(0, 0));
  }
}

volatile sig_atomic_t signalled = 0;

TEST(Acquire, EveryEarlyEndStopsEveryModuleItStillReaches)
{
  const struct {
    const char* what;
    int rc;
    Controllers::Fault fault; // of module 1's exposure counter once started
    int first_stopped;        // modules first_stopped..4 get the stop
  } cases[] = {
      {"deadline", ETIMEDOUT, Controllers::none, 1},
      {"cancel from a thread", ECANCELED, Controllers::none, 1},
      {"refused count", VARKEL_REFUSED, Controllers::refuse, 1},
      {"closed connection", -1, Controllers::close, 2},
      {"silent controller", -1, Controllers::silence, 1},
  };
  for (const auto& c : cases) {
    Controllers fake(c.fault, "HS_NumExposuresCounter_RBV", true, true);
    varkel_t* v = fake.det.handle();
    ASSERT_EQ(varkel_set_timeouts(v, 1, 0.3), 0);
    varkel_acquire_request_t r = request(-1, -1, 0);
    r.deadline = c.rc == ETIMEDOUT ? 0.3 : 20;
    signalled = 0;
    r.cancel = &signalled;
    std::thread canceller([&] {
      if (std::string(c.what) == "cancel from a thread") {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        __atomic_store_n(&signalled, 1, __ATOMIC_RELEASE); // as a caller's thread would
      }
    });
    varkel_acquire_result_t result{};
    const int rc = varkel_acquire(v, &r, &result);
    canceller.join();
    EXPECT_EQ(std::tuple(rc, result.stopped), std::tuple(c.rc, 1)) << c.what;
    EXPECT_LT(result.elapsed, 3.0) << c.what;
    const Lines log = fake.writes();
    for (int m = c.first_stopped; m <= 4; ++m)
      EXPECT_EQ(std::count(log.begin(), log.end(), std::to_string(m) + ":HS_Acquire_Command 1 0"), 1) << c.what << m;
  }
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
  varkel_acquire_request_t r = request(0.02, 0.1, 6);
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
  ASSERT_GE(seen.progress.size(), 3u); // 0.52 s at a look every 50 ms
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

// As a C program does it: Ctrl-C's handler sets the flag, and every simulated
// module is stopped before the call returns.
TEST(Acquire, ASignalHandlerCancelsAndEveryModuleOfTheSimulatorStops)
{
  SimulatedDetector d(options_for(varkelQuad));
  ASSERT_EQ(d.connected, 0);
  signalled = 0;
  std::signal(SIGUSR1, [](int) { signalled = 1; });
  varkel_acquire_request_t r = request(0.02, 0.05, 40, 1);
  r.cancel = &signalled;
  r.progress = [](const varkel_acquire_progress_t* p, void*) {
    p->exposures_done >= 2 ? void(std::raise(SIGUSR1)) : void();
  };
  varkel_acquire_result_t result{};
  EXPECT_EQ(varkel_acquire(d.v, &r, &result), ECANCELED);
  std::signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(result.stopped, 1);
  EXPECT_LT(result.exposures_done, 40);
  for (int m = 1; m <= d.sim.modules(); ++m)
    EXPECT_FALSE(d.sim.module(m).acquiring) << m;
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
  const auto sent = [&] { return d.sim.commands(1) + d.sim.commands(2) + d.sim.commands(3) + d.sim.commands(4); };
  for (const auto& c : cases) {
    const uint64_t before = sent();
    int code = -1;
    double volts = 0;
    EXPECT_EQ(varkel_scan_chip(d.v, c.module, c.chip, c.dac, 0, 255, c.step, &code, &volts), c.rc) << c.chip;
    if (c.rc == 0) {
      EXPECT_NEAR(volts, varkel_scan_aim(c.dac), 0.03);
      EXPECT_GT(code, 0);
    } else {
      EXPECT_EQ(sent(), before) << c.chip;
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
