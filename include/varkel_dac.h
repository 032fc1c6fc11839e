// DACs and bias: the sensor bias and analogue read-backs, DAC writes and
// read-backs, and the DAC scan. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Sensor bias and analogue read-backs
// ---------------------------------------------------------------------------
// Main channel (the module selected last, its selected board and chip). A value
// refused by its check returns -3 with nothing sent; a failed command returns its
// code and leaves the cache alone; a reply that does not parse leaves it alone too
// and returns 0.

// Sets the bias of the selected board (0..100 V, finite) and caches the value the
// controller reports ("High Voltage bias set to %fV") in varkelParam.bias_voltage.
VARKEL_API int US_SensorBias(varkel_t* varkel, float bias_voltage);
// Reads the bias of the selected board back into varkelParam.bias_voltage.
VARKEL_API int US_SensorBias_RBV(varkel_t* varkel);
// Ramps the selected board's bias from the value read back to `voltage` in 1 V
// steps, the last step landing exactly on `voltage`. Levels outside 0..100 V are
// refused (-3 each) and the walk goes on; once a level has left that range in the
// direction of travel, the rest would be refused as well and are not walked. A
// read-back that is not finite cannot be ramped from: -3, no level sent. Returns
// the OR of every exchange's code.
VARKEL_API int set_sensorBias(varkel_t* varkel, float voltage);
// Prints "SENT TO VALUE" with `send_to`, then ramps the selected board
// (VARKEL_SEND_ONE_MFB_ONE_MODULE), every board of the module in turn
// (VARKEL_SEND_ALL_MFBS_ONE_MODEULE) or every board of every module
// (VARKEL_SEND_ALL_MFBS_ALL_MODULES, leaving the main channel on the last module).
// Returns the OR of the board selections' and ramps' codes; -3 for any other
// target, nothing sent.
VARKEL_API int setSensorBias(varkel_t* varkel, float voltage, varkel_send_to_all_t send_to);
// Sets the selected chip's external band-gap input (0..1 V) and caches the reply in
// varkelParam.extBgIn.
VARKEL_API int US_ImgChip_ExtBgIn(varkel_t* varkel, float voltage);
VARKEL_API int US_ImgChip_ExtBgIn_RBV(varkel_t* varkel);
// Reads the selected chip's DAC output sense voltage into varkelParam.dacOutput.
VARKEL_API int US_ImgChipDACOUTSense_RBV(varkel_t* varkel);
// Status-only read-backs: the value shows only in the trace. Return the query code.
VARKEL_API int US_BandGapOutput_RBV(varkel_t* varkel);
VARKEL_API int US_BandGapTemperature_RBV(varkel_t* varkel);
VARKEL_API int US_CascodeBias_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// DACs
// ---------------------------------------------------------------------------
// "HS_ImgChipDAC <operation> <dac> <value>". DACs 1..31; DAC_ThresholdEnergy0,
// DAC_ThresholdEnergy1, DAC_TPRefA and DAC_TPRefB take 0..511, the others 0..255.

// Writes `value` to DAC `dac`: the selected chip (VARKEL_SEND_ONE_CHIP_ONE_MODULE)
// or every chip (VARKEL_SEND_ALL_CHIPS_ONE_MODULE) of the module on channel
// `owner`; the selected chip number on each module in turn, each selected afresh
// on the main channel (VARKEL_SEND_ONE_CHIP_ALL_MODULES: the last module's write
// code, the main channel left on the last module); every chip of every module,
// one worker per module on its own channel (VARKEL_SEND_ALL_CHIPS_ALL_MODULES: 0
// when all succeeded, else the OR of the failing modules' codes). Board targets
// send nothing and return 0. -4 for a bad DAC, -5 for a value out of its range,
// both with nothing sent. No cache is written.
VARKEL_API int US_Set_DAC(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to,
                          varkel_thread_t owner);
// US_Set_DAC on the main channel.
VARKEL_API int set_dac(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to);
// Reads DAC values back on the main channel ("HS_ImgChipDAC <read_mode> <dac> 0",
// both sent unchecked): one code or voltage of the selected chip, or a list of
// "<chip or DAC number> : <value>," entries, into digital_dac_values or
// analog_dac_values [chip number - 1][DAC number - 1]. Values whose place falls
// outside the caches (no chip selected, chip not 1..36, DAC not 1..32) are
// dropped; a list ends at its first entry that does not parse. Returns the query
// code; on failure both caches are left alone.
VARKEL_API int get_dac(varkel_t* varkel, varkel_read_dac_t read_mode, varkel_dac_t dac);
// Selects the external band-gap input (0.637 V, OMR_Ext_BG_Sel 1) on chip 6 of
// module 1 and chip 31 of module 2, each selected on the main channel. Returns 0
// whatever the steps return; the main channel ends on module 2 (on a one-module
// detector the second chip is set on module 1).
VARKEL_API int Set_DAC_Defaults(varkel_t* varkel);
// Writes the optimised DiscL value of each chip: every module, every chip number
// 1..num_all_chips, each selected on the main channel. Returns 0 whatever the steps
// return; the main channel ends on the last module.
VARKEL_API int set_OptimizedDiscL(varkel_t* varkel);
// "HS_DACBias_RBV" on the main channel; the value shows only in the trace. Returns
// the query code.
VARKEL_API int US_DACBias_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// DAC scan
// ---------------------------------------------------------------------------
// The controller steps a DAC over a range and measures its voltage; the code whose
// voltage lies nearest the DAC's aim (DAC_GND 0.65 V, DAC_FBK 0.9 V, DAC_CAS
// 0.85 V) is written to the chip. No other DAC has an aim: a scan of one is
// refused with -5 before anything is printed or sent.

// Argument of one module worker of write_dac_all_modules.
struct varkel_dac_write_context {
  dac_scan_t* scan_rq; // shared read-only by all workers
  varkel_t* varkel;
  varkel_thread_t owner; // the module's channel
};

// Prints the number of points, (final - initial) / step, and scans the chips
// `send_to` names: the selected chip (0), every chip of the current module (1),
// the selected chip number on every module (2), every chip of every module (3),
// each selected first on the main channel (selection codes not counted). Any
// other target scans nothing and returns 0. Returns -5 with nothing sent for a
// DAC without an aim, a step of 0, or a point count outside 1..69; else the OR of
// the scans' codes.
VARKEL_API int US_DAC_Scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step,
                           varkel_send_to_all_t send_to);
// Scans the selected chip ("HS_DacScan <dac> <initial> <step> <final>"), prints
// the voltage and code chosen (0 and 0 when no point lies strictly between 0 V and
// twice the aim, or the scan failed) and writes that code to the chip in every
// case. Returns the OR of the scan's and the write's codes; -5 with nothing sent
// for a DAC without an aim.
VARKEL_API int dac_scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step);
// Writes `value` to DAC `dac` of every chip of every module ("HS_Set_DAC_Variable",
// unchecked), one POSIX thread per module on its own channel; prints a finish
// line per joined thread. Failed commands are not reported: returns 0, or
// non-zero when a module's thread could not be started (that module is named on
// standard error).
VARKEL_API int write_dac_all_modules(varkel_t* varkel, varkel_dac_t dac, int value);
// Worker of write_dac_all_modules; `data` is one varkel_dac_write_context. Returns
// NULL.
VARKEL_API void* dac_write_thread(void* data);
