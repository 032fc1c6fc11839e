// The state the simulated detector shares between its servers: every module's
// controller state, the RDMA link parameters the data server hands out, and the
// published frame. One mutex guards it all; every request holds it while it runs.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "frame.hpp"
#include "geometry.hpp"

namespace varkel::sim {

using Clock = std::chrono::steady_clock;

// One acquisition of one module: `exposures` exposures of `exposure_us`, one
// every `period_us` (back to back when the period is shorter than the exposure).
struct Run {
  Clock::time_point start;
  std::optional<Clock::time_point> stopped;
  uint32_t exposure_us = 0;
  uint32_t period_us = 0;
  uint32_t exposures = 0;
  bool delivers = false;  // the link was up at the start: its frames reach the data server
  bool published = false; // its last frame has been written to the shared segment

  Clock::time_point end() const;
  bool done_at(Clock::time_point t) const { return t >= end(); }
  uint32_t frames_at(Clock::time_point t) const;
  double remaining_at(Clock::time_point t) const; // seconds
};

// Fields of a chip's operation mode register, by field number.
inline constexpr int kOmrFields = 21;
inline constexpr int kOmrCounterDepth = 6; // held as 0..3, reported in bits when all are read

// The DAC codes a chip powers up with, by DAC number.
inline constexpr std::array<uint32_t, 32> kDacDefaults = {0,   30,  30,  30,  30,  30,  30,  30,  30,  100, 10,
                                                          125, 125, 100, 0,   125, 30,  128, 4,   255, 135, 128,
                                                          190, 174, 511, 255, 128, 128, 128, 128, 0,   200};

struct Chip {
  uint32_t efuse = 0; // 0: no chip at this position
  std::map<uint32_t, uint32_t> regs;
  std::array<uint32_t, kOmrFields> omr{0, 0, 0, 0, 0, 0, 1}; // power-on: 12-bit counters
  int equalization_set = -1;                                 // none loaded
  uint32_t pixel_config = 0;                                 // last value loaded
  bool live() const;
  // Analogue settings: DAC codes by DAC number (1..31; 0 unused), the external
  // band-gap input in volts.
  std::array<uint32_t, 32> dacs = kDacDefaults;
  double ext_bg = 0.0;
};

// The transport parameters the controller expects before ConfigureTransport.
inline constexpr std::array<uint32_t, 13> kTransportParams = {2, 3, 8, 9, 10, 11, 12, 13, 14, 15, 16, 19, 21};

struct Module {
  // Settings a reset returns to their power-on values.
  int board = 0;
  int chip = 0;
  std::map<uint32_t, uint32_t> tb_regs;
  std::map<uint32_t, std::string> transport;
  bool link_up = false;
  uint32_t exposure_us = 1000;
  uint32_t period_us = 0;
  uint32_t exposures = 1;
  uint32_t trigger_mode = 0;
  uint32_t trigger_out = 0;
  uint32_t read_counter = 0;
  uint32_t image_mode = 0;
  uint32_t discard = 0;
  uint32_t trigger_enable = 0;
  bool armed = false; // waiting for a trigger

  // What a reset leaves alone.
  Chip chips[kMaxBoards][kPositionsPerBoard];
  std::optional<Run> run;
  uint64_t exposures_before = 0; // lifetime count of exposures of earlier runs
  uint64_t delivered_before = 0; // frames earlier runs delivered to the data server
  uint64_t delivered_runs = 0;   // runs whose frames reach the data server, the current one included

  // The sensor bias of each board in volts, and every level a bias was set to
  // (the latest 256).
  std::array<double, kMaxBoards> bias{};
  std::vector<double> bias_levels;

  void reset();
};

struct MissingChip {
  int module;      // 1..4
  int chip_number; // 1..36
};

class World {
public:
  World(varkel_detector_model_t model, const std::vector<MissingChip>& missing);

  std::mutex mutex;
  const varkel_detector_model_t model;
  const Geometry geo;
  std::vector<Module> modules;
  initArgs link{};                        // the RDMA parameters the data server sends on connect
  std::unique_ptr<SharedSegment> segment; // none until publish_frames()

  // The rest expects `mutex` to be held.

  // Creates the model's shared-memory segment, if it has one, under `name` (empty:
  // the model's default name); frames go there from now on.
  void publish_frames(const std::string& name);

  // Starts module `m` (index). A module whose trigger output drives the shutter
  // line starts every module waiting on an external trigger with it.
  void start(int m, Clock::time_point now);
  void stop(int m, Clock::time_point now);
  bool acquiring(int m, Clock::time_point now) const;
  uint64_t exposures_taken(int m, Clock::time_point now) const;
  uint64_t frames_delivered(int m, Clock::time_point now) const;
  // Writes the last frame of every delivering run that has ended since the last
  // call into the shared segment.
  void publish(Clock::time_point now);
};

// The values the transport parameters must carry for module index `m` to reach
// the data server's end of the link described by `link`.
std::map<uint32_t, uint64_t> expected_transport(const initArgs& link, int m);

} // namespace varkel::sim
