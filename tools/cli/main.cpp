// varkel: the detector from the command line. Every setting by its readable name,
// acquisitions, temperatures, the presence check, DAC scans and configuration
// snapshots, for a person on a terminal or, with --json, for a script.
//
// Exit status: 0 when everything succeeded, 1 when the detector or the library
// failed, 2 when the command line was wrong (an unknown name, a bad value).
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "commands.hpp"
#include "common/console.hpp"

namespace {

using namespace varkel::cli;

// Some failures of the data-server link make the library end the process with
// status 0; a script must not read that as success.
bool g_finished = false;
FILE* g_errors = stderr;

void refuse_early_exit()
{
  if (g_finished)
    return;
  std::fputs("varkel: the library ended the process before the command finished\n", g_errors);
  std::fflush(g_errors);
  _exit(kExitFailed);
}

int finish(int status)
{
  g_finished = true;
  return status;
}

} // namespace

int main(int argc, char** argv)
{
  CLI::App app{"varkel: control a detector, or the simulator of --sim, from the command line"};
  app.footer(setting_names_help() + "\nExit status: 0 when everything succeeded, 1 when the detector or the library "
                                    "failed, 2 for a bad command line.");
  app.require_subcommand(1);
  app.fallthrough(); // the shared options also after the command: varkel get exposure --json

  Options o;
  app.add_option("--sim", o.sim, "start a simulated detector in this process: kinlet, lite, trio or quad");
  app.add_option("--module", o.modules, "HOST:PORT of a module's controller, once per module, module 1 first");
  app.add_option("--data-server", o.data_server, "HOST:PORT of the data server (init and acquire)");
  app.add_option("--model", o.model, "model at the addresses (default: quad for four modules, trio for one)");
  app.add_flag("--simulated", o.simulated, "the addresses are a varkel-sim: read its sample frame");
  app.add_option("--missing-chip", o.missing, "with --sim: MODULE:CHIP that does not answer (repeatable)");
  app.add_option("--timeout", o.timeout, "seconds to connect and to wait for each reply")->capture_default_str();
  app.add_flag("--json", o.json, "one JSON object on standard output");
  app.add_option("--log", o.log, "where the library's own output goes")->capture_default_str();

  Address at;
  const auto address_options = [&](CLI::App* c, const char* chip_help) {
    c->add_option("--module", at.module, "module 1..4 (default: every module)");
    if (chip_help != nullptr)
      c->add_option("--chip", at.chip, chip_help);
  };
  std::string name, value;
  CLI::App* init_cmd = app.add_subcommand("init", "connect the data server and bring up every module's transport");
  CLI::App* get_cmd = app.add_subcommand("get", "read a setting back");
  get_cmd->add_option("NAME", name, "readable name (see the list below)")->required();
  address_options(get_cmd, "chip number 1..36 for chip settings (default: every chip)");
  get_cmd->footer(setting_names_help());
  CLI::App* put_cmd = app.add_subcommand("put", "write a setting");
  put_cmd->add_option("NAME", name, "readable name (see the list below)")->required();
  put_cmd->add_option("VALUE", value, "a value name or a number")->required();
  address_options(put_cmd, "chip number 1..36 for chip settings (default: every chip)");
  put_cmd->footer(setting_names_help());

  AcquireRequest acq;
  CLI::App* acquire_cmd = app.add_subcommand("acquire", "take exposures, with the data server counting the frames");
  acquire_cmd->add_option("--exposure", acq.exposure, "seconds per exposure")->capture_default_str();
  acquire_cmd->add_option("--period", acq.period, "seconds from one exposure to the next")->capture_default_str();
  acquire_cmd->add_option("--exposures", acq.exposures, "number of exposures")->capture_default_str();
  acquire_cmd->add_option("--png", acq.png, "write the sample frame as a PNG");
  CLI::App* temps_cmd = app.add_subcommand("temps", "board and chip temperatures, a table per module");
  CLI::App* chips_cmd = app.add_subcommand("chips", "presence check: chips that do not answer are switched off");

  ScanRequest sr;
  CLI::App* scan_cmd = app.add_subcommand("scan", "DAC scan by the controller; the code nearest the aim is written");
  scan_cmd->add_option("DAC", sr.dac, scan_dac_names())->required();
  scan_cmd->add_option("--from", sr.from, "first code")->capture_default_str();
  scan_cmd->add_option("--to", sr.to, "last code")->capture_default_str();
  scan_cmd->add_option("--step", sr.step, "code step (at most 69 steps)")->capture_default_str();
  address_options(scan_cmd, "chip number 1..36 (default: every chip)");

  std::string action, file, against;
  CLI::App* config_cmd = app.add_subcommand("config", "configuration snapshots: save, apply or diff a file");
  config_cmd->add_option("ACTION", action, "save, apply or diff")
      ->required()
      ->check(CLI::IsMember({"save", "apply", "diff"}));
  config_cmd->add_option("FILE", file, "the snapshot")->required();
  config_cmd->add_option("--against", against, "diff: a second snapshot instead of the detector");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // A script asked for JSON gets its object even for a command line it got wrong.
    if (e.get_exit_code() == 0 || std::find(argv + 1, argv + argc, std::string("--json")) == argv + argc)
      return app.exit(e) == 0 ? kExitOk : kExitUsage;
    varkel::tools::Console console;
    std::string named; // the command, if the line names one
    for (const CLI::App* c : app.get_subcommands({}))
      if (named.empty() && std::find(argv + 1, argv + argc, c->get_name()) != argv + argc)
        named = c->get_name();
    Output out(console, stderr, true, named);
    out.refuse(e.what());
    return out.finish();
  }
  CLI::App* command = app.get_subcommands().front();
  sr.at = at;

  // The terminal is ours; the library's trace of every request goes to the log.
  varkel::tools::Console console;
  g_errors = fdopen(dup(STDERR_FILENO), "w");
  if (g_errors == nullptr || !console.redirect_library_output(o.log)) {
    std::fprintf(g_errors != nullptr ? g_errors : stderr, "varkel: cannot write %s\n", o.log.c_str());
    return kExitUsage;
  }
  std::atexit(refuse_early_exit);

  Output out(console, g_errors, o.json, command->get_name());
  Detector d;
  if (d.configure(o, out)) {
    if (command == init_cmd)
      init(d, out);
    else if (command == get_cmd)
      get(d, out, name, at);
    else if (command == put_cmd)
      put(d, out, name, value, at);
    else if (command == acquire_cmd)
      acquire(d, out, acq);
    else if (command == temps_cmd)
      temps(d, out);
    else if (command == chips_cmd)
      chips(d, out);
    else if (command == scan_cmd)
      scan(d, out, sr);
    else if (command == config_cmd)
      config(d, out, action, file, against);
  }
  return finish(out.finish());
}
