// The DAC calibration files: an index naming one key file per module, each with
// the four calibrated DACs of its 36 chips.
#include <cassert>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <memory>
#include <string>

#include "internal/dac_files.hpp"
#include "utils.h"

namespace varkel::detail {

namespace {

struct KeyFileFree {
  void operator()(GKeyFile* f) const { g_key_file_free(f); }
};
struct GFree {
  void operator()(gchar* p) const { g_free(p); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;
using GText = std::unique_ptr<gchar, GFree>;

// Takes GLib's error (and releases it) and the source line of the failed step.
KeyFileFailure failure(GError* error, unsigned line)
{
  KeyFileFailure f{error != nullptr ? error->message : "unknown error", line};
  if (error != nullptr)
    g_error_free(error);
  return f;
}

// Prints the error line of a failed step; returns -1.
int report(const KeyFileFailure& f)
{
  const char* file = std::strrchr(__FILE__, '/');
  std::fprintf(stderr, "\033[31mERROR: \033[0m [%s:%u] %s\n", file != nullptr ? file + 1 : __FILE__, f.line,
               f.message.c_str());
  return -1;
}

// The keys of each chip's group, in the order they are read.
constexpr struct {
  const char* key;
  uint16_t (dac_data::*values)[36];
} kKeys[] = {{"fbk", &dac_data::fbk}, {"gnd", &dac_data::gnd}, {"cas", &dac_data::cas}, {"discl", &dac_data::discl}};

std::optional<KeyFileFailure> extract_module(GKeyFile* file, dac_data& out)
{
  for (int n = 1; n <= 36; ++n) {
    const std::string group = "SENSOR " + std::to_string(n);
    for (const auto& [key, values] : kKeys) {
      GError* error = nullptr;
      const guint64 value = g_key_file_get_uint64(file, group.c_str(), key, &error);
      if (error != nullptr)
        return failure(error, __LINE__);
      (out.*values)[n - 1] = static_cast<uint16_t>(value);
    }
  }
  return std::nullopt;
}

std::optional<KeyFileFailure> load_module(const char* file, dac_data& out)
{
  KeyFile keys(g_key_file_new());
  GError* error = nullptr;
  if (!g_key_file_load_from_file(keys.get(), file, G_KEY_FILE_NONE, &error))
    return failure(error, __LINE__);
  return extract_module(keys.get(), out);
}

} // namespace

std::optional<KeyFileFailure> parse_module_dacs(std::string_view text, dac_data& out)
{
  KeyFile file(g_key_file_new());
  GError* error = nullptr;
  if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_NONE, &error))
    return failure(error, __LINE__);
  return extract_module(file.get(), out);
}

} // namespace varkel::detail

using namespace varkel::detail;

std::optional<DacFilesFailure> varkel::detail::read_dac_files(const char* index_file, dac_data* out)
{
  KeyFile index(g_key_file_new());
  GError* error = nullptr;
  if (!g_key_file_load_from_file(index.get(), index_file, G_KEY_FILE_NONE, &error))
    return DacFilesFailure{0, index_file, failure(error, __LINE__)};
  // Every module's file is named and read, whatever the model.
  GText paths[4];
  for (int m = 0; m < 4; ++m) {
    const std::string key = "MODULE " + std::to_string(m + 1);
    paths[m].reset(g_key_file_get_string(index.get(), "paths", key.c_str(), &error));
    if (!paths[m])
      return DacFilesFailure{0, index_file, failure(error, __LINE__)};
  }
  index.reset();
  for (int m = 0; m < 4; ++m)
    if (auto failed = load_module(paths[m].get(), out[m]))
      return DacFilesFailure{m + 1, paths[m].get(), std::move(*failed)};
  return std::nullopt;
}

int read_dacs_from_file(const char* file, dac_data* dfdata)
{
  assert(file != NULL && dfdata != NULL);
  const auto failed = load_module(file, *dfdata);
  return failed ? report(*failed) : 0;
}

int read_default_dacs(const char* filename, dac_data* dfdata)
{
  assert(filename != NULL && dfdata != NULL);
  printf("reading file %s\n", filename);
  const auto failed = read_dac_files(filename, dfdata);
  if (!failed)
    return 0;
  report(failed->failure);
  if (failed->module != 0)
    std::fprintf(stderr, "error reading file %s\n", failed->file.c_str());
  return -1;
}
