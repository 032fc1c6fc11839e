// varkel-sim: a virtual detector for running and testing varkel without hardware.
//
//   varkel-sim [--model quad] [--port 5000] [--data-port 6000] [--latency-us N]
//              [--missing-chip M:C]... [--bind 127.0.0.1] [--shm-name /NAME] [--verbose]
//
// Module m's controller listens on port + m - 1 (port 0: ports of the system's
// choosing, printed at start). The sample frame goes to the shared-memory segment
// --shm-name names (by default the library's name for the model with `simulate`
// set); a second simulator on the same name refuses to start. Runs until
// interrupted.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame.hpp"
#include "simulator.hpp"

namespace {

int usage()
{
  std::fprintf(stderr, "usage: varkel-sim [--model kinlet|lite|trio|quad] [--port N] [--data-port N]\n"
                       "                  [--latency-us N] [--missing-chip MODULE:CHIP]... [--bind ADDRESS]\n"
                       "                  [--shm-name /NAME] [--verbose]\n");
  return 2;
}

bool parse_number(const char* text, unsigned long max, unsigned long& out)
{
  char* end = nullptr;
  errno = 0;
  out = std::strtoul(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && out <= max;
}

} // namespace

int main(int argc, char** argv)
{
  using namespace varkel::sim;
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (i + 1 >= argc)
      return usage();
    const char* value = argv[++i];
    unsigned long n = 0;
    if (arg == "--model") {
      const auto model = parse_model(value);
      if (!model)
        return usage();
      options.model = *model;
    } else if (arg == "--port" && parse_number(value, 65535 - 3, n)) {
      options.port = static_cast<uint16_t>(n);
    } else if (arg == "--data-port" && parse_number(value, 65535, n)) {
      options.data_port = static_cast<uint16_t>(n);
    } else if (arg == "--latency-us" && parse_number(value, 10000000, n)) {
      options.latency = std::chrono::microseconds(n);
    } else if (arg == "--missing-chip") {
      int module = 0, chip = 0, used = 0;
      if (std::sscanf(value, "%d:%d%n", &module, &chip, &used) != 2 || value[used] != '\0')
        return usage();
      options.missing.push_back({module, chip});
    } else if (arg == "--shm-name" && valid_segment_name(value)) {
      options.shm_name = value;
    } else if (arg == "--bind") {
      options.host = value;
    } else {
      return usage();
    }
  }

  // Wait for the end signal synchronously; the servers' threads never see it.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  try {
    Simulator sim(options);
    std::printf("varkel-sim: %s, %d module(s)\n", model_name(options.model), sim.modules());
    for (int m = 1; m <= sim.modules(); ++m)
      std::printf("  module %d controller on %s:%u\n", m, options.host.c_str(), sim.module_port(m));
    std::printf("  data server on %s:%u\n", options.host.c_str(), sim.data_port());
    if (!sim.segment_name().empty())
      std::printf("  sample frame in shared memory %s\n", sim.segment_name().c_str());
    if (options.latency.count() > 0)
      std::printf("  %lld us added to every controller reply\n", static_cast<long long>(options.latency.count()));
    for (const MissingChip& x : options.missing)
      std::printf("  no chip at module %d, chip %d\n", x.module, x.chip_number);
    std::printf("ready; Ctrl-C ends it\n");
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stop, &sig);
    std::printf("varkel-sim: stopping\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "varkel-sim: %s\n", e.what());
    return 1;
  }
  return 0;
}
