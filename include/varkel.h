// varkel: control library for a hybrid-pixel X-ray area detector built from
// Medipix3 chips. One handle per detector; every operation is a free function
// over the handle and returns an int code:
//   0          success
//   > 0        an operating-system error number (see strerror)
//   < 0        a library error, -1 to -13 (see varkel_error_string)
#pragma once

#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(_WIN32)
#define VARKEL_API
#else
#define VARKEL_API __attribute__((visibility("default")))
#endif

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the data-server records are little-endian on the wire");

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

// ---------------------------------------------------------------------------
// Data-server records: exactly 400 bytes each, packed, little-endian.
// ---------------------------------------------------------------------------

enum requestTypesEnum : uint8_t {
  INIT_ARGS = 0,
  ACQUIRE_ARGS = 1,
  ACQUIRE_STATUS = 2,
  SAVE_STATUS = 3,
  ABORT_SAVE = 4,
  STOP_ACQUIRE = 5,
  ARRAY_DATA = 6, // never sent: the frame travels through shared memory
  GEOMETRY = 7,
};

enum OperationTypesEnum : uint8_t { ACK = 0, NAK = 1, DONE = 2, NOT_DONE = 3, ERROR = 4 };

enum returnTypesEnum : uint8_t {
  INVALID_SAVE_PATH = 0,
  INVALID_AQUISITION_MODE = 1,
  INVALID_NUM_OF_ACQUISITIONS = 2,
  INVALID_GEOMETRY_FILE = 3,
};

enum saveModeEnum : uint8_t { NO_SAVE = 0, SAVE_DURING = 1, SAVE_AFTER = 2 };

enum aquisitionModeEnum : uint8_t { B12 = 0, B24 = 1, DUALENERGY = 2 };

#pragma pack(push, 1)
struct simpleArgs {
  uint8_t type;  // request: requestTypesEnum; acknowledgement: ACK or NAK
  uint8_t error; // on a NAK: returnTypesEnum
  uint8_t reserved[398];
};

struct acqArgs {
  uint8_t type; // ACQUIRE_ARGS
  uint64_t noOfAquisitions;
  char savefile[300];
  bool useLFSR;
  uint8_t saveMode;       // saveModeEnum
  uint8_t aquisitionMode; // aquisitionModeEnum
  bool resetRDMABuffer;
  uint16_t bcFramesToProcessPerTime;
  double detectorDistance;
  uint8_t extraDimensions;
  uint8_t DimensionsDepth[5];
  uint8_t reserved[71];
};

struct acqStatusArgs {
  uint8_t type;
  uint64_t noOfFrames[4];
  uint64_t noOfAquisitions[4];
  float bufferUsed[4];
  bool error[4];
  uint64_t lostFrameCnt[4];
  uint8_t done;
  uint64_t savedFrameNum;
  uint64_t savedAquisitionNum;
  uint8_t reserved[266];
};

struct saveStatusArgs {
  uint8_t type; // SAVE_STATUS
  uint8_t done; // DONE or NOT_DONE; anything else is an error
  uint8_t error[4];
  uint64_t savedFrameNum;
  uint64_t savedAquisitionNum;
  uint8_t reserved[378];
};

// "be" is the data server's end of a module's RDMA link, "fe" the detector's.
struct initArgs {
  uint8_t type; // INIT_ARGS
  uint8_t be_gid[4][16];
  uint8_t fe_gid[4][16];
  uint64_t fe_mac[4]; // low 48 bits
  uint64_t be_mac[4]; // low 48 bits
  uint64_t vaddr[4];
  uint32_t rkey[4];
  uint32_t qpn[4];
  uint32_t bufferSize;
  uint8_t reserved[139];
};

struct geometryArgs {
  uint8_t type; // GEOMETRY
  char jsonfile[300];
  uint8_t reserved[99];
};
#pragma pack(pop)

static_assert(sizeof(simpleArgs) == 400 && sizeof(acqArgs) == 400 && sizeof(acqStatusArgs) == 400 &&
                  sizeof(saveStatusArgs) == 400 && sizeof(initArgs) == 400 && sizeof(geometryArgs) == 400,
              "every data-server record is 400 bytes");
static_assert(offsetof(acqArgs, noOfAquisitions) == 1 && offsetof(acqArgs, savefile) == 9 &&
              offsetof(acqArgs, useLFSR) == 309 && offsetof(acqArgs, bcFramesToProcessPerTime) == 313 &&
              offsetof(acqArgs, detectorDistance) == 315 && offsetof(acqArgs, extraDimensions) == 323 &&
              offsetof(acqArgs, DimensionsDepth) == 324 && offsetof(acqArgs, reserved) == 329);
static_assert(offsetof(acqStatusArgs, noOfFrames) == 1 && offsetof(acqStatusArgs, noOfAquisitions) == 33 &&
              offsetof(acqStatusArgs, bufferUsed) == 65 && offsetof(acqStatusArgs, error) == 81 &&
              offsetof(acqStatusArgs, lostFrameCnt) == 85 && offsetof(acqStatusArgs, done) == 117 &&
              offsetof(acqStatusArgs, savedFrameNum) == 118 && offsetof(acqStatusArgs, savedAquisitionNum) == 126 &&
              offsetof(acqStatusArgs, reserved) == 134);
static_assert(offsetof(saveStatusArgs, error) == 2 && offsetof(saveStatusArgs, savedFrameNum) == 6 &&
              offsetof(saveStatusArgs, savedAquisitionNum) == 14 && offsetof(saveStatusArgs, reserved) == 22);
static_assert(offsetof(initArgs, be_gid) == 1 && offsetof(initArgs, fe_gid) == 65 &&
              offsetof(initArgs, fe_mac) == 129 && offsetof(initArgs, be_mac) == 161 &&
              offsetof(initArgs, vaddr) == 193 && offsetof(initArgs, rkey) == 225 && offsetof(initArgs, qpn) == 241 &&
              offsetof(initArgs, bufferSize) == 257 && offsetof(initArgs, reserved) == 261);
