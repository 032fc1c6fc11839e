// varkel-demo: the typical use of the library, end to end, with a summary.
//
// By default it starts the simulator in this process for a four-module detector;
// with --module HOST:PORT (one per module) and --data-server HOST:PORT it drives
// those instead, e.g. a varkel-sim started by hand. It connects the data server and
// the modules, sets the acquisition time, period, exposures and trigger
// arrangement, prepares the data server, runs the acquisition while showing its
// progress, asks the data server what it received, copies the sample frame and
// writes it as a PNG. The library's own output goes to a log file.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/chips.hpp"
#include "common/console.hpp"
#include "common/endpoint.hpp"
#include "common/picture.hpp"
#include "common/simulated.hpp"
#include "common/text.hpp"
#include "simulator.hpp"
#include "utils.h"
#include "varkel.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using varkel::tools::Endpoint;
using varkel::tools::format;
using varkel::tools::parse_endpoint;

struct Settings {
  varkel_detector_model_t model = varkelQuad;
  std::vector<Endpoint> modules;
  std::optional<Endpoint> data_server;
  unsigned latency_us = 0;
  std::vector<varkel::sim::MissingChip> missing;
  float exposure = 0.05f;
  float period = 0.1f;
  int exposures = 10;
  std::string png = "varkel-demo.png";
  std::string log = "varkel-demo.log";
  std::string dacs = "examples/dacs/index.ini"; // DAC files; relative paths from the working directory
};

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// ---- command line ------------------------------------------------------------

int usage()
{
  std::fprintf(stderr,
               "usage: varkel-demo [--model kinlet|lite|trio|quad] [--exposure S] [--period S] [--exposures N]\n"
               "                   [--png FILE] [--log FILE] [--dacs INDEX]\n"
               "                   [--latency-us N] [--missing-chip MODULE:CHIP]...   (simulator in this process)\n"
               "                   [--module HOST:PORT]... --data-server HOST:PORT    (a detector elsewhere)\n");
  return 2;
}

bool parse_args(int argc, char** argv, Settings& s)
{
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc)
      return false;
    const std::string value = argv[++i];
    char* end = nullptr;
    if (arg == "--model") {
      const auto model = varkel::sim::parse_model(value);
      if (!model)
        return false;
      s.model = *model;
    } else if (arg == "--module") {
      const auto e = parse_endpoint(value);
      if (!e)
        return false;
      s.modules.push_back(*e);
    } else if (arg == "--data-server") {
      if (!(s.data_server = parse_endpoint(value)))
        return false;
    } else if (arg == "--latency-us") {
      s.latency_us = static_cast<unsigned>(std::strtoul(value.c_str(), &end, 10));
    } else if (arg == "--missing-chip") {
      int module = 0, chip = 0, used = 0;
      if (std::sscanf(value.c_str(), "%d:%d%n", &module, &chip, &used) != 2 || value[used] != '\0')
        return false;
      s.missing.push_back({module, chip});
    } else if (arg == "--exposure") {
      s.exposure = std::strtof(value.c_str(), &end);
    } else if (arg == "--period") {
      s.period = std::strtof(value.c_str(), &end);
    } else if (arg == "--exposures") {
      s.exposures = static_cast<int>(std::strtol(value.c_str(), &end, 10));
    } else if (arg == "--png") {
      s.png = value;
    } else if (arg == "--log") {
      s.log = value;
    } else if (arg == "--dacs") {
      s.dacs = value;
    } else {
      return false;
    }
    if (end != nullptr && *end != '\0')
      return false;
  }
  return s.exposure > 0 && s.period >= 0 && s.exposures > 0;
}

// ---- output --------------------------------------------------------------------

varkel::tools::Console console;

// ---- the steps -----------------------------------------------------------------

struct Outcome {
  bool ok;
  std::string detail;
};

Outcome from_code(int rc, std::string detail)
{
  if (rc == 0)
    return {true, std::move(detail)};
  return {false, format("code %d: %s", rc, varkel_error_string(rc))};
}

class Demo {
public:
  Demo(const Settings& s, varkel_t* v) : s_(s), v_(v) {}

