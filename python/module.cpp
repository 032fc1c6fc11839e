// The varkel Python package: a Detector owns one varkel_t, calls the library with
// the GIL released and one call at a time, and raises varkel.Error for every
// non-zero result. A Simulator runs the virtual detector in this process.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>

#include "common/chips.hpp"
#include "common/console.hpp"
#include "common/endpoint.hpp"
#include "common/picture.hpp"
#include "common/simulated.hpp"
#include "settings.h"
#include "utils.h"
#include "varkel.h"

namespace py = pybind11;

namespace {

using Clock = std::chrono::steady_clock;

py::handle error_type; // varkel.Error, created at import

[[noreturn]] void raise_error(int rc)
{
  py::object e = error_type(varkel_error_string(rc));
  e.attr("code") = rc;
  PyErr_SetObject(error_type.ptr(), e.ptr());
  throw py::error_already_set();
}

void check(int rc)
{
  if (rc != 0)
    raise_error(rc);
}

[[noreturn]] void raise_os_error(int err, const std::string& path)
{
  errno = err;
  PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
  throw py::error_already_set();
}

// A cached float as the shortest decimal that reads back as it: 0.05, not
// 0.05000000074505806.
double shortest(double cached)
{
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, static_cast<float>(cached)).ptr;
  double x = cached;
  std::from_chars(text, end, x);
  return x;
}

// A setting of the library's table as a Python property: its name with "_" for
// "-", and the type its values take.
enum class Kind { integer, real, boolean };
struct Setting {
  const varkel_setting_t* s;
  std::string attribute;
  Kind kind;
};

Kind kind_of(const varkel_setting_t* s)
{
  if (std::string_view(s->values) == "off on")
    return Kind::boolean;
  // Whole numbers and named values print no fraction.
  char text[32];
  return varkel_setting_format(s, 0.5, text, sizeof text) == 0 && std::string_view(text) == "0.5" ? Kind::real
                                                                                                  : Kind::integer;
}

// Every setting but the DACs, which a chip shows by name as items.
const std::vector<Setting>& settings()
{
  static const std::vector<Setting> all = [] {
    std::vector<Setting> out;
    for (int i = 0; i < varkel_settings_count(); ++i) {
      const varkel_setting_t* s = varkel_setting_at(i);
      std::string name = s->name;
      if (name.starts_with("dac."))
        continue;
      std::replace(name.begin(), name.end(), '-', '_');
      out.push_back({s, name, kind_of(s)});
    }
    return out;
  }();
  return all;
}

// The DACs by number - 1, named as in the table without "dac.": "GND", "DISCL".
const std::vector<std::string>& dac_names()
{
  static const std::vector<std::string> names = [] {
    std::vector<std::string> out;
    for (int i = 0; i < varkel_settings_count(); ++i)
      if (std::string_view name = varkel_setting_at(i)->name; name.starts_with("dac."))
        out.emplace_back(name.substr(4));
    // The table lists them by number; the numbers are what the DAC reads and scans send.
    if (out.size() != DAC_ENUM_END - 1 || out[DAC_GND - 1] != "GND" || out[DAC_DiscH - 1] != "DISCH")
      throw std::logic_error("the library's DAC names are not in DAC order");
    return out;
  }();
  return names;
}

py::object to_python(Kind kind, double x)
{
  switch (kind) {
  case Kind::real:
    return py::float_(shortest(x));
  case Kind::boolean:
    return py::bool_(x != 0);
  default:
    return py::int_(static_cast<long long>(x));
  }
}

// A number, or one of the setting's value names ("holes").
double from_python(const varkel_setting_t* s, py::handle value)
{
  if (!py::isinstance<py::str>(value)) {
    try {
      return value.cast<double>();
    } catch (const py::cast_error&) {
      throw py::type_error(std::string(s->name) + " takes a number or a value name");
    }
  }
  double x = 0;
  if (varkel_setting_parse(s, value.cast<std::string>().c_str(), &x) != 0)
    throw py::value_error(value.cast<std::string>() + " is not a value of " + s->name + ": " + s->values);
  return x;
}

// Whether chip number `chip` (1..36) is mounted on the model.
bool on_model(const varkel_t* v, int chip)
{
  return varkel::tools::chip_on_model(chip, v->max_num_boards, v->max_num_chips);
}

