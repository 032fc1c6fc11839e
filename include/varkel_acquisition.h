// Acquisition: its parameters, the run, its status and triggers, and the
// readout modes. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Acquisition parameters
// ---------------------------------------------------------------------------
// Single commands go over the main channel (the module selected last) and cache
// what the controller answers; a reply that does not parse leaves the cache as
// it was and still returns 0. Arguments out of range return -3 and send nothing:
// a negative or non-finite time, 4294.967296 s or more of exposure, 2147.483648 s
// or more of period, fewer than one exposure.

// Exposure time in seconds, sent in whole microseconds (truncated).
VARKEL_API int US_AcquireTime(varkel_t* varkel, float acquire_time_s);
VARKEL_API int US_AcquireTime_RBV(varkel_t* varkel);
// Acquisition period in seconds, sent in whole microseconds (truncated).
VARKEL_API int US_AcquirePeriod(varkel_t* varkel, float acq_period_time_s);
VARKEL_API int US_AcquirePeriod_RBV(varkel_t* varkel);
VARKEL_API int US_NumExposures(varkel_t* varkel, int num_exposures);
VARKEL_API int US_NumExposures_RBV(varkel_t* varkel);
// Reads the controller's exposure total; while an acquisition started by this
// process counts (initial_exposure_counter > 0), also the exposures taken since.
VARKEL_API int US_NumExposuresCounter_RBV(varkel_t* varkel);
VARKEL_API int US_TriggerMode(varkel_t* varkel, varkel_trigger_mode_t trigger_mode);
VARKEL_API int US_TriggerMode_RBV(varkel_t* varkel); // caches nothing
VARKEL_API int US_ReadCounter(varkel_t* varkel, varkel_read_counter_t read_counter);
VARKEL_API int US_ReadCounter_RBV(varkel_t* varkel);
// Sets the image mode (0..3; the test-pulse mode is refused), then reads it back;
// returns the OR of both exchanges.
VARKEL_API int US_ImageMode(varkel_t* varkel, uint8_t image_mode);
VARKEL_API int US_ImageMode_RBV(varkel_t* varkel);
VARKEL_API int US_DiscardData(varkel_t* varkel, bool discard_data);
VARKEL_API int US_DiscardData_RBV(varkel_t* varkel);

// Composite setters: apply the value to every module, leaving the main channel on
// the last one. A non-zero period must exceed the exposure time by at least
// IMAGE_READOUT (single precision), checked against a fresh read-back; a breach
// returns -3 with nothing set. Otherwise the OR of every exchange's code.
VARKEL_API int set_acquireTime(varkel_t* varkel, float acquire_time_s);
VARKEL_API int set_periodTime(varkel_t* varkel, float period_time_s);
// With a shutter or acquisition trigger output (4..11) only module 1 is told.
VARKEL_API int set_numberExposures(varkel_t* varkel, int num_exposures);

// ---------------------------------------------------------------------------
// Acquisition run, status and triggers
// ---------------------------------------------------------------------------
// The interval timer, SIGALRM and start_polling are process-wide: one acquisition
// per process is timed at a time.

// Starts an acquisition: on every module after define_master_module(1, false,
// internal) when software_trigger is set, else on module 1 only. On success the
// status is ACQUIRING and the timer waits out numExposures x acquireTime; when that
// product arms no timer (zero, or under a microsecond), polling starts at once.
// Returns 0 or the OR of the failing codes (nothing changed then).
VARKEL_API int execute_acquire(varkel_t* varkel);
// DONE_ACQ once the timer has fired and the controller reports 0 seconds left,
// else ACQUIRING (nothing is sent before the timer fires). Stored in acquireStatus.
VARKEL_API int status_acquire(varkel_t* varkel);
// Stops every module: STOPPED, or the OR of the failing codes.
VARKEL_API int stop_acquire(varkel_t* varkel);
// Arms the one-shot SIGALRM timer for `acq_time` seconds (whole seconds only from
// one second on).
VARKEL_API void wait_toStart_polling(float acq_time);
// SIGALRM handler: writes its line and sets start_polling.
VARKEL_API void timer_handler(int signum);
// Makes `module` the trigger master: every other module takes `trigger_mode` (the
// master too when ext_trigger), software_trigger follows whether that mode is
// internal, and the master gets the shutter output of board C. -7 for a module
// out of range (nothing sent), else the OR of the codes; the main channel ends on
// the master.
VARKEL_API int define_master_module(varkel_t* varkel, uint8_t module, bool ext_trigger,
                                    varkel_trigger_mode_t trigger_mode);
VARKEL_API int US_Acquire(varkel_t* varkel, bool action); // 1 start, 0 stop
VARKEL_API int US_Acquire_RBV(varkel_t* varkel);          // a reply without a number keeps acquireState
VARKEL_API int US_DetectorState_RBV(varkel_t* varkel);    // first word of the reply
VARKEL_API int US_TimeRemaining_RBV(varkel_t* varkel);
// 0 or 1, else -3; "triggered" / "Waiting" set / clear software_trigger.
VARKEL_API int US_SoftawareTrigger(varkel_t* varkel, int software_trigger);
VARKEL_API int trigger_out(varkel_t* varkel, varkel_trigger_out_t trigger_out_mode); // 0..11, else -3
VARKEL_API int trigger_out_get(varkel_t* varkel);
VARKEL_API int Set_Trigger(varkel_t* varkel, int set_trigger); // 0 or 1, else -3
VARKEL_API int Set_Trigger_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Readout modes
// ---------------------------------------------------------------------------

// Puts every module in turn into `medipix_mode` (main channel, left on the last
// module) and records the data server's acquisition mode in acq_args.aquisitionMode
// (B12, B24 for 24 bits, DUALENERGY). Default and CRW set the image mode (0, 1);
// 24 bits sets image mode 2, thresholds 0 and 1 to 30 and 100 and the
// discriminator and gain OMR fields (1, 2) on all chips; dual energy sends nothing.
// A failed command does not stop the sequence. Returns the OR of the command
// codes; -3 with nothing sent or changed for a mode outside 0..3.
VARKEL_API int set_medipix_mode(varkel_t* varkel, varkel_medipix_mode_t medipix_mode);
