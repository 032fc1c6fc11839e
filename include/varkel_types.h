// The library's enumerations and the parameter records the handle caches:
// models, channels and chip positions, the OMR fields, the DACs, the
// acquisition settings and status. Part of <varkel/varkel.h>.
#pragma once

#include <stdint.h>

#if defined(_WIN32)
#define VARKEL_API
#else
#define VARKEL_API __attribute__((visibility("default")))
#endif

// ---------------------------------------------------------------------------
// Models, channels, positions
// ---------------------------------------------------------------------------

enum varkel_detector_model_t : int32_t {
  kinlet = 0,     // 1 module x 1 board x 1 chip
  varkelLite = 1, // 1 x 1 x 12
  varkelTrio = 2, // 1 x 3 x 12
  varkelQuad = 3, // 4 x 3 x 12
};

// The channel a detector command goes over. Its value doubles as the
// zero-based module index of per-module tables.
enum varkel_thread_t : int32_t {
  VARKEL_THREAD_MODULE1 = 0,
  VARKEL_THREAD_MODULE2 = 1,
  VARKEL_THREAD_MODULE3 = 2,
  VARKEL_THREAD_MODULE4 = 3,
  VARKEL_THREAD_MAIN = 4, // the socket of the module selected last
};

// A module's place on the detector face.
enum moduleLoc : int32_t { UP_LT = 0, UP_RT = 1, LW_LT = 2, LW_RT = 3, ALL = 4, SINGLE = 5 };

struct sensor {
  moduleLoc module;  // not maintained in the handle's sensor_pos
  int32_t mfb;       // board index 0..2
  int32_t chipId;    // chip index on the board 0..11
  int32_t sensorPos; // chip number 1..36 within the module (0 in decoderQuad)
};

// Fan-out target of a write.
enum varkel_send_to_all_t : int32_t {
  VARKEL_SEND_ONE_CHIP_ONE_MODULE = 0,
  VARKEL_SEND_ALL_CHIPS_ONE_MODULE = 1,
  VARKEL_SEND_ONE_CHIP_ALL_MODULES = 2,
  VARKEL_SEND_ALL_CHIPS_ALL_MODULES = 3,
  VARKEL_SEND_ONE_MFB_ONE_MODULE = 4,
  VARKEL_SEND_ALL_MFBS_ONE_MODEULE = 5,
  VARKEL_SEND_ALL_MFBS_ALL_MODULES = 6,
};

// ---------------------------------------------------------------------------
// OMR register
// ---------------------------------------------------------------------------

enum varkel_omr_t : int32_t {
  OMR_M = 0,
  OMR_CRW_SRW = 1,
  OMR_Polarity = 2,
  OMR_PS = 3,
  OMR_Disc_CSM_SPM = 4,
  OMR_EnableTP = 5,
  OMR_CountL = 6,
  OMR_CollumBLock = 7,
  OMR_CollumBLock_Sel = 8,
  OMR_RowBlock = 9,
  OMR_RowBlock_Sel = 10,
  OMR_Equalization = 11,
  OMR_Colour_Mode = 12,
  OMR_CSM_SPM = 13,
  OMR_Info_Header = 14,
  OMR_Fuse_Sel = 15,
  OMR_Fuse_Pulse_Width = 16,
  OMR_Gain_Mode = 17,
  OMR_Sense_DAC = 18,
  OMR_Ext_DAC = 19,
  OMR_Ext_BG_Sel = 20,
  OMR_ENUM_END = 21,
};

enum varkel_omr_operation_t : int32_t {
  OMR_OP_READ = 0,
  OMR_OP_WRITE = 1,
  OMR_OP_READ_ALLSENSORS = 2,
  OMR_OP_WRITE_ALLSENSORS = 3,
  OMR_OP_READ_ALL_OMRS_ONESENSOR = 4,
  OMR_OP_ENUM_END = 5,
};

enum varkel_operation_mode_t : int32_t {
  VARKEL_READ_COUNTER_L = 0,
  VARKEL_READ_COUNTER_H = 1,
  VARKEL_LOAD_COUNTER_L = 2,
  VARKEL_LOAD_COUNTER_H = 3,
  VARKEL_LOAD_DACS = 4,
  VARKEL_LOAD_CTPR = 5,
  VARKEL_READ_DACS = 6,
  VARKEL_READ_OMR = 7,
  VARKEL_OPERATION_MODE_ENUM_END = 8,
};

enum varkel_crw_srw_t : int32_t {
  VARKEL_CRW_SRW_MODE_SEQUENTIAL = 0,
  VARKEL_CRW_SRW_MODE_CONTINUOUS = 1,
  VARKEL_CRW_SRW_MODE_ENUM_END = 2,
};

enum varkel_polarity_t : int32_t {
  VARKEL_POLARITY_ELECTRON = 0,
  VARKEL_POLARITY_HOLES = 1,
  VARKEL_POLARITY_ENUM_END = 2,
};

