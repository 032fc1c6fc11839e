// The OMR pair parse on any reply text: it must end, read no byte past the text,
// store only fields 0..20, and read no more pairs than the text has commas + 1.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "internal/omr_parse.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::size_t stored = 0;
  const std::size_t pairs = varkel::detail::parse_omr_pairs(text, [&](int field, int) {
    if (field < 0 || field >= varkel::detail::kOmrFields)
      std::abort();
    ++stored;
  });
  std::size_t commas = 0;
  for (char c : text)
    commas += c == ',';
  if (stored > pairs || pairs > commas + 1)
    std::abort();
  return 0;
}
