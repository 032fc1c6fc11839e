// The module DAC file reader on any text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "internal/dac_files.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  dac_data out{};
  varkel::detail::parse_module_dacs(std::string_view(reinterpret_cast<const char*>(data), size), out);
  return 0;
}
