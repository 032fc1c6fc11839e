// The commands of `varkel`. Each command's file holds its setup: the subcommand,
// its options and what it runs once the command line is parsed. What it runs
// checks its arguments, brings the detector up as far as it needs, does its work
// through the library and reports through `out`.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "detector.hpp"
#include "output.hpp"
#include "settings.h"

namespace varkel::cli {

using Run = std::function<void(Detector&, Output&)>;

// The subcommands set up on the application, with what each runs.
struct Commands {
  CLI::App& app;
  std::map<const CLI::App*, Run> runs;

  CLI::App* add(const char* name, const char* about) { return app.add_subcommand(name, about); }
  void on(const CLI::App* command, Run run) { runs[command] = std::move(run); }
};

void setup_init(Commands& c);
void setup_names(Commands& c);
void setup_get(Commands& c);
void setup_put(Commands& c);
void setup_acquire(Commands& c);
void setup_temps(Commands& c);
void setup_chips(Commands& c);
void setup_scan(Commands& c);
void setup_config(Commands& c);

// The readable names with their values and help, from the library's table.
std::string setting_names_help();
// --module and, when chip_help is given, --chip on `command`, into `at`; 0 (the
// default) is every module and chip, so neither option takes it.
void address_options(CLI::App* command, Address& at, const char* chip_help);

// Shared by the command files.
const varkel_setting_t* find_setting(const std::string& name, Output& out);
// The setting's value as the library formats it (a name or a number).
std::string shown(const varkel_setting_t* s, double value);
// The value for JSON: the formatted number when it is one, else the plain double.
json_object* json_value(const varkel_setting_t* s, double value);

} // namespace varkel::cli
