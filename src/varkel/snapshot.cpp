// Configuration snapshots: the detector's settings read back into a key file,
// compared with a detector or another file, and applied back. The settings are
// the rows of the name table; a file is checked whole before anything is sent.
#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "internal/analog.hpp"
#include "internal/dac.hpp"
#include "internal/handle.hpp"
#include "internal/omr_parse.hpp"
#include "internal/presence.hpp"
#include "internal/query.hpp"
#include "internal/settings.hpp"
#include "snapshot.h"

using namespace varkel::detail;

namespace {

constexpr int kFormat = 1;
constexpr char kHead[] = "snapshot";
constexpr char kEfuse[] = "efuse-id";
constexpr char kDisabled[] = "disabled";
constexpr std::array<const char*, 3> kBoardBias = {"bias.board0", "bias.board1", "bias.board2"};

// Where a value lives: module 0 for the detector, chip 0 for a module. The name
// points to static storage (a row's name or one of the names above).
using Key = std::tuple<int, int, std::string_view>;
using Values = std::map<Key, double>;

struct Snapshot {
  const ModelGeometry* model = nullptr;
  Values values;
  std::map<Key, int> lines; // where each value stands in its file
};

// ---- the report --------------------------------------------------------------

struct Outcome {
  varkel_snapshot_report_t& report;
  std::vector<varkel_snapshot_entry_t> entries;

  int fail(int code, int line, const char* format, ...) __attribute__((format(printf, 4, 5)))
  {
    report.code = code;
    report.line = line;
    va_list args;
    va_start(args, format);
    std::vsnprintf(report.message, sizeof report.message, format, args);
    va_end(args);
    return code;
  }

