// Files of a test: reading one whole, and a temporary one in the test's own
// directory that goes with the object.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace varkel::testing {

inline std::string read_file(const std::filesystem::path& path)
{
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

struct TempFile {
  explicit TempFile(const std::string& name)
      : path((std::filesystem::temp_directory_path() / (name + "-" + std::to_string(getpid()) + ".ini")).string())
  {
  }
  ~TempFile() { std::remove(path.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  std::string text() const { return read_file(path); }
  void write(const std::string& text) const { std::ofstream(path) << text; }
  const std::string path;
};

} // namespace varkel::testing
