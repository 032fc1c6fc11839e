#include "world.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace varkel::sim {

namespace {

using std::chrono::microseconds;

constexpr uint32_t kSwitchOffReg = 0x94;
constexpr bool drives_shutter(uint32_t trigger_out) { return trigger_out >= 4 && trigger_out <= 11; }
constexpr bool external(uint32_t trigger_mode) { return trigger_mode == 1 || trigger_mode == 2; }

// A link-local GID built from a MAC address (modified EUI-64), byte 0 first.
void gid_from_mac(uint64_t mac, uint8_t gid[16])
{
  std::memset(gid, 0, 16);
  gid[0] = 0xfe;
  gid[1] = 0x80;
  const uint8_t b[6] = {uint8_t(mac >> 40), uint8_t(mac >> 32), uint8_t(mac >> 24),
                        uint8_t(mac >> 16), uint8_t(mac >> 8),  uint8_t(mac)};
  const uint8_t eui[8] = {uint8_t(b[0] ^ 2), b[1], b[2], 0xff, 0xfe, b[3], b[4], b[5]};
  std::memcpy(gid + 8, eui, 8);
}

initArgs make_link(const Geometry& g)
{
  initArgs a{};
  a.type = INIT_ARGS;
  for (int m = 0; m < g.modules; ++m) {
    a.fe_mac[m] = 0x0002C9F01000ull + 0x10u * m;
    a.be_mac[m] = 0x0002C9A1B2C3ull + 0x100u * m;
    gid_from_mac(a.fe_mac[m], a.fe_gid[m]);
    gid_from_mac(a.be_mac[m], a.be_gid[m]);
    a.vaddr[m] = 0x00007F0012345000ull + 0x40000000ull * m;
    a.rkey[m] = 0x1234u + 0x11u * m;
    a.qpn[m] = 0x1F2u + m;
  }
  a.bufferSize = 512;
  return a;
}

// A plausible efuse identifier for every mounted position: never 0.
uint32_t efuse_of(int m, int b, int c)
{
  const uint32_t x = static_cast<uint32_t>((m + 1) * 7919 + b * 613 + c * 97) * 2654435761u;
  return 0x100000u | (x >> 12 & 0xFFFFFu);
}

} // namespace

Clock::time_point Run::end() const
{
  const uint64_t cycle = std::max(period_us, exposure_us);
  const auto full = start + microseconds((exposures - 1ull) * cycle + exposure_us);
  return stopped ? std::min(*stopped, full) : full;
}

uint32_t Run::frames_at(Clock::time_point t) const
{
  const auto at = std::min(t, end());
  if (exposures == 0 || at < start)
    return 0;
  const uint64_t elapsed = std::chrono::duration_cast<microseconds>(at - start).count();
  if (elapsed < exposure_us)
    return 0;
  const uint64_t cycle = std::max<uint64_t>(std::max(period_us, exposure_us), 1);
  return static_cast<uint32_t>(std::min<uint64_t>(exposures, (elapsed - exposure_us) / cycle + 1));
}

double Run::remaining_at(Clock::time_point t) const
{
  return t >= end() ? 0.0 : std::chrono::duration<double>(end() - t).count();
}

bool Chip::live() const
{
  auto it = regs.find(kSwitchOffReg);
  return efuse != 0 && (it == regs.end() || it->second != 1);
}

void Module::reset()
{
  board = chip = 0;
  tb_regs.clear();
  transport.clear();
  link_up = false;
  exposure_us = 1000;
  period_us = 0;
  exposures = 1;
  trigger_mode = trigger_out = read_counter = image_mode = discard = trigger_enable = 0;
  armed = false;
}

World::World(varkel_detector_model_t model_, const std::vector<MissingChip>& missing)
    : model(model_), geo(geometry_of(model_)), modules(static_cast<std::size_t>(geo.modules)), link(make_link(geo))
{
  if (geo.modules == 0)
    throw std::invalid_argument("unknown detector model");
  for (int m = 0; m < geo.modules; ++m) {
    Module& mod = modules[m];
    for (int b = 0; b < geo.boards; ++b)
      for (int c = 0; c < geo.chips; ++c)
        mod.chips[b][c].efuse = efuse_of(m, b, c);
    // A controller that has been in service for a while.
    mod.exposures_before = 120000u + 3517u * m;
  }
  for (const MissingChip& x : missing) {
    if (x.module < 1 || x.module > geo.modules || x.chip_number < 1 || x.chip_number > 36)
      throw std::invalid_argument("no chip " + std::to_string(x.module) + ":" + std::to_string(x.chip_number));
    const ChipPosition p = chip_position(x.chip_number);
    modules[x.module - 1].chips[p.board][p.chip].efuse = 0;
  }
}

