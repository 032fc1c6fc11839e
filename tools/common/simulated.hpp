// The simulated detector in this process, with the addresses a handle connects to.
#pragma once

#include <memory>
#include <vector>

#include "common/endpoint.hpp"
#include "simulator.hpp"

namespace varkel::tools {

struct SimulatedDetector {
  std::unique_ptr<varkel::sim::Simulator> sim;
  std::vector<Endpoint> modules; // module 1 first, on 127.0.0.1
  Endpoint data_server;
};

// Starts every server of the simulator; throws std::runtime_error when it cannot.
SimulatedDetector start_simulator(varkel::sim::Options options);

} // namespace varkel::tools
