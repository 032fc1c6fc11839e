#include "geometry.hpp"

#include <array>

namespace varkel::sim {

Geometry geometry_of(varkel_detector_model_t model)
{
  switch (model) {
  case kinlet:
    return {1, 1, 1};
  case varkelLite:
    return {1, 1, 12};
  case varkelTrio:
    return {1, 3, 12};
  case varkelQuad:
    return {4, 3, 12};
  }
  return {};
}

const char* model_name(varkel_detector_model_t model)
{
  switch (model) {
  case kinlet:
    return "kinlet";
  case varkelLite:
    return "varkelLite";
  case varkelTrio:
    return "varkelTrio";
  case varkelQuad:
    return "varkelQuad";
  }
  return "unknown";
}

std::optional<varkel_detector_model_t> parse_model(std::string_view name)
{
  if (name == "kinlet")
    return kinlet;
  if (name == "lite" || name == "varkelLite")
    return varkelLite;
  if (name == "trio" || name == "varkelTrio")
    return varkelTrio;
  if (name == "quad" || name == "varkelQuad")
    return varkelQuad;
  return std::nullopt;
}

ChipPosition chip_position(int chip_number)
{
  const int i = chip_number - 1;
  return {2 - i / 12, i % 12};
}

namespace {

// Which (module, board, chip) each cell of the 12 x 12 face holds. The quadrants
// are wired differently: the boards run down the rows on the left half and across
// the columns on the right, and the lower half is mounted upside down.
struct Cell {
  int module, board, chip;
};

Cell cell_at(int r, int c)
{
  if (r < 6 && c < 6)
    return {0, r / 2, 6 * (r % 2) + c};
  if (r < 6) {
    const int k = c - 6;
    return {1, 2 - k / 2, k % 2 == 0 ? r + 6 : r};
  }
  if (c < 6)
    return {2, c / 2, c % 2 == 1 ? (11 - r) + 6 : 11 - r};
  const int k = c - 6, q = r - 6;
  return {3, 2 - q / 2, q % 2 == 0 ? 11 - k : 5 - k};
}

struct FaceTable {
  std::array<FaceCell, kMaxModules * kMaxBoards * kPositionsPerBoard> cells{};
  FaceTable()
  {
    for (int r = 0; r < 12; ++r)
      for (int c = 0; c < 12; ++c) {
        const Cell x = cell_at(r, c);
        cells[(x.module * kMaxBoards + x.board) * kPositionsPerBoard + x.chip] = {r, c};
      }
  }
};

} // namespace

FaceCell face_cell(int module, int board, int chip)
{
  static const FaceTable table;
  return table.cells[(module * kMaxBoards + board) * kPositionsPerBoard + chip];
}

FaceCell face_extent(varkel_detector_model_t model)
{
  switch (model) {
  case kinlet:
    return {1, 1};
  case varkelLite:
    return {2, 6};
  case varkelTrio:
    return {6, 6};
  case varkelQuad:
    return {12, 12};
  }
  return {0, 0};
}

} // namespace varkel::sim
