#include "decode.h"

namespace {

// Entry i covers row i / 12 and column i % 12 of the 12 x 12 chip grid.
constexpr sensor place(int i)
{
  const int r = i / 12;
  const int c = i % 12;
  if (r < 6 && c < 6)
    return {UP_LT, r / 2, 6 * (r % 2) + c, 0};
  if (r < 6) {
    const int k = c - 6;
    return {UP_RT, 2 - k / 2, k % 2 == 0 ? r + 6 : r, 0};
  }
  if (c < 6)
    return {LW_LT, c / 2, c % 2 == 1 ? (11 - r) + 6 : 11 - r, 0};
  const int k = c - 6;
  const int q = r - 6;
  return {LW_RT, 2 - q / 2, q % 2 == 0 ? 11 - k : 5 - k, 0};
}

} // namespace

#define VARKEL_ROW(b)                                                                                                  \
  place(b + 0), place(b + 1), place(b + 2), place(b + 3), place(b + 4), place(b + 5), place(b + 6), place(b + 7),      \
      place(b + 8), place(b + 9), place(b + 10), place(b + 11)

// Built at compile time from the placement rule above.
constexpr sensor decoderQuad[144] = {VARKEL_ROW(0),  VARKEL_ROW(12),  VARKEL_ROW(24),  VARKEL_ROW(36),
                                     VARKEL_ROW(48), VARKEL_ROW(60),  VARKEL_ROW(72),  VARKEL_ROW(84),
                                     VARKEL_ROW(96), VARKEL_ROW(108), VARKEL_ROW(120), VARKEL_ROW(132)};
#undef VARKEL_ROW