bool working(const varkel_t* v, int module, int chip)
{
  return on_model(v, chip) && !v->sensor_disabled[module - 1][chip - 1];
}

// Points the main channel at a module and, when `chip` is not 0, at one of its chips.
int select(varkel_t* v, int module, int chip)
{
  int rc = select_module(v, module);
  if (rc == 0 && chip != 0)
    rc = select_chipNumber(v, chip);
  return rc;
}

// A DAC by name (any case) or number.
varkel_dac_t dac_number(py::handle dac)
{
  if (py::isinstance<py::str>(dac)) {
    std::string name = dac.cast<std::string>();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
    const auto& names = dac_names();
    const auto at = std::find(names.begin(), names.end(), name);
    if (at == names.end())
      throw py::key_error("no DAC named " + dac.cast<std::string>());
    return static_cast<varkel_dac_t>(at - names.begin() + 1);
  }
  return static_cast<varkel_dac_t>(dac.cast<int>()); // a number: the library judges it
}

// The table's setting of a DAC; -4 for a number outside 1..31.
const varkel_setting_t* dac_setting(py::handle dac)
{
  const varkel_dac_t d = dac_number(dac);
  if (d < 1 || d > static_cast<int>(dac_names().size()))
    raise_error(-4);
  return varkel_setting_find(("dac." + dac_names()[d - 1]).c_str());
}

// The handle's pixel copy; outlives the handle while numpy views of it exist.
struct FramePixels {
  int32_t* pixels = nullptr;
  ~FramePixels() { std::free(pixels); }
};

// Only one acquisition per process can be timed (the library's interval timer).
std::mutex acquisition_timer;

class Simulator {
public:
  Simulator(const std::string& model, unsigned latency_us, const std::vector<std::pair<int, int>>& missing_chips,
            uint16_t port, uint16_t data_port)
  {
    const auto m = varkel::sim::parse_model(model);
    if (!m)
      throw py::value_error("unknown model " + model + " (kinlet, lite, trio or quad)");
    varkel::sim::Options o;
    o.model = *m;
    o.port = port;
    o.data_port = data_port;
    o.latency = std::chrono::microseconds(latency_us);
    for (const auto& [module, chip] : missing_chips)
      o.missing.push_back({module, chip});
    running_ = varkel::tools::start_simulator(std::move(o));
  }

  const varkel::tools::SimulatedDetector& running() const
  {
    if (!running_.sim)
      throw py::value_error("the simulator is closed");
    return running_;
  }
  varkel_detector_model_t model() const { return running().sim->options().model; }
  std::vector<std::pair<std::string, uint16_t>> modules() const
  {
    std::vector<std::pair<std::string, uint16_t>> out;
    for (const auto& e : running().modules)
      out.emplace_back(e.host, e.port);
    return out;
  }
  std::pair<std::string, uint16_t> data_server() const
  {
    return {running().data_server.host, running().data_server.port};
  }
  void close()
  {
    py::gil_scoped_release nogil;
    running_.sim.reset();
  }

private:
  varkel::tools::SimulatedDetector running_;
};

class Detector : public std::enable_shared_from_this<Detector> {
public:
  explicit Detector(const std::string& model)
  {
    const auto m = varkel::sim::parse_model(model);
    if (!m)
      throw py::value_error("unknown model " + model + " (kinlet, lite, trio or quad)");
    v_ = varkel_new(*m);
    if (v_ == nullptr)
      throw std::bad_alloc();
    frame_ = std::make_shared<FramePixels>();
    frame_->pixels = v_->sample_frame;
  }
  ~Detector() { release(); }
  Detector(const Detector&) = delete;
  Detector& operator=(const Detector&) = delete;

  // Runs `call` on the handle without the GIL, one call at a time: a channel
  // carries one query at a time, whichever Python thread asks.
  template <typename F> auto run(F&& call)
  {
    if (v_ == nullptr)
      throw py::value_error("the detector is closed");
    py::gil_scoped_release nogil;
    std::lock_guard lock(mutex_);
    return call(v_);
  }
  template <typename F> void exec(F&& call) { check(run(std::forward<F>(call))); }

  void close()
  {
    py::gil_scoped_release nogil;
    std::lock_guard lock(mutex_);
    release();
  }

