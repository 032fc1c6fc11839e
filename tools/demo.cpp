// varkel-demo: the typical use of the library, end to end, with a summary.
//
// By default it starts the simulator in this process for a four-module detector;
// with --module HOST:PORT (one per module) and --data-server HOST:PORT it drives
// those instead, e.g. a varkel-sim started by hand. It connects the data server and
// the modules, sets the acquisition time, period, exposures and trigger
// arrangement, prepares the data server, runs the acquisition while showing its
// progress, asks the data server what it received, copies the sample frame and
// writes it as a PNG. The library's own output goes to a log file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/console.hpp"
#include "common/endpoint.hpp"
#include "common/picture.hpp"
#include "common/simulated.hpp"
#include "common/text.hpp"
#include "simulator.hpp"
#include "utils.h"
#include "varkel.h"
#include "workflow.h"

namespace {

using Clock = std::chrono::steady_clock;
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

std::optional<varkel::sim::MissingChip> parse_missing_chip(const std::string& text)
{
  int module = 0, chip = 0, used = 0;
  if (std::sscanf(text.c_str(), "%d:%d%n", &module, &chip, &used) != 2 || text[used] != '\0')
    return std::nullopt;
  return varkel::sim::MissingChip{module, chip};
}

// A CLI11 check from a parser that gives nullopt for text it refuses.
template <typename Parse> CLI::Validator parsed_by(Parse parse, const std::string& takes)
{
  return CLI::Validator(
      [parse, takes](std::string& text) { return parse(text) ? std::string() : "takes " + takes + ", not " + text; },
      takes);
}

// The options; false with the exit status in `status` when the run ends here
// (help, or a command line CLI11 refuses).
bool parse_options(int argc, char** argv, Settings& s, int& status)
{
  CLI::App app{"varkel-demo: the typical use of the library, end to end"};
  std::string model = "quad", data_server;
  std::vector<std::string> modules, missing;
  app.add_option("--model", model, "model of the detector")
      ->capture_default_str()
      ->check(parsed_by(varkel::sim::parse_model, "kinlet, lite, trio or quad"));
  app.add_option("--exposure", s.exposure, "seconds per exposure")->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--period", s.period, "seconds from one exposure to the next")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  app.add_option("--exposures", s.exposures, "number of exposures")->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--png", s.png, "where the sample frame goes")->capture_default_str();
  app.add_option("--log", s.log, "where the library's own output goes")->capture_default_str();
  app.add_option("--dacs", s.dacs, "index of the DAC calibration files")->capture_default_str();
  app.add_option("--latency-us", s.latency_us, "simulator in this process: added to every controller reply");
  app.add_option("--missing-chip", missing, "simulator in this process: MODULE:CHIP that does not answer")
      ->check(parsed_by(parse_missing_chip, "MODULE:CHIP"));
  app.add_option("--module", modules, "HOST:PORT of a module's controller, once per module (a detector elsewhere)")
      ->check(parsed_by(parse_endpoint, "HOST:PORT"));
  app.add_option("--data-server", data_server, "HOST:PORT of its data server")
      ->check(parsed_by(parse_endpoint, "HOST:PORT"));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = app.exit(e) == 0 ? 0 : 2;
    return false;
  }
  s.model = *varkel::sim::parse_model(model);
  for (const std::string& m : modules)
    s.modules.push_back(*parse_endpoint(m));
  if (!data_server.empty())
    s.data_server = parse_endpoint(data_server);
  for (const std::string& m : missing)
    s.missing.push_back(*parse_missing_chip(m));
  return true;
}

// ---- output --------------------------------------------------------------------

varkel::tools::Console console;

// ---- the steps -----------------------------------------------------------------

struct Outcome {
  bool ok;
  std::string detail;
};

// The chips of module m that work (on the model, not switched off).
std::vector<int> working_chips(const varkel_t* v, int m)
{
  int chips[36];
  const int n = std::clamp(varkel_working_chips(v, m, chips, 36), 0, 36);
  return {chips, chips + n};
}

class Demo {
public:
  Demo(const Settings& s, varkel_t* v) : s_(s), v_(v) {}