static_assert(offsetof(geometryArgs, jsonfile) == 1 && offsetof(geometryArgs, reserved) == 301);

// View of the data server's shared frame buffer.
struct array_data {
  pthread_mutex_t* mutex; // not used by the library
  int32_t* sample_frame;  // start of the mapped segment
};

// ---------------------------------------------------------------------------
// The handle
// ---------------------------------------------------------------------------

struct varkel_t {
  uint8_t max_num_modules;
  uint8_t max_num_boards;
  uint8_t max_num_chips;
  uint8_t num_all_chips;    // chips per module
  uint8_t num_mfb_tsensors; // board temperature sensors per module
  int varkel_interface;     // main channel: a copy of the selected module's fd; -1 when closed
  uint8_t varkel_module;    // 1-based module selected last
  int fd[4];                // module sockets; 0 means never connected (see query_and_cache)
  int backend_socket;       // data-server socket; -1 when closed
  FILE* debug_out;          // trace stream; NULL means no trace
  varkel_omr omr;
  varkel_params_t varkelParam;
  varkel_acquire_params_t acquireParam;
  int32_t digital_dac_values[36][32]; // [chip number - 1][DAC number - 1]
  float analog_dac_values[36][32];
  int32_t omr_values[21];
  char file_template[300];
  initArgs init_args;
  simpleArgs ack;
  saveStatusArgs saveargs;
  acqArgs acq_args;
  acqStatusArgs acq_status_return;
  sensor sensor_pos; // selection made last (see select_chipNumber)
  pthread_mutex_t backend_socket_mutex;
  array_data adata;
  int simulate; // 1 selects the simulation shared-memory segments; set by the caller
  int32_t mb_reg[5];
  uint32_t frame_size; // pixels of one full frame
  int32_t* sample_frame;
  varkel_detector_model_t detModel;
  bool sensor_disabled[4][36]; // [module index][chip number - 1]
};

// Process-wide acquisition polling state (one acquisition per process is timed).
VARKEL_API extern volatile sig_atomic_t start_polling;
VARKEL_API extern int initial_exposure_counter;

// ---------------------------------------------------------------------------
// Handle, models and errors
// ---------------------------------------------------------------------------

// Creates a handle for `detModel` and prints the model chosen. Returns NULL only
// when the handle itself cannot be allocated. An unknown model gives a handle
// with all counts 0. When the frame copy cannot be allocated the handle is still
// returned, with `sample_frame` NULL and `frame_size` 0, and a line on standard
// error says so: callers that need the frame check `sample_frame`.
VARKEL_API varkel_t* varkel_new(varkel_detector_model_t detModel);

// Releases the handle and everything it owns: every module socket, the data-server
// connection, the frame copy, the mapped frame buffer, the trace file it opened and
// the mutex.
VARKEL_API void varkel_delete(varkel_t* varkel);

// Message for any result code: strerror for positive codes, the library's table
// for 0 and negative codes (anything below -13 reads "Invalid error number", but
// for the snapshot codes -101 to -105 of snapshot.h and -106 to -109 of refusal.h,
// which have texts of their own).
VARKEL_API const char* varkel_error_string(int error);

// Chip number within a module: (2 - mfb) * 12 + sensor + 1.
VARKEL_API uint32_t decode_sensor_number(uint8_t sensor, uint8_t mfb);

// Argument predicates: true when the value is accepted.
VARKEL_API bool validate_bool(int value);
VARKEL_API bool validate_u5_int(int value);
VARKEL_API bool validate_u8_int(int value);
VARKEL_API bool validate_u9_int(int value);
VARKEL_API bool validate_u12_int(int value);
VARKEL_API bool validate_operation_mode(int value);
VARKEL_API bool validate_crw_srw(int value);
VARKEL_API bool validate_polarity(int value);
VARKEL_API bool validate_data_out(int value);
VARKEL_API bool validate_discriminator(int value);
VARKEL_API bool validate_counter_depth(int value);
VARKEL_API bool validate_colour_mode(int value);
VARKEL_API bool validate_pixel_mode(int value);
VARKEL_API bool validate_gain_mode(int value); // prints the value first
VARKEL_API int validate_omr_field(int value);  // 1 or 0
VARKEL_API bool validate_dac_scan(int value);
VARKEL_API bool validate_dac(int value);
VARKEL_API bool validate_number_chip_module(int value);
VARKEL_API bool validate_chip_with_zero(int value);
VARKEL_API bool validate_number_chip_mfb(varkel_t* varkel, int value); // 0..max_num_chips inclusive
VARKEL_API bool validate_number_boards(varkel_t* varkel, int value);   // 0..max_num_boards - 1
VARKEL_API bool validate_module(varkel_t* varkel, int value);          // 1..max_num_modules
VARKEL_API bool validate_read_counter(int value);
VARKEL_API bool validate_temperature(float value);
VARKEL_API bool validate_bias_voltage(float value);
VARKEL_API bool validate_image_mode(int value);
VARKEL_API bool validate_medipix_mode(int value);
VARKEL_API bool validate_trigger_out(int value);
VARKEL_API bool validate_trigger_mode(int value);
VARKEL_API bool validate_acquire_period(float value);
VARKEL_API bool validate_column(int value);
VARKEL_API bool validate_row_count(int value);
VARKEL_API bool validate_extBg(float value);

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

// ---------------------------------------------------------------------------
// Data server
// ---------------------------------------------------------------------------
// One TCP connection carries fixed 400-byte records: the data server's RDMA
// parameters on connect, then one request and one reply per exchange. A sample
// frame is published by the data server in a shared-memory segment.

// Writes the text of a NAK error code into `error` (at least 32 bytes):
// "Unable to create file", "Invalid acquisition mode", "Invalid number of
// acquisitions", or "Unknown error code" for any other value.
VARKEL_API void decode_backend_error(uint8_t ret, char* error);

