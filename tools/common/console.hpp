// The terminal of a tool whose library traces every request and reply on
// standard output: the tool keeps its own copy of the terminal and sends the
// library's output to a log.
#pragma once

#include <cstdio>
#include <string>

namespace varkel::tools {

struct Console {
  FILE* out = stdout;
  bool tty = false;

  // Points descriptors 1 and 2 at log_path ("/dev/null" works) and keeps the
  // terminal in `out`; false when the log cannot be opened.
  bool redirect_library_output(const std::string& log_path);
};

// printf to the console's terminal, flushed.
void say(Console& console, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// "[#########.....................]  30%" for a fraction in 0..1 (clamped).
std::string progress_bar(double fraction, int width = 30);

} // namespace varkel::tools
