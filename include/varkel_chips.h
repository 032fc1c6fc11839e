// Chip configuration: the OMR register, equalization and pixel
// configuration. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// OMR register access
// ---------------------------------------------------------------------------
// The controller owns the register bits; fields are addressed by number. Every
// command goes over the main channel, to the chip selected on that module.

// Whether field `omr` may be written with `v` by set_omr: 0; -11 for a field out
// of 0..20 (nothing printed) or one that is not writable ("OMR-field not
// accessible"); -12 for a value the field refuses. Prints "OMR: <omr> -> Value: <v>"
// for fields in range.
VARKEL_API int validate_omr(int omr, int v);
// Sends "HS_ImgChipOMR <op> <omr> <value>"; the reply is not read. Returns the
// query code.
VARKEL_API int US_ImgChipOMR(varkel_t* varkel, varkel_omr_operation_t op, varkel_omr_t omr, int value);
// Writes field `omr` on the chips `send_to` names: the selected chip (0) or every
// chip (1) of the current module, or the same on every module in turn (2, 3; the
// main channel ends on the last). Any other target sends nothing and returns 0.
// Returns validate_omr's code with nothing sent, else the result of the last
// command. Caches nothing.
VARKEL_API int set_omr(varkel_t* varkel, varkel_omr_t omr, int value, varkel_send_to_all_t send_to);
// Counter depth as the controller reports it in bits to its enumeration index:
// 12 and 24 bits give 1 and 3, anything else -1.
VARKEL_API int update_counterDepth_index(int value);
// Reads every field of the selected chip into omr_values (field 6 converted with
// update_counterDepth_index). The reply's "<field> : <value>," pairs are read up
// to the first text that is not one; fields outside 0..20 are skipped. Returns 0,
// or the query code with omr_values left as it was.
VARKEL_API int get_omr(varkel_t* varkel);

// OMR field operations: one "HS_Set_OMR <field> <value>" or "HS_Get_OMR <field>"
// each, on the main channel. The number the controller answers is cached in the
// matching member of `omr` (booleans as non-zero, sense_dacSel as its low 8 bits).
// Returns -3 with nothing sent for a refused value, else the query code; a failed
// query leaves the cache alone, and so does a reply that does not start with the
// expected number (the operation then still returns 0).
VARKEL_API int US_OmrOMSelec(varkel_t* varkel, varkel_operation_mode_t operation_mode); // 0..7
VARKEL_API int US_OmrOMSelec_RBV(varkel_t* varkel);
VARKEL_API int US_ContinuousRW(varkel_t* varkel, varkel_crw_srw_t crw_srw_mode); // 0..1
VARKEL_API int US_ContinuousRW_RBV(varkel_t* varkel);
// Reply "Polarity set for: <n>"; the read-back replies a plain number.
VARKEL_API int US_Polarity(varkel_t* varkel, varkel_polarity_t polarity);
VARKEL_API int US_Polarity_RBV(varkel_t* varkel);
VARKEL_API int US_OmrPSSelec(varkel_t* varkel, varkel_dataout_t dataout); // 0..3
VARKEL_API int US_OmrPSSelec_RBV(varkel_t* varkel);
VARKEL_API int US_Discriminator(varkel_t* varkel, varkel_discriminator_t discriminator); // 0..1
VARKEL_API int US_Discriminator_RBV(varkel_t* varkel);
VARKEL_API int US_TestPulse(varkel_t* varkel, bool test_pulse);
VARKEL_API int US_TestPulse_RBV(varkel_t* varkel);
// Sends and caches the enumeration index, not bits.
VARKEL_API int US_CounterDepth(varkel_t* varkel, varkel_counterDepth_t mode);
VARKEL_API int US_CounterDepth_RBV(varkel_t* varkel);
VARKEL_API int US_Equalization(varkel_t* varkel, bool equalization);
VARKEL_API int US_Equalization_RBV(varkel_t* varkel);
VARKEL_API int US_SpectroscopicMode(varkel_t* varkel, varkel_spectroscopic_mode_t colour_mode); // 0..1
VARKEL_API int US_SpectroscopicMode_RBV(varkel_t* varkel);
VARKEL_API int US_PixelMode(varkel_t* varkel, varkel_pixel_mode_t mode); // 0..1
VARKEL_API int US_PixelMode_RBV(varkel_t* varkel);
VARKEL_API int US_Gain(varkel_t* varkel, varkel_gain_mode_t gain_mode); // 0..3, the check prints the value
VARKEL_API int US_Gain_RBV(varkel_t* varkel);
// 0..31; the reply is not read: only the read-back caches sense_dacSel.
VARKEL_API int US_SenseDacSel(varkel_t* varkel, uint8_t dac);
VARKEL_API int US_SenseDacSel_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Equalization and pixel configuration
// ---------------------------------------------------------------------------
// Main channel only; no reply is read. The loops go on after a failed command and
// return the OR of the results.

// Has the controller load equalization set "CFG<cfg_number>" into chip number
// `sensor`, or into chip numbers 1..36 one by one when `sensor` is 0. -3 with
// nothing sent for a chip number above 36.
VARKEL_API int US_Load_Equalization(varkel_t* varkel, uint8_t cfg_number, uint8_t sensor);
// Loads the 12-bit pixel configuration `value` into chip number `sensor`
// ("PixelLoad"). -3 with nothing sent (or printed) for a value above 4095.
VARKEL_API int pixel_load(varkel_t* varkel, uint8_t sensor, uint32_t value);
// On the current module: read counter read-back, read counter high, equalization
// on, pixel_load(chip, value), read counter back as it was, equalization off.
// Every step runs; returns the OR of their results.
VARKEL_API int config_discl(varkel_t* varkel, int chip, uint32_t value);
// config_discl on the chips `send_to` names: the chip selected last (0), chip
// numbers 1..num_all_chips of the current module (1), the chip selected last on
// every module (2), every chip of every module (3), each selected first. Selection
// results are not counted; any other target does nothing and returns 0.
VARKEL_API int US_ConfigDiscL(varkel_t* varkel, uint32_t value, varkel_send_to_all_t send_to);
// "sendImage <chip> <pattern>": for the chip selected last (0), chip numbers 1..36
// of the current module (1) or of every module in turn (2). Any other target
// sends nothing and returns 0.
VARKEL_API int send_image(varkel_t* varkel, uint8_t send_to_all, uint8_t pattern);
