// Every setting of the library by a readable name: one table whose rows name the
// library's own read-backs and setters, read by one get and one put.
#include <algorithm>
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

#include "internal/acquisition_limits.hpp"
#include "internal/analog.hpp"
#include "internal/dac.hpp"
#include "internal/geometry.hpp"
#include "internal/handle.hpp"
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
  using T = std::remove_reference_t<decltype(of(std::declval<varkel_t&>()))>;
  static double get(const varkel_t& v) { return static_cast<double>(v.*Outer.*Inner); }
  static bool blank(varkel_t& v)
  {
    if constexpr (std::is_same_v<T, bool>) {
      return false; // a flag has no value to spare
    } else {
      of(v) = std::is_floating_point_v<T> ? std::numeric_limits<T>::quiet_NaN() : static_cast<T>(-1);
      return true;
    }
  }
  static void restore(varkel_t& v, double x)
  {
    if constexpr (std::is_floating_point_v<T>)
      of(v) = static_cast<T>(x);
    else
      of(v) = static_cast<T>(static_cast<long long>(x));
  }
};

template <auto Outer, auto Inner>
constexpr Cached cached_in = {Member<Outer, Inner>::get, Member<Outer, Inner>::blank, Member<Outer, Inner>::restore};

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
constexpr auto kNamed = VARKEL_SETTING_NAMED;
constexpr auto kWhole = VARKEL_SETTING_WHOLE;
constexpr auto kReal = VARKEL_SETTING_REAL;

// A chip's OMR field (set_omr refuses data-out and colour-mode for all chips).
template <varkel_omr_t F>
constexpr SettingRow omr(const char* name, const char* help, const char* names, bool all_chips = true)
{
  return {.name = name,
          .help = help,
          .scope = kChip,
          .kind = kNamed,
          .names = names,
          .read = Read::omr,
          .number = F,
          .set = omr_one<F>,
          .set_all_chips = all_chips ? omr_all_chips<F> : nullptr};
}

int bias_of_module(varkel_t* v, double x)
{
  return setSensorBias(v, static_cast<float>(x), VARKEL_SEND_ALL_MFBS_ONE_MODEULE);
}
int bias_of_first_board(varkel_t* v)
{
  const int rc = select_board(v, 0);
  return rc != 0 ? rc : US_SensorBias_RBV(v);
}

// Runs a library read on a module worker's channel into a float: 0 with the
// number, the read's code, or -2 when the reply held none.
template <typename ReadInto> int number_read(ReadInto&& read, double* value)
{
  float volts = NAN;
  if (int rc = read(&volts); rc != 0)
    return rc;
  return std::isnan(volts) ? -2 : (*value = volts, 0);
}

int ext_bg_on(varkel_t* v, varkel_thread_t owner, double* value)
{
  return number_read([&](float* volts) { return read_ext_bg(v, owner, volts); }, value);
}

constexpr Cached kBias = param<&varkel_params_t::bias_voltage>;