  // Hands the entries over to the report (malloc'ed: freed by the C caller's call).
  int finish(int code)
  {
    if (report.code == 0)
      report.code = code;
    if (!entries.empty()) {
      void* memory = std::malloc(entries.size() * sizeof(varkel_snapshot_entry_t));
      if (memory == nullptr)
        return report.code = ENOMEM;
      std::memcpy(memory, entries.data(), entries.size() * sizeof(varkel_snapshot_entry_t));
      report.entries = static_cast<varkel_snapshot_entry_t*>(memory);
      report.count = entries.size();
    }
    return report.code;
  }
};

// ---- names -------------------------------------------------------------------

bool saved(const SettingRow& row, varkel_setting_scope_t scope)
{
  // Bias is kept board by board; read-only rows are readings, not settings.
  return row.pub.scope == scope && row.set != nullptr && std::strcmp(row.pub.name, "bias") != 0;
}

const SettingRow& bias_row() { return *row_of(varkel_setting_find("bias")); }

// The row a key's values are parsed, formatted and compared with; nullptr for
// the efuse identifier and the disabled flag.
const SettingRow* row_for(std::string_view name)
{
  for (const char* board : kBoardBias)
    if (name == board)
      return &bias_row();
  return row_of(varkel_setting_find(std::string(name).c_str()));
}

// The static name of `name` for a value of scope `scope`, or nullptr when a key of
// that name does not belong there.
const char* known_name(std::string_view name, varkel_setting_scope_t scope, int boards)
{
  if (scope == VARKEL_SETTING_CHIP && (name == kEfuse || name == kDisabled))
    return name == kEfuse ? kEfuse : kDisabled;
  if (scope == VARKEL_SETTING_MODULE)
    for (int b = 0; b < boards && b < static_cast<int>(kBoardBias.size()); ++b)
      if (name == kBoardBias[static_cast<std::size_t>(b)])
        return kBoardBias[static_cast<std::size_t>(b)];
  for (const SettingRow& row : setting_rows())
    if (saved(row, scope) && name == row.pub.name)
      return row.pub.name;
  return nullptr;
}

bool same(std::string_view name, double a, double b)
{
  if (std::isnan(a) || std::isnan(b))
    return false;
  const SettingRow* row = row_for(name);
  return row != nullptr ? same_value(*row, a, b) : a == b;
}

std::string format_value(std::string_view name, double value)
{
  char text[64] = "";
  if (const SettingRow* row = row_for(name))
    varkel_setting_format(&row->pub, value, text, sizeof text);
  else
    std::snprintf(text, sizeof text, name == kEfuse ? "%llx" : "%llu", static_cast<unsigned long long>(value));
  return text;
}

// ---- reading a detector --------------------------------------------------------

// What one module worker reads, on its own channel.
struct ModuleReading {
  Values values;
  int rc = 0;
};

void read_chip(varkel_t* v, varkel_thread_t owner, uint8_t index, int chip, ModuleReading& out)
{
  const int m = owner + 1;
  const auto put = [&](std::string_view name, double x) { out.values[{m, chip, name}] = x; };
  out.rc |= US_ImgChipNumberID(v, index, owner);
  v->mb_reg[owner] = 0; // this worker's own slot: a failed read shows as no chip
  out.rc |= read_efuse_register(v, index, owner);
  const auto efuse = static_cast<uint32_t>(v->mb_reg[owner]);
  const bool disabled = efuse == 0 || v->sensor_disabled[owner][chip - 1];
  put(kEfuse, efuse);
  put(kDisabled, disabled);
  if (disabled)
    return; // a chip switched off answers nothing
  int32_t omr[kOmrFields];
  std::fill(std::begin(omr), std::end(omr), -1);
  out.rc |= read_omr_fields(v, owner, omr);
  // The all-fields read names counter depths in bits, two of which have no index.
  if (omr[OMR_CountL] < 0)
    out.rc |= read_omr_field(v, owner, OMR_CountL, &omr[OMR_CountL]);
  int32_t digital[36][32];
  float analog[36][32];
  std::fill(&digital[chip - 1][0], &digital[chip - 1][0] + 32, -1);
  out.rc |= read_dacs(v, owner, DIGITAL_READ_ALL_DACS, 0, chip, digital, analog);
  float ext_bg = NAN;
  out.rc |= read_ext_bg(v, owner, &ext_bg);
  for (const SettingRow& row : setting_rows()) {
    if (!saved(row, VARKEL_SETTING_CHIP))
      continue;
    double x = NAN;
    if (row.read == Read::omr && omr[row.number] >= 0)
      x = omr[row.number];
    else if (row.read == Read::dac && digital[chip - 1][row.number - 1] >= 0)
      x = digital[chip - 1][row.number - 1];
    else if (row.read == Read::cached && std::strcmp(row.pub.name, "ext-bg") == 0)
      x = ext_bg;
    if (!std::isnan(x))
      put(row.pub.name, x);
  }
}

// Everything the library reads back: detector and module settings on the main
// channel, then boards and chips one worker per module on its own channel.
int read_detector(varkel_t* v, Values& values)
{
  int first = 0;
  const auto note = [&](int rc) { first = first != 0 ? first : rc; };
  for (const SettingRow& row : setting_rows()) {
    for (int m = 1; m <= v->max_num_modules; ++m) {
      const bool wanted = row.pub.scope == VARKEL_SETTING_DETECTOR ? m == 1 : saved(row, VARKEL_SETTING_MODULE);
      if (!wanted)
        continue;
      double x = NAN;
      int rc = select_for(v, row, m, 0);
      rc = rc != 0 ? rc : get_selected(v, row, &x);
      note(rc);
      if (rc == 0)
        values[{row.pub.scope == VARKEL_SETTING_DETECTOR ? 0 : m, 0, row.pub.name}] = x;
    }
  }
  std::array<ModuleReading, 4> readings;
  for_each_module_parallel(v, [&](varkel_thread_t owner) {
    ModuleReading& out = readings[static_cast<std::size_t>(owner)];
    for (int b = 0; b < v->max_num_boards && b < static_cast<int>(kBoardBias.size()); ++b) {
      out.rc |= US_Select_MFB(v, b, owner);
      float bias = NAN;
      out.rc |= read_bias(v, owner, &bias);
      if (!std::isnan(bias))
        out.values[{owner + 1, 0, kBoardBias[static_cast<std::size_t>(b)]}] = bias;
      for (int index = 0; index < v->max_num_chips; ++index)
        read_chip(v, owner, static_cast<uint8_t>(index),
                  static_cast<int>(decode_sensor_number(static_cast<uint8_t>(index), static_cast<uint8_t>(b))), out);
    }
    return 0;
  });
  for (ModuleReading& r : readings) {
    note(r.rc);
    values.merge(r.values);
  }
  return first;
}

// ---- files -----------------------------------------------------------------------

using KeyFile = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;

std::string group_name(int module, int chip)
{
  if (module == 0)
    return kHead;
  return chip == 0 ? "module" + std::to_string(module)
                   : "module" + std::to_string(module) + "/chip" + std::to_string(chip);
}

int write_file(const varkel_t* v, const Values& values, const char* path, Outcome& out)
{
  KeyFile file(g_key_file_new(), g_key_file_free);
  const ModelGeometry* model = model_geometry(v->detModel);
  g_key_file_set_integer(file.get(), kHead, "format", kFormat);
  g_key_file_set_string(file.get(), kHead, "model", model != nullptr ? model->name : "");
  for (const auto& [key, value] : values) {
    const auto& [module, chip, name] = key;
    g_key_file_set_string(file.get(), group_name(module, chip).c_str(), std::string(name).c_str(),
                          format_value(name, value).c_str());
  }
  GError* error = nullptr;
  if (!g_key_file_save_to_file(file.get(), path, &error)) {
    const int code = error->domain == G_FILE_ERROR ? EIO : EINVAL;
    out.fail(code, 0, "cannot write %s: %s", path, error->message);
    g_error_free(error);
    return code;
  }
  return 0;
}

// Line numbers of groups and keys, and the first line that is none of a group, a
// key, a comment or blank (0: none): the key-file reader names no lines itself.
struct Lines {
  std::map<std::pair<std::string, std::string>, int> at; // (group, "") for the group itself
  int malformed = 0;
};

Lines scan_lines(std::string_view text)
{
  Lines lines;
  std::string group;
  int number = 0;
  while (!text.empty()) {
    ++number;
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
      line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
      line.remove_suffix(1);
    if (line.empty() || line.front() == '#')
      continue;
    if (line.front() == '[' && line.back() == ']') {
      group = std::string(line.substr(1, line.size() - 2));
      lines.at.emplace(std::pair{group, std::string()}, number);
      continue;
    }
    std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || equals == 0 || group.empty()) {
      if (lines.malformed == 0)
        lines.malformed = number;
      continue;
    }
    std::string_view name = line.substr(0, equals);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t'))
      name.remove_suffix(1);
    lines.at.emplace(std::pair{group, std::string(name)}, number);
  }
  return lines;
}

