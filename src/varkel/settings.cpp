// Every setting of the library by a readable name: one table whose rows name the
// library's own read-backs and setters, read by one get and one put.
#include <array>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "internal/analog.hpp"
#include "internal/dac.hpp"
#include "internal/omr_parse.hpp"
#include "internal/query.hpp"
#include "internal/settings.hpp"

using namespace varkel::detail;

namespace {

// ---- conversions: a setter of any argument type called with a number --------

template <typename F> struct ArgumentOf;
template <typename R, typename A> struct ArgumentOf<R (*)(varkel_t*, A)> {
  using type = A;
};

template <auto F> int call(varkel_t* v, double x)
{
  using A = typename ArgumentOf<decltype(F)>::type;
  return F(v, static_cast<A>(x));
}

// A member of a member of the handle, as a number.
template <auto Outer, auto Inner> struct Member {
  static auto& of(varkel_t& v) { return v.*Outer.*Inner; }
  static double get(const varkel_t& v) { return static_cast<double>(v.*Outer.*Inner); }
  static bool clear(varkel_t& v)
  {
    auto& field = of(v);
    using T = std::remove_reference_t<decltype(field)>;
    if constexpr (std::is_same_v<T, bool>) {
      return false; // a flag has no value to spare
    } else {
      field = std::is_floating_point_v<T> ? std::numeric_limits<T>::quiet_NaN() : static_cast<T>(-1);
      return true;
    }
  }
};

template <auto Outer, auto Inner> constexpr Cached cached_in = {Member<Outer, Inner>::get, Member<Outer, Inner>::clear};

template <auto Inner> constexpr Cached param = cached_in<&varkel_t::varkelParam, Inner>;
template <auto Inner> constexpr Cached acquisition = cached_in<&varkel_t::acquireParam, Inner>;

// ---- the OMR and DAC families ----------------------------------------------

template <varkel_omr_t F> int omr_one(varkel_t* v, double x) { return write_omr_field(v, F, static_cast<int>(x)); }
template <varkel_omr_t F> int omr_all_chips(varkel_t* v, double x)
{
  return set_omr(v, F, static_cast<int>(x), VARKEL_SEND_ALL_CHIPS_ONE_MODULE);
}

template <varkel_dac_t D, varkel_send_to_all_t To> int dac_write(varkel_t* v, double x)
{
  return set_dac(v, D, static_cast<int>(x), To);
}

// ---- the rows ---------------------------------------------------------------

constexpr auto kModule = VARKEL_SETTING_MODULE;
constexpr auto kChip = VARKEL_SETTING_CHIP;

constexpr SettingRow named(const char* name, const char* help, const char* values, varkel_setting_scope_t scope)
{
  return {{name, help, values, scope, 0}, 0, 0, true, Read::cached, nullptr, {}, nullptr, 0, nullptr, nullptr, nullptr};
}

constexpr SettingRow ranged(const char* name, const char* help, const char* values, varkel_setting_scope_t scope,
                            double min, double max, bool whole)
{
  SettingRow row = named(name, help, values, scope);
  row.min = min;
  row.max = max;
  row.whole = whole;
  return row;
}

constexpr SettingRow with_read(SettingRow row, int (*read_back)(varkel_t*), Cached cached)
{
  row.read_back = read_back;
  row.cached = cached;
  return row;
}

constexpr SettingRow with_set(SettingRow row, Setter set, Setter set_module = nullptr, Setter everywhere = nullptr)
{
  row.set = set;
  row.set_module = set_module;
  row.set_everywhere = everywhere;
  row.pub.writable = 1; // rows without a setter are read-only
  return row;
}

constexpr SettingRow replied(SettingRow row, const char* command)
{
  row.read = Read::reply;
  row.command = command;
  return row;
}

template <varkel_omr_t F>
constexpr SettingRow omr(const char* name, const char* help, const char* values, bool fans_out = true)
{
  SettingRow row = with_set(named(name, help, values, kChip), omr_one<F>, fans_out ? omr_all_chips<F> : nullptr);
  row.read = Read::omr;
  row.number = F;
  return row;
}

int bias_of_module(varkel_t* v, double x)
{
  return setSensorBias(v, static_cast<float>(x), VARKEL_SEND_ALL_MFBS_ONE_MODEULE);
}
int bias_everywhere(varkel_t* v, double x)
{
  return setSensorBias(v, static_cast<float>(x), VARKEL_SEND_ALL_MFBS_ALL_MODULES);
}
int bias_of_first_board(varkel_t* v)
{
  const int rc = select_board(v, 0);
  return rc != 0 ? rc : US_SensorBias_RBV(v);
}

constexpr SettingRow kFixed[] = {
    // detector-wide
    [] {
      SettingRow row = with_set(named("readout-mode", "readout mode of every module and the data server",
                                      "default crw 24-bit dual-energy", VARKEL_SETTING_DETECTOR),
                                call<set_medipix_mode>);
      row.read = Read::readout;
      return row;
    }(),
    // per module
    with_set(with_read(ranged("exposure", "acquisition time per exposure, seconds", "0..4294.967295", kModule, 0,
                              4294.967295, false),
                       US_AcquireTime_RBV, acquisition<&varkel_acquire_params_t::acquireTime>),
             call<US_AcquireTime>, call<set_acquireTime>),
    with_set(with_read(ranged("period", "acquisition period, seconds (0: back to back)", "0..2147.483647", kModule, 0,
                              2147.483647, false),
                       US_AcquirePeriod_RBV, acquisition<&varkel_acquire_params_t::acquirePeriod>),
             call<US_AcquirePeriod>, call<set_periodTime>),
    with_set(with_read(
                 ranged("exposures", "exposures per acquisition, count", "1..2147483647", kModule, 1, 2147483647, true),
                 US_NumExposures_RBV, acquisition<&varkel_acquire_params_t::numExposures>),
             call<US_NumExposures>, call<set_numberExposures>),
    with_set(replied(named("trigger", "trigger mode: internal, external rising or falling edge",
                           "internal rising falling", kModule),
                     CMD_TRIGGER_MODE),
             call<US_TriggerMode>),
    with_set(replied(named("trigger-out", "trigger output",
                           "disable both sw external shutter-a shutter-b shutter-c shutter-all acq-a acq-b acq-c "
                           "acq-all",
                           kModule),
                     CMD_SET_TRIGGER_OUT),
             call<trigger_out>),
    with_set(with_read(named("image-mode", "image mode", "single multiple continuous threshold", kModule),
                       US_ImageMode_RBV, param<&varkel_params_t::image_mode>),
             call<US_ImageMode>),
    with_set(with_read(named("read-counter", "counter read out", "low high", kModule), US_ReadCounter_RBV,
                       param<&varkel_params_t::read_counter>),
             call<US_ReadCounter>),
    with_set(with_read(named("discard-data", "the module discards its frames", "off on", kModule), US_DiscardData_RBV,
                       param<&varkel_params_t::discard_data>),
             call<US_DiscardData>),
    with_set(with_read(ranged("bias", "sensor bias of every board, volts (read: board 0), ramped in 1 V steps",
                              "0..100", kModule, 0, 100, false),
                       bias_of_first_board, param<&varkel_params_t::bias_voltage>),
             bias_of_module, bias_everywhere),
    with_read(ranged("exposures-taken", "exposures the module has taken, count", "", kModule, 0, 4294967295.0, true),
              US_NumExposuresCounter_RBV, acquisition<&varkel_acquire_params_t::numExposuresTotal>),
    // per chip: the OMR fields (set_omr refuses data-out and colour-mode: no fan-out)
    omr<OMR_M>("operation-mode", "OMR operation mode",
               "read-low read-high load-low load-high load-dacs load-ctpr read-dacs read-omr"),
    omr<OMR_CRW_SRW>("crw-srw", "OMR read-write mode", "sequential continuous"),
    omr<OMR_Polarity>("polarity", "OMR polarity", "electrons holes"),
    omr<OMR_PS>("data-out", "OMR data outputs", "out-0 out-2 out-4 out-8", false),
    omr<OMR_Disc_CSM_SPM>("discriminator", "OMR discriminator", "low high"),
    omr<OMR_EnableTP>("test-pulse", "OMR test pulse", "off on"),
    omr<OMR_CountL>("counter-depth", "OMR counter depth", "1-bit 12-bit 6-bit 24-bit"),
    omr<OMR_Equalization>("equalization", "OMR equalization", "off on"),
    omr<OMR_Colour_Mode>("colour-mode", "OMR colour mode", "fine-pitch spectroscopic", false),
    omr<OMR_CSM_SPM>("pixel-mode", "OMR pixel mode", "single-pixel charge-summing"),
    omr<OMR_Gain_Mode>("gain", "OMR gain mode", "super-high low high super-low"),
    [] {
      SettingRow row = omr<OMR_Sense_DAC>("sense-dac", "OMR DAC on the sense output, DAC number", "0..31");
      row.max = 31;
      return row;
    }(),
    omr<OMR_Ext_BG_Sel>("ext-bg-select", "OMR external band-gap input selected", "off on"),
    with_set(with_read(ranged("ext-bg", "external band-gap input, volts", "0..1", kChip, 0, 1, false),
                       US_ImgChip_ExtBgIn_RBV, param<&varkel_params_t::extBgIn>),
             call<US_ImgChip_ExtBgIn>),
    with_read(ranged("dac-output", "DAC output sense voltage, volts", "", kChip, -1e9, 1e9, false),
              US_ImgChipDACOUTSense_RBV, param<&varkel_params_t::dacOutput>),
};

template <std::size_t I> constexpr SettingRow dac_row()
{
  constexpr DacInfo d = kDacs[I];
  SettingRow row =
      with_set(ranged(d.name, "chip DAC, code", d.max == 511 ? "0..511" : "0..255", kChip, 0, d.max, true),
               dac_write<d.dac, VARKEL_SEND_ONE_CHIP_ONE_MODULE>, dac_write<d.dac, VARKEL_SEND_ALL_CHIPS_ONE_MODULE>,
               dac_write<d.dac, VARKEL_SEND_ALL_CHIPS_ALL_MODULES>);
  row.read = Read::dac;
  row.number = d.dac;
  return row;
}

template <std::size_t... I> constexpr auto all_rows(std::index_sequence<I...>)
{
  constexpr std::size_t fixed = std::size(kFixed);
  std::array<SettingRow, fixed + sizeof...(I)> rows{};
  for (std::size_t i = 0; i < fixed; ++i)
    rows[i] = kFixed[i];
  ((rows[fixed + I] = dac_row<I>()), ...);
  return rows;
}

constexpr auto kRows = all_rows(std::make_index_sequence<kDacCount>{});

// The words of a named setting's values, one by one.
template <typename Word> int for_each_name(const SettingRow& row, Word&& word)
{
  std::string_view rest = row.pub.values;
  int index = 0;
  while (!rest.empty()) {
    const std::size_t end = rest.find(' ');
    if (word(index, rest.substr(0, end)))
      return index;
    ++index;
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  }
  return -1;
}

bool is_named(const SettingRow& row)
{
  return row.pub.values[0] != '\0' && std::strstr(row.pub.values, "..") == nullptr;
}

int name_count(const SettingRow& row)
{
  int count = 0;
  for_each_name(row, [&](int, std::string_view) { return ++count, false; });
  return count;
}

// Reads the cache a library read-back fills; -2 when it did not fill it.
int read_cached(varkel_t* v, const SettingRow& row, double* value)
{
  const bool cleared = row.cached.clear(*v);
  const double blank = row.cached.get(*v);
  if (int rc = row.read_back(v); rc != 0)
    return rc;
  const double x = row.cached.get(*v);
  if (cleared && (std::isnan(blank) ? std::isnan(x) : x == blank))
    return -2;
  *value = x;
  return 0;
}

int read_readout_mode(varkel_t* v, double* value)
{
  // The commands of 24-bit and dual-energy modes leave no mark of their own on
  // the modules; the data-server mode the handle records tells them apart.
  switch (v->acq_args.aquisitionMode) {
  case B24:
    return *value = VARKEL_MEDIPIX_MODE_24BITS, 0;
  case DUALENERGY:
    return *value = VARKEL_MEDIPIX_MODE_DUAL_ENERGY, 0;
  default:
    break;
  }
  double image = 0;
  const SettingRow* image_mode = row_of(varkel_setting_find("image-mode"));
  if (int rc = read_cached(v, *image_mode, &image); rc != 0)
    return rc;
  *value =
      static_cast<int>(image) == VARKEL_IMAGE_MODE_MULTIPLE ? VARKEL_MEDIPIX_MODE_CRW : VARKEL_MEDIPIX_MODE_DEFAULT;
  return 0;
}

bool chip_on_model(const varkel_t* v, int chip)
{
  bool found = false;
  for_each_chip_position(v->max_num_boards, v->max_num_chips, [&](int c) { found |= c == chip; });
  return found;
}

// Writes every chip of the selected module: the row's fan-out, else chip by chip
// (chips switched off are passed by).
int put_module_chips(varkel_t* v, const SettingRow& row, double value)
{
  if (row.set_module != nullptr)
    return row.set_module(v, value);
  int rc = 0;
  const int module = v->varkel_module;
  for_each_chip_position(v->max_num_boards, v->max_num_chips, [&](int chip) {
    if (module >= 1 && module <= 4 && v->sensor_disabled[module - 1][chip - 1])
      return;
    const int selected = select_chipNumber(v, chip);
    rc |= selected != 0 ? selected : row.set(v, value);
  });
  return rc;
}

} // namespace

