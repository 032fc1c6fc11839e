// varkel: the detector from the command line. Every setting by its readable name,
// acquisitions, temperatures, the presence check, DAC scans and configuration
// snapshots, for a person on a terminal or, with --json, for a script.
//
// Exit status: 0 when everything succeeded, 1 when the detector or the library
// failed, 2 when the command line was wrong (an unknown name, a bad value), 128 +
// the signal's number when SIGINT or SIGTERM ended an acquisition.
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

void shared_options(CLI::App& app, Options& o)
{
  app.add_option("--sim", o.sim, "start a simulated detector in this process: kinlet, lite, trio or quad");
  app.add_option("--module", o.modules, "HOST:PORT of a module's controller, once per module, module 1 first");
  app.add_option("--data-server", o.data_server, "HOST:PORT of the data server (init and acquire)");
  app.add_option("--model", o.model, "model at the addresses (default: quad for four modules, trio for one)");
  app.add_option("--missing-chip", o.missing, "with --sim: MODULE:CHIP that does not answer (repeatable)");
  app.add_option("--timeout", o.timeout, "seconds to connect and to wait for each reply")->capture_default_str();
  app.add_flag("--json", o.json, "one JSON object on standard output");
  app.add_option("--log", o.log, "where the library's own output goes")->capture_default_str();
}

std::string command_names(const CLI::App& app)
{
  std::string names;
  for (const CLI::App* c : app.get_subcommands({}))
    names += (names.empty() ? "" : ", ") + c->get_name();
  return names;
}

// A command line that does not parse, or names no command CLI11 knows: status 2,
// and a script asked for JSON gets its object all the same.
int refuse_command_line(const CLI::App& app, const std::string& problem, bool json)
{
  varkel::tools::Console console;
  const CLI::App* named = app.get_subcommands().empty() ? nullptr : app.get_subcommands().front();
  Output out(console, stderr, json, named != nullptr ? named->get_name() : "");
  out.refuse(problem);
  return out.finish();
}

// What is left over: an unknown command, or arguments the command does not take.
std::string leftover(const CLI::App& app)
{
  const std::vector<std::string> rest = app.remaining();
  if (app.get_subcommands().empty())
    return rest.empty()
               ? "give a command: " + command_names(app)
               : "varkel does not know the command '" + rest.front() + "'; the commands are " + command_names(app);
  return rest.empty() ? "" : "unexpected argument '" + rest.front() + "'";
}

// The terminal is ours; the library's trace of every request goes to the log.
int run(const Commands& commands, const Options& o)
{
  varkel::tools::Console console;
  g_errors = fdopen(dup(STDERR_FILENO), "w");
  if (g_errors == nullptr || !console.redirect_library_output(o.log)) {
    std::fprintf(g_errors != nullptr ? g_errors : stderr, "varkel: cannot write %s\n", o.log.c_str());
    return kExitUsage;
  }
  std::atexit(refuse_early_exit);
  const CLI::App* command = commands.app.get_subcommands().front();
  Output out(console, g_errors, o.json, command->get_name());
  Detector d;
  if (d.configure(o, out))
    commands.runs.at(command)(d, out);
  const int status = out.finish();
  g_finished = true;
  return status;
}

} // namespace

int main(int argc, char** argv)
{
  CLI::App app{"varkel: control a detector, or the simulator of --sim, from the command line"};
  app.require_subcommand(0, 1);
  app.allow_extras(); // an unknown command is ours to name
  app.fallthrough();  // the shared options also after the command: varkel get exposure --json
  Options o;
  shared_options(app, o);
  Commands commands{app, {}};
  for (auto setup : {setup_init, setup_names, setup_get, setup_put, setup_acquire, setup_temps, setup_chips, setup_scan,
                     setup_config})
    setup(commands);
  // Set after the commands, which would take it over: their help stays short.
  app.footer(setting_names_help() + "\nExit status: 0 when everything succeeded, 1 when the detector or the library "
                                    "failed, 2 for a bad command line, 130 or 143 for an acquisition interrupted.");
  const bool json = std::find(argv + 1, argv + argc, std::string("--json")) != argv + argc;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0 || !json)
      return app.exit(e) == 0 ? kExitOk : kExitUsage;
    return refuse_command_line(app, e.what(), json);
  }
  if (const std::string problem = leftover(app); !problem.empty())
    return refuse_command_line(app, problem, json);
  return run(commands, o);
}
