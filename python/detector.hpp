// A Detector owns one varkel_t and calls the library with the GIL released, one
// call at a time whichever Python thread asks, turning every failure into an
// exception that says what happened.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "errors.hpp"
#include "io.hpp"
#include "settings.h"
#include "varkel.h"

namespace varkel::python {

namespace py = pybind11;

class Simulator;
using Address = std::pair<std::string, uint16_t>;

// The handle's pixel copy; outlives the handle while numpy views of it exist.
struct FramePixels {
  int32_t* pixels = nullptr;
  ~FramePixels() { std::free(pixels); }
};

class Detector : public std::enable_shared_from_this<Detector> {
public:
  Detector(const std::string& model, std::optional<double> timeout);
  ~Detector() { release(); }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  // The one place that calls the library: without the GIL, holding the
  // detector's lock (a channel carries one query at a time), the library's prints
  // sent away. A Ctrl-C that came during the call raises KeyboardInterrupt after it.
  template <typename F> int run(F&& call)
  {
    int rc = 0;
    bool closed = false;
    {
      py::gil_scoped_release nogil;
      std::unique_lock lock(mutex_);
      LibraryOutput quiet;
      std::unique_lock<std::mutex>* outer = std::exchange(held_, &lock);
      closed = v_ == nullptr; // perhaps by another thread, while this one waited
      rc = closed ? 0 : call(v_);
      held_ = outer;
    }
    if (closed)
      throw py::value_error("the detector is closed");
    if (PyErr_CheckSignals() != 0)
      throw py::error_already_set();
    return rc;
  }

  // What a call returned, and the failure the handle noted meanwhile, if any.
  struct Outcome {
    int rc = 0;
    bool noted = false;
    varkel_failure_t failure{};
  };
  template <typename F> Outcome attempt(F&& call)
  {
    Outcome o;
    o.rc = run([&](varkel_t* v) {
      const uint64_t before = varkel_failure_count(v);
      const int rc = call(v);
      o.noted = varkel_failure_count(v) != before && varkel_last_failure(v, &o.failure) != 0;
      return rc;
    });
    return o;
  }
  // Raises for a non-zero result, or for a failure noted while the call returned
  // 0 (a command the controller refused).
  static void check(const Doing& doing, const Outcome& o)
  {
    if (o.rc != 0 || (o.noted && doing.refusal_fails))
      raise_failure(o.rc, doing, o.noted ? &o.failure : nullptr);
  }
  template <typename F> void exec(const Doing& doing, F&& call) { check(doing, attempt(std::forward<F>(call))); }

  // From inside run(): lets other threads have the detector and Python while
  // `f` runs with the GIL, then takes the detector back.
  template <typename F> void hand_back(F&& f)
  {
    std::unique_lock<std::mutex>* mine = held_; // calls made meanwhile point held_ at their own
    mine->unlock();
    {
      py::gil_scoped_acquire gil;
      f();
    }
    mine->lock();
  }

  void close();
  const varkel_t& handle() const;
  std::shared_ptr<FramePixels> frame_pixels() const { return frame_; }

  void connect_backend(const std::string& host, uint16_t port);
  void connect_modules(const std::vector<Address>& modules, std::optional<Address> data_server, bool attach);
  void connect_simulator(const Simulator& sim);

  // Through the library's settings table: module 0 is the whole detector, chip 0
  // every chip of the module(s); a read goes to module 1 and to the module's
  // first working chip then.
  void put(const varkel_setting_t* s, int module, int chip, py::handle value);
  double get(const varkel_setting_t* s, int module, int chip);
  double dac_voltage(int module, int chip, py::handle dac);

  std::vector<std::pair<int, int>> check_chips();
  std::vector<std::pair<int, int>> disabled_chips() const;
  // Raises varkel.Error when chip `chip` of module `module` is switched off.
  void check_working(int module, int chip) const;

  py::dict scan(const py::object& dac, int initial, int final, int step, int module, int chip);
  void load_dac_files(const std::string& index);
  py::dict temperatures();
  py::dict acquire(std::optional<double> exposure, std::optional<double> period, std::optional<int> exposures,
                   py::object progress, std::optional<double> deadline, std::optional<int> lead);
  void define_master(int module, bool external, int others);
  void stop();
  void read_back_in_c(int count);

private:
  void release();

  varkel_t* v_ = nullptr;
  std::mutex mutex_;
  std::unique_lock<std::mutex>* held_ = nullptr; // the lock of the call running now
  std::shared_ptr<FramePixels> frame_;
};

// The working chips of module `module` (on the model and not switched off), ascending.
std::vector<int> working_chips(const varkel_t& v, int module);

// Registers SCAN_AIMS: the volts a scan of each DAC that has an aim comes nearest.
void init_workflows(py::module_& m);

// Registers Detector; after init_simulator and init_views, whose types it returns.
void init_detector(py::module_& m);

} // namespace varkel::python