  // Runs one step, prints its line; false when it failed. A step whose commands a
  // controller refused failed, whatever its calls returned, unless `refusals`
  // says the step tells of them itself.
  bool step(const char* name, const std::function<Outcome()>& body, bool refusals = false)
  {
    const auto t0 = Clock::now();
    seen_ = varkel_failure_count(v_);
    Outcome o = body();
    const double took = ms(Clock::now() - t0);
    if (const std::string failure = last_failure(seen_); !refusals && !failure.empty())
      o = {false, failure};
    say(console, "%s  %-24s %9.1f ms  %-4s %s\n", console.tty ? "\r\033[K" : "", name, took, o.ok ? "ok" : "FAIL",
        o.detail.c_str());
    ++steps_;
    return o.ok;
  }

  // What the last failure noted on the handle since `before` says; "" when none.
  std::string last_failure(uint64_t before) const
  {
    varkel_failure_t f{};
    if (varkel_failure_count(v_) == before || varkel_last_failure(v_, &f) == 0)
      return "";
    return f.module != 0 ? format("module %d: %s", f.module, f.text) : std::string(f.text);
  }

  static Outcome from_code(int rc, std::string detail)
  {
    if (rc == 0)
      return {true, std::move(detail)};
    return {false, format("code %d: %s", rc, varkel_error_string(rc))};
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
    // A simulator says so and names the segment of its frame; a real controller
    // refuses the question, which is no failure of the step.
    const int simulator = rc == 0 ? varkel::tools::recognise_simulator(v_) : 0;
    seen_ = varkel_failure_count(v_);
    return from_code(rc | (simulator == 1 ? 0 : simulator),
                     format("%d module(s) side by side%s", v_->max_num_modules, ratio.c_str()));
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
    rc = rc != 0 ? rc : varkel_load_dac_files(scratch, s_.dacs.c_str());
    one_module_dacs_ms_ = ms(Clock::now() - t0);
    varkel_failure_t f{};
    const bool noted = rc != 0 && varkel_last_failure(scratch, &f) != 0;
    varkel_delete(scratch);
    if (noted)
      return {false, f.text};
    return from_code(rc, "module 1 alone on a second handle, for comparison");
  }

  Outcome load_dacs()
  {
    const auto t0 = Clock::now();
    const int rc = varkel_load_dac_files(v_, s_.dacs.c_str());
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
    for (int m = 1; m <= v_->max_num_modules; ++m) {
      const std::vector<int> working = working_chips(v_, m);
      for (int c = 1; c <= 36; ++c)
        if (varkel_chip_on_model(v_, c) && std::find(working.begin(), working.end(), c) == working.end())
          off += format("%smodule %d chip %d", off.empty() ? "" : ", ", m, c);
    }
    switched_off_ = off;
    return from_code(rc, format("%d module(s), %s switched off", v_->max_num_modules,
                                off.empty() ? "every chip answers, none" : off.c_str()));
  }

  // ---- chip configuration ----

  // The OMR fields a run sets, on every chip of every module, and equalization set
  // kEqualizationSet on every working chip; then each module's fields read back
  // from its first working chip.
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
      const std::vector<int> chips = working_chips(v_, m);
      rc |= select_module(v_, m);
      for (int c : chips)
        rc |= US_Load_Equalization(v_, kEqualizationSet, static_cast<uint8_t>(c));
      loads += static_cast<int>(chips.size());
      if (chips.empty())
        continue;
      rc |= select_chipNumber(v_, chips.front()) | get_omr(v_);
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

  // GND of module 1's first working chip: the controller steps it over its range
  // and the code nearest the aim is written; both read back.
  Outcome dac_scan_one_chip()
  {
    const std::vector<int> chips = working_chips(v_, 1);
    if (chips.empty())
      return {false, "module 1 has no working chip"};
    int code = 0;
    double volts = 0;
    const int rc = varkel_scan_chip(v_, 1, chips.front(), DAC_GND, 0, 255, 4, &code, &volts);
    return from_code(rc, format("GND of module 1 chip %d over codes 0-255 in steps of 4: code %d chosen, reads "
                                "%.3f V (aim %g V)",
                                chips.front(), code, volts, varkel_scan_aim(DAC_GND)));
  }

