// Module, board and chip addressing: the library-side module selection (which
// socket the main channel uses) and the controller-side board and chip selection.
#include <cassert>
#include <cstdio>

#include "internal/geometry.hpp"
#include "internal/query.hpp"

using namespace varkel::detail;

namespace {

constexpr unsigned kWrite = CMD_WRITE ? 1u : 0u;
constexpr unsigned kRead = CMD_READ ? 1u : 0u;

// Chip numbers run over the boards in descending order: 1-12 on board 2,
// 13-24 on board 1, 25-36 on board 0.
static_assert(place_of(1).board == 2 && place_of(12).position == 11 && place_of(13).board == 1 &&
              place_of(13).position == 0 && place_of(36).board == 0 && place_of(36).position == 11);

} // namespace

int select_module(varkel_t* varkel, int module)
{
  if (!validate_module(varkel, module))
    return -7;
  varkel->varkel_interface = varkel->fd[module - 1];
  varkel->varkel_module = static_cast<uint8_t>(module);
  printf("Selected module: %d\n", module);
  return 0;
}

int US_Select_MFB(varkel_t* varkel, int board_id, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (!validate_number_boards(varkel, board_id))
    return -3;
  return query_status(varkel, owner, CMD_SEL_BOARDS, kWrite, static_cast<unsigned>(board_id));
}

int select_board(varkel_t* varkel, int board_id) { return US_Select_MFB(varkel, board_id, VARKEL_THREAD_MAIN); }

int select_board_rbv(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_scan<int>(
      varkel, VARKEL_THREAD_MAIN, "%d", [&](int board) { varkel->sensor_pos.mfb = board; }, CMD_SEL_BOARDS, kRead, 0u);
}

int US_ImgChipNumberID(varkel_t* varkel, uint16_t sensor, varkel_thread_t owner)
{
  assert(varkel != NULL);
  if (!validate_number_chip_mfb(varkel, sensor))
    return -3;
  return query_status(varkel, owner, CMD_CHIP_NUMBER, kWrite, static_cast<unsigned>(sensor));
}

int US_ImgChipNumberID_RBV(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_scan<int>(
      varkel, VARKEL_THREAD_MAIN, "%d", [&](int chip) { varkel->sensor_pos.chipId = chip; }, CMD_CHIP_NUMBER, kRead,
      255u);
}

int US_Select_ChipNumber(varkel_t* varkel, int chip_id, varkel_thread_t owner)
{
  if (!validate_number_chip_module(chip_id))
    return -4;
  const int board = place_of(chip_id).board;
  const int chip = place_of(chip_id).position;
  // The chip command goes out even when the board is refused: the controller
  // then selects that chip index on whatever board it had.
  int rc = US_Select_MFB(varkel, board, owner);
  rc |= US_ImgChipNumberID(varkel, static_cast<uint16_t>(chip), owner);
  if (rc != 0)
    return rc;
  if (!on_module_worker) {
    varkel->sensor_pos.mfb = board;
    varkel->sensor_pos.chipId = chip;
    varkel->sensor_pos.sensorPos = chip_id;
  }
  return 0;
}

int select_chipNumber(varkel_t* varkel, int chip_id)
{
  return US_Select_ChipNumber(varkel, chip_id, VARKEL_THREAD_MAIN);
}
