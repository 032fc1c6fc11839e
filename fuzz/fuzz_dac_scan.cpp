// The scan choice on any reply text: it must end, read no byte past the text, and
// choose only a voltage strictly between 0 and twice the aim. The first byte picks
// the aim, the rest is the result text (cut to what a reply can hold).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "internal/dac_scan.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  if (size < 1)
    return 0;
  constexpr float kAims[] = {0.65f, 0.9f, 0.85f};
  const float aim = kAims[data[0] % 3];
  const std::string text(reinterpret_cast<const char*>(data) + 1, std::min<size_t>(size - 1, 1023));
  const varkel::detail::ScanChoice best = varkel::detail::choose_scan_point(text.c_str(), aim);
  const bool chosen = best.digital != 0 || best.analog != 0.0f;
  if (chosen && !(std::fabs(aim - best.analog) < aim))
    std::abort();
  return 0;
}
