// The analogue read-backs other families build on, on any channel.
#pragma once

#include "varkel.h"

namespace varkel::detail {

// The bias of the board selected on `owner` (US_SensorBias_RBV's read) into
// *volts. Returns the query code; a reply without a number leaves *volts alone.
int read_bias(varkel_t* v, varkel_thread_t owner, float* volts);
// The external band-gap input of the chip selected on `owner`, likewise.
int read_ext_bg(varkel_t* v, varkel_thread_t owner, float* volts);

} // namespace varkel::detail