int line_of(const Lines& lines, const std::string& group, const std::string& key = {})
{
  const auto it = lines.at.find({group, key});
  return it != lines.at.end() ? it->second : 0;
}

// (module, chip) of a group name, {-1, -1} when it names no module or chip of the model.
std::pair<int, int> place_of(const std::string& group, const ModelGeometry& model)
{
  int module = 0, chip = 0, used = 0;
  const char* text = group.c_str();
  if (std::sscanf(text, "module%d%n", &module, &used) != 1 || module < 1 || module > model.modules)
    return {-1, -1};
  if (text[used] == '\0' && group == "module" + std::to_string(module))
    return {module, 0};
  if (std::sscanf(text + used, "/chip%d", &chip) != 1 || group != group_name(module, chip))
    return {-1, -1};
  bool on_model = false;
  for_each_chip_position(model.boards, model.chips, [&](int c) { on_model |= c == chip; });
  return on_model ? std::pair{module, chip} : std::pair{-1, -1};
}

// Reads and checks a whole snapshot file. `expected` is the model it must be for
// (nullptr: any). Returns 0 or a refusal code with the report's line and message.
int load(const char* path, const ModelGeometry* expected, Snapshot& out, Outcome& outcome)
{
  gchar* contents = nullptr;
  gsize length = 0;
  GError* error = nullptr;
  if (path == nullptr || !g_file_get_contents(path, &contents, &length, &error)) {
    const int code = outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, 0, "cannot read %s: %s", path ? path : "(no path)",
                                  error != nullptr ? error->message : "no file named");
    if (error != nullptr)
      g_error_free(error);
    return code;
  }
  const std::unique_ptr<gchar, decltype(&g_free)> text(contents, g_free);
  const Lines lines = scan_lines({contents, length});
  KeyFile file(g_key_file_new(), g_key_file_free);
  if (lines.malformed != 0 || !g_key_file_load_from_data(file.get(), contents, length, G_KEY_FILE_NONE, &error)) {
    const int code = outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, lines.malformed, "line %d: %s", lines.malformed,
                                  error != nullptr ? error->message : "neither a group, a key nor a comment");
    if (error != nullptr)
      g_error_free(error);
    return code;
  }
  const auto string_of = [&](const char* group, const char* key) {
    std::unique_ptr<gchar, decltype(&g_free)> value(g_key_file_get_value(file.get(), group, key, nullptr), g_free);
    return value ? std::string(value.get()) : std::string();
  };
  const std::string format = string_of(kHead, "format");
  if (format.empty())
    return outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, line_of(lines, kHead), "no [%s] group with its format", kHead);
  if (format != std::to_string(kFormat))
    return outcome.fail(VARKEL_SNAPSHOT_BAD_VERSION, line_of(lines, kHead, "format"),
                        "line %d: format %s, this library reads format %d", line_of(lines, kHead, "format"),
                        format.c_str(), kFormat);
  const std::string model = string_of(kHead, "model");
  for (int m = 0; model_geometry(m) != nullptr; ++m)
    if (model == model_geometry(m)->name)
      out.model = model_geometry(m);
  if (out.model == nullptr || (expected != nullptr && out.model != expected))
    return outcome.fail(VARKEL_SNAPSHOT_BAD_MODEL, line_of(lines, kHead, "model"),
                        "line %d: a snapshot of model %s%s%s", line_of(lines, kHead, "model"), model.c_str(),
                        expected ? ", the detector is a " : "", expected ? expected->name : "");

  gsize groups = 0;
  const std::unique_ptr<gchar*, decltype(&g_strfreev)> names(g_key_file_get_groups(file.get(), &groups), g_strfreev);
  for (gsize g = 0; g < groups; ++g) {
    const std::string group = names.get()[g];
    const bool head = group == kHead;
    const auto [module, chip] = head ? std::pair{0, 0} : place_of(group, *out.model);
    if (module < 0)
      return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line_of(lines, group),
                          "line %d: [%s] is no module or chip of a %s", line_of(lines, group), group.c_str(),
                          out.model->name);
    const varkel_setting_scope_t scope =
        head ? VARKEL_SETTING_DETECTOR : (chip == 0 ? VARKEL_SETTING_MODULE : VARKEL_SETTING_CHIP);
    gsize keys = 0;
    const std::unique_ptr<gchar*, decltype(&g_strfreev)> key_names(
        g_key_file_get_keys(file.get(), group.c_str(), &keys, nullptr), g_strfreev);
    for (gsize k = 0; k < keys; ++k) {
      const std::string key = key_names.get()[k];
      if (head && (key == "format" || key == "model"))
        continue;
      const int line = line_of(lines, group, key);
      const char* name = known_name(key, scope, out.model->boards);
      if (name == nullptr)
        return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line, "line %d: [%s] has no setting %s", line, group.c_str(),
                            key.c_str());
      const std::string text_value = string_of(group.c_str(), key.c_str());
      double value = NAN;
      const SettingRow* row = row_for(name);
      bool valid = false;
      if (row != nullptr) {
        valid = varkel_setting_parse(&row->pub, text_value.c_str(), &value) == 0;
      } else {
        char* end = nullptr;
        const unsigned long long n = std::strtoull(text_value.c_str(), &end, name == kEfuse ? 16 : 10);
        valid = !text_value.empty() && *end == '\0' && n <= (name == kEfuse ? 0xFFFFFFFFull : 1ull);
        value = static_cast<double>(n);
      }
      if (!valid)
        return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line, "line %d: [%s] %s: %s is out of range %s", line,
                            group.c_str(), key.c_str(), text_value.c_str(),
                            row != nullptr ? row->pub.values : (name == kEfuse ? "0..ffffffff" : "0..1"));
      out.values[{module, chip, name}] = value;
      out.lines[{module, chip, name}] = line;
    }
  }
  return 0;
}

