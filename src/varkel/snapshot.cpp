// Configuration snapshots: the detector's settings read back into a key file,
// compared with a detector or another file, and applied back. The settings are
// the rows of the name table; a file is checked whole before anything is sent.
#include <algorithm>
#include <array>
#include <cassert>
#include <cctype>
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

#include "internal/acquisition_limits.hpp"
#include "internal/analog.hpp"
#include "internal/dac.hpp"
#include "internal/geometry.hpp"
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

// Where a value lives: module 0 for the detector, chip 0 for a module; and its row.
using Key = std::tuple<int, int, const SettingRow*>;
using Values = std::map<Key, double>;

struct Snapshot {
  const ModelGeometry* model = nullptr;
  Values values;
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

  // Fails with the failure the handle noted last (module, chip, what happened)
  // when one was noted since `before`, else with the code's text.
  int fail_noted(varkel_t* v, uint64_t before, int code, const char* what)
  {
    varkel_failure_t f{};
    if (varkel_failure_count(v) == before)
      return fail(code, 0, "%s: %s", what, varkel_error_string(code));
    varkel_last_failure(v, &f);
    char chip[32] = "";
    if (f.chip != 0)
      std::snprintf(chip, sizeof chip, " chip %d", f.chip);
    return fail(code, 0, "%s: module %d%s: %s", what, f.module, chip, f.text);
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

// ---- rows ----------------------------------------------------------------------

// The row a key called `name` stands for in a group of `scope` on a model with
// `boards` boards, or nullptr when no such key belongs there.
const Setting* kept_row(std::string_view name, varkel_setting_scope_t scope, int boards)
{
  for (const Setting& s : setting_rows())
    if (kept_in_snapshots(s.row) && s.row.scope == scope && s.row.board < boards && name == s.row.name)
      return &s;
  return nullptr;
}

// The row of an entry: its name is the row's own.
const SettingRow& row_of_entry(const varkel_snapshot_entry_t& e)
{
  for (const Setting& s : setting_rows())
    if (s.row.name == e.name)
      return s.row;
  std::abort(); // entries are made from rows
}

std::string text_of(const SettingRow& row, double value)
{
  char text[64] = "";
  format_value(row, value, text, sizeof text);
  return text;
}

// ---- reading a detector --------------------------------------------------------

// Detector and module settings, on the main channel. Returns 0 or the first code.
int read_main(varkel_t* v, Values& values)
{
  int first = 0;
  for (const Setting& s : setting_rows()) {
    const SettingRow& row = s.row;
    if (!kept_in_snapshots(row) || row.scope == VARKEL_SETTING_CHIP || row.read_on != nullptr)
      continue;
    const bool detector = row.scope == VARKEL_SETTING_DETECTOR;
    for (int m = 1; m <= (detector ? 1 : v->max_num_modules); ++m) {
      double x = NAN;
      int rc = select_for(v, row, m, 0);
      rc = rc != 0 ? rc : get_selected(v, row, &x);
      first = first != 0 ? first : rc;
      if (rc == 0)
        values[{detector ? 0 : m, 0, &row}] = x;
    }
  }
  return first;
}

// What one module worker reads, on its own channel.
struct ModuleReading {
  Values values;
  int rc = 0;
  void keep(int rc_of_read) { rc |= rc_of_read == -2 ? 0 : rc_of_read; } // -2: no value, nothing kept
};

// The chip settings of a working chip, its board and chip selected on the worker's channel.
void read_chip_settings(varkel_t* v, varkel_thread_t owner, int chip, ModuleReading& out)
{
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
  for (const Setting& s : setting_rows()) {
    const SettingRow& row = s.row;
    if (!kept_in_snapshots(row) || row.scope != VARKEL_SETTING_CHIP || row.snapshot_only)
      continue;
    double x = NAN;
    if (row.read == Read::omr)
      x = omr[row.number] >= 0 ? omr[row.number] : NAN;
    else if (row.read == Read::dac)
      x = digital[chip - 1][row.number - 1] >= 0 ? digital[chip - 1][row.number - 1] : NAN;
    else if (row.read_on != nullptr)
      out.keep(row.read_on(v, owner, &x));
    if (!std::isnan(x))
      out.values[{owner + 1, chip, &row}] = x;
  }
}

// One chip, its board selected: what it is, and its settings when it answers.
void read_chip(varkel_t* v, varkel_thread_t owner, int chip, ModuleReading& out)
{
  const int m = owner + 1;
  const SettingRow& disabled = row_reading(Read::disabled);
  if (!chip_working(v, m, chip)) {
    out.values[{m, chip, &disabled}] = 1; // a chip switched off is sent nothing
    return;
  }
  const auto position = static_cast<uint8_t>(place_of(chip).position);
  out.rc |= US_ImgChipNumberID(v, position, owner);
  v->mb_reg[owner] = 0; // this worker's own slot: a failed read shows as no chip
  out.rc |= read_efuse_register(v, position, owner);
  const auto efuse = static_cast<uint32_t>(v->mb_reg[owner]);
  out.values[{m, chip, &row_reading(Read::efuse)}] = efuse;
  out.values[{m, chip, &disabled}] = efuse == 0;
  if (efuse != 0)
    read_chip_settings(v, owner, chip, out);
}

// A module's boards and chips on its own channel: per-board rows, then chip by chip.
ModuleReading read_module(varkel_t* v, varkel_thread_t owner)
{
  ModuleReading out;
  for (const Setting& s : setting_rows()) {
    const SettingRow& row = s.row;
    double x = NAN;
    if (kept_in_snapshots(row) && row.scope == VARKEL_SETTING_MODULE && row.read_on != nullptr &&
        row.board < v->max_num_boards) {
      out.keep(row.read_on(v, owner, &x));
      if (!std::isnan(x))
        out.values[{owner + 1, 0, &row}] = x;
    }
  }
  int board = -1;
  for_each_model_chip(v, [&](int chip) {
    if (place_of(chip).board != board) {
      board = place_of(chip).board;
      out.rc |= US_Select_MFB(v, board, owner);
    }
    read_chip(v, owner, chip, out);
  });
  return out;
}

// Everything the library reads back: detector and module settings on the main
// channel, then boards and chips one worker per module on its own channel.
// Returns 0, the first code, or the code of a failure noted on a read that
// returned 0 (VARKEL_REFUSED when the controller refused it).
int read_detector(varkel_t* v, Values& values)
{
  const uint64_t before = varkel_failure_count(v);
  int first = read_main(v, values);
  std::array<ModuleReading, 4> readings;
  for_each_module_parallel(v, [&](varkel_thread_t owner) {
    readings[static_cast<std::size_t>(owner)] = read_module(v, owner);
    return 0;
  });
  for (ModuleReading& r : readings) {
    first = first != 0 ? first : r.rc;
    values.merge(r.values);
  }
  return first == 0 && varkel_failure_count(v) != before ? varkel_last_failure(v, nullptr) : first;
}

// ---- files -----------------------------------------------------------------------

using KeyFile = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;
using Text = std::unique_ptr<gchar, decltype(&g_free)>;

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
    const auto& [module, chip, row] = key;
    g_key_file_set_string(file.get(), group_name(module, chip).c_str(), row->name, text_of(*row, value).c_str());
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

// The number of the first line of `text` for which match(group, line) holds (the
// line trimmed, the group it stands in), or 0. The key-file reader names no
// lines itself; this is asked only for the line of a refusal.
template <typename Match> int line_where(std::string_view text, Match&& match)
{
  std::string_view group;
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.front())))
      line.remove_prefix(1);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())))
      line.remove_suffix(1);
    const bool is_group = line.size() > 1 && line.front() == '[' && line.back() == ']';
    if (is_group)
      group = line.substr(1, line.size() - 2);
    if (match(group, line, is_group))
      return number;
  }
  return 0;
}