// ---- the internal face ---------------------------------------------------------

std::span<const SettingRow> varkel::detail::setting_rows() { return kRows; }

const SettingRow* varkel::detail::row_of(const varkel_setting_t* s)
{
  for (const SettingRow& row : kRows)
    if (&row.pub == s)
      return &row;
  return nullptr;
}

bool varkel::detail::in_range(const SettingRow& row, double value)
{
  if (!std::isfinite(value))
    return false;
  const double min = is_named(row) ? 0 : row.min;
  const double max = is_named(row) ? name_count(row) - 1 : row.max;
  return value >= min && value <= max && (!row.whole || value == std::floor(value));
}

bool varkel::detail::same_value(const SettingRow& row, double a, double b)
{
  if (row.whole || is_named(row))
    return a == b;
  // Values the handle keeps as floats, replied with six decimals.
  return std::fabs(a - b) <= 5e-7 + 1e-6 * std::fabs(a);
}

int varkel::detail::select_for(varkel_t* v, const SettingRow& row, int module, int chip)
{
  if (row.pub.scope == VARKEL_SETTING_DETECTOR)
    module = 1;
  if (!validate_module(v, module))
    return -7;
  if (row.pub.scope == VARKEL_SETTING_CHIP && !chip_on_model(v, chip))
    return -4;
  const int rc = select_module(v, module);
  if (rc != 0 || row.pub.scope != VARKEL_SETTING_CHIP)
    return rc;
  return select_chipNumber(v, chip);
}