constexpr SettingRow kFixed[] = {
    // detector-wide: the modules' side is their image mode, DACs and OMR fields
    {.name = "readout-mode",
     .help = "readout mode of every module and the data server",
     .scope = VARKEL_SETTING_DETECTOR,
     .kind = kNamed,
     .names = "default crw 24-bit dual-energy",
     .read = Read::readout,
     .set = call<set_medipix_mode>,
     .changes_acquisition = true},
    // per module
    {.name = "exposure",
     .help = "acquisition time per exposure, seconds",
     .scope = kModule,
     .kind = kReal,
     .max = 4294.967295,
     .read_back = US_AcquireTime_RBV,
     .cached = acquisition<&varkel_acquire_params_t::acquireTime>,
     .set = call<US_AcquireTime>,
     .changes_acquisition = true,
     .rule = Rule::exposure},
    {.name = "period",
     .help = "acquisition period, seconds (0: back to back)",
     .scope = kModule,
     .kind = kReal,
     .max = 2147.483647,
     .read_back = US_AcquirePeriod_RBV,
     .cached = acquisition<&varkel_acquire_params_t::acquirePeriod>,
     .set = call<US_AcquirePeriod>,
     .changes_acquisition = true,
     .rule = Rule::period},
    {.name = "exposures",
     .help = "exposures per acquisition, count",
     .scope = kModule,
     .kind = kWhole,
     .min = 1,
     .max = 2147483647,
     .read_back = US_NumExposures_RBV,
     .cached = acquisition<&varkel_acquire_params_t::numExposures>,
     .set = call<US_NumExposures>,
     .changes_acquisition = true},
    {.name = "trigger",
     .help = "trigger mode: internal, external rising or falling edge",
     .scope = kModule,
     .kind = kNamed,
     .names = "internal rising falling",
     .read = Read::reply,
     .cached = param<&varkel_params_t::trigger_mode>, // the setter stores what it sent
     .command = CMD_TRIGGER_MODE,
     .set = call<US_TriggerMode>,
     .changes_acquisition = true},
    {.name = "trigger-out",
     .help = "trigger output",
     .scope = kModule,
     .kind = kNamed,
     .names = "disable both sw external shutter-a shutter-b shutter-c shutter-all acq-a acq-b acq-c acq-all",
     .read = Read::reply,
     .cached = param<&varkel_params_t::trigger_out>,
     .command = CMD_SET_TRIGGER_OUT,
     .set = call<trigger_out>,
     .changes_acquisition = true},
    {.name = "image-mode",
     .help = "image mode",
     .scope = kModule,
     .kind = kNamed,
     .names = "single multiple continuous threshold",
     .read_back = US_ImageMode_RBV,
     .cached = param<&varkel_params_t::image_mode>,
     .set = call<US_ImageMode>,
     .changes_acquisition = true},
    {.name = "read-counter",
     .help = "counter read out",
     .scope = kModule,
     .kind = kNamed,
     .names = "low high",
     .read_back = US_ReadCounter_RBV,
     .cached = param<&varkel_params_t::read_counter>,
     .set = call<US_ReadCounter>,
     .changes_acquisition = true},
    {.name = "discard-data",
     .help = "the module discards its frames",
     .scope = kModule,
     .kind = kNamed,
     .names = "off on",
     .read_back = US_DiscardData_RBV,
     .cached = param<&varkel_params_t::discard_data>,
     .set = call<US_DiscardData>,
     .changes_acquisition = true},
    {.name = "bias",
     .help = "sensor bias of every board, volts (read: board 0), ramped in 1 V steps",
     .scope = kModule,
     .kind = kReal,
     .max = 100,
     .read_back = bias_of_first_board,
     .cached = kBias,
     .set = bias_of_module,
     .changes_acquisition = true,
     .per_board = true},
    {.name = "exposures-taken",
     .help = "exposures the module has taken, count",
     .scope = kModule,
     .kind = kWhole,
     .max = 4294967295.0,
     .read_back = US_NumExposuresCounter_RBV,
     .cached = acquisition<&varkel_acquire_params_t::numExposuresTotal>},
    // per chip: the OMR fields
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
      SettingRow row = omr<OMR_Sense_DAC>("sense-dac", "OMR DAC on the sense output, DAC number", "");
      row.kind = kWhole;
      row.max = 31;
      return row;
    }(),
    omr<OMR_Ext_BG_Sel>("ext-bg-select", "OMR external band-gap input selected", "off on"),
    {.name = "ext-bg",
     .help = "external band-gap input, volts",
     .scope = kChip,
     .kind = kReal,
     .max = 1,
     .read_back = US_ImgChip_ExtBgIn_RBV,
     .cached = param<&varkel_params_t::extBgIn>,
     .read_on = ext_bg_on,
     .set = call<US_ImgChip_ExtBgIn>},
    {.name = "dac-output",
     .help = "DAC output sense voltage, volts",
     .scope = kChip,
     .kind = kReal,
     .min = -HUGE_VAL,
     .max = HUGE_VAL,
     .read_back = US_ImgChipDACOUTSense_RBV,
     .cached = param<&varkel_params_t::dacOutput>},
};

