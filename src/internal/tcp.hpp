// Internal TCP helpers beside the exported ones of ethernet.h.
#pragma once

#include <cstdint>

namespace varkel::detail {

// Discards what has already arrived on `socket` (at most 100 reads of 512 bytes),
// without waiting and without touching its time-outs.
void discard_waiting(int socket);

// Sets the receive time-out of `socket` to `timeout_us`, unless an earlier call
// set that very value on it and neither set_timeout nor the library's close has
// touched it since: the common path of a query is then spared the system call.
void ensure_timeout(int socket, uint64_t timeout_us);

// socket_connect with the connect bounded by `connect_timeout_us` (0: as long as
// the system lets it take; a bound that runs out gives ETIMEDOUT).
int connect_within(int socket, const char* address, uint16_t port, uint64_t read_timeout_us,
                   uint64_t connect_timeout_us);

} // namespace varkel::detail
