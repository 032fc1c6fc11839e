// Chip numbers on the boards and positions a model has.
#pragma once

namespace varkel::tools {

// Whether chip number `chip` (1..36) sits on a board and position of a model with
// `boards` boards of `chips` chips: numbers 1..12 are board 2, 13..24 board 1,
// 25..36 board 0, each along positions 0..11.
constexpr bool chip_on_model(int chip, int boards, int chips)
{
  return chip >= 1 && chip <= 36 && 2 - (chip - 1) / 12 < boards && (chip - 1) % 12 < chips;
}

} // namespace varkel::tools