template <std::size_t I> constexpr SettingRow dac_row()
{
  constexpr DacInfo d = kDacs[I];
  return {.name = d.name,
          .help = "chip DAC, code",
          .scope = kChip,
          .kind = kWhole,
          .max = static_cast<double>(d.max),
          .read = Read::dac,
          .number = d.dac,
          .set = dac_write<d.dac, VARKEL_SEND_ONE_CHIP_ONE_MODULE>,
          .set_all_chips = dac_write<d.dac, VARKEL_SEND_ALL_CHIPS_ONE_MODULE>};
}

// The snapshots' own rows: the bias board by board, and what a chip is.
template <int B> int select_board_then(varkel_t* v, int (*step)(varkel_t*))
{
  const int rc = select_board(v, B);
  return rc != 0 ? rc : step(v);
}

template <int B> constexpr SettingRow board_bias_row(const char* name)
{
  return {.name = name,
          .help = "sensor bias of one board, volts",
          .scope = kModule,
          .kind = kReal,
          .max = 100,
          .read_back = [](varkel_t* v) { return select_board_then<B>(v, US_SensorBias_RBV); },
          .cached = kBias,
          .read_on =
              [](varkel_t* v, varkel_thread_t owner, double* value) {
                const int selected = US_Select_MFB(v, B, owner);
                return selected != 0 ? selected
                                     : number_read([&](float* volts) { return read_bias(v, owner, volts); }, value);
              },
          .set =
              [](varkel_t* v, double x) {
                const int rc = select_board(v, B);
                return rc != 0 ? rc : set_sensorBias(v, static_cast<float>(x));
              },
          .changes_acquisition = true,
          .board = B,
          .snapshot_only = true};
}

constexpr SettingRow kSnapshotOnly[] = {
    board_bias_row<0>("bias.board0"),
    board_bias_row<1>("bias.board1"),
    board_bias_row<2>("bias.board2"),
    {.name = "efuse-id",
     .help = "the chip's efuse identifier",
     .scope = kChip,
     .kind = kWhole,
     .max = 4294967295.0,
     .hex = true,
     .read = Read::efuse,
     .snapshot_only = true},
    {.name = "disabled",
     .help = "the chip is switched off or has no efuse identifier",
     .scope = kChip,
     .kind = kWhole,
     .max = 1,
     .read = Read::disabled,
     .snapshot_only = true},
};

constexpr std::size_t kPublic = std::size(kFixed) + kDacCount;
constexpr std::size_t kAll = kPublic + std::size(kSnapshotOnly);

template <std::size_t... I> constexpr auto all_rows(std::index_sequence<I...>)
{
  std::array<SettingRow, kAll> rows{};
  std::copy(std::begin(kFixed), std::end(kFixed), rows.begin());
  ((rows[std::size(kFixed) + I] = dac_row<I>()), ...);
  std::copy(std::begin(kSnapshotOnly), std::end(kSnapshotOnly), rows.begin() + kPublic);
  return rows;
}

constexpr auto kRows = all_rows(std::make_index_sequence<kDacCount>{});

