// Without a fuzzing engine, a fuzz target replays the files of the folders it is
// given (a missing folder is empty). Exits 0 after the last file, or dies where
// the target does.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i]))
      continue;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream in(entry.path(), std::ios::binary);
      const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
      // As under libFuzzer, an empty input still comes with a valid pointer.
      static const uint8_t none = 0;
      LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
      ++replayed;
    }
  }
  std::fprintf(stderr, "replayed %d input(s)\n", replayed);
  return replayed > 0 ? 0 : 1;
}