  // Runs one step, prints its line; false when it failed.
  bool step(const char* name, const std::function<Outcome()>& body)
  {
    const auto t0 = Clock::now();
    const Outcome o = body();
    const double took = ms(Clock::now() - t0);
    say(console, "%s  %-24s %9.1f ms  %-4s %s\n", console.tty ? "\r\033[K" : "", name, took, o.ok ? "ok" : "FAIL",
        o.detail.c_str());
    ++steps_;
    return o.ok;
  }

  Outcome connect_data_server(const Endpoint& e)
  {
    const int rc = varkel_connect_backend(v_, e.host.c_str(), e.port);
    return from_code(rc, format("RDMA parameters for %d module(s), buffer of %u frames", v_->max_num_modules,
                                v_->init_args.bufferSize));
  }

  // The bring-up of varkel_connect done one module after another on a second
  // handle: the yardstick for the parallel connection.
  Outcome connect_one_by_one(const std::vector<Endpoint>& modules)
  {
    varkel_t* scratch = varkel_new(s_.model);
    scratch->init_args = v_->init_args;
    const auto t0 = Clock::now();
    int rc = 0;
    for (int m = 0; m < scratch->max_num_modules; ++m)
      rc |= varkel_init(scratch, m, modules[m].host.c_str(), modules[m].port);
    sequential_ms_ = ms(Clock::now() - t0);
    varkel_delete(scratch);
    return from_code(rc,
                     format("%d modules one after another on a second handle, for comparison", v_->max_num_modules));
  }

  Outcome connect_modules(const std::vector<Endpoint>& modules)
  {
    const varkel::tools::AddressLists a(modules);
    const auto t0 = Clock::now();
    const int rc = varkel_connect(v_, a.hosts.data(), a.ports.data());
    const double parallel = ms(Clock::now() - t0);
    std::string ratio;
    if (sequential_ms_ > 0)
      ratio = format(": %.2f of the time one after another", parallel / sequential_ms_);
    return from_code(rc, format("%d module(s) side by side%s", v_->max_num_modules, ratio.c_str()));
  }

  // ---- calibration ----

  // The DAC files on module 1 alone, on a second handle: the yardstick for the
  // load on every module at once.
  Outcome load_dacs_one_module(const Endpoint& module1)
  {
    varkel_t* scratch = varkel_new(varkelTrio);
    scratch->init_args = v_->init_args;
    int rc = varkel_init(scratch, 0, module1.host.c_str(), module1.port);
    std::copy(std::begin(v_->sensor_disabled[0]), std::end(v_->sensor_disabled[0]), scratch->sensor_disabled[0]);
    const auto t0 = Clock::now();
    rc |= configure_module_dacs_with_file(scratch, s_.dacs.c_str());
    one_module_dacs_ms_ = ms(Clock::now() - t0);
    varkel_delete(scratch);
    return from_code(rc, format("module 1 alone on a second handle, for comparison"));
  }

  Outcome load_dacs()
  {
    const auto t0 = Clock::now();
    const int rc = configure_module_dacs_with_file(v_, s_.dacs.c_str());
    const double took = ms(Clock::now() - t0);
    std::string ratio;
    if (one_module_dacs_ms_ > 0)
      ratio = format(": %.2f x one module's time", took / one_module_dacs_ms_);
    return from_code(rc, format("%s, %d module(s) side by side%s; %s skipped", s_.dacs.c_str(), v_->max_num_modules,
                                ratio.c_str(), switched_off_.empty() ? "no chip" : switched_off_.c_str()));
  }

  // The external band-gap input on chip 6 of module 1 and chip 31 of module 2, the
  // second read back.
  Outcome dac_defaults()
  {
    Set_DAC_Defaults(v_);
    const int rc = US_ImgChip_ExtBgIn_RBV(v_);
    return from_code(rc, format("external band-gap input on module 1 chip 6 and module %d chip 31, reads %.3f V",
                                v_->varkel_module, double{v_->varkelParam.extBgIn}));
  }