  const varkel_t& handle() const
  {
    if (v_ == nullptr)
      throw py::value_error("the detector is closed");
    return *v_;
  }

  void connect_backend(const std::string& host, uint16_t port)
  {
    exec([&](varkel_t* v) { return varkel_connect_backend(v, host.c_str(), port); });
  }

  void connect_modules(const std::vector<std::pair<std::string, uint16_t>>& modules)
  {
    if (modules.size() != handle().max_num_modules)
      throw py::value_error("the model has " + std::to_string(handle().max_num_modules) + " module(s), " +
                            std::to_string(modules.size()) + " address(es) given");
    std::vector<varkel::tools::Endpoint> endpoints;
    for (const auto& [host, port] : modules)
      endpoints.push_back({host, port});
    const varkel::tools::AddressLists a(endpoints);
    exec([&](varkel_t* v) { return varkel_connect(v, a.hosts.data(), a.ports.data()); });
  }

  void connect_simulator(const Simulator& sim)
  {
    if (sim.model() != handle().detModel)
      throw py::value_error(std::string("a ") + varkel::sim::model_name(sim.model()) + " simulator for a " +
                            varkel::sim::model_name(handle().detModel) + " detector");
    const auto ds = sim.data_server();
    run([](varkel_t* v) { return v->simulate = 1; }); // the simulator's shared-memory names
    connect_backend(ds.first, ds.second);
    connect_modules(sim.modules());
  }

  // Through the library's settings table. Module 0 is the whole detector, chip 0
  // every chip of the module(s); a read goes to module 1 and to the module's
  // first working chip then.
  void put(const varkel_setting_t* s, int module, int chip, py::handle value)
  {
    const double x = from_python(s, value);
    exec([&](varkel_t* v) { return varkel_setting_put(v, s, module, chip, x); });
  }

  double get(const varkel_setting_t* s, int module, int chip)
  {
    double x = 0;
    exec([&](varkel_t* v) {
      const int m = module == 0 ? 1 : module;
      for (int n = 1; chip == 0 && s->scope == VARKEL_SETTING_CHIP && n <= 36; ++n)
        chip = m <= v->max_num_modules && working(v, m, n) ? n : 0;
      return varkel_setting_get(v, s, m, chip, &x);
    });
    return x;
  }

  // The voltage of one DAC of one chip.
  double dac_voltage(int module, int chip, py::handle dac)
  {
    const varkel_dac_t d = dac_number(dac);
    float volts = NAN;
    exec([&](varkel_t* v) {
      if (d < 1 || d > 31)
        return -4;
      // The library keeps its cache when the reply does not parse (an error text
      // of the controller): a value still marked unread was not answered.
      float& cached = v->analog_dac_values[chip - 1][d - 1];
      cached = NAN;
      int rc = select(v, module, chip);
      rc = rc != 0 ? rc : get_dac(v, ANALOG_READ_SINGLE_DAC, d);
      volts = cached;
      return rc != 0 ? rc : std::isnan(volts) ? -2 : 0;
    });
    return shortest(volts);
  }

  // Chip positions without an efuse id are switched off: (module, chip number) of each.
  std::vector<std::pair<int, int>> check_chips()
  {
    exec(check_and_disable_sensors);
    return disabled_chips();
  }
  std::vector<std::pair<int, int>> disabled_chips() const
  {
    std::vector<std::pair<int, int>> off;
    const varkel_t& v = handle();
    for (int m = 1; m <= v.max_num_modules; ++m)
      for (int c = 1; c <= 36; ++c)
        if (on_model(&v, c) && v.sensor_disabled[m - 1][c - 1])
          off.emplace_back(m, c);
    return off;
  }