enum varkel_dataout_t : int32_t {
  VARKEL_DATA_OUT_0 = 0,
  VARKEL_DATA_OUT_2 = 1,
  VARKEL_DATA_OUT_4 = 2,
  VARKEL_DATA_OUT_8 = 3,
  VARKEL_DATA_OUT_ENUM_END = 4,
};

enum varkel_discriminator_t : int32_t {
  VARKEL_DISCRIMINATOR_LOW = 0,
  VARKEL_DISCRIMINATOR_HIGH = 1,
  VARKEL_DISCRIMINATOR_ENUM_END = 2,
};

// Note the order: 1, 12, 6, 24 bits.
enum varkel_counterDepth_t : int32_t {
  VARKEL_COUNTERDEPTH_1BIT = 0,
  VARKEL_COUNTERDEPTH_12BITS = 1,
  VARKEL_COUNTERDEPTH_6BITS = 2,
  VARKEL_COUNTERDEPTH_24BITS = 3,
  VARKEL_COUNTERDEPTH_ENUM_END = 4,
};

enum varkel_spectroscopic_mode_t : int32_t {
  VARKEL_COLOUR_MODE_FINE_PITCH = 0,
  VARKEL_COLOUR_MODE_SPECTROSCOPIC = 1,
  VARKEL_COLOUR_MODE_ENUM_END = 2,
};

enum varkel_pixel_mode_t : int32_t {
  VARKEL_PIXEL_MODE_SINGLE_PIXEL = 0,
  VARKEL_PIXEL_MODE_CHARGE_SUMMING = 1,
  VARKEL_PIXEL_MODE_ENUM_END = 2,
};

enum varkel_gain_mode_t : int32_t {
  VARKEL_GAIN_MODE_SUPER_HIGH = 0,
  VARKEL_GAIN_MODE_LOW = 1,
  VARKEL_GAIN_MODE_HIGH = 2,
  VARKEL_GAIN_MODE_SUPER_LOW = 3,
  VARKEL_GAIN_MODE_ENUM_END = 4,
};

// Column and row codes are 3-bit values with their bits reversed on the chip.
enum varkel_column_t : int32_t {
  VARKEL_COLUMN_0 = 0,
  VARKEL_COLUMN_4 = 1,
  VARKEL_COLUMN_2 = 2,
  VARKEL_COLUMN_6 = 3,
  VARKEL_COLUMN_1 = 4,
  VARKEL_COLUMN_5 = 5,
  VARKEL_COLUMN_3 = 6,
  VARKEL_COLUMN_7 = 7,
  VARKEL_COLUMN_ENUM_END = 8,
};

enum varkel_row_count_t : int32_t {
  VARKEL_1_ROW = 0,
  VARKEL_16_ROWS = 1,
  VARKEL_4_ROWS = 2,
  VARKEL_64_ROWS = 3,
  VARKEL_2_ROWS = 4,
  VARKEL_32_ROWS = 5,
  VARKEL_8_ROWS = 6,
  VARKEL_128_ROWS = 7,
  VARKEL_ROW_COUNT_ENUM_END = 8,
};

enum varkel_medipix_mode_t : int32_t {
  VARKEL_MEDIPIX_MODE_DEFAULT = 0,
  VARKEL_MEDIPIX_MODE_CRW = 1,
  VARKEL_MEDIPIX_MODE_24BITS = 2,
  VARKEL_MEDIPIX_MODE_DUAL_ENERGY = 3,
  VARKEL_MEDIPIX_MODE_ENUM_END = 4,
};

// Cached OMR fields of the chip selected last.
struct varkel_omr {
  varkel_operation_mode_t operation_mode;
  varkel_crw_srw_t crw_srw_mode;
  varkel_polarity_t polarity;
  varkel_dataout_t dataout;
  varkel_discriminator_t discriminator;
  bool enable_testPulse;
  varkel_counterDepth_t counterDepth_mode;
  bool equalization;
  varkel_spectroscopic_mode_t colour_mode;
  varkel_pixel_mode_t pixel_mode;
  varkel_gain_mode_t gain_mode;
  uint8_t sense_dacSel;
};

// ---------------------------------------------------------------------------
// DACs
// ---------------------------------------------------------------------------

// The DAC number is what travels on the wire.
enum varkel_dac_t : int32_t {
  DAC_ThresholdEnergy0 = 1,
  DAC_ThresholdEnergy1 = 2,
  DAC_ThresholdEnergy2 = 3,
  DAC_ThresholdEnergy3 = 4,
  DAC_ThresholdEnergy4 = 5,
  DAC_ThresholdEnergy5 = 6,
  DAC_ThresholdEnergy6 = 7,
  DAC_ThresholdEnergy7 = 8,
  DAC_Preamp = 9,
  DAC_IKrum = 10,
  DAC_Shaper = 11,
  DAC_Disc = 12,
  DAC_DiscLS = 13,
  DAC_ShaperTest = 14,
  DAC_DiscL = 15,
  DAC_Delay = 16,
  DAC_TPBufferIn = 17,
  DAC_TPBufferOut = 18,
  DAC_RPZ = 19,
  DAC_GND = 20,
  DAC_TPRef = 21,
  DAC_FBK = 22,
  DAC_CAS = 23,
  DAC_TPRefA = 24,
  DAC_TPRefB = 25,
  DAC_BandGapOutput = 26,
  DAC_BandGapTemperature = 27,
  DAC_DACBias = 28,
  DAC_DACCascodeBias = 29,
  DAC_Test = 30,
  DAC_DiscH = 31,
  DAC_ENUM_END = 32,
};

