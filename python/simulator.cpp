#include "simulator.hpp"

#include <pybind11/stl.h>

#include <chrono>

namespace varkel::python {

Simulator::Simulator(const std::string& model, unsigned latency_us,
                     const std::vector<std::pair<int, int>>& missing_chips, uint16_t port, uint16_t data_port)
{
  const auto m = varkel::sim::parse_model(model);
  if (!m)
    throw py::value_error("unknown model " + model + " (kinlet, lite, trio or quad)");
  varkel::sim::Options o;
  o.model = *m;
  o.port = port;
  o.data_port = data_port;
  o.latency = std::chrono::microseconds(latency_us);
  for (const auto& [module, chip] : missing_chips)
    o.missing.push_back({module, chip});
  running_ = varkel::tools::start_simulator(std::move(o));
}

const varkel::tools::SimulatedDetector& Simulator::running() const
{
  if (!running_.sim)
    throw py::value_error("the simulator is closed");
  return running_;
}

std::vector<std::pair<std::string, uint16_t>> Simulator::modules() const
{
  std::vector<std::pair<std::string, uint16_t>> out;
  for (const auto& e : running().modules)
    out.emplace_back(e.host, e.port);
  return out;
}

std::pair<std::string, uint16_t> Simulator::data_server() const
{
  return {running().data_server.host, running().data_server.port};
}

void Simulator::close()
{
  py::gil_scoped_release nogil; // its servers' threads finish their replies
  running_.sim.reset();
}

void init_simulator(py::module_& m)
{
  py::class_<Simulator>(m, "Simulator", "The simulated detector, its controllers and data server in this process.")
      .def(py::init<const std::string&, unsigned, const std::vector<std::pair<int, int>>&, uint16_t, uint16_t>(),
           py::arg("model") = "quad", py::arg("latency_us") = 0,
           py::arg("missing_chips") = std::vector<std::pair<int, int>>{}, py::arg("port") = 0, py::arg("data_port") = 0,
           "Starts a simulator of `model` (kinlet, lite, trio or quad) on loopback ports (0: any free one), adding "
           "`latency_us` to every controller reply; `missing_chips` lists (module, chip number) positions left empty.")
      .def_property_readonly(
          "model", [](const Simulator& s) { return varkel::sim::model_name(s.model()); }, "The model simulated.")
      .def_property_readonly("modules", &Simulator::modules, "(host, port) of each module's controller.")
      .def_property_readonly("data_server", &Simulator::data_server, "(host, port) of the data server.")
      .def_property_readonly(
          "segment", [](const Simulator& s) { return s.segment(); },
          "The shared-memory segment of its sample frame, of this simulator's own; \"\" for models without one.")
      .def("close", &Simulator::close, "Stops every server of the simulator.")
      .def(
          "__enter__", [](Simulator& s) -> Simulator& { return s; }, "The simulator itself.")
      .def(
          "__exit__", [](Simulator& s, py::args) { s.close(); }, "Closes the simulator.");
}

} // namespace varkel::python