  // Scans `dac` chip by chip (the chips switched off are passed by) and reads back
  // the code the library chose and its voltage: {(module, chip): (code, volts)}.
  py::dict scan(py::handle dac, int initial, int final, int step, int module, int chip)
  {
    const varkel_dac_t d = dac_number(dac);
    struct Point {
      int module, chip, code;
      float volts;
    };
    std::vector<Point> points;
    exec([&](varkel_t* v) {
      for (int m = 1; m <= v->max_num_modules; ++m)
        for (int c = 1; c <= 36; ++c) {
          if ((module != 0 && m != module) || (chip != 0 && c != chip) || (chip == 0 && !working(v, m, c)))
            continue;
          int rc = select(v, m, c);
          rc = rc != 0 ? rc : US_DAC_Scan(v, d, initial, final, step, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
          rc = rc != 0 ? rc : get_dac(v, DIGITAL_READ_SINGLE_DAC, d) | get_dac(v, ANALOG_READ_SINGLE_DAC, d);
          if (rc != 0)
            return rc;
          points.push_back({m, c, v->digital_dac_values[c - 1][d - 1], v->analog_dac_values[c - 1][d - 1]});
        }
      return points.empty() ? -7 : 0; // nothing to scan: no such module or chip
    });
    py::dict out;
    for (const Point& p : points)
      out[py::make_tuple(p.module, p.chip)] = py::make_tuple(p.code, shortest(p.volts));
    return out;
  }

  void load_dac_files(const std::string& index)
  {
    exec([&](varkel_t* v) { return configure_module_dacs_with_file(v, index.c_str()); });
  }

  // {"average": (modules,), "boards": (modules, boards, 16), "chips": (modules, 36)},
  // NaN for the chips the model lacks or that are switched off. The library reads
  // chip numbers 1 up to the chips of a module, so the one-board models show none.
  py::dict temperatures()
  {
    exec([](varkel_t* v) {
      int rc = US_GetTemperature(v) | US_GetMFBTemperature(v);
      for (int m = 1; m <= v->max_num_modules; ++m) {
        // Its code is that of the last chip number it reads, which fails when
        // that chip is off or missing.
        const int read = getChip_Temperature(v, m);
        rc |= working(v, m, std::min<int>(v->num_all_chips, 36)) ? read : 0;
      }
      return rc;
    });
    const varkel_t& v = handle();
    const py::ssize_t modules = v.max_num_modules, boards = v.max_num_boards;
    py::array_t<float> average(modules), board({modules, boards, py::ssize_t{16}}), chips({modules, py::ssize_t{36}});
    for (py::ssize_t m = 0; m < modules; ++m) {
      average.mutable_at(m) = v.varkelParam.avg_chip_temperature[m];
      for (py::ssize_t b = 0; b < boards; ++b)
        for (py::ssize_t s = 0; s < 16; ++s)
          board.mutable_at(m, b, s) = v.varkelParam.mfb_temperature[m][b * 16 + s];
      for (int c = 1; c <= 36; ++c)
        chips.mutable_at(m, c - 1) = c <= v.num_all_chips && working(&v, static_cast<int>(m) + 1, c)
                                         ? v.varkelParam.allchip_temperature[m][c - 1]
                                         : NAN;
    }
    py::dict out;
    out["average"] = average;
    out["boards"] = board;
    out["chips"] = chips;
    return out;
  }

  // Sets what is given, prepares the data server when one is connected, starts
  // and polls until the controller is done, calling progress(fraction) between
  // polls. Stops the detector on a timeout, an exception or Ctrl-C.
  void acquire(std::optional<double> exposure, std::optional<double> period, std::optional<int> exposures,
               py::object progress, std::optional<double> timeout, std::optional<int> lead)
  {
    const varkel_setting_t* exposure_setting = varkel_setting_find("exposure");
    const varkel_setting_t* period_setting = varkel_setting_find("period");
    // The period goes first when the exposure in force fits it, else the new
    // exposure first: it fits the period in force, which is longer.
    bool period_first = period.has_value();
    if (period && exposure && *period != 0) {
      const double now = get(exposure_setting, 1, 0);
      period_first = static_cast<float>(now) + IMAGE_READOUT <= static_cast<float>(*period);
    }
    if (period && period_first)
      put(period_setting, 0, 0, py::float_(*period));
    if (exposure)
      put(exposure_setting, 0, 0, py::float_(*exposure));
    if (period && !period_first)
      put(period_setting, 0, 0, py::float_(*period));
    if (exposures)
      put(varkel_setting_find("exposures"), 0, 0, py::int_(*exposures));
    // Without a leading module only module 1 starts: by default every module takes
    // the same exposures, module `lead` leading with its shutter output.
    if (lead && handle().max_num_modules > 1)
      define_master(*lead, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE);
    exec([](varkel_t* v) {
      if (v->backend_socket < 0)
        return 0;
      return v->detModel == varkelTrio || v->detModel == varkelQuad ? prepare_varkel(v) : prepare_backend(v);
    });

    std::unique_lock timer(acquisition_timer, std::defer_lock);
    {
      py::gil_scoped_release nogil;
      timer.lock();
    }
    const varkel_acquire_params_t& p = handle().acquireParam;
    const double expected = std::max(p.numExposures * std::max<double>(p.acquireTime, p.acquirePeriod), 1e-3);
    const double limit = timeout.value_or(2 * expected + 10);
    exec(execute_acquire);
    const auto t0 = Clock::now();
    bool late = false;
    try {
      while (!late && run(status_acquire) != DONE_ACQ) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
        if (!progress.is_none())
          progress(std::min(elapsed / expected, 1.0));
        if (PyErr_CheckSignals() != 0)
          throw py::error_already_set();
        late = elapsed > limit;
        py::gil_scoped_release nogil;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    } catch (...) {
      run(stop_acquire);
      throw;
    }
    if (late) {
      run(stop_acquire);
      PyErr_SetString(PyExc_TimeoutError, "the detector is still acquiring");
      throw py::error_already_set();
    }
    if (!progress.is_none())
      progress(1.0);
  }

  void define_master(int module, bool external, int others)
  {
    exec([&](varkel_t* v) {
      return define_master_module(v, static_cast<uint8_t>(module), external,
                                  static_cast<varkel_trigger_mode_t>(others));
    });
  }

  void stop()
  {
    const int rc = run(stop_acquire);
    check(rc == STOPPED ? 0 : rc);
  }

  // A copy of the data server's sample frame: placed on the detector face (trio
  // and quad), or the handle's own copy in chip order, read-only, valid until the
  // next frame().
  py::array frame(bool placed)
  {
    std::optional<varkel::tools::Face> face;
    exec([&](varkel_t* v) {
      const bool has_segment = v->detModel == varkelTrio || v->detModel == varkelQuad;
      int rc = has_segment && v->adata.sample_frame == nullptr ? init_array_data(v) : 0;
      rc = rc != 0 ? rc : get_array_data(v);
      if (rc == 0 && placed)
        face = varkel::tools::place_on_face(v, v->sample_frame);
      return rc;
    });
    if (placed) {
      auto* f = new varkel::tools::Face(std::move(face.value()));
      py::capsule owner(f, [](void* p) { delete static_cast<varkel::tools::Face*>(p); });
      return py::array_t<int32_t>({f->height, f->width}, f->pixels.data(), owner);
    }
    const varkel_t& v = handle();
    auto* keep = new std::shared_ptr<FramePixels>(frame_);
    py::capsule owner(keep, [](void* p) { delete static_cast<std::shared_ptr<FramePixels>*>(p); });
    py::array_t<int32_t> view({py::ssize_t{v.max_num_modules}, py::ssize_t{v.max_num_boards},
                               py::ssize_t{v.max_num_chips}, py::ssize_t{256}, py::ssize_t{256}},
                              frame_->pixels, owner);
    view.attr("flags").attr("writeable") = false;
    return view;
  }

  // What a read of det.exposure calls, `count` times, straight from C: the
  // baseline of bench/python_call.py.
  void read_back_in_c(int count)
  {
    const varkel_setting_t* exposure = varkel_setting_find("exposure");
    exec([&](varkel_t* v) {
      int rc = 0;
      double x = 0;
      for (int i = 0; i < count && rc == 0; ++i)
        rc = varkel_setting_get(v, exposure, 1, 0, &x);
      return rc;
    });
  }

private:
  void release()
  {
    if (v_ == nullptr)
      return;
    v_->sample_frame = nullptr; // frame_ frees it once no view is left
    varkel_delete(v_);
    v_ = nullptr;
  }

  varkel_t* v_ = nullptr;
  std::mutex mutex_;
  std::shared_ptr<FramePixels> frame_;
};

// One module, or one chip of a module, of a detector: the same settings, addressed.
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

Detector& detector_of(Detector& d) { return d; }
Detector& detector_of(Module& m) { return *m.det; }
Detector& detector_of(Chip& c) { return *c.det; }
std::pair<int, int> address_of(const Detector&) { return {0, 0}; }
std::pair<int, int> address_of(const Module& m) { return {m.module, 0}; }
std::pair<int, int> address_of(const Chip& c) { return {c.module, c.chip}; }

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
      return to_python(setting.kind, detector_of(view).get(setting.s, m, c));
    });
    const std::string doc = std::string(setting.s->help) + (*setting.s->values ? ": " : "") + setting.s->values;
    if (!setting.s->writable) {
      cls.def_property_readonly(setting.attribute.c_str(), get, doc.c_str());
      continue;
    }
    cls.def_property(setting.attribute.c_str(), get, py::cpp_function([&setting](View& view, py::handle value) {
                       const auto [m, c] = address_of(view);
                       detector_of(view).put(setting.s, m, c, value);
                     }),
                     doc.c_str());
  }
}

