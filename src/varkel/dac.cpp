// DAC access: writes over one chip, one module or all modules, digital and
// analogue read-backs into the two caches, the fixed presets.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <iterator>
#include <type_traits>
#include <utility>

#include "internal/dac.hpp"
#include "internal/pair_list.hpp"
#include "internal/query.hpp"
#include "varkel.h"

using namespace varkel::detail;

namespace {

// How the reply of each read operation is laid out: one value of the named DAC
// on the selected chip, or a list keyed by chip number or by DAC number.
enum class Key { single, chip, dac };

struct ReadForm {
  int mode;
  bool analog;
  Key key;
};

constexpr ReadForm kReadForms[] = {
    {DIGITAL_READ_SINGLE_DAC, false, Key::single}, {DIGITAL_READ_ALL_SENSORS, false, Key::chip},
    {DIGITAL_READ_ALL_DACS, false, Key::dac},      {ANALOG_READ_SINGLE_DAC, true, Key::single},
    {ANALOG_READ_ALL_DACS, true, Key::dac},        {ANALOG_READ_ALL_SENSORS, true, Key::chip},
};

template <typename T> int store_form(Key key, int dac, int chip, const char* text, T (&cache)[36][32])
{
  int stored = 0;
  const auto put = [&](int row, int column, T value) {
    if (row >= 1 && row <= 36 && column >= 1 && column <= 32) {
      cache[row - 1][column - 1] = value;
      ++stored;
    }
  };
  if (key == Key::single) {
    T value{};
    int scanned = 0;
    if constexpr (std::is_same_v<T, int>)
      scanned = std::sscanf(text, "%d", &value);
    else
      scanned = std::sscanf(text, "%f", &value);
    if (scanned == 1)
      put(chip, dac, value);
    return stored;
  }
  walk_pairs<T>(text, [&](int number, T value) {
    if (key == Key::chip)
      put(number, dac, value);
    else
      put(chip, number, value);
  });
  return stored;
}

// The optimised DiscL values, [module - 1][chip number - 1].
constexpr int kOptimizedDiscL[4][36] = {
    {76, 73, 57, 62, 63, 66, 55, 64, 68, 65, 59, 55, 57, 62, 58, 59, 56, 65,
     67, 56, 55, 61, 63, 57, 60, 61, 61, 64, 63, 62, 63, 53, 61, 63, 63, 59},
    {63, 62, 65, 67, 64, 66, 64, 60, 58, 68, 59, 72, 57, 61, 61, 59, 65, 61,
     54, 54, 55, 64, 54, 56, 59, 68, 66, 61, 58, 66, 56, 60, 61, 57, 65, 64},
    {61, 59, 64, 63, 58, 63, 62, 66, 59, 61, 63, 62, 57, 68, 63, 63, 62, 63,
     57, 58, 56, 62, 60, 67, 59, 59, 63, 66, 55, 66, 72, 59, 61, 65, 55, 50},
    {59, 61, 64, 60, 69, 59, 61, 56, 56, 55, 55, 55, 56, 60, 51, 54, 69, 63,
     62, 63, 56, 64, 65, 66, 64, 60, 63, 62, 47, 51, 61, 64, 57, 61, 57, 50},
};

} // namespace

namespace varkel::detail {

bool dac_value_valid(int dac, int value)
{
  return validate_dac(dac) && value >= 0 && value <= kDacs[static_cast<std::size_t>(dac) - 1].max;
}

int store_dac_reply(int read_mode, int dac, int chip, const char* text, int32_t (&digital)[36][32],
                    float (&analog)[36][32])
{
  for (const ReadForm& f : kReadForms) {
    if (f.mode == read_mode)
      return f.analog ? store_form(f.key, dac, chip, text, analog) : store_form(f.key, dac, chip, text, digital);
  }
  return 0;
}

} // namespace varkel::detail