int varkel::detail::get_selected(varkel_t* v, const SettingRow& row, double* value)
{
  switch (row.read) {
  case Read::cached:
    return read_cached(v, row, value);
  case Read::reply: {
    bool replied = false;
    const int rc = query_scan<unsigned>(
        v, VARKEL_THREAD_MAIN, "%u", [&](unsigned x) { *value = x, replied = true; }, row.command, 0u, 0u);
    return rc != 0 ? rc : (replied ? 0 : -2);
  }
  case Read::omr: {
    int x = -1;
    if (int rc = read_omr_field(v, VARKEL_THREAD_MAIN, static_cast<varkel_omr_t>(row.number), &x); rc != 0)
      return rc;
    return x < 0 ? -2 : (*value = x, 0);
  }
  case Read::dac: {
    const int chip = v->sensor_pos.sensorPos;
    if (chip < 1 || chip > 36)
      return -4;
    int32_t& cell = v->digital_dac_values[chip - 1][row.number - 1];
    cell = -1;
    if (int rc = get_dac(v, DIGITAL_READ_SINGLE_DAC, static_cast<varkel_dac_t>(row.number)); rc != 0)
      return rc;
    return cell < 0 ? -2 : (*value = cell, 0);
  }
  case Read::readout:
    return read_readout_mode(v, value);
  }
  return -3;
}