// The words of a named setting's values, one by one.
template <typename Word> int for_each_name(const SettingRow& row, Word&& word)
{
  std::string_view rest = row.names;
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

int name_count(const SettingRow& row)
{
  int count = 0;
  for_each_name(row, [&](int, std::string_view) { return ++count, false; });
  return count;
}

// The public face of a row: its values text written out from kind and range.
void describe(Setting& out, const SettingRow& row)
{
  out.row = row;
  const bool named = row.kind == kNamed;
  if (named)
    out.row.max = name_count(row) - 1;
  if (named)
    out.range_text[0] = '\0'; // the values text is the names
  else if (std::isinf(row.min) || std::isinf(row.max))
    out.range_text[0] = '\0'; // any number
  else if (row.hex)
    std::snprintf(out.range_text, sizeof out.range_text, "0..%llx", static_cast<unsigned long long>(row.max));
  else
    std::snprintf(out.range_text, sizeof out.range_text, "%.15g..%.15g", row.min, row.max);
  out.pub = {
      row.name,    row.help,    named ? row.names : out.range_text, row.scope, row.set != nullptr ? 1 : 0, row.kind,
      out.row.min, out.row.max, named ? name_count(row) : 0};
}

// Built in place once: each public face points into its own row's text.
const std::array<Setting, kAll>& table()
{
  static std::array<Setting, kAll> settings{};
  static const bool built = [] {
    for (std::size_t i = 0; i < kAll; ++i)
      describe(settings[i], kRows[i]);
    return true;
  }();
  (void)built;
  return settings;
}

const Setting* setting_of(const varkel_setting_t* s)
{
  for (const Setting& setting : table())
    if (&setting.pub == s && !setting.row.snapshot_only)
      return &setting;
  return nullptr;
}

// ---- reading ------------------------------------------------------------------

// Reads the cache a library read-back fills; -2 when it did not fill it. The
// cache keeps its value unless a new one came.
int read_cached(varkel_t* v, const SettingRow& row, double* value)
{
  const double was = row.cached.get(*v);
  const bool blanked = row.cached.blank(*v);
  const double blank = row.cached.get(*v);
  int rc = row.read_back(v);
  const double x = row.cached.get(*v);
  if (rc == 0 && blanked && (std::isnan(blank) ? std::isnan(x) : x == blank))
    rc = -2;
  if (rc != 0)
    row.cached.restore(*v, was);
  else
    *value = x;
  return rc;
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
  if (int rc = read_cached(v, *row_of(varkel_setting_find("image-mode")), &image); rc != 0)
    return rc;
  *value =
      static_cast<int>(image) == VARKEL_IMAGE_MODE_MULTIPLE ? VARKEL_MEDIPIX_MODE_CRW : VARKEL_MEDIPIX_MODE_DEFAULT;
  return 0;
}

int read_dac(varkel_t* v, const SettingRow& row, double* value)
{
  const int chip = v->sensor_pos.sensorPos;
  if (chip < 1 || chip > kChipsPerModule)
    return -4;
  int32_t& cell = v->digital_dac_values[chip - 1][row.number - 1];
  const int32_t was = cell;
  cell = -1;
  int rc = get_dac(v, DIGITAL_READ_SINGLE_DAC, static_cast<varkel_dac_t>(row.number));
  rc = rc != 0 ? rc : (cell < 0 ? -2 : 0);
  if (rc == 0)
    *value = cell;
  else
    cell = was;
  return rc;
}

int read_selected(varkel_t* v, const SettingRow& row, double* value)
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
  case Read::dac:
    return read_dac(v, row, value);
  case Read::readout:
    return read_readout_mode(v, value);
  default:
    return -3; // read on a module worker's channel by the snapshots
  }
}

// The code of the failure noted since `before` (VARKEL_REFUSED for a refusal, -1
// for a connection closed without a reply) on a call that returned 0 or found no
// value in the reply (the refusal's words), else `rc`; the chip goes on the note
// for chip rows.
int refused_since(varkel_t* v, uint64_t before, int rc, int chip)
{
  if (varkel_failure_count(v) == before)
    return rc;
  if (chip != 0)
    note_failure_chip(v, chip);
  return rc == 0 || rc == -2 ? varkel_last_failure(v, nullptr) : rc;
}

