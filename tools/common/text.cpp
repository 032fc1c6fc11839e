#include "common/text.hpp"

#include <cstdarg>
#include <cstdio>

namespace varkel::tools {

std::string format(const char* fmt, ...)
{
  char buf[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return buf;
}

} // namespace varkel::tools