// Connects to the data server (any earlier connection is closed first), receives
// its RDMA parameters into `init_args` and acknowledges them. Receive time-out
// 300 s (the connect and the parameters within the bounds of varkel_set_timeouts,
// when they are shorter). Returns 0; errno when the socket cannot be created; the codes of
// socket_connect; -1 when the handshake fails. The connection is closed on failure.
VARKEL_API int varkel_connect_backend(varkel_t* varkel, const char* address, unsigned short port);

// Closes the data-server connection, if open, and traces "[DISC]".
VARKEL_API void varkel_disconnect_backend(varkel_t* varkel);

// The handshake on the open socket `sockfd`: receives an `initArgs` of type
// INIT_ARGS into `init_args`, prints it and answers with an ACK. Returns 0, or -1
// when the record is short, of another type, or the ACK does not go out whole.
VARKEL_API int receive_initArgs_fromBackend(varkel_t* varkel, int sockfd);

// Prints "<id>=" and the 16 bytes of `gid` in hexadecimal, then a newline.
VARKEL_API void print_gid(unsigned char* gid, const char* id);

// Opens and maps the shared frame buffer of the handle's model (varkelTrio and
// varkelQuad only; the "_sim" segments when `simulate` is 1): 36 MiB, read-write.
// Returns the mapping, or NULL (with a message) when there is no segment for the
// model, the segment is missing, smaller than one frame, or cannot be opened or
// mapped.
VARKEL_API uint8_t* create_shared_memory(varkel_t* varkel);

// Maps the frame buffer into `adata.sample_frame`, replacing (and unmapping) an
// earlier mapping. Returns 0, or -1 with `adata` unchanged.
VARKEL_API int init_array_data(varkel_t* varkel);

// Copies the current frame (`frame_size` pixels) from the frame buffer into
// `sample_frame`, reading the segment under its name at the time of the call.
// Returns 0; ENODATA before a successful init_array_data or when the handle has
// no `sample_frame` (nothing is copied); EIO when the data server's segment has
// become smaller than one frame; the error of opening (ENOENT: the data server
// has removed it) or reading it. After EIO or a read error `sample_frame` may hold
// part of the frame. The process survives a segment that shrinks during the copy.
VARKEL_API int get_array_data(varkel_t* varkel);

// Sends `acq_args` as ACQUIRE_ARGS with `acquireParam.numCapture` acquisitions and
// receives the acknowledgement into `ack`. Returns 0 on ACK, -3 on NAK, -1 when
// the request does not go out whole. A short reply ends the process (status 0).
VARKEL_API int send_acqArgs_toBackend(varkel_t* varkel);

// Asks for the acquisition status, received into `acq_status_return`. Returns 0,
// or -1 when the request does not go out whole. A short reply ends the process.
VARKEL_API int get_acqStatus_fromBackend(varkel_t* varkel);

// Asks for the save status, received into `saveargs` and printed; stores the
// acquisitions saved through `savedAcquisitions`. Returns 0, or -1 when the
// request does not go out whole. A short reply or one of another type ends the
// process (status 0).
VARKEL_API int get_saveStatus_fromBackend(varkel_t* varkel, uint64_t* savedAcquisitions);

// Asks the data server to abort saving and prints the save status it answers
// with (`saveargs` is left alone). Returns 0; any failure ends the process
// (status 0). Takes no lock: do not run it alongside another exchange.
VARKEL_API int abort_save(varkel_t* varkel);

// Asks the data server to stop the acquisition and prints whether it is done.
// Returns 0 whatever the answer, -1 when the request or the reply is short.
VARKEL_API int send_stopAcquire_toBackend(varkel_t* varkel);

// Sends the path of a geometry file. Returns 0 on ACK; -1 when the request or the
// reply is short; 36 (ENAMETOOLONG) for a path of 300 characters or more, nothing
// sent. A NAK ends the process (status 0). Takes no lock: do not run it alongside
// another exchange.
VARKEL_API int send_geometryFile_toBackend(varkel_t* varkel, char* geometry_file);

// Stores acquisition arguments in `acq_args` (nothing is sent); `aquisitionMode`
// is a readout mode, mapped with decode_backend_medipixMode. Returns 0.
VARKEL_API int update_backend_acqArgs(varkel_t* varkel, uint8_t aquisitionMode, bool useLFSR, uint8_t saveMode,
                                      bool resetRDMABuffer, uint16_t bcFramesToProcessPerTime, uint8_t extraDimensions);

// Stores `name` in `file_template` and `acq_args.savefile`. Returns 0, or 36
// (ENAMETOOLONG) with nothing changed when it has 300 characters or more.
VARKEL_API int set_file_name_template(varkel_t* varkel, const char* name);

// Sets the fixed acquisition arguments (no save, 12-bit, RDMA buffer reset, one
// frame at a time, 5 extra dimensions) and sends them. Returns 0 or the code of
// send_acqArgs_toBackend.
VARKEL_API int prepare_backend(varkel_t* varkel);

// prepare_backend, then init_array_data, both always run. Returns 0 or the
// bitwise OR of their codes.
VARKEL_API int prepare_varkel(varkel_t* varkel);

// Acquisition mode the data server is told for a readout mode: 24-bit gives B24,
// dual energy DUALENERGY, anything else B12.
VARKEL_API uint8_t decode_backend_medipixMode(uint8_t aquisitionMode);

// result = stop - start, borrowing a second when the nanoseconds require it.
VARKEL_API void timespec_diff(struct timespec* start, struct timespec* stop, struct timespec* result);

// ---------------------------------------------------------------------------
// Connection, registers, addressing, serial port
// ---------------------------------------------------------------------------
// A module channel holds no descriptor before its first connection (fd 0) and
// after a failed one (fd -1); a command on it is refused with ENOTCONN, unsent.

