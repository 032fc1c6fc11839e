// Workflows over the library's operations, written once for every caller (C
// programs, the command line, the Python package): acquire and wait with a
// deadline, progress and cancellation; prepare the data server when the model
// has one; scan one chip's DAC toward its aim; load DAC files with the reason of
// a refusal; the working chips of a module. Each call notes what went wrong on
// the handle's failure record (<varkel/refusal.h>), and never reports success
// for a command the controller refused.
#pragma once

#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include "refusal.h"
#include "varkel.h"

// ---------------------------------------------------------------------------
// Acquire and wait
// ---------------------------------------------------------------------------

typedef struct {
  double fraction;    // 0..1: exposures done of those asked for (time-based while none counted)
  int exposures_done; // the controller's exposure count on the counting module
  int exposures;      // exposures asked for
  uint64_t frames;    // frames the data server counted over every module (0 without a data server)
  double elapsed;     // seconds since the start
} varkel_acquire_progress_t;

typedef void (*varkel_progress_fn)(const varkel_acquire_progress_t* progress, void* user);

// What an acquisition is to do. Start from varkel_acquire_request_init: every
// value left as it sets it keeps what the detector has.
typedef struct {
  double exposure;                     // seconds; < 0: keep the detector's
  double period;                       // seconds; < 0: keep the detector's
  int exposures;                       // count; 0: keep the detector's
  int lead_module;                     // 1..modules: that module leads the others with its shutter
                                       // output (they start on its rising edge); 0: keep the trigger
                                       // arrangement as it is
  double deadline;                     // seconds from the start; <= 0: twice the expected time plus 10 s
  const volatile sig_atomic_t* cancel; // non-NULL: once non-zero (set it from any
                                       // thread or a signal handler) the wait ends
  varkel_progress_fn progress;         // non-NULL: called from the waiting thread
  void* user;                          // handed to `progress`
} varkel_acquire_request_t;

typedef struct {
  int exposures_done; // as last read
  uint64_t frames;    // frames the data server counted (0 without a data server)
  double elapsed;     // seconds from the start to the end of the wait
  int stopped;        // 1 when the wait ended early and the modules were told to stop
} varkel_acquire_result_t;

// Fills `request` with values that keep every setting as the detector has it.
VARKEL_API void varkel_acquire_request_init(varkel_acquire_request_t* request);

// Writes only the values the request gives (exposure and period in the order the
// values in force allow, which it reads back first; an exposure longer than the
// period it would run with is refused with -3 and nothing written), prepares the
// data server when the handle has one, starts, and waits until every exposure is
// done, reporting progress about every 50 ms. The wait reads the exposure counter
// of the leading module (module 1 when none is given) at every look. A NULL
// request keeps every setting. While it runs, writes through <varkel/settings.h>
// that would change it, and a second varkel_acquire, are refused with VARKEL_BUSY.
// Whenever the wait ends early (cancel, deadline, an error) every module is told
// to stop. Returns 0; ECANCELED when cancelled; ETIMEDOUT when the deadline
// passed; -7 for a lead module the model does not have; VARKEL_REFUSED when a
// controller refused a command; the code of a controller that stopped answering
// or dropped its connection; else the failing call's code. `result` may be NULL.
VARKEL_API int varkel_acquire(varkel_t* varkel, const varkel_acquire_request_t* request,
                              varkel_acquire_result_t* result);

// Whether an acquisition started by varkel_acquire runs on the handle (1) or not (0).
VARKEL_API int varkel_acquiring(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Data server
// ---------------------------------------------------------------------------

// Whether the model has a data server with a sample frame (varkelTrio, varkelQuad): 1 or 0.
VARKEL_API int varkel_model_has_data_server(varkel_detector_model_t model);
// Prepares the data server for the next acquisition: prepare_varkel on a model
// with a sample frame, prepare_backend on the others. A handle without a data
// server connection sends nothing. Returns 0 or the preparation's code.
VARKEL_API int varkel_prepare_data_server(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Chips
// ---------------------------------------------------------------------------

// Whether chip number `chip` (1..36) sits on a board and position of the handle's model: 1 or 0.
VARKEL_API int varkel_chip_on_model(const varkel_t* varkel, int chip);
// The working chips of module `module` (on the model and not switched off), in
// ascending chip number: writes up to `capacity` of them to `chips` (may be NULL
// with capacity 0) and returns how many there are; -7 for a bad module.
VARKEL_API int varkel_working_chips(const varkel_t* varkel, int module, int* chips, int capacity);

// ---------------------------------------------------------------------------
// DACs
// ---------------------------------------------------------------------------

// The voltage a scan of `dac` comes nearest, in volts; 0 for a DAC the controller
// cannot scan toward an aim (only DAC_GND, DAC_FBK and DAC_CAS have one).
VARKEL_API double varkel_scan_aim(varkel_dac_t dac);
// Scans DAC `dac` of chip number `chip` on module `module` over codes `from` to
// `to` in steps of `step` (the controller's scan), writes the code whose voltage
// lies nearest the aim, and reads the code and the volts back into `code` and
// `volts` (either may be NULL). Returns 0; -7 for a bad module; -4 for a chip not
// on the model; VARKEL_CHIP_OFF for a chip switched off; -5 for a DAC without an
// aim, or codes outside 0..255, or a step count the scan refuses (nothing sent);
// VARKEL_REFUSED; else the failing query's code.
VARKEL_API int varkel_scan_chip(varkel_t* varkel, int module, int chip, varkel_dac_t dac, int from, int to, int step,
                                int* code, double* volts);

// Reads the DAC calibration files of `index` (every file first) and, when all
// read, configures every module from them (configure_module_dacs_with_file).
// Returns 0; -1 with the failure record naming the file, group and key (GLib's
// own words, no terminal colour codes) when a file is missing or a value is not a
// number, nothing sent; else configure_module_dacs_with_file's code.
VARKEL_API int varkel_load_dac_files(varkel_t* varkel, const char* index);
