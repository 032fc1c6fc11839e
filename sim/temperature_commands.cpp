// The controller's thermometers: 16 sensors on each board, one per chip and the
// average of a module's chips, each reading with a little noise.
#include <chrono>

#include "commands.hpp"

namespace varkel::sim {

namespace {

constexpr uint32_t kBoardSensors = 16;

// Up to 0.05 degrees either way, drawn from the time of the request.
double noise(const Ctx& c, uint32_t salt)
{
  const auto ticks = static_cast<uint64_t>(c.now.time_since_epoch().count());
  const uint64_t x = (ticks / 1000 + salt) * 0x9E3779B97F4A7C15ull;
  return static_cast<double>(x >> 54) / 10230.0 - 0.05;
}

// A module runs warmer the later it sits in the chain, a board the nearer it is to
// the module's electronics (board 0), a chip by a spread of its own.
double chip_temperature(int m, int board, const Chip& chip)
{
  return 38.0 + 0.9 * m + 0.6 * (2 - board) + 0.25 * static_cast<double>(chip.efuse >> 5 & 0xF);
}

Answer board_sensor(Ctx& c, Params p)
{
  uint32_t n = 0;
  if (p.size() != 1 || !number(p[0], n) || n < 1 || n > kBoardSensors)
    return invalid("expected a board sensor 1 to 16");
  const double t = 27.0 + 0.8 * c.m + 1.1 * (2 - c.mod.board) + 0.15 * n + noise(c, n);
  return Answer::result(format("%.2f", t));
}

Answer chip_sensor(Ctx& c, Params p)
{
  const Chip& chip = selected_chip(c);
  if (chip.efuse == 0)
    return Answer::error(kServerError, "No chip selected");
  return expect_none(p, Answer::result(format("%.2f", chip_temperature(c.m, c.mod.board, chip) + noise(c, 0))));
}

Answer average(Ctx& c, Params p)
{
  double sum = 0;
  int mounted = 0;
  for (int b = 0; b < c.world.geo.boards; ++b)
    for (int i = 0; i < c.world.geo.chips; ++i)
      if (const Chip& chip = c.mod.chips[b][i]; chip.efuse != 0) {
        sum += chip_temperature(c.m, b, chip);
        ++mounted;
      }
  if (mounted == 0)
    return Answer::error(kServerError, "No chip mounted");
  return expect_none(p, Answer::result(format("%.2f", sum / mounted + noise(c, 1))));
}

} // namespace

Handler temperature_command(std::string_view method)
{
  if (method == "HS_Temperature")
    return board_sensor;
  if (method == "HS_TemperatureSensor_RBV")
    return chip_sensor;
  return method == "HS_AvgTemperature" ? average : nullptr;
}

} // namespace varkel::sim