// Connects module index `fd_pos` (0 to max_num_modules - 1) to its controller at
// `address`:`port` (receive time-out 600 s), makes it the main channel (and
// varkel_module) and sends its transport parameters (send_allinitArgs). A socket
// this module held before is closed first; no other module's socket is touched.
// On failure the module's socket is closed and its channel holds no descriptor
// (nor does the main channel, if it was this socket). Returns 0; -7 for a bad
// `fd_pos`; errno when the socket cannot be created; the codes of socket_connect;
// or the OR of the initialisation codes.
VARKEL_API int varkel_init(varkel_t* varkel, int fd_pos, const char* address, uint16_t port);

// Connects every module in parallel, one thread per module: module index m to
// address[m]:port[m], as varkel_init. Returns the OR of the modules' codes. The main
// channel ends on the module whose connection was established last.
VARKEL_API int varkel_connect(varkel_t* varkel, const char* const address[], const uint16_t port[]);

// Closes the main channel, if open, and leaves it at -1. The module channel that
// shared its socket is marked as holding no descriptor.
VARKEL_API void varkel_disconnect(varkel_t* varkel);

// Sends the RDMA parameters of module index `module` from `init_args` to its
// transport board, on its own channel: thirteen "TransportParams" commands, then
// "ConfigureTransport"; every step runs. Returns the OR of the fourteen codes;
// -3 with nothing sent when `bufferSize` does not fit four characters; -7 for a
// module index outside 0..max_num_modules - 1.
VARKEL_API int send_allinitArgs(varkel_t* varkel, int module);

// Reads the module's efuse identifier on channel `owner` into varkelParam.efuseID
// (its first word, at most 7 characters; a reply without a word leaves it as it
// was). Safe to call from one worker per module: the last reply stored wins.
// Returns the query code.
VARKEL_API int US_efuseID_RBV(varkel_t* varkel, varkel_thread_t owner);
// US_efuseID_RBV on the main channel.
VARKEL_API int efuseid_rbv(varkel_t* varkel);

// Sends "HS_Reset" with `action` (0 or 1) on channel `owner`; a reset (1) requires
// the transport to be initialised again. Returns the query code; -3 with nothing
// sent for any other action.
VARKEL_API int US_Reset(varkel_t* varkel, int16_t action, varkel_thread_t owner);
// US_Reset(varkel, 1, VARKEL_THREAD_MAIN).
VARKEL_API int varkel_reset(varkel_t* varkel);

// Kept for callers that expect it; does nothing and returns 0.
VARKEL_API int load_initVarkelParams(varkel_t* varkel);

// Transport-board and motherboard registers, each one query on channel `owner`.
// Values travel as one word: a null or empty value, or one holding a blank, is
// refused with -3 and nothing is sent. Otherwise the result is the query code; a
// reply text, even an error message, is not examined except by read_mb_reg.

// "TransportParams <init_arg> <value>": sets one RDMA transport parameter.
VARKEL_API int send_transportParams(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner);
// "ConfigureTransport": applies the transport parameters sent so far.
VARKEL_API int send_configureTransport(varkel_t* varkel, varkel_thread_t owner);
// "WriteTransport <init_arg> <value>": writes a transport-board register.
VARKEL_API int write_tb_reg(varkel_t* varkel, int init_arg, const char* value, varkel_thread_t owner);
// "ReadTransport <addr_reg>": the value shows only in the trace.
VARKEL_API int read_tb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner);
// "WriteReg <addr_reg> <value>": writes a motherboard register of the selected
// board (chip index * 4096 + offset).
VARKEL_API int write_mb_reg(varkel_t* varkel, int addr_reg, const char* value, varkel_thread_t owner);
// "ReadReg <addr_reg>": the reply, hexadecimal with or without 0x, goes to
// mb_reg[owner]; a reply that is not hexadecimal leaves it as it was.
VARKEL_API int read_mb_reg(varkel_t* varkel, int addr_reg, varkel_thread_t owner);

// Addressing. Chip numbers 1..36 map to boards in descending order: 1-12 on board
// 2, 13-24 on board 1, 25-36 on board 0.
//
// Selection cache. `sensor_pos` holds the last successful chip selection made on
// the caller's thread, on whatever channel. Selections made by the per-module
// workers the library starts inside a call (one thread per module) go to their
// module's controller but are not cached, so `sensor_pos` is only ever written by
// the thread that owns the handle and, after such a call, still names the chip the
// caller selected last. Main-channel operations read it as the selected chip.

// Points the main channel at module `module` (1..max_num_modules) and records it in
// varkel_module. Caller's thread only, never while workers run. Returns 0, or -7
// with nothing changed.
VARKEL_API int select_module(varkel_t* varkel, int module);

// Selects board `board_id` (0..max_num_boards - 1) on channel `owner`. Returns the
// query code, or -3 with nothing sent.
VARKEL_API int US_Select_MFB(varkel_t* varkel, int board_id, varkel_thread_t owner);
// US_Select_MFB on the main channel.
VARKEL_API int select_board(varkel_t* varkel, int board_id);
// Reads the selected board back into sensor_pos.mfb (kept when the reply is not a
// number). Returns the query code.
VARKEL_API int select_board_rbv(varkel_t* varkel);

// Selects chip index `sensor` (0..max_num_chips) on the board selected on channel
// `owner`. Returns the query code, or -3 with nothing sent.
VARKEL_API int US_ImgChipNumberID(varkel_t* varkel, uint16_t sensor, varkel_thread_t owner);
// Reads the selected chip index back into sensor_pos.chipId (kept when the reply
// is not a number). Returns the query code.
VARKEL_API int US_ImgChipNumberID_RBV(varkel_t* varkel);

// Selects chip number `chip_id` (1..36) on channel `owner`: its board, then its
// chip index, both sent even when the first fails. Returns -4 with nothing sent
// for a bad chip number; the OR of the two codes (-3 for a board the model lacks);
// 0 when both succeeded, and then sensor_pos holds the selection (see above).
VARKEL_API int US_Select_ChipNumber(varkel_t* varkel, int chip_id, varkel_thread_t owner);
// US_Select_ChipNumber on the main channel.
VARKEL_API int select_chipNumber(varkel_t* varkel, int chip_id);

