// The chip presence register, for the families that look at it too.
#pragma once

#include <cstdint>

#include "varkel.h"

namespace varkel::detail {

// Reads the efuse register of chip index `sensor` on the board selected on
// `owner` into mb_reg[owner] (0: no chip there). Returns read_mb_reg's code; a
// reply that is not hexadecimal leaves mb_reg[owner] as it was.
int read_efuse_register(varkel_t* v, uint8_t sensor, varkel_thread_t owner);

} // namespace varkel::detail
