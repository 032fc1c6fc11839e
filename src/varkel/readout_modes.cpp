// Readout modes: one recipe of commands per mode, applied to every module in turn.
#include <cassert>
#include <iterator>

#include "internal/query.hpp"

using namespace varkel::detail;

namespace {

// One command of a recipe, on the current module over the main channel.
using Step = int (*)(varkel_t*);

template <varkel_image_mode_t Mode> int image_mode(varkel_t* v) { return US_ImageMode(v, Mode); }

template <varkel_dac_t Dac, int Value> int dac_on_all_chips(varkel_t* v)
{
  return set_dac(v, Dac, Value, VARKEL_SEND_ALL_CHIPS_ONE_MODULE);
}

template <varkel_omr_t Field, int Value> int omr_on_all_chips(varkel_t* v)
{
  return set_omr(v, Field, Value, VARKEL_SEND_ALL_CHIPS_ONE_MODULE);
}

// The commands of each mode, in the order they are sent, by mode number. Counter
// depth, read counter, continuous read-write and pixel mode are left as the caller
// set them.
constexpr Step kRecipes[][5] = {
    /* DEFAULT */ {image_mode<VARKEL_IMAGE_MODE_SINGLE>},
    /* CRW */ {image_mode<VARKEL_IMAGE_MODE_MULTIPLE>},
    /* 24BITS */
    {image_mode<VARKEL_IMAGE_MODE_CONTINUOUS>, dac_on_all_chips<DAC_ThresholdEnergy0, 30>,
     dac_on_all_chips<DAC_ThresholdEnergy1, 100>, omr_on_all_chips<OMR_Disc_CSM_SPM, VARKEL_DISCRIMINATOR_HIGH>,
     omr_on_all_chips<OMR_Gain_Mode, VARKEL_GAIN_MODE_HIGH>},
    /* DUAL_ENERGY */ {},
};
static_assert(std::size(kRecipes) == VARKEL_MEDIPIX_MODE_ENUM_END, "one recipe per mode");

} // namespace

int set_medipix_mode(varkel_t* varkel, varkel_medipix_mode_t medipix_mode)
{
  assert(varkel != NULL);
  if (!validate_medipix_mode(medipix_mode))
    return -3;
  const uint8_t acquisition = decode_backend_medipixMode(static_cast<uint8_t>(medipix_mode));
  return for_each_module_selected(
      varkel,
      [&](int) {
        // Written before the module's commands, whatever they return.
        varkel->acq_args.aquisitionMode = acquisition;
        int rc = 0;
        for (Step step : kRecipes[medipix_mode]) {
          if (step != nullptr)
            rc |= step(varkel);
        }
        return rc;
      },
      Selection::ignored);
}
