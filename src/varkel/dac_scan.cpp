// DAC scans run by the controller, with the code nearest the aim written back,
// and the threaded write of one DAC value to every chip of every module.
#include <algorithm>
#include <cassert>
#include <climits>
#include <cmath>
#include <cstdio>
#include <optional>

#include "internal/dac_scan.hpp"
#include "internal/module_threads.hpp"
#include "internal/pair_list.hpp"
#include "internal/query.hpp"
#include "workflow.h"

using namespace varkel::detail;

namespace {

// The voltage each scannable DAC is set to come nearest, in volts: the one table
// of aims, for the library's scans and for every caller (varkel_scan_aim).
constexpr struct {
  varkel_dac_t dac;
  double aim;
} kAims[] = {{DAC_GND, 0.65}, {DAC_FBK, 0.9}, {DAC_CAS, 0.85}};

// No other DAC has an aim, so no point of its scan could be chosen: such a scan
// is refused rather than writing an arbitrary code to the chip. Scans compare in
// single precision.
std::optional<float> aim_of(varkel_dac_t dac)
{
  const double aim = varkel_scan_aim(dac);
  return aim != 0.0 ? std::optional(static_cast<float>(aim)) : std::nullopt;
}

} // namespace

namespace varkel::detail {

ScanChoice choose_scan_point(const char* text, float aim)
{
  ScanChoice best;
  float best_distance = aim;
  walk_pairs<float>(text, [&](int code, float volts) {
    const float distance = std::fabs(aim - volts);
    if (distance < best_distance) {
      best = {code, volts};
      best_distance = distance;
    }
  });
  return best;
}

} // namespace varkel::detail

double varkel_scan_aim(varkel_dac_t dac)
{
  for (const auto& a : kAims)
    if (a.dac == dac)
      return a.aim;
  return 0.0;
}

int dac_scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step)
{
  assert(varkel != NULL);
  const std::optional<float> aim = aim_of(dac);
  if (!aim)
    return -5;
  // Signed codes travel as their unsigned 32-bit value; the step comes before the
  // last code.
  char reply[kReplySize];
  int rc = query_and_cache(varkel, reply, CMD_DAC_SCAN, static_cast<unsigned>(dac), static_cast<unsigned>(initial),
                           static_cast<unsigned>(step), static_cast<unsigned>(final));
  const ScanChoice best = rc == 0 ? choose_scan_point(reply, *aim) : ScanChoice{};
  printf("opt_analog: %f \n", static_cast<double>(best.analog));
  printf("opt_digital: %d \n", best.digital);
  // Written in every case: 0 when nothing qualified or the scan failed.
  rc |= set_dac(varkel, dac, best.digital, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
  return rc;
}

int US_DAC_Scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step, varkel_send_to_all_t send_to)
{
  assert(varkel != NULL);
  if (!aim_of(dac) || step == 0)
    return -5;
  // In 64 bits: neither the range nor its quotient may overflow.
  const long long points = (static_cast<long long>(final) - initial) / step;
  printf("num_points: %lld\n", points);
  if (!validate_dac_scan(static_cast<int>(std::clamp<long long>(points, INT_MIN, INT_MAX))))
    return -5;
  const int noted_chip = varkel->sensor_pos.sensorPos;
  const int chips = std::min<int>(varkel->num_all_chips, 36);
  const auto scan = [&] { return dac_scan(varkel, dac, initial, final, step); };
  // Selection codes are not counted.
  const auto scan_every_chip = [&](int) {
    int rc = 0;
    // By design this walks chip numbers 1..n, not the chips on the model (internal/geometry.hpp).
    for (int c = 1; c <= chips; ++c) {
      select_chipNumber(varkel, c);
      rc |= scan();
    }
    return rc;
  };
  switch (send_to) {
  case VARKEL_SEND_ONE_CHIP_ONE_MODULE:
    return scan();
  case VARKEL_SEND_ALL_CHIPS_ONE_MODULE:
    return scan_every_chip(0);
  case VARKEL_SEND_ONE_CHIP_ALL_MODULES:
    return for_each_module_selected(
        varkel,
        [&](int) {
          select_chipNumber(varkel, noted_chip);
          return scan();
        },
        Selection::ignored);
  case VARKEL_SEND_ALL_CHIPS_ALL_MODULES:
    return for_each_module_selected(varkel, scan_every_chip, Selection::ignored);
  default:
    return 0;
  }
}

void* dac_write_thread(void* data)
{
  const auto* ctx = static_cast<const varkel_dac_write_context*>(data);
  if (ctx == nullptr || ctx->varkel == nullptr || ctx->scan_rq == nullptr)
    return nullptr;
  varkel_t* v = ctx->varkel;
  // Unchecked by design: the controller judges the DAC number and the value.
  const auto dac = static_cast<unsigned>(ctx->scan_rq->dac);
  const auto value = static_cast<unsigned>(ctx->scan_rq->initial);
  const int chips = std::min<int>(v->num_all_chips, 36);
  // By design this walks chip numbers 1..n, not the chips on the model (internal/geometry.hpp).
  for (int c = 1; c <= chips; ++c) {
    US_Select_ChipNumber(v, c, ctx->owner);
    query_status(v, ctx->owner, CMD_SET_DAC, dac, value);
  }
  return nullptr;
}

int write_dac_all_modules(varkel_t* varkel, varkel_dac_t dac, int value)
{
  assert(varkel != NULL);
  dac_scan_t request{dac, value, 0, 0, 0.0f};
  varkel_dac_write_context contexts[4];
  for (int i = 0; i < 4; ++i)
    contexts[i] = {&request, varkel, static_cast<varkel_thread_t>(i)};
  // Failed commands are not reported by design; a thread that could not be
  // started is.
  return run_module_threads(contexts, varkel->max_num_modules, dac_write_thread,
                            [](int i) { printf("\nFinish thread %d\n\n", i + 1); });
}
