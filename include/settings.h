// Every setting of the library by a readable name, for command lines, scripts
// and configuration snapshots. One table names each setting's read-back and
// setter among the library's own operations; get and put go through them, so a
// setting by name sends exactly what the named operation sends.
//
// The names (value names in order 0, 1, ...; ranges as lo..hi):
//   detector-wide
//     readout-mode    default crw 24-bit dual-energy (set_medipix_mode). Read back
//                     as the data server's acquisition mode the handle keeps
//                     (24-bit, dual-energy), else module 1's image mode (1: crw).
//   per module (module 1..max_num_modules; put with module 0: every module)
//     exposure        seconds                      US_AcquireTime
//     period          seconds (0: back to back)    US_AcquirePeriod
//     exposures       count                        US_NumExposures
//     trigger         internal rising falling      US_TriggerMode
//     trigger-out     disable both sw external shutter-a shutter-b shutter-c
//                     shutter-all acq-a acq-b acq-c acq-all     trigger_out
//     image-mode      single multiple continuous threshold      US_ImageMode
//     read-counter    low high                     US_ReadCounter
//     discard-data    off on                       US_DiscardData
//     bias            volts 0..100: put ramps every board of the module
//                     (setSensorBias) and reads each back, get reads board 0
//     exposures-taken read-only: the controller's exposure count
//   per chip (chip number 1..36 on the model; put with chip 0: every working chip)
//     operation-mode, crw-srw, polarity, data-out, discriminator, test-pulse,
//     counter-depth, equalization, colour-mode, pixel-mode, gain, sense-dac,
//     ext-bg-select   the OMR fields, one name each
//     ext-bg          external band-gap input, volts 0..1
//     dac-output      read-only: the DAC output sense voltage
//     dac.<NAME>      one per DAC: dac.THRESHOLD0 .. dac.THRESHOLD7, dac.PREAMP,
//                     dac.IKRUM, dac.SHAPER, dac.DISC, dac.DISCLS,
//                     dac.SHAPERTEST, dac.DISCL, dac.DELAY, dac.TPBUFFERIN,
//                     dac.TPBUFFEROUT, dac.RPZ, dac.GND, dac.TPREF, dac.FBK,
//                     dac.CAS, dac.TPREFA, dac.TPREFB, dac.BANDGAPOUTPUT,
//                     dac.BANDGAPTEMPERATURE, dac.DACBIAS, dac.DACCASCODEBIAS,
//                     dac.TEST, dac.DISCH
// Each name says its kind (named values, whole or real numbers), its range and
// its accepted values. A put is truthful: every module and chip written is read
// back, and a value the controller refused or does not hold is an error
// (varkel_last_failure says which module, chip and command). A put to every chip
// uses the library's all-chips command where it has one and no chip of the
// module is switched off, else it goes chip by chip over the working chips; in
// both cases each working chip is then read back (about two commands per chip).
// Temperatures are readings, not settings; the per-board bias, efuse identifiers
// and the disabled chips are kept by the snapshots only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "varkel.h"

typedef enum { VARKEL_SETTING_MODULE = 0, VARKEL_SETTING_CHIP = 1, VARKEL_SETTING_DETECTOR = 2 } varkel_setting_scope_t;

typedef enum { VARKEL_SETTING_NAMED = 0, VARKEL_SETTING_WHOLE = 1, VARKEL_SETTING_REAL = 2 } varkel_setting_kind_t;

typedef struct {
  const char* name;             // readable name, e.g. "exposure", "gain", "dac.GND"
  const char* help;             // one line with the unit
  const char* values;           // "electrons holes" for named values, "0..255" for ranges, "" for any number
  varkel_setting_scope_t scope; // per module, per chip (module and chip) or detector-wide
  int writable;                 // 0 for read-only names
  varkel_setting_kind_t kind;   // value names, whole numbers or real numbers
  double min, max;              // the range (named values: 0..value_count - 1; unbounded: -HUGE_VAL..HUGE_VAL)
  int value_count;              // number of value names (0 unless named)
} varkel_setting_t;

// Number of names in the table.
VARKEL_API int varkel_settings_count(void);
// The setting at `index` (0..count - 1), or NULL out of range.
VARKEL_API const varkel_setting_t* varkel_setting_at(int index);
// The setting called `name`, or NULL when unknown.
VARKEL_API const varkel_setting_t* varkel_setting_find(const char* name);

// Text to value: a value name ("holes" gives 1) or a number. Returns 0; -3 for
// text that is neither, a number out of the setting's range or a fraction where
// the setting takes whole numbers (`value` then untouched).
VARKEL_API int varkel_setting_parse(const varkel_setting_t* s, const char* text, double* value);
// Value to text: its name for named values, else the number. Returns 0; -3 for a
// value without a name; ENOSPC when `text` (`size` bytes) is too small.
VARKEL_API int varkel_setting_format(const varkel_setting_t* s, double value, char* text, size_t size);

// Reads one setting back from the detector through the library's read-back:
// module 1..max_num_modules, and for chip settings chip number 1..36 on the model
// (selected first; ignored otherwise). The main channel is left on `module`.
// Returns 0; -7 for a bad module, -4 for a chip not on the model, -3 for a NULL
// setting, VARKEL_CHIP_OFF for a chip switched off (nothing sent); the code of the
// read-back; VARKEL_REFUSED when the controller refused it; -2 when the reply held
// no value. `value` and the handle's cache are left alone unless it returns 0.
VARKEL_API int varkel_setting_get(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double* value);
// Writes one setting through the library's setter and reads it back: module 0 =
// every module; for chip settings chip 0 = every working chip of the module(s).
// Returns 0; -7 / -4 / VARKEL_CHIP_OFF as above; -3 for a read-only setting, a
// value out of range, or an exposure that does not fit the period in force (or a
// period too short for the exposure in force: exposure + 0.7 ms readout at most
// the period, 0 lifting the rule) on a module written (nothing written);
// VARKEL_BUSY for a setting that would change an acquisition while varkel_acquire
// runs (nothing sent); VARKEL_REFUSED when the controller refused a write or its
// read-back; VARKEL_NOT_APPLIED when a module or chip reads back another value
// (to the precision the controller replies with); else the setter's code. On a
// fan-out the first failure is returned and the remaining targets are written.
VARKEL_API int varkel_setting_put(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double value);