// The line of `key` in `group` (empty key: the group's own line).
int line_of(std::string_view text, std::string_view group, std::string_view key = {})
{
  return line_where(text, [&](std::string_view in, std::string_view line, bool is_group) {
    if (key.empty())
      return is_group && in == group;
    if (in != group || !line.starts_with(key))
      return false;
    line.remove_prefix(key.size());
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
      line.remove_prefix(1);
    return !line.empty() && line.front() == '=';
  });
}

// The first line that is none of a group, a key and a comment.
int malformed_line(std::string_view text)
{
  return line_where(text, [](std::string_view in, std::string_view line, bool is_group) {
    const bool blank_or_comment = line.empty() || line.front() == '#';
    return !blank_or_comment && !is_group && (in.empty() || line.find('=') == std::string_view::npos || line[0] == '=');
  });
}

// (module, chip) of a group name, {-1, -1} when it names no module or chip of the model.
std::pair<int, int> group_place(const std::string& group, const ModelGeometry& model)
{
  int module = 0, chip = 0, used = 0;
  const char* text = group.c_str();
  if (std::sscanf(text, "module%d%n", &module, &used) != 1 || module < 1 || module > model.modules)
    return {-1, -1};
  if (text[used] == '\0' && group == group_name(module, 0))
    return {module, 0};
  if (std::sscanf(text + used, "/chip%d", &chip) != 1 || group != group_name(module, chip))
    return {-1, -1};
  return chip_on_model(chip, model.boards, model.chips) ? std::pair{module, chip} : std::pair{-1, -1};
}

