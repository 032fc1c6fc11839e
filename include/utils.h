// Trace writer and DAC calibration file records.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "varkel.h"

// Calibration values of one module, index = chip number - 1.
struct dac_data {
  uint16_t fbk[36];
  uint16_t gnd[36];
  uint16_t cas[36];
  uint16_t discl[36];
};

// A DAC operation applied to every chip by the DAC file loader.
typedef int (*method)(varkel_t* varkel, varkel_dac_t dac, int value);

// Writes one trace line "HH:MM:SS.mmm LABEL DATA\n" to `stream` (nothing when it is
// NULL). Line feeds and carriage returns in DATA show as \n and \r, other
// non-printable bytes as \x followed by their value. The line reaches the stream
// whole even when several threads trace at once.
VARKEL_API void print_debug(FILE* stream, const char* label, const char* data);

// Reads the index file `filename` (group "paths", keys "MODULE 1" to "MODULE 4",
// all four required) and each module's DAC file into dfdata[0..3]. Returns 0, or -1
// after an error line on standard error at the first failure.
VARKEL_API int read_default_dacs(const char* filename, dac_data* dfdata);
// Reads one module's DAC file: groups "SENSOR 1" to "SENSOR 36", each with "fbk",
// "gnd", "cas" and "discl" as unsigned integers (low 16 bits kept). Returns 0, or
// -1 after an error line at the first missing group or key or unreadable value.
VARKEL_API int read_dacs_from_file(const char* file, dac_data* dfdata);
// Loads the DAC files named by the index `dac_file_ini`, then writes DiscL, GND,
// FBK and CAS to every enabled chip 1..num_all_chips of every module: one worker
// per module, each selecting its chips and writing on its own channel. A file that
// fails to load sends nothing and returns -1. Otherwise 0 when every selection and
// write succeeded, else the OR of the failing codes.
VARKEL_API int configure_module_dacs_with_file(varkel_t* varkel, const char* dac_file_ini);
// For chip numbers 1..36, whatever the model: selects the chip on the main channel
// (its result ignored), then calls `_method(varkel, dac, value)`. Returns the OR of
// the `_method` results, 0 when all succeeded.
VARKEL_API int run_dacs_all_chips(varkel_t* varkel, varkel_dac_t dac, int value, method _method);
