// Internal view of the handle's detector channels.
#pragma once

#include <chrono>
#include <cstdint>

#include "varkel.h"

namespace varkel::detail {

// How long a reply that arrived in part may take to send its next segment.
inline constexpr std::chrono::milliseconds kReplyContinuationWait{500};

// Socket of channel `owner`, or -1 when the channel holds no connection (never
// connected, closed, or `owner` out of range). Descriptor 0 is never taken as a
// channel: module sockets start at 0 in a fresh handle.
int channel_socket(const varkel_t* v, varkel_thread_t owner);

// Discards what has already arrived on `socket` (at most 100 reads of 512 bytes),
// without waiting and without touching its time-outs.
void discard_waiting(int socket);

// socket_connect with the connect bounded by `connect_timeout_us` (0: as long as
// the system lets it take; a bound that runs out gives ETIMEDOUT).
int connect_within(int socket, const char* address, uint16_t port, uint64_t read_timeout_us,
                   uint64_t connect_timeout_us);

} // namespace varkel::detail