  // Every board of every module ramped to the working bias, one volt at a time.
  Outcome bias_ramp(const varkel::sim::Simulator* sim)
  {
    constexpr float kWorkingBias = 15.5f;
    const int rc = setSensorBias(v_, kWorkingBias, VARKEL_SEND_ALL_MFBS_ALL_MODULES);
    std::string levels;
    if (sim != nullptr) {
      // Module 1's first board: the first of its boards' equal shares.
      const std::vector<double> l = sim->module(1).bias_levels;
      const std::size_t n = l.size() / static_cast<std::size_t>(std::max<int>(v_->max_num_boards, 1));
      for (std::size_t i = 0; i < n; ++i) {
        if (i >= 3 && i + 2 < n)
          continue;
        levels += format("%s%g", i == 0 ? "" : (i > 3 && i + 2 == n) ? " ... " : ", ", l[i]);
      }
      levels = format(", levels %s V on each", levels.c_str());
    }
    return from_code(rc, format("%d board(s) ramped to %.1f V%s", v_->max_num_modules * v_->max_num_boards,
                                double{v_->varkelParam.bias_voltage}, levels.c_str()));
  }

  // ---- presence check ----

  // Positions where no chip answers are switched off and recorded; the positions
  // of boards and chips the model lacks are among them.
  Outcome presence_check()
  {
    const int rc = check_and_disable_sensors(v_);
    std::string off;
    for (int m = 1; m <= v_->max_num_modules; ++m)
      for (int c = 1; c <= 36; ++c)
        if (on_model(c) && v_->sensor_disabled[m - 1][c - 1])
          off += format("%smodule %d board %d chip %d (chip number %d)", off.empty() ? "" : ", ", m, 2 - (c - 1) / 12,
                        (c - 1) % 12, c);
    switched_off_ = off;
    return from_code(rc, format("%d module(s), %s switched off", v_->max_num_modules,
                                off.empty() ? "every chip answers, none" : off.c_str()));
  }

  // Whether chip number c is on a board and position the model has.
  bool on_model(int c) const { return varkel::tools::chip_on_model(c, v_->max_num_boards, v_->max_num_chips); }
  // Whether chip number c of module m is there and answers.
  bool present(int m, int c) const { return on_model(c) && !v_->sensor_disabled[m - 1][c - 1]; }

  // ---- chip configuration ----

  // The OMR fields a run sets, on every chip of every module, and equalization set
  // kEqualizationSet on every mounted chip; then each module's fields read back from
  // its first mounted chip.
  Outcome configure_chips()
  {
    struct Setting {
      varkel_omr_t field;
      int value;
      const char* shown;
    };
    static constexpr Setting kSettings[] = {
        {OMR_Polarity, VARKEL_POLARITY_HOLES, "polarity"},     {OMR_Gain_Mode, VARKEL_GAIN_MODE_HIGH, "gain"},
        {OMR_CountL, VARKEL_COUNTERDEPTH_24BITS, "depth"},     {OMR_CSM_SPM, VARKEL_PIXEL_MODE_CHARGE_SUMMING, "pixel"},
        {OMR_Disc_CSM_SPM, VARKEL_DISCRIMINATOR_HIGH, "disc"},
    };
    constexpr uint8_t kEqualizationSet = 3;
    int rc = 0;
    for (const Setting& x : kSettings)
      rc |= set_omr(v_, x.field, x.value, VARKEL_SEND_ALL_CHIPS_ALL_MODULES);
    int loads = 0;
    bool same = true;
    std::string read;
    for (int m = 1; m <= v_->max_num_modules; ++m) {
      rc |= select_module(v_, m);
      int first = 0;
      for (int c = 1; c <= 36; ++c) {
        if (!present(m, c))
          continue;
        first = first ? first : c;
        rc |= US_Load_Equalization(v_, kEqualizationSet, static_cast<uint8_t>(c));
        ++loads;
      }
      if (first == 0)
        continue;
      rc |= select_chipNumber(v_, first);
      rc |= get_omr(v_);
      read += format(" m%d", m);
      for (const Setting& x : kSettings) {
        read += format("%s%d", &x == kSettings ? " " : "/", v_->omr_values[x.field]);
        same = same && v_->omr_values[x.field] == x.value;
      }
    }
    if (rc != 0)
      return from_code(rc, "");
    std::string names;
    for (const Setting& x : kSettings)
      names += format("%s%s", &x == kSettings ? "" : "/", x.shown);
    return {same, format("CFG%u on %d chip(s); %s read back:%s", kEqualizationSet, loads, names.c_str(), read.c_str())};
  }

