#include "controller.hpp"

#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>

namespace varkel::sim {

namespace {

// The shape of the set/read-back pairs: "<method> 1 <value>" sets, "<method> 0 <x>"
// reads back. Checks the two numbers and calls `set` or `read`.
template <typename Set, typename Read> Answer set_or_read(Params p, Set&& set, Read&& read)
{
  uint32_t action = 0, value = 0;
  if (p.size() != 2 || !number(p[0], action) || !number(p[1], value) || action > 1)
    return invalid("expected an action (0 or 1) and a value");
  return action == 1 ? set(value) : read();
}

// ---- transport and registers ------------------------------------------------

Answer transport_params(Ctx& c, Params p)
{
  uint32_t n = 0;
  uint64_t value = 0;
  if (p.size() != 2 || !number(p[0], n) || !number(p[1], value))
    return invalid("expected a parameter number and a decimal value");
  if (std::find(kTransportParams.begin(), kTransportParams.end(), n) == kTransportParams.end())
    return Answer::error(kServerError, format("Unknown transport parameter %u", n));
  c.mod.transport[n] = p[1];
  return Answer::result(format("TransportParams %u set to %s", n, p[1].c_str()));
}

// The link to the data server comes up only when every parameter has arrived and
// names the data server's end of this module's link.
Answer configure_transport(Ctx& c, Params p)
{
  if (!p.empty())
    return invalid("expected no parameters");
  c.mod.link_up = false;
  std::string missing;
  for (uint32_t n : kTransportParams)
    if (!c.mod.transport.contains(n))
      missing.append(1, ' ').append(std::to_string(n)); // not " " + ...: a false GCC 12 warning
  if (!missing.empty())
    return Answer::error(kServerError, "ConfigureTransport: missing parameters" + missing);
  for (const auto& [n, want] : expected_transport(c.world.link, c.m)) {
    uint64_t got = 0;
    number(c.mod.transport[n], got);
    if (got != want)
      return Answer::error(kServerError, format("ConfigureTransport: parameter %u is %s, the link needs %llu", n,
                                                c.mod.transport[n].c_str(), static_cast<unsigned long long>(want)));
  }
  c.mod.link_up = true;
  return Answer::result("Transport configured");
}

Answer write_transport(Ctx& c, Params p)
{
  uint32_t reg = 0, value = 0;
  if (p.size() != 2 || !number(p[0], reg) || !number(p[1], value))
    return invalid("expected a register and a decimal value");
  c.mod.tb_regs[reg] = value;
  return Answer::result(format("Transport register %u written", reg));
}

Answer read_transport(Ctx& c, Params p)
{
  uint32_t reg = 0;
  if (p.size() != 1 || !number(p[0], reg))
    return invalid("expected a register");
  return Answer::result(format("0x%x", c.mod.tb_regs[reg]));
}

constexpr uint32_t kEfuseReg = 0x18;

// Motherboard registers: chip index * 4096 + offset, on the selected board.
Chip* register_chip(Ctx& c, uint32_t address)
{
  const uint32_t chip = address / 4096;
  return chip < kPositionsPerBoard ? &c.mod.chips[c.mod.board][chip] : nullptr;
}

Answer write_reg(Ctx& c, Params p)
{
  uint32_t address = 0, value = 0;
  Chip* chip = nullptr;
  if (p.size() != 2 || !number(p[0], address) || !number(p[1], value) || !(chip = register_chip(c, address)))
    return invalid("expected a register of a chip position and a decimal value");
  chip->regs[address % 4096] = value;
  return Answer::result(format("Register %u written", address));
}

Answer read_reg(Ctx& c, Params p)
{
  uint32_t address = 0;
  Chip* chip = nullptr;
  if (p.size() != 1 || !number(p[0], address) || !(chip = register_chip(c, address)))
    return invalid("expected a register of a chip position");
  const uint32_t offset = address % 4096;
  return Answer::result(format("%x", offset == kEfuseReg ? chip->efuse : chip->regs[offset]));
}

Answer efuse_id(Ctx& c, Params p) { return expect_none(p, Answer::result(format("%x", selected_chip(c).efuse))); }

Answer reset(Ctx& c, Params p)
{
  uint32_t action = 0;
  if (p.size() != 1 || !number(p[0], action) || action > 1)
    return invalid("expected 0 or 1");
  if (action == 0)
    return Answer::result("Reset released");
  c.world.stop(c.m, c.now);
  c.mod.reset();
  return Answer::result("Reset done");
}

// ---- addressing -----------------------------------------------------------

Answer select_board(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t b) {
        if (b >= static_cast<uint32_t>(c.world.geo.boards))
          return Answer::error(kServerError, format("No Medipix board %u", b));
        c.mod.board = static_cast<int>(b);
        return Answer::result(format("Medipix board %u selected", b));
      },
      [&] { return Answer::result(format("%d", c.mod.board)); });
}

