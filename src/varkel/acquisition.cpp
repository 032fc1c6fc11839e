// Acquisition run: start on one or every module, a one-shot timer that waits
// out the exposures, polling of the remaining time, stop; and the trigger
// commands around it. Every command goes over the main channel.
#include <cassert>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

// Process-wide: only one acquisition per process is timed at a time.
volatile sig_atomic_t start_polling = 0;
int initial_exposure_counter = 0;

void timer_handler(int)
{
  // Only async-signal-safe calls here.
  static const char line[] = "\n\n\nTIME HANDLER\n\n\n\n\n";
  ssize_t ignored = write(STDOUT_FILENO, line, sizeof line - 1);
  (void)ignored;
  start_polling = 1;
}

void wait_toStart_polling(float acq_time)
{
  itimerval timer{};
  if (std::isfinite(acq_time) && acq_time > 0.0f) {
    const float seconds = std::min(acq_time, static_cast<float>(INT_MAX));
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    // At one second and above the fraction is dropped.
    timer.it_value.tv_usec = acq_time < 1.0f ? static_cast<suseconds_t>(1000000.0f * acq_time) : 0;
  }
  if (timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0) {
    // Nothing to wait out (no exposure, or less than a microsecond): a zero timer
    // would never fire, so polling starts at once.
    start_polling = 1;
    return;
  }

  struct sigaction action {};
  action.sa_handler = timer_handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  sigaction(SIGALRM, &action, NULL);
  if (setitimer(ITIMER_REAL, &timer, NULL) != 0) {
    fputs("cannot start timer\n", stderr);
    perror("");
  }
}

int US_Acquire(varkel_t* varkel, bool action) { return write_checked(varkel, true, CMD_ACQUIRE, action ? 1u : 0u); }

int US_Acquire_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<int>(varkel, "%d", varkel->acquireParam.acquireState, CMD_ACQUIRE, 0u, 0u);
}

int US_DetectorState_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  char reply[kReplySize];
  if (int rc = query_and_cache(varkel, reply, CMD_DETECTOR_STATE); rc != 0)
    return rc;
  char word[sizeof varkel->acquireParam.detectorState];
  if (std::sscanf(reply, "%511s", word) == 1)
    std::memcpy(varkel->acquireParam.detectorState, word, sizeof word);
  return 0;
}

int US_TimeRemaining_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<float>(varkel, "%f seconds left", varkel->acquireParam.timeRemaining, CMD_TIME_REMAINING);
}

int US_SoftawareTrigger(varkel_t* varkel, int software_trigger)
{
  assert(varkel != NULL);
  if (!validate_bool(software_trigger))
    return -3;
  return query_match(varkel, {{"triggered", true}, {"Waiting", false}}, varkel->varkelParam.software_trigger,
                     CMD_SOFT_TRIGGER, 1u, static_cast<unsigned>(software_trigger));
}

int trigger_out(varkel_t* varkel, varkel_trigger_out_t trigger_out_mode)
{
  assert(varkel != NULL);
  return write_and_store(varkel, validate_trigger_out(trigger_out_mode), varkel->varkelParam.trigger_out,
                         trigger_out_mode, CMD_SET_TRIGGER_OUT);
}

int trigger_out_get(varkel_t* varkel) { return read_back(varkel, CMD_SET_TRIGGER_OUT); }

int Set_Trigger(varkel_t* varkel, int set_trigger)
{
  return write_checked(varkel, validate_bool(set_trigger), CMD_SET_TRIGGER, static_cast<unsigned>(set_trigger));
}

int Set_Trigger_RBV(varkel_t* varkel) { return read_back(varkel, CMD_SET_TRIGGER); }

int define_master_module(varkel_t* varkel, uint8_t module, bool ext_trigger, varkel_trigger_mode_t trigger_mode)
{
  assert(varkel != NULL);
  if (!validate_module(varkel, module))
    return -7;
  // Every other module takes the trigger mode; the master only with an external trigger.
  int rc = for_each_module_selected(
      varkel, [&](int m) { return m == module && !ext_trigger ? 0 : US_TriggerMode(varkel, trigger_mode); });
  varkel->varkelParam.software_trigger = trigger_mode == VARKEL_TRIGGER_MODE_INTERNAL;
  select_module(varkel, module);
  return rc | trigger_out(varkel, VARKEL_TRIGGER_OUT_SHUTTER_MBC);
}

int execute_acquire(varkel_t* varkel)
{
  assert(varkel != NULL);
  initial_exposure_counter = static_cast<int>(varkel->acquireParam.numExposuresTotal);
  int rc = 0;
  if (varkel->varkelParam.software_trigger) {
    define_master_module(varkel, 1, false, VARKEL_TRIGGER_MODE_INTERNAL);
    rc = for_each_module_selected(varkel, [&](int) { return US_Acquire(varkel, true); });
  } else {
    select_module(varkel, 1);
    rc = US_Acquire(varkel, true);
  }
  if (rc != 0)
    return rc;
  varkel->acquireParam.acquireStatus = ACQUIRING;
  start_polling = 0;
  wait_toStart_polling(static_cast<float>(varkel->acquireParam.numExposures) * varkel->acquireParam.acquireTime);
  return 0;
}

int status_acquire(varkel_t* varkel)
{
  assert(varkel != NULL);
  if (start_polling) {
    US_TimeRemaining_RBV(varkel);
    if (varkel->acquireParam.timeRemaining == 0.0f)
      return varkel->acquireParam.acquireStatus = DONE_ACQ;
  }
  return varkel->acquireParam.acquireStatus = ACQUIRING;
}

int stop_acquire(varkel_t* varkel)
{
  assert(varkel != NULL);
  const int rc = for_each_module_selected(varkel, [&](int) { return US_Acquire(varkel, false); });
  return rc != 0 ? rc : STOPPED;
}
