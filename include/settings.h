// Every setting of the library by a readable name, for command lines, scripts
// and configuration snapshots. One table names each setting's read-back and
// setter among the library's own operations; get and put go through them, so a
// setting by name sends exactly what the named operation sends.
//
// The names (values: named ones in order 0, 1, ...; "lo..hi" for ranges):
//   detector-wide
//     readout-mode    default crw 24-bit dual-energy (set_medipix_mode). Read back
//                     as the data server's acquisition mode the handle keeps
//                     (24-bit, dual-energy), else module 1's image mode (1: crw).
//   per module (module 1..max_num_modules; put with module 0: every module, by
//   the library's composite setters where it has them)
//     exposure        seconds                      US_AcquireTime / set_acquireTime
//     period          seconds                      US_AcquirePeriod / set_periodTime
//     exposures       count                        US_NumExposures / set_numberExposures
//     trigger         internal rising falling      US_TriggerMode
//     trigger-out     disable both sw external shutter-a shutter-b shutter-c
//                     shutter-all acq-a acq-b acq-c acq-all     trigger_out
//     image-mode      single multiple continuous threshold      US_ImageMode
//     read-counter    low high                     US_ReadCounter
//     discard-data    off on                       US_DiscardData
//     bias            volts 0..100: put ramps every board of the module
//                     (setSensorBias), get reads board 0
//     exposures-taken read-only: the controller's exposure count
//   per chip (chip number 1..36; put with chip 0: every chip of the module(s))
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
// Each name's accepted values are in its `values` member. A write to every chip
// uses the library's all-chips command where it has one (DACs, most OMR fields);
// else it goes chip by chip, passing the chips switched off in the handle.
// Temperatures are readings, not settings; efuse identifiers and the disabled
// chips are kept by the snapshots only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "varkel.h"

typedef enum { VARKEL_SETTING_MODULE = 0, VARKEL_SETTING_CHIP = 1, VARKEL_SETTING_DETECTOR = 2 } varkel_setting_scope_t;

typedef struct {
  const char* name;             // readable name, e.g. "exposure", "gain", "dac.GND"
  const char* help;             // one line with the unit
  const char* values;           // "electrons holes" for named values, "0..255" for ranges, "" for any number
  varkel_setting_scope_t scope; // per module, per chip (module and chip) or detector-wide
  int writable;                 // 0 for read-only names
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
// module 1..max_num_modules, and for chip settings chip number 1..36 (selected
// first; ignored otherwise). The main channel is left on `module`. Returns 0; -7
// for a bad module, -4 for a bad chip, -3 for a NULL setting (nothing sent); the
// code of the read-back; -2 when the reply held no value.
VARKEL_API int varkel_setting_get(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double* value);
// Writes one setting through the library's setter: module 0 = every module; for
// chip settings chip 0 = every chip of the module(s), using the library's own
// fan-outs where it has them. Returns 0; -7 / -4 as above; -3 for a read-only
// setting or a value out of range (nothing sent); else the setter's code.
VARKEL_API int varkel_setting_put(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double value);
