// The OMR pair parse on any reply text: it must end and write nothing outside
// the 21 cached fields (the sanitizers watch the neighbours).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "internal/omr_parse.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), std::min<size_t>(size, 1023));
  int32_t values[varkel::detail::kOmrFields] = {};
  varkel::detail::store_omr_pairs(text.c_str(), values);
  return 0;
}
