// The DAC calibration file reader on text alone, for the tests and the fuzzer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "utils.h"

namespace varkel::detail {

// A key-file step that failed: GLib's message and the source line of the step.
struct KeyFileFailure {
  std::string message;
  unsigned line;
};

// Fills `out` from the text of a module DAC file: groups "SENSOR 1" to "SENSOR 36",
// each with "fbk", "gnd", "cas" and "discl" (low 16 bits kept). Returns the first
// failure, the fields filled before it staying filled; nothing when all is read.
std::optional<KeyFileFailure> parse_module_dacs(std::string_view text, dac_data& out);

// A DAC file that could not be read: which one, and GLib's words (file, group,
// key and value where GLib names them).
struct DacFilesFailure {
  int module;       // 1..4 for a module's file, 0 for the index
  std::string file; // the path of the file
  KeyFileFailure failure;
};

// Reads the index `index` and the four module files it names into out[0..3],
// printing nothing. Returns the first failure, the records filled before it
// staying filled; nothing when every file is read.
std::optional<DacFilesFailure> read_dac_files(const char* index, dac_data* out);

} // namespace varkel::detail
