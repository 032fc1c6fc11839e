// The workflows beside the acquisition: prepare the data server when there is
// one, scan one chip's DAC toward its aim and read it back, and load the DAC
// files with the reason of a failure on the handle's record.
#include "workflow.h"
#include "internal/dac_files.hpp"
#include "internal/geometry.hpp"
#include "internal/handle.hpp"
#include "internal/truthful.hpp"

using namespace varkel::detail;

namespace {

// Whether a scan from `from` to `to` in steps of `step` stays within the codes and
// takes a number of steps the controller accepts.
bool scan_codes_valid(int from, int to, int step)
{
  const auto code = [](int c) { return c >= 0 && c <= 255; };
  return code(from) && code(to) && step != 0 && validate_dac_scan((to - from) / step);
}

} // namespace

int varkel_model_has_data_server(varkel_detector_model_t model)
{
  return model == varkelTrio || model == varkelQuad ? 1 : 0;
}

int varkel_prepare_data_server(varkel_t* varkel)
{
  if (varkel->backend_socket < 0)
    return 0;
  return varkel_model_has_data_server(varkel->detModel) ? prepare_varkel(varkel) : prepare_backend(varkel);
}

int varkel_scan_chip(varkel_t* varkel, int module, int chip, varkel_dac_t dac, int from, int to, int step, int* code,
                     double* volts)
{
  if (module < 1 || module > varkel->max_num_modules)
    return -7;
  if (!chip_on_model(varkel, chip))
    return -4;
  if (!chip_working(varkel, module, chip)) {
    note_failure(varkel, VARKEL_CHIP_OFF, module, chip, nullptr, nullptr, "chip %d is switched off", chip);
    return VARKEL_CHIP_OFF;
  }
  if (varkel_scan_aim(dac) == 0.0 || !scan_codes_valid(from, to, step))
    return -5;
  const uint64_t failures = varkel_failure_count(varkel);
  int rc = select_module(varkel, module);
  rc = rc != 0 ? rc : truthful(varkel, [&] { return select_chipNumber(varkel, chip); });
  rc = rc != 0 ? rc : truthful(varkel, [&] {
    return US_DAC_Scan(varkel, dac, from, to, step, VARKEL_SEND_ONE_CHIP_ONE_MODULE);
  });
  rc = rc != 0 ? rc : truthful(varkel, [&] {
    return get_dac(varkel, DIGITAL_READ_SINGLE_DAC, dac) | get_dac(varkel, ANALOG_READ_SINGLE_DAC, dac);
  });
  if (varkel_failure_count(varkel) != failures)
    note_failure_chip(varkel, chip);
  if (rc != 0)
    return rc;
  if (code != nullptr)
    *code = varkel->digital_dac_values[chip - 1][dac - 1];
  if (volts != nullptr)
    *volts = varkel->analog_dac_values[chip - 1][dac - 1];
  return 0;
}

int varkel_load_dac_files(varkel_t* varkel, const char* index)
{
  if (index == nullptr) {
    note_failure(varkel, -1, 0, 0, nullptr, nullptr, "no DAC index file given");
    return -1;
  }
  dac_data files[4] = {};
  if (const auto failed = read_dac_files(index, files)) {
    note_failure(varkel, -1, failed->module, 0, nullptr, nullptr, "error reading file %s: %s", failed->file.c_str(),
                 failed->failure.message.c_str());
    return -1;
  }
  return truthful(varkel, [&] { return configure_module_dacs_with_file(varkel, index); });
}
