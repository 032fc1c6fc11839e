// Detector models as the simulator sees them: how many modules, boards and chips,
// and where each chip sits on the detector face.
#pragma once

#include <optional>
#include <string_view>

#include "varkel.h"

namespace varkel::sim {

inline constexpr int kChipPixels = 256 * 256;
inline constexpr int kPositionsPerBoard = 12; // a board has 12 chip positions, mounted or not
inline constexpr int kMaxBoards = 3;
inline constexpr int kMaxModules = 4;

struct Geometry {
  int modules = 0;
  int boards = 0; // per module
  int chips = 0;  // mounted chips per board
  int chips_per_module() const { return boards * chips; }
  int frame_pixels() const { return modules * chips_per_module() * kChipPixels; }
};

Geometry geometry_of(varkel_detector_model_t model);
const char* model_name(varkel_detector_model_t model);
// Accepts "kinlet", "lite", "trio", "quad" and the full model names.
std::optional<varkel_detector_model_t> parse_model(std::string_view name);

// Board and chip index of chip number 1..36 within a module: 1-12 are on board 2,
// 13-24 on board 1, 25-36 on board 0.
struct ChipPosition {
  int board;
  int chip;
};
ChipPosition chip_position(int chip_number);

// A chip's place on the face, in chips: the four-module face is a 12 x 12 grid of
// four 6 x 6 quadrants, one per module; a one-module detector is the upper-left
// quadrant (or the part of it its boards fill).
struct FaceCell {
  int row;
  int col;
};
FaceCell face_cell(int module, int board, int chip);
// Rows and columns of chips the model's face spans.
FaceCell face_extent(varkel_detector_model_t model);

} // namespace varkel::sim
