#include "controller.hpp"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <span>
#include <string_view>
#include <unordered_map>

namespace varkel::sim {

namespace {

using Params = std::span<const std::string>;

// What a handler works on: the module it was sent to, the world around it, and
// the time the request arrived.
struct Ctx {
  World& world;
  Module& mod;
  int m;
  Clock::time_point now;
};

using Handler = Answer (*)(Ctx&, Params);

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
  char buf[256];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return buf;
}

Answer invalid(const std::string& why) { return Answer::error(kInvalidParams, "Invalid params: " + why); }

// A whole parameter as an unsigned decimal number.
template <typename T> bool number(const std::string& text, T& out)
{
  const char* end = text.data() + text.size();
  auto [p, ec] = std::from_chars(text.data(), end, out, 10);
  return !text.empty() && ec == std::errc() && p == end;
}

// The shape of the set/read-back pairs: "<method> 1 <value>" sets, "<method> 0 <x>"
// reads back. Checks the two numbers and calls `set` or `read`.
template <typename Set, typename Read> Answer set_or_read(Params p, Set&& set, Read&& read)
{
  uint32_t action = 0, value = 0;
  if (p.size() != 2 || !number(p[0], action) || !number(p[1], value) || action > 1)
    return invalid("expected an action (0 or 1) and a value");
  return action == 1 ? set(value) : read();
}

Answer expect_none(Params p, Answer answer) { return p.empty() ? answer : invalid("expected no parameters"); }

Chip& selected_chip(Ctx& c) { return c.mod.chips[c.mod.board][c.mod.chip]; }

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
      missing += " " + std::to_string(n);
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

const std::unordered_map<std::string_view, Handler> kCommands = {
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
};

} // namespace

Answer run_command(World& world, int m, const Call& call)
{
  const auto it = kCommands.find(call.method);
  if (it == kCommands.end())
    return Answer::error(kMethodNotFound, "Method not found: " + call.method);
  std::lock_guard lock(world.mutex);
  Ctx c{world, world.modules[m], m, Clock::now()};
  Answer answer = it->second(c, call.params);
  world.publish(c.now);
  return answer;
}

} // namespace varkel::sim