// A loaded file: its text (for the lines of refusals) and its keys.
struct Loaded {
  Text text{nullptr, g_free};
  gsize length = 0;
  KeyFile file{g_key_file_new(), g_key_file_free};
  std::string_view view() const { return {text.get(), length}; }
  std::string value(const char* group, const char* key) const
  {
    const Text got(g_key_file_get_value(file.get(), group, key, nullptr), g_free);
    return got ? std::string(got.get()) : std::string();
  }
};

int read_key_file(const char* path, Loaded& in, Outcome& outcome)
{
  gchar* contents = nullptr;
  GError* error = nullptr;
  if (path == nullptr || !g_file_get_contents(path, &contents, &in.length, &error)) {
    const int code = outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, 0, "cannot read %s: %s", path ? path : "(no path)",
                                  error != nullptr ? error->message : "no file named");
    if (error != nullptr)
      g_error_free(error);
    return code;
  }
  in.text.reset(contents);
  if (g_key_file_load_from_data(in.file.get(), contents, in.length, G_KEY_FILE_NONE, &error))
    return 0;
  const int line = malformed_line(in.view());
  const int code = outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, line, "line %d: %s", line, error->message);
  g_error_free(error);
  return code;
}

int check_head(const Loaded& in, const ModelGeometry* expected, Snapshot& out, Outcome& outcome)
{
  const std::string format = in.value(kHead, "format");
  if (format.empty())
    return outcome.fail(VARKEL_SNAPSHOT_BAD_FILE, line_of(in.view(), kHead), "no [%s] group with its format", kHead);
  if (format != std::to_string(kFormat)) {
    const int line = line_of(in.view(), kHead, "format");
    return outcome.fail(VARKEL_SNAPSHOT_BAD_VERSION, line, "line %d: format %s, this library reads format %d", line,
                        format.c_str(), kFormat);
  }
  const std::string model = in.value(kHead, "model");
  for (int m = 0; model_geometry(m) != nullptr; ++m)
    if (model == model_geometry(m)->name)
      out.model = model_geometry(m);
  if (out.model != nullptr && (expected == nullptr || out.model == expected))
    return 0;
  const int line = line_of(in.view(), kHead, "model");
  return outcome.fail(VARKEL_SNAPSHOT_BAD_MODEL, line, "line %d: a snapshot of model %s%s%s", line, model.c_str(),
                      expected ? ", the detector is a " : "", expected ? expected->name : "");
}