Module module_of(Detector& d, int module)
{
  if (module < 1 || module > d.handle().max_num_modules)
    throw py::index_error("no module " + std::to_string(module));
  return {d.shared_from_this(), module};
}

Chip chip_of(Detector& d, int module, int chip)
{
  module_of(d, module);
  if (!on_model(&d.handle(), chip))
    throw py::index_error("no chip number " + std::to_string(chip) + " on this model");
  return {d.shared_from_this(), module, chip};
}

// Descriptors 1 and 2 go to the log; returns copies of the terminal's standard
// output and error, for Python's own streams.
std::pair<int, int> redirect_library_output(const std::string& path)
{
  static varkel::tools::Console console;
  static int error_copy = -1;
  std::fflush(stdout);
  if (console.out != stdout) { // redirected before: back to the terminal first
    dup2(fileno(console.out), STDOUT_FILENO);
    dup2(error_copy, STDERR_FILENO);
    std::fclose(console.out);
    close(error_copy);
    console = {};
  }
  error_copy = dup(STDERR_FILENO);
  if (error_copy < 0 || !console.redirect_library_output(path)) {
    const int err = errno;
    if (error_copy >= 0)
      close(error_copy);
    raise_os_error(err, path);
  }
  return {fileno(console.out), error_copy};
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

} // namespace

