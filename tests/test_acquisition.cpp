// Acquisition parameters, run, timing and stop against fake controllers.
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/time.h>
#include <thread>
#include <vector>

#include "fake_detector.hpp"
#include "varkel.h"

using namespace std::chrono_literals;
using varkel::testing::FakeDetector;
using varkel::testing::Reply;
using varkel::testing::Request;

namespace {

// Every module answers from one script keyed by command text; the order of all
// commands over all modules is recorded as "module:command".
class Acquisition : public ::testing::Test {
protected:
  void SetUp() override
  {
    det = std::make_unique<FakeDetector>(varkelQuad);
    v = det->handle();
    for (int m = 1; m <= 4; ++m)
      det->module(m).set_handler([this, m](const Request& r) {
        std::lock_guard lock(mutex);
        log.push_back(std::to_string(m) + ":" + r.command());
        if (failing_module == m)
          return Reply::reset();
        const auto it = replies.find(r.command());
        return Reply::result(it != replies.end() ? it->second : "OK");
      });
    start_polling = 0;
    initial_exposure_counter = 0;
  }
  // The fakes' threads use the log: they stop first.
  void TearDown() override { det.reset(); }
  std::vector<std::string> sent()
  {
    std::lock_guard lock(mutex);
    return log;
  }

  std::unique_ptr<FakeDetector> det;
  varkel_t* v = nullptr;
  std::mutex mutex;
  std::vector<std::string> log;
  std::map<std::string, std::string> replies;
  int failing_module = 0;
};

// A call on handle v, and what it must have cached there.
#define CALL(expr) [](varkel_t* v) { return expr; }
#define CACHED(expr) [](const varkel_t* v) { return expr; }

struct WireCase {
  std::function<int(varkel_t*)> call;
  const char* command;
  const char* reply;
  std::function<bool(const varkel_t*)> cached;
};

TEST_F(Acquisition, EachOperationSendsItsTextAndCachesItsReply)
{
  const std::vector<WireCase> cases = {
      {CALL(US_AcquireTime(v, 0.7f)), "HS_AcquireTime_Command 1 699999",
       "AcquireTime set with 0.699999 seconds and more",
       CACHED(std::fabs(v->acquireParam.acquireTime - 0.699999f) < 1e-7f)},
      {CALL(US_AcquireTime(v, 0.0f)), "HS_AcquireTime_Command 1 0", "AcquireTime set with 0.000000 seconds",
       CACHED(v->acquireParam.acquireTime == 0.0f)},
      {CALL(US_AcquireTime(v, 0.1f)), "HS_AcquireTime_Command 1 100000", "x",
       CACHED(v->acquireParam.acquireTime == 0.0f)},
      {CALL(US_AcquirePeriod(v, 0.02f)), "HS_AcquirePeriod_Command 1 19999", "AcquirePeriod set to 0.020000 second(s)",
       CACHED(v->acquireParam.acquirePeriod == 0.02f)},
      {US_AcquirePeriod_RBV, "HS_AcquirePeriod_Command 0 0", "1500000", CACHED(v->acquireParam.acquirePeriod == 1.5f)},
      {CALL(US_NumExposures(v, 12)), "HS_NumExposures_Command 1 12", "Number of Exposures set to 12",
       CACHED(v->acquireParam.numExposures == 12u)},
      {US_NumExposures_RBV, "HS_NumExposures_Command 0 255", "7", CACHED(v->acquireParam.numExposures == 7u)},
      {US_NumExposuresCounter_RBV, "HS_NumExposuresCounter_RBV", "40",
       CACHED(v->acquireParam.numExposuresTotal == 40u && v->acquireParam.numExposuresCounter == 0u)},
      {CALL((initial_exposure_counter = 100, US_NumExposuresCounter_RBV(v))), "HS_NumExposuresCounter_RBV", "140",
       CACHED(v->acquireParam.numExposuresTotal == 140u && v->acquireParam.numExposuresCounter == 40u)},
      {CALL(US_TriggerMode(v, VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE)), "HS_Trigger_Command 1 2", "whatever",
       CACHED(v->varkelParam.trigger_mode == VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE)},
      {US_TriggerMode_RBV, "HS_Trigger_Command 0 0", "1",
       CACHED(v->varkelParam.trigger_mode == VARKEL_TRIGGER_MODE_INTERNAL)},
      {CALL(US_ReadCounter(v, VARKEL_COUNTER_HIGH)), "HS_ReadCounter_Command 1 1", "ReadCounter set for Counter High",
       CACHED(v->varkelParam.read_counter == VARKEL_COUNTER_HIGH)},
      {CALL(US_ReadCounter(v, VARKEL_COUNTER_HIGH)), "HS_ReadCounter_Command 1 1", "ReadCounter set for Counter High!",
       CACHED(v->varkelParam.read_counter == VARKEL_COUNTER_LOW)},
      {US_ReadCounter_RBV, "HS_ReadCounter_Command 0 0", "Counter High",
       CACHED(v->varkelParam.read_counter == VARKEL_COUNTER_HIGH)},
      {US_ImageMode_RBV, "HS_ImageMode_Command 0 0", "2",
       CACHED(v->varkelParam.image_mode == VARKEL_IMAGE_MODE_CONTINUOUS)},
      {CALL(US_DiscardData(v, true)), "HS_DiscardData_Command 1 1", "1", CACHED(v->varkelParam.discard_data)},
      {US_DiscardData_RBV, "HS_DiscardData_Command 0 0", "none", CACHED(!v->varkelParam.discard_data)},
      {CALL(US_Acquire(v, true)), "HS_Acquire_Command 1 1", "x", CACHED(v != nullptr)},
      {US_Acquire_RBV, "HS_Acquire_Command 0 0", "1", CACHED(v->acquireParam.acquireState)},
      {US_Acquire_RBV, "HS_Acquire_Command 0 0", "busy", CACHED(!v->acquireParam.acquireState)},
      {US_DetectorState_RBV, "HS_DetectorState_Command", "Acquiring images",
       CACHED(std::string(v->acquireParam.detectorState) == "Acquiring")},
      {US_TimeRemaining_RBV, "HS_TimeRemaining_RBV", "1.250000 seconds left",
       CACHED(v->acquireParam.timeRemaining == 1.25f)},
      {CALL(US_SoftawareTrigger(v, 1)), "HS_SoftwareTrigger 1 1", "triggered", CACHED(v->varkelParam.software_trigger)},
      {CALL(trigger_out(v, VARKEL_TRIGGER_OUT_ACQ_MBALL)), "HS_TriggerOut_Command 1 11", "x",
       CACHED(v->varkelParam.trigger_out == VARKEL_TRIGGER_OUT_ACQ_MBALL)},
      {trigger_out_get, "HS_TriggerOut_Command 0 0", "x",
       CACHED(v->varkelParam.trigger_out == VARKEL_TRIGGER_OUT_DISABLE)},
      {CALL(Set_Trigger(v, 1)), "HS_Set_Trigger 1 1", "x", CACHED(v != nullptr)},
      {Set_Trigger_RBV, "HS_Set_Trigger 0 0", "x", CACHED(v != nullptr)},
  };
  for (const WireCase& c : cases) {
    SCOPED_TRACE(std::string(c.command) + " -> " + c.reply);
    initial_exposure_counter = 0;
    FakeDetector fresh(varkelQuad);
    fresh.answer_all([&](const Request&) { return Reply::result(c.reply); });
    EXPECT_EQ(c.call(fresh.handle()), 0);
    EXPECT_EQ(fresh.all_commands(), std::vector<std::string>{std::string("4:") + c.command});
    EXPECT_TRUE(c.cached(fresh.handle()));
  }
}

TEST_F(Acquisition, ImageModeSetsThenReadsBack)
{
  replies = {{"HS_ImageMode_Command 1 3", "3"}, {"HS_ImageMode_Command 0 0", "1"}};
  EXPECT_EQ(US_ImageMode(v, VARKEL_IMAGE_MODE_THRESHOLD), 0);
  EXPECT_EQ(sent(), (std::vector<std::string>{"4:HS_ImageMode_Command 1 3", "4:HS_ImageMode_Command 0 0"}));
  EXPECT_EQ(v->varkelParam.image_mode, VARKEL_IMAGE_MODE_MULTIPLE);
}

TEST_F(Acquisition, RefusedArgumentsSendNothing)
{
  const std::vector<std::pair<const char*, std::function<int()>>> refusals = {
      {"test-pulse image mode", [&] { return US_ImageMode(v, VARKEL_IMAGE_MODE_TESTPULSE); }},
      {"trigger mode 3", [&] { return US_TriggerMode(v, VARKEL_TRIGGER_MODE_ENUM_END); }},
      {"read counter 2", [&] { return US_ReadCounter(v, VARKEL_READ_COUNTER_ENUM_END); }},
      {"software trigger 2", [&] { return US_SoftawareTrigger(v, 2); }},
      {"trigger enable -1", [&] { return Set_Trigger(v, -1); }},
      {"trigger output 12", [&] { return trigger_out(v, VARKEL_TRIGGER_OUT_ENUM_END); }},
      {"negative exposure", [&] { return US_AcquireTime(v, -0.1f); }},
      {"NaN exposure", [&] { return set_acquireTime(v, NAN); }},
      {"exposure of 2^32 us", [&] { return US_AcquireTime(v, 4294.968f); }},
      {"infinite period", [&] { return set_periodTime(v, INFINITY); }},
      {"period of 2^31 us", [&] { return US_AcquirePeriod(v, 2147.4839f); }},
      {"no exposures", [&] { return set_numberExposures(v, 0); }},
      {"no exposures on one module", [&] { return US_NumExposures(v, 0); }},
      {"negative exposures", [&] { return US_NumExposures(v, -5); }},
  };
  const varkel_acquire_params_t params = v->acquireParam;
  const varkel_params_t settings = v->varkelParam;
  for (const auto& [name, call] : refusals)
    EXPECT_EQ(call(), -3) << name;
  EXPECT_EQ(define_master_module(v, 5, false, VARKEL_TRIGGER_MODE_INTERNAL), -7);
  EXPECT_EQ(define_master_module(v, 0, false, VARKEL_TRIGGER_MODE_INTERNAL), -7);
  EXPECT_TRUE(sent().empty());

  // Writes the controller never answers fail and leave the cache as it was, as
  // refusals do: one setter of each shape (echo scanned, value stored, echo matched).
  failing_module = 4;
  const std::vector<std::pair<const char*, std::function<int()>>> writes = {
      {"exposure", [&] { return US_AcquireTime(v, 0.5f); }},
      {"trigger mode", [&] { return US_TriggerMode(v, VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE); }},
      {"read counter", [&] { return US_ReadCounter(v, VARKEL_COUNTER_HIGH); }},
  };
  for (const auto& [name, call] : writes)
    EXPECT_NE(call(), 0) << name;
  EXPECT_EQ(std::memcmp(&params, &v->acquireParam, sizeof params), 0);
  EXPECT_EQ(std::memcmp(&settings, &v->varkelParam, sizeof settings), 0);
}

TEST_F(Acquisition, ExposureAndPeriodKeepTheirGap)
{
  replies = {{"HS_AcquirePeriod_Command 0 0", "10000"}, {"HS_AcquireTime_Command 0 0", "0.009300"}}; // 0.01 s
  EXPECT_EQ(set_acquireTime(v, 0.0094f), -3);
  EXPECT_EQ(sent(), std::vector<std::string>{"4:HS_AcquirePeriod_Command 0 0"}); // nothing set anywhere
  log.clear();
  EXPECT_EQ(set_acquireTime(v, 0.0093f), 0);
  EXPECT_EQ(sent(), (std::vector<std::string>{"4:HS_AcquirePeriod_Command 0 0", "1:HS_AcquireTime_Command 1 9300",
                                              "2:HS_AcquireTime_Command 1 9300", "3:HS_AcquireTime_Command 1 9300",
                                              "4:HS_AcquireTime_Command 1 9300"}));
  EXPECT_EQ(v->varkel_module, 4);
  EXPECT_EQ(set_periodTime(v, 0.0099f), -3);
  EXPECT_EQ(set_periodTime(v, 0.0f), 0);
  log.clear();
  EXPECT_EQ(set_periodTime(v, 0.01f), 0);
  EXPECT_EQ(sent().size(), 5u);
  EXPECT_EQ(sent().back(), "4:HS_AcquirePeriod_Command 1 9999");
  // A period of 0 lifts the rule.
  replies = {{"HS_AcquirePeriod_Command 0 0", "0"}};
  EXPECT_EQ(set_acquireTime(v, 30.0f), 0);
}

TEST_F(Acquisition, ExposuresGoToModuleOneAloneWithAShutterOutput)
{
  v->varkelParam.trigger_out = VARKEL_TRIGGER_OUT_SHUTTER_MBC;
  EXPECT_EQ(set_numberExposures(v, 5), 0);
  EXPECT_EQ(sent(), std::vector<std::string>{"1:HS_NumExposures_Command 1 5"});
  EXPECT_EQ(v->varkel_module, 1);
  log.clear();
  v->varkelParam.trigger_out = VARKEL_TRIGGER_OUT_EXTERNAL;
  failing_module = 3;
  EXPECT_EQ(set_numberExposures(v, 5), -1);
  EXPECT_EQ(sent().size(), 4u); // module 3's failure does not stop module 4
}

TEST_F(Acquisition, MasterModuleOrderAndFinalChannel)
{
  v->varkelParam.software_trigger = true;
  EXPECT_EQ(define_master_module(v, 2, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE), 0);
  EXPECT_EQ(v->varkel_module, 2);
  EXPECT_EQ(v->varkel_interface, v->fd[1]);
  EXPECT_FALSE(v->varkelParam.software_trigger);
  EXPECT_EQ(v->varkelParam.trigger_out, VARKEL_TRIGGER_OUT_SHUTTER_MBC);

  log.clear();
  EXPECT_EQ(define_master_module(v, 3, true, VARKEL_TRIGGER_MODE_INTERNAL), 0);
  EXPECT_EQ(sent().size(), 5u); // with an external trigger the master takes the mode too
  EXPECT_TRUE(v->varkelParam.software_trigger);
}

TEST_F(Acquisition, StartsModuleOneAloneOrEveryModuleWithSoftwareTrigger)
{
  v->acquireParam.numExposuresTotal = 17;
  EXPECT_EQ(execute_acquire(v), 0);
  EXPECT_EQ(start_polling, 1); // no exposure time: polling starts at once
  EXPECT_EQ(initial_exposure_counter, 17);
  EXPECT_EQ(v->acquireParam.acquireStatus, ACQUIRING);

  log.clear();
  v->varkelParam.software_trigger = true;
  EXPECT_EQ(execute_acquire(v), 0);
  EXPECT_EQ(sent(), (std::vector<std::string>{"2:HS_Trigger_Command 1 0", "3:HS_Trigger_Command 1 0",
                                              "4:HS_Trigger_Command 1 0", "1:HS_TriggerOut_Command 1 6",
                                              "1:HS_Acquire_Command 1 1", "2:HS_Acquire_Command 1 1",
                                              "3:HS_Acquire_Command 1 1", "4:HS_Acquire_Command 1 1"}));

  // A failed start changes nothing.
  v->acquireParam.acquireStatus = IDLE;
  start_polling = 0;
  failing_module = 2;
  EXPECT_NE(execute_acquire(v), 0);
  EXPECT_EQ(v->acquireParam.acquireStatus, IDLE);
  EXPECT_EQ(start_polling, 0);
}

TEST_F(Acquisition, TimerWaitsOutTheExposuresThenPollingEndsTheRun)
{
  v->acquireParam.numExposures = 2;
  v->acquireParam.acquireTime = 0.1f;
  replies = {{"HS_TimeRemaining_RBV", "0.000000 seconds left"}};
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(execute_acquire(v), 0);
  itimerval armed{};
  getitimer(ITIMER_REAL, &armed);
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  EXPECT_EQ(armed.it_value.tv_sec, 0);
  EXPECT_GE(armed.it_value.tv_usec, 200000 - took.count()); // armed within the call, for both exposures
  EXPECT_LE(armed.it_value.tv_usec, 200000);
  EXPECT_EQ(status_acquire(v), ACQUIRING);
  EXPECT_EQ(sent().size(), 1u); // nothing asked before the timer fires
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!start_polling && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(5ms);
  ASSERT_EQ(start_polling, 1);
  EXPECT_EQ(status_acquire(v), DONE_ACQ);
  EXPECT_EQ(v->acquireParam.acquireStatus, DONE_ACQ);
  EXPECT_EQ(sent().back(), "1:HS_TimeRemaining_RBV");
}

TEST_F(Acquisition, TimerArmsWholeSecondsFromOneSecondOnAndNothingForNoTime)
{
  struct Case {
    float seconds;
    long armed_us;
  };
  // 10 x 0.05 s, 3 x 0.9 s (the fraction dropped), 1 s, 0.25 s.
  for (const Case c : {Case{10 * 0.05f, 500000}, Case{3 * 0.9f, 2000000}, Case{1.0f, 1000000}, Case{0.25f, 250000}}) {
    wait_toStart_polling(c.seconds);
    itimerval armed{};
    getitimer(ITIMER_REAL, &armed);
    const long left = armed.it_value.tv_sec * 1000000 + armed.it_value.tv_usec;
    EXPECT_LE(left, c.armed_us) << c.seconds;
    EXPECT_GT(left, c.armed_us - 200000) << c.seconds; // margin for a loaded machine
    EXPECT_EQ(armed.it_interval.tv_sec + armed.it_interval.tv_usec, 0);
  }
  itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);

