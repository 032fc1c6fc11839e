// The sample frame the data server publishes: a POSIX shared-memory segment that
// clients map by name, and the synthetic picture written into it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "geometry.hpp"

namespace varkel::sim {

// Every segment is sized for one frame of the four-module model.
inline constexpr std::size_t kSegmentBytes = 144u * kChipPixels * sizeof(int32_t);

// The segment name of a model ("/varkel_Quad_array_data_sim"); empty for the
// models that have none.
std::string segment_name(varkel_detector_model_t model);

// A segment name of this process's own: "/varkel_sim_<pid>_<n>", n counting up.
std::string own_segment_name();

// Whether `name` is a segment name a handle takes: "/" and 1..199 more
// characters, none of them "/".
bool valid_segment_name(const std::string& name);

// Held by the simulator that publishes under a segment name, for as long as it
// lives: an advisory lock on "/dev/shm/NAME.lock", which holds the holder's
// process id. Throws std::runtime_error naming that process when another holds it.
class SegmentLock {
public:
  explicit SegmentLock(const std::string& name);
  ~SegmentLock();
  SegmentLock(const SegmentLock&) = delete;
  SegmentLock& operator=(const SegmentLock&) = delete;

private:
  std::string path_;
  int fd_ = -1;
};

// Creates (or takes over, when no living simulator holds it) the named segment,
// sized and zeroed, and maps it; removes the name again on destruction.
class SharedSegment {
public:
  explicit SharedSegment(std::string name);
  ~SharedSegment();
  SharedSegment(const SharedSegment&) = delete;
  SharedSegment& operator=(const SharedSegment&) = delete;

  const std::string& name() const { return name_; }
  std::span<int32_t> pixels() { return {data_, kSegmentBytes / sizeof(int32_t)}; }
  std::span<const int32_t> pixels() const { return {data_, kSegmentBytes / sizeof(int32_t)}; }

private:
  std::string name_;
  SegmentLock lock_; // before the segment is touched, released after it is removed
  int32_t* data_ = nullptr;
};

// What one module's last frame looked like when it was taken.
struct ModuleShot {
  int module = 0;                                      // index 0..3
  double exposure_s = 0;                               // counts scale with it
  uint64_t seed = 0;                                   // noise of this frame
  bool chip_live[kMaxBoards][kPositionsPerBoard] = {}; // mounted and switched on
};

// Pixel order of the frame: module by module, in each module board 0, 1, 2, in
// each board chip index 0..11 (the mounted ones), each chip 256 rows of 256
// pixels. Counts are 12-bit: a powder pattern of rings around a beam stop, seen
// through the gaps between the chips, with counting noise and a few dead pixels.
void render_module(varkel_detector_model_t model, const ModuleShot& shot, std::span<int32_t> frame);

} // namespace varkel::sim
