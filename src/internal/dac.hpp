// The pure parts of DAC access: value ranges and the read-back parses.
#pragma once

#include <cstdint>

namespace varkel::detail {

// Whether `value` is in DAC `dac`'s range (dac 1..31; anything else is no DAC).
bool dac_value_valid(int dac, int value);

// Stores the result text of a DAC read sent with operation `read_mode` for DAC
// `dac` into the caches, rows by chip number - 1, columns by DAC number - 1; `chip`
// is the selected chip number (0: none). A value whose row or column falls outside
// the caches is dropped; other operation codes store nothing. Returns the number
// of values stored.
int store_dac_reply(int read_mode, int dac, int chip, const char* text, int32_t (&digital)[36][32],
                    float (&analog)[36][32]);

} // namespace varkel::detail
