// The detector one run of `varkel` works on: a simulator started in this process,
// or the modules and data server given on the command line, behind one handle.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/endpoint.hpp"
#include "common/simulated.hpp"
#include "output.hpp"
#include "refusal.h"
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
  bool json = false;
  std::string log = "/dev/null";
};

// A module and a chip number the user named; 0 for every one.
struct Address {
  int module = 0;
  int chip = 0;
};

// A module's chip that a command over every chip passes by.
struct LeftOut {
  int module;
  int chip;
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
  // module must answer. Then the presence check switches off the chips that do
  // not answer, for every command of this run. False with what failed reported.
  bool open(Reach reach, bool frame, Output& out);

  varkel_t* handle() const { return handle_.get(); }
  varkel_detector_model_t model() const { return model_; }
  int modules() const;

  // Checks `at` against the model; false with the problem reported.
  bool check(Address at, Output& out) const;
  // The module numbers `at` names (every one for 0).
  std::vector<int> modules_of(Address at) const;
  // The chips of module `m` a command over `at` goes to: the named chip, or every
  // working chip, with the chips on the model it passes by in `left_out`.
  std::vector<int> chips_of(int m, Address at, std::vector<LeftOut>* left_out = nullptr) const;
  // Whether a command aimed at chip `chip` (0: none) of module `m` meets it
  // switched off; then reported as a failure of `what`, and nothing is to be sent.
  bool switched_off(Output& out, int m, int chip, const std::string& what) const;

  // A library call's result, reported when it failed: from the handle's failure
  // record when the call noted one since `before` (a refusal returns 0), else by
  // its code. `what` names the operation ("put exposure"); module and chip those
  // the operation was aimed at. True when it succeeded.
  bool verdict(Output& out, int module, int chip, const std::string& what, int rc, uint64_t before) const;
  template <typename Call> bool run(Output& out, int module, int chip, const std::string& what, Call&& call) const
  {
    const uint64_t before = varkel_failure_count(handle());
    return verdict(out, module, chip, what, call(), before);
  }

private:
  bool configure_simulator(const Options& options, Output& out);
  bool configure_addresses(const Options& options, Output& out);
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

// Prints and lists (JSON "left_out") the chips a command passed by.
void report_left_out(Output& out, const std::vector<LeftOut>& left_out);

} // namespace varkel::cli
