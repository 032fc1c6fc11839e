// Input and output beside the detector: where the library's own prints go, the
// sample frame as a numpy array, and PNG pictures.
#pragma once

#include <pybind11/pybind11.h>

namespace varkel::python {

namespace py = pybind11;

// While one lives, what the library prints on C's stdout and stderr goes where
// varkel.redirect_library_output said (nowhere by default): the library's
// diagnostic lines are for its own trace, not a Python session. Python's own
// streams write to the descriptors, which stay as they are.
class LibraryOutput {
public:
  LibraryOutput();
  ~LibraryOutput();
  LibraryOutput(const LibraryOutput&) = delete;
  LibraryOutput& operator=(const LibraryOutput&) = delete;
};

// Registers Detector.frame, save_png and redirect_library_output; after init_detector.
void init_io(py::module_& m);

} // namespace varkel::python
