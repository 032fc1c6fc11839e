// Small text helpers the tools share.
#pragma once

#include <string>

namespace varkel::tools {

// printf into a string of any length.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace varkel::tools
