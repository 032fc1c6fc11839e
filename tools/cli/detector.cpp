#include "detector.hpp"

#include <cstdio>
#include <stdexcept>

#include "common/chips.hpp"
#include "common/text.hpp"
#include "link.h"
#include "settings.h"

namespace varkel::cli {

using tools::format;

namespace {

std::string address(const tools::Endpoint& e) { return format("%s:%u", e.host.c_str(), e.port); }

} // namespace

bool Detector::configure(const Options& options, Output& out)
{
  options_ = options;
  if (!(options.timeout > 0)) {
    out.refuse("--timeout must be a positive number of seconds");
    return false;
  }
  if (!options.sim.empty()) {
    const auto model = varkel::sim::parse_model(options.sim);
    if (!model || !options.modules.empty() || !options.data_server.empty()) {
      out.refuse(model ? "--sim starts its own detector: give it no --module or --data-server"
                       : "unknown model '" + options.sim + "' (kinlet, lite, trio, quad)");
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
  if (options.modules.empty())
    return true; // enough for the commands that need no detector; open() asks for one
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
    out.refuse("unknown model '" + options.model + "' (kinlet, lite, trio, quad)");
    return false;
  }
  model_ = *model;
  const int wanted = varkel::sim::geometry_of(model_).modules;
  if (static_cast<int>(modules_.size()) != wanted) {
    out.refuse(format("a %s has %d module(s): give --module once for each, %zu given", varkel::sim::model_name(model_),
                      wanted, modules_.size()));
    return false;
  }
  return true;
}

bool Detector::on_model(int chip) const
{
  const auto g = varkel::sim::geometry_of(model_);
  return tools::chip_on_model(chip, g.boards, g.chips);
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
  if (reach != Reach::none && options_.sim.empty() && modules_.empty()) {
    out.refuse("give --sim MODEL, or --module HOST:PORT for every module (and --data-server HOST:PORT)");
    return false;
  }
  if (!options_.sim.empty() && reach != Reach::none && !start_simulator(frame, out))
    return false;
  handle_.reset(varkel_new(model_));
  if (handle_ == nullptr || handle_->sample_frame == nullptr) {
    out.fail(0, 0, "cannot create a handle");
    return false;
  }
  // The simulator publishes its frame under the simulation names.
  handle_->simulate = !options_.sim.empty() || options_.simulated;
  if (const int rc = varkel_set_timeouts(handle_.get(), options_.timeout, options_.timeout); rc != 0) {
    out.fail(0, 0, rc, "time-outs");
    return false;
  }
  switch (reach) {
  case Reach::none:
    return true;
  case Reach::modules:
    return attach(out);
  case Reach::everything:
    return connect_all(out);
  }
  return false;
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
      out.fail(m + 1, 0, rc, "cannot reach the controller at " + address(modules_[m]));
      ok = false;
    } else if (const int answer = US_efuseID_RBV(v, static_cast<varkel_thread_t>(m)); answer != 0) {
      out.fail(m + 1, 0, answer, "the controller at " + address(modules_[m]) + " does not answer");
      ok = false;
    }
  }
  if (ok && rc != 0)
    out.fail(0, 0, rc, "attaching to the modules");
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
    out.fail(0, 0, rc, "cannot connect the data server at " + address(*data_server_));
    return false;
  }
  const tools::AddressLists a(modules_);
  const int rc = varkel_connect(v, a.hosts.data(), a.ports.data());
  bool named = false;
  for (int m = 0; m < v->max_num_modules; ++m)
    if (v->fd[m] <= 0) {
      out.fail(m + 1, 0, rc, "cannot connect the controller at " + address(modules_[m]));
      named = true;
    }
  if (rc != 0 && !named)
    out.fail(0, 0, rc, "bringing up the modules' transport");
  return rc == 0;
}

} // namespace varkel::cli
