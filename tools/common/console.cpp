#include "common/console.hpp"

#include <algorithm>
#include <cstdarg>
#include <fcntl.h>
#include <unistd.h>

#include "common/text.hpp"

namespace varkel::tools {

bool Console::redirect_library_output(const std::string& log_path)
{
  const int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0)
    return false;
  std::fflush(stdout);
  std::fflush(stderr);
  const int terminal = dup(STDOUT_FILENO);
  out = terminal < 0 ? nullptr : fdopen(terminal, "w");
  tty = isatty(STDOUT_FILENO);
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (out == nullptr) {
    if (terminal >= 0)
      close(terminal);
    out = stdout;
    return false;
  }
  return true;
}

void say(Console& console, const char* fmt, ...)
{
  va_list args;
  va_start(args, fmt);
  std::vfprintf(console.out, fmt, args);
  va_end(args);
  std::fflush(console.out);
}

std::string progress_bar(double fraction, int width)
{
  fraction = std::clamp(fraction, 0.0, 1.0);
  width = std::max(width, 1);
  const int filled = static_cast<int>(fraction * width);
  return "[" + std::string(static_cast<std::size_t>(filled), '#') +
         std::string(static_cast<std::size_t>(width - filled), '.') + "] " + format("%3.0f%%", fraction * 100);
}

} // namespace varkel::tools