Answer select_chip(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t chip) {
        if (chip >= kPositionsPerBoard)
          return Answer::error(kServerError, format("No chip position %u", chip));
        c.mod.chip = static_cast<int>(chip);
        return Answer::result(format("Chip %u selected", chip));
      },
      [&] { return Answer::result(format("%d", c.mod.chip)); });
}

// ---- acquisition parameters -----------------------------------------------

Answer acquire_time(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t us) {
        c.mod.exposure_us = us;
        return Answer::result(format("AcquireTime set with %f seconds", us / 1e6));
      },
      [&] { return Answer::result(format("%f", c.mod.exposure_us / 1e6)); });
}

Answer acquire_period(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t us) {
        c.mod.period_us = us;
        return Answer::result(format("AcquirePeriod set to %f second(s)", us / 1e6));
      },
      [&] { return Answer::result(format("%u", c.mod.period_us)); });
}

Answer num_exposures(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t n) {
        if (n == 0)
          return Answer::error(kServerError, "Number of Exposures must be at least 1");
        c.mod.exposures = n;
        return Answer::result(format("Number of Exposures set to %u", n));
      },
      [&] { return Answer::result(format("%u", c.mod.exposures)); });
}

Answer exposure_counter(Ctx& c, Params p)
{
  return expect_none(
      p, Answer::result(format("%llu", static_cast<unsigned long long>(c.world.exposures_taken(c.m, c.now)))));
}

// "<method> 1 v" stores v (at most `max`) in `field` and answers with `set_text`
// of it; "<method> 0 x" answers with `read_text`.
Answer setting(Params p, uint32_t& field, uint32_t max, const char* set_text, const char* read_text)
{
  return set_or_read(
      p,
      [&](uint32_t v) {
        if (v > max)
          return Answer::error(kServerError, format("Value %u out of range", v));
        field = v;
        return Answer::result(format(set_text, v));
      },
      [&] { return Answer::result(format(read_text, field)); });
}

Answer trigger_mode(Ctx& c, Params p) { return setting(p, c.mod.trigger_mode, 2, "Trigger mode set to %u", "%u"); }
Answer image_mode(Ctx& c, Params p) { return setting(p, c.mod.image_mode, 4, "%u", "%u"); }
Answer discard_data(Ctx& c, Params p) { return setting(p, c.mod.discard, 1, "%u", "%u"); }
Answer trigger_out(Ctx& c, Params p) { return setting(p, c.mod.trigger_out, 11, "TriggerOut set to %u", "%u"); }
Answer set_trigger(Ctx& c, Params p) { return setting(p, c.mod.trigger_enable, 1, "Trigger enable set to %u", "%u"); }

Answer read_counter(Ctx& c, Params p)
{
  static const char* const names[] = {"Low", "High"};
  return set_or_read(
      p,
      [&](uint32_t v) {
        if (v > 1)
          return Answer::error(kServerError, format("No counter %u", v));
        c.mod.read_counter = v;
        return Answer::result(std::string("ReadCounter set for Counter ") + names[v]);
      },
      [&] { return Answer::result(std::string("Counter ") + names[c.mod.read_counter]); });
}

// ---- acquisition ----------------------------------------------------------

Answer acquire(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t start) {
        if (start > 1)
          return invalid("expected 0 (stop) or 1 (start)");
        if (start == 0) {
          c.world.stop(c.m, c.now);
          return Answer::result("Acquisition stopped");
        }
        if (c.world.acquiring(c.m, c.now))
          return Answer::result("Acquisition already running");
        if (c.mod.trigger_mode != 0) {
          c.mod.armed = true;
          return Answer::result("Waiting for trigger");
        }
        c.world.start(c.m, c.now);
        return Answer::result("Acquisition started");
      },
      [&] { return Answer::result(c.world.acquiring(c.m, c.now) || c.mod.armed ? "1" : "0"); });
}

Answer software_trigger(Ctx& c, Params p)
{
  return set_or_read(
      p,
      [&](uint32_t fire) {
        if (fire > 1)
          return invalid("expected 0 or 1");
        if (fire == 0)
          return Answer::result("Waiting");
        if (c.mod.armed)
          c.world.start(c.m, c.now);
        return Answer::result("triggered");
      },
      [&] { return Answer::result(c.mod.armed ? "Waiting" : "triggered"); });
}