// Selects chip `chip` on the selected module: 0, the selection's code, or
// VARKEL_REFUSED when the controller refused it (a read would reach another chip).
int select_chip(varkel_t* v, int chip)
{
  const uint64_t before = varkel_failure_count(v);
  return refused_since(v, before, select_chipNumber(v, chip), chip);
}

int selected_chip(const varkel_t* v, const SettingRow& row)
{
  return row.scope == VARKEL_SETTING_CHIP ? v->sensor_pos.sensorPos : 0;
}

// ---- writing --------------------------------------------------------------------

// Reads back what was written on the selected module (and chip): 0, the read's
// code, or VARKEL_NOT_APPLIED (noted) when another value is in force.
int verify_selected(varkel_t* v, const SettingRow& row, int chip, double value, double* read = nullptr)
{
  double back = NAN;
  if (int rc = get_selected(v, row, &back); rc != 0)
    return rc;
  if (read != nullptr)
    *read = back;
  if (same_value(row, value, back))
    return 0;
  char wanted[64] = "", found[64] = "";
  format_value(row, value, wanted, sizeof wanted);
  format_value(row, back, found, sizeof found);
  note_failure(v, VARKEL_NOT_APPLIED, v->varkel_module, chip, nullptr, nullptr,
               "put %s %s: the controller accepted it but reads back %s", row.name, wanted, found);
  return VARKEL_NOT_APPLIED;
}

// Writes every working chip of the selected module `module`: the library's
// all-chips command when no chip of the module is off, else chip by chip; then
// each working chip is read back.
int put_module_chips(varkel_t* v, const SettingRow& row, int module, double value)
{
  bool all_working = true;
  for_each_model_chip(v, [&](int chip) { all_working &= chip_working(v, module, chip); });
  const bool at_once = all_working && row.set_all_chips != nullptr;
  if (at_once) {
    const uint64_t before = varkel_failure_count(v);
    if (int rc = refused_since(v, before, row.set_all_chips(v, value), 0); rc != 0)
      return rc;
  }
  int first = 0;
  for_each_working_chip(v, module, [&](int chip) {
    int rc = select_chip(v, chip);
    if (rc == 0)
      rc = at_once ? verify_selected(v, row, chip, value) : put_selected(v, row, chip, value);
    first = first != 0 ? first : rc;
  });
  return first;
}

int chip_off(varkel_t* v, int module, int chip)
{
  note_failure(v, VARKEL_CHIP_OFF, module, chip, nullptr, nullptr, "chip %d is switched off", chip);
  return VARKEL_CHIP_OFF;
}

// Writes module `module`, selected: the module row, one chip (`chip`) or every
// working chip (chip 0).
int put_on_module(varkel_t* v, const SettingRow& row, int module, int chip, double value)
{
  if (row.scope != VARKEL_SETTING_CHIP && !row.per_board)
    return put_selected(v, row, 0, value);
  if (row.per_board) {
    const uint64_t before = varkel_failure_count(v);
    int first = refused_since(v, before, row.set(v, value), 0);
    for (const Setting& s : table()) // the per-board rows (the bias's)
      if (first == 0 && s.row.board >= 0 && s.row.board < v->max_num_boards)
        first = verify_selected(v, s.row, 0, value);
    return first;
  }
  if (chip == 0)
    return put_module_chips(v, row, module, value);
  if (!chip_working(v, module, chip))
    return chip_off(v, module, chip);
  const int rc = select_chip(v, chip);
  return rc != 0 ? rc : put_selected(v, row, chip, value);
}

const SettingRow& row_with_rule(Rule rule)
{
  for (const Setting& s : table())
    if (s.row.rule == rule)
      return s.row;
  std::abort(); // the table has both
}

