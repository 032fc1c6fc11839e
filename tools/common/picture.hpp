// The sample frame on the detector face, and pictures of it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "varkel.h"

namespace varkel::tools {

// A full-resolution image, row-major; -1 where no sensor is.
struct Face {
  int width = 0, height = 0;
  std::vector<int32_t> pixels;
};

// The frame (module by module, boards 0..2, chips 0..11, each 256 x 256 pixels:
// the sample frame's order) with each chip in its place on the detector face by
// the library's placement table, 4-pixel gaps between chips and 44 between
// modules. Trio and quad models only; nullopt for the others.
std::optional<Face> place_on_face(const varkel_t* v, const int32_t* frame);

// An 8-bit gray picture.
struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> gray;
};

// Binned bin x bin (a partial last bin averages what it has), square-root scale
// up to the 99.5th percentile so that faint rings show; negative pixels (no
// sensor) stay black.
Picture shade(std::span<const int32_t> pixels, int width, int height, int bin);
inline Picture shade(const Face& face, int bin) { return shade(face.pixels, face.width, face.height, bin); }

// An 8-bit gray PNG; false when the file cannot be written.
bool write_png(const std::string& path, const Picture& picture);

} // namespace varkel::tools
