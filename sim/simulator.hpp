// varkel's virtual detector, embeddable: one JSON-RPC controller per module and
// the data server, all in this process, each on its own TCP port.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "geometry.hpp"
#include "world.hpp"

namespace varkel::sim {

struct Options {
  varkel_detector_model_t model = varkelQuad;
  std::string host = "127.0.0.1";
  uint16_t port = 0;      // module m listens on port + m - 1; 0: every server on a port of its own choosing
  uint16_t data_port = 0; // 0: a port of its own choosing
  std::chrono::microseconds latency{0}; // added before every controller reply
  std::vector<MissingChip> missing;
  bool publish_frame = true; // create the model's shared-memory segment
  // Its name; empty: the library's name for the model (one such simulator per
  // machine). own_segment_name() gives one of this process's own.
  std::string shm_name;
  bool verbose = false; // print every command and reply on standard output
};

// What a test may look at in one module's controller.
struct ModuleView {
  bool link_up = false;
  uint32_t exposure_us = 0, period_us = 0, exposures = 0;
  uint32_t trigger_mode = 0, trigger_out = 0;
  bool acquiring = false;
  uint64_t exposures_taken = 0;
  uint64_t frames_delivered = 0;
  std::vector<int> chips_off; // chip numbers switched off by register writes
  // Every level a board's bias was set to, the latest 256.
  std::vector<double> bias_levels;
};

class Simulator {
public:
  // Starts every server; throws std::runtime_error when a port cannot be taken
  // or the segment cannot be created.
  explicit Simulator(Options options);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  const Options& options() const { return options_; }
  int modules() const;
  uint16_t module_port(int module) const; // module 1..modules()
  uint16_t data_port() const;
  // The shared-memory segment's name, empty for models without one.
  std::string segment_name() const;
  // The published frame (empty for models without a segment).
  std::span<const int32_t> frame() const;
  ModuleView module(int module) const; // module 1..modules()
  // Requests answered by each module's controller so far.
  uint64_t commands(int module) const;

private:
  struct Servers;
  Options options_;
  std::unique_ptr<World> world_;
  std::unique_ptr<Servers> servers_;
};

} // namespace varkel::sim
