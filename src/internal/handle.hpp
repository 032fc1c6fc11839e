// What a handle keeps beyond the public record: per-handle time-out bounds and a
// count of the commands sent, in a private block allocated with the handle (the
// public struct keeps its layout). Plus the models' geometry by number.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <mutex>

#include "ethernet.h"
#include "refusal.h"
#include "varkel.h"

namespace varkel::detail {

struct HandleExtras {
  uint64_t connect_timeout_us = 0;    // 0: as long as the system lets a connect take
  uint64_t reply_timeout_us = 0;      // 0: the library's default (VARKEL_MODULE_TIMEOUT_US)
  std::atomic<uint64_t> commands{0};  // requests sent to the controllers
  std::atomic<uint64_t> failures{0};  // failures noted on this handle (varkel_failure_count)
  std::mutex failure_mutex;           // guards `failure`: module workers note theirs at once
  varkel_failure_t failure{};         // the last one noted
  std::atomic<bool> acquiring{false}; // an acquisition started by varkel_acquire runs
  // Longest name varkel_set_frame_segment takes, "/" included: well within NAME_MAX.
  static constexpr std::size_t kSegmentNameMax = 200;
  char frame_segment[kSegmentNameMax + 1] = {}; // "": the library's name for the model
};

// Records a failure of our layer on the handle (module 1-based or 0, chip number
// or 0, `command` the text sent or NULL) with its words, and counts it.
void note_failure(varkel_t* v, int code, int module, int chip, const char* command, const char* reply,
                  const char* format, ...) __attribute__((format(printf, 7, 8)));
// Puts the chip number on the failure noted last, for layers that selected it.
void note_failure_chip(varkel_t* v, int chip);

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
