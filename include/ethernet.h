// TCP helpers every connection of the library goes through. They work on plain
// IPv4 stream sockets created by the caller and know nothing of the handle.
// Results: 0, a positive operating-system error number, or -1 when a name does
// not resolve.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include "varkel.h"

// Receive time-outs used by the library, in microseconds.
inline constexpr uint64_t VARKEL_MODULE_TIMEOUT_US = 600000000;  // module channels, and after a drain
inline constexpr uint64_t VARKEL_BACKEND_TIMEOUT_US = 300000000; // data-server connection

// Resolves `host` (name or dotted address, IPv4 only) into `addr` with `port`.
// Returns 0, -1 (no IPv4 address, or the resolver gave up after three temporary
// failures), or errno on a resolver system error.
VARKEL_API int get_address(const char* host, uint16_t port, struct sockaddr_in* addr);

// Sets the receive time-out of `socket`. Returns 0 or errno.
VARKEL_API int set_timeout(int socket, uint64_t timeout_us);

// Discards what is already waiting on `socket` (at most 100 reads of 512 bytes,
// without waiting for more) and leaves its receive time-out at 600 s.
VARKEL_API void drain_input(int socket);

// Connects `socket` to `addr`. Returns 0 or errno.
VARKEL_API int set_address(int socket, const struct sockaddr_in* addr);

// Closes `fd`, retrying while close fails with anything but EBADF (10 attempts at most).
VARKEL_API void safe_close(int fd);

// Resolves `address`, sets the receive time-out and connects `socket`. The socket
// is left open on failure. Returns as get_address, set_timeout and set_address.
VARKEL_API int socket_connect(int socket, const char* address, uint16_t port, uint64_t read_timeout_us);