  Outcome readout_mode()
  {
    const int rc = set_medipix_mode(v_, VARKEL_MEDIPIX_MODE_DEFAULT);
    return from_code(rc, format("default: image mode %d on every module, the data server to be told %d-bit",
                                v_->varkelParam.image_mode, v_->acq_args.aquisitionMode == B24 ? 24 : 12));
  }

  // GND of module 1's first chip that answers: the controller steps it over its range
  // and the code nearest the aim is written; both read back.
  Outcome dac_scan_one_chip()
  {
    int chip = 1;
    while (chip < 36 && !present(1, chip))
      ++chip;
    int rc = select_module(v_, 1) | select_chipNumber(v_, chip);
    rc |= US_DAC_Scan(v_, DAC_GND, 0, 255, 4, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
    rc |= get_dac(v_, DIGITAL_READ_SINGLE_DAC, DAC_GND) | get_dac(v_, ANALOG_READ_SINGLE_DAC, DAC_GND);
    return from_code(rc, format("GND of module 1 chip %d over codes 0-255 in steps of 4: code %d chosen, reads "
                                "%.3f V (aim 0.65 V)",
                                chip, v_->digital_dac_values[chip - 1][DAC_GND - 1],
                                double{v_->analog_dac_values[chip - 1][DAC_GND - 1]}));
  }

  // Every module's averages and board sensors side by side, then each module's chips
  // on the main channel; the table follows the step's line.
  Outcome temperatures()
  {
    const auto t0 = Clock::now();
    int rc = US_GetTemperature(v_);
    const double averages = ms(Clock::now() - t0);
    rc |= US_GetMFBTemperature(v_);
    const double boards = ms(Clock::now() - t0) - averages;
    table_ = format("    %-7s %-16s %-16s %s\n", "module", "boards min/max", "chips min/max", "average");
    const varkel_params_t& p = v_->varkelParam;
    for (int m = 1; m <= v_->max_num_modules; ++m) {
      rc |= getChip_Temperature(v_, m);
      const int sensors = v_->max_num_boards * 16;
      const auto [bmin, bmax] = std::minmax_element(p.mfb_temperature[m - 1], p.mfb_temperature[m - 1] + sensors);
      float cmin = 1e9f, cmax = -1e9f;
      for (int c = 0; c < 36; ++c)
        if (present(m, c + 1)) {
          cmin = std::min(cmin, p.allchip_temperature[m - 1][c]);
          cmax = std::max(cmax, p.allchip_temperature[m - 1][c]);
        }
      table_ += format("    %-7d %6.2f / %-7.2f %6.2f / %-7.2f %6.2f\n", m, double{*bmin}, double{*bmax}, double{cmin},
                       double{cmax}, double{p.avg_chip_temperature[m - 1]});
    }
    return from_code(rc, format("averages of %d module(s) side by side in %.1f ms, 48 board sensors each in %.1f ms",
                                v_->max_num_modules, averages, boards));
  }
  const std::string& temperature_table() const { return table_; }

  Outcome trigger_arrangement()
  {
    const int rc = define_master_module(v_, 1, false, VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE);
    if (v_->max_num_modules == 1)
      return from_code(rc, "module 1 runs on its own clock");
    return from_code(rc, format("module 1 leads with its shutter output, modules 2-%d start on its rising edge",
                                v_->max_num_modules));
  }

  Outcome prepare()
  {
    if (has_frame()) {
      const int rc = prepare_varkel(v_);
      return from_code(rc, "acquisition arguments acknowledged, frame buffer mapped");
    }
    const int rc = prepare_backend(v_);
    return from_code(rc, "acquisition arguments acknowledged (this model publishes no frame)");
  }

  Outcome acquire()
  {
    if (int rc = US_NumExposuresCounter_RBV(v_); rc != 0)
      return from_code(rc, "");
    const uint32_t before = v_->acquireParam.numExposuresTotal;
    if (int rc = execute_acquire(v_); rc != 0)
      return from_code(rc, "");
    const auto t0 = Clock::now();
    const double expected = static_cast<double>(s_.exposures) * std::max(s_.exposure, s_.period);
    const auto deadline = t0 + std::chrono::duration<double>(expected * 2 + 10);
    int polls = 0;
    auto shown = t0 - 1s;
    while (status_acquire(v_) != DONE_ACQ) {
      ++polls;
      const auto now = Clock::now();
      if (now > deadline)
        return {false, format("still acquiring after %.1f s", ms(now - t0) / 1000)};
      if (console.tty && now - shown > 50ms) {
        say(console, "\r\033[K  %-24s %s", "acquisition",
            varkel::tools::progress_bar(std::chrono::duration<double>(now - t0).count() / expected).c_str());
        shown = now;
      }
      std::this_thread::sleep_for(5ms);
    }
    if (int rc = US_NumExposuresCounter_RBV(v_); rc != 0)
      return from_code(rc, "");
    const uint32_t taken = v_->acquireParam.numExposuresTotal - before;
    return {taken == static_cast<uint32_t>(s_.exposures),
            format("%u exposure(s) on module 1 by its counter, %d status polls", taken, polls)};
  }

  Outcome data_server_status()
  {
    const int rc = get_acqStatus_fromBackend(v_);
    if (rc != 0)
      return from_code(rc, "");
    const acqStatusArgs& st = v_->acq_status_return;
    std::string frames, runs;
    bool all = st.done == 1;
    for (int m = 0; m < v_->max_num_modules; ++m) {
      frames += format(" %llu", static_cast<unsigned long long>(st.noOfFrames[m]));
      runs += format(" %llu", static_cast<unsigned long long>(st.noOfAquisitions[m]));
      all = all && st.noOfFrames[m] == static_cast<uint64_t>(s_.exposures);
      frames_counted_ += st.noOfFrames[m];
    }
    return {all, format("frames per module%s, acquisitions%s, %s", frames.c_str(), runs.c_str(),
                        st.done ? "done" : "not done")};
  }

  Outcome sample_frame()
  {
    if (const int rc = get_array_data(v_); rc != 0)
      return {false, std::string("cannot copy the frame: ") + varkel_error_string(rc)};
    const std::size_t n = v_->frame_size;
    int64_t total = 0;
    int32_t top = 0;
    for (std::size_t i = 0; i < n; ++i) {
      total += v_->sample_frame[i];
      top = std::max(top, v_->sample_frame[i]);
    }
    const auto face = varkel::tools::place_on_face(v_, v_->sample_frame);
    if (!face || total == 0)
      return {false, "the frame is empty"};
    const auto picture = varkel::tools::shade(*face, 4);
    if (!varkel::tools::write_png(s_.png, picture))
      return {false, "cannot write " + s_.png};
    return {true, format("%zu pixels, mean %.1f, max %d -> %s (%d x %d)", n, static_cast<double>(total) / n, top,
                         s_.png.c_str(), picture.width, picture.height)};
  }

  bool has_frame() const { return v_->detModel == varkelTrio || v_->detModel == varkelQuad; }
  int steps() const { return steps_; }
  uint64_t frames_counted() const { return frames_counted_; }

private:
  const Settings& s_;
  varkel_t* v_;
  double sequential_ms_ = 0;
  double one_module_dacs_ms_ = 0;
  std::string switched_off_; // the positions the presence check switched off
  std::string table_;        // the temperatures, one line per module
  int steps_ = 0;
  uint64_t frames_counted_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
  Settings s;
  if (!parse_args(argc, argv, s))
    return usage();
  const bool external = !s.modules.empty() || s.data_server;
  if (external && (!s.data_server || s.modules.empty())) {
    std::fprintf(stderr, "varkel-demo: give both --module (one per module) and --data-server\n");
    return 2;
  }

  std::unique_ptr<varkel::sim::Simulator> sim;
  if (!external) {
    varkel::sim::Options o;
    o.model = s.model;
    o.latency = std::chrono::microseconds(s.latency_us);
    // A detector with one chip that does not answer, unless told otherwise: the
    // fifth position of board 0 on module 2 (module 1 of a one-module detector).
    if (s.missing.empty() && s.model != kinlet)
      s.missing.push_back({std::min(2, varkel::sim::geometry_of(s.model).modules), 29});
    o.missing = s.missing;
    try {
      varkel::tools::SimulatedDetector d = varkel::tools::start_simulator(o);
      sim = std::move(d.sim);
      s.modules = std::move(d.modules);
      s.data_server = d.data_server;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "varkel-demo: cannot start the simulator: %s\n", e.what());
      return 1;
    }
  }
  const varkel::sim::Geometry g = varkel::sim::geometry_of(s.model);
  if (static_cast<int>(s.modules.size()) != g.modules) {
    std::fprintf(stderr, "varkel-demo: a %s has %d module(s), %zu address(es) given\n",
                 varkel::sim::model_name(s.model), g.modules, s.modules.size());
    return 2;
  }
  if (!console.redirect_library_output(s.log)) {
    std::fprintf(stderr, "varkel-demo: cannot write %s\n", s.log.c_str());
    return 1;
  }

