// How a handle reaches its detector beyond the library's defaults: per-handle
// time-outs, attaching to a detector already brought up, and the name of the
// shared-memory segment that holds the sample frame.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "varkel.h"

// Per-handle bounds on the connect and reply time-outs, in seconds (> 0, finite).
// Library callers who never call it keep the library's defaults (a reply waits up
// to 600 s; a connect as long as the system lets it). Applies to connections made
// after the call and to the module channels already open; on the data-server
// connection, to its connect and the parameters it greets with (its later
// exchanges keep their own time-out). Returns 0; -3 for a bound that is not a
// positive finite number (nothing changed); errno when an open channel refuses
// the new time-out.
VARKEL_API int varkel_set_timeouts(varkel_t* varkel, double connect_seconds, double reply_seconds);

// Opens every module's channel side by side (as varkel_connect) without sending
// the transport parameters again: for tools that attach to a detector already
// brought up. Returns the OR of the modules' codes (a connect that times out
// gives ETIMEDOUT); the main channel ends on the module connected last.
VARKEL_API int varkel_attach(varkel_t* varkel, const char* const address[], const uint16_t port[]);

// Maps the sample frame from the shared-memory segment `name` (e.g. "/my_sim")
// instead of the library's name for the model, for every later preparation; NULL
// or "" goes back to the library's name. Returns 0; -3 for a name that is not a
// valid segment name (nothing changed).
VARKEL_API int varkel_set_frame_segment(varkel_t* varkel, const char* name);

// Asks module 1 who it is (the request "varkel_Identity", which a real controller
// refuses or does not know). varkel-sim answers "varkel-sim VERSION model=MODEL
// module=N segment=NAME" (NAME empty when it publishes no frame): then sets
// `simulate` and the frame segment it names, so that preparation maps the right
// one. `identity` (may be NULL, `size` bytes) gets the identity text, "" when the
// controller gives none. The main channel is left on the module it was on. A
// controller's refusal is noted on the handle like any other (varkel_last_failure).
// Returns 1 for a simulator, 0 for a controller that gives no such identity, else
// the query's code (nothing changed).
VARKEL_API int varkel_identify(varkel_t* varkel, char* identity, size_t size);