  // Nothing to wait out arms no timer: polling starts at once.
  start_polling = 0;
  wait_toStart_polling(0.0f);
  EXPECT_EQ(start_polling, 1);
  start_polling = 0;
  ::testing::internal::CaptureStdout();
  timer_handler(SIGALRM);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "\n\n\nTIME HANDLER\n\n\n\n\n");
  EXPECT_EQ(start_polling, 1);
  replies = {{"HS_TimeRemaining_RBV", "0.000000 seconds left"}};
  EXPECT_EQ(status_acquire(v), DONE_ACQ);
}

TEST_F(Acquisition, StopReportsStoppedOrAModuleFailure)
{
  EXPECT_EQ(stop_acquire(v), STOPPED);
  failing_module = 2;
  EXPECT_EQ(stop_acquire(v), -1);
  EXPECT_EQ(v->acquireParam.acquireStatus, IDLE); // stop changes no status
}

// The timer fires while the controller takes its time to answer (the data
// server's side is in the data-server tests).
TEST_F(Acquisition, ExchangesSurviveTheTimerSignal)
{
  det->module(4).set_latency(150ms);
  wait_toStart_polling(0.05f);
  EXPECT_EQ(US_TimeRemaining_RBV(v), 0);
  EXPECT_EQ(start_polling, 1);
}

} // namespace
