// The varkel Python package's compiled part: each concern registers itself, in
// the order their types appear in each other's signatures.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "detector.hpp"
#include "errors.hpp"
#include "io.hpp"
#include "simulator.hpp"
#include "views.hpp"

PYBIND11_MODULE(_varkel, m)
{
  using namespace varkel::python;
  m.doc() = "Bindings of the varkel detector library; use the varkel package.";
  init_errors(m);
  init_simulator(m);
  init_views(m);
  init_detector(m);
  init_io(m);
  init_workflows(m);
  m.attr("DAC_NAMES") = py::cast(dac_names());
}
