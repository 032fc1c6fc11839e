// The detector one run of `varkel` works on: a simulator started in this process,
// or the modules and data server given on the command line, behind one handle.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/endpoint.hpp"
#include "common/simulated.hpp"
#include "output.hpp"
#include "varkel.h"

namespace varkel::cli {

// The options every command shares.
struct Options {
  std::string sim;   // model of the simulator to start; empty: the addresses below
  std::string model; // the model at the addresses (default: quad for four modules, trio for one)
  std::vector<std::string> modules;
  std::string data_server;
  std::vector<std::string> missing; // simulator chips that do not answer, MODULE:CHIP
  double timeout = 5;               // seconds to connect and to wait for one reply
  bool simulated = false;           // the addresses are a varkel-sim: its sample frame has the simulation names
  bool json = false;
  std::string log = "/dev/null";
};

// How far a command brings the detector up.
enum class Reach {
  none,      // a handle of the model, nothing connected
  modules,   // the module channels only, as they are (get, put, temps, ...)
  everything // the data server and the full connection of every module (init, acquire)
};

struct HandleFree {
  void operator()(varkel_t* v) const { varkel_delete(v); }
};

class Detector {
public:
  // Checks the options; false with the problem reported.
  bool configure(const Options& options, Output& out);
  // Starts the simulator if one was asked for (publishing the sample frame only
  // when `frame`), creates the handle and connects as far as `reach`; every
  // module must answer. False with what failed reported, module by module.
  bool open(Reach reach, bool frame, Output& out);

  varkel_t* handle() const { return handle_.get(); }
  varkel_detector_model_t model() const { return model_; }
  // Whether chip number `chip` (1..36) sits on a board and position the model has.
  bool on_model(int chip) const;

private:
  bool start_simulator(bool frame, Output& out);
  bool attach(Output& out);
  bool connect_all(Output& out);

  Options options_;
  varkel_detector_model_t model_ = varkelQuad;
  std::optional<tools::SimulatedDetector> sim_;
  std::vector<tools::Endpoint> modules_;
  std::optional<tools::Endpoint> data_server_;
  std::vector<varkel::sim::MissingChip> missing_;
  std::unique_ptr<varkel_t, HandleFree> handle_;
};

} // namespace varkel::cli
