#include "common/simulated.hpp"

namespace varkel::tools {

SimulatedDetector start_simulator(varkel::sim::Options options)
{
  SimulatedDetector d;
  d.sim = std::make_unique<varkel::sim::Simulator>(std::move(options));
  const std::string& host = d.sim->options().host;
  for (int m = 1; m <= d.sim->modules(); ++m)
    d.modules.push_back({host, d.sim->module_port(m)});
  d.data_server = {host, d.sim->data_port()};
  return d;
}

} // namespace varkel::tools
