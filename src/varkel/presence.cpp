// The chip presence check (efuse identifiers, switching off the empty positions)
// and the reset-and-reinitialise sequence, one worker per module.
#include <cassert>
#include <cstdio>

#include "internal/presence.hpp"
#include "internal/query.hpp"
#include "utils.h"

using namespace varkel::detail;

namespace {

// Per-chip motherboard registers: chip index * 4096 + offset.
constexpr int kRegisterStride = 4096;
constexpr int kEfuseRegister = 0x18;
constexpr int kSwitchOffLow = 0x90;  // written "0" to switch the chip off
constexpr int kSwitchOffHigh = 0x94; // then "1"
// Every board is walked over this many chip indices, whatever the model.
constexpr uint8_t kChipsPerBoard = 12;

// Whether chip index `sensor` of the board selected on `owner` has an efuse
// identifier. A failed read leaves mb_reg[owner] as the previous read left it.
bool check_efuseRegister(varkel_t* varkel, uint8_t sensor, varkel_thread_t owner)
{
  read_efuse_register(varkel, sensor, owner);
  return varkel->mb_reg[owner] != 0;
}

// Selects chip index `sensor` of board `mfb` on module `module` and switches it
// off when it has no efuse identifier. Returns the selection's code for a chip
// that answers, else the code of the second switch-off write.
int check_and_disable_sensor(varkel_t* varkel, uint8_t sensor, uint8_t mfb, varkel_thread_t module)
{
  const int selected = US_ImgChipNumberID(varkel, sensor, module);
  if (check_efuseRegister(varkel, sensor, module))
    return selected;
  const int base = sensor * kRegisterStride;
  write_mb_reg(varkel, base + kSwitchOffLow, "0", module);
  const int rc = write_mb_reg(varkel, base + kSwitchOffHigh, "1", module);
  // Only this module's worker writes this row.
  const uint32_t chip = decode_sensor_number(sensor, mfb);
  if (chip >= 1 && chip <= 36)
    varkel->sensor_disabled[module][chip - 1] = true;
  printf("\n\n\n\n\nModule[%d] - disabled sensor %d from MB %d\n\n\n\n\n", module + 1, sensor, mfb);
  return rc;
}

} // namespace

int varkel::detail::read_efuse_register(varkel_t* v, uint8_t sensor, varkel_thread_t owner)
{
  return read_mb_reg(v, sensor * kRegisterStride + kEfuseRegister, owner);
}

int check_and_disable_sensors(varkel_t* varkel)
{
  assert(varkel != NULL);
  return for_each_module_parallel(varkel, [&](varkel_thread_t owner) {
    // Nothing stops the walk: a failed selection still lets the register be read.
    int rc = US_efuseID_RBV(varkel, owner);
    for (uint8_t mb = 0; mb < varkel->max_num_boards; ++mb) {
      rc |= US_Select_MFB(varkel, mb, owner);
      for (uint8_t chip = 0; chip < kChipsPerBoard; ++chip)
        rc |= check_and_disable_sensor(varkel, chip, mb, owner);
    }
    return rc;
  });
}

int varkel_reset_and_init(varkel_t* varkel, const char* file)
{
  assert(varkel != NULL);
  int rc = for_each_module_parallel(
      varkel, [&](varkel_thread_t owner) { return US_Reset(varkel, 1, owner) | send_allinitArgs(varkel, owner); });
  // The data server and the DAC files are seen to even when a module failed.
  rc |= prepare_backend(varkel);
  rc |= configure_module_dacs_with_file(varkel, file);
  return rc;
}
