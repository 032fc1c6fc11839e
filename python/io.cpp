#include "io.hpp"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "common/picture.hpp"
#include "detector.hpp"
#include "errors.hpp"
#include "workflow.h"

namespace varkel::python {

namespace {

// Where the library's prints go while calls run: nullptr means the process's own
// stdout and stderr. C's stdout and stderr are variables the C library lets a
// program point elsewhere; the descriptors, which Python writes to, stay put.
struct Output {
  std::mutex mutex;
  FILE* target = nullptr;
  FILE* in_use = nullptr; // the target of the calls running now
  int calls = 0;
  FILE *own_out = nullptr, *own_err = nullptr;
};
Output output;

void redirect_library_output(std::optional<std::string> path)
{
  FILE* file = nullptr;
  if (path) {
    file = std::fopen(path->c_str(), "w");
    if (file == nullptr)
      raise_os_error(errno, *path);
    std::setvbuf(file, nullptr, _IOLBF, 0);
  }
  std::lock_guard lock(output.mutex);
  if (output.target != nullptr && output.target != output.in_use)
    std::fclose(output.target); // calls still running keep the one they started with
  output.target = file;
}

void save_png(const std::string& path, py::array_t<int32_t, py::array::c_style | py::array::forcecast> image, int bin)
{
  if (image.ndim() != 2 || bin < 1)
    throw py::value_error("a 2-D image and a bin of 1 or more");
  const auto height = static_cast<int>(image.shape(0)), width = static_cast<int>(image.shape(1));
  const std::span<const int32_t> pixels(image.data(), static_cast<std::size_t>(image.size()));
  bool ok = false;
  {
    py::gil_scoped_release nogil;
    ok = varkel::tools::write_png(path, varkel::tools::shade(pixels, width, height, bin));
  }
  if (!ok)
    raise_os_error(errno, path);
}

// The handle's own copy in chip order, read-only, valid until the next frame().
py::array raw_view(Detector& d)
{
  const varkel_t& v = d.handle();
  auto* keep = new std::shared_ptr<FramePixels>(d.frame_pixels());
  py::capsule owner(keep, [](void* p) { delete static_cast<std::shared_ptr<FramePixels>*>(p); });
  py::array_t<int32_t> view({py::ssize_t{v.max_num_modules}, py::ssize_t{v.max_num_boards},
                             py::ssize_t{v.max_num_chips}, py::ssize_t{256}, py::ssize_t{256}},
                            (*keep)->pixels, owner);
  view.attr("flags").attr("writeable") = false;
  return view;
}

// A copy of the data server's sample frame, placed on the detector face or as the handle's view.
py::array frame(Detector& d, bool placed)
{
  std::optional<varkel::tools::Face> face;
  d.exec({"sample frame"}, [&](varkel_t* v) {
    int rc = varkel_model_has_data_server(v->detModel) && v->adata.sample_frame == nullptr ? init_array_data(v) : 0;
    rc = rc != 0 ? rc : get_array_data(v);
    if (rc == 0 && placed)
      face = varkel::tools::place_on_face(v, v->sample_frame);
    return rc;
  });
  if (!placed)
    return raw_view(d);
  auto* f = new varkel::tools::Face(std::move(face.value()));
  py::capsule owner(f, [](void* p) { delete static_cast<varkel::tools::Face*>(p); });
  return py::array_t<int32_t>({f->height, f->width}, f->pixels.data(), owner);
}

} // namespace

LibraryOutput::LibraryOutput()
{
  std::lock_guard lock(output.mutex);
  if (output.calls++ == 0 && output.target != nullptr) {
    output.in_use = output.target;
    output.own_out = std::exchange(stdout, output.target);
    output.own_err = std::exchange(stderr, output.target);
  }
}

LibraryOutput::~LibraryOutput()
{
  std::lock_guard lock(output.mutex);
  if (--output.calls == 0 && output.in_use != nullptr) {
    std::fflush(output.in_use);
    stdout = output.own_out;
    stderr = output.own_err;
    if (output.in_use != output.target)
      std::fclose(output.in_use); // redirected elsewhere meanwhile
    output.in_use = nullptr;
  }
}

void init_io(py::module_& m)
{
  auto det = py::reinterpret_borrow<py::class_<Detector, std::shared_ptr<Detector>>>(m.attr("Detector"));
  det.def("frame", &frame, py::arg("placed") = true,
          "A copy of the sample frame: on the detector face (-1 in the gaps), or with placed=False a read-only "
          "view of the handle's copy, (modules, boards, chips, 256, 256), overwritten by the next frame().");
  m.def("save_png", &save_png, py::arg("path"), py::arg("image"), py::arg("bin") = 4,
        "Writes a 2-D image as a grey PNG, `bin` x `bin` pixels averaged into one.");
  m.def("_redirect_library_output", &redirect_library_output, py::arg("path"),
        "Sends what the library prints (its diagnostic lines) to the file `path`, or with None to the process's "
        "own stdout and stderr. At import it goes nowhere, unless the environment variable "
        "VARKEL_LIBRARY_OUTPUT names a file (or \"-\": the process's own output).");
}

} // namespace varkel::python
