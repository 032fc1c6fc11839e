// Connecting the modules, their registers, module, board and chip selection,
// and the serial line. Part of <varkel/varkel.h>.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Connection, registers, addressing, serial port
// ---------------------------------------------------------------------------
// A module channel holds no descriptor before its first connection (fd 0) and
// after a failed one (fd -1); a command on it is refused with ENOTCONN, unsent.

// Connects module index `fd_pos` (0 to max_num_modules - 1) to its controller at
// `address`:`port` (receive time-out 600 s), makes it the main channel (and
// varkel_module) and sends its transport parameters (send_allinitArgs). A socket
// this module held before is closed first; no other module's socket is touched.
// On failure the module's socket is closed and its channel holds no descriptor
// (nor does the main channel, if it was this socket). Returns 0; -7 for a bad
// `fd_pos`; errno when the socket cannot be created; the codes of socket_connect;
// or the OR of the initialisation codes.
VARKEL_API int varkel_init(varkel_t* varkel, int fd_pos, const char* address, uint16_t port);

// Connects every module in parallel, one thread per module: module index m to
// address[m]:port[m], as varkel_init. Returns the OR of the modules' codes. The main
// channel ends on the module whose connection was established last.
VARKEL_API int varkel_connect(varkel_t* varkel, const char* const address[], const uint16_t port[]);

// Closes the main channel, if open, and leaves it at -1. The module channel that
// shared its socket is marked as holding no descriptor.
VARKEL_API void varkel_disconnect(varkel_t* varkel);

// Sends the RDMA parameters of module index `module` from `init_args` to its
// transport board, on its own channel: thirteen "TransportParams" commands, then
// "ConfigureTransport"; every step runs. Returns the OR of the fourteen codes;
// -3 with nothing sent when `bufferSize` does not fit four characters; -7 for a
// module index outside 0..max_num_modules - 1.
VARKEL_API int send_allinitArgs(varkel_t* varkel, int module);

// Reads the module's efuse identifier on channel `owner` into varkelParam.efuseID
// (its first word, at most 7 characters; a reply without a word leaves it as it
// was). Safe to call from one worker per module: the last reply stored wins.
// Returns the query code.
VARKEL_API int US_efuseID_RBV(varkel_t* varkel, varkel_thread_t owner);
// US_efuseID_RBV on the main channel.
VARKEL_API int efuseid_rbv(varkel_t* varkel);

// Sends "HS_Reset" with `action` (0 or 1) on channel `owner`; a reset (1) requires
// the transport to be initialised again. Returns the query code; -3 with nothing
// sent for any other action.
VARKEL_API int US_Reset(varkel_t* varkel, int16_t action, varkel_thread_t owner);
// US_Reset(varkel, 1, VARKEL_THREAD_MAIN).
VARKEL_API int varkel_reset(varkel_t* varkel);

// Kept for callers that expect it; does nothing and returns 0.
VARKEL_API int load_initVarkelParams(varkel_t* varkel);

// Transport-board and motherboard registers, each one query on channel `owner`.
// Values travel as one word: a null or empty value, or one holding a blank, is
// refused with -3 and nothing is sent. Otherwise the result is the query code; a
// reply text, even an error message, is not examined except by read_mb_reg.

// "TransportParams <init_arg> <value>": sets one RDMA transport parameter.
VARKEL_API int send_transportParams(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner);
// "ConfigureTransport": applies the transport parameters sent so far.
VARKEL_API int send_configureTransport(varkel_t* varkel, varkel_thread_t owner);
// "WriteTransport <init_arg> <value>": writes a transport-board register.
VARKEL_API int write_tb_reg(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner);
// "ReadTransport <addr_reg>": the value shows only in the trace.
VARKEL_API int read_tb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner);
// "WriteReg <addr_reg> <value>": writes a motherboard register of the selected
// board (chip index * 4096 + offset).
VARKEL_API int write_mb_reg(varkel_t* varkel, int addr_reg, const char* value, varkel_thread_t owner);
// "ReadReg <addr_reg>": the reply, hexadecimal with or without 0x, goes to
// mb_reg[owner]; a reply that is not hexadecimal leaves it as it was.
VARKEL_API int read_mb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner);

// Addressing. Chip numbers 1..36 map to boards in descending order: 1-12 on board
// 2, 13-24 on board 1, 25-36 on board 0.
//
// Selection cache. `sensor_pos` holds the last successful chip selection made on
// the caller's thread, on whatever channel. Selections made by the per-module
// workers the library starts inside a call (one thread per module) go to their
// module's controller but are not cached, so `sensor_pos` is only ever written by
// the thread that owns the handle and, after such a call, still names the chip the
// caller selected last. Main-channel operations read it as the selected chip.

// Points the main channel at module `module` (1..max_num_modules) and records it in
// varkel_module. Caller's thread only, never while workers run. Returns 0, or -7
// with nothing changed.
VARKEL_API int select_module(varkel_t* varkel, int module);

// Selects board `board_id` (0..max_num_boards - 1) on channel `owner`. Returns the
// query code, or -3 with nothing sent.
VARKEL_API int US_Select_MFB(varkel_t* varkel, int board_id, varkel_thread_t owner);
// US_Select_MFB on the main channel.
VARKEL_API int select_board(varkel_t* varkel, int board_id);
// Reads the selected board back into sensor_pos.mfb (kept when the reply is not a
// number). Returns the query code.
VARKEL_API int select_board_rbv(varkel_t* varkel);

// Selects chip index `sensor` (0..max_num_chips) on the board selected on channel
// `owner`. Returns the query code, or -3 with nothing sent.
VARKEL_API int US_ImgChipNumberID(varkel_t* varkel, uint16_t sensor, varkel_thread_t owner);
// Reads the selected chip index back into sensor_pos.chipId (kept when the reply
// is not a number). Returns the query code.
VARKEL_API int US_ImgChipNumberID_RBV(varkel_t* varkel);

// Selects chip number `chip_id` (1..36) on channel `owner`: its board, then its
// chip index, both sent even when the first fails. Returns -4 with nothing sent
// for a bad chip number; the OR of the two codes (-3 for a board the model lacks);
// 0 when both succeeded, and then sensor_pos holds the selection (see above).
VARKEL_API int US_Select_ChipNumber(varkel_t* varkel, int chip_id, varkel_thread_t owner);
// US_Select_ChipNumber on the main channel.
VARKEL_API int select_chipNumber(varkel_t* varkel, int chip_id);

// Serial line to a controller: 115200 baud, 8N1, raw, no flow control.

// Opens and configures `device`; the descriptor goes to varkel_interface (a serial
// port opened earlier on this handle is closed first). Returns 0, or -1 with a
// message; on failure varkel_interface is -1.
VARKEL_API int open_serialPort(varkel_t* varkel, const char* device);
// Writes `size` bytes of `buffer` in one call. Returns 0, or -1 on a short or
// failed write.
VARKEL_API int write_serialPort(int fd, const char* buffer, size_t size);
// Reads one reply: 'j', a {...} part, anything, then a second {...} part, which is
// placed in `buffer` (cut to size - 1 characters). Pending input is discarded
// first. Returns the length placed in `buffer`; -2 when nothing arrives within
// five 1-second waits, the reply does not start with 'j', the line goes silent for
// 0.5 s in mid-reply, or the reply runs past 64 KiB.
VARKEL_API int read_serialPort(varkel_t* varkel, int fd, char* buffer, size_t size);
