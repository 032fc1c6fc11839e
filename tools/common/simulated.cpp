#include "common/simulated.hpp"

#include "frame.hpp"
#include "link.h"

namespace varkel::tools {

SimulatedDetector start_simulator(varkel::sim::Options options)
{
  if (options.shm_name.empty())
    options.shm_name = varkel::sim::own_segment_name();
  SimulatedDetector d;
  d.sim = std::make_unique<varkel::sim::Simulator>(std::move(options));
  const std::string& host = d.sim->options().host;
  for (int m = 1; m <= d.sim->modules(); ++m)
    d.modules.push_back({host, d.sim->module_port(m)});
  d.data_server = {host, d.sim->data_port()};
  return d;
}

int recognise_simulator(varkel_t* v) { return varkel_identify(v, nullptr, 0); }

} // namespace varkel::tools
