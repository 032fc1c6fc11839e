// The pure parts of DAC access: value ranges and the read-back parses.
#pragma once

#include <cstdint>
#include <iterator>

#include "varkel.h"

namespace varkel::detail {

// Each DAC's range and readable name: four take 9 bits, the rest 8.
struct DacInfo {
  varkel_dac_t dac;
  int max;
  const char* name; // the setting's name
};

inline constexpr DacInfo kDacs[] = {
    {DAC_ThresholdEnergy0, 511, "dac.THRESHOLD0"},
    {DAC_ThresholdEnergy1, 511, "dac.THRESHOLD1"},
    {DAC_ThresholdEnergy2, 255, "dac.THRESHOLD2"},
    {DAC_ThresholdEnergy3, 255, "dac.THRESHOLD3"},
    {DAC_ThresholdEnergy4, 255, "dac.THRESHOLD4"},
    {DAC_ThresholdEnergy5, 255, "dac.THRESHOLD5"},
    {DAC_ThresholdEnergy6, 255, "dac.THRESHOLD6"},
    {DAC_ThresholdEnergy7, 255, "dac.THRESHOLD7"},
    {DAC_Preamp, 255, "dac.PREAMP"},
    {DAC_IKrum, 255, "dac.IKRUM"},
    {DAC_Shaper, 255, "dac.SHAPER"},
    {DAC_Disc, 255, "dac.DISC"},
    {DAC_DiscLS, 255, "dac.DISCLS"},
    {DAC_ShaperTest, 255, "dac.SHAPERTEST"},
    {DAC_DiscL, 255, "dac.DISCL"},
    {DAC_Delay, 255, "dac.DELAY"},
    {DAC_TPBufferIn, 255, "dac.TPBUFFERIN"},
    {DAC_TPBufferOut, 255, "dac.TPBUFFEROUT"},
    {DAC_RPZ, 255, "dac.RPZ"},
    {DAC_GND, 255, "dac.GND"},
    {DAC_TPRef, 255, "dac.TPREF"},
    {DAC_FBK, 255, "dac.FBK"},
    {DAC_CAS, 255, "dac.CAS"},
    {DAC_TPRefA, 511, "dac.TPREFA"},
    {DAC_TPRefB, 511, "dac.TPREFB"},
    {DAC_BandGapOutput, 255, "dac.BANDGAPOUTPUT"},
    {DAC_BandGapTemperature, 255, "dac.BANDGAPTEMPERATURE"},
    {DAC_DACBias, 255, "dac.DACBIAS"},
    {DAC_DACCascodeBias, 255, "dac.DACCASCODEBIAS"},
    {DAC_Test, 255, "dac.TEST"},
    {DAC_DiscH, 255, "dac.DISCH"},
};
inline constexpr int kDacCount = static_cast<int>(std::size(kDacs));

constexpr bool dacs_in_order()
{
  for (int i = 0; i < kDacCount; ++i)
    if (kDacs[i].dac != i + 1)
      return false;
  return kDacCount == DAC_ENUM_END - 1;
}
static_assert(dacs_in_order(), "one row per DAC, in DAC order");

// Whether `value` is in DAC `dac`'s range (dac 1..31; anything else is no DAC).
bool dac_value_valid(int dac, int value);

// Stores the result text of a DAC read sent with operation `read_mode` for DAC
// `dac` into the caches, rows by chip number - 1, columns by DAC number - 1; `chip`
// is the selected chip number (0: none). A value whose row or column falls outside
// the caches is dropped; other operation codes store nothing. Returns the number
// of values stored.
int store_dac_reply(int read_mode, int dac, int chip, const char* text, int32_t (&digital)[36][32],
                    float (&analog)[36][32]);

// get_dac's read on channel `owner` into the given caches, `chip` being the chip
// selected there. Returns the query code; the caches are left alone on failure.
int read_dacs(varkel_t* v, varkel_thread_t owner, int read_mode, int dac, int chip, int32_t (&digital)[36][32],
              float (&analog)[36][32]);

} // namespace varkel::detail
