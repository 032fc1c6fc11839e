#pragma once

#include <cstdio>

namespace varkel::detail {

// Closes `stream` when it is a trace file the library opened; true if it was.
bool close_trace_file(FILE* stream);

} // namespace varkel::detail