// ---- comparing and applying ------------------------------------------------------

varkel_snapshot_entry_t entry(const Key& key, double wanted, double found)
{
  const auto& [module, chip, name] = key;
  return {module, chip, name.data(), wanted, found, 0, 0};
}

// The values of `a` that `b` lacks or holds otherwise, and with `both`, the values
// of `b` that `a` lacks.
std::vector<varkel_snapshot_entry_t> differences(const Values& a, const Values& b, bool both)
{
  std::vector<varkel_snapshot_entry_t> found;
  for (const auto& [key, value] : a) {
    const auto it = b.find(key);
    const double other = it != b.end() ? it->second : NAN;
    if (!same(std::get<2>(key), value, other))
      found.push_back(entry(key, value, other));
  }
  if (both)
    for (const auto& [key, value] : b)
      if (!a.count(key))
        found.push_back(entry(key, NAN, value));
  return found;
}

// Writes one differing value on the module (and chip) selected, then reads it
// back. Returns the write's code; `e` says whether it verified.
int write_and_verify(varkel_t* v, varkel_snapshot_entry_t& e)
{
  const std::string_view name = e.name;
  if (name == kEfuse || name == kDisabled)
    return 0; // what the hardware is, not a setting
  const SettingRow& row = *row_for(name);
  double back = NAN;
  int rc = 0;
  if (row.pub.scope == VARKEL_SETTING_DETECTOR) {
    // The modules' side of the readout mode is in their image mode, DACs and OMR
    // fields, which the snapshot restores one by one; what remains is the mode
    // the data server is to be told, kept in the handle.
    v->acq_args.aquisitionMode = decode_backend_medipixMode(static_cast<uint8_t>(e.wanted));
  } else if (&row == &bias_row()) {
    const int board = name.back() - '0';
    rc = select_board(v, board);
    rc = rc != 0 ? rc : set_sensorBias(v, static_cast<float>(e.wanted));
    if (rc == 0 && US_SensorBias_RBV(v) == 0)
      back = v->varkelParam.bias_voltage;
    e.written = 1;
    e.found = back;
    e.verified = rc == 0 && same(name, e.wanted, back);
    return rc;
  } else {
    rc = row.set(v, e.wanted);
  }
  e.written = 1;
  if (rc == 0 && get_selected(v, row, &back) == 0)
    e.found = back;
  else
    e.found = NAN;
  e.verified = rc == 0 && same(name, e.wanted, e.found);
  return rc;
}

