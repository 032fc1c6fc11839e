#include "frame.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace varkel::sim {

std::string segment_name(varkel_detector_model_t model)
{
  switch (model) {
  case varkelTrio:
    return "/varkel_Trio_array_data_sim";
  case varkelQuad:
    return "/varkel_Quad_array_data_sim";
  default:
    return {};
  }
}

SharedSegment::SharedSegment(std::string name) : name_(std::move(name))
{
  const int fd = shm_open(name_.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
  if (fd < 0)
    throw std::runtime_error("shm_open " + name_ + ": " + std::strerror(errno));
  // Shrinking first zeroes whatever an earlier run left in it.
  if (ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(kSegmentBytes)) != 0) {
    const int err = errno;
    close(fd);
    shm_unlink(name_.c_str());
    throw std::runtime_error("ftruncate " + name_ + ": " + std::strerror(err));
  }
  void* p = mmap(nullptr, kSegmentBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (p == MAP_FAILED) {
    shm_unlink(name_.c_str());
    throw std::runtime_error("mmap " + name_ + ": " + std::strerror(errno));
  }
  data_ = static_cast<int32_t*>(p);
}

SharedSegment::~SharedSegment()
{
  munmap(data_, kSegmentBytes);
  shm_unlink(name_.c_str());
}

namespace {

constexpr int kChipGap = 4;    // pixels of dead sensor between neighbouring chips
constexpr int kModuleGap = 40; // and between the modules of the four-module face
constexpr double kLutStep = 0.25;
constexpr int32_t kMaxCount = 4095; // 12-bit counters

uint64_t mix(uint64_t x)
{
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Pixel offset of a chip cell on the face.
int cell_origin(int cell) { return cell * (256 + kChipGap) + (cell >= 6 ? kModuleGap : 0); }

struct Face {
  double cx, cy;
  double radius;
  std::vector<float> rate; // counts per second by distance from the beam, in kLutStep steps
};

Face make_face(varkel_detector_model_t model)
{
  const FaceCell extent = face_extent(model);
  const int w = cell_origin(extent.col - 1) + 256;
  const int h = cell_origin(extent.row - 1) + 256;
  Face f;
  // The beam hits a little off the middle, so that the rings cross the gaps unevenly.
  f.cx = w / 2.0 + w * 0.013;
  f.cy = h / 2.0 - h * 0.017;
  f.radius = 0.5 * std::min(w, h);
  const double ring_at[] = {0.22, 0.39, 0.57, 0.78, 0.96};
  const double ring_rate[] = {60000, 42000, 30000, 21000, 13000};
  const std::size_t n = static_cast<std::size_t>(std::hypot(w, h) / kLutStep) + 2;
  f.rate.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    const double r = static_cast<double>(i) * kLutStep;
    double rate = 750 + 2000 / (1 + (r / (0.4 * f.radius)) * (r / (0.4 * f.radius)));
    for (int k = 0; k < 5; ++k) {
      const double at = ring_at[k] * f.radius, sigma = 2.5 + 0.006 * at, d = (r - at) / sigma;
      rate += ring_rate[k] * std::exp(-0.5 * d * d);
    }
    if (r < 0.035 * f.radius) // beam stop
      rate *= 0.01;
    f.rate[i] = static_cast<float>(rate);
  }
  return f;
}

const Face& face_of(varkel_detector_model_t model)
{
  static const Face faces[] = {make_face(kinlet), make_face(varkelLite), make_face(varkelTrio), make_face(varkelQuad)};
  return faces[model];
}

int32_t noisy_count(double mean, uint64_t h)
{
  const uint64_t fault = mix(h) % 25000;
  if (fault == 0)
    return 0; // dead pixel
  if (fault == 1)
    return kMaxCount; // noisy pixel
  // Counting noise, close enough to Poisson: a sum of four uniforms is nearly normal.
  double g = -2.0;
  for (int i = 0; i < 4; ++i)
    g += static_cast<double>((h >> (16 * i)) & 0xFFFF) / 65536.0;
  const double counts = mean + std::sqrt(mean) * g * 1.7320508;
  return static_cast<int32_t>(std::clamp(std::lround(counts), 0l, static_cast<long>(kMaxCount)));
}

} // namespace

void render_module(varkel_detector_model_t model, const ModuleShot& shot, std::span<int32_t> frame)
{
  const Geometry g = geometry_of(model);
  const Face& face = face_of(model);
  const std::size_t module_base = static_cast<std::size_t>(shot.module) * g.chips_per_module() * kChipPixels;
  for (int b = 0; b < g.boards; ++b) {
    for (int c = 0; c < g.chips; ++c) {
      const std::size_t base = module_base + static_cast<std::size_t>(b * g.chips + c) * kChipPixels;
      std::span<int32_t> chip = frame.subspan(base, kChipPixels);
      if (!shot.chip_live[b][c]) {
        std::fill(chip.begin(), chip.end(), 0);
        continue;
      }
      const FaceCell cell = face_cell(shot.module, b, c);
      const double x0 = cell_origin(cell.col) - face.cx, y0 = cell_origin(cell.row) - face.cy;
      const uint64_t chip_seed = mix(shot.seed ^ (static_cast<uint64_t>(base) << 20));
      for (int y = 0; y < 256; ++y) {
        for (int x = 0; x < 256; ++x) {
          const double r = std::hypot(x0 + x, y0 + y);
          const std::size_t i = std::min(static_cast<std::size_t>(r / kLutStep), face.rate.size() - 1);
          const double mean = face.rate[i] * shot.exposure_s;
          chip[y * 256 + x] = noisy_count(mean, mix(chip_seed + static_cast<uint64_t>(y * 256 + x)));
        }
      }
    }
  }
}

} // namespace varkel::sim