// ---- the public face -------------------------------------------------------------

int varkel_settings_count(void) { return static_cast<int>(kRows.size()); }

const varkel_setting_t* varkel_setting_at(int index)
{
  return index >= 0 && static_cast<std::size_t>(index) < kRows.size() ? &kRows[static_cast<std::size_t>(index)].pub
                                                                      : nullptr;
}

const varkel_setting_t* varkel_setting_find(const char* name)
{
  if (name == nullptr)
    return nullptr;
  for (const SettingRow& row : kRows)
    if (std::strcmp(row.pub.name, name) == 0)
      return &row.pub;
  return nullptr;
}

int varkel_setting_parse(const varkel_setting_t* s, const char* text, double* value)
{
  const SettingRow* row = row_of(s);
  if (row == nullptr || text == nullptr || value == nullptr)
    return -3;
  if (is_named(*row)) {
    const int index = for_each_name(*row, [&](int, std::string_view word) { return word == text; });
    if (index >= 0)
      return *value = index, 0;
  }
  char* end = nullptr;
  errno = 0;
  const double x = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno == ERANGE || !in_range(*row, x))
    return -3;
  *value = x;
  return 0;
}

int varkel_setting_format(const varkel_setting_t* s, double value, char* text, size_t size)
{
  const SettingRow* row = row_of(s);
  if (row == nullptr || text == nullptr)
    return -3;
  int written = 0;
  if (is_named(*row)) {
    std::string_view word;
    for_each_name(*row, [&](int index, std::string_view w) { return index == value ? (word = w, true) : false; });
    if (word.empty())
      return -3;
    written = std::snprintf(text, size, "%.*s", static_cast<int>(word.size()), word.data());
  } else {
    // Seven significant digits: what a float the handle keeps holds.
    written = std::snprintf(text, size, row->whole ? "%.0f" : "%.7g", value);
  }
  return written >= 0 && static_cast<std::size_t>(written) < size ? 0 : ENOSPC;
}