void World::publish_frames(const std::string& name)
{
  if (!segment_name(model).empty())
    segment = std::make_unique<SharedSegment>(name.empty() ? segment_name(model) : name);
}

void World::start(int m, Clock::time_point now)
{
  Module& mod = modules[m];
  if (mod.run) {
    mod.exposures_before += mod.run->frames_at(now);
    if (mod.run->delivers)
      mod.delivered_before += mod.run->frames_at(now);
  }
  mod.run = Run{now, std::nullopt, mod.exposure_us, mod.period_us, mod.exposures, mod.link_up};
  mod.armed = false;
  if (mod.link_up)
    ++mod.delivered_runs;
  if (!drives_shutter(mod.trigger_out))
    return;
  for (int k = 0; k < geo.modules; ++k) {
    if (k != m && external(modules[k].trigger_mode) && !acquiring(k, now))
      start(k, now);
  }
}

void World::stop(int m, Clock::time_point now)
{
  Module& mod = modules[m];
  mod.armed = false;
  if (mod.run && !mod.run->done_at(now))
    mod.run->stopped = now;
}

bool World::acquiring(int m, Clock::time_point now) const
{
  const Module& mod = modules[m];
  return mod.run && !mod.run->done_at(now);
}

uint64_t World::exposures_taken(int m, Clock::time_point now) const
{
  const Module& mod = modules[m];
  return mod.exposures_before + (mod.run ? mod.run->frames_at(now) : 0);
}

uint64_t World::frames_delivered(int m, Clock::time_point now) const
{
  const Module& mod = modules[m];
  return mod.delivered_before + (mod.run && mod.run->delivers ? mod.run->frames_at(now) : 0);
}

void World::publish(Clock::time_point now)
{
  std::vector<ModuleShot> shots;
  for (int m = 0; m < geo.modules; ++m) {
    Module& mod = modules[m];
    if (!mod.run || mod.run->published || !mod.run->done_at(now))
      continue;
    mod.run->published = true;
    if (!segment || !mod.run->delivers || mod.run->frames_at(now) == 0)
      continue;
    ModuleShot& shot = shots.emplace_back();
    shot.module = m;
    shot.exposure_s = mod.run->exposure_us / 1e6;
    shot.seed = static_cast<uint64_t>(m + 1) << 32 | mod.delivered_runs;
    for (int b = 0; b < geo.boards; ++b)
      for (int c = 0; c < geo.chips; ++c)
        shot.chip_live[b][c] = mod.chips[b][c].live();
  }
  // Modules that finish together are drawn side by side: the reply that noticed
  // waits for the frame.
  std::vector<std::thread> painters;
  for (std::size_t i = 1; i < shots.size(); ++i)
    painters.emplace_back([&, i] { render_module(model, shots[i], segment->pixels()); });
  if (!shots.empty())
    render_module(model, shots[0], segment->pixels());
  for (auto& t : painters)
    t.join();
}

std::map<uint32_t, uint64_t> expected_transport(const initArgs& link, int m)
{
  // Copies: the record is packed, its fields may not be bound to references.
  const uint64_t mac = link.be_mac[m], vaddr = link.vaddr[m];
  const uint64_t qpn = link.qpn[m], rkey = link.rkey[m], frames = link.bufferSize;
  const uint8_t* gid = link.be_gid[m];
  auto word = [&](int first) {
    return uint64_t{gid[first]} << 24 | uint64_t{gid[first + 1]} << 16 | uint64_t{gid[first + 2]} << 8 | gid[first + 3];
  };
  return {{2, mac & 0xFFFF},
          {3, mac >> 16},
          {8, word(12)},
          {9, word(8)},
          {10, word(4)},
          {11, word(0)},
          {12, qpn},
          {13, vaddr & 0xFFFFFFFF},
          {14, vaddr >> 32 & 0xFFFF},
          {15, rkey},
          {16, frames},
          {19, 1},
          {21, 1}};
}

} // namespace varkel::sim