  say(console, "varkel-demo: %s (%d module(s) x %d board(s) x %d chip(s)), %s\n", varkel::sim::model_name(s.model),
      g.modules, g.boards, g.chips,
      sim ? format("simulator in this process, %u us per controller reply", s.latency_us).c_str()
          : "detector given on the command line");
  say(console, "  data server %s:%u, module 1 at %s:%u\n", s.data_server->host.c_str(), s.data_server->port,
      s.modules[0].host.c_str(), s.modules[0].port);
  say(console, "  %d exposure(s) of %.6f s every %.6f s\n\n", s.exposures, static_cast<double>(s.exposure),
      static_cast<double>(s.period));

  varkel_t* v = varkel_new(s.model);
  if (v == nullptr || v->sample_frame == nullptr) {
    say(console, "cannot create a handle\n");
    return 1;
  }
  v->simulate = 1; // the simulator publishes its frame under the "_sim" names

  Demo demo(s, v);
  const auto start = Clock::now();
  const bool ok =
      demo.step("data-server connection", [&] { return demo.connect_data_server(*s.data_server); }) &&
      (v->max_num_modules == 1 ||
       demo.step("modules one by one", [&] { return demo.connect_one_by_one(s.modules); })) &&
      demo.step("module connection", [&] { return demo.connect_modules(s.modules); }) &&
      demo.step("presence check", [&] { return demo.presence_check(); }) &&
      (v->max_num_boards < 3 ||
       (demo.step("DAC files, one module", [&] { return demo.load_dacs_one_module(s.modules[0]); }) &&
        demo.step("DAC files", [&] { return demo.load_dacs(); }))) &&
      demo.step("DAC defaults", [&] { return demo.dac_defaults(); }) &&
      demo.step("sensor bias", [&] { return demo.bias_ramp(sim.get()); }) &&
      demo.step("chip configuration", [&] { return demo.configure_chips(); }) &&
      demo.step("readout mode", [&] { return demo.readout_mode(); }) &&
      demo.step("DAC scan", [&] { return demo.dac_scan_one_chip(); }) &&
      demo.step("acquisition time",
                [&] {
                  const int rc = set_acquireTime(v, s.exposure);
                  return from_code(rc, format("%.6f s on every module", double{v->acquireParam.acquireTime}));
                }) &&
      demo.step("acquisition period",
                [&] {
                  const int rc = set_periodTime(v, s.period);
                  return from_code(rc, format("%.6f s on every module", double{v->acquireParam.acquirePeriod}));
                }) &&
      demo.step("exposures",
                [&] {
                  const int rc = set_numberExposures(v, s.exposures);
                  return from_code(rc, format("%u on every module", v->acquireParam.numExposures));
                }) &&
      demo.step("trigger mode", [&] { return demo.trigger_arrangement(); }) &&
      demo.step("preparation", [&] { return demo.prepare(); }) &&
      demo.step("acquisition", [&] { return demo.acquire(); }) &&
      demo.step("data-server status", [&] { return demo.data_server_status(); }) &&
      demo.step("temperatures", [&] { return demo.temperatures(); }) &&
      (say(console, "%s", demo.temperature_table().c_str()), true) &&
      (!demo.has_frame() || demo.step("sample frame", [&] { return demo.sample_frame(); }));
  const double total = ms(Clock::now() - start) / 1000;
  varkel_delete(v);

  if (ok)
    say(console,
        "\nall %d steps succeeded in %.2f s, %llu frames counted by the data server; the library's own output "
        "is in %s\n",
        demo.steps(), total, static_cast<unsigned long long>(demo.frames_counted()), s.log.c_str());
  else
    say(console, "\nstopped after a failed step; the library's own output is in %s\n", s.log.c_str());
  return ok ? 0 : 1;
}
