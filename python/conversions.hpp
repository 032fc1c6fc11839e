// Values between Python and the library's settings table: properties by name,
// numbers checked against each setting's range before anything is sent, value
// names read back as names, DACs by name or number.
#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "settings.h"

namespace varkel::python {

namespace py = pybind11;

enum class Kind { integer, real, boolean, named };

// A setting of the library's table as a Python property: its name with "_" for
// "-", and the type its values take.
struct Setting {
  const varkel_setting_t* s;
  std::string attribute;
  Kind kind;
};

// Every setting but the DACs, which a chip shows by name as items.
const std::vector<Setting>& settings();
// The DACs by number - 1, named as in the table without "dac.": "GND", "DISCL".
const std::vector<std::string>& dac_names();

// A cached float as the shortest decimal that reads back as it: 0.05, not 0.05000000074505806.
double shortest(double cached);

// A value read back, as Python shows it: a float, an int, a bool, or the value's name ("high").
py::object to_python(const Setting& setting, double x);
// A number or a value name ("holes") as the setting's value; ValueError naming the
// setting's values when it is not one of them, TypeError for other types.
double from_python(const varkel_setting_t* s, py::handle value);

// A DAC by name (any case) or number 1..31; KeyError for any other.
varkel_dac_t dac_number(py::handle dac);
// The table's setting of a DAC.
const varkel_setting_t* dac_setting(py::handle dac);

} // namespace varkel::python
