// The data server: its connection, its 400-byte exchanges and the shared
// frame buffer. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>
#include <time.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Data server
// ---------------------------------------------------------------------------
// One TCP connection carries fixed 400-byte records: the data server's RDMA
// parameters on connect, then one request and one reply per exchange. A sample
// frame is published by the data server in a shared-memory segment.

// Writes the text of a NAK error code into `error` (at least 32 bytes):
// "Unable to create file", "Invalid acquisition mode", "Invalid number of
// acquisitions", or "Unknown error code" for any other value.
VARKEL_API void decode_backend_error(uint8_t ret, char* error);

// Connects to the data server (any earlier connection is closed first), receives
// its RDMA parameters into `init_args` and acknowledges them. Receive time-out
// 300 s (the connect and the parameters within the bounds of varkel_set_timeouts,
// when they are shorter). Returns 0; errno when the socket cannot be created; the codes of
// socket_connect; -1 when the handshake fails. The connection is closed on failure.
VARKEL_API int varkel_connect_backend(varkel_t* varkel, const char* address, unsigned short port);

// Closes the data-server connection, if open, and traces "[DISC]".
VARKEL_API void varkel_disconnect_backend(varkel_t* varkel);

// The handshake on the open socket `sockfd`: receives an `initArgs` of type
// INIT_ARGS into `init_args`, prints it and answers with an ACK. Returns 0, or -1
// when the record is short, of another type, or the ACK does not go out whole.
VARKEL_API int receive_initArgs_fromBackend(varkel_t* varkel, int sockfd);

// Prints "<id>=" and the 16 bytes of `gid` in hexadecimal, then a newline.
VARKEL_API void print_gid(unsigned char* gid, const char* id);

// Opens and maps the shared frame buffer of the handle's model (varkelTrio and
// varkelQuad only; the "_sim" segments when `simulate` is 1): 36 MiB, read-write.
// Returns the mapping, or NULL (with a message) when there is no segment for the
// model, the segment is missing, smaller than one frame, or cannot be opened or
// mapped.
VARKEL_API uint8_t* create_shared_memory(varkel_t* varkel);

// Maps the frame buffer into `adata.sample_frame`, replacing (and unmapping) an
// earlier mapping. Returns 0, or -1 with `adata` unchanged.
VARKEL_API int init_array_data(varkel_t* varkel);

// Copies the current frame (`frame_size` pixels) from the frame buffer into
// `sample_frame`, reading the segment under its name at the time of the call.
// Returns 0; ENODATA before a successful init_array_data or when the handle has
// no `sample_frame` (nothing is copied); EIO when the data server's segment has
// become smaller than one frame; the error of opening (ENOENT: the data server
// has removed it) or reading it. After EIO or a read error `sample_frame` may hold
// part of the frame. The process survives a segment that shrinks during the copy.
VARKEL_API int get_array_data(varkel_t* varkel);

// Sends `acq_args` as ACQUIRE_ARGS with `acquireParam.numCapture` acquisitions and
// receives the acknowledgement into `ack`. Returns 0 on ACK, -3 on NAK, -1 when
// the request does not go out whole. A short reply ends the process (status 0).
VARKEL_API int send_acqArgs_toBackend(varkel_t* varkel);

// Asks for the acquisition status, received into `acq_status_return`. Returns 0,
// or -1 when the request does not go out whole. A short reply ends the process.
VARKEL_API int get_acqStatus_fromBackend(varkel_t* varkel);

// Asks for the save status, received into `saveargs` and printed; stores the
// acquisitions saved through `savedAcquisitions`. Returns 0, or -1 when the
// request does not go out whole. A short reply or one of another type ends the
// process (status 0).
VARKEL_API int get_saveStatus_fromBackend(varkel_t* varkel, uint64_t* savedAcquisitions);

// Asks the data server to abort saving and prints the save status it answers
// with (`saveargs` is left alone). Returns 0; any failure ends the process
// (status 0). Takes no lock: do not run it alongside another exchange.
VARKEL_API int abort_save(varkel_t* varkel);

// Asks the data server to stop the acquisition and prints whether it is done.
// Returns 0 whatever the answer, -1 when the request or the reply is short.
VARKEL_API int send_stopAcquire_toBackend(varkel_t* varkel);

// Sends the path of a geometry file. Returns 0 on ACK; -1 when the request or the
// reply is short; 36 (ENAMETOOLONG) for a path of 300 characters or more, nothing
// sent. A NAK ends the process (status 0). Takes no lock: do not run it alongside
// another exchange.
VARKEL_API int send_geometryFile_toBackend(varkel_t* varkel, char* geometry_file);

// Stores acquisition arguments in `acq_args` (nothing is sent); `aquisitionMode`
// is a readout mode, mapped with decode_backend_medipixMode. Returns 0.
VARKEL_API int update_backend_acqArgs(varkel_t* varkel, uint8_t aquisitionMode, bool useLFSR, uint8_t saveMode,
                                      bool resetRDMABuffer, uint16_t bcFramesToProcessPerTime, uint8_t extraDimensions);

// Stores `name` in `file_template` and `acq_args.savefile`. Returns 0, or 36
// (ENAMETOOLONG) with nothing changed when it has 300 characters or more.
VARKEL_API int set_file_name_template(varkel_t* varkel, const char* name);

// Sets the fixed acquisition arguments (no save, 12-bit, RDMA buffer reset, one
// frame at a time, 5 extra dimensions) and sends them. Returns 0 or the code of
// send_acqArgs_toBackend.
VARKEL_API int prepare_backend(varkel_t* varkel);

// prepare_backend, then init_array_data, both always run. Returns 0 or the
// bitwise OR of their codes.
VARKEL_API int prepare_varkel(varkel_t* varkel);

// Acquisition mode the data server is told for a readout mode: 24-bit gives B24,
// dual energy DUALENERGY, anything else B12.
VARKEL_API uint8_t decode_backend_medipixMode(uint8_t aquisitionMode);

// result = stop - start, borrowing a second when the nanoseconds require it.
VARKEL_API void timespec_diff(struct timespec* start, struct timespec* stop, struct timespec* result);
