// Views of a detector: one module, or one chip of a module with its DACs by name;
// each a Python property per setting of the library's table it addresses.
#pragma once

#include <pybind11/pybind11.h>

#include <initializer_list>
#include <memory>

#include "conversions.hpp"
#include "detector.hpp"

namespace varkel::python {

namespace py = pybind11;

struct Module {
  std::shared_ptr<Detector> det;
  int module;
};
struct Chip {
  std::shared_ptr<Detector> det;
  int module, chip;
};
// det.chips[module, chip]
struct Chips {
  std::shared_ptr<Detector> det;
};

// Module `module` of `d`; IndexError when it has none such.
Module module_of(Detector& d, int module);
// Chip number `chip` of module `module`; IndexError when the model has none such.
Chip chip_of(Detector& d, int module, int chip);

// Registers Chip, Module and Chips; before init_detector, which returns them.
void init_views(py::module_& m);
// Adds a property per setting of `scopes` to the Detector class.
void add_detector_settings(py::class_<Detector, std::shared_ptr<Detector>>& cls);

} // namespace varkel::python