// ---------------------------------------------------------------------------
// OMR register access
// ---------------------------------------------------------------------------
// The controller owns the register bits; fields are addressed by number. Every
// command goes over the main channel, to the chip selected on that module.

// Whether field `omr` may be written with `v` by set_omr: 0; -11 for a field out
// of 0..20 (nothing printed) or one that is not writable ("OMR-field not
// accessible"); -12 for a value the field refuses. Prints "OMR: <omr> -> Value: <v>"
// for fields in range.
VARKEL_API int validate_omr(int omr, int v);
// Sends "HS_ImgChipOMR <op> <omr> <value>"; the reply is not read. Returns the
// query code.
VARKEL_API int US_ImgChipOMR(varkel_t* varkel, varkel_omr_operation_t op, varkel_omr_t omr, int value);
// Writes field `omr` on the chips `send_to` names: the selected chip (0) or every
// chip (1) of the current module, or the same on every module in turn (2, 3; the
// main channel ends on the last). Any other target sends nothing and returns 0.
// Returns validate_omr's code with nothing sent, else the result of the last
// command. Caches nothing.
VARKEL_API int set_omr(varkel_t* varkel, varkel_omr_t omr, int value, varkel_send_to_all_t send_to);
// Counter depth as the controller reports it in bits to its enumeration index:
// 12 and 24 bits give 1 and 3, anything else -1.
VARKEL_API int update_counterDepth_index(int value);
// Reads every field of the selected chip into omr_values (field 6 converted with
// update_counterDepth_index). The reply's "<field> : <value>," pairs are read up
// to the first text that is not one; fields outside 0..20 are skipped. Returns 0,
// or the query code with omr_values left as it was.
VARKEL_API int get_omr(varkel_t* varkel);

// OMR field operations: one "HS_Set_OMR <field> <value>" or "HS_Get_OMR <field>"
// each, on the main channel. The number the controller answers is cached in the
// matching member of `omr` (booleans as non-zero, sense_dacSel as its low 8 bits).
// Returns -3 with nothing sent for a refused value, else the query code; a failed
// query leaves the cache alone, and so does a reply that does not start with the
// expected number (the operation then still returns 0).
VARKEL_API int US_OmrOMSelec(varkel_t* varkel, varkel_operation_mode_t operation_mode); // 0..7
VARKEL_API int US_OmrOMSelec_RBV(varkel_t* varkel);
VARKEL_API int US_ContinuousRW(varkel_t* varkel, varkel_crw_srw_t crw_srw_mode); // 0..1
VARKEL_API int US_ContinuousRW_RBV(varkel_t* varkel);
// Reply "Polarity set for: <n>"; the read-back replies a plain number.
VARKEL_API int US_Polarity(varkel_t* varkel, varkel_polarity_t polarity);
VARKEL_API int US_Polarity_RBV(varkel_t* varkel);
VARKEL_API int US_OmrPSSelec(varkel_t* varkel, varkel_dataout_t dataout); // 0..3
VARKEL_API int US_OmrPSSelec_RBV(varkel_t* varkel);
VARKEL_API int US_Discriminator(varkel_t* varkel, varkel_discriminator_t discriminator); // 0..1
VARKEL_API int US_Discriminator_RBV(varkel_t* varkel);
VARKEL_API int US_TestPulse(varkel_t* varkel, bool test_pulse);
VARKEL_API int US_TestPulse_RBV(varkel_t* varkel);
// Sends and caches the enumeration index, not bits.
VARKEL_API int US_CounterDepth(varkel_t* varkel, varkel_counterDepth_t mode);
VARKEL_API int US_CounterDepth_RBV(varkel_t* varkel);
VARKEL_API int US_Equalization(varkel_t* varkel, bool equalization);
VARKEL_API int US_Equalization_RBV(varkel_t* varkel);
VARKEL_API int US_SpectroscopicMode(varkel_t* varkel, varkel_spectroscopic_mode_t colour_mode); // 0..1
VARKEL_API int US_SpectroscopicMode_RBV(varkel_t* varkel);
VARKEL_API int US_PixelMode(varkel_t* varkel, varkel_pixel_mode_t mode); // 0..1
VARKEL_API int US_PixelMode_RBV(varkel_t* varkel);
VARKEL_API int US_Gain(varkel_t* varkel, varkel_gain_mode_t gain_mode); // 0..3, the check prints the value
VARKEL_API int US_Gain_RBV(varkel_t* varkel);
// 0..31; the reply is not read: only the read-back caches sense_dacSel.
VARKEL_API int US_SenseDacSel(varkel_t* varkel, uint8_t dac);
VARKEL_API int US_SenseDacSel_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Equalization and pixel configuration
// ---------------------------------------------------------------------------
// Main channel only; no reply is read. The loops go on after a failed command and
// return the OR of the results.

// Has the controller load equalization set "CFG<cfg_number>" into chip number
// `sensor`, or into chip numbers 1..36 one by one when `sensor` is 0. -3 with
// nothing sent for a chip number above 36.
VARKEL_API int US_Load_Equalization(varkel_t* varkel, uint8_t cfg_number, uint8_t sensor);
// Loads the 12-bit pixel configuration `value` into chip number `sensor`
// ("PixelLoad"). -3 with nothing sent (or printed) for a value above 4095.
VARKEL_API int pixel_load(varkel_t* varkel, uint8_t sensor, uint32_t value);
// On the current module: read counter read-back, read counter high, equalization
// on, pixel_load(chip, value), read counter back as it was, equalization off.
// Every step runs; returns the OR of their results.
VARKEL_API int config_discl(varkel_t* varkel, int chip, uint32_t value);
// config_discl on the chips `send_to` names: the chip selected last (0), chip
// numbers 1..num_all_chips of the current module (1), the chip selected last on
// every module (2), every chip of every module (3), each selected first. Selection
// results are not counted; any other target does nothing and returns 0.
VARKEL_API int US_ConfigDiscL(varkel_t* varkel, uint32_t value, varkel_send_to_all_t send_to);
// "sendImage <chip> <pattern>": for the chip selected last (0), chip numbers 1..36
// of the current module (1) or of every module in turn (2). Any other target
// sends nothing and returns 0.
VARKEL_API int send_image(varkel_t* varkel, uint8_t send_to_all, uint8_t pattern);

