// Internal view of the handle's detector channels.
#pragma once

#include <chrono>

#include "varkel.h"

namespace varkel::detail {

// How long a reply that arrived in part may take to send its next segment.
inline constexpr std::chrono::milliseconds kReplyContinuationWait{500};

// Socket of channel `owner`, or -1 when the channel holds no connection (never
// connected, closed, or `owner` out of range). Descriptor 0 is never taken as a
// channel: module sockets start at 0 in a fresh handle.
int channel_socket(const varkel_t* v, varkel_thread_t owner);

} // namespace varkel::detail
