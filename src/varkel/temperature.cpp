// Temperatures: single reads on the main channel, the per-module tables read on
// the main channel, and the readers of every module at once, one POSIX thread per
// module over its own channel.
#include <algorithm>
#include <cassert>
#include <cstdio>

#include "internal/module_threads.hpp"
#include "internal/query.hpp"

using namespace varkel::detail;

namespace {

// The readers always walk three boards of 16 sensors, whatever the model.
constexpr int kBoards = 3;
constexpr int kSensorsPerBoard = 16;

// Rows of the per-module tables exist for modules 1 to 4 only.
constexpr bool has_row(int module) { return module >= 1 && module <= 4; }
constexpr bool module_channel(varkel_thread_t owner)
{
  return owner >= VARKEL_THREAD_MODULE1 && owner < VARKEL_THREAD_MAIN;
}

// The selected chip's sensor into chip_temperature; kept inside the library.
int US_TemperatureChip(varkel_t* varkel)
{
  return read_into<float>(varkel, "%f", varkel->varkelParam.chip_temperature, CMD_TEMPERATURE_CHIP);
}

// The shape of the per-module readers on the main channel: -7 for a module without
// a row; else select it (its code not looked at) and, for each of `count` entries,
// prepare(i), read(i), then store `reading` into row[i] whatever the read returned
// and print the entry with its label. Returns the last read's code.
template <typename Prepare, typename Read>
int read_module_table(varkel_t* v, int module, float* (*row_of)(varkel_t*, int), int count, Prepare&& prepare,
                      Read&& read, const float& reading, int label_offset)
{
  assert(v != NULL);
  if (!has_row(module))
    return -7;
  select_module(v, module);
  float* row = row_of(v, module - 1);
  int rc = 0;
  for (int i = 0; i < count; ++i) {
    prepare(i);
    rc = read(i);
    row[i] = reading;
    printf("%d : %.2f\n", i + label_offset, static_cast<double>(reading));
  }
  return rc;
}

// The context record a worker was handed, when it names a module channel.
const varkel_temperature_context* worker_context(void* data)
{
  const auto* ctx = static_cast<const varkel_temperature_context*>(data);
  return ctx != nullptr && ctx->varkel != nullptr && module_channel(ctx->owner) ? ctx : nullptr;
}

// Starts `worker` on one thread per module of the detector.
int for_each_module_thread(varkel_t* v, void* (*worker)(void*))
{
  assert(v != NULL);
  varkel_temperature_context contexts[4];
  for (int i = 0; i < 4; ++i)
    contexts[i] = {v, static_cast<varkel_thread_t>(i)};
  return run_module_threads(contexts, v->max_num_modules, worker, [](int) {});
}

} // namespace

int US_TemperatureMFB_RBV(varkel_t* varkel, uint8_t sensorMFB)
{
  return read_into<float>(varkel, "%f", varkel->varkelParam.mfb_sensor_temp, CMD_TEMPERATURE_MFB,
                          static_cast<unsigned>(sensorMFB));
}

int US_TemperatureChipAvg(varkel_t* varkel)
{
  assert(varkel != NULL);
  return query_scan<float>(
      varkel, VARKEL_THREAD_MAIN, "%f",
      [&](float t) {
        // Before any module is selected there is no row to store into.
        if (has_row(varkel->varkel_module))
          varkel->varkelParam.avg_chip_temperature[varkel->varkel_module - 1] = t;
      },
      CMD_TEMPERATURE_CHIP_AVG);
}

int getMFB_Temperature(varkel_t* varkel, int module)
{
  assert(varkel != NULL);
  return read_module_table(
      varkel, module, [](varkel_t* v, int m) { return v->varkelParam.mfb_temperature[m]; }, kBoards * kSensorsPerBoard,
      [&](int i) {
        // Its code is not looked at: a board the model lacks leaves the last one selected.
        if (i % kSensorsPerBoard == 0)
          select_board(varkel, i / kSensorsPerBoard);
      },
      [&](int i) { return US_TemperatureMFB_RBV(varkel, static_cast<uint8_t>(i % kSensorsPerBoard + 1)); },
      varkel->varkelParam.mfb_sensor_temp, 0);
}

int getChip_Temperature(varkel_t* varkel, int module)
{
  assert(varkel != NULL);
  return read_module_table(
      varkel, module, [](varkel_t* v, int m) { return v->varkelParam.allchip_temperature[m]; },
      std::min<int>(varkel->num_all_chips, 36), [&](int i) { select_chipNumber(varkel, i + 1); },
      [&](int) { return US_TemperatureChip(varkel); }, varkel->varkelParam.chip_temperature, 1);
}

void* get_temperature_thread(void* data)
{
  if (const auto* ctx = worker_context(data)) {
    varkel_t* v = ctx->varkel;
    const varkel_thread_t owner = ctx->owner;
    query_scan<float>(
        v, owner, "%f", [&](float t) { v->varkelParam.avg_chip_temperature[owner] = t; }, CMD_TEMPERATURE_CHIP_AVG);
  }
  return nullptr;
}

void* get_mfbtemperature_thread(void* data)
{
  if (const auto* ctx = worker_context(data)) {
    varkel_t* v = ctx->varkel;
    const varkel_thread_t owner = ctx->owner;
    for (int b = 0; b < kBoards; ++b) {
      US_Select_MFB(v, b, owner);
      for (int s = 1; s <= kSensorsPerBoard; ++s) {
        float* entry = &v->varkelParam.mfb_temperature[owner][b * kSensorsPerBoard + s - 1];
        query_scan<float>(
            v, owner, "%f", [&](float t) { *entry = t; }, CMD_TEMPERATURE_MFB, static_cast<unsigned>(s));
      }
    }
  }
  return nullptr;
}

int US_GetTemperature(varkel_t* varkel) { return for_each_module_thread(varkel, get_temperature_thread); }

int US_GetMFBTemperature(varkel_t* varkel) { return for_each_module_thread(varkel, get_mfbtemperature_thread); }
