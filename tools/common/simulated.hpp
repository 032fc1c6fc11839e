// The simulated detector in this process, with the addresses a handle connects
// to, and recognising a simulator behind any addresses.
#pragma once

#include <memory>
#include <vector>

#include "common/endpoint.hpp"
#include "simulator.hpp"
#include "varkel.h"

namespace varkel::tools {

struct SimulatedDetector {
  std::unique_ptr<varkel::sim::Simulator> sim;
  std::vector<Endpoint> modules; // module 1 first, on 127.0.0.1
  Endpoint data_server;
};

// Starts every server of the simulator, its frame under a segment name of this
// process's own unless `options` names one (so that it never takes or removes
// another simulator's); throws std::runtime_error when it cannot.
SimulatedDetector start_simulator(varkel::sim::Options options);

// After connecting or attaching `v` to any addresses: asks module 1 whether it is
// a varkel-sim (this process's or one started by hand) and, if so, points the
// handle at the simulator's frame (varkel_identify). Returns 1 for a simulator,
// 0 for a real controller (its refusal of the request is noted on the handle),
// else the query's code.
int recognise_simulator(varkel_t* v);

} // namespace varkel::tools
