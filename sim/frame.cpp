#include "frame.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
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

std::string own_segment_name()
{
  static std::atomic<unsigned> counter{0};
  return "/varkel_sim_" + std::to_string(getpid()) + "_" + std::to_string(counter.fetch_add(1));
}

bool valid_segment_name(const std::string& name)
{
  return name.size() >= 2 && name.size() <= 200 && name[0] == '/' && name.find('/', 1) == std::string::npos;
}

namespace {

// Who holds a lock file, as its text says: " (pid N)", or nothing when it does not say yet.
std::string holder_of(int fd)
{
  char text[32] = {};
  const ssize_t n = pread(fd, text, sizeof text - 1, 0);
  int pid = 0;
  return n > 0 && std::sscanf(text, "%d", &pid) == 1 ? " (pid " + std::to_string(pid) + ")" : std::string();
}

// Whether `fd` is still the file at `path`: a holder removes it on its way out.
bool still_at(int fd, const std::string& path)
{
  struct stat held {
  }, named{};
  return fstat(fd, &held) == 0 && stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino;
}

} // namespace

SegmentLock::SegmentLock(const std::string& name) : path_("/dev/shm" + name + ".lock")
{
  for (;;) {
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0)
      throw std::runtime_error("cannot open " + path_ + ": " + std::strerror(errno));
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int err = errno;
      const std::string holder = holder_of(fd_);
      close(fd_);
      if (err == EWOULDBLOCK)
        throw std::runtime_error("segment " + name + " is in use by another simulator" + holder);
      throw std::runtime_error("cannot lock " + path_ + ": " + std::strerror(err));
    }
    if (still_at(fd_, path_))
      break;
    close(fd_); // locked a file its holder had just removed: take the new one
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd_, 0) != 0 || pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size()))
    std::fprintf(stderr, "varkel-sim: cannot write %s: %s\n", path_.c_str(), std::strerror(errno));
}

SegmentLock::~SegmentLock()
{
  unlink(path_.c_str()); // while still held: the next holder locks a file of its own
  close(fd_);
}

SharedSegment::SharedSegment(std::string name) : name_(std::move(name)), lock_(name_)
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

// A fast stream of noise per chip (xorshift64*).
struct Noise {
  uint64_t state;
  uint64_t next()
  {
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1Dull;
  }
};

} // namespace

void render_module(varkel_detector_model_t model, const ModuleShot& shot, std::span<int32_t> frame)
{
  const Geometry g = geometry_of(model);
  const Face& face = face_of(model);
  // Mean counts and their spread by distance from the beam, for this exposure.
  std::vector<float> mean(face.rate.size()), spread(face.rate.size());
  for (std::size_t i = 0; i < mean.size(); ++i) {
    mean[i] = static_cast<float>(face.rate[i] * shot.exposure_s);
    spread[i] = std::sqrt(mean[i]);
  }
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
      const float x0 = static_cast<float>(cell_origin(cell.col) - face.cx);
      const float y0 = static_cast<float>(cell_origin(cell.row) - face.cy);
      Noise noise{mix(shot.seed ^ (static_cast<uint64_t>(base) << 20)) | 1};
      for (int y = 0; y < 256; ++y) {
        const float dy = y0 + static_cast<float>(y);
        for (int x = 0; x < 256; ++x) {
          const float dx = x0 + static_cast<float>(x);
          const std::size_t i =
              std::min(static_cast<std::size_t>(std::sqrt(dx * dx + dy * dy) / kLutStep), mean.size() - 1);
          const uint64_t h = noise.next();
          int32_t counts;
          const uint64_t fault = h >> 48;
          if (fault < 2)
            counts = fault == 0 ? 0 : kMaxCount; // a dead or a noisy pixel
          else {
            // Counting noise, close enough to Poisson: a sum of three uniforms is nearly normal.
            const float u = static_cast<float>((h & 0xFFFF) + (h >> 16 & 0xFFFF) + (h >> 32 & 0xFFFF)) / 65536.0f;
            const float v = mean[i] + spread[i] * (u - 1.5f) * 2.0f;
            counts = static_cast<int32_t>(std::clamp(v + 0.5f, 0.0f, static_cast<float>(kMaxCount)));
          }
          chip[y * 256 + x] = counts;
        }
      }
    }
  }
}

} // namespace varkel::sim
