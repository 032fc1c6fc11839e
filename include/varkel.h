// varkel: control library for a hybrid-pixel X-ray area detector built from
// Medipix3 chips. One handle per detector; every operation is a free function
// over the handle and returns an int code:
//   0          success
//   > 0        an operating-system error number (see strerror)
//   < 0        a library error, -1 to -13 (see varkel_error_string)
#pragma once

// The types, the records and the handle first; then the operations, by concern.
#include "varkel_types.h"

#include "varkel_records.h"

#include "varkel_handle.h"

#include "varkel_acquisition.h"
#include "varkel_backend.h"
#include "varkel_channel.h"
#include "varkel_chips.h"
#include "varkel_connection.h"
#include "varkel_dac.h"
#include "varkel_monitoring.h"