// Serial line to a controller: 115200 baud, 8N1, raw, no flow control.

// Opens and configures `device`; the descriptor goes to varkel_interface (a serial
// port opened earlier on this handle is closed first). Returns 0, or -1 with a
// message; on failure varkel_interface is -1.
VARKEL_API int open_serialPort(varkel_t* varkel, const char* device);
// Writes `size` bytes of `buffer` in one call. Returns 0, or -1 on a short or
// failed write.
VARKEL_API int write_serialPort(int fd, const char* buffer, size_t size);
// Reads one reply: 'j', a {...} part, anything, then a second {...} part, which is
// placed in `buffer` (cut to size - 1 characters). Pending input is discarded
// first. Returns the length placed in `buffer`; -2 when nothing arrives within
// five 1-second waits, the reply does not start with 'j', the line goes silent for
// 0.5 s in mid-reply, or the reply runs past 64 KiB.
VARKEL_API int read_serialPort(varkel_t* varkel, int fd, char* buffer, size_t size);

// ---------------------------------------------------------------------------
// Acquisition parameters
// ---------------------------------------------------------------------------
// Single commands go over the main channel (the module selected last) and cache
// what the controller answers; a reply that does not parse leaves the cache as
// it was and still returns 0. Arguments out of range return -3 and send nothing:
// a negative or non-finite time, 4294.967296 s or more of exposure, 2147.483648 s
// or more of period, fewer than one exposure.

// Exposure time in seconds, sent in whole microseconds (truncated).
VARKEL_API int US_AcquireTime(varkel_t* varkel, float acquire_time_s);
VARKEL_API int US_AcquireTime_RBV(varkel_t* varkel);
// Acquisition period in seconds, sent in whole microseconds (truncated).
VARKEL_API int US_AcquirePeriod(varkel_t* varkel, float acq_period_time_s);
VARKEL_API int US_AcquirePeriod_RBV(varkel_t* varkel);
VARKEL_API int US_NumExposures(varkel_t* varkel, int num_exposures);
VARKEL_API int US_NumExposures_RBV(varkel_t* varkel);
// Reads the controller's exposure total; while an acquisition started by this
// process counts (initial_exposure_counter > 0), also the exposures taken since.
VARKEL_API int US_NumExposuresCounter_RBV(varkel_t* varkel);
VARKEL_API int US_TriggerMode(varkel_t* varkel, varkel_trigger_mode_t trigger_mode);
VARKEL_API int US_TriggerMode_RBV(varkel_t* varkel); // caches nothing
VARKEL_API int US_ReadCounter(varkel_t* varkel, varkel_read_counter_t read_counter);
VARKEL_API int US_ReadCounter_RBV(varkel_t* varkel);
// Sets the image mode (0..3; the test-pulse mode is refused), then reads it back;
// returns the OR of both exchanges.
VARKEL_API int US_ImageMode(varkel_t* varkel, uint8_t image_mode);
VARKEL_API int US_ImageMode_RBV(varkel_t* varkel);
VARKEL_API int US_DiscardData(varkel_t* varkel, bool discard_data);
VARKEL_API int US_DiscardData_RBV(varkel_t* varkel);

// Composite setters: apply the value to every module, leaving the main channel on
// the last one. A non-zero period must exceed the exposure time by at least
// IMAGE_READOUT (single precision), checked against a fresh read-back; a breach
// returns -3 with nothing set. Otherwise the OR of every exchange's code.
VARKEL_API int set_acquireTime(varkel_t* varkel, float acquire_time_s);
VARKEL_API int set_periodTime(varkel_t* varkel, float period_time_s);
// With a shutter or acquisition trigger output (4..11) only module 1 is told.
VARKEL_API int set_numberExposures(varkel_t* varkel, int num_exposures);

// ---------------------------------------------------------------------------
// Acquisition run, status and triggers
// ---------------------------------------------------------------------------
// The interval timer, SIGALRM and start_polling are process-wide: one acquisition
// per process is timed at a time.

// Starts an acquisition: on every module after define_master_module(1, false,
// internal) when software_trigger is set, else on module 1 only. On success the
// status is ACQUIRING and the timer waits out numExposures x acquireTime; when that
// product arms no timer (zero, or under a microsecond), polling starts at once.
// Returns 0 or the OR of the failing codes (nothing changed then).
VARKEL_API int execute_acquire(varkel_t* varkel);
// DONE_ACQ once the timer has fired and the controller reports 0 seconds left,
// else ACQUIRING (nothing is sent before the timer fires). Stored in acquireStatus.
VARKEL_API int status_acquire(varkel_t* varkel);
// Stops every module: STOPPED, or the OR of the failing codes.
VARKEL_API int stop_acquire(varkel_t* varkel);
// Arms the one-shot SIGALRM timer for `acq_time` seconds (whole seconds only from
// one second on).
VARKEL_API void wait_toStart_polling(float acq_time);
// SIGALRM handler: writes its line and sets start_polling.
VARKEL_API void timer_handler(int signum);
// Makes `module` the trigger master: every other module takes `trigger_mode` (the
// master too when ext_trigger), software_trigger follows whether that mode is
// internal, and the master gets the shutter output of board C. -7 for a module
// out of range (nothing sent), else the OR of the codes; the main channel ends on
// the master.
VARKEL_API int define_master_module(varkel_t* varkel, uint8_t module, bool ext_trigger,
                                    varkel_trigger_mode_t trigger_mode);