  // Every module's averages and board sensors side by side, then each module's chips
  // on the main channel; the table follows the step's line. The chip walk reads
  // every chip number, the switched-off ones too, which a controller may refuse:
  // the step says so and goes on.
  Outcome temperatures()
  {
    const uint64_t before = varkel_failure_count(v_);
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
      for (int c : working_chips(v_, m)) {
        cmin = std::min(cmin, p.allchip_temperature[m - 1][c - 1]);
        cmax = std::max(cmax, p.allchip_temperature[m - 1][c - 1]);
      }
      table_ += format("    %-7d %6.2f / %-7.2f %6.2f / %-7.2f %6.2f\n", m, double{*bmin}, double{*bmax}, double{cmin},
                       double{cmax}, double{p.avg_chip_temperature[m - 1]});
    }
    const std::string refused = last_failure(before);
    return from_code(rc, format("averages of %d module(s) side by side in %.1f ms, 48 board sensors each in %.1f ms%s",
                                v_->max_num_modules, averages, boards,
                                refused.empty() ? "" : ("; a chip reading refused: " + refused).c_str()));
  }
  const std::string& temperature_table() const { return table_; }

  // One of the acquisition's values on every module by the library's setter,
  // with what the handle keeps afterwards.
  template <typename Set, typename Kept> Outcome set_value(Set set, Kept kept)
  {
    const int rc = set();
    return from_code(rc, kept());
  }

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
    const int rc = varkel_prepare_data_server(v_);
    return from_code(rc, has_frame() ? "acquisition arguments acknowledged, frame buffer mapped"
                                     : "acquisition arguments acknowledged (this model publishes no frame)");
  }

  // The library's acquisition with what the steps before set, the bar drawn from
  // its progress reports.
  Outcome acquire()
  {
    varkel_acquire_request_t request;
    varkel_acquire_request_init(&request);
    request.progress = [](const varkel_acquire_progress_t* p, void*) {
      if (console.tty)
        say(console, "\r\033[K  %-24s %s", "acquisition", varkel::tools::progress_bar(p->fraction).c_str());
    };
    varkel_acquire_result_t result{};
    const int rc = varkel_acquire(v_, &request, &result);
    if (rc != 0)
      return from_code(rc, "");
    return {result.exposures_done == s_.exposures,
            format("%d exposure(s) by the counter in %.2f s", result.exposures_done, result.elapsed)};
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

  bool has_frame() const { return varkel_model_has_data_server(v_->detModel) != 0; }
  int steps() const { return steps_; }
  uint64_t frames_counted() const { return frames_counted_; }

private:
  const Settings& s_;
  varkel_t* v_;
  uint64_t seen_ = 0; // failures noted on the handle that the running step has accounted for
  double sequential_ms_ = 0;
  double one_module_dacs_ms_ = 0;
  std::string switched_off_; // the positions the presence check switched off
  std::string table_;        // the temperatures, one line per module
  int steps_ = 0;
  uint64_t frames_counted_ = 0;
};

// Bring-up and calibration: the steps up to the chips' configuration.
bool bring_up(Demo& demo, const Settings& s, const varkel_t* v, const varkel::sim::Simulator* sim)
{
  return demo.step("data-server connection", [&] { return demo.connect_data_server(*s.data_server); }) &&
         (v->max_num_modules == 1 ||
          demo.step("modules one by one", [&] { return demo.connect_one_by_one(s.modules); })) &&
         demo.step("module connection", [&] { return demo.connect_modules(s.modules); }) &&
         demo.step("presence check", [&] { return demo.presence_check(); }) &&
         (v->max_num_boards < 3 ||
          (demo.step("DAC files, one module", [&] { return demo.load_dacs_one_module(s.modules[0]); }) &&
           demo.step("DAC files", [&] { return demo.load_dacs(); }))) &&
         demo.step("DAC defaults", [&] { return demo.dac_defaults(); }) &&
         demo.step("sensor bias", [&] { return demo.bias_ramp(sim); }) &&
         demo.step("chip configuration", [&] { return demo.configure_chips(); }) &&
         demo.step("readout mode", [&] { return demo.readout_mode(); }) &&
         demo.step("DAC scan", [&] { return demo.dac_scan_one_chip(); });
}

