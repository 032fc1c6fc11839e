// The package's exceptions: varkel.Error for a call that failed, with the
// library's code; varkel.ControllerError for a command the controller refused;
// varkel.TimeoutError for a controller that did not answer in time.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "refusal.h"

namespace varkel::python {

namespace py = pybind11;

// What a call does and where, for the message of its failure: "exposure" on
// module 2, chip 5 (0: not one module's or chip's).
struct Doing {
  std::string what;
  int module = 0;
  int chip = 0;
  // Whether a failure the handle noted while the call returned 0 (a refusal) fails
  // it; the presence check expects empty positions to answer with errors.
  bool refusal_fails = true;
};

void init_errors(py::module_& m);

// Raises varkel.Error with `code` and `message`.
[[noreturn]] void raise_error(int code, const std::string& message);

// Raises the exception for a call that returned `rc`, or that returned 0 while
// the handle noted `noted` (nullptr when it noted nothing): the failure record
// gives the module, chip, command and what happened.
[[noreturn]] void raise_failure(int rc, const Doing& doing, const varkel_failure_t* noted);

[[noreturn]] void raise_os_error(int err, const std::string& path);

} // namespace varkel::python
