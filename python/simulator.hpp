// The simulated detector in this process, for a Detector to connect to.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/simulated.hpp"

namespace varkel::python {

namespace py = pybind11;

class Simulator {
public:
  Simulator(const std::string& model, unsigned latency_us, const std::vector<std::pair<int, int>>& missing_chips,
            uint16_t port, uint16_t data_port);

  varkel_detector_model_t model() const { return running().sim->options().model; }
  // (host, port) of each module's controller, module 1 first.
  std::vector<std::pair<std::string, uint16_t>> modules() const;
  std::pair<std::string, uint16_t> data_server() const;
  std::string segment() const { return running().sim->segment_name(); }
  void close();

private:
  const varkel::tools::SimulatedDetector& running() const;

  varkel::tools::SimulatedDetector running_;
};

void init_simulator(py::module_& m);

} // namespace varkel::python