PYBIND11_MODULE(_varkel, m)
{
  m.doc() = "Bindings of the varkel detector library; use the varkel package.";
  error_type = PyErr_NewExceptionWithDoc("varkel.Error", "A non-zero result of the library; .code holds it.",
                                         PyExc_RuntimeError, nullptr);
  m.attr("Error") = py::handle(error_type);

  py::class_<Simulator>(m, "Simulator")
      .def(py::init<const std::string&, unsigned, const std::vector<std::pair<int, int>>&, uint16_t, uint16_t>(),
           py::arg("model") = "quad", py::arg("latency_us") = 0,
           py::arg("missing_chips") = std::vector<std::pair<int, int>>{}, py::arg("port") = 0, py::arg("data_port") = 0)
      .def_property_readonly("model", [](const Simulator& s) { return varkel::sim::model_name(s.model()); })
      .def_property_readonly("modules", &Simulator::modules, "(host, port) of each module's controller")
      .def_property_readonly("data_server", &Simulator::data_server, "(host, port) of the data server")
      .def("close", &Simulator::close)
      .def("__enter__", [](Simulator& s) -> Simulator& { return s; })
      .def("__exit__", [](Simulator& s, py::args) { s.close(); });

  py::class_<Detector, std::shared_ptr<Detector>> det(m, "Detector");
  det.def(py::init<const std::string&>(), py::arg("model") = "quad")
      .def_property_readonly("model", [](Detector& d) { return varkel::sim::model_name(d.handle().detModel); })
      .def_property_readonly("modules", [](Detector& d) { return d.handle().max_num_modules; })
      .def("connect_backend", &Detector::connect_backend, py::arg("host"), py::arg("port"),
           "The data server: its RDMA parameters arrive and are acknowledged.")
      .def("connect", &Detector::connect_simulator, py::arg("simulator"), py::keep_alive<1, 2>(),
           "The simulator's data server and modules; it is kept running while the detector lives.")
      .def("connect", &Detector::connect_modules, py::arg("modules"),
           "Every module at once: [(host, port), ...], module 1 first.")
      .def("close", &Detector::close)
      .def("__enter__", [](Detector& d) -> Detector& { return d; })
      .def("__exit__", [](Detector& d, py::args) { d.close(); })
      .def("module", &module_of, py::arg("module"))
      .def("chip", &chip_of, py::arg("module"), py::arg("chip"))
      .def_property_readonly("chips", [](Detector& d) { return Chips{d.shared_from_this()}; })
      .def_property_readonly("dacs", [](Detector& d) { return Chips{d.shared_from_this()}; })
      .def("check_chips", &Detector::check_chips, "Switches off the chips without an efuse id: [(module, chip), ...].")
      .def_property_readonly("disabled_chips", &Detector::disabled_chips)
      .def("scan", &Detector::scan, py::arg("dac"), py::arg("initial") = 0, py::arg("final") = 255, py::arg("step") = 4,
           py::arg("module") = 0, py::arg("chip") = 0,
           "Scans GND, FBK or CAS of one chip, the working chips of a module (0: of every module); the code nearest "
           "the aim is written: {(module, chip): (code, volts)}.")
      .def("load_dac_files", &Detector::load_dac_files, py::arg("index"), "The DAC calibration files named by `index`.")
      .def("temperatures", &Detector::temperatures,
           "{\"average\": (modules,), \"boards\": (modules, boards, 16), \"chips\": (modules, 36)} in degrees, "
           "NaN for chips missing or off.")
      .def("acquire", &Detector::acquire, py::kw_only(), py::arg("exposure") = py::none(),
           py::arg("period") = py::none(), py::arg("exposures") = py::none(), py::arg("progress") = py::none(),
           py::arg("timeout") = py::none(), py::arg("lead") = 1,
           "Sets what is given, lets module `lead` lead the others with its shutter output (None: the trigger "
           "arrangement stays as set), prepares the data server, acquires and waits, calling progress(fraction); stops "
           "the detector on an exception, Ctrl-C or the timeout (TimeoutError; default twice the expected time + "
           "10 s).")
      .def("define_master", &Detector::define_master, py::arg("module") = 1, py::arg("external") = false,
           py::arg("trigger_mode") = static_cast<int>(VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE),
           "Module `module` leads with its shutter output; the others start on its edge.")
      .def("stop", &Detector::stop, "Stops every module (from another thread during acquire()).")
      .def("frame", &Detector::frame, py::arg("placed") = true,
           "A copy of the sample frame: on the detector face (-1 in the gaps), or with placed=False a read-only "
           "view of the handle's copy, (modules, boards, chips, 256, 256), overwritten by the next frame().")
      .def("_read_back_in_c", &Detector::read_back_in_c, py::arg("count"));
  add_settings(det, {VARKEL_SETTING_DETECTOR, VARKEL_SETTING_MODULE, VARKEL_SETTING_CHIP});

  py::class_<Module> module(m, "Module");
  module.def_readonly("number", &Module::module).def("chip", [](Module& x, int chip) {
    return chip_of(*x.det, x.module, chip);
  });
  add_settings(module, {VARKEL_SETTING_MODULE, VARKEL_SETTING_CHIP});

  py::class_<Chip> chip(m, "Chip");
  chip.def_readonly("module", &Chip::module)
      .def_readonly("number", &Chip::chip)
      .def("__getitem__",
           [](Chip& c, py::handle dac) { return static_cast<int>(c.det->get(dac_setting(dac), c.module, c.chip)); })
      .def("__setitem__",
           [](Chip& c, py::handle dac, py::handle value) { c.det->put(dac_setting(dac), c.module, c.chip, value); })
      .def(
          "voltage", [](Chip& c, py::handle dac) { return c.det->dac_voltage(c.module, c.chip, dac); }, py::arg("dac"));
  add_settings(chip, {VARKEL_SETTING_CHIP});

  py::class_<Chips>(m, "Chips").def("__getitem__", [](Chips& c, std::pair<int, int> at) {
    return chip_of(*c.det, at.first, at.second);
  });

  m.attr("DAC_NAMES") = [] {
    py::list names;
    for (const auto& n : dac_names())
      names.append(n);
    return names;
  }();
  m.def("save_png", &save_png, py::arg("path"), py::arg("image"), py::arg("bin") = 4);
  m.def("_redirect_library_output", &redirect_library_output, py::arg("path"));
}