// The exposure must fit the period on every module written (exposure + readout
// at most a non-zero period, as the library's composite setters and the
// acquisition workflow hold it). Reads
// the other value in force on modules first..last. Returns 0, the read's code or
// -3 (noted) with nothing written.
int check_exposure_rule(varkel_t* v, const SettingRow& row, int first, int last, double value)
{
  const bool exposure = row.rule == Rule::exposure;
  const SettingRow& other = row_with_rule(exposure ? Rule::period : Rule::exposure);
  for (int m = first; m <= last; ++m) {
    double in_force = NAN;
    int rc = select_module(v, m);
    rc = rc != 0 ? rc : get_selected(v, other, &in_force);
    if (rc != 0)
      return rc;
    const float exposure_s = static_cast<float>(exposure ? value : in_force);
    const float period_s = static_cast<float>(exposure ? in_force : value);
    if (!exposure_fits(exposure_s, period_s)) {
      note_failure(v, -3, m, 0, nullptr, nullptr, "put %s %g: exposure %g s does not fit period %g s (readout %g ms)",
                   row.name, value, double{exposure_s}, double{period_s}, IMAGE_READOUT * 1e3);
      return -3;
    }
  }
  return 0;
}

} // namespace

// ---- the internal face ---------------------------------------------------------

std::span<const Setting> varkel::detail::setting_rows() { return table(); }

const SettingRow* varkel::detail::row_of(const varkel_setting_t* s)
{
  const Setting* setting = setting_of(s);
  return setting != nullptr ? &setting->row : nullptr;
}

const SettingRow& varkel::detail::row_reading(Read read)
{
  for (const Setting& s : table())
    if (s.row.read == read && s.row.snapshot_only)
      return s.row;
  std::abort(); // the table has each
}

bool varkel::detail::in_range(const SettingRow& row, double value)
{
  if (std::isnan(value))
    return false;
  const double max = row.kind == kNamed ? name_count(row) - 1 : row.max;
  return value >= row.min && value <= max && (row.kind == kReal || value == std::floor(value));
}

bool varkel::detail::same_value(const SettingRow& row, double a, double b)
{
  if (std::isnan(a) || std::isnan(b))
    return false;
  if (row.kind != kReal)
    return a == b;
  // Values the handle keeps as floats, replied with six decimals; times travel as
  // whole microseconds cut from the float, so 0.01 s comes back as 0.009999.
  return std::fabs(a - b) <= 1.5e-6 + 1e-6 * std::fabs(a);
}

int varkel::detail::parse_value(const SettingRow& row, const char* text, double* value)
{
  if (row.kind == kNamed) {
    const int index = for_each_name(row, [&](int, std::string_view word) { return word == text; });
    if (index >= 0)
      return *value = index, 0;
  }
  char* end = nullptr;
  errno = 0;
  const double x = row.hex ? static_cast<double>(std::strtoull(text, &end, 16)) : std::strtod(text, &end);
  if (end == text || *end != '\0' || errno == ERANGE || !in_range(row, x))
    return -3;
  *value = x;
  return 0;
}

int varkel::detail::format_value(const SettingRow& row, double value, char* text, std::size_t size)
{
  int written = 0;
  if (row.kind == kNamed) {
    std::string_view word;
    for_each_name(row, [&](int index, std::string_view w) { return index == value ? (word = w, true) : false; });
    if (word.empty())
      return -3;
    written = std::snprintf(text, size, "%.*s", static_cast<int>(word.size()), word.data());
  } else if (row.hex) {
    written = std::snprintf(text, size, "%llx", static_cast<unsigned long long>(value));
  } else {
    // Seven significant digits: what a float the handle keeps holds.
    written = std::snprintf(text, size, row.kind == kWhole ? "%.0f" : "%.7g", value);
  }
  return written >= 0 && static_cast<std::size_t>(written) < size ? 0 : ENOSPC;
}

int varkel::detail::select_for(varkel_t* v, const SettingRow& row, int module, int chip)
{
  if (row.scope == VARKEL_SETTING_DETECTOR)
    module = 1;
  if (!validate_module(v, module))
    return -7;
  if (row.scope != VARKEL_SETTING_CHIP)
    return select_module(v, module);
  if (!chip_on_model(v, chip))
    return -4;
  if (!chip_working(v, module, chip))
    return chip_off(v, module, chip);
  const int rc = select_module(v, module);
  return rc != 0 ? rc : select_chip(v, chip);
}

