// The chips' DACs, the sensor bias of each board and the analogue monitors, as
// the controller answers them.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <unordered_map>

#include "commands.hpp"

namespace varkel::sim {

namespace {

constexpr uint32_t kDacs = 31;
constexpr uint32_t kDacBias = 28, kBandGapOutput = 26, kBandGapTemperature = 27, kCascodeBias = 29;
constexpr uint32_t kSenseDacField = 18, kExtBandGapField = 20; // OMR fields
constexpr std::size_t kBiasLevelsKept = 256;

// Thresholds 0 and 1 and the two test-pulse references have 9 bits, the rest 8.
uint32_t dac_max(uint32_t dac) { return dac == 1 || dac == 2 || dac == 24 || dac == 25 ? 511 : 255; }

// The voltage DAC `dac` of a chip gives at `code`: a line over its full scale,
// shifted by up to 18 mV either way on each chip, so that scans of two chips
// choose different codes.
double dac_curve(const Chip& chip, uint32_t dac, uint32_t code)
{
  const double offset = 0.006 * static_cast<double>((chip.efuse + dac) % 7) - 0.018;
  return 0.05 + 1.15 * code / dac_max(dac) + offset;
}

// The voltage a DAC's output reads at its current code.
double dac_volts(const Chip& chip, uint32_t dac) { return dac_curve(chip, dac, chip.dacs[dac]); }

// A parameter as a decimal number of volts.
bool volts(const std::string& text, double& out)
{
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && std::isfinite(out);
}

Answer no_selected_chip() { return Answer::error(kServerError, "No chip selected"); }

// Mounted chips of the module by chip number, in ascending order.
std::vector<std::pair<int, Chip*>> mounted(Ctx& c)
{
  std::vector<std::pair<int, Chip*>> chips;
  for (int b = 0; b < c.world.geo.boards; ++b)
    for (int i = 0; i < c.world.geo.chips; ++i)
      if (c.mod.chips[b][i].efuse != 0)
        chips.emplace_back((2 - b) * 12 + i + 1, &c.mod.chips[b][i]);
  std::sort(chips.begin(), chips.end());
  return chips;
}

// "<number> : <value>," for each entry.
template <typename Entries, typename Value> std::string list(const Entries& entries, Value&& value)
{
  std::string text;
  for (const auto& e : entries)
    text += value(e);
  return text;
}

// "HS_ImgChipDAC <operation> <dac> <value>": operations 0 to 4 and 6 to 8 on the
// selected chip or every mounted chip; 5 (all DACs at once) is not offered.
Answer img_chip_dac(Ctx& c, Params p)
{
  uint32_t op = 0, dac = 0, value = 0;
  if (p.size() != 3 || !number(p[0], op) || !number(p[1], dac) || !number(p[2], value))
    return invalid("expected an operation, a DAC and a value");
  const bool all_dacs = op == 4 || op == 7;
  if (!all_dacs && (dac < 1 || dac > kDacs))
    return Answer::error(kServerError, format("No DAC %u", dac));
  Chip& selected = selected_chip(c);
  const bool one_chip = op == 0 || op == 1 || all_dacs || op == 6;
  if (one_chip && selected.efuse == 0)
    return no_selected_chip();
  std::vector<uint32_t> dacs(kDacs);
  for (uint32_t d = 0; d < kDacs; ++d)
    dacs[d] = d + 1;
  switch (op) {
  case 1:
  case 3:
    if (value > dac_max(dac))
      return Answer::error(kServerError, format("DAC %u cannot hold %u", dac, value));
    if (op == 1)
      selected.dacs[dac] = value;
    else
      for (auto& [n, chip] : mounted(c))
        chip->dacs[dac] = value;
    return Answer::result(format("DAC %u set to %u", dac, value));
  case 0:
    return Answer::result(format("%u", selected.dacs[dac]));
  case 6:
    return Answer::result(format("%f", dac_volts(selected, dac)));
  case 2:
    return Answer::result(
        list(mounted(c), [&](const auto& e) { return format("%d : %u,", e.first, e.second->dacs[dac]); }));
  case 8:
    return Answer::result(
        list(mounted(c), [&](const auto& e) { return format("%d : %f,", e.first, dac_volts(*e.second, dac)); }));
  case 4:
    return Answer::result(list(dacs, [&](uint32_t d) { return format("%u : %u,", d, selected.dacs[d]); }));
  case 7:
    return Answer::result(list(dacs, [&](uint32_t d) { return format("%u : %f,", d, dac_volts(selected, d)); }));
  default:
    return invalid("operation 0 to 4 or 6 to 8 expected");
  }
}

// "HS_DacScan <dac> <initial> <step> <final>" on the selected chip: the voltage at
// every code from the initial one towards the final one (signed, as 32-bit
// values), at most 70 points; codes outside the DAC's range are skipped.
Answer dac_scan(Ctx& c, Params p)
{
  uint32_t dac = 0, first = 0, step = 0, last = 0;
  if (p.size() != 4 || !number(p[0], dac) || !number(p[1], first) || !number(p[2], step) || !number(p[3], last))
    return invalid("expected a DAC, a first code, a step and a last code");
  if (dac < 1 || dac > kDacs)
    return Answer::error(kServerError, format("No DAC %u", dac));
  const Chip& chip = selected_chip(c);
  if (chip.efuse == 0)
    return no_selected_chip();
  const int64_t from = static_cast<int32_t>(first), by = static_cast<int32_t>(step), to = static_cast<int32_t>(last);
  if (by == 0 || (to - from) / by < 0 || (to - from) / by >= 70)
    return Answer::error(kServerError, "A scan takes 1 to 70 points");
  std::string points;
  for (int64_t code = from; by > 0 ? code <= to : code >= to; code += by)
    if (code >= 0 && code <= dac_max(dac))
      points += format("%lld : %.4f,", static_cast<long long>(code), dac_curve(chip, dac, static_cast<uint32_t>(code)));
  return Answer::result(points);
}

// "HS_Set_DAC_Variable <dac> <value>" on the selected chip.
Answer set_dac_variable(Ctx& c, Params p)
{
  uint32_t dac = 0, value = 0;
  if (p.size() != 2 || !number(p[0], dac) || !number(p[1], value))
    return invalid("expected a DAC and a value");
  if (dac < 1 || dac > kDacs || value > dac_max(dac))
    return Answer::error(kServerError, format("DAC %u cannot hold %u", dac, value));
  Chip& chip = selected_chip(c);
  if (chip.efuse == 0)
    return no_selected_chip();
  chip.dacs[dac] = value;
  return Answer::result(format("DAC %u set to %u", dac, value));
}

// "HS_SensorBias_Command 1 1 <volts>" sets the selected board's bias (0 to 100 V),
// "HS_SensorBias_Command 0 0 <x>" reads it.
Answer sensor_bias(Ctx& c, Params p)
{
  uint32_t action = 0, action2 = 0;
  double v = 0;
  if (p.size() != 3 || !number(p[0], action) || !number(p[1], action2) || action > 1 || !volts(p[2], v))
    return invalid("expected an action (0 or 1) twice and a voltage");
  double& bias = c.mod.bias[static_cast<std::size_t>(c.mod.board)];
  if (action == 0)
    return Answer::result(format("%f", bias));
  if (v < 0 || v > 100)
    return Answer::error(kServerError, format("Bias of %f V out of range", v));
  bias = v;
  if (c.mod.bias_levels.size() == kBiasLevelsKept)
    c.mod.bias_levels.erase(c.mod.bias_levels.begin());
  c.mod.bias_levels.push_back(v);
  return Answer::result(format("High Voltage bias set to %fV", v));
}

// "HS_ImgChip_ExtBgIn_Command 1 <volts>" sets the selected chip's external
// band-gap input (0 to 1 V), "... 0 <x>" reads it.
Answer ext_bg_in(Ctx& c, Params p)
{
  uint32_t action = 0;
  double v = 0;
  if (p.size() != 2 || !number(p[0], action) || action > 1 || !volts(p[1], v))
    return invalid("expected an action (0 or 1) and a voltage");
  Chip& chip = selected_chip(c);
  if (chip.efuse == 0)
    return no_selected_chip();
  if (action == 1 && (v < 0 || v > 1))
    return Answer::error(kServerError, format("Band-gap input of %f V out of range", v));
  if (action == 1)
    chip.ext_bg = v;
  return Answer::result(format("%f", chip.ext_bg));
}

// A monitor of the selected chip in volts.
template <double (*Read)(const Chip&)> Answer monitor(Ctx& c, Params p)
{
  const Chip& chip = selected_chip(c);
  return chip.efuse == 0 ? no_selected_chip() : expect_none(p, Answer::result(format("%f", Read(chip))));
}

template <uint32_t Dac> double dac_output(const Chip& chip) { return dac_volts(chip, Dac); }

// The DAC output line carries the DAC chosen by the sense field of the OMR.
double sense_output(const Chip& chip)
{
  const uint32_t dac = chip.omr[kSenseDacField];
  return dac >= 1 && dac <= kDacs ? dac_volts(chip, dac) : 0.0;
}

// The band-gap output follows the external input once the OMR selects it.
double band_gap_output(const Chip& chip)
{
  return chip.omr[kExtBandGapField] == 1 ? chip.ext_bg : dac_volts(chip, kBandGapOutput);
}

const std::unordered_map<std::string_view, Handler> kDacCommands = {
    {"HS_ImgChipDAC", img_chip_dac},
    {"HS_DacScan", dac_scan},
    {"HS_Set_DAC_Variable", set_dac_variable},
    {"HS_SensorBias_Command", sensor_bias},
    {"HS_ImgChip_ExtBgIn_Command", ext_bg_in},
    {"HS_ImgChipDACOUTSense_RBV", monitor<sense_output>},
    {"HS_BandGapOutput_RBV", monitor<band_gap_output>},
    {"HS_BandGapTemperature_RBV", monitor<dac_output<kBandGapTemperature>>},
    {"HS_DACCascodeBias_RBV", monitor<dac_output<kCascodeBias>>},
    {"HS_DACBias_RBV", monitor<dac_output<kDacBias>>},
};

} // namespace

Handler dac_command(std::string_view method)
{
  const auto it = kDacCommands.find(method);
  return it != kDacCommands.end() ? it->second : nullptr;
}

} // namespace varkel::sim