// The keys of one group, each a kept setting of its scope with a value in range.
int parse_group(const Loaded& in, const std::string& group, Snapshot& out, Outcome& outcome)
{
  const bool head = group == kHead;
  const auto [module, chip] = head ? std::pair{0, 0} : group_place(group, *out.model);
  if (module < 0) {
    const int line = line_of(in.view(), group);
    return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line, "line %d: [%s] is no module or chip of a %s", line,
                        group.c_str(), out.model->name);
  }
  const varkel_setting_scope_t scope =
      head ? VARKEL_SETTING_DETECTOR : (chip == 0 ? VARKEL_SETTING_MODULE : VARKEL_SETTING_CHIP);
  gsize count = 0;
  const std::unique_ptr<gchar*, decltype(&g_strfreev)> keys(
      g_key_file_get_keys(in.file.get(), group.c_str(), &count, nullptr), g_strfreev);
  for (gsize k = 0; k < count; ++k) {
    const std::string key = keys.get()[k];
    if (head && (key == "format" || key == "model"))
      continue;
    const Setting* setting = kept_row(key, scope, out.model->boards);
    const std::string text = in.value(group.c_str(), key.c_str());
    double value = NAN;
    if (setting != nullptr && parse_value(setting->row, text.c_str(), &value) == 0) {
      out.values[{module, chip, &setting->row}] = value;
      continue;
    }
    const int line = line_of(in.view(), group, key);
    if (setting == nullptr)
      return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line, "line %d: [%s] has no setting %s", line, group.c_str(),
                          key.c_str());
    return outcome.fail(VARKEL_SNAPSHOT_BAD_VALUE, line, "line %d: [%s] %s: %s is out of range %s", line, group.c_str(),
                        key.c_str(), text.c_str(), setting->pub.values);
  }
  return 0;
}

// Reads and checks a whole snapshot file. `expected` is the model it must be for
// (nullptr: any). Returns 0 or a refusal code with the report's line and message.
int load(const char* path, const ModelGeometry* expected, Snapshot& out, Outcome& outcome)
{
  Loaded in;
  if (int rc = read_key_file(path, in, outcome); rc != 0)
    return rc;
  if (int rc = check_head(in, expected, out, outcome); rc != 0)
    return rc;
  gsize count = 0;
  const std::unique_ptr<gchar*, decltype(&g_strfreev)> groups(g_key_file_get_groups(in.file.get(), &count), g_strfreev);
  for (gsize g = 0; g < count; ++g)
    if (int rc = parse_group(in, groups.get()[g], out, outcome); rc != 0)
      return rc;
  return 0;
}

// ---- comparing and applying ------------------------------------------------------

varkel_snapshot_entry_t entry(const Key& key, double wanted, double found)
{
  const auto& [module, chip, row] = key;
  return {module, chip, row->name, wanted, found, 0, 0};
}

// The values of `a` that `b` lacks or holds otherwise, and with `both`, the values
// of `b` that `a` lacks.
std::vector<varkel_snapshot_entry_t> differences(const Values& a, const Values& b, bool both)
{
  std::vector<varkel_snapshot_entry_t> found;
  for (const auto& [key, value] : a) {
    const auto it = b.find(key);
    const double other = it != b.end() ? it->second : NAN;
    if (!same_value(*std::get<2>(key), value, other))
      found.push_back(entry(key, value, other));
  }
  if (both)
    for (const auto& [key, value] : b)
      if (!a.count(key))
        found.push_back(entry(key, NAN, value));
  return found;
}

// Writes one differing value on the module (and chip) selected, then reads it
// back. Returns 0, VARKEL_NOT_APPLIED (`e` then unverified) or the failure's code.
int write_and_verify(varkel_t* v, const SettingRow& row, varkel_snapshot_entry_t& e)
{
  if (row.set == nullptr)
    return 0; // what the hardware is, not a setting
  if (int rc = check_not_busy(v, row, e.module, e.chip); rc != 0)
    return rc;
  e.written = 1;
  if (row.read == Read::readout) {
    // The modules' side of the readout mode is in their image mode, DACs and OMR
    // fields, which the snapshot restores one by one; what remains is the mode
    // the data server is to be told, kept in the handle.
    v->acq_args.aquisitionMode = decode_backend_medipixMode(static_cast<uint8_t>(e.wanted));
    e.found = e.wanted;
    e.verified = 1;
    return 0;
  }
  double back = NAN;
  const int rc = put_selected(v, row, e.chip, e.wanted, &back);
  e.found = back;
  e.verified = rc == 0;
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
  const uint64_t before = extras(varkel).commands.load(), noted = varkel_failure_count(varkel);
  Values values;
  int rc = read_detector(varkel, values);
  out.report.commands = extras(varkel).commands.load() - before;
  if (rc != 0)
    out.fail_noted(varkel, noted, rc, "a read-back failed");
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
    const uint64_t before = extras(varkel).commands.load(), noted = varkel_failure_count(varkel);
    rc = read_detector(varkel, second.values);
    out.report.commands = extras(varkel).commands.load() - before;
    if (rc != 0)
      out.fail_noted(varkel, noted, rc, "a read-back failed");
  }
  if (rc == 0)
    out.entries = differences(first.values, second.values, other_path != nullptr);
  const int code = out.finish(rc);
  varkel_snapshot_report_free(&local);
  return code;
}

