// Equalization sets and pixel configuration: the controller holds the data, the
// library only triggers the loads. Main channel only; no reply is read.
#include <cassert>
#include <cstdio>

#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

constexpr varkel_thread_t kMain = VARKEL_THREAD_MAIN;
// The controller's chip loops cover a full module whatever the model.
constexpr int kChipsPerModule = 36;

// step(c) for chip numbers 1..last, every one even after a failure; the OR.
template <typename Step> int for_each_chip(int last, Step&& step)
{
  int result = 0;
  for (int c = 1; c <= last; ++c)
    result |= step(c);
  return result;
}

} // namespace

int US_Load_Equalization(varkel_t* varkel, uint8_t cfg_number, uint8_t sensor)
{
  assert(varkel != NULL);
  if (!validate_chip_with_zero(sensor))
    return -3;
  char name[8];
  std::snprintf(name, sizeof name, "CFG%d", cfg_number);
  const auto load = [&](int chip) {
    return query_status(varkel, kMain, CMD_LOAD_EQUALIZATION, name, static_cast<unsigned>(chip));
  };
  return sensor == 0 ? for_each_chip(kChipsPerModule, load) : load(sensor);
}

int pixel_load(varkel_t* varkel, uint8_t sensor, uint32_t value)
{
  assert(varkel != NULL);
  // Values beyond INT_MAX wrap to negative ints, which the check refuses too.
  if (!validate_u12_int(static_cast<int>(value)))
    return -3;
  printf("\nPIXEL LOAD -> Sensor: %d\n", sensor);
  return query_status(varkel, kMain, CMD_PIXEL_LOAD, static_cast<unsigned>(sensor), value);
}

int config_discl(varkel_t* varkel, int chip, uint32_t value)
{
  assert(varkel != NULL);
  int result = US_ReadCounter_RBV(varkel);
  const varkel_read_counter_t previous = varkel->varkelParam.read_counter;
  result |= US_ReadCounter(varkel, VARKEL_COUNTER_HIGH);
  result |= US_Equalization(varkel, true);
  result |= pixel_load(varkel, static_cast<uint8_t>(chip), value);
  result |= US_ReadCounter(varkel, previous);
  // Left cleared whatever it was before: the chip counts normally afterwards.
  result |= US_Equalization(varkel, false);
  return result;
}

int US_ConfigDiscL(varkel_t* varkel, uint32_t value, varkel_send_to_all_t send_to)
{
  assert(varkel != NULL);
  const int chip = varkel->sensor_pos.sensorPos;
  const auto selected = [&](int c) {
    // A refused selection is not counted: the chip still gets its sequence, on
    // whatever the controller has selected.
    select_chipNumber(varkel, c);
    return config_discl(varkel, c, value);
  };
  const auto all_chips = [&](int) { return for_each_chip(varkel->num_all_chips, selected); };
  switch (send_to) {
  case VARKEL_SEND_ONE_CHIP_ONE_MODULE:
    return config_discl(varkel, chip, value);
  case VARKEL_SEND_ALL_CHIPS_ONE_MODULE:
    return all_chips(0);
  case VARKEL_SEND_ONE_CHIP_ALL_MODULES:
    return for_each_module_selected(
        varkel, [&](int) { return selected(chip); }, Selection::ignored);
  case VARKEL_SEND_ALL_CHIPS_ALL_MODULES:
    return for_each_module_selected(varkel, all_chips, Selection::ignored);
  default:
    return 0;
  }
}

int send_image(varkel_t* varkel, uint8_t send_to_all, uint8_t pattern)
{
  assert(varkel != NULL);
  const auto send = [&](int chip) {
    return query_status(varkel, kMain, CMD_SEND_IMAGE, static_cast<unsigned>(chip), static_cast<unsigned>(pattern));
  };
  const auto all_chips = [&](int) { return for_each_chip(kChipsPerModule, send); };
  switch (send_to_all) {
  case 0:
    return send(varkel->sensor_pos.sensorPos);
  case 1:
    return all_chips(0);
  case 2:
    return for_each_module_selected(varkel, all_chips, Selection::ignored);
  default:
    return 0;
  }
}
