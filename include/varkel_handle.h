// The handle, its life, the error texts and the argument checks. Part of
// <varkel/varkel.h>.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>

#include "varkel_records.h"
#include "varkel_types.h"

// ---------------------------------------------------------------------------
// The handle
// ---------------------------------------------------------------------------

struct varkel_t {
  uint8_t max_num_modules;
  uint8_t max_num_boards;
  uint8_t max_num_chips;
  uint8_t num_all_chips;    // chips per module
  uint8_t num_mfb_tsensors; // board temperature sensors per module
  int varkel_interface;     // main channel: a copy of the selected module's fd; -1 when closed
  uint8_t varkel_module;    // 1-based module selected last
  int fd[4];                // module sockets; 0 means never connected (see query_and_cache)
  int backend_socket;       // data-server socket; -1 when closed
  FILE* debug_out;          // trace stream; NULL means no trace
  varkel_omr omr;
  varkel_params_t varkelParam;
  varkel_acquire_params_t acquireParam;
  int32_t digital_dac_values[36][32]; // [chip number - 1][DAC number - 1]
  float analog_dac_values[36][32];
  int32_t omr_values[21];
  char file_template[300];
  initArgs init_args;
  simpleArgs ack;
  saveStatusArgs saveargs;
  acqArgs acq_args;
  acqStatusArgs acq_status_return;
  sensor sensor_pos; // selection made last (see select_chipNumber)
  pthread_mutex_t backend_socket_mutex;
  array_data adata;
  int simulate; // 1 selects the simulation shared-memory segments; set by the caller
  int32_t mb_reg[5];
  uint32_t frame_size; // pixels of one full frame
  int32_t* sample_frame;
  varkel_detector_model_t detModel;
  bool sensor_disabled[4][36]; // [module index][chip number - 1]
};

// Process-wide acquisition polling state (one acquisition per process is timed).
VARKEL_API extern volatile sig_atomic_t start_polling;
VARKEL_API extern int initial_exposure_counter;

// ---------------------------------------------------------------------------
// Handle, models and errors
// ---------------------------------------------------------------------------

// Creates a handle for `detModel` and prints the model chosen. Returns NULL only
// when the handle itself cannot be allocated. An unknown model gives a handle
// with all counts 0. When the frame copy cannot be allocated the handle is still
// returned, with `sample_frame` NULL and `frame_size` 0, and a line on standard
// error says so: callers that need the frame check `sample_frame`.
VARKEL_API varkel_t* varkel_new(varkel_detector_model_t detModel);

// Releases the handle and everything it owns: every module socket, the data-server
// connection, the frame copy, the mapped frame buffer, the trace file it opened and
// the mutex.
VARKEL_API void varkel_delete(varkel_t* varkel);

// Message for any result code: strerror for positive codes, the library's table
// for 0 and negative codes (anything below -13 reads "Invalid error number", but
// for the snapshot codes -101 to -105 of snapshot.h and -106 to -109 of refusal.h,
// which have texts of their own).
VARKEL_API const char* varkel_error_string(int error);

// Chip number within a module: (2 - mfb) * 12 + sensor + 1.
VARKEL_API uint32_t decode_sensor_number(uint8_t sensor, uint8_t mfb);

// Argument predicates: true when the value is accepted.
VARKEL_API bool validate_bool(int value);
VARKEL_API bool validate_u5_int(int value);
VARKEL_API bool validate_u8_int(int value);
VARKEL_API bool validate_u9_int(int value);
VARKEL_API bool validate_u12_int(int value);
VARKEL_API bool validate_operation_mode(int value);
VARKEL_API bool validate_crw_srw(int value);
VARKEL_API bool validate_polarity(int value);
VARKEL_API bool validate_data_out(int value);
VARKEL_API bool validate_discriminator(int value);
VARKEL_API bool validate_counter_depth(int value);
VARKEL_API bool validate_colour_mode(int value);
VARKEL_API bool validate_pixel_mode(int value);
VARKEL_API bool validate_gain_mode(int value); // prints the value first
VARKEL_API int validate_omr_field(int value);  // 1 or 0
VARKEL_API bool validate_dac_scan(int value);
VARKEL_API bool validate_dac(int value);
VARKEL_API bool validate_number_chip_module(int value);
VARKEL_API bool validate_chip_with_zero(int value);
VARKEL_API bool validate_number_chip_mfb(varkel_t* varkel, int value); // 0..max_num_chips inclusive
VARKEL_API bool validate_number_boards(varkel_t* varkel, int value);   // 0..max_num_boards - 1
VARKEL_API bool validate_module(varkel_t* varkel, int value);          // 1..max_num_modules
VARKEL_API bool validate_read_counter(int value);
VARKEL_API bool validate_temperature(float value);
VARKEL_API bool validate_bias_voltage(float value);
VARKEL_API bool validate_image_mode(int value);
VARKEL_API bool validate_medipix_mode(int value);
VARKEL_API bool validate_trigger_out(int value);
VARKEL_API bool validate_trigger_mode(int value);
VARKEL_API bool validate_acquire_period(float value);
VARKEL_API bool validate_column(int value);
VARKEL_API bool validate_row_count(int value);
VARKEL_API bool validate_extBg(float value);
