// Acquisition parameters: exposure time, period, exposures, trigger mode, read
// counter, image mode, discard flag. Single commands go over the main channel;
// the composite setters apply a value to every module.
#include <cassert>
#include <cmath>

#include "internal/acquisition_limits.hpp"
#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

constexpr varkel_thread_t kMain = VARKEL_THREAD_MAIN;

// Seconds to whole microseconds: widened to double and truncated, so 0.7 s held
// as a float becomes 699999 us.
int64_t to_microseconds(float s) { return static_cast<int64_t>(static_cast<double>(s) * 1000000.0); }

} // namespace

int US_AcquireTime(varkel_t* varkel, float acquire_time_s)
{
  assert(varkel != NULL);
  const bool valid = valid_acquire_time(acquire_time_s);
  return write_echo_into<float>(varkel, valid, "AcquireTime set with %f seconds", varkel->acquireParam.acquireTime,
                                CMD_ACQUIRE_TIME, valid ? static_cast<uint32_t>(to_microseconds(acquire_time_s)) : 0u);
}

int US_AcquireTime_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<float>(varkel, "%f", varkel->acquireParam.acquireTime, CMD_ACQUIRE_TIME, 0u, 0u);
}

int US_AcquirePeriod(varkel_t* varkel, float acq_period_time_s)
{
  assert(varkel != NULL);
  // The period travels as a signed 32-bit number of microseconds.
  const bool valid = valid_period(acq_period_time_s);
  const int32_t us = valid ? static_cast<int32_t>(to_microseconds(acq_period_time_s)) : 0;
  return write_echo_into<float>(varkel, valid, "AcquirePeriod set to %f second(s)", varkel->acquireParam.acquirePeriod,
                                CMD_ACQUIRE_PERIOD, static_cast<unsigned>(us));
}

int US_AcquirePeriod_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_scan<unsigned>(
      varkel, kMain, "%u",
      [&](unsigned us) { varkel->acquireParam.acquirePeriod = static_cast<float>(us / 1000000.0); }, CMD_ACQUIRE_PERIOD,
      0u, 0u);
}

int US_NumExposures(varkel_t* varkel, int num_exposures)
{
  assert(varkel != NULL);
  return write_echo_into<int>(varkel, num_exposures >= 1, "Number of Exposures set to %d",
                              varkel->acquireParam.numExposures, CMD_NUM_EXPOSURES,
                              static_cast<unsigned>(num_exposures));
}

int US_NumExposures_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<int>(varkel, "%d", varkel->acquireParam.numExposures, CMD_NUM_EXPOSURES, 0u, 255u);
}

int US_NumExposuresCounter_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  auto& p = varkel->acquireParam;
  const int rc = read_into<int>(varkel, "%d", p.numExposuresTotal, CMD_NUM_EXPOSURES_COUNT);
  if (rc == 0 && initial_exposure_counter > 0)
    p.numExposuresCounter = p.numExposuresTotal - static_cast<uint32_t>(initial_exposure_counter);
  return rc;
}

int US_TriggerMode(varkel_t* varkel, varkel_trigger_mode_t trigger_mode)
{
  assert(varkel != NULL);
  return write_and_store(varkel, validate_trigger_mode(trigger_mode), varkel->varkelParam.trigger_mode, trigger_mode,
                         CMD_TRIGGER_MODE);
}

int US_TriggerMode_RBV(varkel_t* varkel) { return read_back(varkel, CMD_TRIGGER_MODE); }

int US_ReadCounter(varkel_t* varkel, varkel_read_counter_t read_counter)
{
  assert(varkel != NULL);
  if (!validate_read_counter(read_counter))
    return -3;
  return query_match(varkel,
                     {{"ReadCounter set for Counter Low", VARKEL_COUNTER_LOW},
                      {"ReadCounter set for Counter High", VARKEL_COUNTER_HIGH}},
                     varkel->varkelParam.read_counter, CMD_READ_COUNTER, 1u, static_cast<unsigned>(read_counter));
}

int US_ReadCounter_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_match(varkel, {{"Counter Low", VARKEL_COUNTER_LOW}, {"Counter High", VARKEL_COUNTER_HIGH}},
                     varkel->varkelParam.read_counter, CMD_READ_COUNTER, 0u, 0u);
}

int US_ImageMode_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<int>(varkel, "%d", varkel->varkelParam.image_mode, CMD_IMAGE_MODE, 0u, 0u);
}

int US_ImageMode(varkel_t* varkel, uint8_t image_mode)
{
  assert(varkel != NULL);
  if (!validate_image_mode(image_mode))
    return -3;
  // The read-back follows only a write the controller answered.
  const int rc = write_echo_into<int>(varkel, true, "%d", varkel->varkelParam.image_mode, CMD_IMAGE_MODE, image_mode);
  return rc != 0 ? rc : US_ImageMode_RBV(varkel);
}

int US_DiscardData(varkel_t* varkel, bool discard_data)
{
  assert(varkel != NULL);
  return write_echo_into<int>(varkel, true, "%d", varkel->varkelParam.discard_data, CMD_DISCARDDATA, discard_data);
}

int US_DiscardData_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return read_into<int>(varkel, "%d", varkel->varkelParam.discard_data, CMD_DISCARDDATA, 0u, 0u);
}

// The composite setters. A period of 0 lifts the time rule; with a non-zero
// period the exposure time may be at most period - 0.7 ms, in single precision.

int set_acquireTime(varkel_t* varkel, float acquire_time_s)
{
  assert(varkel != NULL);
  if (!valid_acquire_time(acquire_time_s))
    return -3;
  const int rc = US_AcquirePeriod_RBV(varkel);
  const float period = varkel->acquireParam.acquirePeriod;
  if (period != 0.0f && acquire_time_s > period - IMAGE_READOUT)
    return -3;
  return rc | for_each_module_selected(
                  varkel, [&](int) { return US_AcquireTime(varkel, acquire_time_s); }, Selection::ignored);
}

int set_periodTime(varkel_t* varkel, float period_time_s)
{
  assert(varkel != NULL);
  if (!valid_period(period_time_s))
    return -3;
  const int rc = US_AcquireTime_RBV(varkel);
  if (period_time_s != 0.0f && varkel->acquireParam.acquireTime + IMAGE_READOUT > period_time_s)
    return -3;
  return rc | for_each_module_selected(
                  varkel, [&](int) { return US_AcquirePeriod(varkel, period_time_s); }, Selection::ignored);
}

int set_numberExposures(varkel_t* varkel, int num_exposures)
{
  assert(varkel != NULL);
  if (num_exposures < 1)
    return -3;
  // The shutter and acquisition trigger outputs are driven by module 1 alone.
  if (varkel->varkelParam.trigger_out > VARKEL_TRIGGER_OUT_EXTERNAL) {
    const int selected = select_module(varkel, 1); // before the command: | fixes no order
    return selected | US_NumExposures(varkel, num_exposures);
  }
  return for_each_module_selected(varkel, [&](int) { return US_NumExposures(varkel, num_exposures); });
}
