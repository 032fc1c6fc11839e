// Files of a test: reading one whole, working in a directory, and a temporary one in the test's own
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

// Runs `step` in directory `dir`, then goes back to where it was.
template <typename Step> auto in_directory(const std::filesystem::path& dir, Step&& step)
{
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  const auto result = step();
  std::filesystem::current_path(here);
  return result;
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
