// The table of settings by name, for the name functions and the snapshots.
#pragma once

#include <span>

#include "settings.h"

namespace varkel::detail {

// How a setting is read back, once its module (and chip) is selected.
enum class Read {
  cached,   // the library's read-back, then the handle's cache it fills
  reply,    // the number replied to the read form of a set/read-back template
  omr,      // one OMR field of the selected chip
  dac,      // one DAC code of the selected chip
  readout,  // the readout mode: computed from the handle and module 1
  efuse,    // snapshots only: the chip's efuse identifier, read on a module channel
  disabled, // snapshots only: whether the chip is switched off or has no efuse identifier
};

// A cache member of the handle seen as a number: get, blank (make it hold a
// value no read-back replies, so that a reply without a number shows; false for
// a flag, which has none) and put back.
struct Cached {
  double (*get)(const varkel_t&);
  bool (*blank)(varkel_t&);
  void (*restore)(varkel_t&, double);
};

// The rule between exposure and period: exposure + readout at most a non-zero period.
enum class Rule { none, exposure, period };

using Setter = int (*)(varkel_t*, double);
// A read on the channel of module worker `owner`, the board (and chip) selected there.
using ReadOn = int (*)(varkel_t*, varkel_thread_t owner, double*);

struct SettingRow {
  const char* name;
  const char* help;
  varkel_setting_scope_t scope;
  varkel_setting_kind_t kind;
  const char* names = "";        // named rows: the value names, blank-separated, in order 0, 1, ...
  double min = 0, max = 0;       // numeric rows: the range (named rows: 0..names - 1)
  bool hex = false;              // written and parsed as hexadecimal (efuse identifiers)
  Read read = Read::cached;      //
  int (*read_back)(varkel_t*){}; // Read::cached: the library's read-back
  Cached cached{};               // Read::cached: the cache it fills
  const char* command{};         // Read::reply: the template, read form "<cmd> 0 0"
  int number = 0;                // Read::omr: the field; Read::dac: the DAC
  ReadOn read_on{};              // snapshots: a read on a module worker's channel where it differs
  Setter set{};                  // the selected module or chip; null: read-only
  Setter set_all_chips{};        // chip rows: the library's all-chips command on the selected module
  bool changes_acquisition{};    // refused while varkel_acquire runs
  Rule rule = Rule::none;        // exposure or period: checked against the other one in force
  int board = -1;                // a per-board row: the board it reads and writes
  bool snapshot_only{};          // kept by snapshots, not among the public names
  bool per_board{};              // read back, and kept by snapshots, board by board: the rows with a board
};

// Whether snapshots keep the row: the settings (written back on apply) and what
// they compare but never write (efuse identifiers, disabled chips).
inline bool kept_in_snapshots(const SettingRow& row)
{
  return row.snapshot_only || (row.set != nullptr && !row.per_board);
}

// The row with its public face (values text generated from kind and range).
struct Setting {
  SettingRow row;
  varkel_setting_t pub;
  char range_text[48];
};

// Every row, the public ones first.
std::span<const Setting> setting_rows();
// The row of a public setting from the table, or nullptr.
const SettingRow* row_of(const varkel_setting_t* s);
// The first snapshot-only row read with `read`.
const SettingRow& row_reading(Read read);

// Reads the setting on the module (and chip) selected on the main channel.
// Returns 0 (value set); the read-back's code; VARKEL_REFUSED when the controller
// refused it; -2 when the reply held no value. Caches are left as they were
// unless it returns 0.
int get_selected(varkel_t* v, const SettingRow& row, double* value);
// Writes the setting on the module (and chip) selected on the main channel and
// reads it back into `back` (when not null). Returns 0, the setter's code,
// VARKEL_REFUSED or VARKEL_NOT_APPLIED (failures noted on the handle, with `chip`
// when not 0).
int put_selected(varkel_t* v, const SettingRow& row, int chip, double value, double* back = nullptr);
// Checks module `module` (and chip `chip` for chip rows) and selects them on the
// main channel. Returns 0, -7, -4, VARKEL_CHIP_OFF (noted) or the selection's code.
int select_for(varkel_t* v, const SettingRow& row, int module, int chip);
// VARKEL_BUSY (noted) when the row would change an acquisition varkel_acquire runs, else 0.
int check_not_busy(varkel_t* v, const SettingRow& row, int module, int chip);
// Whether `value` is within the row's range (and whole when it must be).
bool in_range(const SettingRow& row, double value);
// Whether two values of the row are the same setting (floats as the handle keeps
// them, to the precision the controller replies with).
bool same_value(const SettingRow& row, double a, double b);
// Text to value and back as varkel_setting_parse and varkel_setting_format do.
int parse_value(const SettingRow& row, const char* text, double* value);
int format_value(const SettingRow& row, double value, char* text, std::size_t size);

} // namespace varkel::detail
