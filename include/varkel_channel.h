// The command channel: command templates, request building, reply
// extraction and the one query every detector command goes through. Part of
// <varkel/varkel.h>.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "varkel_handle.h"

// ---------------------------------------------------------------------------
// Command channel
// ---------------------------------------------------------------------------

// Direction flag carried first by the set/read-back templates.
inline constexpr bool CMD_READ = false;
inline constexpr bool CMD_WRITE = true;
// Seconds of chip readout time, used by the acquisition time checks.
inline constexpr float IMAGE_READOUT = 0.0007f;

inline constexpr char CMD_IMGCHIP_OMR[] = "HS_ImgChipOMR %u %u %u";
inline constexpr char CMD_SET_OMR[] = "HS_Set_OMR %u %u";
inline constexpr char CMD_GET_OMR[] = "HS_Get_OMR %u";
inline constexpr char CMD_IMGCHIP_DAC[] = "HS_ImgChipDAC %u %u %u";
inline constexpr char CMD_SET_DAC[] = "HS_Set_DAC_Variable %u %u";
inline constexpr char CMD_GET_DAC[] = "HS_Get_DAC_Variable %u";
inline constexpr char CMD_GET_DACBIAS[] = "HS_DACBias_RBV";
inline constexpr char CMD_DAC_SCAN[] = "HS_DacScan %u %u %u %u";
inline constexpr char CMD_CONFIGURE_ROCE[] = "ConfigureTransport";
inline constexpr char CMD_TRANSPORT_ROCE[] = "TransportParams %u %s";
inline constexpr char CMD_READ_MB_REG[] = "ReadReg %u";
inline constexpr char CMD_WRITE_MB_REG[] = "WriteReg %u %s";
inline constexpr char CMD_WRITE_TB_REG[] = "WriteTransport %u %s";
inline constexpr char CMD_READ_TB_REG[] = "ReadTransport %u";
inline constexpr char CMD_CHIP_NUMBER[] = "HS_ImgChipNumberID_Command %u %u";
inline constexpr char CMD_PIXEL_LOAD[] = "PixelLoad %u %u";
inline constexpr char CMD_LOAD_EQUALIZATION[] = "HS_LoadEqualization %s %u";
inline constexpr char CMD_ACQUIRE[] = "HS_Acquire_Command %u %u";
inline constexpr char CMD_SEND_IMAGE[] = "sendImage %u %u";
inline constexpr char CMD_SET_TRIGGER[] = "HS_Set_Trigger %u %u";
inline constexpr char CMD_SET_TRIGGER_OUT[] = "HS_TriggerOut_Command %u %u";
inline constexpr char CMD_SEL_BOARDS[] = "SelectMedipixBoard_Command %u %u";
inline constexpr char CMD_ACQUIRE_TIME[] = "HS_AcquireTime_Command %u %u";
inline constexpr char CMD_ACQUIRE_PERIOD[] = "HS_AcquirePeriod_Command %u %u";
inline constexpr char CMD_IMAGE_COUNT[] = "HS_NumImages_Command %u %u";
inline constexpr char CMD_NUM_EXPOSURES[] = "HS_NumExposures_Command %u %u";
inline constexpr char CMD_NUM_EXPOSURES_COUNT[] = "HS_NumExposuresCounter_RBV";
inline constexpr char CMD_TRIGGER_MODE[] = "HS_Trigger_Command %u %u";
inline constexpr char CMD_SOFT_TRIGGER[] = "HS_SoftwareTrigger %u %u";
inline constexpr char CMD_SENSORBIAS[] = "HS_SensorBias_Command %u %u %f";
inline constexpr char CMD_DETECTOR_STATE[] = "HS_DetectorState_Command";
inline constexpr char CMD_efuseID[] = "HS_efuseID_RBV";
inline constexpr char CMD_TIME_REMAINING[] = "HS_TimeRemaining_RBV";
inline constexpr char CMD_READ_COUNTER[] = "HS_ReadCounter_Command %u %u";
inline constexpr char CMD_IMAGE_MODE[] = "HS_ImageMode_Command %u %u";
inline constexpr char CMD_TEMPERATURE_MFB[] = "HS_Temperature %u";
inline constexpr char CMD_TEMPERATURE_CHIP[] = "HS_TemperatureSensor_RBV";
inline constexpr char CMD_TEMPERATURE_CHIP_AVG[] = "HS_AvgTemperature";
inline constexpr char CMD_DISCARDDATA[] = "HS_DiscardData_Command %u %u";
inline constexpr char CMD_RESET[] = "HS_Reset %u";
inline constexpr char CMD_EXTBGIN[] = "HS_ImgChip_ExtBgIn_Command %u %f";
inline constexpr char CMD_DACOUTSENSE[] = "HS_ImgChipDACOUTSense_RBV";
inline constexpr char CMD_BANDGAP_OUT[] = "HS_BandGapOutput_RBV";
inline constexpr char CMD_BANDGAP_TEMP[] = "HS_BandGapTemperature_RBV";
inline constexpr char CMD_CASCODE_BIAS[] = "HS_DACCascodeBias_RBV";

// Builds the JSON-RPC request for the command text `cmd` into `buff`:
// {"id":...,"params":[[words 2..5]],"jsonrpc":"2.0","method":word 1}. Returns 0,
// or EOVERFLOW (buff then holds an empty text) when the request would not fit.
VARKEL_API int print_json(varkel_t* varkel, const char* cmd, char* buff);

// Copies the text of the reply's "result" member, else its "error" member, into
// `parse_result` (1024 bytes). A reply that is not JSON, or has neither, gives an
// empty text. Returns 0 when a member was found, -2 otherwise.
VARKEL_API int parse_json(varkel_t* varkel, const char* buff, char* parse_result);

// Formats and sends one request on channel `owner`. Returns 0; EOVERFLOW when the
// command (511 characters at most) or its request (511 at most) does not fit,
// nothing sent; ENOTCONN when the channel was never connected, nothing sent;
// errno of a failed format or send.
VARKEL_API int vcommand(varkel_t* varkel, const char* cmd_format, va_list args, varkel_thread_t owner);

// Receives one reply on channel `owner` into `result` (cut to result_size - 1
// characters). A reply split over several segments is put together until it forms
// one complete JSON value. Returns 0 (an empty text when the peer has closed), -1
// when the receive fails or times out.
VARKEL_API int receive(varkel_t* varkel, char* result, uint64_t result_size, varkel_thread_t owner);

// Discards stale input on the channel, sends, receives. Returns as vcommand and receive.
VARKEL_API int vquery(varkel_t* varkel, char* result, uint64_t result_size, const char* cmd_format, va_list args,
                      varkel_thread_t owner);

// The one call every detector operation makes: one full query on the main channel
// (first form) or on `owner`. On success `result` (1024 bytes) holds the reply's
// result text and 0 is returned; on failure `result` is left untouched and the code
// of vquery is returned.
VARKEL_API int query_and_cache(varkel_t* varkel, char* result, const char* cmd_format, ...)
    __attribute__((format(printf, 3, 4)));
VARKEL_API int query_and_cache(varkel_t* varkel, varkel_thread_t owner, char* result, const char* cmd_format, ...)
    __attribute__((format(printf, 4, 5)));

// Switches the trace of every request and reply of this handle on, into "log.txt"
// in the current directory (created or emptied). Ends the process with status 0
// when that file cannot be created.
VARKEL_API void varkel_set_debug_stream(varkel_t* varkel, FILE* stream);
