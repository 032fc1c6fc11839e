// The library's workflows from Python: acquire and wait, scan chips toward their
// aims, load DAC files. The waiting, stopping and scanning are the library's.
#include <pybind11/stl.h>

#include <csignal>
#include <exception>

#include "conversions.hpp"
#include "detector.hpp"
#include "workflow.h"

namespace varkel::python {

namespace {

// Only one acquisition per process can be timed (the library's interval timer).
std::mutex acquisition_timer;

// What the waiting thread shares with the progress callback.
struct Waiting {
  Detector* det;
  py::object progress;
  volatile sig_atomic_t cancel = 0;
  std::exception_ptr raised; // a Ctrl-C or an exception of `progress`: ends the wait
};

// Called by varkel_acquire about every 50 ms: gives the detector and the GIL to
// other threads for a moment, delivers Ctrl-C and calls the user's progress.
void on_progress(const varkel_acquire_progress_t* p, void* user)
{
  Waiting& w = *static_cast<Waiting*>(user);
  if (w.raised)
    return;
  w.det->hand_back([&] {
    try {
      if (PyErr_CheckSignals() != 0)
        throw py::error_already_set();
      if (!w.progress.is_none())
        w.progress(p->fraction);
    } catch (...) {
      w.raised = std::current_exception();
      w.cancel = 1; // the library stops the modules and returns ECANCELED
    }
  });
}

// A value of the acquisition, checked against its setting before anything is sent.
double checked(const char* name, double value) { return from_python(varkel_setting_find(name), py::float_(value)); }

// The DACs a scan goes toward an aim for, with the aim in volts, by DAC number.
std::vector<std::pair<std::string, double>> scan_aims()
{
  std::vector<std::pair<std::string, double>> aims;
  for (std::size_t d = 1; d <= dac_names().size(); ++d)
    if (const double aim = varkel_scan_aim(static_cast<varkel_dac_t>(d)); aim > 0)
      aims.emplace_back(dac_names()[d - 1], aim);
  return aims;
}

// ValueError, in the command line's words, for a scan the library would refuse.
void check_scan(varkel_dac_t dac, int initial, int final, int step)
{
  if (varkel_scan_aim(dac) <= 0) {
    std::string names;
    for (const auto& [name, aim] : scan_aims())
      names += (names.empty() ? "" : ", ") + name + " (aim " + py::repr(py::float_(aim)).cast<std::string>() + " V)";
    throw py::value_error("no aim for DAC " + dac_names()[dac - 1] + "; scans go toward the aims of " + names);
  }
  if (step == 0 || initial < 0 || initial > 255 || final < 0 || final > 255 ||
      !validate_dac_scan((final - initial) / step))
    throw py::value_error("codes " + std::to_string(initial) + " to " + std::to_string(final) + " in steps of " +
                          std::to_string(step) + ": codes are 0 to 255 and a scan takes 1 to 69 steps");
}

} // namespace

py::dict Detector::acquire(std::optional<double> exposure, std::optional<double> period, std::optional<int> exposures,
                           py::object progress, std::optional<double> deadline, std::optional<int> lead)
{
  varkel_acquire_request_t r;
  varkel_acquire_request_init(&r);
  r.exposure = exposure ? checked("exposure", *exposure) : r.exposure;
  r.period = period ? checked("period", *period) : r.period;
  r.exposures = exposures ? static_cast<int>(checked("exposures", *exposures)) : r.exposures;
  if (lead && (*lead < 1 || *lead > handle().max_num_modules))
    throw py::index_error("no module " + std::to_string(*lead) + " to lead");
  r.lead_module = handle().max_num_modules > 1 ? lead.value_or(0) : 0;
  r.deadline = deadline.value_or(0);
  Waiting w{this, std::move(progress), 0, nullptr};
  r.cancel = &w.cancel;
  r.progress = on_progress;
  r.user = &w;
  varkel_acquire_result_t result{};
  const Outcome o = attempt([&](varkel_t* v) {
    // A second acquire of this handle, from another thread while this one hands
    // the detector back, is the library's to refuse: it must not wait here.
    std::unique_lock timer(acquisition_timer, std::defer_lock);
    if (varkel_acquiring(v) == 0)
      timer.lock();
    return varkel_acquire(v, &r, &result);
  });
  if (w.raised) // the modules were stopped
    std::rethrow_exception(w.raised);
  check({"acquire"}, o);
  py::dict out;
  out["exposures_done"] = result.exposures_done;
  out["frames"] = result.frames;
  out["elapsed"] = result.elapsed;
  return out;
}

py::dict Detector::scan(const py::object& dac, int initial, int final, int step, int module, int chip)
{
  const varkel_dac_t d = dac_number(dac);
  check_scan(d, initial, final, step);
  if (module < 0 || module > handle().max_num_modules)
    throw py::index_error("no module " + std::to_string(module));
  py::dict out;
  for (int m = module == 0 ? 1 : module; m <= (module == 0 ? handle().max_num_modules : module); ++m) {
    check_working(m, chip);
    for (int c : chip != 0 ? std::vector<int>{chip} : working_chips(handle(), m)) {
      int code = 0;
      double volts = 0;
      exec({"scan " + dac_names()[d - 1], m, c},
           [&](varkel_t* v) { return varkel_scan_chip(v, m, c, d, initial, final, step, &code, &volts); });
      out[py::make_tuple(m, c)] = py::make_tuple(code, shortest(volts));
    }
  }
  return out;
}

void init_workflows(py::module_& m)
{
  py::dict aims;
  for (const auto& [name, aim] : scan_aims())
    aims[py::str(name)] = aim;
  m.attr("SCAN_AIMS") = aims;
}

void Detector::load_dac_files(const std::string& index)
{
  exec({"DAC files " + index}, [&](varkel_t* v) { return varkel_load_dac_files(v, index.c_str()); });
}

} // namespace varkel::python