VARKEL_API int US_Acquire(varkel_t* varkel, bool action); // 1 start, 0 stop
VARKEL_API int US_Acquire_RBV(varkel_t* varkel);          // a reply without a number keeps acquireState
VARKEL_API int US_DetectorState_RBV(varkel_t* varkel);    // first word of the reply
VARKEL_API int US_TimeRemaining_RBV(varkel_t* varkel);
// 0 or 1, else -3; "triggered" / "Waiting" set / clear software_trigger.
VARKEL_API int US_SoftawareTrigger(varkel_t* varkel, int software_trigger);
VARKEL_API int trigger_out(varkel_t* varkel, varkel_trigger_out_t trigger_out_mode); // 0..11, else -3
VARKEL_API int trigger_out_get(varkel_t* varkel);
VARKEL_API int Set_Trigger(varkel_t* varkel, int set_trigger); // 0 or 1, else -3
VARKEL_API int Set_Trigger_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Sensor bias and analogue read-backs
// ---------------------------------------------------------------------------
// Main channel (the module selected last, its selected board and chip). A value
// refused by its check returns -3 with nothing sent; a failed command returns its
// code and leaves the cache alone; a reply that does not parse leaves it alone too
// and returns 0.

// Sets the bias of the selected board (0..100 V, finite) and caches the value the
// controller reports ("High Voltage bias set to %fV") in varkelParam.bias_voltage.
VARKEL_API int US_SensorBias(varkel_t* varkel, float bias_voltage);
// Reads the bias of the selected board back into varkelParam.bias_voltage.
VARKEL_API int US_SensorBias_RBV(varkel_t* varkel);
// Ramps the selected board's bias from the value read back to `voltage` in 1 V
// steps, the last step landing exactly on `voltage`. Levels outside 0..100 V are
// refused (-3 each) and the walk goes on; once a level has left that range in the
// direction of travel, the rest would be refused as well and are not walked. A
// read-back that is not finite cannot be ramped from: -3, no level sent. Returns
// the OR of every exchange's code.
VARKEL_API int set_sensorBias(varkel_t* varkel, float voltage);
// Prints "SENT TO VALUE" with `send_to`, then ramps the selected board
// (VARKEL_SEND_ONE_MFB_ONE_MODULE), every board of the module in turn
// (VARKEL_SEND_ALL_MFBS_ONE_MODEULE) or every board of every module
// (VARKEL_SEND_ALL_MFBS_ALL_MODULES, leaving the main channel on the last module).
// Returns the OR of the board selections' and ramps' codes; -3 for any other
// target, nothing sent.
VARKEL_API int setSensorBias(varkel_t* varkel, float voltage, varkel_send_to_all_t send_to);
// Sets the selected chip's external band-gap input (0..1 V) and caches the reply in
// varkelParam.extBgIn.
VARKEL_API int US_ImgChip_ExtBgIn(varkel_t* varkel, float voltage);
VARKEL_API int US_ImgChip_ExtBgIn_RBV(varkel_t* varkel);
// Reads the selected chip's DAC output sense voltage into varkelParam.dacOutput.
VARKEL_API int US_ImgChipDACOUTSense_RBV(varkel_t* varkel);
// Status-only read-backs: the value shows only in the trace. Return the query code.
VARKEL_API int US_BandGapOutput_RBV(varkel_t* varkel);
VARKEL_API int US_BandGapTemperature_RBV(varkel_t* varkel);
VARKEL_API int US_CascodeBias_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// DACs
// ---------------------------------------------------------------------------
// "HS_ImgChipDAC <operation> <dac> <value>". DACs 1..31; DAC_ThresholdEnergy0,
// DAC_ThresholdEnergy1, DAC_TPRefA and DAC_TPRefB take 0..511, the others 0..255.

// Writes `value` to DAC `dac`: the selected chip (VARKEL_SEND_ONE_CHIP_ONE_MODULE)
// or every chip (VARKEL_SEND_ALL_CHIPS_ONE_MODULE) of the module on channel
// `owner`; the selected chip number on each module in turn, each selected afresh
// on the main channel (VARKEL_SEND_ONE_CHIP_ALL_MODULES: the last module's write
// code, the main channel left on the last module); every chip of every module,
// one worker per module on its own channel (VARKEL_SEND_ALL_CHIPS_ALL_MODULES: 0
// when all succeeded, else the OR of the failing modules' codes). Board targets
// send nothing and return 0. -4 for a bad DAC, -5 for a value out of its range,
// both with nothing sent. No cache is written.
VARKEL_API int US_Set_DAC(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to,
                          varkel_thread_t owner);
// US_Set_DAC on the main channel.
VARKEL_API int set_dac(varkel_t* varkel, varkel_dac_t dac, int value, varkel_send_to_all_t send_to);
// Reads DAC values back on the main channel ("HS_ImgChipDAC <read_mode> <dac> 0",
// both sent unchecked): one code or voltage of the selected chip, or a list of
// "<chip or DAC number> : <value>," entries, into digital_dac_values or
// analog_dac_values [chip number - 1][DAC number - 1]. Values whose place falls
// outside the caches (no chip selected, chip not 1..36, DAC not 1..32) are
// dropped; a list ends at its first entry that does not parse. Returns the query
// code; on failure both caches are left alone.
VARKEL_API int get_dac(varkel_t* varkel, varkel_read_dac_t read_mode, varkel_dac_t dac);
// Selects the external band-gap input (0.637 V, OMR_Ext_BG_Sel 1) on chip 6 of
// module 1 and chip 31 of module 2, each selected on the main channel. Returns 0
// whatever the steps return; the main channel ends on module 2 (on a one-module
// detector the second chip is set on module 1).
VARKEL_API int Set_DAC_Defaults(varkel_t* varkel);
// Writes the optimised DiscL value of each chip: every module, every chip number
// 1..num_all_chips, each selected on the main channel. Returns 0 whatever the steps
// return; the main channel ends on the last module.
VARKEL_API int set_OptimizedDiscL(varkel_t* varkel);
// "HS_DACBias_RBV" on the main channel; the value shows only in the trace. Returns
// the query code.
VARKEL_API int US_DACBias_RBV(varkel_t* varkel);

