// The snapshot file reader on any text: the same bytes as both files of a diff,
// read from an in-memory file.
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "snapshot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const int fd = memfd_create("snapshot", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
    return 0;
  varkel_snapshot_report_t report{};
  varkel_snapshot_diff(nullptr, path.c_str(), path.c_str(), &report);
  varkel_snapshot_report_free(&report);
  return 0;
}
