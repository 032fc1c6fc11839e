// The commands of `varkel`. Each checks its arguments, brings the detector up as far
// as it needs, does its work through the library and reports through `out`.
#pragma once

#include <string>
#include <vector>

#include "detector.hpp"
#include "output.hpp"
#include "settings.h"

namespace varkel::cli {

// A module and a chip number the user named; 0 for every one.
struct Address {
  int module = 0;
  int chip = 0;
};

struct AcquireRequest {
  double exposure = 0.05; // seconds
  double period = 0.1;    // seconds, 0 for back to back
  int exposures = 10;
  std::string png; // where to write the sample frame; empty: not at all
};

struct ScanRequest {
  std::string dac;
  int from = 0, to = 255, step = 4;
  Address at;
};

void init(Detector& d, Output& out);
void get(Detector& d, Output& out, const std::string& name, Address at);
void put(Detector& d, Output& out, const std::string& name, const std::string& value, Address at);
void acquire(Detector& d, Output& out, const AcquireRequest& r);
void temps(Detector& d, Output& out);
void chips(Detector& d, Output& out);
void scan(Detector& d, Output& out, const ScanRequest& r);
// action: "save", "apply" or "diff"; `against` names a second file for diff.
void config(Detector& d, Output& out, const std::string& action, const std::string& file, const std::string& against);

// The DACs a scan can aim at, for the help.
std::string scan_dac_names();
// The readable names with their values and help, from the library's table.
std::string setting_names_help();

// Shared by the command files.
const varkel_setting_t* find_setting(const std::string& name, Output& out);
// The setting's value as the library formats it (a name or a number).
std::string shown(const varkel_setting_t* s, double value);
// The value for JSON: the formatted number when it is one, else the plain double.
json_object* json_value(const varkel_setting_t* s, double value);
// Checks `at` against the model; false with the problem reported.
bool check_address(const Detector& d, Address at, Output& out);
// The module numbers and chip numbers `at` names (every one of the model for 0).
std::vector<int> modules_of(const Detector& d, Address at);
std::vector<int> chips_of(const Detector& d, Address at);

} // namespace varkel::cli
