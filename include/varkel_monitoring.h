// Monitoring and presence: the chip presence check, re-initialisation and
// the temperatures. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Chip presence check and re-initialisation
// ---------------------------------------------------------------------------

// Reads every chip position's efuse register (every board, always chip indices
// 0..11), one worker per module on its own channel, and switches off the
// positions that read 0: registers 0x90 and 0x94 of the chip written "0" and "1",
// sensor_disabled[module index][chip number - 1] set, a line naming module, chip
// index and board printed. Each step runs whatever the earlier ones returned.
// Returns the OR of every step's code over all modules.
VARKEL_API int check_and_disable_sensors(varkel_t* varkel);

// Resets every module and sends its transport parameters again (one worker per
// module), prepares the data server, then loads the DAC file `file` into every
// module. Every step runs. Returns the OR of all codes.
VARKEL_API int varkel_reset_and_init(varkel_t* varkel, const char* file);

// ---------------------------------------------------------------------------
// Temperatures
// ---------------------------------------------------------------------------
// Readings are kept in varkelParam in the controller's unit. Single reads use the
// main channel (the module, board and chip selected last) and store only when the
// command succeeds and the reply begins with a number; they return the query code.

// Argument of one module worker of US_GetTemperature and US_GetMFBTemperature.
struct varkel_temperature_context {
  varkel_t* varkel;
  varkel_thread_t owner; // the module's channel and the row written
};

// Board sensor `sensorMFB` (1..16, sent unchecked) into mfb_sensor_temp.
VARKEL_API int US_TemperatureMFB_RBV(varkel_t* varkel, uint8_t sensorMFB);
// Average chip temperature of the selected module into
// avg_chip_temperature[varkel_module - 1] (none stored before a module is selected).
VARKEL_API int US_TemperatureChipAvg(varkel_t* varkel);
// Selects module `module` (1..4; its code not looked at), then reads the 16 sensors
// of boards 0, 1 and 2 into mfb_temperature[module - 1], printing one line per
// entry. A failed read repeats the previous reading. Returns the last read's code;
// -7 with nothing read for a module outside 1..4.
VARKEL_API int getMFB_Temperature(varkel_t* varkel, int module);
// As getMFB_Temperature for the chip temperatures of chip numbers
// 1..num_all_chips into allchip_temperature[module - 1].
VARKEL_API int getChip_Temperature(varkel_t* varkel, int module);
// Average chip temperature of every module at once, one POSIX thread per module on
// its own channel, into avg_chip_temperature; a module whose read fails keeps its
// reading. Returns 0, or non-zero when a module's thread could not be started
// (that module is named on standard error); returns after every started thread.
VARKEL_API int US_GetTemperature(varkel_t* varkel);
// As US_GetTemperature for the 48 board sensors of every module into
// mfb_temperature; a failed read leaves its entry alone.
VARKEL_API int US_GetMFBTemperature(varkel_t* varkel);
// Workers of the two calls above; `data` is one varkel_temperature_context.
// Return NULL.
VARKEL_API void* get_temperature_thread(void* data);
VARKEL_API void* get_mfbtemperature_thread(void* data);