// The acquisition and what follows it.
bool acquisition(Demo& demo, const Settings& s, varkel_t* v)
{
  const auto every_module = [](double value, const char* shown) { return format(shown, value) + " on every module"; };
  return demo.step("acquisition time",
                   [&] {
                     return demo.set_value([&] { return set_acquireTime(v, s.exposure); },
                                           [&] { return every_module(v->acquireParam.acquireTime, "%.6f s"); });
                   }) &&
         demo.step("acquisition period",
                   [&] {
                     return demo.set_value([&] { return set_periodTime(v, s.period); },
                                           [&] { return every_module(v->acquireParam.acquirePeriod, "%.6f s"); });
                   }) &&
         demo.step("exposures",
                   [&] {
                     return demo.set_value([&] { return set_numberExposures(v, s.exposures); },
                                           [&] { return every_module(v->acquireParam.numExposures, "%.0f"); });
                   }) &&
         demo.step("trigger mode", [&] { return demo.trigger_arrangement(); }) &&
         demo.step("preparation", [&] { return demo.prepare(); }) &&
         demo.step("acquisition", [&] { return demo.acquire(); }) &&
         demo.step("data-server status", [&] { return demo.data_server_status(); }) &&
         demo.step(
             "temperatures", [&] { return demo.temperatures(); }, true) &&
         (say(console, "%s", demo.temperature_table().c_str()), true) &&
         (!demo.has_frame() || demo.step("sample frame", [&] { return demo.sample_frame(); }));
}

// The simulator in this process, its addresses in `s`; nullptr with the reason
// printed when it cannot start.
std::unique_ptr<varkel::sim::Simulator> start_simulator(Settings& s)
{
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
    s.modules = std::move(d.modules);
    s.data_server = d.data_server;
    return std::move(d.sim);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "varkel-demo: cannot start the simulator: %s\n", e.what());
    return nullptr;
  }
}

void print_header(const Settings& s, bool in_process)
{
  const varkel::sim::Geometry g = varkel::sim::geometry_of(s.model);
  say(console, "varkel-demo: %s (%d module(s) x %d board(s) x %d chip(s)), %s\n", varkel::sim::model_name(s.model),
      g.modules, g.boards, g.chips,
      in_process ? format("simulator in this process, %u us per controller reply", s.latency_us).c_str()
                 : "detector given on the command line");
  say(console, "  data server %s:%u, module 1 at %s:%u\n", s.data_server->host.c_str(), s.data_server->port,
      s.modules[0].host.c_str(), s.modules[0].port);
  say(console, "  %d exposure(s) of %.6f s every %.6f s\n\n", s.exposures, static_cast<double>(s.exposure),
      static_cast<double>(s.period));
}

} // namespace

int main(int argc, char** argv)
{
  Settings s;
  if (int status = 0; !parse_options(argc, argv, s, status))
    return status;
  const bool external = !s.modules.empty() || s.data_server;
  if (external && (!s.data_server || s.modules.empty())) {
    std::fprintf(stderr, "varkel-demo: give both --module (one per module) and --data-server\n");
    return 2;
  }
  const std::unique_ptr<varkel::sim::Simulator> sim = external ? nullptr : start_simulator(s);
  if (!external && sim == nullptr)
    return 1;
  const int modules = varkel::sim::geometry_of(s.model).modules;
  if (static_cast<int>(s.modules.size()) != modules) {
    std::fprintf(stderr, "varkel-demo: a %s has %d module(s), %zu address(es) given\n",
                 varkel::sim::model_name(s.model), modules, s.modules.size());
    return 2;
  }
  if (!console.redirect_library_output(s.log)) {
    std::fprintf(stderr, "varkel-demo: cannot write %s\n", s.log.c_str());
    return 1;
  }
  print_header(s, sim != nullptr);
  varkel_t* v = varkel_new(s.model);
  if (v == nullptr || v->sample_frame == nullptr) {
    say(console, "cannot create a handle\n");
    return 1;
  }
  Demo demo(s, v);
  const auto start = Clock::now();
  const bool ok = bring_up(demo, s, v, sim.get()) && acquisition(demo, s, v);
  const double total = ms(Clock::now() - start) / 1000;
  varkel_delete(v);
  if (ok)
    say(console,
        "\nall %d steps succeeded in %.2f s, %llu frames counted by the data server; the library's own "
        "output is in %s\n",
        demo.steps(), total, static_cast<unsigned long long>(demo.frames_counted()), s.log.c_str());
  else
    say(console, "\nstopped after a failed step; the library's own output is in %s\n", s.log.c_str());
  return ok ? 0 : 1;
}