// ---------------------------------------------------------------------------
// Chip presence check and re-initialisation
// ---------------------------------------------------------------------------

// Reads every chip position's efuse register (every board, always chip indices
// 0..11), one worker per module on its own channel, and switches off the
// positions that read 0: registers 0x90 and 0x94 of the chip written "0" and "1",
// sensor_disabled[module index][chip number - 1] set, a line naming module, chip
// index and board printed. Each step runs whatever the earlier ones returned.
// Returns the OR of every step's code over all modules.
VARKEL_API int check_and_disable_sensors(varkel_t* varkel);

// Resets every module and sends its transport parameters again (one worker per
// module), prepares the data server, then loads the DAC file `file` into every
// module. Every step runs. Returns the OR of all codes.
VARKEL_API int varkel_reset_and_init(varkel_t* varkel, const char* file);

// ---------------------------------------------------------------------------
// Readout modes
// ---------------------------------------------------------------------------

// Puts every module in turn into `medipix_mode` (main channel, left on the last
// module) and records the data server's acquisition mode in acq_args.aquisitionMode
// (B12, B24 for 24 bits, DUALENERGY). Default and CRW set the image mode (0, 1);
// 24 bits sets image mode 2, thresholds 0 and 1 to 30 and 100 and the
// discriminator and gain OMR fields (1, 2) on all chips; dual energy sends nothing.
// A failed command does not stop the sequence. Returns the OR of the command
// codes; -3 with nothing sent or changed for a mode outside 0..3.
VARKEL_API int set_medipix_mode(varkel_t* varkel, varkel_medipix_mode_t medipix_mode);

// ---------------------------------------------------------------------------
// DAC scan
// ---------------------------------------------------------------------------
// The controller steps a DAC over a range and measures its voltage; the code whose
// voltage lies nearest the DAC's aim (DAC_GND 0.65 V, DAC_FBK 0.9 V, DAC_CAS
// 0.85 V) is written to the chip. No other DAC has an aim: a scan of one is
// refused with -5 before anything is printed or sent.

// Argument of one module worker of write_dac_all_modules.
struct varkel_dac_write_context {
  dac_scan_t* scan_rq; // shared read-only by all workers
  varkel_t* varkel;
  varkel_thread_t owner; // the module's channel
};

// Prints the number of points, (final - initial) / step, and scans the chips
// `send_to` names: the selected chip (0), every chip of the current module (1),
// the selected chip number on every module (2), every chip of every module (3),
// each selected first on the main channel (selection codes not counted). Any
// other target scans nothing and returns 0. Returns -5 with nothing sent for a
// DAC without an aim, a step of 0, or a point count outside 1..69; else the OR of
// the scans' codes.
VARKEL_API int US_DAC_Scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step,
                           varkel_send_to_all_t send_to);
// Scans the selected chip ("HS_DacScan <dac> <initial> <step> <final>"), prints
// the voltage and code chosen (0 and 0 when no point lies strictly between 0 V and
// twice the aim, or the scan failed) and writes that code to the chip in every
// case. Returns the OR of the scan's and the write's codes; -5 with nothing sent
// for a DAC without an aim.
VARKEL_API int dac_scan(varkel_t* varkel, varkel_dac_t dac, int initial, int final, int step);
// Writes `value` to DAC `dac` of every chip of every module ("HS_Set_DAC_Variable",
// unchecked), one POSIX thread per module on its own channel; prints a finish
// line per joined thread. Failed commands are not reported: returns 0, or
// non-zero when a module's thread could not be started (that module is named on
// standard error).
VARKEL_API int write_dac_all_modules(varkel_t* varkel, varkel_dac_t dac, int value);
// Worker of write_dac_all_modules; `data` is one varkel_dac_write_context. Returns
// NULL.
VARKEL_API void* dac_write_thread(void* data);

// ---------------------------------------------------------------------------
// Temperatures
// ---------------------------------------------------------------------------
// Readings are kept in varkelParam in the controller's unit. Single reads use the
// main channel (the module, board and chip selected last) and store only when the
// command succeeds and the reply begins with a number; they return the query code.

// Argument of one module worker of US_GetTemperature and US_GetMFBTemperature.
struct varkel_temperature_context {
  varkel_t* varkel;
  varkel_thread_t owner; // the module's channel and the row written
};

// Board sensor `sensorMFB` (1..16, sent unchecked) into mfb_sensor_temp.
VARKEL_API int US_TemperatureMFB_RBV(varkel_t* varkel, uint8_t sensorMFB);
// Average chip temperature of the selected module into
// avg_chip_temperature[varkel_module - 1] (none stored before a module is selected).
VARKEL_API int US_TemperatureChipAvg(varkel_t* varkel);
// Selects module `module` (1..4; its code not looked at), then reads the 16 sensors
// of boards 0, 1 and 2 into mfb_temperature[module - 1], printing one line per
// entry. A failed read repeats the previous reading. Returns the last read's code;
// -7 with nothing read for a module outside 1..4.
VARKEL_API int getMFB_Temperature(varkel_t* varkel, int module);
// As getMFB_Temperature for the chip temperatures of chip numbers
// 1..num_all_chips into allchip_temperature[module - 1].
VARKEL_API int getChip_Temperature(varkel_t* varkel, int module);
// Average chip temperature of every module at once, one POSIX thread per module on
// its own channel, into avg_chip_temperature; a module whose read fails keeps its
// reading. Returns 0, or non-zero when a module's thread could not be started
// (that module is named on standard error); returns after every started thread.
VARKEL_API int US_GetTemperature(varkel_t* varkel);
// As US_GetTemperature for the 48 board sensors of every module into
// mfb_temperature; a failed read leaves its entry alone.
VARKEL_API int US_GetMFBTemperature(varkel_t* varkel);
// Workers of the two calls above; `data` is one varkel_temperature_context.
// Return NULL.
VARKEL_API void* get_temperature_thread(void* data);
VARKEL_API void* get_mfbtemperature_thread(void* data);
