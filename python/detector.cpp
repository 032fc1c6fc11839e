#include "detector.hpp"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cmath>

#include "common/endpoint.hpp"
#include "common/simulated.hpp"
#include "conversions.hpp"
#include "link.h"
#include "simulator.hpp"
#include "views.hpp"
#include "workflow.h"

namespace varkel::python {

namespace {

constexpr int kChipNumbers = 36;

varkel_detector_model_t model_named(const std::string& model)
{
  const auto m = varkel::sim::parse_model(model);
  if (!m)
    throw py::value_error("unknown model " + model + " (kinlet, lite, trio or quad)");
  return *m;
}

bool chip_off(const varkel_t& v, int module, int chip)
{
  return varkel_chip_on_model(&v, chip) != 0 && v.sensor_disabled[module - 1][chip - 1] != 0;
}

} // namespace

std::vector<int> working_chips(const varkel_t& v, int module)
{
  std::vector<int> chips(kChipNumbers);
  const int n = varkel_working_chips(&v, module, chips.data(), kChipNumbers);
  chips.resize(static_cast<std::size_t>(std::clamp(n, 0, kChipNumbers)));
  return chips;
}

Detector::Detector(const std::string& model, std::optional<double> timeout)
{
  const varkel_detector_model_t m = model_named(model);
  if (timeout && !(std::isfinite(*timeout) && *timeout > 0))
    throw py::value_error("timeout: a positive number of seconds, or None for the library's own bounds");
  {
    LibraryOutput quiet; // it prints the model chosen
    v_ = varkel_new(m);
  }
  if (v_ == nullptr)
    throw std::bad_alloc();
  frame_ = std::make_shared<FramePixels>();
  frame_->pixels = v_->sample_frame;
  if (timeout)
    varkel_set_timeouts(v_, *timeout, *timeout); // checked above; nothing is open yet
}

void Detector::close()
{
  if (v_ == nullptr)
    return;
  // Another thread's acquisition may be handing the detector back for a moment.
  exec({"close"}, [this](varkel_t* v) {
    if (varkel_acquiring(v) != 0)
      return VARKEL_BUSY;
    release();
    return 0;
  });
}

void Detector::release()
{
  if (v_ == nullptr)
    return;
  v_->sample_frame = nullptr; // frame_ frees it once no view is left
  varkel_delete(v_);
  v_ = nullptr;
}

const varkel_t& Detector::handle() const
{
  if (v_ == nullptr)
    throw py::value_error("the detector is closed");
  return *v_;
}

void Detector::connect_backend(const std::string& host, uint16_t port)
{
  exec({"data server " + host + ":" + std::to_string(port)},
       [&](varkel_t* v) { return varkel_connect_backend(v, host.c_str(), port); });
}

void Detector::connect_modules(const std::vector<Address>& modules, std::optional<Address> data_server, bool attach)
{
  if (modules.size() != handle().max_num_modules)
    throw py::value_error("the model has " + std::to_string(handle().max_num_modules) + " module(s), " +
                          std::to_string(modules.size()) + " address(es) given");
  std::vector<varkel::tools::Endpoint> endpoints;
  for (const auto& [host, port] : modules)
    endpoints.push_back({host, port});
  const varkel::tools::AddressLists a(endpoints);
  if (data_server) // its RDMA parameters are what the modules' transport is configured with
    connect_backend(data_server->first, data_server->second);
  exec({attach ? "attach" : "connect"}, [&](varkel_t* v) {
    return attach ? varkel_attach(v, a.hosts.data(), a.ports.data())
                  : varkel_connect(v, a.hosts.data(), a.ports.data());
  });
  // A varkel-sim, this process's or one started by hand, says so and names its
  // frame's segment; a controller refuses the question (1: a simulator, 0: not).
  exec({"identify", 1, 0, false}, [](varkel_t* v) {
    const int rc = varkel::tools::recognise_simulator(v);
    return rc == 1 ? 0 : rc;
  });
  check_chips();
}

void Detector::connect_simulator(const Simulator& sim)
{
  if (sim.model() != handle().detModel)
    throw py::value_error(std::string("a ") + varkel::sim::model_name(sim.model()) + " simulator for a " +
                          varkel::sim::model_name(handle().detModel) + " detector");
  connect_modules(sim.modules(), sim.data_server(), false);
}

void Detector::put(const varkel_setting_t* s, int module, int chip, py::handle value)
{
  const double x = from_python(s, value);
  check_working(module, chip);
  exec({s->name, module, chip}, [&](varkel_t* v) { return varkel_setting_put(v, s, module, chip, x); });
}

double Detector::get(const varkel_setting_t* s, int module, int chip)
{
  const int m = module == 0 ? 1 : module;
  if (chip == 0 && s->scope == VARKEL_SETTING_CHIP) {
    const std::vector<int> chips = working_chips(handle(), m);
    chip = chips.empty() ? 0 : chips.front();
  }
  check_working(m, chip);
  double x = 0;
  exec({s->name, m, chip}, [&](varkel_t* v) { return varkel_setting_get(v, s, m, chip, &x); });
  return x;
}

double Detector::dac_voltage(int module, int chip, py::handle dac)
{
  const varkel_dac_t d = dac_number(dac);
  check_working(module, chip);
  float volts = NAN;
  exec({"voltage of " + dac_names()[d - 1], module, chip}, [&](varkel_t* v) {
    // The library keeps its cache when a reply does not parse: a value still
    // marked unread was not answered.
    float& cached = v->analog_dac_values[chip - 1][d - 1];
    cached = NAN;
    int rc = select_module(v, module);
    rc = rc != 0 ? rc : select_chipNumber(v, chip);
    rc = rc != 0 ? rc : get_dac(v, ANALOG_READ_SINGLE_DAC, d);
    volts = cached;
    return rc != 0 ? rc : std::isnan(volts) ? -2 : 0;
  });
  return shortest(volts);
}

std::vector<std::pair<int, int>> Detector::check_chips()
{
  // Empty positions may answer with errors: that is what the check looks for.
  exec({"presence check", 0, 0, false}, check_and_disable_sensors);
  return disabled_chips();
}

std::vector<std::pair<int, int>> Detector::disabled_chips() const
{
  std::vector<std::pair<int, int>> off;
  const varkel_t& v = handle();
  for (int m = 1; m <= v.max_num_modules; ++m)
    for (int c = 1; c <= kChipNumbers; ++c)
      if (chip_off(v, m, c))
        off.emplace_back(m, c);
  return off;
}

void Detector::check_working(int module, int chip) const
{
  const varkel_t& v = handle();
  if (module >= 1 && module <= v.max_num_modules && chip != 0 && chip_off(v, module, chip))
    raise_error(VARKEL_CHIP_OFF,
                "module " + std::to_string(module) + " chip " + std::to_string(chip) + " is switched off");
}

py::dict Detector::temperatures()
{
  // The library walks chip numbers, switched off or not, and a chip that is off
  // refuses its reading: with chips off, their refusals are expected.
  exec({"temperatures", 0, 0, disabled_chips().empty()}, [](varkel_t* v) {
    int rc = US_GetTemperature(v) | US_GetMFBTemperature(v);
    for (int m = 1; m <= v->max_num_modules; ++m) {
      // It walks chip numbers 1 up to the chips of a module; its code is that of
      // the last, which fails when that chip is off or missing.
      const int read = getChip_Temperature(v, m);
      const int last = std::min<int>(v->num_all_chips, kChipNumbers);
      rc |= varkel_chip_on_model(v, last) != 0 && !chip_off(*v, m, last) ? read : 0;
    }
    return rc;
  });
  const varkel_t& v = handle();
  const py::ssize_t modules = v.max_num_modules, boards = v.max_num_boards;
  py::array_t<float> average(modules), board({modules, boards, py::ssize_t{16}}), chips({modules, py::ssize_t{36}});
  for (py::ssize_t m = 0; m < modules; ++m) {
    average.mutable_at(m) = v.varkelParam.avg_chip_temperature[m];
    for (py::ssize_t b = 0; b < boards; ++b)
      for (py::ssize_t s = 0; s < 16; ++s)
        board.mutable_at(m, b, s) = v.varkelParam.mfb_temperature[m][b * 16 + s];
    for (int c = 1; c <= kChipNumbers; ++c)
      chips.mutable_at(m, c - 1) = NAN;
    for (int c : working_chips(v, static_cast<int>(m) + 1))
      if (c <= v.num_all_chips)
        chips.mutable_at(m, c - 1) = v.varkelParam.allchip_temperature[m][c - 1];
  }
  py::dict out;
  out["average"] = average;
  out["boards"] = board;
  out["chips"] = chips;
  return out;
}

void Detector::define_master(int module, bool external, int others)
{
  exec({"trigger arrangement", module}, [&](varkel_t* v) {
    return define_master_module(v, static_cast<uint8_t>(module), external, static_cast<varkel_trigger_mode_t>(others));
  });
}

void Detector::stop()
{
  // Its success is STOPPED, not 0.
  exec({"stop"}, [](varkel_t* v) {
    const int rc = stop_acquire(v);
    return rc == STOPPED ? 0 : rc;
  });
}

void Detector::read_back_in_c(int count)
{
  const varkel_setting_t* exposure = varkel_setting_find("exposure");
  exec({"exposure"}, [&](varkel_t* v) {
    int rc = 0;
    double x = 0;
    for (int i = 0; i < count && rc == 0; ++i)
      rc = varkel_setting_get(v, exposure, 1, 0, &x);
    return rc;
  });
}

namespace {

void add_connections(py::class_<Detector, std::shared_ptr<Detector>>& det)
{
  det.def("connect_backend", &Detector::connect_backend, py::arg("host"), py::arg("port"),
          "Connects the data server: its RDMA parameters arrive and are acknowledged.")
      .def("connect", &Detector::connect_simulator, py::arg("simulator"), py::keep_alive<1, 2>(),
           "Connects the simulator's modules and data server and switches off its silent chips; the simulator is "
           "kept running while the detector lives.")
      .def("connect", &Detector::connect_modules, py::arg("modules"), py::arg("data_server") = py::none(),
           py::arg("attach") = false,
           "Connects every module at once, [(host, port), ...] module 1 first, and the data server when given; "
           "attach=True opens the channels of a detector already brought up without configuring its transport. "
           "Then switches off the chips that do not answer the presence check.")
      .def("close", &Detector::close, "Closes every connection; the detector cannot be used again.")
      .def(
          "__enter__", [](Detector& d) -> Detector& { return d; }, "The detector itself.")
      .def(
          "__exit__", [](Detector& d, py::args) { d.close(); }, "Closes the detector.");
}

void add_addressing(py::class_<Detector, std::shared_ptr<Detector>>& det)
{
  det.def_property_readonly(
         "model", [](Detector& d) { return varkel::sim::model_name(d.handle().detModel); }, "The detector's model.")
      .def_property_readonly(
          "modules", [](Detector& d) { return d.handle().max_num_modules; }, "How many modules it has.")
      .def("module", &module_of, py::arg("module"), "Module `module` (1 first) alone.")
      .def("chip", &chip_of, py::arg("module"), py::arg("chip"), "Chip number `chip` (1..36) of module `module`.")
      .def_property_readonly(
          "chips", [](Detector& d) { return Chips{d.shared_from_this()}; }, "The chips by [module, chip].")
      .def_property_readonly(
          "dacs", [](Detector& d) { return Chips{d.shared_from_this()}; }, "The chips by [module, chip].")
      .def("check_chips", &Detector::check_chips,
           "Runs the presence check again: switches off the chips without an efuse id; [(module, chip), ...].")
      .def_property_readonly("disabled_chips", &Detector::disabled_chips,
                             "The chips switched off: [(module, chip), ...]; commands over every chip pass them by.");
}

void add_operations(py::class_<Detector, std::shared_ptr<Detector>>& det)
{
  det.def("scan", &Detector::scan, py::arg("dac"), py::arg("initial") = 0, py::arg("final") = 255, py::arg("step") = 4,
          py::arg("module") = 0, py::arg("chip") = 0,
          "Scans GND, FBK or CAS toward its aim on one chip, or on the working chips of a module (0: of every "
          "module); the code nearest the aim is written: {(module, chip): (code, volts)}.")
      .def("load_dac_files", &Detector::load_dac_files, py::arg("index"),
           "Reads the DAC calibration files named by the index file `index` and configures every module.")
      .def("temperatures", &Detector::temperatures,
           "{\"average\": (modules,), \"boards\": (modules, boards, 16), \"chips\": (modules, 36)} in degrees, "
           "NaN for chips missing or off.")
      .def("acquire", &Detector::acquire, py::kw_only(), py::arg("exposure") = py::none(),
           py::arg("period") = py::none(), py::arg("exposures") = py::none(), py::arg("progress") = py::none(),
           py::arg("deadline") = py::none(), py::arg("lead") = 1,
           "Sets only what is given, lets module `lead` lead the others with its shutter output (None: the trigger "
           "arrangement stays), prepares the data server, acquires and waits, calling progress(fraction). Stops "
           "the modules on Ctrl-C, an exception of `progress` or the deadline (varkel.TimeoutError; default twice "
           "the expected time + 10 s). Returns {\"exposures_done\", \"frames\", \"elapsed\"}.")
      .def("define_master", &Detector::define_master, py::arg("module") = 1, py::arg("external") = false,
           py::arg("trigger_mode") = static_cast<int>(VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE),
           "Module `module` leads with its shutter output; the others start on its edge.")
      .def("stop", &Detector::stop, "Stops every module.")
      .def("_read_back_in_c", &Detector::read_back_in_c, py::arg("count"),
           "Reads the exposure `count` times in C: the baseline of the call benchmark.");
}

} // namespace

void init_detector(py::module_& m)
{
  py::class_<Detector, std::shared_ptr<Detector>> det(
      m, "Detector",
      "A detector of one model. Its properties are the library's settings by name; a property of the Detector "
      "writes every module (every chip) and reads module 1 (its first working chip).");
  det.def(py::init<const std::string&, std::optional<double>>(), py::arg("model") = "quad", py::arg("timeout") = 5.0,
          "A detector of `model` (kinlet, lite, trio or quad), not connected yet. `timeout` bounds every connect "
          "and every reply in seconds (None: the library's own bounds), so that a controller that stops "
          "answering raises varkel.TimeoutError and Ctrl-C is seen within that time.");
  add_connections(det);
  add_addressing(det);
  add_operations(det);
  add_detector_settings(det);
}

} // namespace varkel::python