// DAC operation codes: one code space split over a read and a write enumeration.
enum varkel_read_dac_t : int32_t {
  DIGITAL_READ_SINGLE_DAC = 0,
  DIGITAL_READ_ALL_SENSORS = 2,
  DIGITAL_READ_ALL_DACS = 4,
  ANALOG_READ_SINGLE_DAC = 6,
  ANALOG_READ_ALL_DACS = 7,
  ANALOG_READ_ALL_SENSORS = 8,
};

enum varkel_write_dac_t : int32_t {
  WRITE_SINGLE_DAC = 1,
  WRITE_ALL_SENSORS = 3,
  WRTIE_ALL_DACS = 5,
};

struct dac_scan_t {
  varkel_dac_t dac;
  int initial;
  int final;
  int step;
  float acquireTime;
};

// ---------------------------------------------------------------------------
// Acquisition
// ---------------------------------------------------------------------------

enum varkel_trigger_mode_t : int32_t {
  VARKEL_TRIGGER_MODE_INTERNAL = 0,
  VARKEL_TRIGGER_MODE_EXTERNAL_POS_EDGE = 1,
  VARKEL_TRIGGER_MODE_EXTERNAL_NEG_EDGE = 2,
  VARKEL_TRIGGER_MODE_ENUM_END = 3,
};

enum varkel_image_mode_t : int32_t {
  VARKEL_IMAGE_MODE_SINGLE = 0,
  VARKEL_IMAGE_MODE_MULTIPLE = 1,
  VARKEL_IMAGE_MODE_CONTINUOUS = 2,
  VARKEL_IMAGE_MODE_THRESHOLD = 3,
  VARKEL_IMAGE_MODE_TESTPULSE = 4,
  VARKEL_IMAGE_MODE_ENUM_END = 5,
};

enum varkel_read_counter_t : int32_t {
  VARKEL_COUNTER_LOW = 0,
  VARKEL_COUNTER_HIGH = 1,
  VARKEL_READ_COUNTER_ENUM_END = 2,
};

enum varkel_trigger_out_t : int32_t {
  VARKEL_TRIGGER_OUT_DISABLE = 0,
  VARKEL_TRIGGER_OUT_BOTH = 1,
  VARKEL_TRIGGER_OUT_SW = 2,
  VARKEL_TRIGGER_OUT_EXTERNAL = 3,
  VARKEL_TRIGGER_OUT_SHUTTER_MBA = 4,
  VARKEL_TRIGGER_OUT_SHUTTER_MBB = 5,
  VARKEL_TRIGGER_OUT_SHUTTER_MBC = 6,
  VARKEL_TRIGGER_OUT_SHUTTER_MBALL = 7,
  VARKEL_TRIGGER_OUT_ACQ_MBA = 8,
  VARKEL_TRIGGER_OUT_ACQ_MBB = 9,
  VARKEL_TRIGGER_OUT_ACQ_MBC = 10,
  VARKEL_TRIGGER_OUT_ACQ_MBALL = 11,
  VARKEL_TRIGGER_OUT_ENUM_END = 12,
};

enum acquire_status_t : int32_t {
  IDLE = 0,
  DONE_ACQ = 1,
  ACQUIRING = 2,
  BUFFER_OVERFLOW = 3,
  STOPPED = 4,
  DONE_BCK_ACQ = 5,
};

struct varkel_params_t {
  varkel_detector_model_t detModel; // not read: the handle's own detModel is
  varkel_dac_t dac;                 // not used
  varkel_trigger_mode_t trigger_mode;
  bool discard_data;
  float bias_voltage;
  varkel_read_counter_t read_counter;
  varkel_image_mode_t image_mode;
  float mfb_temperature[4][48]; // [module - 1][board * 16 + sensor - 1]
  float mfb_sensor_temp;
  float chip_temperature;
  float allchip_temperature[4][36]; // [module - 1][chip number - 1]
  float avg_chip_temperature[4];
  char efuseID[8];
  bool software_trigger;
  bool external_band_gap; // not used
  float extBgIn;
  float dacOutput;
  varkel_trigger_out_t trigger_out;
};

struct varkel_acquire_params_t {
  uint32_t numImages;        // not used
  uint32_t numImagesCounter; // not used
  uint32_t numExposures;
  float acquireTime;   // seconds
  float acquirePeriod; // seconds
  bool acquireState;
  char detectorState[512];
  float timeRemaining; // seconds
  uint32_t numExposuresCounter;
  uint32_t numExposuresTotal;
  int32_t numCapture; // acquisitions the data server is to capture; set by the caller
  acquire_status_t acquireStatus;
};
