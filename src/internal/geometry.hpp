// The one chip geometry of our own layers: chip number <-> (board, position),
// whether a chip is on the model, and the walk over a module's chips. A chip
// number counts along the boards from the top: 1..12 are board 2, 13..24 board 1,
// 25..36 board 0, each along positions 0..11. (The library's own walks over chip
// numbers 1..n keep doing so where they are written; these serve everything else.)
#pragma once

#include "varkel.h"

namespace varkel::detail {

inline constexpr int kChipsPerModule = 36; // chip numbers 1..36, whatever the model
inline constexpr int kBoardsAtMost = 3;
inline constexpr int kPositionsAtMost = 12;

struct ChipPlace {
  int board;    // 0..2
  int position; // 0..11
};

constexpr int chip_number(ChipPlace p) { return (2 - p.board) * kPositionsAtMost + p.position + 1; }
constexpr ChipPlace place_of(int chip) { return {2 - (chip - 1) / kPositionsAtMost, (chip - 1) % kPositionsAtMost}; }

// Whether chip number `chip` sits on a model of `boards` boards of `positions` chips.
constexpr bool chip_on_model(int chip, int boards, int positions)
{
  return chip >= 1 && chip <= kChipsPerModule && place_of(chip).board < boards && place_of(chip).position < positions;
}
inline bool chip_on_model(const varkel_t* v, int chip)
{
  return chip_on_model(chip, v->max_num_boards, v->max_num_chips);
}

// Whether module `module` (1-based) has chip number `chip` and it is not switched off.
inline bool chip_working(const varkel_t* v, int module, int chip)
{
  return module >= 1 && module <= v->max_num_modules && chip_on_model(v, chip) &&
         !v->sensor_disabled[module - 1][chip - 1];
}

// Calls step(chip number) for every chip on the model, in ascending chip number.
template <typename Step> void for_each_model_chip(const varkel_t* v, Step&& step)
{
  for (int chip = 1; chip <= kChipsPerModule; ++chip)
    if (chip_on_model(v, chip))
      step(chip);
}

// Calls step(chip number) for every working chip of `module`, in ascending chip number.
template <typename Step> void for_each_working_chip(const varkel_t* v, int module, Step&& step)
{
  for (int chip = 1; chip <= kChipsPerModule; ++chip)
    if (chip_working(v, module, chip))
      step(chip);
}

} // namespace varkel::detail