varkel_snapshot_report_t& report_or(varkel_snapshot_report_t* report, varkel_snapshot_report_t& local)
{
  // A report used before gives its entries back first.
  varkel_snapshot_report_t& r = report != nullptr ? *report : local;
  varkel_snapshot_report_free(&r);
  return r;
}

} // namespace

int varkel_snapshot_save(varkel_t* varkel, const char* path, varkel_snapshot_report_t* report)
{
  assert(varkel != NULL);
  varkel_snapshot_report_t local{};
  Outcome out{report_or(report, local), {}};
  const uint64_t before = extras(varkel).commands.load();
  Values values;
  int rc = read_detector(varkel, values);
  out.report.commands = extras(varkel).commands.load() - before;
  if (rc != 0)
    out.fail(rc, 0, "a read-back failed: %s", varkel_error_string(rc));
  else
    rc = write_file(varkel, values, path != nullptr ? path : "", out);
  const int code = out.finish(rc);
  varkel_snapshot_report_free(&local);
  return code;
}

int varkel_snapshot_diff(varkel_t* varkel, const char* path, const char* other_path, varkel_snapshot_report_t* report)
{
  varkel_snapshot_report_t local{};
  Outcome out{report_or(report, local), {}};
  Snapshot first, second;
  const ModelGeometry* model = varkel != nullptr ? model_geometry(varkel->detModel) : nullptr;
  if (varkel == nullptr && other_path == nullptr)
    return out.fail(-3, 0, "no detector and no second snapshot to compare with");
  int rc = load(path, model, first, out);
  if (rc == 0 && other_path != nullptr)
    rc = load(other_path, first.model, second, out);
  if (rc == 0 && other_path == nullptr) {
    const uint64_t before = extras(varkel).commands.load();
    rc = read_detector(varkel, second.values);
    out.report.commands = extras(varkel).commands.load() - before;
    if (rc != 0)
      out.fail(rc, 0, "a read-back failed: %s", varkel_error_string(rc));
  }
  if (rc == 0)
    out.entries = differences(first.values, second.values, other_path != nullptr);
  const int code = out.finish(rc);
  varkel_snapshot_report_free(&local);
  return code;
}

