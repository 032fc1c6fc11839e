// The DAC read-back parses on any text: the first byte picks the read operation,
// the second the selected chip, the third the DAC, the rest is the result text
// (cut to what a reply can hold).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "internal/dac.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  if (size < 3)
    return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 3, std::min<size_t>(size - 3, 1023));
  int32_t digital[36][32] = {};
  float analog[36][32] = {};
  varkel::detail::store_dac_reply(data[0] % 10, data[2] % 40 - 2, data[1] % 40 - 2, text.c_str(), digital, analog);
  return 0;
}
