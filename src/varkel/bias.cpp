// Sensor bias and the chips' analogue set-points and monitors. The set/read-back
// pairs are rows of one table read by one setter shape and one read-back shape.
#include <cassert>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "internal/analog.hpp"
#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

// One analogue field of the detector parameters: its check, how the set and the
// read-back replies are scanned, and where the value is cached.
struct AnalogField {
  bool (*valid)(float);
  const char* set_reply;
  const char* read_reply;
  float varkel_params_t::*field;
};

enum Analog { kBias, kExtBg, kDacOut, kAnalogCount };

constexpr AnalogField kAnalog[] = {
    {validate_bias_voltage, "High Voltage bias set to %fV", "%f", &varkel_params_t::bias_voltage},
    {validate_extBg, "%f", "%f", &varkel_params_t::extBgIn},
    {nullptr, nullptr, "%f", &varkel_params_t::dacOutput},
};
static_assert(std::size(kAnalog) == kAnalogCount);

// The set form: -3 when the value is refused (nothing sent), else the query code;
// the reply's value is cached. `args` are exactly the template's arguments.
template <typename... Args> int set_analog(varkel_t* v, Analog which, float value, const char* cmd, Args... args)
{
  assert(v != NULL);
  const AnalogField& f = kAnalog[which];
  if (!f.valid(value))
    return -3;
  return read_into<float>(v, f.set_reply, v->varkelParam.*f.field, cmd, args...);
}

template <typename... Args>
int read_analog_on(varkel_t* v, varkel_thread_t owner, Analog which, float& out, const char* cmd, Args... args)
{
  assert(v != NULL);
  return query_scan<float>(
      v, owner, kAnalog[which].read_reply, [&](float x) { out = x; }, cmd, args...);
}

template <typename... Args> int read_analog(varkel_t* v, Analog which, const char* cmd, Args... args)
{
  return read_analog_on(v, VARKEL_THREAD_MAIN, which, v->varkelParam.*kAnalog[which].field, cmd, args...);
}

int status_only(varkel_t* v, const char* cmd)
{
  assert(v != NULL);
  return query_status(v, VARKEL_THREAD_MAIN, cmd);
}

constexpr float kMaxBias = 100.0f;

} // namespace

int US_SensorBias(varkel_t* varkel, float bias_voltage)
{
  return set_analog(varkel, kBias, bias_voltage, CMD_SENSORBIAS, 1u, 1u, double{bias_voltage});
}

int US_SensorBias_RBV(varkel_t* varkel)
{
  return read_bias(varkel, VARKEL_THREAD_MAIN, &varkel->varkelParam.bias_voltage);
}

int varkel::detail::read_bias(varkel_t* v, varkel_thread_t owner, float* volts)
{
  return read_analog_on(v, owner, kBias, *volts, CMD_SENSORBIAS, 0u, 0u, 0.0);
}

int varkel::detail::read_ext_bg(varkel_t* v, varkel_thread_t owner, float* volts)
{
  return read_analog_on(v, owner, kExtBg, *volts, CMD_EXTBGIN, 0u, 0.0);
}

int set_sensorBias(varkel_t* varkel, float voltage)
{
  int rc = US_SensorBias_RBV(varkel);
  const float initial = varkel->varkelParam.bias_voltage;
  if (!std::isfinite(initial))
    return rc | -3;
  if (std::isnan(voltage) || voltage == initial)
    return rc;
  // One volt per step from the value read back; the pace is the round trips'.
  const float step = voltage > initial ? 1.0f : -1.0f;
  for (float level = initial; level != voltage;) {
    float next = level + step;
    if (step > 0 ? next > voltage : next < voltage)
      next = voltage;
    if (next == level) // a start so far out that a volt no longer moves it
      return rc | -3;
    level = next;
    rc |= US_SensorBias(varkel, level);
    if (step > 0 ? level > kMaxBias : level < 0.0f)
      break; // every further level is out of range too
  }
  return rc;
}

int setSensorBias(varkel_t* varkel, float voltage, varkel_send_to_all_t send_to)
{
  assert(varkel != NULL);
  printf("\n\nSENT TO VALUE: %d\n\n", send_to);
  const auto all_boards = [&](int) {
    int rc = 0;
    for (int b = 0; b < varkel->max_num_boards; ++b) {
      rc |= US_Select_MFB(varkel, b, VARKEL_THREAD_MAIN);
      rc |= set_sensorBias(varkel, voltage);
    }
    return rc;
  };
  switch (send_to) {
  case VARKEL_SEND_ONE_MFB_ONE_MODULE:
    return set_sensorBias(varkel, voltage);
  case VARKEL_SEND_ALL_MFBS_ONE_MODEULE:
    return all_boards(0);
  case VARKEL_SEND_ALL_MFBS_ALL_MODULES:
    return for_each_module_selected(varkel, all_boards, Selection::ignored);
  default:
    return -3;
  }
}

int US_ImgChip_ExtBgIn(varkel_t* varkel, float voltage)
{
  return set_analog(varkel, kExtBg, voltage, CMD_EXTBGIN, 1u, double{voltage});
}

int US_ImgChip_ExtBgIn_RBV(varkel_t* varkel)
{
  return read_ext_bg(varkel, VARKEL_THREAD_MAIN, &varkel->varkelParam.extBgIn);
}

int US_ImgChipDACOUTSense_RBV(varkel_t* varkel) { return read_analog(varkel, kDacOut, CMD_DACOUTSENSE); }

int US_BandGapOutput_RBV(varkel_t* varkel) { return status_only(varkel, CMD_BANDGAP_OUT); }
int US_BandGapTemperature_RBV(varkel_t* varkel) { return status_only(varkel, CMD_BANDGAP_TEMP); }
int US_CascodeBias_RBV(varkel_t* varkel) { return status_only(varkel, CMD_CASCODE_BIAS); }
