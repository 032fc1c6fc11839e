// A handle connected to a simulator running in this process, data server and every
// module, as after the first steps of the typical use, and told the simulator's
// frame segment. `between` runs after the data server's connection, before the
// modules'.
#pragma once

#include <vector>

#include "frame.hpp"
#include "link.h"
#include "simulator.hpp"
#include "varkel.h"

namespace varkel::testing {

// The simulator's defaults for `model`, its frame under a segment name of this
// process's own (designated initializers that leave members out trip
// -Wmissing-field-initializers).
inline sim::Options options_for(varkel_detector_model_t model)
{
  sim::Options options;
  options.model = model;
  options.shm_name = sim::own_segment_name();
  return options;
}

// The same with chips left out and no frame.
inline sim::Options options_without_frame(varkel_detector_model_t model, std::vector<sim::MissingChip> missing = {})
{
  sim::Options options = options_for(model);
  options.missing = std::move(missing);
  options.publish_frame = false;
  return options;
}

struct SimulatedDetector {
  explicit SimulatedDetector(sim::Options options, void (*between)(varkel_t*) = nullptr)
      : sim(options), v(varkel_new(options.model))
  {
    const std::vector<const char*> hosts(static_cast<std::size_t>(sim.modules()), "127.0.0.1");
    std::vector<uint16_t> ports;
    for (int m = 1; m <= sim.modules(); ++m)
      ports.push_back(sim.module_port(m));
    varkel_set_frame_segment(v, sim.segment_name().c_str());
    connected = varkel_connect_backend(v, "127.0.0.1", sim.data_port());
    if (between != nullptr)
      between(v);
    connected |= varkel_connect(v, hosts.data(), ports.data());
  }
  ~SimulatedDetector() { varkel_delete(v); }
  SimulatedDetector(const SimulatedDetector&) = delete;
  SimulatedDetector& operator=(const SimulatedDetector&) = delete;

  sim::Simulator sim;
  varkel_t* v;
  int connected; // the OR of the two connections' codes
};

} // namespace varkel::testing
