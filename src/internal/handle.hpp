// What a handle keeps beyond the public record: per-handle time-out bounds and a
// count of the commands sent, in a private block allocated with the handle (the
// public struct keeps its layout). Plus the models' geometry by number.
#pragma once

#include <atomic>
#include <cstdint>

#include "ethernet.h"
#include "varkel.h"

namespace varkel::detail {

struct HandleExtras {
  uint64_t connect_timeout_us = 0;   // 0: as long as the system lets a connect take
  uint64_t reply_timeout_us = 0;     // 0: the library's default (VARKEL_MODULE_TIMEOUT_US)
  std::atomic<uint64_t> commands{0}; // requests sent to the controllers
};

// The extras of a handle made by varkel_new.
HandleExtras& extras(varkel_t* v);

// The receive time-out a module channel opens with.
inline uint64_t reply_timeout_us(const HandleExtras& e)
{
  return e.reply_timeout_us != 0 ? e.reply_timeout_us : VARKEL_MODULE_TIMEOUT_US;
}

struct ModelGeometry {
  uint8_t modules, boards, chips;
  const char* message; // printed by varkel_new
  const char* name;    // short name in snapshot files
};

// Geometry of `model`, or nullptr for no model.
const ModelGeometry* model_geometry(int model);

} // namespace varkel::detail
