// The settings the Python package shows as properties, one row each: the
// library's setter, its read-back and the handle's cache it reads into. The
// properties of the detector, of one module and of one chip are all made from
// these rows.
#pragma once

#include <array>
#include <string_view>

#include "varkel.h"

namespace varkel::python {

enum class Scope {
  module, // a controller setting: one value per module
  chip,   // an OMR field: one value per chip
};

enum class Kind { integer, real, boolean };

struct Field {
  const char* name;
  Scope scope;
  Kind kind;
  // The single operation: on the module selected last (main channel), or on its
  // selected chip for the chip scope.
  int (*write)(varkel_t*, double);
  int (*read)(varkel_t*);
  double (*cached)(const varkel_t*);
  // Module scope: the library's own setter over every module, when it has one
  // (else the detector's value goes to each module in turn). Chip scope: the
  // OMR field number for set_omr's fan-out over the chips of a module or of all.
  int (*write_all)(varkel_t*, double) = nullptr;
  varkel_omr_t omr = OMR_ENUM_END;
  const char* doc = "";
};

// A setter called with a property's value, converted to the setter's own type.
template <typename R, typename A> A argument_of(R (*)(varkel_t*, A));
template <auto Setter> int write_as(varkel_t* v, double x)
{
  return Setter(v, static_cast<decltype(argument_of(Setter))>(x));
}

// One OMR field operation pair, cached in one member of varkel_omr.
template <auto Setter, auto ReadBack, auto Member>
constexpr Field omr_field(const char* name, Kind kind, varkel_omr_t number, const char* doc)
{
  return {name,     Scope::chip,
          kind,     write_as<Setter>,
          ReadBack, [](const varkel_t* v) { return static_cast<double>(v->omr.*Member); },
          nullptr,  number,
          doc};
}

template <auto Member> double acquisition(const varkel_t* v) { return static_cast<double>(v->acquireParam.*Member); }
template <auto Member> double parameter(const varkel_t* v) { return static_cast<double>(v->varkelParam.*Member); }

inline const std::array kFields{
    Field{"exposure", Scope::module, Kind::real, write_as<US_AcquireTime>, US_AcquireTime_RBV,
          acquisition<&varkel_acquire_params_t::acquireTime>, write_as<set_acquireTime>, OMR_ENUM_END,
          "Exposure time in seconds."},
    Field{"period", Scope::module, Kind::real, write_as<US_AcquirePeriod>, US_AcquirePeriod_RBV,
          acquisition<&varkel_acquire_params_t::acquirePeriod>, write_as<set_periodTime>, OMR_ENUM_END,
          "Acquisition period in seconds (0: back to back)."},
    Field{"exposures", Scope::module, Kind::integer, write_as<US_NumExposures>, US_NumExposures_RBV,
          acquisition<&varkel_acquire_params_t::numExposures>, write_as<set_numberExposures>, OMR_ENUM_END,
          "Exposures of one acquisition."},
    // The library does not parse the controller's trigger read-back: the value
    // shown is the one the controller acknowledged last.
    Field{"trigger_mode", Scope::module, Kind::integer, write_as<US_TriggerMode>, US_TriggerMode_RBV,
          parameter<&varkel_params_t::trigger_mode>, nullptr, OMR_ENUM_END,
          "TriggerMode: internal, external rising or falling edge."},
    Field{"image_mode", Scope::module, Kind::integer, write_as<US_ImageMode>, US_ImageMode_RBV,
          parameter<&varkel_params_t::image_mode>, nullptr, OMR_ENUM_END, "ImageMode 0..3."},
    Field{"read_counter", Scope::module, Kind::integer, write_as<US_ReadCounter>, US_ReadCounter_RBV,
          parameter<&varkel_params_t::read_counter>, nullptr, OMR_ENUM_END, "Counter read out: 0 low, 1 high."},
    // Ramped in 1 V steps on every board; the read-back is the board selected last.
    Field{
        "bias", Scope::module, Kind::real,
        [](varkel_t* v, double x) { return setSensorBias(v, static_cast<float>(x), VARKEL_SEND_ALL_MFBS_ONE_MODEULE); },
        US_SensorBias_RBV, parameter<&varkel_params_t::bias_voltage>,
        [](varkel_t* v, double x) { return setSensorBias(v, static_cast<float>(x), VARKEL_SEND_ALL_MFBS_ALL_MODULES); },
        OMR_ENUM_END, "Sensor bias in volts, ramped on every board."},
    omr_field<US_OmrOMSelec, US_OmrOMSelec_RBV, &varkel_omr::operation_mode>("operation_mode", Kind::integer, OMR_M,
                                                                             "OMR operation mode 0..7."),
    omr_field<US_ContinuousRW, US_ContinuousRW_RBV, &varkel_omr::crw_srw_mode>(
        "crw_srw", Kind::integer, OMR_CRW_SRW, "0 sequential, 1 continuous read-write."),
    omr_field<US_Polarity, US_Polarity_RBV, &varkel_omr::polarity>("polarity", Kind::integer, OMR_Polarity,
                                                                   "0 electrons, 1 holes."),
    omr_field<US_OmrPSSelec, US_OmrPSSelec_RBV, &varkel_omr::dataout>(
        "dataout", Kind::integer, OMR_PS, "Data outputs 0..3 (0, 2, 4, 8); chip by chip only."),
    omr_field<US_Discriminator, US_Discriminator_RBV, &varkel_omr::discriminator>("discriminator", Kind::integer,
                                                                                  OMR_Disc_CSM_SPM, "0 low, 1 high."),
    omr_field<US_TestPulse, US_TestPulse_RBV, &varkel_omr::enable_testPulse>("test_pulse", Kind::boolean, OMR_EnableTP,
                                                                             "Test pulses enabled."),
    omr_field<US_CounterDepth, US_CounterDepth_RBV, &varkel_omr::counterDepth_mode>(
        "counter_depth", Kind::integer, OMR_CountL, "CounterDepth index: 0 1 bit, 1 12 bits, 2 6 bits, 3 24 bits."),
    omr_field<US_Equalization, US_Equalization_RBV, &varkel_omr::equalization>("equalization", Kind::boolean,
                                                                               OMR_Equalization, "Equalization."),
    omr_field<US_SpectroscopicMode, US_SpectroscopicMode_RBV, &varkel_omr::colour_mode>(
        "colour_mode", Kind::integer, OMR_Colour_Mode, "0 fine pitch, 1 spectroscopic; chip by chip only."),
    omr_field<US_PixelMode, US_PixelMode_RBV, &varkel_omr::pixel_mode>("pixel_mode", Kind::integer, OMR_CSM_SPM,
                                                                       "0 single pixel, 1 charge summing."),
    omr_field<US_Gain, US_Gain_RBV, &varkel_omr::gain_mode>("gain", Kind::integer, OMR_Gain_Mode,
                                                            "Gain: 0 super high, 1 low, 2 high, 3 super low."),
    omr_field<US_SenseDacSel, US_SenseDacSel_RBV, &varkel_omr::sense_dacSel>("sense_dac", Kind::integer, OMR_Sense_DAC,
                                                                             "DAC on the sense output."),
};

// The 31 DACs by the names of varkel_dac_t, without "DAC_"; index + 1 is the number.
inline constexpr std::array<std::string_view, 31> kDacNames{"ThresholdEnergy0",
                                                            "ThresholdEnergy1",
                                                            "ThresholdEnergy2",
                                                            "ThresholdEnergy3",
                                                            "ThresholdEnergy4",
                                                            "ThresholdEnergy5",
                                                            "ThresholdEnergy6",
                                                            "ThresholdEnergy7",
                                                            "Preamp",
                                                            "IKrum",
                                                            "Shaper",
                                                            "Disc",
                                                            "DiscLS",
                                                            "ShaperTest",
                                                            "DiscL",
                                                            "Delay",
                                                            "TPBufferIn",
                                                            "TPBufferOut",
                                                            "RPZ",
                                                            "GND",
                                                            "TPRef",
                                                            "FBK",
                                                            "CAS",
                                                            "TPRefA",
                                                            "TPRefB",
                                                            "BandGapOutput",
                                                            "BandGapTemperature",
                                                            "DACBias",
                                                            "DACCascodeBias",
                                                            "Test",
                                                            "DiscH"};
static_assert(kDacNames.size() == DAC_ENUM_END - 1);

} // namespace varkel::python