namespace {

// A module's new exposure that does not fit the period it holds now waits for its
// new period: the writes are then swapped, as an acquisition orders them.
void order_timing(std::vector<varkel_snapshot_entry_t>& writes, const Values& now)
{
  for (auto e = writes.begin(); e != writes.end(); ++e) {
    if (row_of_entry(*e).rule != Rule::exposure)
      continue;
    const auto p = std::find_if(
        e, writes.end(), [&](const auto& w) { return w.module == e->module && row_of_entry(w).rule == Rule::period; });
    const auto held = p != writes.end() ? now.find({e->module, 0, &row_of_entry(*p)}) : now.end();
    if (p != writes.end() && held != now.end() &&
        !exposure_fits(static_cast<float>(e->wanted), static_cast<float>(held->second)))
      std::iter_swap(e, p);
  }
}

// Writes the entries that differ from what the detector holds (`now`), sorted by
// module and chip so each chip is selected once for all its writes. Returns 0,
// VARKEL_SNAPSHOT_UNVERIFIED or the first failure's code (noted in the report).
int apply_differences(varkel_t* v, const Values& wanted, const Values& now, Outcome& out)
{
  // The readout mode goes last: its read-back looks at module 1's image mode.
  std::vector<varkel_snapshot_entry_t> writes = differences(wanted, now, false);
  std::stable_partition(writes.begin(), writes.end(), [](const auto& e) { return e.module != 0; });
  order_timing(writes, now);
  const SettingRow& disabled = row_reading(Read::disabled);
  int module = -1, chip = -1, first_failure = 0;
  bool unverified = false;
  for (varkel_snapshot_entry_t& e : writes) {
    const SettingRow& row = row_of_entry(e);
    const auto off = now.find({e.module, e.chip, &disabled});
    const uint64_t noted = varkel_failure_count(v);
    int step = 0;
    if (row.set == nullptr || (e.chip != 0 && off != now.end() && off->second != 0)) {
      unverified = true; // what the hardware is, or a chip switched off: nothing to write
    } else {
      if (e.module != module || e.chip != chip) {
        step = select_for(v, row, e.module, e.chip); // detector values: on module 1
        module = step == 0 ? e.module : -1;          // a failed selection is tried again
        chip = e.chip;
      }
      step = step != 0 ? step : write_and_verify(v, row, e);
      unverified |= !e.verified;
    }
    if (step != 0 && step != VARKEL_NOT_APPLIED && first_failure == 0)
      first_failure = out.fail_noted(v, noted, step, row.name);
    out.entries.push_back(e);
  }
  if (first_failure != 0)
    return first_failure;
  return unverified ? out.fail(VARKEL_SNAPSHOT_UNVERIFIED, 0, "some values did not verify") : 0;
}

} // namespace

int varkel_snapshot_apply(varkel_t* varkel, const char* path, varkel_snapshot_report_t* report)
{
  assert(varkel != NULL);
  varkel_snapshot_report_t local{};
  Outcome out{report_or(report, local), {}};
  Snapshot wanted;
  int rc = load(path, model_geometry(varkel->detModel), wanted, out);
  const uint64_t before = extras(varkel).commands.load(), noted = varkel_failure_count(varkel);
  Values now;
  if (rc == 0 && (rc = read_detector(varkel, now)) != 0)
    out.fail_noted(varkel, noted, rc, "a read-back failed");
  if (rc == 0)
    rc = apply_differences(varkel, wanted.values, now, out);
  out.report.commands = extras(varkel).commands.load() - before;
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