int US_Set_DAC(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (!validate_dac(dac))
    return -4;
  if (!dac_value_valid(dac, value))
    return -5;
  const auto write = [&](varkel_write_dac_t op, varkel_thread_t channel) {
    return query_status(varkel, channel, CMD_IMGCHIP_DAC, static_cast<unsigned>(op), static_cast<unsigned>(dac),
                        static_cast<unsigned>(value));
  };
  switch (send_to) {
  case VARKEL_SEND_ONE_CHIP_ONE_MODULE:
    return write(WRITE_SINGLE_DAC, owner);
  case VARKEL_SEND_ALL_CHIPS_ONE_MODULE:
    return write(WRITE_ALL_SENSORS, owner);
  case VARKEL_SEND_ONE_CHIP_ALL_MODULES: {
    // The selections are not counted; the last module's write is the result.
    const int chip = varkel->sensor_pos.sensorPos;
    int last = 0;
    for_each_module_selected(
        varkel,
        [&](int) {
          select_chipNumber(varkel, chip);
          last = write(WRITE_SINGLE_DAC, owner);
          return 0;
        },
        Selection::ignored);
    return last;
  }
  case VARKEL_SEND_ALL_CHIPS_ALL_MODULES:
    // Several failing modules give the OR of their codes.
    return for_each_module_parallel(varkel, [&](varkel_thread_t module) { return write(WRITE_ALL_SENSORS, module); });
  default:
    return 0; // board targets are not DAC targets
  }
}

int set_dac(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to)
{
  return US_Set_DAC(varkel, dac, value, send_to, VARKEL_THREAD_MAIN);
}

int varkel::detail::read_dacs(varkel_t* v, varkel_thread_t owner, int read_mode, int dac, int chip,
                              int32_t (&digital)[36][32], float (&analog)[36][32])
{
  assert(v != NULL);
  char reply[kReplySize];
  if (int rc = query_and_cache(v, owner, reply, CMD_IMGCHIP_DAC, static_cast<unsigned>(read_mode),
                               static_cast<unsigned>(dac), 0u);
      rc != 0)
    return rc;
  store_dac_reply(read_mode, dac, chip, reply, digital, analog);
  return 0;
}

int get_dac(varkel_t* varkel, varkel_read_dac_t read_mode, varkel_dac_t dac)
{
  assert(varkel != NULL);
  return read_dacs(varkel, VARKEL_THREAD_MAIN, read_mode, dac, varkel->sensor_pos.sensorPos, varkel->digital_dac_values,
                   varkel->analog_dac_values);
}

int Set_DAC_Defaults(varkel_t* varkel)
{
  assert(varkel != NULL);
  // The external band-gap input on chip 6 of module 1 and chip 31 of module 2. On
  // a one-module detector the second pair goes to the module left selected.
  for (const auto& [module, chip] : {std::pair{1, 6}, std::pair{2, 31}}) {
    select_module(varkel, module);
    select_chipNumber(varkel, chip);
    US_ImgChip_ExtBgIn(varkel, 0.637f);
    set_omr(varkel, OMR_Ext_BG_Sel, 1, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
  }
  return 0;
}

int set_OptimizedDiscL(varkel_t* varkel)
{
  assert(varkel != NULL);
  const int chips = std::min<int>(varkel->num_all_chips, 36);
  for_each_module_selected(
      varkel,
      [&](int m) {
        // By design this walks chip numbers 1..n, not the chips on the model (internal/geometry.hpp).
        for (int c = 1; c <= chips; ++c) {
          select_chipNumber(varkel, c);
          set_dac(varkel, DAC_DiscL, kOptimizedDiscL[m - 1][c - 1], VARKEL_SEND_ONE_CHIP_ONE_MODULE);
        }
        return 0;
      },
      Selection::ignored);
  return 0;
}

int US_DACBias_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_status(varkel, VARKEL_THREAD_MAIN, CMD_GET_DACBIAS);
}