int varkel_snapshot_apply(varkel_t* varkel, const char* path, varkel_snapshot_report_t* report)
{
  assert(varkel != NULL);
  varkel_snapshot_report_t local{};
  Outcome out{report_or(report, local), {}};
  Snapshot wanted;
  int rc = load(path, model_geometry(varkel->detModel), wanted, out);
  const uint64_t before = extras(varkel).commands.load();
  Values now;
  if (rc == 0 && (rc = read_detector(varkel, now)) != 0)
    out.fail(rc, 0, "a read-back failed: %s", varkel_error_string(rc));
  int first_failure = 0;
  bool unverified = false;
  if (rc == 0) {
    // Sorted by module and chip: each chip is selected once for all its writes.
    // The readout mode goes last: its read-back looks at module 1's image mode.
    std::vector<varkel_snapshot_entry_t> writes = differences(wanted.values, now, false);
    std::stable_partition(writes.begin(), writes.end(), [](const auto& e) { return e.module != 0; });
    int module = -1, chip = -1;
    for (varkel_snapshot_entry_t& e : writes) {
      int step = 0;
      const auto off = now.find({e.module, e.chip, kDisabled});
      const bool switched_off = e.chip != 0 && off != now.end() && off->second != 0;
      if (switched_off && std::string_view(e.name) != kDisabled && std::string_view(e.name) != kEfuse) {
        // A chip the detector has switched off takes no settings.
        unverified = true;
        out.entries.push_back(e);
        continue;
      }
      if (e.module != module || e.chip != chip) {
        step = select_module(varkel, e.module != 0 ? e.module : 1); // detector values read on module 1
        if (step == 0 && e.chip != 0)
          step = select_chipNumber(varkel, e.chip);
        module = e.module;
        chip = e.chip;
      }
      if (step == 0)
        step = write_and_verify(varkel, e);
      first_failure = first_failure != 0 ? first_failure : step;
      unverified |= !e.verified;
      out.entries.push_back(e);
    }
  }
  out.report.commands = extras(varkel).commands.load() - before;
  if (rc == 0 && first_failure != 0)
    rc = out.fail(first_failure, 0, "a write failed: %s", varkel_error_string(first_failure));
  else if (rc == 0 && unverified)
    rc = out.fail(VARKEL_SNAPSHOT_UNVERIFIED, 0, "some values did not verify");
  const int code = out.finish(rc);
  varkel_snapshot_report_free(&local);
  return code;
}

void varkel_snapshot_report_free(varkel_snapshot_report_t* report)
{
  if (report == nullptr)
    return;
  std::free(report->entries);
  *report = varkel_snapshot_report_t{};
}
