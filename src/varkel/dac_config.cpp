// Writing the calibrated DACs of the DAC files to every enabled chip, and one DAC
// operation applied to every chip number.
#include <algorithm>
#include <cassert>
#include <cstdio>

#include "internal/query.hpp"
#include "utils.h"
#include "varkel.h"

using namespace varkel::detail;

namespace {

int exec_function(varkel_t* varkel, varkel_dac_t dac, int value, method _method) { return _method(varkel, dac, value); }

// The calibrated DACs in the order each chip gets them, not the files' order.
constexpr struct {
  varkel_dac_t dac;
  uint16_t (dac_data::*values)[36];
} kWriteOrder[] = {
    {DAC_DiscL, &dac_data::discl}, {DAC_GND, &dac_data::gnd}, {DAC_FBK, &dac_data::fbk}, {DAC_CAS, &dac_data::cas}};

} // namespace

int configure_module_dacs_with_file(varkel_t* varkel, const char* dac_file_ini)
{
  assert(varkel != NULL);
  dac_data files[4] = {};
  if (int rc = read_default_dacs(dac_file_ini, files); rc != 0) {
    std::fprintf(stderr, "%s\n", "extract_default_dacs_from_file failed. \n");
    return rc;
  }
  const int chips = std::min<int>(varkel->num_all_chips, 36);
  return for_each_module_parallel(varkel, [&](varkel_thread_t channel) {
    const dac_data& d = files[channel];
    const bool* disabled = varkel->sensor_disabled[channel];
    int rc = 0;
    // By design this walks chip numbers 1..n, not the chips on the model (internal/geometry.hpp).
    for (int c = 1; c <= chips; ++c) {
      if (disabled[c - 1])
        continue;
      rc |= US_Select_ChipNumber(varkel, c, channel);
      for (const auto& [dac, values] : kWriteOrder)
        rc |= US_Set_DAC(varkel, dac, (d.*values)[c - 1], VARKEL_SEND_ONE_CHIP_ONE_MODULE, channel);
    }
    return rc;
  });
}

int run_dacs_all_chips(varkel_t* varkel, varkel_dac_t dac, int value, method _method)
{
  assert(varkel != NULL && _method != NULL);
  int rc = 0;
  // By design this walks chip numbers 1..n, not the chips on the model (internal/geometry.hpp).
  for (int chip = 1; chip <= 36; ++chip) {
    select_chipNumber(varkel, chip);
    rc |= exec_function(varkel, dac, value, _method);
  }
  return rc;
}