Answer detector_state(Ctx& c, Params p)
{
  if (c.world.acquiring(c.m, c.now)) {
    const Run& run = *c.mod.run;
    return expect_none(p,
                       Answer::result(format("Acquiring (%u of %u exposures)", run.frames_at(c.now), run.exposures)));
  }
  return expect_none(p, Answer::result(c.mod.armed ? "Armed" : "Idle"));
}

Answer time_remaining(Ctx& c, Params p)
{
  const double left = c.mod.run ? c.mod.run->remaining_at(c.now) : 0.0;
  return expect_none(p, Answer::result(format("%f seconds left", left)));
}

// ---- OMR register, equalization and pixels ---------------------------------

// The largest value each OMR field holds, by field number.
constexpr std::array<uint32_t, kOmrFields> kOmrMax = {7, 1, 1, 3, 1, 1, 3, 7, 7, 7, 7, 1, 1, 1, 1, 1, 3, 3, 31, 1, 1};
// Counter depth by its index, in bits.
constexpr uint32_t kCounterBits[] = {1, 12, 6, 24};

Answer no_chip(const char* what) { return Answer::error(kServerError, format("No chip %s", what)); }

// The selected chip when one is mounted there.
Chip* selected_mounted(Ctx& c)
{
  Chip& chip = selected_chip(c);
  return chip.efuse != 0 ? &chip : nullptr;
}

// The mounted chip of chip number `n` (1..36) on this module.
Chip* numbered_chip(Ctx& c, uint32_t n)
{
  if (n < 1 || n > 36)
    return nullptr;
  const ChipPosition at = chip_position(static_cast<int>(n));
  Chip& chip = c.mod.chips[at.board][at.chip];
  return chip.efuse != 0 ? &chip : nullptr;
}

// Why `value` cannot go into OMR field `field`, if it cannot.
std::optional<Answer> omr_refusal(uint32_t field, uint32_t value)
{
  if (field >= kOmrFields)
    return Answer::error(kServerError, format("No OMR field %u", field));
  if (value > kOmrMax[field])
    return Answer::error(kServerError, format("OMR field %u cannot hold %u", field, value));
  return std::nullopt;
}

// "HS_ImgChipOMR <op> <field> <value>": write the selected chip (1) or every
// mounted chip (3), or list every field of the selected chip (4).
Answer img_chip_omr(Ctx& c, Params p)
{
  uint32_t op = 0, field = 0, value = 0;
  if (p.size() != 3 || !number(p[0], op) || !number(p[1], field) || !number(p[2], value))
    return invalid("expected an operation, a field and a value");
  Chip* selected = selected_mounted(c);
  if (op == 4) {
    if (!selected)
      return no_chip("selected");
    std::string pairs;
    for (uint32_t f = 0; f < kOmrFields; ++f)
      pairs += format("%u : %u,", f, f == kOmrCounterDepth ? kCounterBits[selected->omr[f]] : selected->omr[f]);
    return Answer::result(pairs);
  }
  if (op != 1 && op != 3)
    return invalid("operation 1, 3 or 4 expected");
  if (auto refused = omr_refusal(field, value))
    return *refused;
  if (op == 1 && !selected)
    return no_chip("selected");
  for (auto& board : c.mod.chips)
    for (Chip& chip : board)
      if (op == 3 ? chip.efuse != 0 : &chip == selected)
        chip.omr[field] = value;
  return Answer::result(format("OMR field %u set to %u", field, value));
}

// "HS_Set_OMR <field> <value>" on the selected chip: answers the value in force.
Answer set_omr_field(Ctx& c, Params p)
{
  uint32_t field = 0, value = 0;
  if (p.size() != 2 || !number(p[0], field) || !number(p[1], value))
    return invalid("expected a field and a value");
  if (auto refused = omr_refusal(field, value))
    return *refused;
  Chip* chip = selected_mounted(c);
  if (!chip)
    return no_chip("selected");
  chip->omr[field] = value;
  return Answer::result(format(field == 2 ? "Polarity set for: %u" : "%u", chip->omr[field]));
}

Answer get_omr_field(Ctx& c, Params p)
{
  uint32_t field = 0;
  if (p.size() != 1 || !number(p[0], field) || field >= kOmrFields)
    return invalid("expected an OMR field");
  Chip* chip = selected_mounted(c);
  return chip ? Answer::result(format("%u", chip->omr[field])) : no_chip("selected");
}

