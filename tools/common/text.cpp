#include "common/text.hpp"

#include <cstdarg>
#include <cstdio>

namespace varkel::tools {

std::string format(const char* fmt, ...)
{
  va_list args, measure;
  va_start(args, fmt);
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, measure);
  va_end(measure);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0)
    std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return text;
}

} // namespace varkel::tools
