// The table of settings by name, for the name functions and the snapshots.
#pragma once

#include <span>

#include "settings.h"

namespace varkel::detail {

// How a setting is read back, once its module (and chip) is selected.
enum class Read {
  cached,  // the library's read-back, then the handle's cache it fills
  reply,   // the number replied to the read form of a set/read-back template
  omr,     // one OMR field of the selected chip
  dac,     // one DAC code of the selected chip
  readout, // the readout mode: computed from the handle and module 1
};

// A cache member of the handle seen as a number; clear() makes it hold a value
// no read-back replies, so that a reply without a number shows (false for a
// member that has no such value).
struct Cached {
  double (*get)(const varkel_t&);
  bool (*clear)(varkel_t&);
};

using Setter = int (*)(varkel_t*, double);

struct SettingRow {
  varkel_setting_t pub;
  double min, max; // range of a numeric setting (named ones: 0..names - 1)
  bool whole;      // whole numbers only
  Read read;
  int (*read_back)(varkel_t*); // Read::cached
  Cached cached;               // Read::cached
  const char* command;         // Read::reply: the template, read form "<cmd> 0 0"
  int number;                  // Read::omr: the field; Read::dac: the DAC
  Setter set;                  // the selected module or chip; null: read-only
  Setter set_module;           // chip rows, chip 0 of the selected module; module rows, module 0
  Setter set_everywhere;       // chip rows, module 0 and chip 0
};

std::span<const SettingRow> setting_rows();
// The row of a public setting from the table, or nullptr.
const SettingRow* row_of(const varkel_setting_t* s);

// Reads the setting on the module (and chip) selected on the main channel.
// Returns 0, the read-back's code, or -2 when the reply held no value.
int get_selected(varkel_t* v, const SettingRow& row, double* value);
// Selects module `module` (and chip `chip` for chip rows) on the main channel.
// Returns 0, -7, -4 or the selection's code.
int select_for(varkel_t* v, const SettingRow& row, int module, int chip);
// Whether `value` is within the row's range (and whole when it must be).
bool in_range(const SettingRow& row, double value);
// Whether two values of the row are the same setting (floats as the handle keeps
// them, to the precision the controller replies with).
bool same_value(const SettingRow& row, double a, double b);

// Calls step(chip number) for each chip position of a model with `boards` boards
// of `chips` chips, in board order.
template <typename Step> void for_each_chip_position(int boards, int chips, Step&& step)
{
  for (int board = 0; board < boards; ++board)
    for (int index = 0; index < chips; ++index)
      step(static_cast<int>(decode_sensor_number(static_cast<uint8_t>(index), static_cast<uint8_t>(board))));
}

} // namespace varkel::detail
