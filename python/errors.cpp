#include "errors.hpp"

#include <cerrno>
#include <string_view>

namespace varkel::python {

namespace {

py::handle error_type;      // varkel.Error
py::handle controller_type; // varkel.ControllerError
py::handle timeout_type;    // varkel.TimeoutError

py::handle new_type(const char* name, const char* doc, PyObject* bases)
{
  PyObject* type = PyErr_NewExceptionWithDoc(name, doc, bases, nullptr);
  if (type == nullptr)
    throw py::error_already_set();
  return type;
}

std::string where(int module, int chip)
{
  if (module == 0)
    return chip == 0 ? "" : "chip " + std::to_string(chip) + ": ";
  return "module " + std::to_string(module) + (chip == 0 ? "" : " chip " + std::to_string(chip)) + ": ";
}

py::object none_if_empty(const char* text) { return *text ? py::object(py::str(text)) : py::none(); }

py::object none_if_zero(int n) { return n != 0 ? py::object(py::int_(n)) : py::none(); }

[[noreturn]] void raise_as(py::handle type, int code, const std::string& message, const varkel_failure_t& f)
{
  py::object e = type(message);
  e.attr("code") = code;
  e.attr("module") = none_if_zero(f.module);
  e.attr("chip") = none_if_zero(f.chip);
  e.attr("command") = none_if_empty(f.command);
  e.attr("reply") = none_if_empty(f.reply);
  PyErr_SetObject(type.ptr(), e.ptr());
  throw py::error_already_set();
}

} // namespace

void init_errors(py::module_& m)
{
  error_type = new_type("varkel.Error",
                        "A call that failed. .code holds the library's result code; .module, .chip, .command and "
                        ".reply say where and what, when known (else None).",
                        PyExc_RuntimeError);
  controller_type =
      new_type("varkel.ControllerError", "A command the controller refused; .reply holds the controller's own text.",
               error_type.ptr());
  const py::tuple bases = py::make_tuple(error_type, py::handle(PyExc_TimeoutError));
  timeout_type =
      new_type("varkel.TimeoutError", "A controller or connection that did not answer in time.", bases.ptr());
  m.attr("Error") = error_type;
  m.attr("ControllerError") = controller_type;
  m.attr("TimeoutError") = timeout_type;
}

[[noreturn]] void raise_error(int code, const std::string& message)
{
  varkel_failure_t none{};
  raise_as(error_type, code, message, none);
}

[[noreturn]] void raise_failure(int rc, const Doing& doing, const varkel_failure_t* noted)
{
  varkel_failure_t f{};
  if (noted != nullptr)
    f = *noted;
  const int code = rc != 0 ? rc : f.code;
  f.module = f.module != 0 ? f.module : doing.module;
  f.chip = f.chip != 0 ? f.chip : doing.chip;
  const std::string text = noted != nullptr && *f.text ? f.text : varkel_error_string(code);
  // What the call was doing, unless the failure's own words already say it
  // ("put exposure 0.5: ...", "bias cannot change while ...").
  const bool said = !doing.what.empty() && text.substr(0, text.find(':')).find(doing.what) != std::string::npos;
  const std::string message = where(f.module, f.chip) + (doing.what.empty() || said ? "" : doing.what + ": ") + text;
  py::handle type = error_type;
  if (f.code == VARKEL_REFUSED || rc == VARKEL_REFUSED)
    type = controller_type;
  else if (code == ETIMEDOUT || (code == -1 && std::string_view(f.text).starts_with("did not answer")))
    type = timeout_type;
  raise_as(type, code, message, f);
}

[[noreturn]] void raise_os_error(int err, const std::string& path)
{
  errno = err;
  PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
  throw py::error_already_set();
}

} // namespace varkel::python
