// What went wrong, in words: the codes our own layers add to the library's table,
// and the record of the last failure a handle saw. A controller that refuses a
// command answers with an "error" member; the library's own calls still return 0
// for such a reply (their result is the error's text), so layers that must not
// report success for a refused command compare varkel_failure_count before and
// after a call, and read the record for the module, the command and the
// controller's own text.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "varkel.h"

// Codes beyond the library's table (varkel_error_string gives their text).
#define VARKEL_REFUSED (-106)     // the controller answered with an error member
#define VARKEL_NOT_APPLIED (-107) // the controller accepted a write but reads back another value
#define VARKEL_BUSY (-108)        // an acquisition started by varkel_acquire runs
#define VARKEL_CHIP_OFF (-109)    // the chip is switched off (silent at the presence check)

typedef struct {
  int code;          // the code of the failure; 0 when none was noted on the handle
  int module;        // 1-based module; 0 when not one module's
  int chip;          // chip number 1..36; 0 when not one chip's
  char command[512]; // the command sent, e.g. "HS_AcquireTime_Command 1 500000"; empty when none
  char reply[256];   // the controller's own text of a refusal ("interlock: refused"); else empty
  char text[512];    // what happened, without module and chip: "the controller refused
                     // HS_AcquireTime_Command 1 500000: interlock: refused", "did not answer within 5 s"
} varkel_failure_t;

// Failures noted on the handle so far (refusals, replies that never came, closed
// connections, and our layers' own refusals): a count that changed across a call
// means the call met one, even when it returned 0.
VARKEL_API uint64_t varkel_failure_count(varkel_t* varkel);
// Copies the last failure noted into `failure`. Returns its code (0 when none).
VARKEL_API int varkel_last_failure(varkel_t* varkel, varkel_failure_t* failure);
