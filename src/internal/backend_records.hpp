// The data-server records and texts as pure functions over bytes: no socket, no
// handle state, so every byte and every text can be checked without a peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "varkel.h"

namespace varkel::detail {

inline constexpr std::size_t kRecordSize = 400;

// The layout checks the public header leaves out.
static_assert(offsetof(simpleArgs, error) == 1 && offsetof(simpleArgs, reserved) == 2);
static_assert(offsetof(acqArgs, saveMode) == 310 && offsetof(acqArgs, aquisitionMode) == 311 &&
              offsetof(acqArgs, resetRDMABuffer) == 312);
static_assert(offsetof(saveStatusArgs, done) == 1);
static_assert(sizeof(bool) == 1 && sizeof(float) == 4 && sizeof(double) == 8, "one-byte bools, IEEE 754 floats");

// Size of the frame buffer mapping: one frame of the four-module model.
inline constexpr std::size_t kFrameBufferSize = 144u * 65536u * sizeof(int32_t);
static_assert(kFrameBufferSize == 37748736);

// A request without arguments: `type`, then 399 zero bytes.
simpleArgs simple_request(requestTypesEnum type);

// The GEOMETRY request for `path`. False, `out` untouched, when the path does
// not fit `jsonfile` with its terminating zero.
bool geometry_request(std::string_view path, geometryArgs& out);

// Text of a NAK error code on ACQUIRE_ARGS.
const char* backend_error_text(uint8_t ret);
// Text of a NAK error code on GEOMETRY (its own table).
const char* geometry_error_text(uint8_t ret);
// "DONE", "NOT DONE" or "ERROR" for `saveStatusArgs.done`.
const char* save_status_text(uint8_t done);

// The readout mode mapped to an `aquisitionModeEnum` value.
constexpr uint8_t acquisition_mode_for(uint8_t medipix_mode)
{
  switch (medipix_mode) {
  case VARKEL_MEDIPIX_MODE_24BITS:
    return B24;
  case VARKEL_MEDIPIX_MODE_DUAL_ENERGY:
    return DUALENERGY;
  default:
    return B12;
  }
}

// "<id>=" and the 16 bytes in hexadecimal without padding, then a newline.
std::string format_gid(const uint8_t* gid, const char* id);
// The block printed when the RDMA parameters arrive.
std::string format_init_args(const initArgs& args);
// The block printed for a save status reply.
std::string format_save_status(const saveStatusArgs& status);

// The shared-memory segment a model uses, with its messages.
struct FrameSegment {
  const char* file;           // must exist under /dev/shm
  const char* name;           // opened with shm_open
  const char* missing_text;   // printed when `file` does not exist
  const char* open_fail_text; // printed when the open fails
};

// The segment of `model` (its "_sim" twin when `simulate` is 1), or nullptr for
// models that have none.
const FrameSegment* frame_segment(varkel_detector_model_t model, int simulate);

} // namespace varkel::detail
