// Configuration snapshots: everything the library can read back from a detector,
// saved to a key file (one group per module and per chip, with the model and a
// format version), compared with a detector or another snapshot, and applied
// back, sending only what differs and verifying it.
//
// File layout:
//   [snapshot]  format=1  model=varkelQuad  readout-mode=default
//   [module1]   exposure=...  period=...  ...  bias.board0=15.5 (one per board)
//   [module1/chip7]  disabled=0  efuse-id=1a2b3c  gain=high  ...  dac.GND=132
// Values are written as varkel_setting_format writes them; the names are the
// writable ones of <varkel/settings.h>, bias board by board (one per board of the
// model), plus the chip's "efuse-id" (hexadecimal) and "disabled" (1: switched
// off in the handle, then sent nothing and kept with no other value; or without
// an efuse identifier). These two are compared but never written to a detector.
// A file may leave values out: they are left as they are.
#pragma once

#include <stddef.h>

#include "settings.h"
#include "varkel.h"

// Codes of the snapshot calls beyond the library's table (varkel_error_string
// gives their text).
#define VARKEL_SNAPSHOT_BAD_FILE (-101)    // missing, unreadable or malformed file
#define VARKEL_SNAPSHOT_BAD_VERSION (-102) // a format version this library does not read
#define VARKEL_SNAPSHOT_BAD_MODEL (-103)   // a snapshot of another detector model
#define VARKEL_SNAPSHOT_BAD_VALUE (-104)   // a value out of range or an unknown name
#define VARKEL_SNAPSHOT_UNVERIFIED (-105)  // apply: a value read back differs from the one written

typedef struct {
  int module;       // 1-based; 0 for detector-wide entries
  int chip;         // chip number 1..36; 0 for module entries
  const char* name; // the setting's readable name (or "efuse-id", "disabled", "bias.board<n>")
  double wanted;    // value in the snapshot (or the first snapshot for diffs of two files)
  double found;     // value read back from the detector (or the second snapshot)
  int written;      // apply: this entry was written
  int verified;     // apply: the read-back after the write matched
} varkel_snapshot_entry_t;

typedef struct {
  int code;          // 0 on success, else the library's code or one of the codes above
  int line;          // the offending line of a refused file, 0 otherwise
  char message[256]; // what is wrong, for the user
  size_t count;      // entries: differences (diff) or writes and failed verifications (apply)
  varkel_snapshot_entry_t* entries;
  size_t commands; // commands sent to the controllers by this call (apply/save)
} varkel_snapshot_report_t;

// `report` (may be NULL) starts zero-initialised; each call frees the entries an
// earlier call left in it.

// Reads back every setting of every module and working chip (one worker per
// module) and writes the snapshot to `path`. Returns 0, the first failing
// read-back's code (VARKEL_REFUSED when the controller refused one; the message
// names module and chip), or the errno of writing the file.
VARKEL_API int varkel_snapshot_save(varkel_t* varkel, const char* path, varkel_snapshot_report_t* report);
// Differences between the snapshot at `path` and the detector (other_path NULL),
// or between two snapshots (varkel may then be NULL). Nothing is written. Returns
// 0 (the report lists the differences), a file's refusal code, or a read-back's code.
VARKEL_API int varkel_snapshot_diff(varkel_t* varkel, const char* path, const char* other_path,
                                    varkel_snapshot_report_t* report);
// Checks the whole file first (model, version, syntax, ranges): a refused file
// sends nothing. Then reads the detector back, writes each entry that differs
// (with the chip selection it needs), reads back again and verifies: a value the
// controller accepts but does not hold stays unverified. While varkel_acquire
// runs, entries that would change the acquisition are not written (VARKEL_BUSY).
// Returns 0, VARKEL_SNAPSHOT_UNVERIFIED, a file's refusal code, or the first
// failing command's code (VARKEL_REFUSED for a write the controller refused; the
// message names the setting, module, chip and the controller's words).
VARKEL_API int varkel_snapshot_apply(varkel_t* varkel, const char* path, varkel_snapshot_report_t* report);
// Frees the entries and clears the report, which stays reusable.
VARKEL_API void varkel_snapshot_report_free(varkel_snapshot_report_t* report);
