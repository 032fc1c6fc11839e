#include "views.hpp"

#include <pybind11/stl.h>

#include <algorithm>
#include <string>

#include "workflow.h"

namespace varkel::python {

namespace {

Detector& detector_of(Detector& d) { return d; }
Detector& detector_of(Module& m) { return *m.det; }
Detector& detector_of(Chip& c) { return *c.det; }
std::pair<int, int> address_of(const Detector&) { return {0, 0}; }
std::pair<int, int> address_of(const Module& m) { return {m.module, 0}; }
std::pair<int, int> address_of(const Chip& c) { return {c.module, c.chip}; }

std::string doc_of(const varkel_setting_t* s) { return std::string(s->help) + (*s->values ? ": " : "") + s->values; }

// A property per setting the view addresses: the detector every setting, a
// module the module and chip settings, a chip its own.
template <typename View, typename... Extra>
void add_settings(py::class_<View, Extra...>& cls, std::initializer_list<varkel_setting_scope_t> scopes)
{
  for (const Setting& setting : settings()) {
    if (std::find(scopes.begin(), scopes.end(), setting.s->scope) == scopes.end())
      continue;
    const py::cpp_function get([&setting](View& view) {
      const auto [m, c] = address_of(view);
      return to_python(setting, detector_of(view).get(setting.s, m, c));
    });
    if (!setting.s->writable) {
      cls.def_property_readonly(setting.attribute.c_str(), get, doc_of(setting.s).c_str());
      continue;
    }
    const py::cpp_function set([&setting](View& view, const py::object& value) {
      const auto [m, c] = address_of(view);
      detector_of(view).put(setting.s, m, c, value);
    });
    cls.def_property(setting.attribute.c_str(), get, set, doc_of(setting.s).c_str());
  }
}

void init_chip(py::module_& m)
{
  py::class_<Chip> chip(m, "Chip", "One chip of a module: its settings, and its DACs as items: chip[\"GND\"].");
  chip.def_readonly("module", &Chip::module, "The module's number, 1 first.")
      .def_readonly("number", &Chip::chip, "The chip number, 1..36.")
      .def(
          "__getitem__",
          [](Chip& c, const py::object& dac) {
            return static_cast<int>(c.det->get(dac_setting(dac), c.module, c.chip));
          },
          py::arg("dac"), "The code of a DAC, by name (any case) or number.")
      .def(
          "__setitem__",
          [](Chip& c, const py::object& dac, const py::object& value) {
            c.det->put(dac_setting(dac), c.module, c.chip, value);
          },
          py::arg("dac"), py::arg("code"), "Writes the code of a DAC, by name or number.")
      .def(
          "voltage", [](Chip& c, const py::object& dac) { return c.det->dac_voltage(c.module, c.chip, dac); },
          py::arg("dac"), "The voltage a DAC of this chip reads, in volts.");
  add_settings(chip, {VARKEL_SETTING_CHIP});
}

} // namespace

Module module_of(Detector& d, int module)
{
  if (module < 1 || module > d.handle().max_num_modules)
    throw py::index_error("no module " + std::to_string(module));
  return {d.shared_from_this(), module};
}

Chip chip_of(Detector& d, int module, int chip)
{
  module_of(d, module);
  if (varkel_chip_on_model(&d.handle(), chip) == 0)
    throw py::index_error("no chip number " + std::to_string(chip) + " on this model");
  return {d.shared_from_this(), module, chip};
}

void init_views(py::module_& m)
{
  init_chip(m);
  py::class_<Module> module(m, "Module", "One module of a detector: its settings and those of its chips.");
  module.def_readonly("number", &Module::module, "The module's number, 1 first.")
      .def(
          "chip", [](Module& x, int chip) { return chip_of(*x.det, x.module, chip); }, py::arg("chip"),
          "Chip number `chip` (1..36) of this module.");
  add_settings(module, {VARKEL_SETTING_MODULE, VARKEL_SETTING_CHIP});

  py::class_<Chips>(m, "Chips", "The chips of a detector by (module, chip number): det.chips[2, 5].")
      .def(
          "__getitem__", [](Chips& c, std::pair<int, int> at) { return chip_of(*c.det, at.first, at.second); },
          py::arg("at"), "Chip `at[1]` of module `at[0]`.");
}

void add_detector_settings(py::class_<Detector, std::shared_ptr<Detector>>& cls)
{
  add_settings(cls, {VARKEL_SETTING_DETECTOR, VARKEL_SETTING_MODULE, VARKEL_SETTING_CHIP});
}

} // namespace varkel::python
