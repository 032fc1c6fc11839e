// Data-server link internals shared with the handle.
#pragma once

#include "varkel.h"

namespace varkel::detail {

// Closes the data-server connection and unmaps the frame buffer, if any.
void release_backend(varkel_t* v);

} // namespace varkel::detail
