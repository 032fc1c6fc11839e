#include "common/picture.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <png.h>

#include "decode.h"

namespace varkel::tools {

namespace {

constexpr int kChip = 256;
constexpr int kChipGap = 4;
constexpr int kModuleGap = 44;  // between modules, as the simulator lays out its frame
constexpr int kChipsPerRow = 6; // chip columns (and rows) of one module on the face

int cell_origin(int cell) { return cell * (kChip + kChipGap) + (cell >= kChipsPerRow ? kModuleGap - kChipGap : 0); }

} // namespace

std::optional<Face> place_on_face(const varkel_t* v, const int32_t* frame)
{
  if ((v->detModel != varkelQuad && v->detModel != varkelTrio) || frame == nullptr)
    return std::nullopt;
  const int cells = v->detModel == varkelQuad ? 2 * kChipsPerRow : kChipsPerRow;
  Face f;
  f.width = f.height = cell_origin(cells - 1) + kChip;
  f.pixels.assign(static_cast<std::size_t>(f.width) * f.height, -1);
  for (int r = 0; r < cells; ++r)
    for (int c = 0; c < cells; ++c) {
      const sensor& s = decoderQuad[r * 12 + c];
      const std::size_t chip = (static_cast<std::size_t>(s.module) * v->max_num_boards + s.mfb) * 12 + s.chipId;
      const int32_t* px = frame + chip * kChip * kChip;
      for (int y = 0; y < kChip; ++y)
        std::copy_n(px + y * kChip, kChip,
                    f.pixels.begin() + static_cast<std::ptrdiff_t>(cell_origin(r) + y) * f.width + cell_origin(c));
    }
  return f;
}

Picture shade(std::span<const int32_t> pixels, int width, int height, int bin)
{
  bin = std::max(bin, 1);
  Picture p;
  if (width <= 0 || height <= 0 || pixels.size() < static_cast<std::size_t>(width) * height)
    return p;
  p.width = (width + bin - 1) / bin;
  p.height = (height + bin - 1) / bin;
  std::vector<float> binned(static_cast<std::size_t>(p.width) * p.height, -1.0f); // -1: no sensor
  for (int by = 0; by < p.height; ++by)
    for (int bx = 0; bx < p.width; ++bx) {
      double total = 0;
      int n = 0;
      for (int y = by * bin; y < std::min((by + 1) * bin, height); ++y)
        for (int x = bx * bin; x < std::min((bx + 1) * bin, width); ++x)
          if (const int32_t value = pixels[static_cast<std::size_t>(y) * width + x]; value >= 0) {
            total += value;
            ++n;
          }
      if (n > 0)
        binned[static_cast<std::size_t>(by) * p.width + bx] = static_cast<float>(total / n);
    }
  std::vector<float> values;
  for (float b : binned)
    if (b >= 0)
      values.push_back(b);
  const std::size_t at = values.size() * 995 / 1000;
  if (!values.empty())
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
  const float top = std::max(values.empty() ? 1.0f : values[at], 1.0f);
  p.gray.resize(binned.size());
  for (std::size_t i = 0; i < binned.size(); ++i)
    p.gray[i] = binned[i] < 0 ? 0 : static_cast<uint8_t>(255.0f * std::sqrt(std::min(binned[i] / top, 1.0f)));
  return p;
}

bool write_png(const std::string& path, const Picture& p)
{
  if (p.width <= 0 || p.height <= 0 || p.gray.size() < static_cast<std::size_t>(p.width) * p.height)
    return false;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr)
    return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  bool ok = png != nullptr && info != nullptr;
  if (ok && setjmp(png_jmpbuf(png)) == 0) {
    png_init_io(png, f);
    png_set_IHDR(png, info, static_cast<png_uint_32>(p.width), static_cast<png_uint_32>(p.height), 8,
                 PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < p.height; ++y)
      png_write_row(png, p.gray.data() + static_cast<std::size_t>(y) * p.width);
    png_write_end(png, nullptr);
  } else {
    ok = false;
  }
  png_destroy_write_struct(&png, &info);
  return std::fclose(f) == 0 && ok;
}

} // namespace varkel::tools