int varkel::detail::check_not_busy(varkel_t* v, const SettingRow& row, int module, int chip)
{
  if (!row.changes_acquisition || !extras(v).acquiring.load())
    return 0;
  note_failure(v, VARKEL_BUSY, module, chip, nullptr, nullptr, "%s cannot change while an acquisition runs", row.name);
  return VARKEL_BUSY;
}

int varkel::detail::get_selected(varkel_t* v, const SettingRow& row, double* value)
{
  const uint64_t before = varkel_failure_count(v);
  double x = NAN;
  const double was = row.cached.get != nullptr ? row.cached.get(*v) : 0;
  int rc = refused_since(v, before, read_selected(v, row, &x), selected_chip(v, row));
  if (rc == VARKEL_REFUSED && row.cached.restore != nullptr)
    row.cached.restore(*v, was);
  if (rc == 0)
    *value = x;
  return rc;
}

int varkel::detail::put_selected(varkel_t* v, const SettingRow& row, int chip, double value, double* back)
{
  const uint64_t before = varkel_failure_count(v);
  const double was = row.cached.get != nullptr ? row.cached.get(*v) : 0;
  const int rc = refused_since(v, before, row.set(v, value), chip);
  if (rc == VARKEL_REFUSED && row.cached.restore != nullptr)
    row.cached.restore(*v, was); // a setter that stores what it sent
  return rc != 0 ? rc : verify_selected(v, row, chip, value, back);
}

// ---- the public face -------------------------------------------------------------

int varkel_settings_count(void) { return static_cast<int>(kPublic); }

const varkel_setting_t* varkel_setting_at(int index)
{
  return index >= 0 && static_cast<std::size_t>(index) < kPublic ? &table()[static_cast<std::size_t>(index)].pub
                                                                 : nullptr;
}

const varkel_setting_t* varkel_setting_find(const char* name)
{
  if (name == nullptr)
    return nullptr;
  for (std::size_t i = 0; i < kPublic; ++i)
    if (std::strcmp(table()[i].pub.name, name) == 0)
      return &table()[i].pub;
  return nullptr;
}

int varkel_setting_parse(const varkel_setting_t* s, const char* text, double* value)
{
  const SettingRow* row = row_of(s);
  return row != nullptr && text != nullptr && value != nullptr ? parse_value(*row, text, value) : -3;
}

int varkel_setting_format(const varkel_setting_t* s, double value, char* text, size_t size)
{
  const SettingRow* row = row_of(s);
  return row != nullptr && text != nullptr ? format_value(*row, value, text, size) : -3;
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
  if (row->scope == VARKEL_SETTING_DETECTOR)
    module = chip = 0;
  if (module != 0 && !validate_module(varkel, module))
    return -7;
  if (row->scope == VARKEL_SETTING_CHIP && chip != 0 && !chip_on_model(varkel, chip))
    return -4;
  if (int rc = check_not_busy(varkel, *row, module, chip); rc != 0)
    return rc;
  if (row->scope == VARKEL_SETTING_DETECTOR)
    return put_selected(varkel, *row, 0, value); // the setter goes over every module itself
  const int first = module != 0 ? module : 1;
  const int last = module != 0 ? module : varkel->max_num_modules;
  if (row->rule != Rule::none)
    if (int rc = check_exposure_rule(varkel, *row, first, last, value); rc != 0)
      return rc;
  int result = 0;
  for (int m = first; m <= last; ++m) {
    int rc = select_module(varkel, m);
    rc = rc != 0 ? rc : put_on_module(varkel, *row, m, chip, value);
    result = result != 0 ? result : rc;
  }
  return result;
}