int varkel_setting_get(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double* value)
{
  assert(varkel != NULL);
  const SettingRow* row = row_of(s);
  if (row == nullptr || value == nullptr)
    return -3;
  if (int rc = select_for(varkel, *row, module, chip); rc != 0)
    return rc;
  return get_selected(varkel, *row, value);
}

int varkel_setting_put(varkel_t* varkel, const varkel_setting_t* s, int module, int chip, double value)
{
  assert(varkel != NULL);
  const SettingRow* row = row_of(s);
  if (row == nullptr || row->set == nullptr || !in_range(*row, value))
    return -3;
  const varkel_setting_scope_t scope = row->pub.scope;
  if (scope == VARKEL_SETTING_DETECTOR)
    return row->set(varkel, value);
  if (module != 0 && !validate_module(varkel, module))
    return -7;
  if (scope == VARKEL_SETTING_CHIP && chip != 0 && !chip_on_model(varkel, chip))
    return -4;
  if (module == 0 && scope == VARKEL_SETTING_MODULE && row->set_module != nullptr)
    return row->set_module(varkel, value);
  if (module == 0 && chip == 0 && row->set_everywhere != nullptr)
    return row->set_everywhere(varkel, value);
  const auto on_module = [&](int) {
    if (scope == VARKEL_SETTING_MODULE)
      return row->set(varkel, value);
    if (chip == 0)
      return put_module_chips(varkel, *row, value);
    const int selected = select_chipNumber(varkel, chip);
    return selected != 0 ? selected : row->set(varkel, value);
  };
  if (module != 0) {
    const int selected = select_module(varkel, module);
    return selected != 0 ? selected : on_module(module);
  }
  return for_each_module_selected(varkel, on_module);
}