// "HS_LoadEqualization CFG<n> <chip number>": stored sets are CFG0 to CFG255.
Answer load_equalization(Ctx& c, Params p)
{
  uint32_t set = 0, n = 0;
  if (p.size() != 2 || p[0].rfind("CFG", 0) != 0 || !number(p[0].substr(3), set) || set > 255 || !number(p[1], n))
    return invalid("expected a set CFG0 to CFG255 and a chip number");
  Chip* chip = numbered_chip(c, n);
  if (!chip)
    return no_chip(p[1].c_str());
  chip->equalization_set = static_cast<int>(set);
  return Answer::result(format("Equalization %s loaded on chip %u", p[0].c_str(), n));
}

Answer pixel_load(Ctx& c, Params p)
{
  uint32_t n = 0, value = 0;
  if (p.size() != 2 || !number(p[0], n) || !number(p[1], value) || value > 4095)
    return invalid("expected a chip number and a 12-bit value");
  Chip* chip = numbered_chip(c, n);
  if (!chip)
    return no_chip(p[0].c_str());
  chip->pixel_config = value;
  return Answer::result(format("Pixel configuration %u loaded on chip %u", value, n));
}

Answer send_image(Ctx& c, Params p)
{
  uint32_t n = 0, pattern = 0;
  if (p.size() != 2 || !number(p[0], n) || !number(p[1], pattern) || pattern > 255)
    return invalid("expected a chip number and a pattern");
  return numbered_chip(c, n) ? Answer::result(format("Image pattern %u sent from chip %u", pattern, n))
                             : no_chip(p[0].c_str());
}

// Tells the library's varkel_identify that this is a simulator, and where its
// frame is: "varkel-sim VERSION model=MODEL module=N segment=NAME" (NAME empty
// when no frame is published). A real controller does not know the request.
Answer identity(Ctx& c, Params p)
{
  const std::string segment = c.world.segment ? c.world.segment->name() : std::string();
  return expect_none(p, Answer::result(std::string("varkel-sim " VARKEL_SIM_VERSION " model=") +
                                       model_name(c.world.model) + " module=" + std::to_string(c.m + 1) +
                                       " segment=" + segment));
}

const std::unordered_map<std::string_view, Handler> kCommands = {
    {"varkel_Identity", identity},
    {"TransportParams", transport_params},
    {"ConfigureTransport", configure_transport},
    {"WriteTransport", write_transport},
    {"ReadTransport", read_transport},
    {"WriteReg", write_reg},
    {"ReadReg", read_reg},
    {"HS_efuseID_RBV", efuse_id},
    {"HS_Reset", reset},
    {"SelectMedipixBoard_Command", select_board},
    {"HS_ImgChipNumberID_Command", select_chip},
    {"HS_AcquireTime_Command", acquire_time},
    {"HS_AcquirePeriod_Command", acquire_period},
    {"HS_NumExposures_Command", num_exposures},
    {"HS_NumExposuresCounter_RBV", exposure_counter},
    {"HS_Trigger_Command", trigger_mode},
    {"HS_ReadCounter_Command", read_counter},
    {"HS_ImageMode_Command", image_mode},
    {"HS_DiscardData_Command", discard_data},
    {"HS_Acquire_Command", acquire},
    {"HS_DetectorState_Command", detector_state},
    {"HS_TimeRemaining_RBV", time_remaining},
    {"HS_SoftwareTrigger", software_trigger},
    {"HS_TriggerOut_Command", trigger_out},
    {"HS_Set_Trigger", set_trigger},
    // OMR register, equalization and pixels
    {"HS_ImgChipOMR", img_chip_omr},
    {"HS_Set_OMR", set_omr_field},
    {"HS_Get_OMR", get_omr_field},
    {"HS_LoadEqualization", load_equalization},
    {"PixelLoad", pixel_load},
    {"sendImage", send_image},
};

} // namespace

Answer run_command(World& world, int m, const Call& call)
{
  const auto it = kCommands.find(call.method);
  Handler handler = it != kCommands.end() ? it->second : dac_command(call.method);
  if (handler == nullptr)
    handler = temperature_command(call.method);
  if (handler == nullptr)
    return Answer::error(kMethodNotFound, "Method not found: " + call.method);
  std::lock_guard lock(world.mutex);
  Ctx c{world, world.modules[m], m, Clock::now()};
  Answer answer = handler(c, call.params);
  world.publish(c.now);
  return answer;
}

} // namespace varkel::sim
