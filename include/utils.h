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
