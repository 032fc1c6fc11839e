#include "detector.hpp"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "common/text.hpp"
#include "link.h"
#include "refusal.h"
#include "workflow.h"

namespace varkel::cli {

using tools::format;

namespace {

std::string address(const tools::Endpoint& e) { return format("%s:%u", e.host.c_str(), e.port); }

const char* const kModels = " (kinlet, lite, trio, quad)";

} // namespace

bool Detector::configure(const Options& options, Output& out)
{
  options_ = options;
  if (!(options.timeout > 0)) {
    out.refuse("--timeout must be a positive number of seconds");
    return false;
  }
  if (!(options.sim.empty() ? configure_addresses(options, out) : configure_simulator(options, out)))
    return false;
  handle_.reset(varkel_new(model_));
  if (handle_ == nullptr || handle_->sample_frame == nullptr) {
    out.fail(0, 0, "cannot create a handle");
    return false;
  }
  for (const varkel::sim::MissingChip& m : missing_)
    if (m.module < 1 || m.module > modules() || !varkel_chip_on_model(handle(), m.chip_number)) {
      out.refuse(format("--missing-chip %d:%d: a %s has modules 1 to %d and no chip number %d", m.module, m.chip_number,
                        varkel::sim::model_name(model_), modules(), m.chip_number));
      return false;
    }
  return true;
}

bool Detector::configure_simulator(const Options& options, Output& out)
{
  const auto model = varkel::sim::parse_model(options.sim);
  if (!model) {
    out.refuse("unknown model '" + options.sim + "'" + kModels);
    return false;
  }
  if (!options.modules.empty() || !options.data_server.empty() ||
      (!options.model.empty() && varkel::sim::parse_model(options.model) != model)) {
    out.refuse("--sim " + options.sim +
               " starts its own detector: give it no --module, --data-server or other --model");
    return false;
  }
  model_ = *model;
  for (const std::string& m : options.missing) {
    int module = 0, chip = 0, used = 0;
    if (std::sscanf(m.c_str(), "%d:%d%n", &module, &chip, &used) != 2 || m[used] != '\0') {
      out.refuse("--missing-chip takes MODULE:CHIP, not '" + m + "'");
      return false;
    }
    missing_.push_back({module, chip});
  }
  return true;
}

bool Detector::configure_addresses(const Options& options, Output& out)
{
  if (!options.missing.empty()) {
    out.refuse("--missing-chip is for the simulator of --sim");
    return false;
  }
  for (const std::string& m : options.modules) {
    const auto e = tools::parse_endpoint(m);
    if (!e) {
      out.refuse("--module takes HOST:PORT, not '" + m + "'");
      return false;
    }
    modules_.push_back(*e);
  }
  if (!options.data_server.empty() && !(data_server_ = tools::parse_endpoint(options.data_server))) {
    out.refuse("--data-server takes HOST:PORT, not '" + options.data_server + "'");
    return false;
  }
  const auto model = options.model.empty() ? std::optional(modules_.size() == 4 ? varkelQuad : varkelTrio)
                                           : varkel::sim::parse_model(options.model);
  if (!model) {
    out.refuse("unknown model '" + options.model + "'" + kModels);
    return false;
  }
  model_ = *model;
  const int wanted = varkel::sim::geometry_of(model_).modules;
  if (!modules_.empty() && static_cast<int>(modules_.size()) != wanted) {
    out.refuse(format("a %s has %d module(s): give --module once for each, %zu given", varkel::sim::model_name(model_),
                      wanted, modules_.size()));
    return false;
  }
  return true;
}

int Detector::modules() const { return handle_->max_num_modules; }

bool Detector::check(Address at, Output& out) const
{
  if (at.module > modules()) {
    out.refuse(format("--module %d: this detector has modules 1 to %d", at.module, modules()));
    return false;
  }
  if (at.chip != 0 && !varkel_chip_on_model(handle(), at.chip)) {
    out.refuse(format("--chip %d: no such chip number on this model", at.chip));
    return false;
  }
  return true;
}

std::vector<int> Detector::modules_of(Address at) const
{
  if (at.module != 0)
    return {at.module};
  std::vector<int> all;
  for (int m = 1; m <= modules(); ++m)
    all.push_back(m);
  return all;
}

std::vector<int> Detector::chips_of(int m, Address at, std::vector<LeftOut>* left_out) const
{
  if (at.chip != 0)
    return {at.chip};
  int chips[36];
  const int n = std::clamp(varkel_working_chips(handle(), m, chips, 36), 0, 36);
  for (int c = 1; left_out != nullptr && c <= 36; ++c)
    if (varkel_chip_on_model(handle(), c) && std::find(chips, chips + n, c) == chips + n)
      left_out->push_back({m, c});
  return {chips, chips + n};
}

bool Detector::switched_off(Output& out, int m, int chip, const std::string& what) const
{
  const std::vector<int> chips = chips_of(m, {});
  if (chip == 0 || std::find(chips.begin(), chips.end(), chip) != chips.end())
    return false;
  out.fail(m, chip, VARKEL_CHIP_OFF, what + ": the chip is switched off");
  return true;
}

bool Detector::verdict(Output& out, int module, int chip, const std::string& what, int rc, uint64_t before) const
{
  varkel_failure_t f{};
  if (varkel_failure_count(handle()) != before && varkel_last_failure(handle(), &f) != 0) {
    out.fail(f.module != 0 ? f.module : module, f.chip != 0 ? f.chip : chip, f.code, what + ": " + f.text);
    return false;
  }
  if (rc != 0)
    out.fail(module, chip, rc, coded(what, rc));
  return rc == 0;
}

bool Detector::start_simulator(bool frame, Output& out)
{
  varkel::sim::Options o;
  o.model = model_;
  o.missing = missing_;
  o.publish_frame = frame; // the fixed segment names allow one publisher at a time
  try {
    sim_ = tools::start_simulator(o);
  } catch (const std::exception& e) {
    out.fail(0, 0, format("cannot start the simulator: %s", e.what()));
    return false;
  }
  modules_ = sim_->modules;
  data_server_ = sim_->data_server;
  return true;
}

bool Detector::open(Reach reach, bool frame, Output& out)
{
  if (reach == Reach::none)
    return true;
  if (options_.sim.empty() && modules_.empty()) {
    out.refuse("give --sim MODEL, or --module HOST:PORT for every module (and --data-server HOST:PORT)");
    return false;
  }
  if (!options_.sim.empty() && !start_simulator(frame, out))
    return false;
  varkel_t* v = handle_.get();
  if (const int rc = varkel_set_timeouts(v, options_.timeout, options_.timeout); rc != 0) {
    out.fail(0, 0, rc, coded("time-outs", rc));
    return false;
  }
  if (!(reach == Reach::modules ? attach(out) : connect_all(out)))
    return false;
  // A simulator, this process's or one started by hand, says so and names the
  // segment of its frame; a real controller refuses the question.
  if (const int rc = tools::recognise_simulator(v); rc != 0 && rc != 1) {
    out.fail(1, 0, rc, coded("asking who the controller is", rc));
    return false;
  }
  // Chips that read no efuse identifier are switched off in the handle, so that
  // every command passes them by; the check's own lines go to the log.
  return run(out, 0, 0, "presence check", [&] { return check_and_disable_sensors(v); });
}

// Opens every module's channel as it is and asks each controller once for its
// efuse identifier, so that a module that does not answer stops the command here,
// after one time-out, rather than once per chip later.
bool Detector::attach(Output& out)
{
  varkel_t* v = handle_.get();
  const tools::AddressLists a(modules_);
  const int rc = varkel_attach(v, a.hosts.data(), a.ports.data());
  bool ok = true;
  for (int m = 0; m < v->max_num_modules; ++m) {
    if (v->fd[m] <= 0) {
      out.fail(m + 1, 0, rc, coded("cannot reach the controller at " + address(modules_[m]), rc));
      ok = false;
    } else {
      ok = run(out, m + 1, 0, "the controller at " + address(modules_[m]),
               [&] { return US_efuseID_RBV(v, static_cast<varkel_thread_t>(m)); }) &&
           ok;
    }
  }
  if (ok && rc != 0)
    out.fail(0, 0, rc, coded("attaching to the modules", rc));
  return ok && rc == 0;
}

bool Detector::connect_all(Output& out)
{
  varkel_t* v = handle_.get();
  if (!data_server_) {
    out.refuse("this command needs the data server: give --data-server HOST:PORT");
    return false;
  }
  if (const int rc = varkel_connect_backend(v, data_server_->host.c_str(), data_server_->port); rc != 0) {
    out.fail(0, 0, rc, coded("cannot connect the data server at " + address(*data_server_), rc));
    return false;
  }
  const tools::AddressLists a(modules_);
  const uint64_t before = varkel_failure_count(v);
  const int rc = varkel_connect(v, a.hosts.data(), a.ports.data());
  bool named = false;
  for (int m = 0; m < v->max_num_modules; ++m)
    if (v->fd[m] <= 0) {
      out.fail(m + 1, 0, rc, coded("cannot connect the controller at " + address(modules_[m]), rc));
      named = true;
    }
  return named ? false : verdict(out, 0, 0, "bringing up the modules' transport", rc, before);
}

void report_left_out(Output& out, const std::vector<LeftOut>& left_out)
{
  if (left_out.empty())
    return;
  json_object* list = json_object_new_array();
  for (const LeftOut& l : left_out) {
    json_object_array_add(list, json_place(l.module, l.chip));
    out.text("module %d: chip %d switched off, left out\n", l.module, l.chip);
  }
  out.set("left_out", list);
}

} // namespace varkel::cli
