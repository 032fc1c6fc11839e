#include <algorithm>
#include <cassert>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "internal/trace.hpp"
#include "utils.h"

namespace varkel::detail {

namespace {

// Trace files opened by varkel_set_debug_stream, closed when their handle goes.
std::mutex trace_files_mutex;
std::vector<FILE*> trace_files;

} // namespace

bool close_trace_file(FILE* stream)
{
  std::lock_guard lock(trace_files_mutex);
  const auto it = std::find(trace_files.begin(), trace_files.end(), stream);
  if (it == trace_files.end())
    return false;
  trace_files.erase(it);
  std::fclose(stream);
  return true;
}

} // namespace varkel::detail

void print_debug(FILE* stream, const char* label, const char* data)
{
  if (stream == NULL)
    return;

  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);

  // The whole line is built first and written with one call, so lines of
  // module threads tracing at once never interleave.
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03ld ", local.tm_hour, local.tm_min, local.tm_sec,
                now.tv_nsec / 1000000);
  std::string line = stamp;
  line += label ? label : "";
  line += ' ';
  for (const char* p = data ? data : ""; *p != '\0'; ++p) {
    const char c = *p;
    if (std::isgraph(static_cast<unsigned char>(c)) || c == ' ') {
      line += c;
    } else if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else {
      char hex[16];
      // Taken as a signed character: a byte of 0x80 or more prints eight digits.
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned>(static_cast<int>(static_cast<signed char>(c))));
      line += hex;
    }
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}

void varkel_set_debug_stream(varkel_t* varkel, FILE* stream)
{
  assert(varkel != NULL);
  // The trace always goes to log.txt; a trace file of an earlier call is closed.
  varkel::detail::close_trace_file(varkel->debug_out);
  varkel->debug_out = stream;
  FILE* log = std::fopen("log.txt", "w+");
  if (log == NULL) {
    printf("Error creating logfile log.txt. Exiting...\n");
    std::exit(0);
  }
  {
    std::lock_guard lock(varkel::detail::trace_files_mutex);
    varkel::detail::trace_files.push_back(log);
  }
  varkel->debug_out = log;
  std::fputs("Log debug file\n", log);
  std::fflush(log);
}
